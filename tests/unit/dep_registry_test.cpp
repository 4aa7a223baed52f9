// The dependency registry: hashing, bucket order across rehashes, sizing, the two
// insertion origins, allocation failures, the walk and the directory scan.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <xxhash.h>

#include "kx_double.h"
#include "test_redis.h"
#include "vek_cap.h"
#include "vek_cap_fixture.h"

namespace {

using ::testing::ElementsAre;

uint32_t xxh_of(const std::string &name)
{
    char buf[64] = {};
    std::memcpy(buf, name.data(), std::min(name.size(), size_t{63}));
    return XXH32(buf, sizeof buf, 0);
}

vek_cap_dep_item make_item(const std::string &name, uint8_t ready = 0)
{
    vek_cap_dep_item item;
    vek_cap_con_dep_info(&item, name.c_str(), ready);
    return item;
}

bool bucket_live(const vek_cap_dep_hash_t *h, uint32_t i) { return ((h->flags[i >> 4] >> ((i & 15) * 2)) & 3) == 0; }

// bucket -> module of every live bucket.
std::map<uint32_t, std::string> layout()
{
    std::map<uint32_t, std::string> out;
    const vek_cap_dep_hash_t *h = g_vek_cap_dep_hash;
    for (uint32_t i = 0; i < h->n_buckets; ++i)
        if (bucket_live(h, i))
            out[i] = h->keys[i]->module;
    return out;
}

std::vector<std::string> walk_order()
{
    std::vector<std::string> names;
    vek_cap_walk_dep_hash(
        [](vek_cap_dep_item *item, void *priv) {
            static_cast<std::vector<std::string> *>(priv)->push_back(item->module);
            return 0;
        },
        &names);
    return names;
}

std::vector<std::string> log_texts()
{
    std::vector<std::string> out;
    for (const auto &rec : kxd::logs())
        out.push_back(rec.text);
    return out;
}

// Allocation seam: counts live blocks and can fail the nth allocation from now on.
struct CountingAlloc {
    static inline int live = 0;
    static inline int fail_at = 0; // 0: never
    static inline int seen = 0;

    static void fail_nth(int nth)
    {
        seen = 0;
        fail_at = nth;
    }
    static bool should_fail() { return fail_at != 0 && ++seen == fail_at; }
    static void *c(size_t n, size_t size)
    {
        if (should_fail())
            return nullptr;
        void *p = calloc(n, size);
        live += p != nullptr;
        return p;
    }
    static void *r(void *ptr, size_t size)
    {
        if (should_fail())
            return nullptr;
        void *p = realloc(ptr, size);
        live += (p != nullptr) - (ptr != nullptr);
        return p;
    }
    static void f(void *ptr)
    {
        live -= ptr != nullptr;
        free(ptr);
    }
};

class DepRegistry : public vek_cap_test::DaemonTest {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        vek_cap_test::start_daemon_state(5);
        CountingAlloc::live = CountingAlloc::fail_at = CountingAlloc::seen = 0;
        g_vek_cap_dep_alloc = {CountingAlloc::c, CountingAlloc::r, CountingAlloc::f};
        ASSERT_EQ(vek_cap_init_dep_hash(), 0);
    }
    void TearDown() override
    {
        if (vek_cap_dep_hash_t *h = g_vek_cap_dep_hash) {
            for (uint32_t i = 0; i < h->n_buckets; ++i)
                if (bucket_live(h, i))
                    CountingAlloc::f(h->keys[i]);
            CountingAlloc::f(h->flags);
            CountingAlloc::f(h->keys);
            CountingAlloc::f(h);
        }
        g_vek_cap_dep_hash = nullptr;
        EXPECT_EQ(CountingAlloc::live, 0) << "registry blocks leaked";
        DaemonTest::TearDown();
    }
    static void insert_all(const std::vector<std::string> &names)
    {
        for (const auto &name : names) {
            vek_cap_dep_item item = make_item(name);
            ASSERT_EQ(vek_cap_insert_dep_hash(&item, 0), 0) << name;
        }
    }
};

