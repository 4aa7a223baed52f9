// What a publication costs: the built daemon against a private redis-server, a card
// with N capability entries. The figure is the time from the write that completes the
// card's conditions (its local ready record) to the card's ready record arriving as a
// keyspace notification, against N raw hiredis HSET round trips measured in the same
// run: each entry is one synchronous write, so N round trips is the floor. Raw and
// daemon rounds take turns, so that both see the same machine; each figure is its best
// round.
//
//   publication_bench [--cpus S,C] [--rounds R] [--idle] [--lost] [--acl] [--daemon PATH]
//                     [N ...]                              (default: 1000 10000)
//
// Also: a republication after a deletion notice; the daemon's peak RSS (VmHWM) before
// and after the publications, with its anonymous and file-backed parts; with --idle,
// its CPU time and context switches over 10 s idle while connected; with --lost, the
// writes the store gets when every connection of the daemon is killed once, nothing
// having changed (the last card; a recovery costs what changed: none); with --acl, the
// daemon reaches db 28 as its card's user from deploy/vek_cap-acl, so that the server
// checks every command against the card's rights. Besides the table,
// one line per card for scripts/bench:
//   publication N raw_us publish_us republish_us idle_hwm_kb hwm_kb anon_kb file_kb
//   idle SECONDS CONTEXT_SWITCHES CPU_TICKS TICKS_PER_SECOND
//   lost N WRITES
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <hiredis/hiredis.h>

#include "bench_cpus.h"
#include "test_redis.h"

namespace {

using Clock = std::chrono::steady_clock;
using testsupport::Process;
constexpr int kIdleSeconds = 10;
constexpr int kRawDb = 27; // raw writes stay out of the daemon's databases

struct Settings {
    Cpus cpus;
    int rounds = 5;
    bool idle = false;
    bool lost = false;
    bool acl = false;
    std::string daemon = VEK_CAP_BIN; // this build's, unless another is named
};

double us_since(Clock::time_point start)
{
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

bool fail(const char *what)
{
    fprintf(stderr, "publication_bench: %s\n", what);
    return false;
}

struct Redis {
    redisContext *c;
    explicit Redis(const std::string &socket) : c(redisConnectUnix(socket.c_str())) {}
    ~Redis() { redisFree(c); }
    Redis(const Redis &) = delete;
    Redis &operator=(const Redis &) = delete;
    bool ok() const { return c && !c->err; }
    void cmd(const std::vector<std::string> &argv) { text(argv); }
    // The reply's text, empty unless it is a string or a status.
    std::string text(const std::vector<std::string> &argv)
    {
        std::vector<const char *> args;
        std::vector<size_t> lens;
        for (const auto &a : argv)
            args.push_back(a.data()), lens.push_back(a.size());
        auto *r = static_cast<redisReply *>(
            redisCommandArgv(c, static_cast<int>(args.size()), args.data(), lens.data()));
        std::string out = r && r->str ? std::string(r->str, r->len) : "";
        freeReplyObject(r);
        return out;
    }
};

// A field of /proc/<pid>/status, in its own unit (kB for memory).
long proc_status(pid_t pid, const std::string &field)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);)
        if (line.starts_with(field + ":"))
            return std::atol(line.c_str() + field.size() + 1);
    return -1;
}

// utime + stime of the process, in clock ticks.
long proc_cpu_ticks(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t paren = text.rfind(')');
    if (paren == std::string::npos)
        return -1;
    std::vector<std::string> fields;
    std::string field;
    for (char ch : text.substr(paren + 2))
        ch == ' ' ? (fields.push_back(field), field.clear()) : void(field += ch);
    return fields.size() > 12 ? std::atol(fields[11].c_str()) + std::atol(fields[12].c_str()) : -1;
}

// One round of `n` raw HSETs of 3 fields, in microseconds per HSET.
double raw_hset_us(Redis &r, int n)
{
    auto start = Clock::now();
    for (int i = 0; i < n; ++i)
        r.cmd({"HSET", "s_frame.cap_glb_table|99|/fe/l3/entry/" + std::to_string(i), "bool_value",
               "true", "int32_value", std::to_string(i), "str_value", "x"});
    return us_since(start) / n;
}

// Waits on `sub` (subscribed to the ready record's key) for its next hset event.
bool next_ready(Redis &sub)
{
    for (;;) {
        void *reply = nullptr;
        if (redisGetReply(sub.c, &reply) != REDIS_OK)
            return false;
        auto *r = static_cast<redisReply *>(reply);
        bool hset = r->type == REDIS_REPLY_ARRAY && r->elements == 3 &&
                    std::string(r->element[2]->str, r->element[2]->len) == "hset";
        freeReplyObject(r);
        if (hset)
            return true;
    }
}

