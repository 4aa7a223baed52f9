// Database connection states: which of the three databases is connected, and what a
// disconnect or reconnect does. Only a reconnect to the same server run (type 2) is
// survivable: after any other the server's data may be gone, so the process ends and
// its supervisor starts it afresh to republish everything.
#include <unistd.h>

#include "vek_cap.h"

static constexpr std::string_view vek_cap_unit = "app/vek_cap/vek_cap";

namespace {

// Exit status that tells the supervisor to start the daemon afresh.
constexpr int VEK_CAP_EXIT_RESTART = 77;

} // namespace

void vek_cap_set_db_state(int32_t db, int32_t state)
{
    VEK_CAP_WARN("db %d state %d", db, state);
    for (auto &entry : g_vek_cap_db_state) {
        if (entry.db == db) {
            entry.state = state;
            VEK_CAP_INFO("db %d state %d match", db, state);
            return;
        }
    }
}

int32_t vek_cap_is_all_db_connected(void)
{
    for (const auto &entry : g_vek_cap_db_state) {
        if (entry.state == 0) {
            VEK_CAP_WARN("db %d not connected", entry.db);
            return 0;
        }
    }
    VEK_CAP_WARN("all db connected");
    return 1;
}

int32_t vek_cap_disconnect_db(kx_global_t *, int32_t db)
{
    VEK_CAP_WARN("enter db %d", db);
    vek_cap_set_db_state(db, 0);
    return 0;
}

int32_t vek_cap_reconnect_db(kx_global_t *, int32_t db, int32_t type)
{
    VEK_CAP_WARN("db %d type %d", db, type);
    if (type != KX_MOM_RECONNECT_SAME) {
        VEK_CAP_ERR("db %d type %d", db, type);
        _exit(VEK_CAP_EXIT_RESTART);
    }
    vek_cap_set_db_state(db, 1);
    VEK_CAP_ERR("reconnect set db %d state", db);
    if (db == VEK_CAP_DB_CE_GLOBAL)
        vek_cap_db_validate_ce_global();
    return 0;
}

int32_t vek_cap_db_validate_ce_global(void)
{
    // The default index covers every card's deletion notice.
    SFrame__CapDelFeReadyIndex index = S_FRAME__CAP_DEL_FE_READY_INDEX__INIT;
    SFrame__CapDelFeReady key = S_FRAME__CAP_DEL_FE_READY__INIT;
    key.index = &index;

    if (!vek_cap_is_all_db_connected())
        return 0;
    VEK_CAP_INFO("enter");
    int32_t rv = kx_mom_subscribe(g_vek_cap_global, VEK_CAP_DB_CE_GLOBAL, &key.base, 0,
                                  vek_cap_del_fe_ready_pmsg_f, nullptr);
    if (rv != 0) {
        VEK_CAP_ERR("failed,rv %d", rv);
        return rv;
    }
    return 0;
}

int32_t vek_cap_client_set_disconnect_cb(int32_t db)
{
    int32_t rv = kx_mom_client_set_disconnect_cb(g_vek_cap_global, db, vek_cap_disconnect_db, 0);
    if (rv != 0)
        VEK_CAP_ERR("kx_mom_client_set_disconnect_cb global %p type %d failed, rv %d",
                    static_cast<void *>(g_vek_cap_global), db, rv);
    return rv;
}

int32_t vek_cap_client_set_reconnect_cb(int32_t db)
{
    int32_t rv = kx_mom_client_set_reconnect_cb(g_vek_cap_global, db, vek_cap_reconnect_db, 0);
    if (rv != 0)
        VEK_CAP_ERR("kx_mom_client_set_reconnect_cb global %p type %d failed, rv %d",
                    static_cast<void *>(g_vek_cap_global), db, rv);
    return rv;
}

int32_t vek_cap_res_check(std::string_view func, const kx_mom_hash_res *res)
{
    if (!res) {
        VEK_CAP_LOG_AS(func, 1u, KX_ZLOG_LEVEL_ERROR, "result NULL");
        return -21;
    }
    if (res->error_code != 0) {
        VEK_CAP_LOG_AS(func, 1u, KX_ZLOG_LEVEL_ERROR, "result error_code %d", res->error_code);
        return -21;
    }
    return 0;
}

int32_t vek_cap_hgetall_pro(int32_t db, const ProtobufCMessage *key,
                            int32_t (*pro)(kx_mom_hash_res *res))
{
    // The release is unconditional: kx_mom_hash_res_free also takes an empty result.
    kx_mom_hash_res *res = kx_mom_hgetall_sync(g_vek_cap_global, db, key);
    int32_t rv = pro(res);
    kx_mom_hash_res_free(res);
    return rv;
}
