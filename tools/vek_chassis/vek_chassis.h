// vek_chassis's parts and how they meet (what it does: main.cpp): the options; the inputs
// drawn from a seed; the link to the Redis servers; the chassis's processes and its global
// store's modes; database 28 converging; and talk with the debug shells. The fault table:
// faults.h.
#ifndef VEK_CHASSIS_H
#define VEK_CHASSIS_H

#include <hiredis/hiredis.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host.h"
#include "kx_free.h"

namespace chassis {

// ---- time, and the signal that cuts every wait short -----------------------------------

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

inline volatile sig_atomic_t g_signal = 0; // SIGINT, SIGTERM or SIGHUP: the run ends

inline long long ms_since(Clock::time_point t)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count();
}

// Sleeps `d`, or less when a signal comes, which is what the callers want.
inline void nap(std::chrono::milliseconds d)
{
    timespec ts{static_cast<time_t>(d.count() / 1000),
                static_cast<long>(d.count() % 1000) * 1000000};
    nanosleep(&ts, nullptr);
}

// Polls `done` every `every` until it holds; false after `limit`, or at once on a signal.
inline bool wait_until(const std::function<bool()> &done, std::chrono::milliseconds limit,
                       std::chrono::milliseconds every = 10ms)
{
    return host::wait_for([&done] { return g_signal || done(); }, limit, every) && !g_signal;
}

// ---- options (options.cpp) ---------------------------------------------------------------

struct Options {
    int cards = 8;
    int entries = 4;
    int subcards = 1;
    int subcard_entries = 2;
    uint64_t seed = 0;
    bool seed_given = false;
    int timeout_s = 60;
    bool keep = false;
    bool sentinel = false; // the global store: a primary, a replica and three sentinels
    bool acl = false;      // each card's vek_cap as its own user of the global store
    int kill_card = 1;     // whose vek_cap kill-at-boot kills (--kill-daemon)
    std::string daemon = "vek_cap";
    std::string redis_conf;
    std::vector<std::string> faults; // entries of the fault table, as the options name them
};

extern const char *const usage_text;
// The options, or the reason they are wrong.
std::optional<std::string> parse_options(int argc, char **argv, Options &o);
std::optional<long long> number(const char *text, long long lo, long long hi);

// ---- the chassis's inputs (inputs.cpp) ---------------------------------------------------

constexpr int host_db = 3, tunner_db = 1, global_db = 28;
constexpr int chassis_devid = 7;
constexpr int node_type_lc = 3; // DM_TYPE_LC

// The seeded generator: mt19937_64 is the same everywhere, and so is `below`.
struct Rng {
    std::mt19937_64 gen;
    uint64_t below(uint64_t n) { return gen() % n; }
    template <class T> void shuffle(std::vector<T> &v)
    {
        for (size_t i = v.size(); i > 1; --i)
            std::swap(v[i - 1], v[below(i)]);
    }
};

using Fields = std::map<std::string, std::string>;
using Records = std::map<std::string, Fields>; // key -> hash fields

// One capability entry as a card's service writes it into db 3. Only bool_value,
// int32_value and str_value reach the chassis: pri and state stay on the card.
struct Entry {
    std::string url;
    Fields fields;
};

struct Subcard {
    int node;
    int type;
    std::vector<Entry> entries;
};

struct Card {
    int number; // 1.., its slot too
    int node;   // 16 * number
    int type;
    std::vector<std::string> modules;
    std::vector<Entry> entries;
    std::vector<Subcard> subcards;
};

// One step of a card's boot. `a` is the entry, dependency module or subcard, `b` a subcard's
// entry.
enum class Step { start, identity, devid, entry, ready, dep, subcard_entry, subcard_state, kill };

struct Input {
    int card; // index into the cards
    Step step;
    int a = 0;
    int b = 0;
};

std::string key_part(std::string_view s); // a string index field in a key: '%', '|' escaped
std::vector<Card> make_cards(const Options &o, Rng &rng);
// What database 28 must hold once every card has published.
Records expected_records(const std::vector<Card> &cards);
// Every card's inputs, interleaved in a random order.
std::vector<Input> boot_order(const std::vector<Card> &cards, Rng &rng);
// Input `in` of card `c` as the command that writes it into the card's Redis, with the
// database it goes to; none for a start or a kill.
std::pair<int, std::vector<std::string>> input_command(const Card &c, const Input &in);

