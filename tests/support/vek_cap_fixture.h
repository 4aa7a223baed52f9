// Unit tests of the daemon: the in-memory platform reset, and every process-wide
// variable of vek_cap.h back at its initial value, before and after each test.
#ifndef VEK_CAP_FIXTURE_H
#define VEK_CAP_FIXTURE_H

#include <cstdlib>

#include <gtest/gtest.h>

#include "kx_double.h"
#include "vek_cap.h"

namespace vek_cap_test {

// The registry is never released by the daemon; a test that built one releases it here.
inline void release_dep_hash()
{
    vek_cap_dep_hash_t *h = g_vek_cap_dep_hash;
    g_vek_cap_dep_hash = nullptr;
    if (!h)
        return;
    for (uint32_t i = 0; i < h->n_buckets; ++i)
        if (((h->flags[i >> 4] >> ((i & 0xfU) << 1)) & 3U) == 0)
            std::free(h->keys[i]);
    std::free(h->keys);
    std::free(h->flags);
    std::free(h);
}

// Every process-wide variable of vek_cap.h at its initial value (a new variable there
// gets its line here).
inline void reset_daemon_state()
{
    g_vek_cap_dep_alloc = {std::calloc, std::realloc, std::free};
    release_dep_hash();
    g_vek_cap_global = nullptr;
    g_vek_cap_dbg_level = 1;
    g_vek_cap_zlog_category = nullptr;
    g_vek_cap_db_state[0] = {VEK_CAP_DB_HOST, 0};
    g_vek_cap_db_state[1] = {VEK_CAP_DB_TUNNER, 0};
    g_vek_cap_db_state[2] = {VEK_CAP_DB_CE_GLOBAL, 0};
    g_vek_cap_dep_all_ready = 0;
    g_vek_local_ready = 0;
    g_vek_global_ready = 0;
    g_vek_cap_card = {-1, 0, 0, 0, 0, 0};
    g_vek_cap_time = {};
    g_vek_cap_sub_last_dep_mod = {};
    g_vek_cap_recv_last_dep_mod = {};
}

// Logs through the double's sink at `level`, with the handle of kx_global_init, as the
// daemon is once started; every database connected.
inline void start_daemon_state(uint32_t level = 5)
{
    g_vek_cap_global = kx_global_init("vek_cap", nullptr);
    g_vek_cap_zlog_category = kx_zlog_init("vek_cap");
    g_vek_cap_dbg_level = level;
    for (auto &s : g_vek_cap_db_state)
        s.state = 1;
    kxd::clear_calls();
}

class DaemonTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        kxd::reset();
        reset_daemon_state();
    }
    void TearDown() override
    {
        reset_daemon_state();
        kxd::reset();
    }
};

} // namespace vek_cap_test

#endif
