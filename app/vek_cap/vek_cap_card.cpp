// Card identity: the card's own record and its chassis's record in the card database.
// Each copies the members it owns into g_vek_cap_card as they arrive (no checks, no
// comparison with what was there) and then tries the publication again.
#include "vek_cap.h"

static constexpr std::string_view vek_cap_unit = "app/vek_cap/vek_cap";

namespace {

// Both records end in the same line: the whole identity as it now stands.
void vek_cap_card_log(std::string_view func)
{
    const vek_cap_card_t &c = g_vek_cap_card;
    VEK_CAP_LOG_AS(func, 2u, KX_ZLOG_LEVEL_WARN,
                   "devid %d, slotid %d, sslotid %d, node 0x%08x, config_dev_type %d, node_type %d",
                   c.devid, c.slotid, c.sslotid, static_cast<unsigned>(c.node), c.config_dev_type,
                   c.node_type);
}

} // namespace

int32_t vek_cap_dp_my_info_pro(kx_mom_hash_res *res)
{
    if (int32_t rv = vek_cap_res_check(__func__, res); rv != 0)
        return rv;
    VEK_CAP_INFO("enter");
    const auto *card_info = static_cast<const PDev__DpLibMyInfo *>(res->obj);
    VEK_CAP_REFUSE_NULL(card_info);
    g_vek_cap_card.node = card_info->card_nodeid;
    g_vek_cap_card.config_dev_type = card_info->card_type;
    g_vek_cap_card.slotid = card_info->slotid;
    g_vek_cap_card.sslotid = card_info->sslotid;
    g_vek_cap_card.node_type = card_info->dm_my_node_type;
    vek_cap_card_log(__func__);
    vek_cap_glb_cap_db_validate(1);
    VEK_CAP_INFO("leave");
    return 0;
}

int32_t vek_cap_dp_my_chss_info_pro(kx_mom_hash_res *res)
{
    if (int32_t rv = vek_cap_res_check(__func__, res); rv != 0)
        return rv;
    VEK_CAP_INFO("enter");
    const auto *chss_info = static_cast<const PDev__DpLibMyChssInfo *>(res->obj);
    VEK_CAP_REFUSE_NULL(chss_info);
    g_vek_cap_card.devid = chss_info->devid;
    vek_cap_card_log(__func__);
    vek_cap_glb_cap_db_validate(1);
    VEK_CAP_INFO("leave");
    return 0;
}

namespace {

// The two records' callbacks differ only in the record, its time stamps and how they say
// it arrived; `func` names the callback in its lines.
struct vek_cap_identity {
    vek_cap_time_t vek_cap_times_t::*recv;
    vek_cap_time_t vek_cap_times_t::*sub;
    void (*arrived)(std::string_view func, bool subscribed, const vek_cap_time_t &t);
    int32_t (*pro)(kx_mom_hash_res *res);
    int32_t (*catch_up)(void); // reads the record as it is now and applies it
};

int32_t vek_cap_identity_pmsg(std::string_view func, const kx_mom_msg *pmsg,
                              const vek_cap_identity &id)
{
    int32_t rv = 0;
    switch (pmsg->cmd) {
    case KX_MOM_CMD_HSET:
    case KX_MOM_CMD_HDEL:
        kx_monotime(&(g_vek_cap_time.*id.recv));
        id.arrived(func, false, g_vek_cap_time.*id.recv);
        rv = id.pro(static_cast<kx_mom_hash_res *>(pmsg->data));
        break;
    case KX_MOM_CMD_SUBSCRIBED:
        kx_monotime(&(g_vek_cap_time.*id.sub));
        id.arrived(func, true, g_vek_cap_time.*id.sub);
        rv = id.catch_up();
        break;
    default:
        VEK_CAP_LOG_AS(func, 4u, KX_ZLOG_LEVEL_INFO, "pmsg->cmd %d", pmsg->cmd);
        return 0;
    }
    if (rv != 0)
        VEK_CAP_LOG_AS(func, 1u, KX_ZLOG_LEVEL_ERROR, "failed,rv %d", rv);
    return rv;
}

constexpr vek_cap_identity vek_cap_my_info = {
    &vek_cap_times_t::dev_info_recv, &vek_cap_times_t::dev_info_sub,
    [](std::string_view func, bool subscribed, const vek_cap_time_t &t) {
        if (subscribed)
            VEK_CAP_LOG_AS(func, 2u, KX_ZLOG_LEVEL_WARN, "subscribe ok");
        VEK_CAP_LOG_AS(func, 2u, KX_ZLOG_LEVEL_WARN, "enter, %lu:%lu", VEK_CAP_TS(t));
    },
    vek_cap_dp_my_info_pro,
    [] {
        PDev__DpLibMyInfo key = P_DEV__DP_LIB_MY_INFO__INIT;
        return vek_cap_hgetall_pro(VEK_CAP_DB_TUNNER, &key.base, vek_cap_dp_my_info_pro);
    }};

constexpr vek_cap_identity vek_cap_my_chss_info = {
    &vek_cap_times_t::chss_info_recv, &vek_cap_times_t::chss_info_sub,
    [](std::string_view func, bool subscribed, const vek_cap_time_t &t) {
        VEK_CAP_LOG_AS(func, 1u, KX_ZLOG_LEVEL_ERROR, "CHSS INFO %s, %lu:%lu",
                       subscribed ? "subscribe ok" : "enter", VEK_CAP_TS(t));
    },
    vek_cap_dp_my_chss_info_pro,
    [] {
        PDev__DpLibMyChssInfo key = P_DEV__DP_LIB_MY_CHSS_INFO__INIT;
        return vek_cap_hgetall_pro(VEK_CAP_DB_TUNNER, &key.base, vek_cap_dp_my_chss_info_pro);
    }};

} // namespace

int32_t vek_cap_dp_my_info_pmsg_f(kx_global_t *, kx_mom_msg *pmsg, void *)
{
    VEK_CAP_REFUSE_NULL(pmsg);
    return vek_cap_identity_pmsg(__func__, pmsg, vek_cap_my_info);
}

int32_t vek_cap_dp_my_chss_info_pmsg_f(kx_global_t *, kx_mom_msg *pmsg, void *)
{
    VEK_CAP_REFUSE_NULL(pmsg);
    return vek_cap_identity_pmsg(__func__, pmsg, vek_cap_my_chss_info);
}
