// The command line.
#include "vek_chassis.h"

#include <cerrno>
#include <cstdlib>

namespace chassis {
namespace {

constexpr int max_cards = 64;
constexpr int max_subcards = 15; // a card's subcards are nodes 16 * card + 1 .. + 15

} // namespace

const char *const usage_text =
    "usage: vek_chassis [-n CARDS] [--entries E] [--subcards S] [--subcard-entries E]\n"
    "                   [--seed SEED] [--timeout SECONDS] [--keep] [--restart-global]\n"
    "                   [--kill-daemon CARD] [--daemon PATH] [--redis-conf FILE] [--fault NAME]\n"
    "                   [--sentinel [--kill-primary]] [--acl]\n"
    "Runs a chassis of CARDS cards (1-64, default 8) on this host: a global Redis, and per\n"
    "card a Redis and a vek_cap. Each card has E capability entries (default 4), S subcards\n"
    "(0-15, default 1) of E entries each (default 2) and 0 to 3 dependency modules; its\n"
    "inputs are written in a random order drawn from SEED (printed; the same SEED plays the\n"
    "same order). Database 28 must then hold exactly what the inputs give, within SECONDS\n"
    "(default 60); on failure the difference is printed.\n"
    "  --keep            leave everything running at the end and say how to explore it\n"
    "  --restart-global  once converged, restart the global Redis: every vek_cap exits 77,\n"
    "                    is started again, and the chassis must converge again\n"
    "  --kill-daemon K   kill -9 the vek_cap of card K while its inputs arrive; it is\n"
    "                    started again\n"
    "  --daemon PATH     the vek_cap to run (default: vek_cap from PATH)\n"
    "  --redis-conf FILE settings every Redis starts from (databases, notifications...)\n"
    "  --fault NAME      play a fault (--fault help lists them; --restart-global,\n"
    "                    --kill-daemon, --kill-primary and --acl each pick one too)\n"
    "  --sentinel        the global store is a primary with a replica and three sentinels,\n"
    "                    which the daemons ask for the primary\n"
    "  --kill-primary    once converged, kill -9 the primary after emptying the replica's\n"
    "                    db 28: every vek_cap exits 77 on the promoted replica, is started\n"
    "                    again, and db 28 on the new primary must converge again\n"
    "  --acl             the global store's users come from vek_cap-acl (found in PATH):\n"
    "                    each vek_cap is its card's user; card 1's user must be refused\n"
    "                    every change to card 2's records, the operator's not\n"
    "Exit status: 0 converged exactly, 1 not (or a daemon failed), 2 bad usage, 130 Ctrl-C.\n";

std::optional<long long> number(const char *text, long long lo, long long hi)
{
    char *end = nullptr;
    errno = 0;
    long long v = strtoll(text, &end, 10);
    if (errno || end == text || *end || v < lo || v > hi)
        return std::nullopt;
    return v;
}

std::optional<std::string> parse_options(int argc, char **argv, Options &o)
{
    struct Int {
        const char *name;
        int *value;
        int lo, hi;
    };
    const Int ints[] = {{"-n", &o.cards, 1, max_cards},
                        {"--entries", &o.entries, 0, 10000},
                        {"--subcards", &o.subcards, 0, max_subcards},
                        {"--subcard-entries", &o.subcard_entries, 0, 10000},
                        {"--timeout", &o.timeout_s, 1, 86400},
                        {"--kill-daemon", &o.kill_card, 1, max_cards}};
    // The options that pick an entry of the fault table.
    const std::pair<std::string_view, const char *> picks[] = {
        {"--restart-global", "restart-global"},
        {"--kill-daemon", "kill-at-boot"},
        {"--kill-primary", "kill-primary"},
        {"--acl", "confine"}};
    for (int i = 1; i < argc; ++i) {
        std::string_view a = argv[i];
        for (const auto &[option, fault] : picks)
            if (a == option)
                o.faults.emplace_back(fault);
        if (a == "--keep" || a == "--sentinel" || a == "--acl") {
            (a == "--keep" ? o.keep : a == "--sentinel" ? o.sentinel : o.acl) = true;
            continue;
        }
        if (a == "--restart-global" || a == "--kill-primary")
            continue;
        const Int *option = nullptr;
        for (const Int &x : ints)
            option = a == x.name ? &x : option;
        if (!option && a != "--daemon" && a != "--redis-conf" && a != "--seed" && a != "--fault")
            return "unknown argument " + std::string(a);
        if (i + 1 == argc)
            return std::string(a) + " needs a value";
        const char *value = argv[++i];
        if (option) {
            auto v = number(value, option->lo, option->hi);
            if (!v)
                return std::string(a) + " needs a number from " + std::to_string(option->lo) +
                       " to " + std::to_string(option->hi) + ", not '" + value + "'";
            *option->value = static_cast<int>(*v);
        } else if (a == "--seed") {
            char *end = nullptr;
            errno = 0;
            o.seed = strtoull(value, &end, 10);
            if (errno || end == value || *end || *value == '-')
                return "--seed needs a whole number, not '" + std::string(value) + "'";
            o.seed_given = true;
        } else if (a == "--fault") {
            o.faults.emplace_back(value);
        } else {
            (a == "--daemon" ? o.daemon : o.redis_conf) = value;
        }
    }
    if (o.kill_card > o.cards)
        return "--kill-daemon names card " + std::to_string(o.kill_card) + " of " +
               std::to_string(o.cards);
    if (o.acl && o.cards < 2)
        return "--acl needs two cards at least";
    return std::nullopt;
}

} // namespace chassis
