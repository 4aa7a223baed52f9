// Dependency readiness: one subscription per registered module to its s_frame.cap_dep
// record in the card-local database, and the update of the module's ready byte from
// every record received until all modules are ready.
#include "vek_cap.h"

static constexpr std::string_view vek_cap_unit = "app/vek_cap/vek_cap";

namespace {

// The key of one module's record, built afresh from the messages' initial values.
// `module` borrows the registry item's buffer, which lives as long as the process.
struct dep_query {
    SFrame__CapDepIndex index = S_FRAME__CAP_DEP_INDEX__INIT;
    SFrame__CapDep dep = S_FRAME__CAP_DEP__INIT;

    explicit dep_query(vek_cap_dep_item *item)
    {
        index.module = item->module;
        dep.index = &index;
    }
    const ProtobufCMessage *key() const { return &dep.base; }
};

} // namespace

int vek_cap_dep_validate(vek_cap_dep_item *item, void *)
{
    VEK_CAP_REFUSE_NULL(item);
    dep_query query(item);
    int32_t rv = kx_mom_subscribe(g_vek_cap_global, VEK_CAP_DB_HOST, query.key(), 0,
                                  vek_cap_dep_pmsg_f, item);
    if (rv != 0) {
        VEK_CAP_ERR("failed,rv %d", rv);
        return rv;
    }
    return 0;
}

int32_t vek_cap_dep_pmsg_f(kx_global_t *global, kx_mom_msg *pmsg, void *privdata)
{
    VEK_CAP_REFUSE_NULL(pmsg);
    VEK_CAP_REFUSE_NULL(global);

    int32_t rv = 0;
    switch (pmsg->cmd) {
    case KX_MOM_CMD_HSET:
    case KX_MOM_CMD_HDEL:
        kx_monotime(&g_vek_cap_recv_last_dep_mod);
        VEK_CAP_ERR("DEP enter, %lu:%lu", VEK_CAP_TS(g_vek_cap_recv_last_dep_mod));
        // The carried result belongs to the store.
        rv = vek_cap_dep_pro(static_cast<kx_mom_hash_res *>(pmsg->data));
        break;
    case KX_MOM_CMD_SUBSCRIBED: {
        VEK_CAP_REFUSE_NULL(privdata);
        auto *item = static_cast<vek_cap_dep_item *>(privdata);
        kx_monotime(&g_vek_cap_sub_last_dep_mod);
        VEK_CAP_ERR("DEP subscribe ok, module %s %lu:%lu", item->module,
                    VEK_CAP_TS(g_vek_cap_sub_last_dep_mod));
        // A subscription reports changes only: catch up with the record as it is now.
        dep_query query(item);
        rv = vek_cap_hgetall_pro(VEK_CAP_DB_HOST, query.key(), vek_cap_dep_pro);
        break;
    }
    default:
        VEK_CAP_INFO("pmsg->cmd %d", pmsg->cmd);
        return 0;
    }
    if (rv != 0) {
        VEK_CAP_ERR("failed,rv %d", rv);
        return rv;
    }
    return 0;
}

int32_t vek_cap_dep_pro(kx_mom_hash_res *result)
{
    if (int32_t rv = vek_cap_res_check(__func__, result); rv != 0)
        return rv;
    VEK_CAP_INFO("enter");
    const auto *dep = static_cast<const SFrame__CapDep *>(result->obj);
    if (!dep) {
        VEK_CAP_WARN("dep NULL, just return");
        return 0;
    }
    VEK_CAP_REFUSE_NULL(dep->index);
    VEK_CAP_REFUSE_NULL(dep->index->module);
    VEK_CAP_WARN("dep %s, ready %d", dep->index->module, dep->ready);

    // Readiness latches: once every module has been seen ready, records are ignored.
    g_vek_cap_dep_all_ready = 1;
    vek_cap_walk_dep_hash(vek_cap_chk_ready, &g_vek_cap_dep_all_ready);
    if (g_vek_cap_dep_all_ready) {
        VEK_CAP_WARN("all mod is ready not need to pro");
        VEK_CAP_INFO("leave");
        return 0;
    }

    vek_cap_dep_item scratch;
    vek_cap_con_dep_info(&scratch, dep->index->module, dep->ready ? 1 : 0);
    vek_cap_insert_dep_hash(&scratch, 1);
    vek_cap_glb_cap_db_validate(1);
    return 0;
}
