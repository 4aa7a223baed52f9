// vek_chassis: a whole chassis on one host. It starts the chassis-global Redis, then one
// Redis and one vek_cap per card, writes every card's inputs (identity, chassis devid,
// capability entries, local ready flag, dependency modules, subcards) in a random order
// drawn from a seed, shows database 28 converging, and checks that it then holds exactly
// the records those inputs give: nothing missing, nothing stray, no field more or less.
// Daemons that exit are started again as systemd would (Restart=on-failure); the faults
// of the fault table are played on the way. The global store may be a primary with a
// replica and three sentinels (--sentinel), and confine each card to its own records with
// a generated ACL (--acl). Everything lives in one temporary directory and one process
// group, both gone at the end. The last line says how it went, for tools to read:
//     converged 8 cards, 64 records in 412 ms
//     not converged: 8 cards, 60 of 64 records after 60000 ms
#include "faults.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace chassis {
namespace {

constexpr int exit_failed = 1;
constexpr int exit_usage = 2;

// SIGINT, SIGTERM and SIGHUP end the run, through g_signal; SIGPIPE is ignored.
void catch_signals()
{
    struct sigaction sa {};
    sa.sa_handler = [](int sig) { g_signal = sig; };
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        sigaction(sig, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

void print_keep(Chassis &chassis)
{
    const std::string &d = chassis.dir();
    std::string tools = tools_dir();
    printf("\nEverything is still running, in %s (process group %d). To explore:\n"
           "    export KX_MOM_ADDR=unix:%s\n"
           "    %s/kxctl chassis\n"
           "    %s/kxctl watch s_frame.cap_fe_ready\n"
           "    redis-cli -s %s -n 28 keys '*'\n"
           "    KX_ROOT=%s/card1 %s/ssat vek_cap dump_all\n"
           "    less %s/card1/var/log/vek_cap.log\n"
           "Daemons that end are no longer started again. To stop it all:\n"
           "    kill -- -%d; rm -rf %s\n",
           d.c_str(), chassis.group(), chassis.global_socket().c_str(), tools.c_str(),
           tools.c_str(), chassis.global_socket().c_str(), d.c_str(), tools.c_str(), d.c_str(),
           chassis.group(), d.c_str());
}

void print_faults(const Chassis &chassis)
{
    for (const auto &[what, times] : chassis.faults())
        printf("fault: %s%s\n", what.c_str(),
               times > 1 ? (" (" + std::to_string(times) + " times)").c_str() : "");
}

// Stops everything: true when the daemons stopped cleanly and left db 28 exactly as
// expected, nothing went wrong on the way and no process is left.
bool stop_and_check(Chassis &chassis, const Records &expected, bool exact)
{
    bool ok = chassis.stop_daemons() && exact;
    std::string why;
    if (auto after = ok ? chassis.read_global(&why) : std::nullopt; ok && after != expected) {
        printf("db 28 changed when the daemons stopped:\n");
        print_difference(expected, after.value_or(Records{}));
        ok = false;
    }
    chassis.stop_all();
    print_faults(chassis);
    if (chassis.group() > 0 && kill(-chassis.group(), 0) == 0) {
        printf("fault: processes of group %d are left; killing them\n", chassis.group());
        kill(-chassis.group(), SIGKILL);
        ok = false;
    }
    return ok && chassis.faults().empty();
}

// Runs the chassis; the exit status.
int run(const Options &o, const std::vector<const Fault *> &faults, std::vector<Card> &cards,
        std::vector<Input> &inputs, Rng &rng, host::TempDir &dir)
{
    Records expected = expected_records(cards);
    Chassis chassis(o, cards, dir.path());
    View view(cards, expected, o.seed);
    FaultRun fr{chassis, o, cards, inputs, expected, std::move(rng)};
    auto give_up = [&](const std::string &why) { // stops everything: the exit status
        chassis.stop_all();
        print_faults(chassis);
        if (!why.empty())
            fprintf(stderr, "vek_chassis: %s\n", why.c_str());
        return g_signal ? 128 + g_signal : exit_failed;
    };
    if (!chassis.start_servers())
        return give_up(g_signal ? "interrupted" : "");
    for (const Fault *f : faults)
        printf("fault %s: %s\n", f->name, f->what);
    for (const Fault *f : faults)
        if (f->before && !f->before(fr))
            return give_up("");
    printf("%zu cards started their Redis; %zu inputs follow in random order\n", cards.size(),
           inputs.size());

    Records have;
    std::string why;
    auto work_before = server_work(chassis.global_store(), global_db, &why);
    auto t0 = Clock::now();
    if (!chassis.play(inputs, &why))
        return give_up(g_signal ? "interrupted" : why);
    long long played_ms = ms_since(t0);
    bool fault_ok = true; // the faults played as meant, so far
    for (const Fault *f : faults)
        if (fault_ok && f->after_play)
            fault_ok = f->after_play(fr);
    Outcome out =
        fault_ok ? converge(chassis, view, expected, t0, o.timeout_s, have) : Outcome::failed;
    long long converged_ms = ms_since(t0);
    if (out == Outcome::converged) {
        printf("db 28 holds exactly the %zu expected records: %lld ms after the first input, "
               "%lld ms after the last (inputs written in %lld ms)\n",
               expected.size(), converged_ms, converged_ms - played_ms, played_ms);
        if (auto work_after = server_work(chassis.global_store(), global_db, &why); work_before)
            printf("the global Redis, from the first input until then: %s\n",
                   work_after ? work_text(*work_before, *work_after).c_str() : why.c_str());
    }
    for (const Fault *f : faults) {
        if (out != Outcome::converged || !fault_ok || !f->after_converge)
            continue;
        fr.began = Clock::now();
        fault_ok = f->after_converge(fr);
        out = fault_ok ? converge(chassis, view, expected, fr.began, o.timeout_s, have)
                       : Outcome::failed;
        if (out == Outcome::converged)
            printf("db 28 holds exactly the %zu expected records again, %lld ms after the fault "
                   "began\n",
                   expected.size(), ms_since(fr.began));
        if (out == Outcome::converged && f->settled)
            fault_ok = f->settled(fr);
    }
    if (out == Outcome::interrupted || g_signal)
        return give_up("interrupted");
    bool exact = out == Outcome::converged && fault_ok;
    if (out != Outcome::converged && fault_ok) {
        printf("db 28 does not hold what the inputs give:\n");
        print_difference(expected, have);
    }
    if (o.keep) {
        print_faults(chassis);
        print_keep(chassis);
        chassis.detach();
        dir.keep();
        exact = exact && chassis.faults().empty();
    } else {
        exact = stop_and_check(chassis, expected, exact);
    }
    if (exact) {
        printf("converged %zu cards, %zu records in %lld ms\n", cards.size(), expected.size(),
               converged_ms);
        return 0;
    }
    if (!o.keep)
        printf("--seed %llu --keep plays this again and leaves it running to look into\n",
               static_cast<unsigned long long>(o.seed));
    printf("not converged: %zu cards, %zu of %zu records after %lld ms\n", cards.size(),
           matching(expected, have), expected.size(), converged_ms);
    return exit_failed;
}

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0); // each line out at once, for whoever reads it as it comes
    Options o;
    for (int i = 1; i < argc; ++i)
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
            fputs(usage_text, stdout);
            return 0;
        }
    if (auto why = parse_options(argc, argv, o)) {
        fprintf(stderr, "vek_chassis: %s\n%s", why->c_str(), usage_text);
        return exit_usage;
    }
    if (std::ranges::find(o.faults, "help") != o.faults.end()) {
        list_faults(stdout);
        return 0;
    }
    std::vector<const Fault *> faults;
    if (auto why = pick_faults(o, faults)) {
        fprintf(stderr, "vek_chassis: %s; the faults are:\n", why->c_str());
        list_faults(stderr);
        return exit_usage;
    }
    if (!o.seed_given)
        o.seed = std::random_device{}() % 1000000;
    Rng rng{std::mt19937_64(o.seed)};
    std::vector<Card> cards = make_cards(o, rng);
    std::vector<Input> inputs = boot_order(cards, rng);
    catch_signals();
    try {
        host::TempDir dir("vek_chassis");
        printf("vek_chassis: %d cards of %d entries, %d subcards of %d entries each; seed %llu "
               "(--seed %llu plays this order again)\n",
               o.cards, o.entries, o.subcards, o.subcard_entries,
               static_cast<unsigned long long>(o.seed), static_cast<unsigned long long>(o.seed));
        return run(o, faults, cards, inputs, rng, dir);
    } catch (const std::runtime_error &e) {
        fprintf(stderr, "vek_chassis: %s\n", e.what());
        return exit_failed;
    }
}

} // namespace
} // namespace chassis

int main(int argc, char **argv) { return chassis::main(argc, argv); }
