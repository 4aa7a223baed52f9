// vek_cap: the process-wide state and the start-up. main connects the three
// databases, subscribes to the tables that drive the daemon and hands over to the
// platform's loop; everything after that happens in callbacks.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "vek_cap.h"

static constexpr std::string_view vek_cap_unit = "app/vek_cap/vek_cap";

// Start-up's own messages belong to main, although its steps sit in vek_cap_main so
// that unit tests can run them.
#define VEK_CAP_MAIN_ERR(...) VEK_CAP_LOG_AS("main", 1u, KX_ZLOG_LEVEL_ERROR, __VA_ARGS__)

kx_global_t *g_vek_cap_global = nullptr;
uint32_t g_vek_cap_dbg_level = 1;
kx_zlog_category_t *g_vek_cap_zlog_category = nullptr;
vek_cap_db_state_t g_vek_cap_db_state[VEK_CAP_DB_NUM] = {
    {VEK_CAP_DB_HOST, 0},
    {VEK_CAP_DB_TUNNER, 0},
    {VEK_CAP_DB_CE_GLOBAL, 0},
};
vek_cap_dep_hash_t *g_vek_cap_dep_hash = nullptr;
uint8_t g_vek_cap_dep_all_ready = 0;
uint8_t g_vek_local_ready = 0;
uint8_t g_vek_global_ready = 0;
vek_cap_card_t g_vek_cap_card = {-1, 0, 0, 0, 0, 0};
vek_cap_times_t g_vek_cap_time = {};
vek_cap_time_t g_vek_cap_sub_last_dep_mod = {};
vek_cap_time_t g_vek_cap_recv_last_dep_mod = {};

namespace {

constexpr const char *VEK_CAP_MODULE = "vek_cap";
constexpr const char *VEK_CAP_PROC_NAME = "tolvex";

// The databases in connection order, with the names their messages use.
struct vek_cap_db_conn {
    int32_t db;
    const char *fail_name; // "connect %s failed, rv %d"
    const char *ok_name;   // "connect %s success"
};
constexpr vek_cap_db_conn k_vek_cap_db_conns[] = {
    {VEK_CAP_DB_HOST, "host", "host"},
    {VEK_CAP_DB_TUNNER, "tunner_db", "tunner_db"},
    {VEK_CAP_DB_CE_GLOBAL, "ce_global", "cap_db"},
};

// The keys of the start-up subscriptions, built on the stack from their initialisers.
// The default index of cap_subcard_state selects every subcard.
struct host_keys {
    PLibpub__CapState cap_state = P_LIBPUB__CAP_STATE__INIT;
    PLibpub__CapSubcardStateIndex subcard_index = P_LIBPUB__CAP_SUBCARD_STATE_INDEX__INIT;
    PLibpub__CapSubcardState subcard_state = P_LIBPUB__CAP_SUBCARD_STATE__INIT;
    PDev__DpLibMyInfo my_info = P_DEV__DP_LIB_MY_INFO__INIT;
    PDev__DpLibMyChssInfo chss_info = P_DEV__DP_LIB_MY_CHSS_INFO__INIT;

