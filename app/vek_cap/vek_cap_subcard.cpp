// Subcards: their readiness in the card-local database, their capability in the
// chassis-global one.
#include "vek_cap.h"

static constexpr std::string_view vek_cap_unit = "app/vek_cap/vek_cap";

int32_t vek_cap_sub_card_ready_pmsg_f(kx_global_t *global, kx_mom_msg *pmsg, void *privdata)
{
    (void)global;
    (void)pmsg;
    (void)privdata;
    return 0;
}
