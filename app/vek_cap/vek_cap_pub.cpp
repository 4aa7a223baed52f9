// Capability publication: the one decision whether this card may announce its
// capability to the chassis, taken again whenever one of its inputs changes; the card's
// local ready flag, one of those inputs; and the watch on deletion notices, after which
// the card publishes itself again.
#include "vek_cap.h"

static constexpr std::string_view vek_cap_unit = "app/vek_cap/vek_cap";

int32_t vek_cap_glb_cap_db_validate(int32_t arg)
{
    VEK_CAP_WARN("node 0x%x devid %d, local_ready %d, global_ready %d",
                 static_cast<unsigned>(g_vek_cap_card.node), g_vek_cap_card.devid,
                 g_vek_local_ready, g_vek_global_ready);
    if (g_vek_cap_card.node == -1) {
        VEK_CAP_WARN("node invalid %d", g_vek_cap_card.node);
        return 0;
    }
    if (g_vek_cap_card.devid == 0) {
        VEK_CAP_WARN("devid invalid %d", g_vek_cap_card.devid);
        return 0;
    }
    if (!g_vek_local_ready) {
        VEK_CAP_WARN("local cap not ready");
        return 0;
    }
    g_vek_cap_dep_all_ready = 1;
    vek_cap_walk_dep_hash(vek_cap_chk_ready, &g_vek_cap_dep_all_ready);
    if (!g_vek_cap_dep_all_ready) {
        VEK_CAP_WARN("not all dep mod ready");
        return 0;
    }
    vek_cap_write_glb_fe(arg);
    return 0;
}

void vek_cap_write_glb_fe(int32_t arg)
{
    VEK_CAP_INFO("enter");
    vek_cap_write_glb_fe_table();
    // The ready record follows the entries even when the copy failed: a reader that
    // sees it finds whatever entries could be written.
    if (arg != 0) {
        vek_cap_set_node_state();
        vek_cap_db_validate_ce_global();
    }
    VEK_CAP_INFO("leave");
}

int32_t vek_cap_write_glb_fe_table(void)
{
    VEK_CAP_WARN("node is 0x%08x, config_dev_type %d", static_cast<unsigned>(g_vek_cap_card.node),
                 g_vek_cap_card.config_dev_type);
    // An empty url selects every entry of the local table.
    PLibpub__CapTableIndex index = P_LIBPUB__CAP_TABLE_INDEX__INIT;
    PLibpub__CapTable key = P_LIBPUB__CAP_TABLE__INIT;
    key.index = &index;
    int32_t rv = kx_mom_scan_sync(g_vek_cap_global, VEK_CAP_DB_HOST, &key.base, 0,
                                  fe_glb_key_trace_url, nullptr);
    if (rv != 0) {
        VEK_CAP_ERR("failed,rv %d", rv);
        return rv;
    }
    VEK_CAP_INFO("leave");
    return 0;
}

int32_t vek_cap_set_node_state(void)
{
    static constexpr int32_t fields[] = {6, 7, 8, 9, 10, 11, 12};
    const vek_cap_card_t &card = g_vek_cap_card;
    VEK_CAP_ERR("vek_cap_set_node_state, node 0x%08x, type %d ready=%d",
                static_cast<unsigned>(card.node), card.config_dev_type, 1);
    SFrame__CapFeReadyIndex index = S_FRAME__CAP_FE_READY_INDEX__INIT;
    SFrame__CapFeReady record = S_FRAME__CAP_FE_READY__INIT;
    index.node = card.node;
    index.config_dev_type = card.config_dev_type;
    record.index = &index;
    record.ready = 1;
    record.config_dev_type = card.config_dev_type;
    record.devid = card.devid;
    record.slotid = card.slotid;
    record.sslotid = card.sslotid;
    record.node_type = card.node_type;
    record.real_time = 1;
    int32_t rv = kx_mom_hmset_sync(g_vek_cap_global, VEK_CAP_DB_CE_GLOBAL, &record.base, fields,
                                   std::size(fields));
    if (rv != 0)
        VEK_CAP_ERR("vek_cap_set_node_state, node %d, type %d ready=%d failed rv %d", card.node,
                    card.config_dev_type, 1, rv);
    // Set whatever the write gave: the flag says the card got as far as announcing itself.
    g_vek_global_ready = 1;
    VEK_CAP_INFO("leave");
    return 0;
}

int32_t vek_cap_local_ready_pro(const PLibpub__CapState *state)
{
    if (!state) {
        VEK_CAP_WARN("state NULL, just return");
        return 0;
    }
    g_vek_local_ready = state->ready ? 1 : 0;
    VEK_CAP_WARN("ready %d", g_vek_local_ready);
    vek_cap_glb_cap_db_validate(1);
    VEK_CAP_INFO("leave");
    return 0;
}

