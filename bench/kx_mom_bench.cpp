// What libkx costs on top of Redis: a private redis-server on a Unix socket, the
// raw hiredis round trip as the unit, then the libkx calls the daemon makes.
// The operations take turns, round after round, so that each sees the same
// machine; each figure is its best round (the least disturbed one).
//
//   kx_mom_bench [--cpus S,C]
//
// Besides the table, one line per operation for scripts/bench:
//   operation NAME US_PER_OP CLIENT_CPU_US
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include <hiredis/hiredis.h>

#include "bench_cpus.h"
#include "kx_global.h"
#include "kx_mom.h"
#include "s_frame.pb-c.h"
#include "test_redis.h"

namespace {

constexpr int kRecords = 10000;
constexpr int kRounds = 7;

struct Measure {
    const char *key; // for scripts/bench
    const char *name;
    int ops;
    std::function<void()> body;
    double best_us = 1e300;
    double best_cpu_us = 1e300; // this process only: what the client side costs
};

double cpu_now_us()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return ts.tv_sec * 1e6 + ts.tv_nsec / 1e3;
}

// Runs every measure once per round; keeps each one's best microseconds per op.
void measure(std::vector<Measure> &all)
{
    for (int round = 0; round < kRounds; ++round) {
        for (Measure &m : all) {
            auto start = std::chrono::steady_clock::now();
            double cpu_start = cpu_now_us();
            m.body();
            std::chrono::duration<double, std::micro> took =
                std::chrono::steady_clock::now() - start;
            m.best_us = std::min(m.best_us, took.count() / m.ops);
            m.best_cpu_us = std::min(m.best_cpu_us, (cpu_now_us() - cpu_start) / m.ops);
        }
    }
}

std::string url(int i) { return "/fe/l3/entry/" + std::to_string(i); }

// A record of card 16 in s_frame.cap_glb_table, its url borrowed.
struct GlbRecord {
    SFrame__CapGlbTableIndex index = S_FRAME__CAP_GLB_TABLE_INDEX__INIT;
    SFrame__CapGlbTable rec = S_FRAME__CAP_GLB_TABLE__INIT;

    explicit GlbRecord(std::string &url)
    {
        index.node = 16;
        index.url = url.data();
        rec.index = &index;
    }
    GlbRecord(const GlbRecord &) = delete;
    GlbRecord &operator=(const GlbRecord &) = delete;
};

int32_t count_record(kx_global_t *, kx_mom_msg *msg, void *privdata)
{
    auto *res = static_cast<kx_mom_hash_res *>(msg->data);
    *static_cast<int *>(privdata) += res && res->obj && res->error_code == 0;
    return 0;
}

bool fail(const char *what)
{
    fprintf(stderr, "kx_mom_bench: %s\n", what);
    return false;
}

bool run(const Cpus &cpus)
{
    testsupport::RedisServer server;
    setenv("KX_MOM_ADDR", server.addr().c_str(), 1);
    kx_global_t *g = kx_global_init("kx_mom_bench", nullptr);
    if (!g || kx_mom_client_connect_sync(g, 28) != 0)
        return fail("cannot connect libkx");
    redisContext *raw = redisConnectUnix(server.socket().c_str());
    if (!raw || raw->err)
        return fail("cannot connect hiredis");
    if (!pin_both(raw, cpus))
        return fail("cannot pin the server and this process to their CPUs");
    freeReplyObject(redisCommand(raw, "SELECT 28"));

    // The same command libkx sends for a record written with fields 6, 7, 8.
    std::vector<Measure> all;
    all.push_back({"raw_hset", "raw hiredis HSET (3 fields)", kRecords, [&] {
                       for (int i = 0; i < kRecords; ++i) {
                           std::string key = "s_frame.cap_glb_table|16|" + url(i);
                           freeReplyObject(redisCommand(
                               raw, "HSET %s bool_value %s int32_value %d str_value %s",
                               key.c_str(), "true", i, "x"));
                       }
                   }});

    std::vector<std::string> urls;
    for (int i = 0; i < kRecords; ++i)
        urls.push_back(url(i));
    const int32_t tags[] = {6, 7, 8};
    int failures = 0;
    all.push_back({"hmset", "kx_mom_hmset_sync (3 fields)", kRecords, [&] {
                       for (int i = 0; i < kRecords; ++i) {
                           GlbRecord r(urls[i]);
                           r.rec.bool_value = 1;
                           r.rec.int32_value = i;
                           r.rec.str_value = const_cast<char *>("x");
                           failures += kx_mom_hmset_sync(g, 28, &r.rec.base, tags, 3) != 0;
                       }
                   }});

    all.push_back({"hgetall", "kx_mom_hgetall_sync", kRecords, [&] {
                       for (int i = 0; i < kRecords; ++i) {
                           GlbRecord key(urls[i]);
                           kx_mom_hash_res *res = kx_mom_hgetall_sync(g, 28, &key.rec.base);
                           failures += !res || !res->obj;
                           kx_mom_hash_res_free(res);
                       }
                   }});

    int delivered = 0;
    all.push_back({"scan", "kx_mom_scan_sync, per record", kRecords, [&] {
                       SFrame__CapGlbTable table = S_FRAME__CAP_GLB_TABLE__INIT;
                       failures +=
                           kx_mom_scan_sync(g, 28, &table.base, 0, count_record, &delivered) != 0;
                   }});
    measure(all);
    if (failures || delivered != kRounds * kRecords)
        return fail("some operations failed");

    printf("%d records of s_frame.cap_glb_table, Unix socket, %s, best of %d rounds\n", kRecords,
           cpus.name().c_str(), kRounds);
    printf("%-32s %9s %16s %14s\n", "operation", "us/op", "raw round trips", "client CPU us");
    for (const Measure &m : all)
        printf("%-32s %9.2f %16.2f %14.2f\n", m.name, m.best_us, m.best_us / all[0].best_us,
               m.best_cpu_us);
    for (const Measure &m : all)
        printf("operation %s %.2f %.2f\n", m.key, m.best_us, m.best_cpu_us);
    redisFree(raw);
    kx_global_finish(g);
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    Cpus cpus;
    if (!take_cpus(argc, argv, &cpus) || argc != 1)
        return fail("usage: kx_mom_bench [--cpus S,C]"), 2;
    return run(cpus) ? 0 : 1;
}