    host_keys() { subcard_state.index = &subcard_index; }
    host_keys(const host_keys &) = delete;
    host_keys &operator=(const host_keys &) = delete;
};

struct host_subscription {
    int32_t db;
    const ProtobufCMessage *(*key)(const host_keys &keys);
    kx_mom_cb cb;
};
constexpr host_subscription k_host_subscriptions[] = {
    {VEK_CAP_DB_HOST, [](const host_keys &k) { return &k.cap_state.base; },
     vek_cap_local_ready_pmsg_f},
    {VEK_CAP_DB_HOST, [](const host_keys &k) { return &k.subcard_state.base; },
     vek_cap_sub_card_ready_pmsg_f},
    {VEK_CAP_DB_TUNNER, [](const host_keys &k) { return &k.my_info.base; },
     vek_cap_dp_my_info_pmsg_f},
    {VEK_CAP_DB_TUNNER, [](const host_keys &k) { return &k.chss_info.base; },
     vek_cap_dp_my_chss_info_pmsg_f},
};

// Connects 3, 1, 28 in order; a failure leaves the ones before it connected.
int32_t vek_cap_connect_dbs(void)
{
    for (const auto &c : k_vek_cap_db_conns) {
        int32_t rv = kx_mom_client_connect_sync(g_vek_cap_global, c.db);
        if (rv != 0) {
            VEK_CAP_MAIN_ERR("connect %s failed, rv %d", c.fail_name, rv);
            return rv;
        }
        vek_cap_set_db_state(c.db, 1);
        VEK_CAP_MAIN_ERR("connect %s success", c.ok_name);
    }
    return 0;
}

// Every disconnect callback first, then every reconnect callback, each for 3, 1, 28.
int32_t vek_cap_reg_db_cbs(void)
{
    for (const auto &c : k_vek_cap_db_conns) {
        if (int32_t rv = vek_cap_client_set_disconnect_cb(c.db); rv != 0) {
            VEK_CAP_MAIN_ERR("failed,rv %d", rv);
            return rv;
        }
    }
    for (const auto &c : k_vek_cap_db_conns) {
        if (int32_t rv = vek_cap_client_set_reconnect_cb(c.db); rv != 0) {
            VEK_CAP_MAIN_ERR("failed,rv %d", rv);
            return rv;
        }
    }
    return 0;
}

} // namespace

int32_t vek_cap_indep_init(void)
{
    VEK_CAP_INFO("enter");
    vek_cap_ssat_init(g_vek_cap_global, VEK_CAP_MODULE);

    int fd = open(kx_root_path(VEK_CAP_HAM_FILE).c_str(), O_RDWR | O_CLOEXEC);
    if (fd >= 0) {
        close(fd);
    } else if (int32_t rv = reg_process_exit_action(0, 2); rv != 0) {
        VEK_CAP_ERR("init ham fail");
        return rv;
    }

    if (vek_cap_init_dep_hash() != 0) {
        VEK_CAP_ERR("vek_cap_dep hash init failed rv = %d", -1);
        return -1;
    }
    VEK_CAP_INFO("leave");
    return 0;
}

int32_t vek_cap_db_validate_host(void)
{
    VEK_CAP_WARN("enter");
    if (!vek_cap_is_all_db_connected())
        return 0;

    vek_cap_walk_dep_hash(vek_cap_dep_validate, nullptr);

    host_keys keys;
    for (const auto &s : k_host_subscriptions) {
        int32_t rv = kx_mom_subscribe(g_vek_cap_global, s.db, s.key(keys), 0, s.cb, nullptr);
        if (rv != 0) {
            VEK_CAP_ERR("failed,rv %d", rv);
            return rv;
        }
    }
    VEK_CAP_WARN("leave");
    return 0;
}

int vek_cap_main(void)
{
    signal(SIGPIPE, SIG_IGN);

    if (int32_t rv = kx_initframe_duplicate_check(); rv != 0) {
        printf("%s, ret=%d, FAIL\r\n", VEK_CAP_PROC_NAME, rv);
        fflush(stdout);
        return -1;
    }

    vek_cap_zlog_init(VEK_CAP_MODULE);
    kx_monotime(&g_vek_cap_time.run);

    g_vek_cap_global = kx_global_init(VEK_CAP_MODULE, g_vek_cap_global);
    if (!g_vek_cap_global) {
        VEK_CAP_MAIN_ERR("g_vek_cap_global init failed");
        return -11;
    }
    g_vek_cap_card.node = -1;

    if (int32_t rv = vek_cap_indep_init(); rv != 0) {
        VEK_CAP_MAIN_ERR("vek_cap_indep_init failed rv %d", rv);
        return rv;
    }
    vek_cap_collect_dep_event();

    if (int32_t rv = vek_cap_connect_dbs(); rv != 0)
        return rv;
    vek_cap_db_validate_host();
    if (int32_t rv = vek_cap_reg_db_cbs(); rv != 0)
        return rv;

    kx_global_run(g_vek_cap_global);
    kx_global_finish(g_vek_cap_global);
    return 0;
}

#ifndef VEK_CAP_UNIT_TEST
int main(void) { return vek_cap_main(); }
#endif
