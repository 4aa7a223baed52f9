// Subcards: their state records in the card-local database publish them (entries, then
// a ready record) into the chassis-global one, and withdraw them (ready record, then
// entries) when they go. The daemon keeps no memory of subcards: what db 28 holds under a
// subcard's node is its state. Nothing else in the daemon gates this path.
#include <sys/time.h>

#include "vek_cap.h"

static constexpr std::string_view vek_cap_unit = "app/vek_cap/vek_cap";

vek_cap_time_t g_vek_cap_subcard_recv_time = {};
vek_cap_time_t g_vek_cap_subcard_sub_time = {};

namespace {

// Subcard stamps are wall-clock time, as gettimeofday gives it.
void vek_cap_wall_time(vek_cap_time_t *t)
{
    timeval now{};
    gettimeofday(&now, nullptr);
    *t = {static_cast<uint32_t>(now.tv_sec), static_cast<uint32_t>(now.tv_usec)};
}

// A key of `Table` whose index is at its defaults: every record of the table.
template <class Table, class Index> struct vek_cap_whole_table {
    Index index;
    Table key;
    vek_cap_whole_table(Index i, Table k) : index(i), key(k) { key.index = &index; }
    vek_cap_whole_table(const vek_cap_whole_table &) = delete;
    vek_cap_whole_table &operator=(const vek_cap_whole_table &) = delete;
};

} // namespace

int32_t vek_cap_write_glb_sub_card_table(int32_t node)
{
    vek_cap_whole_table<PLibpub__CapSubcardTable, PLibpub__CapSubcardTableIndex> table{
        P_LIBPUB__CAP_SUBCARD_TABLE_INDEX__INIT, P_LIBPUB__CAP_SUBCARD_TABLE__INIT};
    int32_t rv = kx_mom_scan_sync(g_vek_cap_global, VEK_CAP_DB_HOST, &table.key.base, 0,
                                  subcard_glb_key_trace_url, &node);
    if (rv != 0) {
        VEK_CAP_ERR("failed,rv %d", rv);
        return rv;
    }
    VEK_CAP_INFO("leave");
    return 0;
}

int32_t vek_cap_set_subcard_state(int32_t node, int32_t ready)
{
    VEK_CAP_WARN("vek_cap_set_subcard_state, node %d, node %d, ready=%d", node, node, ready);
    static constexpr int32_t fields[] = {6};
    SFrame__CapSubcardReadyIndex index = S_FRAME__CAP_SUBCARD_READY_INDEX__INIT;
    SFrame__CapSubcardReady record = S_FRAME__CAP_SUBCARD_READY__INIT;
    index.nodeid = node;
    record.index = &index;
    record.ready = ready != 0;
    int32_t rv = kx_mom_hmset_sync(g_vek_cap_global, VEK_CAP_DB_CE_GLOBAL, &record.base, fields, 1);
    if (rv != 0)
        VEK_CAP_ERR("vek_cap_set_subcard_state, node %d, ready=%d failed rv: %d", node, ready, rv);
    VEK_CAP_INFO("leave");
    return rv;
}

int32_t vek_cap_sub_card_ready_pro(const PLibpub__CapSubcardState *state)
{
    const int32_t node = state->index->nodeid;
    if (state->is_preinstall) {
        VEK_CAP_ERR("node %d state is preinstall, just return", node);
        return 0;
    }
    // The ready record follows the copy whatever the copy achieved.
    vek_cap_write_glb_sub_card_table(node);
    vek_cap_set_subcard_state(node, 1);
    VEK_CAP_INFO("leave");
    return 0;
}

int32_t vek_cap_del_subcard_ready(int32_t node)
{
    SFrame__CapSubcardReadyIndex index = S_FRAME__CAP_SUBCARD_READY_INDEX__INIT;
    SFrame__CapSubcardReady key = S_FRAME__CAP_SUBCARD_READY__INIT;
    index.nodeid = node;
    key.index = &index;
    int32_t rv = kx_mom_del_sync(g_vek_cap_global, VEK_CAP_DB_CE_GLOBAL, &key.base);
    if (rv != 0)
        VEK_CAP_ERR("del scard_nodeid 0x%x state failed", static_cast<unsigned>(node));
    return rv;
}

int32_t vek_cap_del_subcard_table(int32_t node)
{
    VEK_CAP_INFO("del subcard nodeid: %d", node);
    vek_cap_whole_table<SFrame__CapSubcardGlbTable, SFrame__CapSubcardGlbTableIndex> table{
        S_FRAME__CAP_SUBCARD_GLB_TABLE_INDEX__INIT, S_FRAME__CAP_SUBCARD_GLB_TABLE__INIT};
    int32_t rv = kx_mom_scan_sync(g_vek_cap_global, VEK_CAP_DB_CE_GLOBAL, &table.key.base, 0,
                                  vek_cap_del_subcard_table_cb, &node);
    if (rv != 0)
        VEK_CAP_ERR("failed,rv %d", rv);
    return rv;
}

