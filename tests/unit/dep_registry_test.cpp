// The dependency registry: bucket order across a rehash, sizing and lookups over random
// module sets, the two insertion origins, truncated names, allocation failures, the
// walk with the all-ready test, and the directory scan.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "test_redis.h"
#include "vek_cap_fixture.h"

namespace {

using Buckets = std::map<uint32_t, std::string>;

vek_cap_dep_item item_of(const std::string &name, uint8_t ready = 0)
{
    vek_cap_dep_item item;
    vek_cap_con_dep_info(&item, name.c_str(), ready);
    return item;
}

Buckets layout() // bucket -> module of every live bucket (state bits 0)
{
    Buckets out;
    for (uint32_t i = 0; i < g_vek_cap_dep_hash->n_buckets; ++i)
        if (vek_cap_dep_bucket_state(g_vek_cap_dep_hash->flags, i) == 0)
            out[i] = g_vek_cap_dep_hash->keys[i]->module;
    return out;
}

// The registry's allocations, counted; the fail_at-th fails. Blocks that a failure leaves
// behind are reported by the sanitized build's leak check.
int alloc_calls, fail_at;
void *calloc_or_fail(size_t n, size_t size)
{
    return ++alloc_calls == fail_at ? nullptr : calloc(n, size);
}
void *realloc_or_fail(void *p, size_t size)
{
    return ++alloc_calls == fail_at ? nullptr : realloc(p, size);
}

void insert_all(const std::vector<std::string> &names)
{
    for (const auto &name : names) {
        const vek_cap_dep_item item = item_of(name);
        ASSERT_EQ(vek_cap_insert_dep_hash(&item, 0), 0) << name;
    }
}

struct DepRegistry : vek_cap_test::DaemonTest {
    void SetUp() override { fresh(); }
    // An empty registry whose log lines at `level` are captured.
    void fresh(uint32_t level = 5)
    {
        DaemonTest::SetUp();
        vek_cap_test::start_daemon_state(level, false);
        g_vek_cap_dep_alloc = {calloc_or_fail, realloc_or_fail, free};
        ASSERT_EQ(vek_cap_init_dep_hash(), 0);
    }
};

// Home buckets in 4 and in 8 buckets: c 0, 4; a 1, 1; abc 3, 7; f -, 0; m0 2, 2; m1 2, 2; m3 3, 3.
TEST_F(DepRegistry, BucketOrderAcrossARehashIsFixed)
{
    const std::pair<std::vector<std::string>, Buckets> cases[] = {
        {{"abc"}, {{3, "abc"}}},
        {{"c", "a", "abc", "f"}, {{0, "f"}, {1, "a"}, {4, "c"}, {7, "abc"}}},
        // In 4 buckets m0 2, m1 3, m3 0. Moved in place, m3 displaces the unmoved m1 from
        // 3, m1 the unmoved m0 from 2, and m0 probes 2, 3 to 5. Re-inserting gives m0 2.
        {{"m0", "m1", "m3", "m6"}, {{2, "m1"}, {3, "m3"}, {5, "m0"}, {6, "m6"}}},
    };
    for (const auto &[names, buckets] : cases) {
        fresh();
        insert_all(names);
        EXPECT_EQ(layout(), buckets);
    }
}

// Random names over a small alphabet, half of them behind a 60-byte stem, so that repeats
// and names equal in their first 63 bytes occur, inserted with random ready and dir; checked
// after every insertion: growth at the 4th, 7th, 13th... module, nothing lost, duplicated
// or stale, a present module changed by dir 1 only, an absent one added with its own ready.
TEST_F(DepRegistry, RandomSetsKeepEveryInvariant)
{
    // Most occupied buckets -> bucket count: 4 buckets hold 3, 8 hold 6 and so on.
    const std::map<uint32_t, uint32_t> capacity = {{3, 4},   {6, 8},   {12, 16},
                                                   {25, 32}, {49, 64}, {99, 128}};
    std::mt19937 rng(20240611);
    for (int set = 0; set < 1000; ++set) {
        fresh(0);
        std::map<std::string, uint8_t> model;
        for (int n = 1 + rng() % 99; n > 0; --n) {
            std::string name(rng() % 2 ? 60 : 0, 'x');
            for (int len = 1 + rng() % 10; len > 0; --len)
                name += "xyz._"[rng() % 5];
            const uint8_t ready = rng() & 1, dir = rng() & 1;
            const vek_cap_dep_item item = item_of(name, ready);
            ASSERT_EQ(vek_cap_insert_dep_hash(&item, dir), 0);
            if (auto [at, added] = model.emplace(name.substr(0, 63), ready); !added && dir == 1)
                at->second = ready;
            const vek_cap_dep_hash_t *h = g_vek_cap_dep_hash;
            const auto cap = capacity.lower_bound(h->size);
            ASSERT_EQ(
                std::make_tuple(h->size, h->n_occupied, h->n_buckets, h->upper_bound,
                                layout().size()),
                std::make_tuple(model.size(), model.size(), cap->second, cap->first, model.size()));
            for (const auto &[key, want] : model) {
                const vek_cap_dep_item probe = item_of(key), *found = vek_cap_find_dep_hash(&probe);
                ASSERT_TRUE(found && found->ready == want) << key;
            }
        }
    }
}

// The 4th insertion allocates the item, then the new flag array, then grows the key array.
TEST_F(DepRegistry, AFailedAllocationLeavesTheRegistryAsItWas)
{
    for (int nth = 1; nth <= 3; ++nth) {
        fresh();
        insert_all({"a", "b", "c"});
        const vek_cap_dep_hash_t before = *g_vek_cap_dep_hash;
        fail_at = alloc_calls + nth;
        const vek_cap_dep_item d = item_of("d");
        EXPECT_EQ(vek_cap_insert_dep_hash(&d, 0), -11) << nth;
        EXPECT_EQ(std::memcmp(g_vek_cap_dep_hash, &before, sizeof before), 0) << nth;
        EXPECT_EQ(layout(), (Buckets{{0, "c"}, {1, "a"}, {2, "b"}}));
        EXPECT_EQ(kxd::log_briefs().back(),
                  "ERROR app/vek_cap/vek_cap vek_cap_insert_dep_hash: add module: d failed");
    }
}

TEST_F(DepRegistry, TheWalkGoesInBucketOrderAndStopsAtTheFirstNonZero)
{
    insert_all({"a", "b", "c"}); // buckets 1, 2, 0
    static std::vector<std::string> seen;
    auto stop = [](vek_cap_dep_item *it, void *) {
        seen.push_back(it->module);
        return seen.size() == 2 ? -7 : 0;
    };
    EXPECT_EQ(vek_cap_walk_dep_hash(stop, nullptr), -7);
    EXPECT_EQ(seen, (std::vector<std::string>{"c", "a"}));
}

TEST_F(DepRegistry, DirectoryScanTakesRegularFilesOnly)
{
    testsupport::TempDir root;
    kxd::set_root(root.path());
    const std::string dir = root.path() + VEK_CAP_DEP_DIR;
    for (const char *name : {"fib_mgr", ".hidden", "route_mgr", "subdir/file"})
        testsupport::write_file(dir + "/" + name, "ignored");
    ASSERT_EQ(symlink("fib_mgr", (dir + "/link").c_str()), 0);
    ASSERT_EQ(mkfifo((dir + "/fifo").c_str(), 0600), 0);
    vek_cap_collect_dep_event();
    // Home buckets 1, 3 and 0 apart: the layout does not depend on the directory's order.
    EXPECT_EQ(layout(), (Buckets{{0, "route_mgr"}, {1, "fib_mgr"}, {3, ".hidden"}}));
}

} // namespace
