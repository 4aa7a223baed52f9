// The fault table (faults.cpp): what the simulator does to a chassis besides booting it
// as it should. The options pick its entries (--fault NAME; --restart-global,
// --kill-daemon, --kill-primary and --acl each one of their own) and one run plays them
// all, in the table's order. Every wait has its deadline, and a fault that cannot be
// played as meant is itself a fault. The run ends as any other: db 28 must hold exactly
// what the inputs give.
#ifndef VEK_CHASSIS_FAULTS_H
#define VEK_CHASSIS_FAULTS_H

#include "vek_chassis.h"

namespace chassis {

// What the faults of one run work on.
struct FaultRun {
    Chassis &chassis;
    const Options &options;
    std::vector<Card> &cards;   // a fault that changes inputs changes them here
    std::vector<Input> &inputs; // and one before the first input may add to these
    Records &expected;
    Rng rng;
    Records extra = {};                            // records of db 28 that no card gives
    Clock::time_point began = {};                  // when the step under way began
    std::vector<std::pair<long, long>> usage = {}; // per daemon: descriptors and VmRSS kB

    bool fault(const std::string &what); // false, for a fault's return
    void expect_inputs();                // expected: what the cards give now, and `extra`
    bool write(int card, Step step, int a = 0, int b = 0);
    // Runs `commands` on db `db` of card `card`'s store, or of the global one (card -1).
    bool run(int card, int db, const std::vector<std::vector<std::string>> &commands);
    // Gives entry `j` of card `card` the value `value` and writes it to the card's store.
    bool change_entry(int card, int j, int value);
    std::string log(int card) const { return chassis.root(card) + "/var/log/vek_cap.log"; }
};

// The global store an entry needs: any; one server, not --sentinel; one server with its
// default user, neither --sentinel nor --acl; --sentinel; --acl.
enum class Store { any, one_server, plain, sentinel, acl };

struct Fault {
    const char *name;
    const char *what;
    Store needs = Store::plain;
    bool (*before)(FaultRun &) = nullptr;         // before the first input
    bool (*after_play)(FaultRun &) = nullptr;     // once every input is written
    bool (*after_converge)(FaultRun &) = nullptr; // once db 28 is exact; it must converge again
    bool (*settled)(FaultRun &) = nullptr;        // once it has
};

// The entries `o` picks, in the table's order, or why they cannot be played.
std::optional<std::string> pick_faults(const Options &o, std::vector<const Fault *> &picked);
void list_faults(FILE *to);

bool logged(FaultRun &f, int card, const std::string &text, std::chrono::milliseconds limit = 20s);
constexpr auto answer_limit = 4s; // twice the command timeout: a held loop takes longer
// Every daemon answers its debug shell within `limit`: its loop is not held. `slowest`
// is raised to the slowest answer's milliseconds.
bool shells_answer(FaultRun &f, std::chrono::milliseconds limit, long long *slowest = nullptr);

// The entries, each defined beside its steps: processes that end (fault_ends.cpp), the
// store's connections lost or stalled (fault_links.cpp), writes refused
// (fault_refusals.cpp), malformed records (fault_malformed.cpp), the debug shell abused
// (fault_shell.cpp).
extern const Fault kill_at_boot, restart_global, kill_primary, global_restart, kill_daemon;
extern const Fault client_kill, stop_global, pause_global;
extern const Fault confine, maxmemory, read_only_user;
extern const Fault malformed, shell_abuse;

} // namespace chassis

#endif
