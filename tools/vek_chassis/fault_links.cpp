// Faults of the daemons' connections: killed again and again, or held by a store that
// stops answering. The daemons must come back with what they had, and keep their loops
// free meanwhile.
#include "faults.h"

#include <filesystem>
#include <iterator>

namespace chassis {
namespace {

// Reconnects grow the daemon's heap to the shape they give it, most in the first kills:
// after ten, 50 more add 40 to 60 kB. They must add less than rss_growth_kb; 2 kB kept
// at each lost connection would add 200.
constexpr int warm_up_rounds = 10;
constexpr int kill_rounds = 50;
constexpr long rss_growth_kb = 128;

constexpr auto stall_time = 6s; // the store stalls longer than the 2 s command timeout
constexpr const char *timed_out_line = "no answer within 2 s";

long descriptors(pid_t pid)
{
    std::error_code ec;
    std::filesystem::directory_iterator dir("/proc/" + std::to_string(pid) + "/fd", ec);
    return ec ? -1 : std::distance(dir, std::filesystem::directory_iterator());
}

long rss_kb(pid_t pid)
{
    std::string status = host::read_file("/proc/" + std::to_string(pid) + "/status");
    size_t at = status.find("VmRSS:");
    return at == std::string::npos ? -1 : atol(status.c_str() + at + 6);
}

// The global store stops answering for stall_time while every card republishes: each
// daemon's call fails after the command timeout, and its debug shell answers all along.
bool stall(FaultRun &f, bool pause)
{
    const pid_t server = f.chassis.global_pid();
    struct Resume {
        pid_t pid;
        ~Resume()
        {
            if (pid > 0)
                kill(pid, SIGCONT);
        }
    } resume{pause ? -1 : server};
    auto t0 = Clock::now();
    if (pause ? !f.run(-1, 0, {{"CLIENT", "PAUSE", "6000", "ALL"}}) : kill(server, SIGSTOP) != 0)
        return f.fault("cannot stall the global store");
    for (int c = 0; c < f.chassis.cards(); ++c)
        if ((!f.cards[size_t(c)].entries.empty() && !f.change_entry(c, 0, -7)) ||
            !f.write(c, Step::ready))
            return false;
    f.expect_inputs();
    bool ok = true;
    long long slowest = 0;
    while (Clock::now() < t0 + stall_time - answer_limit / 2 && ok)
        ok = shells_answer(f, answer_limit, &slowest);
    wait_until([&] { return Clock::now() > t0 + stall_time; }, stall_time);
    printf("the global store %s for %lld ms; meanwhile every debug shell answered, the slowest "
           "in %lld ms\n",
           pause ? "paused" : "stopped", ms_since(t0), slowest);
    for (int c = 0; c < f.chassis.cards() && ok; ++c)
        ok = logged(f, c, timed_out_line);
    return ok;
}

// Kills every connection of every daemon, on the global store and on each card's, again
// and again, each time just after the cards' inputs changed.
bool kill_connections(FaultRun &f)
{
    const std::vector<std::vector<std::string>> kill_all = {{"CLIENT", "KILL", "TYPE", "normal"},
                                                            {"CLIENT", "KILL", "TYPE", "pubsub"}};
    for (int c = 0; c < f.chassis.cards(); ++c) // all connected now: every descriptor open
        f.usage.emplace_back(descriptors(f.chassis.daemon_pid(c)), 0);
    for (int round = 1; round <= warm_up_rounds + kill_rounds; ++round) {
        for (int c = 0; c < f.chassis.cards() && round == warm_up_rounds + 1; ++c)
            f.usage[size_t(c)].second = rss_kb(f.chassis.daemon_pid(c));
        for (int c = 0; c < f.chassis.cards(); ++c) {
            int entries = static_cast<int>(f.cards[size_t(c)].entries.size());
            if (entries > 0 && !f.change_entry(c, round % entries, round))
                return false;
            if (!f.write(c, Step::ready))
                return false;
        }
        nap(std::chrono::milliseconds(f.rng.below(6)));
        for (int c = -1; c < f.chassis.cards(); ++c)
            if (!f.run(c, c < 0 ? global_db : host_db, kill_all))
                return false;
        nap(std::chrono::milliseconds(20 + f.rng.below(100)));
    }
    printf("%d times every connection of every vek_cap killed\n", warm_up_rounds + kill_rounds);
    f.expect_inputs();
    return true;
}

// After client_kill, once converged and connected again: the descriptors it had, and no
// memory grown beyond reason. A daemon built with AddressSanitizer grows by its allocator's
// own bookkeeping and its quarantine of freed blocks (25 MB over 50 kills): its memory is
// LeakSanitizer's to check, when it exits at the end of the run.
bool same_usage(FaultRun &f)
{
    bool ok = true;
    for (int c = 0; c < f.chassis.cards(); ++c) {
        pid_t pid = f.chassis.daemon_pid(c);
        auto [fds, rss] = f.usage[size_t(c)];
        wait_until([&] { return descriptors(pid) == fds; }, 10s); // the last reconnects
        long fds_now = descriptors(pid), rss_now = rss_kb(pid);
        bool sanitized =
            host::read_file("/proc/" + std::to_string(pid) + "/maps").find("libasan") !=
            std::string::npos;
        printf("card %d's vek_cap: %ld descriptors, VmRSS %ld kB (%ld and %ld kB before)%s\n",
               c + 1, fds_now, rss_now, fds, rss,
               sanitized ? "; built with AddressSanitizer: VmRSS left to LeakSanitizer" : "");
        if (fds_now != fds || (!sanitized && rss_now > rss + rss_growth_kb) || rss_now < 0)
            ok = f.fault("card " + std::to_string(c + 1) + "'s vek_cap went from " +
                         std::to_string(fds) + " descriptors and " + std::to_string(rss) +
                         " kB to " + std::to_string(fds_now) + " and " + std::to_string(rss_now));
    }
    return ok;
}

} // namespace

const Fault client_kill = {
    .name = "client-kill",
    .what = "every connection of every vek_cap killed 50 times while inputs change",
    .after_converge = kill_connections,
    .settled = same_usage};
const Fault stop_global = {
    .name = "stop-global",
    .what = "the global Redis stopped (SIGSTOP) for 6 s while every card publishes",
    .after_converge = [](FaultRun &f) { return stall(f, false); }};
const Fault pause_global = {
    .name = "pause-global",
    .what = "the global Redis paused (CLIENT PAUSE) for 6 s while every card publishes",
    .after_converge = [](FaultRun &f) { return stall(f, true); }};

} // namespace chassis
