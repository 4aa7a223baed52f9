// Faults of processes that end: a daemon killed, the global store restarted or failed
// over. A store that comes back as a new run has every daemon exit 77 and start again.
#include "faults.h"

namespace chassis {
namespace {

// Changes every entry of card `card`, then writes its local ready record again, which has
// it publish them, and runs `act` while it does: once a quarter of them is written, before
// the last. The changes make the publication count: db 28 held the old values.
bool amid_publication(FaultRun &f, int card, const std::string &what,
                      const std::function<bool()> &act)
{
    const int entries = static_cast<int>(f.cards[size_t(card)].entries.size());
    if (entries < 100)
        return f.fault("a fault amid a publication needs 100 entries a card or more (--entries)");
    auto hsets = [&f] {
        std::string why;
        auto work = server_work(f.chassis.global_store(), global_db, &why);
        return work ? work->calls["hset"] : -1;
    };
    for (int attempt = 1; attempt <= 5; ++attempt) {
        for (int j = 0; j < entries; ++j)
            if (!f.change_entry(card, j, attempt * 1000 + j))
                return false;
        f.expect_inputs();
        long long before = hsets();
        if (before < 0 || !f.write(card, Step::ready))
            return f.fault("cannot start card " + std::to_string(card + 1) + "'s publication");
        long long done = 0;
        wait_until([&] { return (done = hsets() - before) >= entries / 4; }, 20s, 1ms);
        if (done >= entries / 4 && done < entries) {
            printf("%s with %lld of card %d's %d entries written\n", what.c_str(), done, card + 1,
                   entries);
            return act();
        }
        wait_until([&] { return hsets() - before > entries; }, 20s); // seen too late: again
    }
    return f.fault("card " + std::to_string(card + 1) + "'s publication was never seen under way");
}

bool all_exited_77(FaultRun &f)
{
    const int exits = f.chassis.daemon_exits_77(), cards = f.chassis.cards();
    if (exits != cards)
        return f.fault("the store's new run made " + std::to_string(exits) + " of " +
                       std::to_string(cards) + " daemons exit 77");
    printf("%d daemons exited 77 and were started again\n", exits);
    return true;
}

// Card K's vek_cap is killed right after one of its inputs that follow its start.
bool kill_while_booting(FaultRun &f)
{
    const int card = f.options.kill_card - 1;
    std::vector<size_t> after_start;
    bool started = false;
    for (size_t p = 0; p < f.inputs.size(); ++p)
        if (f.inputs[p].card == card && (started = started || f.inputs[p].step == Step::start))
            after_start.push_back(p);
    size_t p = after_start[f.rng.below(after_start.size())];
    f.inputs.insert(f.inputs.begin() + static_cast<long>(p) + 1, Input{card, Step::kill});
    return true;
}

bool restart(FaultRun &f)
{
    if (f.chassis.restart_global())
        return true;
    return f.fault("the global redis-server did not come back");
}

bool restart_once_converged(FaultRun &f)
{
    printf("restarting the global Redis: every vek_cap is to exit 77 and start again\n");
    return restart(f);
}

bool fail_over(FaultRun &f)
{
    printf("emptying the replica's db 28, then kill -9 the global primary: the sentinels are to "
           "promote the replica, every vek_cap to exit 77 and start again\n");
    if (!f.chassis.kill_primary())
        return false;
    f.began = Clock::now(); // the time to the new primary counts from the kill
    return true;
}

bool failed_over(FaultRun &f)
{
    if (!f.chassis.failed_over())
        return false;
    printf("db 28 complete on the new primary %lld ms after the kill\n", ms_since(f.began));
    return all_exited_77(f);
}

bool restart_amid_publication(FaultRun &f)
{
    return amid_publication(f, 0, "the global Redis restarts", [&f] { return restart(f); });
}

bool kill_amid_publication(FaultRun &f)
{
    return amid_publication(f, 0, "kill -9 of card 1's vek_cap",
                            [&f] { return f.write(0, Step::kill); });
}

} // namespace

const Fault kill_at_boot = {
    .name = "kill-at-boot",
    .what = "kill -9 of a card's vek_cap while its inputs arrive (--kill-daemon CARD)",
    .needs = Store::any,
    .before = kill_while_booting};
const Fault restart_global = {.name = "restart-global",
                              .what =
                                  "once converged, the global Redis restarts (--restart-global)",
                              .needs = Store::one_server,
                              .after_converge = restart_once_converged,
                              .settled = all_exited_77};
const Fault kill_primary = {.name = "kill-primary",
                            .what =
                                "once converged, kill -9 of the global primary (--kill-primary)",
                            .needs = Store::sentinel,
                            .after_converge = fail_over,
                            .settled = failed_over};
const Fault global_restart = {
    .name = "global-restart",
    .what = "the global Redis restarts while card 1 publishes (--entries 100+)",
    .after_converge = restart_amid_publication,
    .settled = all_exited_77};
const Fault kill_daemon = {.name = "kill-daemon",
                           .what =
                               "kill -9 of card 1's vek_cap while it publishes (--entries 100+)",
                           .after_converge = kill_amid_publication};

} // namespace chassis