// ---- the link to the Redis servers (redis_link.cpp) --------------------------------------

using Reply = std::unique_ptr<redisReply, FreeWith<freeReplyObject>>;

// A connection to one server by its Unix socket, made again after it broke; as `user`
// when one is given.
class Redis {
public:
    explicit Redis(std::string socket = {}, std::string user = {}, std::string password = {})
        : socket_(std::move(socket)), user_(std::move(user)), password_(std::move(password))
    {
    }
    // Sends every command, on `db`, then reads every reply; empty with `why` set when the
    // connection failed (a server's error reply is a reply).
    std::vector<Reply> pipeline(int db, const std::vector<std::vector<std::string>> &commands,
                                std::string *why);
    // One command; its error reply, too, is a failure.
    bool command(int db, const std::vector<std::string> &args, std::string *why);
    // The commands sent so far, named as INFO commandstats names them.
    const std::map<std::string, long long> &sent() const { return sent_; }

private:
    bool connect(std::string *why);

    std::string socket_;
    std::string user_, password_;
    std::unique_ptr<redisContext, FreeWith<redisFree>> ctx_;
    int db_ = 0;
    std::map<std::string, long long> sent_;
};

// Every record of `db`: each key with its hash fields; a key of another type has one
// field "" holding the server's complaint. Empty with `why` set when the server failed.
std::optional<Records> read_all(Redis &r, int db, std::string *why);

// What a server has done: its calls by command, as INFO commandstats names them, less
// those the connection sent itself, and its CPU seconds.
struct ServerWork {
    std::map<std::string, long long> calls;
    double cpu_s = 0;
};
std::optional<ServerWork> server_work(Redis &r, int db, std::string *why);
// "N commands (hset a, eval b, ...), T ms CPU": what a server did from `before` to `after`.
std::string work_text(const ServerWork &before, const ServerWork &after);

// ---- the chassis's processes (chassis.cpp) and its global store's modes (global_store.cpp)

// A child process and what its end means.
struct Child {
    std::string name; // "the global redis-server", "card 3's vek_cap"...
    host::Process process = {};
    int status = -1;                            // how it last ended, as waitpid gives it
    bool stopping = false;                      // its end was asked for
    pid_t pid() const { return process.pid(); } // -1 once it has ended
};

struct CardRun {
    const Card *card;
    std::string root; // its KX_ROOT
    Child redis, daemon;
    Redis local;
    int restarts = 0;
    bool killed = false; // by a fault, not yet started again
};

constexpr const char *sentinel_master = "vek_global"; // the primary's name (--sentinel)

std::string describe(int status);               // "exited with status 77", "was killed by Killed"
std::string last_line(const std::string &path); // of a file, "(nothing)" when it has none
std::string tools_dir(); // where this program is, and ssat and kxctl beside it

// The global store and, per card, a Redis and a vek_cap, all in one process group. A
// daemon that ends is started again, as its unit would be; anything else that ends unasked
// is a fault.
class Chassis {
public:
    Chassis(const Options &o, const std::vector<Card> &cards, std::string dir);
    ~Chassis() { stop_all(); }

    const std::string &dir() const { return dir_; }
    const std::string &global_socket() const { return global_sock_; }
    pid_t group() const { return group_; }
    // What went wrong, each with the number of times it did.
    const std::vector<std::pair<std::string, int>> &faults() const { return faults_; }
    void fault(const std::string &what);

    bool start_servers();
    bool play(const std::vector<Input> &inputs, std::string *why);
    bool write_input(const Input &in, std::string *why);
    void reap();
    std::optional<Records> read_global(std::string *why)
    {
        return read_all(monitor_, global_db, why);
    }
    size_t global_size(std::string *why); // of db 28; SIZE_MAX when the store did not answer
    int daemon_exits_77() const { return exits_77_; }
    bool broken() const { return broken_; }
    // Starts `argv` in the chassis's process group without the operator's KX_ settings,
    // with `env` added, output and errors appended to `out`.
    host::Process spawn(const std::vector<std::string> &argv, const std::string &out,
                        const host::Env &env = {}) const;
    void detach(); // leaves every child running
    bool stop_daemons();
    void stop_all();

