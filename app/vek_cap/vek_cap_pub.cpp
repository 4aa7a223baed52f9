// Capability publication: the one decision whether this card may announce its
// capability to the chassis, taken again whenever one of its inputs changes.
#include "vek_cap.h"

static constexpr std::string_view vek_cap_unit = "app/vek_cap/vek_cap";

int32_t vek_cap_glb_cap_db_validate(int32_t arg)
{
    (void)arg;
    VEK_CAP_WARN("node 0x%x devid %d, local_ready %d, global_ready %d", static_cast<unsigned>(g_vek_cap_card.node),
                 g_vek_cap_card.devid, g_vek_local_ready, g_vek_global_ready);
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
    // TODO: publication (vek_cap_write_glb_fe(arg)) is not written yet; nothing is published.
    return 0;
}

// Local readiness subscription: not written yet; notifications are accepted and ignored.
int32_t vek_cap_local_ready_pmsg_f(kx_global_t *global, kx_mom_msg *pmsg, void *privdata)
{
    (void)global;
    (void)pmsg;
    (void)privdata;
    return 0;
}

// Deletion watch on the global ready record: not written yet; notifications are ignored.
int32_t vek_cap_del_fe_ready_pmsg_f(kx_global_t *global, kx_mom_msg *pmsg, void *privdata)
{
    (void)global;
    (void)pmsg;
    (void)privdata;
    return 0;
}
