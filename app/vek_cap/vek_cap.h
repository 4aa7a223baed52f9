// vek_cap: the daemon's process-wide state, its log convention and its operations,
// grouped by subsystem. Everything runs on the one thread inside kx_global_run.
#ifndef VEK_CAP_H
#define VEK_CAP_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "kx_global.h"
#include "kx_mom.h"
#include "kx_zlog.h"
#include "p_dev.pb-c.h"
#include "p_libpub.pb-c.h"
#include "s_frame.pb-c.h"

// ---- databases ---------------------------------------------------------------
// The database numbers are the platform's (kx_mom.h), shared with the tools.
inline constexpr int32_t VEK_CAP_DB_HOST = KX_MOM_DB_HOST;           // "host"
inline constexpr int32_t VEK_CAP_DB_TUNNER = KX_MOM_DB_TUNNER;       // "tunner_db"
inline constexpr int32_t VEK_CAP_DB_CE_GLOBAL = KX_MOM_DB_CE_GLOBAL; // "ce_global", "cap_db"

// ---- fixed paths (each is put behind KX_ROOT) ----------------------------------
inline constexpr const char *VEK_CAP_DEP_DIR = "/etc/cap_cfg/cap_dep/fe";
inline constexpr const char *VEK_CAP_HAM_FILE = "/var/run/vek_cap_ham.txt";
inline constexpr const char *VEK_CAP_DBG_FILE =
    "/data/.tavo/vsd/0/sw-frame/cap/vek_cap/vek_cap_dbg.txt";

// ---- process-wide state ----------------------------------------------------------
struct vek_cap_db_state_t {
    int32_t db;
    int32_t state; // 0 not connected, 1 connected
};

struct vek_cap_card_t {
    int32_t node; // -1 until the card's identity is known
    int32_t config_dev_type;
    int32_t devid;
    int32_t slotid;
    int32_t sslotid;
    int32_t node_type;
};

// Two words exactly as kx_monotime fills them, printed as "%lu:%lu".
using vek_cap_time_t = kx_timestamp_t;

struct vek_cap_times_t {
    vek_cap_time_t run;
    vek_cap_time_t dev_info_sub;
    vek_cap_time_t dev_info_recv;
    vek_cap_time_t chss_info_sub;
    vek_cap_time_t chss_info_recv;
    vek_cap_time_t local_ready_sub;
    vek_cap_time_t local_ready_recv;
    vek_cap_time_t copy_cap_start;
    vek_cap_time_t copy_cap_end;
};

// One dependency module: all 64 bytes of `module` (zero-filled after the name) are the key.
struct vek_cap_dep_item {
    char module[64];
    uint8_t ready;
};

// Open-addressing hash set of dependency modules; its bucket order is observable.
struct vek_cap_dep_hash_t {
    uint32_t n_buckets;
    uint32_t size;
    uint32_t n_occupied;
    uint32_t upper_bound;
    uint32_t *flags; // two state bits per bucket: 2 empty, 1 deleted, 0 live
    vek_cap_dep_item **keys;
};

// The two state bits of bucket `i` in a registry flag array: 2 empty, 1 deleted, 0 live.
inline uint32_t vek_cap_dep_bucket_state(const uint32_t *flags, uint32_t i)
{
    return (flags[i >> 4] >> ((i & 0xfU) << 1)) & 3U;
}

inline constexpr size_t VEK_CAP_DB_NUM = 3;

extern kx_global_t *g_vek_cap_global;
extern uint32_t g_vek_cap_dbg_level;
extern kx_zlog_category_t *g_vek_cap_zlog_category;
extern vek_cap_db_state_t g_vek_cap_db_state[VEK_CAP_DB_NUM];
extern vek_cap_dep_hash_t *g_vek_cap_dep_hash;
extern uint8_t g_vek_cap_dep_all_ready;
extern uint8_t g_vek_local_ready;
extern uint8_t g_vek_global_ready;
extern vek_cap_card_t g_vek_cap_card;
extern vek_cap_times_t g_vek_cap_time;
extern vek_cap_time_t g_vek_cap_sub_last_dep_mod;
extern vek_cap_time_t g_vek_cap_recv_last_dep_mod;

// ---- logging -------------------------------------------------------------------
// Each source file names its unit before using the macros:
//   static constexpr std::string_view vek_cap_unit = "app/vek_cap/vek_cap";
// A message below the gate costs one comparison: nothing is formatted.
void vek_cap_log_emit(std::string_view unit, std::string_view func, long line, int level,
                      const char *text);