int32_t vek_cap_local_ready_pmsg_f(kx_global_t *, kx_mom_msg *pmsg, void *)
{
    VEK_CAP_REFUSE_NULL(pmsg);
    switch (pmsg->cmd) {
    case KX_MOM_CMD_SET:
        kx_monotime(&g_vek_cap_time.local_ready_recv);
        VEK_CAP_ERR("CAP STATE enter, %lu:%lu", VEK_CAP_TS(g_vek_cap_time.local_ready_recv));
        vek_cap_local_ready_pro(static_cast<const PLibpub__CapState *>(pmsg->data));
        return 0;
    case KX_MOM_CMD_SUBSCRIBED: {
        kx_monotime(&g_vek_cap_time.local_ready_sub);
        VEK_CAP_ERR("CAP STATE subscribe ok, %lu:%lu", VEK_CAP_TS(g_vek_cap_time.local_ready_sub));
        // A subscription reports changes only: catch up with the record as it is now. A
        // missing record comes back as no object, which leaves the flag alone.
        PLibpub__CapState key = P_LIBPUB__CAP_STATE__INIT;
        int32_t error = 0;
        void *obj = kx_mom_get_sync(g_vek_cap_global, VEK_CAP_DB_HOST, &key.base, &error);
        if (error != 0)
            VEK_CAP_ERR("errorcode %d", error);
        else
            vek_cap_local_ready_pro(static_cast<const PLibpub__CapState *>(obj));
        if (obj)
            kx_mom_kx_obj_free(obj);
        return 0;
    }
    default:
        VEK_CAP_INFO("pmsg->cmd %d", pmsg->cmd);
        return 0;
    }
}

int32_t vek_cap_del_noti_node_state(int32_t node, int32_t config_dev_type)
{
    VEK_CAP_ERR("node %d, config_dev_type %d", node, config_dev_type);
    SFrame__CapDelFeReadyIndex index = S_FRAME__CAP_DEL_FE_READY_INDEX__INIT;
    SFrame__CapDelFeReady key = S_FRAME__CAP_DEL_FE_READY__INIT;
    index.node = node;
    index.config_dev_type = config_dev_type;
    key.index = &index;
    int32_t rv = kx_mom_del_sync(g_vek_cap_global, VEK_CAP_DB_CE_GLOBAL, &key.base);
    if (rv != 0)
        VEK_CAP_ERR("del node 0x%x noti state failed", static_cast<unsigned>(node));
    return rv;
}

int32_t vek_cap_del_fe_ready_pmsg_f(kx_global_t *, kx_mom_msg *pmsg, void *)
{
    VEK_CAP_REFUSE_NULL(pmsg);
    if (pmsg->scan_over == 1) {
        VEK_CAP_INFO("cap_del_fe_ready scan over.");
        return 0;
    }
    if (pmsg->cmd == KX_MOM_CMD_SUBSCRIBED) {
        VEK_CAP_WARN("subscribe ok, fe del");
        // Notices written before the subscription existed arrive through this scan, one
        // delivery each to this same callback, then its scan_over.
        SFrame__CapDelFeReadyIndex index = S_FRAME__CAP_DEL_FE_READY_INDEX__INIT;
        SFrame__CapDelFeReady key = S_FRAME__CAP_DEL_FE_READY__INIT;
        key.index = &index;
        int32_t rv = kx_mom_scan(g_vek_cap_global, VEK_CAP_DB_CE_GLOBAL, &key.base, 0,
                                 vek_cap_del_fe_ready_pmsg_f, nullptr);
        if (rv != 0)
            VEK_CAP_ERR("failed,rv %d", rv);
        return rv;
    }
    if (pmsg->cmd != KX_MOM_CMD_HSET) {
        VEK_CAP_INFO("pmsg->cmd %d", pmsg->cmd);
        return 0;
    }

    auto *res = static_cast<kx_mom_hash_res *>(pmsg->data);
    if (int32_t rv = vek_cap_res_check(__func__, res); rv != 0)
        return rv;
    const auto *fe_rdy_inf = static_cast<const SFrame__CapDelFeReady *>(res->obj);
    VEK_CAP_REFUSE_NULL(fe_rdy_inf);
    VEK_CAP_REFUSE_NULL(fe_rdy_inf->index);
    const int32_t node = fe_rdy_inf->index->node;
    const int32_t config_dev_type = fe_rdy_inf->index->config_dev_type;
    VEK_CAP_WARN("node %d, config_dev_type %d, local_ready %d", node, config_dev_type,
                 g_vek_local_ready);
    // Until the card knows its identity (node -1) no notice is its own, not even one that
    // names -1: such a card has published nothing to rewrite, and acting would announce a
    // ready record for node -1, a card that does not exist. The notice stays in the table.
    if (node != g_vek_cap_card.node || g_vek_cap_card.node == -1)
        return 0;
    // The order is fixed: the entries, then the notice removed, then the ready record.
    VEK_CAP_ERR("rewrite my cap, node %d", node);
    vek_cap_glb_cap_db_validate(0);
    vek_cap_del_noti_node_state(node, config_dev_type);
    vek_cap_set_node_state();
    return 0;
}