// The bucket order across rehashes, worked out by hand from the low bits of each name's
// XXH32 (home = hash & (n_buckets - 1); probe offsets 1, 3, 6, ... from home).
//
// {c, a, abc, f}: in 4 buckets c 0, a 1, abc 3. The 4th insertion doubles to 8 and moves
//   in place: c (..5c & 7 = 4) to 4, a (..81 & 7 = 1) stays 1, abc (0x01C1BBD7 & 7 = 7)
//   to 7; f (..e0 & 7 = 0) then takes 0.
// {m0, m1, m3, m6}: in 4 buckets m0 2 (..aa & 3), m1 2 -> 3, m3 3 -> 0. At the 4th
//   insertion bucket 0's m3 (& 7 = 3) finds 3 still holding unmoved m1 and swaps with it;
//   m1 (& 7 = 2) then swaps with unmoved m0 in 2, and m0 (& 7 = 2) probes 2, 3 to 5.
//   m6 (..76 & 7 = 6) takes 6. Re-inserting in bucket order would give m0 2, m1 5.
// {a, b, c, d, i, p, q}: in 8 buckets i 0, a 1, c 4, p 5, b 6, d 7. The 7th insertion
//   doubles to 16: i (& 15 = 6) swaps with unmoved b in 6, so b (& 15 = 14) takes 14
//   before p (& 15 = 14) moves and has to probe to 15; then c 12, d 6 -> 7, q 9.
TEST_F(DepRegistry, RehashMovesItemsInPlaceInAFixedOrder)
{
    EXPECT_EQ(xxh_of("abc"), 0x01C1BBD7u);
    const std::map<std::string, uint32_t> low_bits = {
        {"a", 0x81}, {"b", 0xbe}, {"c", 0x5c}, {"d", 0x76}, {"f", 0xe0}, {"i", 0x76},
        {"p", 0x5e}, {"q", 0x89}, {"m0", 0xaa}, {"m1", 0x52}, {"m3", 0xeb}, {"m6", 0x76}};
    for (const auto &[name, byte] : low_bits)
        EXPECT_EQ(xxh_of(name) & 0xff, byte) << name;

    struct Case {
        std::vector<std::string> names;
        uint32_t n_buckets;
        std::map<uint32_t, std::string> buckets;
    };
    const Case cases[] = {
        {{"abc"}, 4, {{3, "abc"}}},
        {{"c", "a", "abc", "f"}, 8, {{0, "f"}, {1, "a"}, {4, "c"}, {7, "abc"}}},
        {{"m0", "m1", "m3", "m6"}, 8, {{2, "m1"}, {3, "m3"}, {5, "m0"}, {6, "m6"}}},
        {{"a", "b", "c", "d", "i", "p", "q"},
         16,
         {{1, "a"}, {6, "i"}, {7, "d"}, {9, "q"}, {12, "c"}, {14, "b"}, {15, "p"}}},
    };
    for (const Case &tc : cases) {
        TearDown();
        SetUp();
        insert_all(tc.names);
        EXPECT_EQ(g_vek_cap_dep_hash->n_buckets, tc.n_buckets) << tc.names.front();
        EXPECT_EQ(layout(), tc.buckets) << tc.names.front();
        std::vector<std::string> in_bucket_order;
        for (const auto &[bucket, name] : tc.buckets)
            in_bucket_order.push_back(name);
        EXPECT_EQ(walk_order(), in_bucket_order);
    }
}

// Thousands of random module sets (names up to 70 bytes over a small alphabet, so that
// repeats and 63-byte truncations occur); the registry is checked after every insertion.
TEST_F(DepRegistry, RandomSetsKeepEveryInvariant)
{
    g_vek_cap_dbg_level = 0;
    // Occupied buckets each bucket count holds before the next insertion doubles it.
    const std::map<uint32_t, uint32_t> capacity = {{4, 3}, {8, 6}, {16, 12}, {32, 25}, {64, 49}, {128, 99}, {256, 197}};
    std::mt19937 rng(20240611);
    for (int set = 0; set < 1000; ++set) {
        TearDown();
        SetUp();
        g_vek_cap_dbg_level = 0;
        std::map<std::string, uint8_t> model; // stored name -> ready
        const int count = std::uniform_int_distribution<int>(1, 110)(rng);
        for (int n = 0; n < count; ++n) {
            std::string name(std::uniform_int_distribution<int>(1, 70)(rng), 'x');
            for (char &ch : name)
                ch = "xyz._"[std::uniform_int_distribution<int>(0, 4)(rng)];
            const uint8_t ready = rng() & 1;
            const int dir = rng() & 1;
            vek_cap_dep_item item = make_item(name, ready);
            ASSERT_EQ(vek_cap_insert_dep_hash(&item, dir), 0);
            const std::string stored = name.substr(0, 63);
            if (!model.count(stored) || dir == 1)
                model[stored] = ready;

            const vek_cap_dep_hash_t *h = g_vek_cap_dep_hash;
            ASSERT_EQ(h->size, model.size());
            ASSERT_EQ(h->n_occupied, h->size); // nothing is ever deleted
            auto cap = capacity.begin();
            while (cap->second < h->size)
                ++cap;
            ASSERT_EQ(h->n_buckets, cap->first) << "size " << h->size;
            ASSERT_EQ(h->upper_bound, cap->second);
            uint32_t live = 0;
            for (uint32_t i = 0; i < h->n_buckets; ++i) { // only live (0) or empty (2) states
                live += bucket_live(h, i);
                ASSERT_NE((h->flags[i >> 4] >> ((i & 15) * 2)) & 3, 1u);
            }
            ASSERT_EQ(live, h->size);
            // Every stored name found in its own live bucket, and exactly size live
            // buckets: nothing lost, nothing duplicated.
            for (const auto &[key, want_ready] : model) {
                vek_cap_dep_item probe = make_item(key);
                const vek_cap_dep_item *found = vek_cap_find_dep_hash(&probe);
                ASSERT_NE(found, nullptr) << key;
                ASSERT_EQ(found->ready, want_ready) << key;
            }
        }
    }
}