// The users vek_cap-acl writes for a card of node 16 and type 5, set on the server, all
// but the default user: the bench's own connections and the daemon's db 3 and db 1 stay
// the default user's. The daemon's environment for db 28 is added to `env`.
bool add_card_user(Redis &r, const std::string &dir, testsupport::Env &env)
{
    testsupport::write_file(dir + "/chassis.txt", "card 16 5\n");
    const std::string command =
        std::string(VEK_CAP_ACL) + " " + dir + "/chassis.txt " + dir + "/secrets 2>&1";
    FILE *acl = popen(command.c_str(), "r");
    if (!acl)
        return fail("cannot run vek_cap-acl");
    std::string text;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, acl)) > 0;)
        text.append(buf, n);
    if (pclose(acl) != 0)
        return fail(("vek_cap-acl failed: " + text).c_str());
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::vector<std::string> argv{"ACL", "SETUSER"};
        std::string word;
        words >> word; // "user"
        while (words >> word)
            argv.push_back(word);
        if (argv[2] != "default")
            r.cmd(argv);
    }
    env["KX_MOM_USER_28"] = "card16";
    env["KX_MOM_PASSWORD_FILE_28"] = dir + "/secrets/card16";
    return true;
}

struct Figures {
    int entries;
    double raw_us = 1e300, publish_us = 1e300, republish_us = 1e300;
    long idle_hwm_kb, hwm_kb, anon_kb, file_kb;
};

// The daemon's CPU time and context switches over kIdleSeconds while nothing happens.
void measure_idle(pid_t pid)
{
    auto switches = [pid] {
        return proc_status(pid, "voluntary_ctxt_switches") +
               proc_status(pid, "nonvoluntary_ctxt_switches");
    };
    // Each publication also scans db 28 for deletion notices, after its ready record:
    // idle starts once the daemon has not been woken for half a second.
    for (long last = -1; last != switches();) {
        last = switches();
        usleep(500000);
    }
    long cs = switches(), cpu = proc_cpu_ticks(pid);
    sleep(kIdleSeconds);
    printf("idle %d %ld %ld %ld\n", kIdleSeconds, switches() - cs, proc_cpu_ticks(pid) - cpu,
           sysconf(_SC_CLK_TCK));
}

// Every connection of the daemon killed once, nothing changed: the writes (HSET, DEL) the
// store gets until the daemon has reconnected and nothing more comes for a second.
void measure_lost(const std::string &socket, const std::string &log, int n)
{
    Redis admin(socket);
    auto reconnects = [&] {
        std::string text = testsupport::read_file(log);
        long count = 0;
        for (size_t at = 0; (at = text.find("reconnect set db 28 state", at)) != text.npos; ++at)
            ++count;
        return count;
    };
    auto writes = [&] {
        std::string stats = admin.text({"INFO", "commandstats"});
        long total = 0;
        for (const char *command : {"hset", "del"}) {
            const std::string tag = std::string("cmdstat_") + command + ":calls=";
            if (size_t at = stats.find(tag); at != std::string::npos)
                total += std::atol(stats.c_str() + at + tag.size());
        }
        return total;
    };
    const long before = reconnects();
    admin.cmd({"CONFIG", "RESETSTAT"});
    admin.cmd({"CLIENT", "KILL", "TYPE", "normal"});
    admin.cmd({"CLIENT", "KILL", "TYPE", "pubsub"});
    testsupport::wait_for([&] { return reconnects() > before; });
    for (long last = -1; last != writes();) {
        last = writes();
        sleep(1);
    }
    printf("lost %d %ld\n", n, writes());
}