#define VEK_CAP_LOG(gate, level, ...) VEK_CAP_LOG_AS(__func__, gate, level, __VA_ARGS__)

// The same, naming the operation `func` explicitly (main's steps sit in vek_cap_main).
#define VEK_CAP_LOG_AS(func, gate, level, ...)                                                     \
    do {                                                                                           \
        if (g_vek_cap_dbg_level >= (gate)) {                                                       \
            char vek_cap_log_buf_[1024] = {};                                                      \
            at_snprintf(vek_cap_log_buf_, sizeof vek_cap_log_buf_, __VA_ARGS__);                   \
            vek_cap_log_emit(vek_cap_unit, (func), __LINE__, (level), vek_cap_log_buf_);           \
        }                                                                                          \
    } while (0)

// A time stamp's two words for "%lu:%lu".
#define VEK_CAP_TS(t) static_cast<unsigned long>((t).sec), static_cast<unsigned long>((t).usec)

#define VEK_CAP_ERR(...) VEK_CAP_LOG(1u, KX_ZLOG_LEVEL_ERROR, __VA_ARGS__)
// A missing pointer is refused as every operation refuses one: an error naming the
// pointer as written, then -4. `log` is the error-class macro of the caller.
#define VEK_CAP_REFUSE_NULL_WITH(log, ptr)                                                         \
    do {                                                                                           \
        if (!(ptr)) {                                                                              \
            log(#ptr " NULL pointer, addr error!\n");                                              \
            return -4;                                                                             \
        }                                                                                          \
    } while (0)
#define VEK_CAP_REFUSE_NULL(ptr) VEK_CAP_REFUSE_NULL_WITH(VEK_CAP_ERR, ptr)
#define VEK_CAP_WARN(...) VEK_CAP_LOG(2u, KX_ZLOG_LEVEL_WARN, __VA_ARGS__)
#define VEK_CAP_INFO(...) VEK_CAP_LOG(4u, KX_ZLOG_LEVEL_INFO, __VA_ARGS__)
#define VEK_CAP_DBG(...) VEK_CAP_LOG(5u, KX_ZLOG_LEVEL_DEBUG, __VA_ARGS__)

int32_t vek_cap_zlog_init(const char *module);
void vek_cap_set_dbg_level(uint32_t level);
void vek_cap_log_level(uint32_t level);

// ---- start-up --------------------------------------------------------------------
int vek_cap_main(void);
int32_t vek_cap_indep_init(void);
void vek_cap_collect_dep_event(void);
int32_t vek_cap_db_validate_host(void);

// ---- database connections --------------------------------------------------------------
void vek_cap_set_db_state(int32_t db, int32_t state);
int32_t vek_cap_is_all_db_connected(void);
int32_t vek_cap_disconnect_db(kx_global_t *global, int32_t db);
int32_t vek_cap_reconnect_db(kx_global_t *global, int32_t db, int32_t type);
int32_t vek_cap_db_validate_ce_global(void);
int32_t vek_cap_client_set_disconnect_cb(int32_t db);
int32_t vek_cap_client_set_reconnect_cb(int32_t db);

// ---- dependency registry ------------------------------------------------------------
using vek_cap_dep_walk_cb = int (*)(vek_cap_dep_item *item, void *priv);

// The registry's allocator (record, items, flag and key arrays). Tests swap it to make a
// chosen allocation fail; the daemon leaves it at calloc/realloc/free.
struct vek_cap_dep_alloc_t {
    void *(*calloc_f)(size_t count, size_t size);
    void *(*realloc_f)(void *ptr, size_t size);
    void (*free_f)(void *ptr);
};
extern vek_cap_dep_alloc_t g_vek_cap_dep_alloc;

int vek_cap_init_dep_hash(void);
int vek_cap_con_dep_info(vek_cap_dep_item *item, const char *mod, uint8_t ready);
vek_cap_dep_item *vek_cap_find_dep_hash(const vek_cap_dep_item *key);
vek_cap_dep_item *vek_cap_put_dep_hash(vek_cap_dep_item **out, const vek_cap_dep_item *item);
int vek_cap_insert_dep_hash(const vek_cap_dep_item *item, int dir);
int vek_cap_walk_dep_hash(vek_cap_dep_walk_cb cb, void *priv);
int vek_cap_chk_ready(vek_cap_dep_item *item, void *para);

// ---- store results -----------------------------------------------------------------
// The convention for a hash result about to be consumed: none ("result NULL") or a failed
// read ("result error_code %d") is -21, logged as the error of `func`; otherwise 0.
int32_t vek_cap_res_check(std::string_view func, const kx_mom_hash_res *res);
// Reads one hash record of `db` now, hands it to `pro` and releases it: a subscription's
// catch-up with the record as it is.
int32_t vek_cap_hgetall_pro(int32_t db, const ProtobufCMessage *key,
                            int32_t (*pro)(kx_mom_hash_res *res));

// ---- dependency readiness ---------------------------------------------------------
int vek_cap_dep_validate(vek_cap_dep_item *item, void *priv);
int32_t vek_cap_dep_pmsg_f(kx_global_t *global, kx_mom_msg *pmsg, void *privdata);
int32_t vek_cap_dep_pro(kx_mom_hash_res *result);

// ---- capability copy ----------------------------------------------------------------
// Field numbers above this one (pri 21, state 22) are local and never reach the chassis.
inline constexpr uint32_t VEK_CAP_GLB_FIELD_MAX = 8;
// Longest url copied, its terminating zero not counted.
inline constexpr size_t VEK_CAP_URL_MAX = 255;

int vek_cap_tag_cmp(const void *a, const void *b);
int32_t fe_glb_key_trace_url(kx_global_t *global, kx_mom_msg *pmsg, void *privdata);
// `privdata` points to the subcard's node: entries of other subcards are skipped.
int32_t subcard_glb_key_trace_url(kx_global_t *global, kx_mom_msg *pmsg, void *privdata);

// ---- capability publication -----------------------------------------------------------
int32_t vek_cap_glb_cap_db_validate(int32_t arg);
void vek_cap_write_glb_fe(int32_t arg);
int32_t vek_cap_write_glb_fe_table(void);
int32_t vek_cap_set_node_state(void);
int32_t vek_cap_local_ready_pmsg_f(kx_global_t *global, kx_mom_msg *pmsg, void *privdata);
int32_t vek_cap_local_ready_pro(const PLibpub__CapState *state);
int32_t vek_cap_del_fe_ready_pmsg_f(kx_global_t *global, kx_mom_msg *pmsg, void *privdata);
int32_t vek_cap_del_noti_node_state(int32_t node, int32_t config_dev_type);

// ---- card identity -----------------------------------------------------------------
int32_t vek_cap_dp_my_info_pmsg_f(kx_global_t *global, kx_mom_msg *pmsg, void *privdata);
int32_t vek_cap_dp_my_info_pro(kx_mom_hash_res *res);
int32_t vek_cap_dp_my_chss_info_pmsg_f(kx_global_t *global, kx_mom_msg *pmsg, void *privdata);
int32_t vek_cap_dp_my_chss_info_pro(kx_mom_hash_res *res);

// ---- subcards ----------------------------------------------------------------------
// Wall-clock stamps of the last subcard state record and of the last confirmation of their
// subscription (gettimeofday's seconds and microseconds).
extern vek_cap_time_t g_vek_cap_subcard_recv_time;
extern vek_cap_time_t g_vek_cap_subcard_sub_time;

int32_t vek_cap_sub_card_ready_pmsg_f(kx_global_t *global, kx_mom_msg *pmsg, void *privdata);
int32_t vek_cap_sub_card_ready_pro(const PLibpub__CapSubcardState *state);
int32_t vek_cap_write_glb_sub_card_table(int32_t node);
int32_t vek_cap_set_subcard_state(int32_t node, int32_t ready);
int32_t vek_cap_subcard_del_pro(const PLibpub__CapSubcardState *state);
int32_t vek_cap_del_subcard_ready(int32_t node);
int32_t vek_cap_del_subcard_table(int32_t node);
int32_t vek_cap_del_subcard_table_cb(kx_global_t *global, kx_mom_msg *pmsg, void *privdata);

// ---- diagnostics -------------------------------------------------------------------
inline constexpr const char *VEK_CAP_COLLECT_DIR = "/data/collect";
inline constexpr const char *VEK_CAP_COLLECT_FILE = "vek_cap.log";

int32_t vek_cap_ssat_init(kx_global_t *global, const char *module);
int32_t vek_cap_set_dep_mod(const char *module, int32_t ready);
int32_t vek_cap_dump_status(void);
int32_t vek_cap_dump_card_info(void);
int32_t vek_cap_show_time(void);
int32_t vek_cap_dump_dep_mod(void);
int vek_cap_dep_mod_print(vek_cap_dep_item *item, void *unused);
int32_t vek_cap_dump_all(void);
int32_t vek_cap_collect(void);

#endif