TEST_F(DepRegistry, OriginDecidesWhetherAPresentModuleChanges)
{
    struct Case {
        bool present; // the registry already holds "fib_mgr" with ready 0
        int dir;
        uint8_t ready;
        uint8_t want;
        std::vector<std::string> logs;
    };
    const Case cases[] = {
        {true, 0, 1, 0, {"module fib_mgr, ready 1 dir 0", "module fib_mgr, found"}},
        {true, 1, 1, 1, {"module fib_mgr, ready 1 dir 1", "module fib_mgr, found"}},
        {false, 0, 1, 1, {"module fib_mgr, ready 1 dir 0", "module fib_mgr, not found", "add module: fib_mgr success"}},
        {false, 1, 1, 1, {"module fib_mgr, ready 1 dir 1", "module fib_mgr, not found", "add module: fib_mgr success"}},
        {false, 1, 0, 0, {"module fib_mgr, ready 0 dir 1", "module fib_mgr, not found", "add module: fib_mgr success"}},
    };
    for (const Case &tc : cases) {
        TearDown();
        SetUp();
        if (tc.present)
            insert_all({"fib_mgr"});
        kxd::clear_logs();
        vek_cap_dep_item item = make_item("fib_mgr", tc.ready);
        EXPECT_EQ(vek_cap_insert_dep_hash(&item, tc.dir), 0);
        EXPECT_EQ(vek_cap_find_dep_hash(&item)->ready, tc.want);
        EXPECT_EQ(g_vek_cap_dep_hash->size, 1u);
        EXPECT_EQ(log_texts(), tc.logs);
    }
}

TEST_F(DepRegistry, NamesAreCutTo63CharactersAndMergeThere)
{
    const std::string stem(63, 'n');
    vek_cap_dep_item first = make_item(stem + "-first", 0);
    EXPECT_EQ(std::string(first.module), stem);
    EXPECT_EQ(first.module[63], '\0');
    insert_all({stem + "-first"});
    kxd::clear_logs();
    vek_cap_dep_item second = make_item(stem + "-second", 1);
    EXPECT_EQ(vek_cap_insert_dep_hash(&second, 0), 0);
    EXPECT_EQ(g_vek_cap_dep_hash->size, 1u);
    EXPECT_EQ(vek_cap_find_dep_hash(&second)->ready, 0);
    EXPECT_THAT(log_texts(), ElementsAre("module " + stem + ", ready 1 dir 0", "module " + stem + ", found"));
}

// The 4th insertion allocates the item, then the flag array, then grows the key array.
TEST_F(DepRegistry, AFailedAllocationLeavesTheRegistryAsItWas)
{
    for (int nth = 1; nth <= 3; ++nth) {
        TearDown();
        SetUp();
        insert_all({"a", "b", "c"});
        const vek_cap_dep_hash_t before = *g_vek_cap_dep_hash;
        const uint32_t flags_before = before.flags[0];
        const auto layout_before = layout();
        const int live_before = CountingAlloc::live;
        kxd::clear_logs();

        CountingAlloc::fail_nth(nth);
        vek_cap_dep_item item = make_item("d");
        EXPECT_EQ(vek_cap_insert_dep_hash(&item, 0), -11) << nth;
        CountingAlloc::fail_at = 0;

        const vek_cap_dep_hash_t &after = *g_vek_cap_dep_hash;
        EXPECT_EQ(after.n_buckets, before.n_buckets);
        EXPECT_EQ(after.size, before.size);
        EXPECT_EQ(after.n_occupied, before.n_occupied);
        EXPECT_EQ(after.upper_bound, before.upper_bound);
        EXPECT_EQ(after.flags, before.flags);
        EXPECT_EQ(after.flags[0], flags_before);
        EXPECT_EQ(after.keys, before.keys);
        EXPECT_EQ(layout(), layout_before);
        EXPECT_EQ(vek_cap_find_dep_hash(&item), nullptr);
        EXPECT_EQ(CountingAlloc::live, live_before) << "allocation " << nth << " leaked";
        EXPECT_EQ(kxd::logs().back().text, "add module: d failed");
        EXPECT_EQ(kxd::logs().back().level, KX_ZLOG_LEVEL_ERROR);

        // A later insertion of the same module works.
        EXPECT_EQ(vek_cap_insert_dep_hash(&item, 0), 0);
        EXPECT_EQ(g_vek_cap_dep_hash->n_buckets, 8u);
    }

    TearDown();
    g_vek_cap_dep_alloc = {CountingAlloc::c, CountingAlloc::r, CountingAlloc::f};
    CountingAlloc::fail_nth(1);
    EXPECT_EQ(vek_cap_init_dep_hash(), -1);
    EXPECT_EQ(g_vek_cap_dep_hash, nullptr);
}