// One card of `n` entries on its own server and daemon.
bool run_card(int n, const Settings &s, bool last, Figures *out)
{
    testsupport::RedisServer server;
    testsupport::TempDir root;
    testsupport::write_file(root / "etc/cap_cfg/cap_dep/fe/fib_mgr", "");
    Redis host(server.socket()), glb(server.socket()), raw(server.socket()), sub(server.socket());
    if (!host.ok() || !glb.ok() || !raw.ok() || !sub.ok())
        return fail("cannot connect hiredis");
    if (!pin_both(host.c, s.cpus))
        return fail("cannot pin the server and this process to their CPUs");
    glb.cmd({"SELECT", "28"});
    raw.cmd({"SELECT", std::to_string(kRawDb)});
    out->entries = n;

    host.cmd({"SELECT", "3"});
    for (int i = 0; i < n; ++i)
        host.cmd({"HSET", "p_libpub.cap_table|/fe/l3/entry/" + std::to_string(i), "bool_value",
                  "true", "int32_value", std::to_string(i), "str_value", "x", "pri", "1", "state",
                  "true"});
    host.cmd({"HSET", "s_frame.cap_dep|fib_mgr", "ready", "true"});
    host.cmd({"SELECT", "1"});
    host.cmd({"HSET", "p_dev.dp_lib_my_info", "card_nodeid", "16", "card_type", "5"});
    host.cmd({"HSET", "p_dev.dp_lib_my_chss_info", "devid", "7"});
    host.cmd({"SELECT", "3"});
    sub.cmd({"SUBSCRIBE", "__keyspace@28__:s_frame.cap_fe_ready|16|5"});

    const std::string log = root / "vek_cap.log";
    testsupport::Env env{{"KX_ROOT", root.path()}, {"KX_MOM_ADDR", server.addr()}, {"KX_LOG", log}};
    if (s.acl && !add_card_user(host, root.path(), env))
        return false;
    Process daemon({s.daemon}, env, root.path(), "vek_cap");
    if (!testsupport::wait_for([&] {
            return testsupport::read_file(log).find("CHSS INFO subscribe ok") != std::string::npos;
        }))
        return fail("the daemon did not start");
    if (s.acl && host.text({"CLIENT", "LIST"}).find(" user=card16 ") == std::string::npos)
        return fail("the daemon is not connected as card16");
    out->idle_hwm_kb = proc_status(daemon.pid(), "VmHWM");
    // Every round is a whole publication: each local ready record has the table copied
    // again; and a whole republication, after a deletion notice.
    for (int round = 0; round < s.rounds; ++round) {
        out->raw_us = std::min(out->raw_us, raw_hset_us(raw, n));
        auto start = Clock::now();
        host.cmd({"SET", "p_libpub.cap_state", std::string("\x28\x01")});
        if (!next_ready(sub))
            return fail("no ready record");
        out->publish_us = std::min(out->publish_us, us_since(start));
        start = Clock::now();
        glb.cmd({"HSET", "s_frame.cap_del_fe_ready|16|5", "ready", "false"});
        if (!next_ready(sub))
            return fail("no ready record after the notice");
        out->republish_us = std::min(out->republish_us, us_since(start));
    }
    out->hwm_kb = proc_status(daemon.pid(), "VmHWM");
    out->anon_kb = proc_status(daemon.pid(), "RssAnon");
    out->file_kb = proc_status(daemon.pid(), "RssFile");
    if (last && s.idle)
        measure_idle(daemon.pid());
    if (last && s.lost)
        measure_lost(server.socket(), log, n);
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    Settings s;
    if (!take_cpus(argc, argv, &s.cpus))
        return fail("--cpus needs two CPU numbers, e.g. --cpus 0,1"), 2;
    std::vector<int> sizes;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--idle") == 0)
            s.idle = true;
        else if (strcmp(argv[i], "--lost") == 0)
            s.lost = true;
        else if (strcmp(argv[i], "--acl") == 0)
            s.acl = true;
        else if (strcmp(argv[i], "--rounds") == 0 && i + 1 < argc)
            s.rounds = std::max(1, std::atoi(argv[++i]));
        else if (strcmp(argv[i], "--daemon") == 0 && i + 1 < argc)
            s.daemon = argv[++i];
        else
            sizes.push_back(std::atoi(argv[i]));
    }
    if (sizes.empty())
        sizes = {1000, 10000};
    std::vector<Figures> all;
    for (size_t i = 0; i < sizes.size(); ++i) {
        Figures f{};
        if (sizes[i] <= 0 || !run_card(sizes[i], s, i + 1 == sizes.size(), &f))
            return 1;
        all.push_back(f);
    }
    printf("best of %d rounds, Unix socket, %s%s; raw = one hiredis HSET of 3 fields\n", s.rounds,
           s.cpus.name().c_str(), s.acl ? ", db 28 as the card's ACL user" : "");
    printf("%9s %8s %12s %8s %12s %8s %9s %9s %9s\n", "entries", "raw us", "publish ms", "/ N raw",
           "republish", "/ N raw", "idle kB", "VmHWM kB", "anon kB");
    for (const Figures &f : all) {
        double floor_us = f.raw_us * f.entries;
        printf("%9d %8.2f %12.2f %8.2f %12.2f %8.2f %9ld %9ld %9ld\n", f.entries, f.raw_us,
               f.publish_us / 1000, f.publish_us / floor_us, f.republish_us / 1000,
               f.republish_us / floor_us, f.idle_hwm_kb, f.hwm_kb, f.anon_kb);
    }
    for (const Figures &f : all)
        printf("publication %d %.2f %.0f %.0f %ld %ld %ld %ld\n", f.entries, f.raw_us, f.publish_us,
               f.republish_us, f.idle_hwm_kb, f.hwm_kb, f.anon_kb, f.file_kb);
    return 0;
}
