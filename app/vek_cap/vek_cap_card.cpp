// Card identity: the card's own record and its chassis's record in the card database.
#include "vek_cap.h"

static constexpr std::string_view vek_cap_unit = "app/vek_cap/vek_cap";

int32_t vek_cap_dp_my_info_pmsg_f(kx_global_t *global, kx_mom_msg *pmsg, void *privdata)
{
    (void)global;
    (void)pmsg;
    (void)privdata;
    return 0;
}

int32_t vek_cap_dp_my_chss_info_pmsg_f(kx_global_t *global, kx_mom_msg *pmsg, void *privdata)
{
    (void)global;
    (void)pmsg;
    (void)privdata;
    return 0;
}