TEST_F(DepRegistry, WalkStopsAtTheFirstNonZeroAndSurvivesGrowth)
{
    insert_all({"a", "b", "c"});
    static int visits;
    visits = 0;
    EXPECT_EQ(vek_cap_walk_dep_hash([](vek_cap_dep_item *, void *) { return ++visits == 2 ? -7 : 0; }, nullptr), -7);
    EXPECT_EQ(visits, 2);

    // A callback that inserts makes the registry rehash under the walk.
    visits = 0;
    EXPECT_EQ(vek_cap_walk_dep_hash(
                  [](vek_cap_dep_item *, void *) {
                      vek_cap_dep_item more = make_item("grown" + std::to_string(visits++));
                      return vek_cap_insert_dep_hash(&more, 0);
                  },
                  nullptr),
              0);
    EXPECT_GE(g_vek_cap_dep_hash->n_buckets, 8u);
}

TEST_F(DepRegistry, AllReadyTestLogsEveryModuleInBucketOrder)
{
    // Empty registry: all ready, nothing logged.
    g_vek_cap_dep_all_ready = 1;
    EXPECT_EQ(vek_cap_walk_dep_hash(vek_cap_chk_ready, &g_vek_cap_dep_all_ready), 0);
    EXPECT_EQ(g_vek_cap_dep_all_ready, 1);
    EXPECT_TRUE(kxd::logs().empty());

    // A (& 3 = 3) takes bucket 3, B (& 3 = 3) probes on to 0: B comes first.
    vek_cap_dep_item a = make_item("A", 1), b = make_item("B", 0);
    vek_cap_insert_dep_hash(&a, 0);
    vek_cap_insert_dep_hash(&b, 0);
    kxd::clear_logs();
    g_vek_cap_dep_all_ready = 1;
    EXPECT_EQ(vek_cap_walk_dep_hash(vek_cap_chk_ready, &g_vek_cap_dep_all_ready), 0);
    EXPECT_EQ(g_vek_cap_dep_all_ready, 0);
    EXPECT_THAT(kxd::log_briefs(), ElementsAre("WARN app/vek_cap/vek_cap vek_cap_chk_ready: module B not ready",
                                               "INFO app/vek_cap/vek_cap vek_cap_chk_ready: module A ready"));

    kxd::clear_logs();
    EXPECT_EQ(vek_cap_walk_dep_hash(vek_cap_chk_ready, nullptr), -4);
    EXPECT_THAT(log_texts(), ElementsAre("para NULL pointer, addr error!\n"));
}

TEST_F(DepRegistry, DirectoryScanTakesRegularFilesOnly)
{
    testsupport::TempDir root;
    kxd::set_root(root.path());
    vek_cap_collect_dep_event();
    EXPECT_THAT(log_texts(), ElementsAre("pdir NULL pointer, addr error!\n"));
    EXPECT_EQ(g_vek_cap_dep_hash->size, 0u);

    const std::string dir = root.path() + VEK_CAP_DEP_DIR;
    std::filesystem::create_directories(dir + "/subdir");
    for (const char *name : {"fib_mgr", ".hidden", "acl_mgr"})
        testsupport::write_file(dir + "/" + name, "ignored");
    testsupport::write_file(root.path() + "/outside", "");
    ASSERT_EQ(symlink((root.path() + "/outside").c_str(), (dir + "/link").c_str()), 0);
    ASSERT_EQ(mkfifo((dir + "/fifo").c_str(), 0600), 0);

    vek_cap_collect_dep_event();
    std::vector<std::string> names = walk_order();
    std::sort(names.begin(), names.end());
    EXPECT_THAT(names, ElementsAre(".hidden", "acl_mgr", "fib_mgr"));
    for (const auto &name : names) {
        const vek_cap_dep_item key = make_item(name);
        EXPECT_EQ(vek_cap_find_dep_hash(&key)->ready, 0) << name;
    }
}

} // namespace
