// Unit tests of the daemon: the in-memory platform reset, and every process-wide
// variable of vek_cap.h back at its initial value, before each test.
#ifndef VEK_CAP_FIXTURE_H
#define VEK_CAP_FIXTURE_H

#include <cstdlib>
#include <utility>

#include <gtest/gtest.h>

#include "kx_double.h"
#include "vek_cap.h"

namespace vek_cap_test {

// A new variable in vek_cap.h gets its line here. The daemon never releases its
// registry; a test that built one has it released here.
inline void reset_daemon_state()
{
    if (vek_cap_dep_hash_t *h = std::exchange(g_vek_cap_dep_hash, nullptr)) {
        for (uint32_t i = 0; i < h->n_buckets; ++i)
            if (vek_cap_dep_bucket_state(h->flags, i) == 0)
                std::free(h->keys[i]);
        std::free(h->keys);
        std::free(h->flags);
        std::free(h);
    }
    g_vek_cap_dep_alloc = {std::calloc, std::realloc, std::free};
    g_vek_cap_global = nullptr;
    g_vek_cap_dbg_level = 1;
    g_vek_cap_zlog_category = nullptr;
    for (auto &entry : g_vek_cap_db_state)
        entry.state = 0;
    g_vek_cap_dep_all_ready = g_vek_local_ready = g_vek_global_ready = 0;
    g_vek_cap_card = {-1, 0, 0, 0, 0, 0};
    g_vek_cap_time = {};
    g_vek_cap_sub_last_dep_mod = g_vek_cap_recv_last_dep_mod = {};
    g_vek_cap_subcard_recv_time = g_vek_cap_subcard_sub_time = {};
}

// The daemon as once started: the double's handle and log sink, `level`, a registry
// (an empty one unless there is one, or the test makes its own), every database
// connected; no call or log record kept yet.
inline void start_daemon_state(uint32_t level = 5, bool registry = true)
{
    g_vek_cap_global = kx_global_init("vek_cap", nullptr);
    g_vek_cap_zlog_category = kx_zlog_init("vek_cap");
    g_vek_cap_dbg_level = level;
    if (registry && !g_vek_cap_dep_hash) {
        EXPECT_EQ(vek_cap_init_dep_hash(), 0);
    }
    for (auto &s : g_vek_cap_db_state)
        s.state = 1;
    kxd::clear();
}

class DaemonTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        kxd::reset();
        reset_daemon_state();
    }
};

} // namespace vek_cap_test

#endif