    // For the faults: each card's daemon, files and store, and the global store.
    int cards() const { return static_cast<int>(runs_.size()); }
    pid_t daemon_pid(int card) const { return runs_[static_cast<size_t>(card)].daemon.pid(); }
    const std::string &root(int card) const { return runs_[static_cast<size_t>(card)].root; }
    Redis &card_store(int card) { return runs_[static_cast<size_t>(card)].local; }
    Redis &global_store() { return monitor_; }
    pid_t global_pid() const { return global_.pid(); }
    Redis as_user(const std::string &user) const; // on the global store
    // Restarts the global Redis, empty and with a new run id, as after a crash of the
    // supervisor's store.
    bool restart_global();
    bool kill_primary();
    bool failed_over();

private:
    bool start_redis(Child &c, const std::string &dir, const std::vector<std::string> &extra = {});
    bool answers(Child &server, Redis &conn, const std::string &log, Clock::time_point deadline);
    std::vector<Child *> servers(); // every Redis and sentinel
    std::vector<Child *> daemons();
    bool make_acl();
    std::string password(const std::string &user) const;
    Redis as_operator(const std::string &socket) const;
    bool start_failover(Clock::time_point deadline);
    bool sentinels_ready();
    void start_daemon(CardRun &r);
    bool stop(std::vector<Child *> children);
    void ended(Child &c);

    const Options &o_;
    std::string dir_;
    std::string global_sock_;
    Child global_;
    std::vector<std::string> global_args_; // it starts with them again after a restart
    Redis monitor_;
    std::vector<CardRun> runs_;
    pid_t group_ = 0;
    std::vector<std::pair<std::string, int>> faults_;
    int exits_77_ = 0;
    bool global_restarted_ = false;
    bool broken_ = false; // a Redis ended unasked, or a daemon for good
    // --sentinel: the global store's replica and sentinels, and the TCP ports of all.
    Child replica_;
    std::vector<Child> sentinels_;
    int primary_port_ = 0, replica_port_ = 0;
    std::vector<int> sentinel_ports_;
};

// ---- database 28 converging (converge.cpp) -----------------------------------------------

// The converging chassis: a table redrawn in place on a terminal, a line a second
// otherwise.
class View {
public:
    View(const std::vector<Card> &cards, const Records &expected, uint64_t seed)
        : cards_(cards), expected_(expected), seed_(seed), tty_(isatty(STDOUT_FILENO))
    {
    }
    void begin();
    void show(const Records &have, long long ms, bool last = false);
    // How often it wants db 28 read afresh while it is not converged.
    long long refresh_ms() const { return tty_ ? 100 : 1000; }

private:
    const std::vector<Card> &cards_;
    const Records &expected_;
    uint64_t seed_;
    bool tty_;
    long long next_line_ms_ = 0;
    size_t last_ok_ = SIZE_MAX;
};

enum class Outcome { converged, timed_out, interrupted, failed };

// Watches db 28 until it holds exactly `expected`, from `since` for `timeout_s` seconds;
// `have` is what it held last.
Outcome converge(Chassis &chassis, View &view, const Records &expected, Clock::time_point since,
                 int timeout_s, Records &have);
size_t matching(const Records &want, const Records &have); // records `have` has exactly
// The records missing from `have`, those it has in excess, and those that differ.
std::vector<std::string> difference(const Records &want, const Records &have);
void print_difference(const Records &expected, const Records &have); // the first 40

// ---- talk with a daemon's debug shell (shell_talk.cpp) -----------------------------------

struct ShellTalk {
    std::string request;
    size_t hang_up_after = SIZE_MAX; // close once this much of the reply came: one that vanishes
    std::string reply = {};
    bool ended = false; // the daemon closed the connection: its answer is complete
    long long ms = -1;  // when it did
};

// Connects, sends and reads every talk with the shell at `socket` at once, within
// `limit`. A request is sent as far as the daemon takes it: one it refuses early (a line
// too long) is answered before it is all sent.
void talk(const std::string &socket, std::vector<ShellTalk> &talks,
          std::chrono::milliseconds limit);

} // namespace chassis

#endif
