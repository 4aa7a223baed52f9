// The state dumps of the debug shell: each prints one part of the process-wide state on
// standard output (which the shell sends to its client) and changes nothing.
#include <cstdio>

#include "vek_cap.h"

namespace {

// The time stamps' banner, written through puts (which adds the line feed).
constexpr const char *VEK_CAP_TIME_BANNER = "\r\n=====================================\r";
constexpr const char *VEK_CAP_DEP_BANNER =
    "\r\n==============dump dep mod=======================\r";

void vek_cap_print_time(const char *what, const vek_cap_time_t &t)
{
    printf("%s %lu:%lu\r\n", what, VEK_CAP_TS(t));
}

} // namespace

int32_t vek_cap_dump_status(void)
{
    printf("g_vek_local_ready, %d\n", g_vek_local_ready);
    printf("g_vek_global_ready, %d\n", g_vek_global_ready);
    return 0;
}

int32_t vek_cap_dump_card_info(void)
{
    const vek_cap_card_t &c = g_vek_cap_card;
    printf("devid %d, slotid %d, sslotid %d, node 0x%08x, config_dev_type %d, node_type %d\n",
           c.devid, c.slotid, c.sslotid, static_cast<unsigned>(c.node), c.config_dev_type,
           c.node_type);
    return 0;
}

int32_t vek_cap_show_time(void)
{
    const vek_cap_times_t &t = g_vek_cap_time;
    puts(VEK_CAP_TIME_BANNER);
    vek_cap_print_time("vek_cap run", t.run);
    vek_cap_print_time("subscribe dev info ok", t.dev_info_sub);
    vek_cap_print_time("recv dev info", t.dev_info_recv);
    vek_cap_print_time("subscribe chss info ok", t.chss_info_sub);
    vek_cap_print_time("recv chss info", t.chss_info_recv);
    vek_cap_print_time("subscribe local ready ok", t.local_ready_sub);
    vek_cap_print_time("recv local redy", t.local_ready_recv);
    vek_cap_print_time("copy cap start", t.copy_cap_start);
    vek_cap_print_time("copy cap end", t.copy_cap_end);
    vek_cap_print_time("g_vek_cap_sub_last_dep_mod", g_vek_cap_sub_last_dep_mod);
    vek_cap_print_time("g_vek_cap_recv_last_dep_mod", g_vek_cap_recv_last_dep_mod);
    puts(VEK_CAP_TIME_BANNER);
    return 0;
}

int vek_cap_dep_mod_print(vek_cap_dep_item *item, void *)
{
    printf("module:%s, ready %d\r\n", item->module, item->ready);
    return 0;
}

int32_t vek_cap_dump_dep_mod(void)
{
    puts(VEK_CAP_DEP_BANNER);
    return vek_cap_walk_dep_hash(vek_cap_dep_mod_print, nullptr);
}
