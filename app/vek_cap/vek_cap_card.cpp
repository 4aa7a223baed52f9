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
    if (!card_info) {
        VEK_CAP_ERR("card_info NULL pointer, addr error!\n");
        return -4;
    }
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
    if (!chss_info) {
        VEK_CAP_ERR("chss_info NULL pointer, addr error!\n");
        return -4;
    }
    g_vek_cap_card.devid = chss_info->devid;
    vek_cap_card_log(__func__);
    vek_cap_glb_cap_db_validate(1);
    VEK_CAP_INFO("leave");
    return 0;
}

int32_t vek_cap_dp_my_info_pmsg_f(kx_global_t *global, kx_mom_msg *pmsg, void *privdata)
{
    (void)global;
    (void)privdata;
    if (!pmsg) {
        VEK_CAP_ERR("pmsg NULL pointer, addr error!\n");
        return -4;
    }
    int32_t rv = 0;
    vek_cap_times_t &t = g_vek_cap_time;
    switch (pmsg->cmd) {
    case KX_MOM_CMD_HSET:
    case KX_MOM_CMD_HDEL:
        kx_monotime(&t.dev_info_recv);
        VEK_CAP_WARN("enter, %lu:%lu", VEK_CAP_TS(t.dev_info_recv));
        rv = vek_cap_dp_my_info_pro(static_cast<kx_mom_hash_res *>(pmsg->data));
        break;
    case KX_MOM_CMD_SUBSCRIBED: {
        VEK_CAP_WARN("subscribe ok");
        kx_monotime(&t.dev_info_sub);
        VEK_CAP_WARN("enter, %lu:%lu", VEK_CAP_TS(t.dev_info_sub));
        PDev__DpLibMyInfo key = P_DEV__DP_LIB_MY_INFO__INIT;
        rv = vek_cap_hgetall_pro(VEK_CAP_DB_TUNNER, &key.base, vek_cap_dp_my_info_pro);
        break;
    }
    default:
        VEK_CAP_INFO("pmsg->cmd %d", pmsg->cmd);
        return 0;
    }
    if (rv != 0)
        VEK_CAP_ERR("failed,rv %d", rv);
    return rv;
}

int32_t vek_cap_dp_my_chss_info_pmsg_f(kx_global_t *global, kx_mom_msg *pmsg, void *privdata)
{
    (void)global;
    (void)privdata;
    if (!pmsg) {
        VEK_CAP_ERR("pmsg NULL pointer, addr error!\n");
        return -4;
    }
    int32_t rv = 0;
    vek_cap_times_t &t = g_vek_cap_time;
    switch (pmsg->cmd) {
    case KX_MOM_CMD_HSET:
    case KX_MOM_CMD_HDEL:
        kx_monotime(&t.chss_info_recv);
        VEK_CAP_ERR("CHSS INFO enter, %lu:%lu", VEK_CAP_TS(t.chss_info_recv));
        rv = vek_cap_dp_my_chss_info_pro(static_cast<kx_mom_hash_res *>(pmsg->data));
        break;
    case KX_MOM_CMD_SUBSCRIBED: {
        kx_monotime(&t.chss_info_sub);
        VEK_CAP_ERR("CHSS INFO subscribe ok, %lu:%lu", VEK_CAP_TS(t.chss_info_sub));
        PDev__DpLibMyChssInfo key = P_DEV__DP_LIB_MY_CHSS_INFO__INIT;
        rv = vek_cap_hgetall_pro(VEK_CAP_DB_TUNNER, &key.base, vek_cap_dp_my_chss_info_pro);
        break;
    }
    default:
        VEK_CAP_INFO("pmsg->cmd %d", pmsg->cmd);
        return 0;
    }
    if (rv != 0)
        VEK_CAP_ERR("failed,rv %d", rv);
    return rv;
}