int32_t vek_cap_subcard_del_pro(const PLibpub__CapSubcardState *state)
{
    // The ready record goes first, so that no reader takes the subcard for ready while its
    // entries are being removed; the entries go even when the ready record could not.
    vek_cap_del_subcard_ready(state->index->nodeid);
    vek_cap_del_subcard_table(state->index->nodeid);
    VEK_CAP_INFO("leave");
    return 0;
}

int32_t vek_cap_del_subcard_table_cb(kx_global_t *, kx_mom_msg *pmsg, void *privdata)
{
    VEK_CAP_REFUSE_NULL(pmsg);
    VEK_CAP_REFUSE_NULL(privdata);
    if (pmsg->cmd != KX_MOM_CMD_HSET && pmsg->cmd != KX_MOM_CMD_HDEL)
        return 0;
    const auto *res = static_cast<const kx_mom_hash_res *>(pmsg->data);
    VEK_CAP_REFUSE_NULL(res);
    const auto *table_info = static_cast<const SFrame__CapSubcardGlbTable *>(res->obj);
    VEK_CAP_REFUSE_NULL(table_info);
    VEK_CAP_REFUSE_NULL(table_info->index);
    if (table_info->index->node != *static_cast<const int32_t *>(privdata))
        return 0;
    SFrame__CapSubcardGlbTableIndex index = S_FRAME__CAP_SUBCARD_GLB_TABLE_INDEX__INIT;
    SFrame__CapSubcardGlbTable key = S_FRAME__CAP_SUBCARD_GLB_TABLE__INIT;
    index.node = table_info->index->node;
    index.url = table_info->index->url;
    key.index = &index;
    VEK_CAP_INFO("delete cap_subcard_table node: %d, url: %s", index.node, index.url);
    int32_t rv = kx_mom_del_sync(g_vek_cap_global, VEK_CAP_DB_CE_GLOBAL, &key.base);
    if (rv != 0) {
        VEK_CAP_ERR("delete cap_subcard_table failed node: %d, url: %s", index.node, index.url);
        return rv;
    }
    return 0;
}

int32_t vek_cap_sub_card_ready_pmsg_f(kx_global_t *, kx_mom_msg *pmsg, void *)
{
    VEK_CAP_REFUSE_NULL(pmsg);
    const PLibpub__CapSubcardState *state = nullptr;
    switch (pmsg->cmd) {
    case KX_MOM_CMD_SUBSCRIBED: {
        vek_cap_wall_time(&g_vek_cap_subcard_sub_time);
        VEK_CAP_WARN("subscribe ok, %lu:%lu", VEK_CAP_TS(g_vek_cap_subcard_sub_time));
        // Subcards announced before the subscription: each is delivered to this handler
        // and published, one after the other, inside the scan.
        vek_cap_whole_table<PLibpub__CapSubcardState, PLibpub__CapSubcardStateIndex> table{
            P_LIBPUB__CAP_SUBCARD_STATE_INDEX__INIT, P_LIBPUB__CAP_SUBCARD_STATE__INIT};
        int32_t rv = kx_mom_scan_sync(g_vek_cap_global, VEK_CAP_DB_HOST, &table.key.base, 0,
                                      vek_cap_sub_card_ready_pmsg_f, nullptr);
        if (rv != 0)
            VEK_CAP_ERR("failed,rv %d", rv);
        return rv;
    }
    case KX_MOM_CMD_HSET:
    case KX_MOM_CMD_HDEL: {
        vek_cap_wall_time(&g_vek_cap_subcard_recv_time);
        VEK_CAP_WARN("enter, %lu:%lu", VEK_CAP_TS(g_vek_cap_subcard_recv_time));
        // Only the record is read: a state record that did not decode has none. A missing
        // hash result or index is refused as every other callback refuses them.
        const auto *res = static_cast<const kx_mom_hash_res *>(pmsg->data);
        if (!res) {
            VEK_CAP_ERR("result NULL");
            return -21;
        }
        state = static_cast<const PLibpub__CapSubcardState *>(res->obj);
        break;
    }
    case KX_MOM_CMD_DEL: // the deleted record itself
        state = static_cast<const PLibpub__CapSubcardState *>(pmsg->data);
        break;
    default:
        VEK_CAP_INFO("pmsg->cmd %d", pmsg->cmd);
        return 0;
    }
    if (!state) {
        VEK_CAP_WARN("state NULL, just return");
        return 0;
    }
    VEK_CAP_REFUSE_NULL(state->index);
    if (pmsg->cmd == KX_MOM_CMD_DEL)
        vek_cap_subcard_del_pro(state);
    else
        vek_cap_sub_card_ready_pro(state);
    return 0;
}
