// vek_chassis: a whole chassis on one host. It starts the chassis-global Redis, then one
// Redis and one vek_cap per card, writes every card's inputs (identity, chassis devid,
// capability entries, local ready flag, dependency modules, subcards) in a random order
// drawn from a seed, shows database 28 converging, and checks that it then holds exactly
// the records those inputs give: nothing missing, nothing stray, no field more or less.
// Daemons that exit are started again as systemd would (Restart=on-failure); faults can
// be injected. The global store may be a primary with a replica and three sentinels
// (--sentinel), and confine each card to its own records with a generated ACL (--acl).
// Everything lives in one temporary directory and one process group, both gone at the
// end. The last line says how it went, for tools to read:
//     converged 8 cards, 64 records in 412 ms
//     not converged: 8 cards, 60 of 64 records after 60000 ms
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int exit_failed = 1;
constexpr int exit_usage = 2;
constexpr int max_cards = 64;
constexpr int max_subcards = 15; // a card's subcards are nodes 16 * card + 1 .. + 15
constexpr int restart_limit = 5; // systemd's default StartLimitBurst
constexpr int host_db = 3, tunner_db = 1, global_db = 28;
constexpr int chassis_devid = 7;
constexpr int node_type_lc = 3; // DM_TYPE_LC
constexpr timeval connect_timeout{2, 0};
constexpr timeval command_timeout{5, 0};

constexpr const char *usage_text =
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
    "  --fault NAME      play a fault once the inputs are written (--fault help lists them)\n"
    "  --sentinel        the global store is a primary with a replica and three sentinels,\n"
    "                    which the daemons ask for the primary\n"
    "  --kill-primary    once converged, kill -9 the primary after emptying the replica's\n"
    "                    db 28: every vek_cap exits 77 on the promoted replica, is started\n"
    "                    again, and db 28 on the new primary must converge again\n"
    "  --acl             the global store's users come from vek_cap-acl (found in PATH):\n"
    "                    each vek_cap is its card's user; card 1's user must be refused\n"
    "                    every change to card 2's records, the operator's not\n"
    "Exit status: 0 converged exactly, 1 not (or a daemon failed), 2 bad usage, 130 Ctrl-C.\n";

volatile sig_atomic_t g_signal = 0;

void on_signal(int sig) { g_signal = sig; }

long long ms_since(Clock::time_point t)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count();
}

void nap(std::chrono::milliseconds d)
{
    timespec ts{static_cast<time_t>(d.count() / 1000),
                static_cast<long>(d.count() % 1000) * 1000000};
    nanosleep(&ts, nullptr); // a signal cuts it short, which is what the callers want
}

// ---------------------------------------------------------------- options

struct Options {
    int cards = 8;
    int entries = 4;
    int subcards = 1;
    int subcard_entries = 2;
    uint64_t seed = 0;
    int timeout_s = 60;
    bool keep = false;
    bool restart_global = false;
    bool sentinel = false;
    bool kill_primary = false;
    bool acl = false;
    int kill_daemon = 0; // the card's number, 0 for none
    std::string daemon = "vek_cap";
    std::string redis_conf;
    std::string fault; // a name from the fault table, or empty
};

std::optional<long long> number(const char *text, long long lo, long long hi)
{
    char *end = nullptr;
    errno = 0;
    long long v = strtoll(text, &end, 10);
    if (errno || end == text || *end || v < lo || v > hi)
        return std::nullopt;
    return v;
}

// The options, or the reason they are wrong.
std::optional<std::string> parse_options(int argc, char **argv, Options &o, bool &seed_given)
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
                        {"--kill-daemon", &o.kill_daemon, 1, max_cards}};
    for (int i = 1; i < argc; ++i) {
        std::string_view a = argv[i];
        if (a == "--keep" || a == "--restart-global") {
            (a == "--keep" ? o.keep : o.restart_global) = true;
            continue;
        }
        if (a == "--sentinel" || a == "--kill-primary" || a == "--acl") {
            (a == "--sentinel" ? o.sentinel : a == "--acl" ? o.acl : o.kill_primary) = true;
            continue;
        }
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
            seed_given = true;
        } else {
            (a == "--daemon" ? o.daemon : a == "--fault" ? o.fault : o.redis_conf) = value;
        }
    }
    if (o.kill_daemon > o.cards)
        return "--kill-daemon names card " + std::to_string(o.kill_daemon) + " of " +
               std::to_string(o.cards);
    if (o.kill_primary && !o.sentinel)
        return "--kill-primary needs --sentinel";
    if (o.sentinel && o.restart_global)
        return "--restart-global and --sentinel do not go together: use --kill-primary";
    if (o.acl && o.cards < 2)
        return "--acl needs two cards at least";
    if (!o.fault.empty() && o.fault != "help" && (o.sentinel || o.acl))
        return "--fault plays on one global Redis with its default user: not with --sentinel "
               "or --acl";
    return std::nullopt;
}

// ---------------------------------------------------------------- the chassis's inputs

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

// A string index field in a key: '%' and '|' are escaped.
std::string key_part(std::string_view s)
{
    std::string out;
    for (char c : s)
        out += c == '%' ? "%25" : c == '|' ? "%7C" : std::string(1, c);
    return out;
}

Entry make_entry(Rng &rng, int j, bool card)
{
    static constexpr const char *areas[] = {"l2", "l3/ecmp", "acl", "qos", "port|speed", "load%"};
    static constexpr const char *texts[] = {"", "on", "ingress,egress", "a b", "x|y"};
    Entry e;
    e.url = std::string("/fe/") + areas[rng.below(std::size(areas))] + "/" + std::to_string(j);
    uint64_t present = 1 + rng.below(7); // at least one field that the chassis sees
    if (present & 1)
        e.fields["bool_value"] = rng.below(2) ? "true" : "false";
    if (present & 2)
        e.fields["int32_value"] = std::to_string(static_cast<int>(rng.below(200001)) - 100000);
    if (present & 4)
        e.fields["str_value"] = texts[rng.below(std::size(texts))];
    e.fields["pri"] = std::to_string(rng.below(8));
    if (card && rng.below(2))
        e.fields["state"] = "true";
    return e;
}

std::vector<Card> make_cards(const Options &o, Rng &rng)
{
    static constexpr int card_types[] = {5, 6, 9};
    static constexpr int subcard_types[] = {7, 8};
    std::vector<Card> cards;
    for (int k = 1; k <= o.cards; ++k) {
        Card c{k, 16 * k, card_types[rng.below(std::size(card_types))], {}, {}, {}};
        std::vector<std::string> modules = {"fib_mgr", "acl_mgr", "qos_mgr", "mpls_mgr", "stp_mgr"};
        rng.shuffle(modules);
        c.modules.assign(modules.begin(), modules.begin() + static_cast<long>(rng.below(4)));
        for (int j = 0; j < o.entries; ++j)
            c.entries.push_back(make_entry(rng, j, true));
        for (int s = 1; s <= o.subcards; ++s) {
            Subcard sc{c.node + s, subcard_types[rng.below(std::size(subcard_types))], {}};
            for (int j = 0; j < o.subcard_entries; ++j)
                sc.entries.push_back(make_entry(rng, j, false));
            c.subcards.push_back(std::move(sc));
        }
        cards.push_back(std::move(c));
    }
    return cards;
}

// What database 28 must hold once every card has published.
Records expected_records(const std::vector<Card> &cards)
{
    auto global_fields = [](const Entry &e) {
        Fields f = e.fields;
        f.erase("pri");
        f.erase("state");
        return f;
    };
    Records r;
    for (const Card &c : cards) {
        std::string node = std::to_string(c.node);
        r["s_frame.cap_fe_ready|" + node + "|" + std::to_string(c.type)] = {
            {"ready", "true"},
            {"config_dev_type", std::to_string(c.type)},
            {"devid", std::to_string(chassis_devid)},
            {"slotid", std::to_string(c.number)},
            {"sslotid", "0"},
            {"node_type", std::to_string(node_type_lc)},
            {"real_time", "true"}};
        for (const Entry &e : c.entries)
            r["s_frame.cap_glb_table|" + node + "|" + key_part(e.url)] = global_fields(e);
        for (const Subcard &s : c.subcards) {
            r["s_frame.cap_subcard_ready|" + std::to_string(s.node)] = {{"ready", "true"}};
            for (const Entry &e : s.entries)
                r["s_frame.cap_subcard_glb_table|" + std::to_string(s.node) + "|" +
                  key_part(e.url)] = global_fields(e);
        }
    }
    return r;
}

// One step of a card's boot. `a` is the entry, module or subcard, `b` a subcard's entry.
enum class Step {
    start,
    identity,
    devid,
    entry,
    ready,
    module,
    subcard_entry,
    subcard_state,
    kill
};

struct Input {
    int card; // index into the cards
    Step step;
    int a = 0;
    int b = 0;
};

// Every card's inputs, interleaved in a random order. A capability service declares its
// table complete after writing it, and a subcard appears after its entries: within those
// groups the gate comes last, everything else is free.
std::vector<Input> boot_order(const std::vector<Card> &cards, const Options &o, Rng &rng)
{
    std::vector<Input> in;
    for (int i = 0; i < static_cast<int>(cards.size()); ++i) {
        const Card &c = cards[static_cast<size_t>(i)];
        for (Step s : {Step::start, Step::identity, Step::devid, Step::ready})
            in.push_back({i, s});
        for (int j = 0; j < static_cast<int>(c.entries.size()); ++j)
            in.push_back({i, Step::entry, j});
        for (int m = 0; m < static_cast<int>(c.modules.size()); ++m)
            in.push_back({i, Step::module, m});
        for (int s = 0; s < static_cast<int>(c.subcards.size()); ++s) {
            in.push_back({i, Step::subcard_state, s});
            for (int j = 0; j < static_cast<int>(c.subcards[static_cast<size_t>(s)].entries.size());
                 ++j)
                in.push_back({i, Step::subcard_entry, s, j});
        }
    }
    rng.shuffle(in);
    // The gate of a group takes the group's last place.
    auto gate_last = [&](auto in_group, auto is_gate) {
        size_t gate = in.size(), last = 0;
        for (size_t p = 0; p < in.size(); ++p)
            if (in_group(in[p])) {
                last = p;
                gate = is_gate(in[p]) ? p : gate;
            }
        if (gate < in.size())
            std::swap(in[gate], in[last]);
    };
    for (int i = 0; i < static_cast<int>(cards.size()); ++i) {
        gate_last(
            [i](const Input &x) {
                return x.card == i && (x.step == Step::entry || x.step == Step::ready);
            },
            [](const Input &x) { return x.step == Step::ready; });
        for (int s = 0; s < o.subcards; ++s)
            gate_last(
                [i, s](const Input &x) {
                    return x.card == i && x.a == s &&
                           (x.step == Step::subcard_entry || x.step == Step::subcard_state);
                },
                [](const Input &x) { return x.step == Step::subcard_state; });
    }
    if (o.kill_daemon) { // right after one of the card's inputs that follow its start
        int card = o.kill_daemon - 1;
        std::vector<size_t> after_start;
        bool started = false;
        for (size_t p = 0; p < in.size(); ++p)
            if (in[p].card == card && (started = started || in[p].step == Step::start))
                after_start.push_back(p);
        size_t p = after_start[rng.below(after_start.size())];
        in.insert(in.begin() + static_cast<long>(p) + 1, Input{card, Step::kill});
    }
    return in;
}

// ---------------------------------------------------------------- Redis connections

struct ReplyFree {
    void operator()(redisReply *r) const { freeReplyObject(r); }
};
using Reply = std::unique_ptr<redisReply, ReplyFree>;

struct ContextFree {
    void operator()(redisContext *c) const { redisFree(c); }
};

// A connection to one server by its Unix socket, made again after it broke; as `user`
// when one is given.
class Redis {
public:
    explicit Redis(std::string socket = {}, std::string user = {}, std::string password = {})
        : socket_(std::move(socket)), user_(std::move(user)), password_(std::move(password))
    {
    }

    bool connect(std::string *why)
    {
        ctx_.reset(redisConnectUnixWithTimeout(socket_.c_str(), connect_timeout));
        db_ = 0;
        if (ctx_ && !ctx_->err && redisSetTimeout(ctx_.get(), command_timeout) == REDIS_OK) {
            Reply auth(user_.empty()
                           ? nullptr
                           : static_cast<redisReply *>(redisCommand(
                                 ctx_.get(), "AUTH %s %s", user_.c_str(), password_.c_str())));
            if (user_.empty() || (auth && auth->type != REDIS_REPLY_ERROR))
                return true;
            *why = auth ? "AUTH as " + user_ + ": " + auth->str : ctx_->errstr;
        } else {
            *why = ctx_ ? ctx_->errstr : "out of memory";
        }
        ctx_.reset();
        return false;
    }

    // Sends every command, on `db`, then reads every reply; empty with `why` set when the
    // connection failed (a server's error reply is a reply).
    std::vector<Reply> pipeline(int db, const std::vector<std::vector<std::string>> &commands,
                                std::string *why)
    {
        if ((!ctx_ || ctx_->err) && !connect(why))
            return {};
        std::vector<std::vector<std::string>> all;
        if (db != db_)
            all.push_back({"SELECT", std::to_string(db)});
        all.insert(all.end(), commands.begin(), commands.end());
        for (const auto &args : all) {
            ++sent_[stat_name(args)];
            std::vector<const char *> argv;
            std::vector<size_t> lens;
            for (const std::string &a : args)
                argv.push_back(a.data()), lens.push_back(a.size());
            redisAppendCommandArgv(ctx_.get(), static_cast<int>(argv.size()), argv.data(),
                                   lens.data());
        }
        std::vector<Reply> replies;
        for (size_t i = 0; i < all.size(); ++i) {
            void *r = nullptr;
            if (redisGetReply(ctx_.get(), &r) != REDIS_OK) {
                *why = ctx_->errstr;
                ctx_.reset();
                return {};
            }
            replies.emplace_back(static_cast<redisReply *>(r));
        }
        if (db != db_) {
            db_ = db;
            replies.erase(replies.begin());
        }
        return replies;
    }

    // One command; its error reply, too, is a failure.
    bool command(int db, const std::vector<std::string> &args, std::string *why)
    {
        auto replies = pipeline(db, {args}, why);
        if (!replies.empty() && replies[0]->type == REDIS_REPLY_ERROR)
            *why = replies[0]->str;
        return !replies.empty() && replies[0]->type != REDIS_REPLY_ERROR;
    }

    // The commands sent so far, named as INFO commandstats names them.
    const std::map<std::string, long long> &sent() const { return sent_; }

private:
    static std::string stat_name(const std::vector<std::string> &args)
    {
        std::string name = args[0];
        if (args.size() > 1 && (name == "CLIENT" || name == "CONFIG" || name == "ACL"))
            name += "|" + args[1];
        std::ranges::transform(name, name.begin(), [](unsigned char c) { return tolower(c); });
        return name;
    }

    std::string socket_;
    std::string user_, password_;
    std::unique_ptr<redisContext, ContextFree> ctx_;
    int db_ = 0;
    std::map<std::string, long long> sent_;
};

// Every record of `db`: each key with its hash fields; a key of another type has one
// field "" holding the server's complaint. Empty with `why` set when the server failed.
std::optional<Records> read_all(Redis &r, int db, std::string *why)
{
    std::vector<std::string> keys;
    std::string cursor = "0";
    do {
        auto replies = r.pipeline(db, {{"SCAN", cursor, "COUNT", "1000"}}, why);
        if (replies.empty() || replies[0]->type != REDIS_REPLY_ARRAY || replies[0]->elements != 2)
            return std::nullopt;
        const redisReply *page = replies[0].get();
        cursor.assign(page->element[0]->str, page->element[0]->len);
        for (size_t i = 0; i < page->element[1]->elements; ++i)
            keys.emplace_back(page->element[1]->element[i]->str, page->element[1]->element[i]->len);
    } while (cursor != "0");
    std::ranges::sort(keys);
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
    std::vector<std::vector<std::string>> reads;
    for (const std::string &k : keys)
        reads.push_back({"HGETALL", k});
    auto replies = r.pipeline(db, reads, why);
    if (replies.size() != keys.size())
        return keys.empty() ? std::optional<Records>(Records{}) : std::nullopt;
    Records out;
    for (size_t i = 0; i < keys.size(); ++i) {
        const redisReply *h = replies[i].get();
        if (h->type == REDIS_REPLY_ARRAY && h->elements == 0)
            continue; // deleted since the scan
        Fields &f = out[keys[i]];
        if (h->type != REDIS_REPLY_ARRAY)
            f[""] = h->str ? std::string(h->str, h->len) : "?";
        for (size_t j = 0; h->type == REDIS_REPLY_ARRAY && j + 1 < h->elements; j += 2)
            f[std::string(h->element[j]->str, h->element[j]->len)] =
                std::string(h->element[j + 1]->str, h->element[j + 1]->len);
    }
    return out;
}

// What a server has done: its calls by command, as INFO commandstats names them, less
// those `r` sent itself, and its CPU seconds. Empty with `why` set when it failed.
struct ServerWork {
    std::map<std::string, long long> calls;
    double cpu_s = 0;
};

std::optional<ServerWork> server_work(Redis &r, int db, std::string *why)
{
    auto replies = r.pipeline(db, {{"INFO", "commandstats"}, {"INFO", "cpu"}}, why);
    if (replies.size() != 2)
        return std::nullopt;
    ServerWork w;
    for (const Reply &reply : replies) {
        if (reply->type != REDIS_REPLY_STRING)
            return *why = "INFO gave no text", std::nullopt;
        std::istringstream in(std::string(reply->str, reply->len));
        for (std::string line; std::getline(in, line);) {
            size_t colon = line.find(':'), calls = line.find("calls=");
            if (line.starts_with("cmdstat_") && calls != std::string::npos)
                w.calls[line.substr(8, colon - 8)] = atoll(line.c_str() + calls + 6);
            else if (line.starts_with("used_cpu_sys:") || line.starts_with("used_cpu_user:"))
                w.cpu_s += atof(line.c_str() + colon + 1);
        }
    }
    for (const auto &[name, n] : r.sent())
        w.calls[name] -= n;
    return w;
}

// "N commands (hset a, eval b, ...), T ms CPU": what a server did from `before` to `after`.
std::string work_text(const ServerWork &before, const ServerWork &after)
{
    std::vector<std::pair<long long, std::string>> by_count;
    long long total = 0;
    for (const auto &[name, n] : after.calls) {
        auto it = before.calls.find(name);
        long long done = n - (it == before.calls.end() ? 0 : it->second);
        if (done > 0)
            by_count.emplace_back(done, name), total += done;
    }
    std::ranges::sort(by_count, std::greater<>());
    std::string text = std::to_string(total) + " commands (";
    for (size_t i = 0; i < by_count.size(); ++i)
        text += (i ? ", " : "") + by_count[i].second + " " + std::to_string(by_count[i].first);
    char cpu[64];
    snprintf(cpu, sizeof cpu, "), %.0f ms CPU", (after.cpu_s - before.cpu_s) * 1000);
    return text + cpu;
}

// ---------------------------------------------------------------- processes

// A child process and what its end means.
struct Child {
    std::string name; // "global redis-server", "card 3 vek_cap"...
    pid_t pid = -1;
    int status = -1;       // the last wait status
    bool stopping = false; // its end was asked for
};

std::string describe(int status)
{
    if (WIFEXITED(status))
        return "exited with status " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status))
        return std::string("was killed by ") + strsignal(WTERMSIG(status));
    return "ended";
}

std::string last_line(const std::string &path)
{
    std::ifstream in(path);
    std::string line, last = "(nothing)";
    while (std::getline(in, line))
        last = line.empty() ? last : line;
    return last;
}

// The environment of every child: this one's without KX_*, plus `extra`.
std::vector<std::string> child_env(const std::vector<std::string> &extra)
{
    std::vector<std::string> env;
    for (char **e = environ; *e; ++e)
        if (strncmp(*e, "KX_", 3) != 0)
            env.emplace_back(*e);
    env.insert(env.end(), extra.begin(), extra.end());
    return env;
}

// Starts `argv` in process group `group` (0: a group of its own), standard input from
// /dev/null, output and errors appended to `out`. With `tied`, it is killed when this
// process ends, however that happens.
pid_t spawn(const std::vector<std::string> &argv, const std::vector<std::string> &env,
            const std::string &out, pid_t group, bool tied)
{
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid != 0) {
        if (pid > 0)
            setpgid(pid, group); // also here: the parent may signal the group first
        return pid;
    }
    setpgid(0, group);
    if (tied && (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent))
        _exit(127);
    signal(SIGPIPE, SIG_DFL); // ignoring it would outlive exec
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    int in = open("/dev/null", O_RDONLY);
    int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (in < 0 || fd < 0 || dup2(in, 0) < 0 || dup2(fd, 1) < 0 || dup2(fd, 2) < 0)
        _exit(127);
    std::vector<char *> args, envp;
    for (const std::string &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    for (const std::string &e : env)
        envp.push_back(const_cast<char *>(e.c_str()));
    args.push_back(nullptr);
    envp.push_back(nullptr);
    execvpe(args[0], args.data(), envp.data());
    fprintf(stderr, "vek_chassis: cannot run %s: %s\n", args[0], strerror(errno));
    _exit(127);
}

// The name the sentinels know the global primary by (--sentinel).
constexpr const char *sentinel_master = "vek_global";

// A TCP port of the loopback that is free now, for a server to listen on; 0 when there
// is none.
int free_port()
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    int port = 0;
    if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0)
        port = ntohs(a.sin_port);
    if (fd >= 0)
        close(fd);
    return port;
}

// ---------------------------------------------------------------- the chassis

struct CardRun {
    const Card *card;
    std::string root; // its KX_ROOT
    Child redis, daemon;
    Redis local;
    int restarts = 0;
    bool killed = false; // by --kill-daemon, not yet started again
};

class Chassis {
public:
    Chassis(const Options &o, const std::vector<Card> &cards, std::string dir)
        : o_(o), dir_(std::move(dir)), global_sock_(dir_ + "/global/redis.sock"),
          monitor_(global_sock_)
    {
        global_.name = "the global redis-server";
        for (const Card &c : cards) {
            std::string root = dir_ + "/card" + std::to_string(c.number);
            std::string name = "card " + std::to_string(c.number) + "'s ";
            runs_.push_back({&c,
                             root,
                             {name + "redis-server"},
                             {name + "vek_cap"},
                             Redis(root + "/redis.sock")});
        }
    }
    ~Chassis() { stop_all(); }

    const std::string &dir() const { return dir_; }
    const std::string &global_socket() const { return global_sock_; }
    pid_t group() const { return group_; }
    // What went wrong, each with the number of times it did.
    const std::vector<std::pair<std::string, int>> &faults() const { return faults_; }
    void fault(const std::string &what);

    bool start_servers();
    bool play(const std::vector<Input> &inputs, std::string *why);
    bool restart_global();
    bool kill_primary();
    bool failed_over();
    bool confine(const Records &expected);
    void no_daemon_refused();
    void reap();
    std::optional<Records> read_global(std::string *why)
    {
        return read_all(monitor_, global_db, why);
    }
    // The number of keys in db 28; SIZE_MAX when the store did not answer.
    size_t global_size(std::string *why)
    {
        auto replies = monitor_.pipeline(global_db, {{"DBSIZE"}}, why);
        return replies.empty() || replies[0]->type != REDIS_REPLY_INTEGER
                   ? SIZE_MAX
                   : static_cast<size_t>(replies[0]->integer);
    }
    int daemon_exits_77() const { return exits_77_; }
    bool broken() const { return broken_; }
    void detach(); // leaves every child running
    bool stop_daemons();
    void stop_all();

    // For the faults: each card's daemon, files and store, and the global store.
    bool write_input(const Input &in, std::string *why);
    int cards() const { return static_cast<int>(runs_.size()); }
    pid_t daemon_pid(int card) const { return runs_[static_cast<size_t>(card)].daemon.pid; }
    const std::string &root(int card) const { return runs_[static_cast<size_t>(card)].root; }
    Redis &card_store(int card) { return runs_[static_cast<size_t>(card)].local; }
    Redis &global_store() { return monitor_; }
    pid_t global_pid() const { return global_.pid; }

private:
    bool start_redis(Child &c, const std::string &dir, const std::vector<std::string> &extra = {});
    bool answers(Child &server, Redis &conn, const std::string &log, Clock::time_point deadline);
    std::vector<Child *> global_servers();
    bool make_acl();
    std::string password(const std::string &user) const;
    Redis as_operator(const std::string &socket) const;
    bool start_failover(Clock::time_point deadline);
    bool sentinels_ready();
    void start_daemon(CardRun &r);
    bool stop(std::vector<Child *> children);
    void ended(Child &c, int status);

    const Options &o_;
    std::string dir_;
    std::string global_sock_;
    Child global_;
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

bool Chassis::start_redis(Child &c, const std::string &dir, const std::vector<std::string> &extra)
{
    fs::create_directories(dir);
    std::string conf = o_.redis_conf;
    if (o_.sentinel) { // a failover rewrites the servers' configuration files: each its own
        conf = dir + "/redis.conf";
        std::ofstream copy(conf);
        if (!o_.redis_conf.empty())
            copy << std::ifstream(o_.redis_conf).rdbuf();
    }
    std::vector<std::string> argv = {"redis-server"};
    if (!conf.empty())
        argv.push_back(conf);
    if (o_.redis_conf.empty()) // what the store needs, as the deployment's snippet has it
        argv.insert(argv.end(), {"--databases", "32", "--notify-keyspace-events", "Kgh$xe",
                                 "--client-output-buffer-limit", "pubsub 0 0 0"});
    argv.insert(argv.end(),
                {"--port", "0", "--unixsocket", dir + "/redis.sock", "--unixsocketperm", "700",
                 "--save", "", "--appendonly", "no", "--dir", dir, "--loglevel", "warning"});
    argv.insert(argv.end(), extra.begin(), extra.end());
    c.pid = spawn(argv, child_env({}), dir + "/redis.log", group_, !o_.keep);
    c.stopping = false;
    if (c.pid < 0) {
        fprintf(stderr, "vek_chassis: cannot start %s: %s\n", c.name.c_str(), strerror(errno));
        return false;
    }
    if (group_ == 0)
        group_ = c.pid;
    return true;
}

// Waits until the server answers on `conn`.
bool Chassis::answers(Child &server, Redis &conn, const std::string &log,
                      Clock::time_point deadline)
{
    std::string why;
    while (!conn.command(0, {"PING"}, &why)) {
        reap();
        if (server.pid < 0 || g_signal || Clock::now() > deadline) {
            if (!g_signal)
                fprintf(stderr, "vek_chassis: %s does not answer: %s; its log ends: %s\n",
                        server.name.c_str(), why.c_str(), last_line(log).c_str());
            return false;
        }
        nap(10ms);
    }
    return true;
}

// Starts every Redis, then waits until each answers.
bool Chassis::start_servers()
{
    std::vector<std::string> global_args;
    if (o_.acl) {
        if (!make_acl())
            return false;
        global_args = {"--aclfile", dir_ + "/users.acl"};
        monitor_ = as_operator(global_sock_);
    }
    if (o_.sentinel) {
        primary_port_ = free_port();
        global_args.insert(global_args.end(), {"--port", std::to_string(primary_port_)});
    }
    if (!start_redis(global_, dir_ + "/global", global_args))
        return false;
    for (CardRun &r : runs_)
        if (!start_redis(r.redis, r.root))
            return false;
    auto deadline = Clock::now() + 20s;
    if (!answers(global_, monitor_, dir_ + "/global/redis.log", deadline))
        return false;
    if (o_.sentinel && !start_failover(deadline))
        return false;
    for (CardRun &r : runs_)
        if (!answers(r.redis, r.local, r.root + "/redis.log", deadline))
            return false;
    // Each card's files: its dependency modules and the platform's marker file.
    for (CardRun &r : runs_) {
        fs::create_directories(r.root + "/etc/cap_cfg/cap_dep/fe");
        fs::create_directories(r.root + "/var/run");
        for (const std::string &m : r.card->modules)
            std::ofstream(r.root + "/etc/cap_cfg/cap_dep/fe/" + m);
        std::ofstream(r.root + "/var/run/vek_cap_ham.txt");
    }
    return true;
}

void Chassis::start_daemon(CardRun &r)
{
    std::string global = "unix:" + global_sock_;
    if (o_.sentinel) {
        global = "sentinel:";
        for (int port : sentinel_ports_)
            global += "127.0.0.1:" + std::to_string(port) + ",";
        global.back() = '/';
        global += sentinel_master;
    }
    std::string user = "card" + std::to_string(r.card->node);
    std::vector<std::string> env =
        child_env({"KX_ROOT=" + r.root, "KX_MOM_ADDR=unix:" + r.root + "/redis.sock",
                   "KX_MOM_ADDR_28=" + global});
    if (o_.acl)
        env.insert(env.end(), {"KX_MOM_USER_28=" + user,
                               "KX_MOM_PASSWORD_FILE_28=" + dir_ + "/secrets/" + user});
    r.daemon.pid = spawn({o_.daemon}, env, r.root + "/vek_cap.out", group_, !o_.keep);
    r.daemon.stopping = false;
    if (r.daemon.pid < 0)
        fault("cannot start " + r.daemon.name + ": " + strerror(errno));
}

// A child has ended: the daemons are started again as their unit would be, anything
// else is a fault unless it was asked for.
void Chassis::ended(Child &c, int status)
{
    c.pid = -1;
    c.status = status;
    if (c.stopping)
        return;
    for (CardRun &r : runs_) {
        if (&c != &r.daemon)
            continue;
        // 77: the daemon saw a restarted store, which only --restart-global and
        // --kill-primary make.
        bool exit_77 = global_restarted_ && WIFEXITED(status) && WEXITSTATUS(status) == 77;
        bool killed = r.killed && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
        exits_77_ += exit_77;
        r.killed = false;
        if (!exit_77 && !killed)
            fault(c.name + " " + describe(status) + " (see " + r.root + "/vek_cap.out and " +
                  r.root + "/var/log/vek_cap.log)");
        if (++r.restarts > restart_limit) {
            fault(c.name + " is not started again: it ended " + std::to_string(r.restarts) +
                  " times");
            broken_ = true;
            return;
        }
        start_daemon(r);
        return;
    }
    fault(c.name + " " + describe(status));
    broken_ = true;
}

void Chassis::fault(const std::string &what)
{
    auto it = std::ranges::find(faults_, what, &std::pair<std::string, int>::first);
    if (it == faults_.end())
        faults_.emplace_back(what, 1);
    else
        ++it->second;
}

void Chassis::reap()
{
    int status = 0;
    for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
        for (Child *c : global_servers())
            if (c->pid == pid)
                ended(*c, status);
        for (CardRun &r : runs_)
            for (Child *c : {&r.redis, &r.daemon})
                if (c->pid == pid)
                    ended(*c, status);
    }
}

// Input `in` of card `c` as the command that writes it into the card's Redis, with the
// database it goes to.
std::pair<int, std::vector<std::string>> input_command(const Card &c, const Input &in)
{
    auto hset = [](std::string key, const Fields &fields) {
        std::vector<std::string> args = {"HSET", std::move(key)};
        for (const auto &[name, value] : fields)
            args.insert(args.end(), {name, value});
        return args;
    };
    auto text = [](int n) { return std::to_string(n); };
    const Subcard *sub = in.step == Step::subcard_entry || in.step == Step::subcard_state
                             ? &c.subcards[static_cast<size_t>(in.a)]
                             : nullptr;
    switch (in.step) {
    case Step::identity:
        return {tunner_db, hset("p_dev.dp_lib_my_info", {{"card_nodeid", text(c.node)},
                                                         {"card_type", text(c.type)},
                                                         {"slotid", text(c.number)},
                                                         {"sslotid", "0"},
                                                         {"dm_my_node_type", text(node_type_lc)}})};
    case Step::devid:
        return {tunner_db, hset("p_dev.dp_lib_my_chss_info",
                                {{"devid", text(chassis_devid)}, {"dev_desc", "vek_chassis"}})};
    case Step::entry: {
        const Entry &e = c.entries[static_cast<size_t>(in.a)];
        return {host_db, hset("p_libpub.cap_table|" + key_part(e.url), e.fields)};
    }
    case Step::ready: // the packed record: field 5 (ready), varint 1
        return {host_db, {"SET", "p_libpub.cap_state", "\x28\x01"}};
    case Step::module:
        return {host_db, hset("s_frame.cap_dep|" + key_part(c.modules[static_cast<size_t>(in.a)]),
                              {{"ready", "true"}})};
    case Step::subcard_entry: {
        const Entry &e = sub->entries[static_cast<size_t>(in.b)];
        return {host_db,
                hset("p_libpub.cap_subcard_table|" + text(sub->node) + "|" + key_part(e.url),
                     e.fields)};
    }
    case Step::subcard_state:
        return {host_db,
                hset("p_libpub.cap_subcard_state|" + text(sub->node) + "|" + text(sub->type),
                     {{"ready", "true"}})};
    case Step::start:
    case Step::kill:
        break;
    }
    return {};
}

bool Chassis::write_input(const Input &in, std::string *why)
{
    CardRun &r = runs_[static_cast<size_t>(in.card)];
    if (in.step == Step::start) {
        start_daemon(r);
    } else if (in.step == Step::kill) {
        r.killed = r.daemon.pid > 0 && kill(r.daemon.pid, SIGKILL) == 0;
        if (r.killed)
            printf("kill -9 %s (pid %d) in the middle of its inputs\n", r.daemon.name.c_str(),
                   r.daemon.pid);
    } else {
        auto [db, command] = input_command(*r.card, in);
        return r.local.command(db, command, why);
    }
    return true;
}

bool Chassis::play(const std::vector<Input> &inputs, std::string *why)
{
    for (const Input &in : inputs) {
        if (g_signal)
            return false;
        if (!write_input(in, why)) {
            *why = "card " + std::to_string(in.card + 1) + ": " + *why;
            return false;
        }
        reap();
    }
    return true;
}

// Ends the children (SIGTERM, then SIGKILL after 10 s); true when all ended by
// SIGTERM in time.
bool Chassis::stop(std::vector<Child *> children)
{
    std::erase_if(children, [](const Child *c) { return c->pid <= 0; });
    for (Child *c : children) {
        c->stopping = true;
        kill(c->pid, SIGTERM);
    }
    auto deadline = Clock::now() + 10s;
    bool in_time = true;
    for (;;) {
        reap();
        bool left = std::ranges::any_of(children, [](const Child *c) { return c->pid > 0; });
        if (!left)
            return in_time;
        if (Clock::now() > deadline) {
            in_time = false;
            for (Child *c : children)
                if (c->pid > 0)
                    kill(c->pid, SIGKILL);
        }
        nap(5ms);
    }
}

// Restarts the global Redis, empty and with a new run id, as after a crash of the
// supervisor's store.
bool Chassis::restart_global()
{
    stop({&global_});
    global_restarted_ = true;
    return start_redis(global_, dir_ + "/global") &&
           answers(global_, monitor_, dir_ + "/global/redis.log", Clock::now() + 20s);
}

// Stops every vek_cap; true when each ended with status 0, as SIGTERM asks.
bool Chassis::stop_daemons()
{
    std::vector<Child *> daemons;
    for (CardRun &r : runs_)
        if (r.daemon.pid > 0)
            daemons.push_back(&r.daemon);
    stop(daemons);
    bool clean = true;
    for (const Child *c : daemons)
        if (!(WIFEXITED(c->status) && WEXITSTATUS(c->status) == 0)) {
            fault(c->name + " " + describe(c->status) + " on SIGTERM");
            clean = false;
        }
    return clean;
}

void Chassis::detach()
{
    for (Child *c : global_servers())
        c->pid = -1;
    for (CardRun &r : runs_)
        r.redis.pid = r.daemon.pid = -1;
}

void Chassis::stop_all()
{
    std::vector<Child *> daemons, servers = global_servers();
    for (CardRun &r : runs_)
        daemons.push_back(&r.daemon), servers.push_back(&r.redis);
    stop(daemons);
    stop(servers);
}

// ---------------------------------------------------------------- the view of db 28

struct NodeView {
    bool ready = false;
    std::string devid = "-";
    int entries = 0;
};

// The table name and node of a chassis key ("s_frame.cap_glb_table|16|/fe/l2").
std::optional<std::pair<std::string, int>> table_and_node(const std::string &key)
{
    size_t bar = key.find('|');
    if (bar == std::string::npos)
        return std::nullopt;
    size_t end = key.find('|', bar + 1);
    auto node = number(key.substr(bar + 1, end == std::string::npos ? end : end - bar - 1).c_str(),
                       INT32_MIN, INT32_MAX);
    if (!node)
        return std::nullopt;
    return std::pair(key.substr(0, bar), static_cast<int>(*node));
}

// What db 28 says of every node, by node.
std::map<int, NodeView> nodes_of(const Records &records)
{
    std::map<int, NodeView> nodes;
    for (const auto &[key, fields] : records) {
        auto tn = table_and_node(key);
        if (!tn)
            continue;
        NodeView &v = nodes[tn->second];
        if (tn->first == "s_frame.cap_fe_ready" || tn->first == "s_frame.cap_subcard_ready") {
            v.ready = fields.contains("ready") && fields.at("ready") == "true";
            if (fields.contains("devid"))
                v.devid = fields.at("devid");
        } else {
            ++v.entries;
        }
    }
    return nodes;
}

size_t matching(const Records &want, const Records &have)
{
    return static_cast<size_t>(std::ranges::count_if(want, [&](const auto &kv) {
        auto it = have.find(kv.first);
        return it != have.end() && it->second == kv.second;
    }));
}

std::string shown(const std::string &s)
{
    bool bare = !s.empty() &&
                std::ranges::all_of(s, [](char c) { return c > ' ' && c < 0x7f && c != '"'; });
    if (bare)
        return s;
    std::string out = "\"";
    for (char c : s)
        out += c == '"' ? "\\\"" : c == '\\' ? "\\\\" : std::string(1, c);
    return out + "\"";
}

std::string record_text(const std::string &key, const Fields &fields)
{
    std::string out = shown(key);
    for (const auto &[name, value] : fields)
        out += " " + name + "=" + shown(value);
    return out;
}

// The records missing from `have`, those it has in excess, and those that differ.
std::vector<std::string> difference(const Records &want, const Records &have)
{
    std::vector<std::string> lines;
    for (const auto &[key, fields] : want) {
        auto it = have.find(key);
        if (it == have.end())
            lines.push_back("missing  " + record_text(key, fields));
        else if (it->second != fields)
            lines.push_back("differs  " + record_text(key, fields) + "\n   found  " +
                            record_text(key, it->second));
    }
    for (const auto &[key, fields] : have)
        if (!want.contains(key))
            lines.push_back("stray    " + record_text(key, fields));
    return lines;
}

// The converging chassis: a table redrawn in place on a terminal, a line a second
// otherwise.
class View {
public:
    View(const std::vector<Card> &cards, const Records &expected, uint64_t seed)
        : cards_(cards), expected_(expected), seed_(seed), tty_(isatty(STDOUT_FILENO))
    {
    }

    void show(const Records &have, long long ms, bool last = false)
    {
        size_t ok = matching(expected_, have);
        if (!tty_) {
            if (ok != last_ok_ && (last || ms >= next_line_ms_)) {
                printf("%6.2f s  db 28: %zu of %zu records as expected, %zu records in all\n",
                       ms / 1e3, ok, expected_.size(), have.size());
                fflush(stdout);
                last_ok_ = ok;
                next_line_ms_ = ms + 1000;
            }
            return;
        }
        if (!last && ms < next_line_ms_)
            return;
        next_line_ms_ = ms + 100;
        winsize ws{};
        int rows = ioctl(STDOUT_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_row > 4 ? ws.ws_row : 24;
        std::string out = "\033[H"; // and the last frame in full, whatever the height
        char line[256];
        snprintf(line, sizeof line,
                 "vek_chassis: %zu cards, seed %llu, %.2f s: db 28 holds %zu of %zu records",
                 cards_.size(), static_cast<unsigned long long>(seed_), ms / 1e3, ok,
                 expected_.size());
        out += std::string(line) +
               (have.size() > ok ? " (+" + std::to_string(have.size() - ok) + " other)" : "");
        out +=
            "\033[K\n card  node type devid ready entries   subcards (node ready entries)\033[K\n";
        auto nodes = nodes_of(have);
        int shown_rows = 0;
        for (const Card &c : cards_) {
            if (!last && ++shown_rows > rows - 4) {
                out += "  ... " +
                       std::to_string(cards_.size() - static_cast<size_t>(shown_rows) + 1) +
                       " more cards\033[K\n";
                break;
            }
            const NodeView &v = nodes[c.node];
            snprintf(line, sizeof line, "%5d %5d %4d %5s %5s %3d/%-3zu", c.number, c.node, c.type,
                     v.devid.c_str(), v.ready ? "yes" : "-", v.entries, c.entries.size());
            out += line;
            for (const Subcard &s : c.subcards) {
                const NodeView &sv = nodes[s.node];
                snprintf(line, sizeof line, "  %5d %3s %d/%zu", s.node, sv.ready ? "yes" : "-",
                         sv.entries, s.entries.size());
                out += line;
            }
            out += "\033[K\n";
        }
        fputs((out + "\033[J").c_str(), stdout);
        fflush(stdout);
    }

    void begin()
    {
        if (tty_)
            fputs("\033[2J", stdout);
    }

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

// ---------------------------------------------------------------- the global store's modes

std::vector<Child *> Chassis::global_servers()
{
    std::vector<Child *> all = {&global_, &replica_};
    for (Child &s : sentinels_)
        all.push_back(&s);
    return all;
}

// --acl: writes the chassis's description, from which vek_cap-acl writes the global
// store's ACL file and a password file per user.
bool Chassis::make_acl()
{
    std::ofstream chassis(dir_ + "/chassis.txt");
    for (const CardRun &r : runs_) {
        chassis << "card " << r.card->node << " " << r.card->type;
        for (const Subcard &s : r.card->subcards)
            chassis << " " << s.node;
        chassis << "\n";
    }
    if (o_.sentinel)
        chassis << "replica-user replica\nsentinel-user sentinel\n";
    chassis.close();
    std::string log = dir_ + "/vek_cap-acl.log";
    pid_t pid = spawn({"sh", "-c", "exec vek_cap-acl \"$1\" \"$2\" > \"$3\"", "sh",
                       dir_ + "/chassis.txt", dir_ + "/secrets", dir_ + "/users.acl"},
                      child_env({}), log, 0, true);
    int status = -1;
    if (pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return true;
    fprintf(stderr, "vek_chassis: vek_cap-acl %s: %s\n", describe(status).c_str(),
            last_line(log).c_str());
    return false;
}

std::string Chassis::password(const std::string &user) const
{
    std::ifstream in(dir_ + "/secrets/" + user);
    std::string line;
    std::getline(in, line);
    return line;
}

Redis Chassis::as_operator(const std::string &socket) const
{
    return o_.acl ? Redis(socket, "operator", password("operator")) : Redis(socket);
}

// --sentinel: the replica of the global primary and three sentinels watching it, quorum
// 2. They find each other by address, so each listens on a TCP port of the loopback too.
bool Chassis::start_failover(Clock::time_point deadline)
{
    replica_.name = "the global replica redis-server";
    replica_port_ = free_port();
    std::vector<std::string> args = {"--port", std::to_string(replica_port_), "--replicaof",
                                     "127.0.0.1", std::to_string(primary_port_)};
    if (o_.acl)
        args.insert(args.end(), {"--aclfile", dir_ + "/users.acl", "--masteruser", "replica",
                                 "--masterauth", password("replica")});
    Redis replica = as_operator(dir_ + "/replica/redis.sock");
    if (!start_redis(replica_, dir_ + "/replica", args) ||
        !answers(replica_, replica, dir_ + "/replica/redis.log", deadline))
        return false;
    sentinels_.resize(3);
    for (size_t i = 0; i < sentinels_.size(); ++i) {
        Child &s = sentinels_[i];
        s.name = "sentinel " + std::to_string(i + 1);
        std::string dir = dir_ + "/sentinel" + std::to_string(i + 1);
        sentinel_ports_.push_back(free_port());
        fs::create_directories(dir);
        // Short timing: a primary silent for 1 s is down.
        std::ofstream conf(dir + "/sentinel.conf");
        conf << "port " << sentinel_ports_.back() << "\nbind 127.0.0.1\nunixsocket " << dir
             << "/redis.sock\nunixsocketperm 700\ndir " << dir << "\nsentinel monitor "
             << sentinel_master << " 127.0.0.1 " << primary_port_ << " 2\n"
             << "sentinel down-after-milliseconds " << sentinel_master << " 1000\n"
             << "sentinel failover-timeout " << sentinel_master << " 3000\n";
        if (o_.acl)
            conf << "sentinel auth-user " << sentinel_master << " sentinel\nsentinel auth-pass "
                 << sentinel_master << " " << password("sentinel") << "\n";
        conf.close();
        s.pid = spawn({"redis-server", dir + "/sentinel.conf", "--sentinel"}, child_env({}),
                      dir + "/redis.log", group_, !o_.keep);
        Redis conn(dir + "/redis.sock");
        if (s.pid < 0 || !answers(s, conn, dir + "/redis.log", deadline))
            return false;
    }
    return true;
}

// Whether every sentinel knows the replica and the two other sentinels, as a failover
// needs.
bool Chassis::sentinels_ready()
{
    for (size_t i = 0; i < sentinels_.size(); ++i) {
        Redis sentinel(dir_ + "/sentinel" + std::to_string(i + 1) + "/redis.sock");
        std::string why;
        auto replies = sentinel.pipeline(0, {{"SENTINEL", "MASTER", sentinel_master}}, &why);
        if (replies.empty() || replies[0]->type != REDIS_REPLY_ARRAY)
            return false;
        std::map<std::string, std::string> fields;
        const redisReply *r = replies[0].get();
        for (size_t j = 0; j + 1 < r->elements; j += 2)
            fields[r->element[j]->str] = r->element[j + 1]->str;
        if (fields["num-slaves"] != "1" || fields["num-other-sentinels"] != "2")
            return false;
    }
    return true;
}

// --kill-primary: once the sentinels can fail over, the primary dies for good. What the
// replica holds of db 28 is emptied first: asynchronous replication may lose the last
// writes, and this makes it lose them all, so that db 28 is complete on the new primary
// only once every card has published there again.
bool Chassis::kill_primary()
{
    auto deadline = Clock::now() + 60s;
    while (!sentinels_ready()) {
        if (g_signal || Clock::now() > deadline) {
            fault("the sentinels did not find the replica and each other within 60 s (see " + dir_ +
                  "/sentinel1/redis.log)");
            return false;
        }
        nap(50ms);
    }
    Redis replica = as_operator(dir_ + "/replica/redis.sock");
    std::string why;
    if (!replica.command(0, {"CONFIG", "SET", "replica-read-only", "no"}, &why) ||
        !replica.command(global_db, {"FLUSHDB"}, &why)) {
        fault("cannot empty the replica's db 28: " + why);
        return false;
    }
    global_.stopping = true;
    kill(global_.pid, SIGKILL);
    global_restarted_ = true;
    monitor_ = std::move(replica);
    return true;
}

// After --kill-primary: the sentinels name the replica, and it is the primary.
bool Chassis::failed_over()
{
    Redis sentinel(dir_ + "/sentinel1/redis.sock");
    std::string why;
    auto named =
        sentinel.pipeline(0, {{"SENTINEL", "GET-MASTER-ADDR-BY-NAME", sentinel_master}}, &why);
    auto role = monitor_.pipeline(0, {{"ROLE"}}, &why);
    auto nth = [](const std::vector<Reply> &r, size_t i) {
        return r.size() == 1 && r[0]->type == REDIS_REPLY_ARRAY && r[0]->elements > i
                   ? std::string(r[0]->element[i]->str ? r[0]->element[i]->str : "")
                   : std::string();
    };
    if (nth(named, 1) == std::to_string(replica_port_) && nth(role, 0) == "master")
        return true;
    fault("sentinel 1 names port " + nth(named, 1) + " the primary, the replica (port " +
          std::to_string(replica_port_) + ") says it is " + nth(role, 0));
    return false;
}

// --acl: card 1's user may change none of card 2's records, nor node 160's when it is
// node 16, nor a ready record of a type not its own; a client without a user may change
// nothing. db 28 is unchanged after that. The operator may: it deletes one of card 2's
// entries and writes card 2's deletion notice, which card 2 answers, as its own user, by
// writing itself again and removing the notice. False when the operator could not.
bool Chassis::confine(const Records &expected)
{
    const Card &a = *runs_[0].card, &b = *runs_[1].card;
    std::string an = std::to_string(a.node), bn = std::to_string(b.node);
    std::string sub = std::to_string(b.node + 1), type = std::to_string(b.type);
    std::string entry = "s_frame.cap_glb_table|" + bn + "|" +
                        (b.entries.empty() ? "/x" : key_part(b.entries[0].url));
    std::string notice = "s_frame.cap_del_fe_ready|" + bn + "|" + type;
    const std::vector<std::vector<std::string>> changes = {
        {"HSET", entry, "bool_value", "false"},
        {"DEL", entry},
        {"HSET", "s_frame.cap_glb_table|" + an + "0|/x", "bool_value", "true"},
        {"HSET", "s_frame.cap_fe_ready|" + bn + "|" + type, "ready", "false"},
        {"DEL", "s_frame.cap_fe_ready|" + bn + "|" + type},
        {"HSET", "s_frame.cap_fe_ready|" + an + "|" + std::to_string(a.type + 1), "ready", "true"},
        {"HSET", notice, "ready", "true"},
        {"HSET", "s_frame.cap_subcard_glb_table|" + sub + "|/x", "bool_value", "true"},
        {"DEL", "s_frame.cap_subcard_ready|" + sub},
    };
    Redis card(global_sock_, "card" + an, password("card" + an)), nobody(global_sock_);
    std::string why;
    auto outcome = [&why](Redis &as, const std::vector<std::string> &change) {
        return as.command(global_db, change, &why) ? std::string("done") : why;
    };
    for (const auto &change : changes) {
        std::string as_card = outcome(card, change), as_nobody = outcome(nobody, change);
        if (!as_card.starts_with("NOPERM") || !as_nobody.starts_with("NOAUTH"))
            fault(change[0] + " " + change[1] + ": card " + std::to_string(a.number) +
                  "'s user got '" + as_card + "', no user '" + as_nobody + "'");
    }
    auto after = read_global(&why);
    if (!after || *after != expected)
        fault("db 28 changed when card " + std::to_string(a.number) +
              "'s user was refused: " + (after ? difference(expected, *after).front() : why));
    if (monitor_.command(global_db, {"DEL", entry}, &why) &&
        monitor_.command(global_db, {"HSET", notice, "ready", "true"}, &why))
        return true;
    fault("the operator cannot change card " + std::to_string(b.number) + "'s records: " + why);
    return false;
}

// --acl: a daemon keeping to its own records never meets a refusal, not even in a read
// of another card's (every card reads a deletion notice when one appears).
void Chassis::no_daemon_refused()
{
    for (const CardRun &r : runs_) {
        std::ifstream out(r.root + "/vek_cap.out");
        for (std::string line; std::getline(out, line);)
            if (line.find("NOPERM") != std::string::npos) {
                fault("card " + std::to_string(r.card->number) + "'s vek_cap was refused: " + line);
                break;
            }
    }
}

enum class Outcome { converged, timed_out, interrupted, failed };

// Watches db 28 until it holds exactly `expected`; `have` is what it held last.
Outcome converge(Chassis &chassis, View &view, const Records &expected, Clock::time_point since,
                 int timeout_s, Records &have)
{
    view.begin();
    auto deadline = since + std::chrono::seconds(timeout_s);
    have.clear();
    for (long long read_ms = -1;;) {
        chassis.reap();
        if (g_signal)
            return Outcome::interrupted;
        if (chassis.broken())
            return Outcome::failed;
        // db 28 is read whole when its size says it may be done, or for the view: on a big
        // chassis a whole read is work for the store whose work is being measured.
        std::string why;
        long long ms = ms_since(since);
        bool fresh = chassis.global_size(&why) == expected.size() || read_ms < 0 ||
                     ms - read_ms >= view.refresh_ms();
        if (auto records = fresh ? chassis.read_global(&why) : std::nullopt) {
            have = std::move(*records);
            read_ms = ms;
        }
        bool done = fresh && have == expected;
        view.show(have, ms, done);
        if (done)
            return Outcome::converged;
        if (Clock::now() > deadline)
            return Outcome::timed_out;
        nap(20ms);
    }
}

void print_difference(const Records &expected, const Records &have)
{
    auto lines = difference(expected, have);
    constexpr size_t most = 40;
    for (size_t i = 0; i < lines.size() && i < most; ++i)
        printf("  %s\n", lines[i].c_str());
    if (lines.size() > most)
        printf("  ... and %zu more\n", lines.size() - most);
}

std::string tools_dir()
{
    std::error_code ec;
    fs::path self = fs::read_symlink("/proc/self/exe", ec);
    return ec ? std::string(".") : self.parent_path().string();
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

// ---------------------------------------------------------------- faults
//
// --fault NAME plays one fault on the chassis, from the fault table below. Every wait
// has its deadline, and a fault that cannot be played as meant is itself a fault. The
// run ends as any other: db 28 must hold exactly what the inputs give.

struct FaultRun {
    Chassis &chassis;
    std::vector<Card> &cards; // a fault that changes inputs changes them here
    Records &expected;
    Records extra; // records of db 28 that no card gives: written there by the fault
    Rng rng;
    std::vector<std::pair<long, long>> usage; // per daemon: descriptors and VmRSS kB

    bool fault(const std::string &what)
    {
        chassis.fault(what);
        return false;
    }
    void expect_inputs()
    {
        expected = expected_records(cards);
        expected.insert(extra.begin(), extra.end());
    }
    bool write(int card, Step step, int a = 0, int b = 0)
    {
        std::string why;
        return chassis.write_input({card, step, a, b}, &why) ||
               fault("card " + std::to_string(card + 1) + ": " + why);
    }
    // Runs `commands` on db `db` of card `card`'s store, or of the global one (card -1).
    bool run(int card, int db, const std::vector<std::vector<std::string>> &commands)
    {
        Redis &r = card < 0 ? chassis.global_store() : chassis.card_store(card);
        std::string why;
        auto replies = r.pipeline(db, commands, &why);
        for (const Reply &reply : replies)
            if (reply->type == REDIS_REPLY_ERROR)
                why = reply->str;
        return (replies.size() == commands.size() && why.empty()) ||
               fault(commands[0][0] + " on db " + std::to_string(db) + " of " +
                     (card < 0 ? "the global store" : "card " + std::to_string(card + 1) + "'s") +
                     " failed: " + why);
    }
    // Gives entry `j` of card `card` the value `value` and writes it to the card's store.
    bool change_entry(int card, int j, int value)
    {
        cards[static_cast<size_t>(card)].entries[static_cast<size_t>(j)].fields["int32_value"] =
            std::to_string(value);
        return write(card, Step::entry, j);
    }
    std::string log(int card) const { return chassis.root(card) + "/var/log/vek_cap.log"; }
};

bool wait_until(const std::function<bool()> &done, std::chrono::milliseconds limit,
                std::chrono::milliseconds every = 10ms)
{
    for (auto deadline = Clock::now() + limit; !done(); nap(every))
        if (g_signal || Clock::now() > deadline)
            return false;
    return true;
}

std::string file_text(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

bool logged(FaultRun &f, int card, const std::string &text, std::chrono::milliseconds limit = 20s)
{
    return wait_until([&] { return file_text(f.log(card)).find(text) != std::string::npos; },
                      limit) ||
           f.fault("card " + std::to_string(card + 1) + "'s log never showed: " + text);
}

long descriptors(pid_t pid)
{
    std::error_code ec;
    fs::directory_iterator dir("/proc/" + std::to_string(pid) + "/fd", ec);
    return ec ? -1 : std::distance(dir, fs::directory_iterator());
}

long rss_kb(pid_t pid)
{
    std::string status = file_text("/proc/" + std::to_string(pid) + "/status");
    size_t at = status.find("VmRSS:");
    return at == std::string::npos ? -1 : atol(status.c_str() + at + 6);
}

// ---- the debug shell, spoken to directly

struct ShellTalk {
    explicit ShellTalk(std::string line, size_t hang_up = SIZE_MAX)
        : request(std::move(line)), hang_up_after(hang_up)
    {
    }
    std::string request;
    size_t hang_up_after; // close once this much of the reply came: a client that vanishes
    std::string reply;
    bool ended = false; // the daemon closed the connection: its answer is complete
    long long ms = -1;  // when it did
};

// Connects, sends and reads every talk with the shell at `socket` at once, within
// `limit`. A request is sent as far as the daemon takes it: one it refuses early (a line
// too long) is answered before it is all sent.
void talk(const std::string &socket, std::vector<ShellTalk> &talks, std::chrono::milliseconds limit)
{
    auto t0 = Clock::now();
    std::vector<int> fds;
    std::vector<size_t> sent(talks.size(), 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", socket.c_str());
    // Connecting waits while the daemon's backlog is full, up to `limit`.
    timeval wait{static_cast<time_t>(limit.count() / 1000), 0};
    for (size_t i = 0; i < talks.size(); ++i) {
        int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd >= 0 && (setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait) != 0 ||
                        connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
                        fcntl(fd, F_SETFL, O_NONBLOCK) != 0))
            close(fd), fd = -1;
        fds.push_back(fd);
    }
    auto finish = [&](size_t i, bool ended) {
        close(fds[i]);
        fds[i] = -1;
        talks[i].ended = ended;
        talks[i].ms = ms_since(t0);
    };
    for (;;) {
        std::vector<pollfd> polls;
        std::vector<size_t> which;
        for (size_t i = 0; i < talks.size(); ++i)
            if (fds[i] >= 0) {
                bool more = sent[i] < talks[i].request.size();
                polls.push_back({fds[i], static_cast<short>(POLLIN | (more ? POLLOUT : 0)), 0});
                which.push_back(i);
            }
        long long left = limit.count() - ms_since(t0);
        if (polls.empty() || left <= 0 || poll(polls.data(), polls.size(), int(left)) < 0)
            break;
        for (size_t k = 0; k < polls.size(); ++k) {
            size_t i = which[k];
            ShellTalk &t = talks[i];
            if (polls[k].revents & POLLOUT) {
                ssize_t n = send(fds[i], t.request.data() + sent[i], t.request.size() - sent[i],
                                 MSG_NOSIGNAL);
                // A daemon that stopped reading takes no more: nothing more to send.
                sent[i] = n > 0             ? sent[i] + size_t(n)
                          : errno == EAGAIN ? sent[i]
                                            : t.request.size();
            }
            if (!(polls[k].revents & (POLLIN | POLLHUP | POLLERR)))
                continue;
            char buf[4096];
            ssize_t n = recv(fds[i], buf, sizeof buf, 0);
            if (n > 0)
                t.reply.append(buf, size_t(n));
            if (n > 0 && t.reply.size() >= t.hang_up_after)
                finish(i, false);
            else if (n == 0 || (n < 0 && errno != EAGAIN)) // a reset follows a refused line
                finish(i, n == 0 || errno == ECONNRESET);
        }
    }
    for (int fd : fds)
        if (fd >= 0)
            close(fd);
}

std::string shell_socket(const FaultRun &f, int card)
{
    return f.chassis.root(card) + "/var/run/ssat/vek_cap.sock";
}

// Every daemon answers its debug shell within `limit`: its loop is not held. `slowest`
// is raised to the slowest answer's milliseconds.
bool shells_answer(FaultRun &f, std::chrono::milliseconds limit, long long *slowest = nullptr)
{
    bool ok = true;
    std::vector<std::vector<ShellTalk>> talks(static_cast<size_t>(f.chassis.cards()));
    for (int c = 0; c < f.chassis.cards(); ++c) {
        talks[size_t(c)].emplace_back("show_time\n");
        talk(shell_socket(f, c), talks[size_t(c)], limit);
        const ShellTalk &t = talks[size_t(c)][0];
        if (slowest)
            *slowest = std::max(*slowest, t.ms);
        if (!t.ended || !t.reply.starts_with("OK "))
            ok = f.fault("card " + std::to_string(c + 1) + "'s debug shell did not answer within " +
                         std::to_string(limit.count()) + " ms: '" + t.reply + "'");
    }
    return ok;
}

// ---- the faults

// Changes every entry of card `card`, then writes its local ready record again, which has
// it publish them, and runs `act` while it does: once a quarter of them is written, before
// the last. The changes make the publication count: db 28 held the old values.
bool amid_publication(FaultRun &f, int card, const std::string &what,
                      const std::function<bool()> &act)
{
    const int entries = static_cast<int>(f.cards[size_t(card)].entries.size());
    if (entries < 100)
        return f.fault("--fault " + what + " needs 100 entries a card or more (--entries)");
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
            fflush(stdout);
            return act();
        }
        wait_until([&] { return hsets() - before > entries; }, 20s); // seen too late: again
    }
    return f.fault("card " + std::to_string(card + 1) + "'s publication was never seen under way");
}

bool global_restart(FaultRun &f)
{
    return amid_publication(f, 0, "the global Redis restarts", [&f] {
        return f.chassis.restart_global() || f.fault("the global redis-server did not come back");
    });
}

bool all_exited_77(FaultRun &f)
{
    return f.chassis.daemon_exits_77() == f.chassis.cards() ||
           f.fault("the global restart made " + std::to_string(f.chassis.daemon_exits_77()) +
                   " of " + std::to_string(f.chassis.cards()) + " daemons exit 77");
}

bool kill_daemon(FaultRun &f)
{
    return amid_publication(f, 0, "kill -9 of card 1's vek_cap",
                            [&f] { return f.write(0, Step::kill); });
}

// Reconnects grow the daemon's heap to the shape they give it, most in the first kills:
// after ten, 50 more add 40 to 60 kB. They must add less than rss_growth_kb; 2 kB kept
// at each lost connection would add 200.
constexpr int warm_up_rounds = 10;
constexpr int kill_rounds = 50;
constexpr long rss_growth_kb = 128;

// Kills every connection of every daemon, on the global store and on each card's, again
// and again, each time just after the cards' inputs changed.
bool client_kill(FaultRun &f)
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
        bool sanitized = file_text("/proc/" + std::to_string(pid) + "/maps").find("libasan") !=
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

constexpr auto stall_time = 6s;   // the store stalls longer than the 2 s command timeout
constexpr auto answer_limit = 4s; // twice the timeout: a loop held by the store takes longer
constexpr const char *timed_out_line = "no answer within 2 s";

// The global store stops answering for stall_time while every card republishes: each
// daemon's call fails after the command timeout, and its debug shell answers all along.
bool stall(FaultRun &f, bool pause)
{
    pid_t server = f.chassis.global_pid();
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

bool stop_global(FaultRun &f) { return stall(f, false); }
bool pause_global(FaultRun &f) { return stall(f, true); }

// Writes refused by the global store from the first input on: each is logged with its
// code; once they are allowed again, one more input of each card publishes it whole.
bool refuse(FaultRun &f, bool acl)
{
    return acl ? f.run(-1, 0, {{"ACL", "SETUSER", "default", "resetkeys", "%R~*"}})
               : f.run(-1, 0,
                       {{"CONFIG", "SET", "maxmemory-policy", "noeviction"},
                        {"CONFIG", "SET", "maxmemory", "1"}});
}

bool refused_then_allowed(FaultRun &f, bool acl)
{
    for (int c = 0; c < f.chassis.cards(); ++c) {
        if (!logged(f, c, "ready=1 failed rv -1006") ||
            !logged(f, c, acl ? "the server refused: NOPERM" : "the server refused: OOM"))
            return false;
        for (const Subcard &s : f.cards[size_t(c)].subcards)
            if (!logged(f, c, "node " + std::to_string(s.node) + ", ready=1 failed rv: -1006"))
                return false;
    }
    printf("every card's writes were refused and logged with code -1006\n");
    if (!(acl ? f.run(-1, 0, {{"ACL", "SETUSER", "default", "resetkeys", "~*"}})
              : f.run(-1, 0, {{"CONFIG", "SET", "maxmemory", "0"}})))
        return false;
    for (int c = 0; c < f.chassis.cards(); ++c) {
        if (!f.write(c, Step::ready))
            return false;
        for (int s = 0; s < static_cast<int>(f.cards[size_t(c)].subcards.size()); ++s)
            if (!f.write(c, Step::subcard_state, s))
                return false;
    }
    return true;
}

bool refuse_oom(FaultRun &f) { return refuse(f, false); }
bool refuse_acl(FaultRun &f) { return refuse(f, true); }
bool allow_oom(FaultRun &f) { return refused_then_allowed(f, false); }
bool allow_acl(FaultRun &f) { return refused_then_allowed(f, true); }

// A malformed record in a table a daemon reads, and the line its log must show for it.
// Records of a table of one record are written once the chassis converged, one at a time,
// each followed by the good record again; the others before the first input, beside the
// good records.
struct BadRecord {
    const char *what;
    int card; // whose log; its store, or the global one for db 28
    int db;
    std::vector<std::vector<std::string>> write;
    std::string logged;
    std::vector<std::vector<std::string>> good = {}; // a single record: written back after
};

std::vector<BadRecord> bad_records(const std::vector<Card> &cards)
{
    const Card &c = cards[0];
    const std::string node = std::to_string(c.node), sub = std::to_string(c.subcards[0].node);
    const std::string big(1 << 20, 'v');
    auto good = [&](int card, Step step, int a = 0) {
        return input_command(cards[size_t(card)], {card, step, a}).second;
    };
    std::vector<BadRecord> bad = {
        {"bad integer",
         0,
         host_db,
         {{"HSET", "p_libpub.cap_table|/bad/int", "int32_value", "12x", "str_value", "x"}},
         "'p_libpub.cap_table|/bad/int' field 'int32_value': not an int32 ('12x')"},
        {"bad bool",
         0,
         host_db,
         {{"HSET", "p_libpub.cap_table|/bad/bool", "bool_value", "maybe", "str_value", "x"}},
         "'p_libpub.cap_table|/bad/bool' field 'bool_value': not a bool ('maybe')"},
        {"unknown field",
         0,
         host_db,
         {{"HSET", "p_libpub.cap_table|" + key_part(c.entries[0].url), "colour", "red"}},
         "field 'colour' is not a field of p_libpub.cap_table, ignored"},
        {"bad key escape",
         0,
         host_db,
         {{"HSET", "p_libpub.cap_table|/bad%zz", "str_value", "x"}},
         "scan skips bad key 'p_libpub.cap_table|/bad%zz'"},
        {"256-byte url",
         0,
         host_db,
         {{"HSET", "p_libpub.cap_table|/" + std::string(255, 'u'), "str_value", "x"}},
         "tmp->index->url len too long 256!"},
        {"wrong type",
         0,
         host_db,
         {{"SET", "p_libpub.cap_table|/bad/type", "x"}},
         "'p_libpub.cap_table|/bad/type': the server refused: WRONGTYPE"},
        {"1 MiB value",
         0,
         host_db,
         {{"HSET", "p_libpub.cap_table|/bad/big", "str_value", big}},
         "'p_libpub.cap_table|/bad/big': 1048585 bytes stored, more than the 65536"},
        {"bad integer in a key",
         0,
         host_db,
         {{"HSET", "p_libpub.cap_subcard_table|x" + sub + "|/u", "str_value", "x"}},
         "scan skips bad key 'p_libpub.cap_subcard_table|x" + sub + "|/u'"},
        {"bad bool",
         0,
         host_db,
         {{"HSET", "p_libpub.cap_subcard_table|" + sub + "|/bad", "bool_value", "maybe"}},
         "'p_libpub.cap_subcard_table|" + sub + "|/bad' field 'bool_value': not a bool ('maybe')"},
        {"bad bool",
         0,
         host_db,
         {{"HSET", "p_libpub.cap_subcard_state|4000|7", "is_preinstall", "maybe"}},
         "'p_libpub.cap_subcard_state|4000|7' field 'is_preinstall': not a bool ('maybe')"},
        {"wrong type",
         0,
         host_db,
         {{"SET", "p_libpub.cap_subcard_state|4001|7", "x"}},
         "'p_libpub.cap_subcard_state|4001|7': the server refused: WRONGTYPE"},
        {"bad integer in a key",
         0,
         global_db,
         {{"HSET", "s_frame.cap_del_fe_ready|" + node + "|x", "ready", "true"}},
         "skips bad key 's_frame.cap_del_fe_ready|" + node + "|x'"},
        {"garbage whole value",
         0,
         host_db,
         {{"SET", "p_libpub.cap_state", "\xff\xfe garbage"}},
         "the value does not unpack as p_libpub.cap_state",
         {good(0, Step::ready)}},
        {"wrong type",
         0,
         host_db, // renamed into place: a read follows a rename as a set
         {{"HSET", "cap_state.tmp", "ready", "true"},
          {"RENAME", "cap_state.tmp", "p_libpub.cap_state"}},
         "'p_libpub.cap_state': the server refused: WRONGTYPE",
         {{"DEL", "p_libpub.cap_state"}, good(0, Step::ready)}},
        {"1 MiB value",
         0,
         host_db,
         {{"SET", "p_libpub.cap_state", big}},
         "'p_libpub.cap_state': 1048576 bytes stored, more than the 4096",
         {good(0, Step::ready)}},
        {"bad integer",
         0,
         tunner_db,
         {{"HSET", "p_dev.dp_lib_my_info", "card_nodeid", "16x"}},
         "field 'card_nodeid': not an int32 ('16x')",
         {good(0, Step::identity)}},
        {"integer out of range",
         0,
         tunner_db,
         {{"HSET", "p_dev.dp_lib_my_chss_info", "devid", "99999999999"}},
         "field 'devid': int32 out of range ('99999999999')",
         {good(0, Step::devid)}},
    };
    // A dependency module's record: of the first card that has one.
    for (int k = 0; k < static_cast<int>(cards.size()); ++k)
        if (!cards[size_t(k)].modules.empty()) {
            std::string key = "s_frame.cap_dep|" + key_part(cards[size_t(k)].modules[0]);
            bad.push_back({"bad bool",
                           k,
                           host_db,
                           {{"HSET", key, "ready", "maybe"}},
                           "'" + key + "' field 'ready': not a bool ('maybe')",
                           {good(k, Step::module)}});
            break;
        }
    return bad;
}

bool write_bad(FaultRun &f, const BadRecord &b, const std::vector<std::vector<std::string>> &what)
{
    return f.run(b.db == global_db ? -1 : b.card, b.db, what);
}

bool malformed_before(FaultRun &f)
{
    if (f.cards[0].entries.empty() || f.cards[0].subcards.empty())
        return f.fault("--fault malformed needs entries and a subcard a card");
    for (const BadRecord &b : bad_records(f.cards)) {
        if (!b.good.empty())
            continue;
        if (!write_bad(f, b, b.write))
            return false;
        if (b.db == global_db) // no card gives it, and no daemon takes it away
            f.extra[b.write[0][1]] = {{b.write[0][2], b.write[0][3]}};
    }
    f.expect_inputs();
    return true;
}

bool malformed_after(FaultRun &f)
{
    auto bad = bad_records(f.cards);
    for (const BadRecord &b : bad)
        if (!b.good.empty() && (!write_bad(f, b, b.write) || !logged(f, b.card, b.logged, 10s) ||
                                !write_bad(f, b, b.good)))
            return false;
    for (const BadRecord &b : bad)
        if (b.good.empty() && !logged(f, b.card, b.logged, 10s))
            return false;
    printf("%zu malformed records, each logged\n", bad.size());
    return true;
}

// Runs `argv` to its end (killed after 10 s): its exit status, what it wrote in `*out`.
int run_tool(Chassis &chassis, const std::vector<std::string> &argv,
             const std::vector<std::string> &env, std::string *out)
{
    std::string path = chassis.dir() + "/tool.out";
    unlink(path.c_str());
    pid_t pid = spawn(argv, child_env(env), path, chassis.group(), true);
    int status = -1;
    wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; }, 10s) ||
        (kill(pid, SIGKILL), waitpid(pid, &status, 0));
    *out = file_text(path);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Card 1's debug shell is abused; each abuse is refused or served, and every daemon still
// answers after.
bool shell_abuse(FaultRun &f)
{
    const std::string socket = shell_socket(f, 0);
    std::vector<ShellTalk> talks = {ShellTalk(std::string(1 << 20, 'a') + "\n"),
                                    ShellTalk("show_time\x01\xff\n")};
    talk(socket, talks, 10s);
    bool ok = (talks[0].ended && talks[0].reply.starts_with("ERR line longer than 4096 bytes")) ||
              f.fault("a 1 MiB line got '" + talks[0].reply.substr(0, 80) + "'");
    ok = ((talks[1].ended && talks[1].reply.starts_with("ERR line holds bytes")) ||
          f.fault("a line of binary bytes got '" + talks[1].reply + "'")) &&
         ok;
    talks.assign(200, ShellTalk("show_time\n"));
    for (int i = 0; i < 20; ++i) // and twenty more that vanish after the first bytes of a dump
        talks.emplace_back("dump_all\n", 16);
    talk(socket, talks, 20s);
    int served = 0, turned_away = 0;
    for (size_t i = 0; i < 200; ++i) {
        served += talks[i].ended && talks[i].reply.starts_with("OK ");
        turned_away += talks[i].ended && talks[i].reply == "ERR too many clients, try again\n";
    }
    printf("200 clients at once: %d served, %d turned away\n", served, turned_away);
    if (served + turned_away != 200)
        ok = f.fault("of 200 clients at once, " + std::to_string(200 - served - turned_away) +
                     " were neither served nor turned away");
    // Another user: the socket's directory keeps it out; let in as far as the socket, the
    // daemon refuses it.
    const std::string ssat = tools_dir() + "/ssat", run_dir = f.chassis.root(0) + "/var/run/ssat";
    const std::vector<std::string> as_nobody = {
        "setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
        ssat,      "vek_cap",       "show_time"};
    const std::vector<std::string> env = {"KX_ROOT=" + f.chassis.root(0)};
    std::string out;
    int status = run_tool(f.chassis, as_nobody, env, &out);
    if (status != 3 || out.find("Permission denied") == std::string::npos)
        ok = f.fault("another user reached the debug shell: status " + std::to_string(status) +
                     ", '" + out + "'");
    chmod(f.chassis.dir().c_str(), 0711);
    chmod(run_dir.c_str(), 0711);
    chmod(socket.c_str(), 0666);
    status = run_tool(f.chassis, as_nobody, env, &out);
    chmod(socket.c_str(), 0600);
    chmod(run_dir.c_str(), 0700);
    chmod(f.chassis.dir().c_str(), 0700);
    if (status != 1 || out.find("permission denied") == std::string::npos)
        ok = f.fault("the daemon did not refuse another user: status " + std::to_string(status) +
                     ", '" + out + "'");
    return shells_answer(f, answer_limit) && ok;
}

struct Fault {
    const char *name;
    const char *what;
    bool (*before)(FaultRun &);         // before the first input
    bool (*after_play)(FaultRun &);     // once every input is written
    bool (*after_converge)(FaultRun &); // once db 28 is exact; it must converge again after
    bool (*settled)(FaultRun &);        // once it has
};

constexpr Fault faults[] = {
    {"global-restart", "the global Redis restarts while card 1 publishes (--entries 100+)", nullptr,
     nullptr, global_restart, all_exited_77},
    {"kill-daemon", "kill -9 of card 1's vek_cap while it publishes (--entries 100+)", nullptr,
     nullptr, kill_daemon, nullptr},
    {"client-kill", "every connection of every vek_cap killed 50 times while inputs change",
     nullptr, nullptr, client_kill, same_usage},
    {"stop-global", "the global Redis stopped (SIGSTOP) for 6 s while every card publishes",
     nullptr, nullptr, stop_global, nullptr},
    {"pause-global", "the global Redis paused (CLIENT PAUSE) for 6 s while every card publishes",
     nullptr, nullptr, pause_global, nullptr},
    {"maxmemory", "the global Redis refuses writes (maxmemory), then allows them", refuse_oom,
     allow_oom, nullptr, nullptr},
    {"read-only-user", "the global Redis's user may only read, then may write", refuse_acl,
     allow_acl, nullptr, nullptr},
    {"malformed", "malformed records in every table the daemons read", malformed_before, nullptr,
     malformed_after, nullptr},
    {"shell-abuse", "card 1's debug shell abused: long and binary lines, 200 clients, another user",
     nullptr, nullptr, shell_abuse, nullptr},
};

const Fault *find_fault(const std::string &name)
{
    for (const Fault &f : faults)
        if (name == f.name)
            return &f;
    return nullptr;
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

// Runs the chassis; the exit status. `kept` when everything is left running.
int run(const Options &o, std::vector<Card> &cards, const std::vector<Input> &inputs,
        const std::string &dir, bool *kept)
{
    Records expected = expected_records(cards);
    Chassis chassis(o, cards, dir);
    View view(cards, expected, o.seed);
    const Fault *fault = find_fault(o.fault);
    FaultRun fr{chassis, cards, expected, {}, Rng{std::mt19937_64(o.seed + 1)}, {}};
    bool fault_ok = true; // the fault played as meant, so far
    auto fail = [&](const std::string &why) {
        chassis.stop_all();
        print_faults(chassis);
        if (!why.empty())
            fprintf(stderr, "vek_chassis: %s\n", why.c_str());
        return g_signal ? 128 + g_signal : exit_failed;
    };
    if (!chassis.start_servers())
        return fail(g_signal ? "interrupted" : "");
    if (fault)
        printf("fault %s: %s\n", fault->name, fault->what);
    if (fault && fault->before && !fault->before(fr))
        return fail("");
    printf("%zu cards started their Redis; %zu inputs follow in random order\n", cards.size(),
           inputs.size());
    fflush(stdout);

    Records have;
    std::string why;
    auto work_before = server_work(chassis.global_store(), global_db, &why);
    auto t0 = Clock::now();
    if (!chassis.play(inputs, &why))
        return fail(g_signal ? "interrupted" : why);
    long long played_ms = ms_since(t0);
    if (fault && fault->after_play)
        fault_ok = fault->after_play(fr);
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
        if (o.restart_global) {
            printf("restarting the global Redis: every vek_cap is to exit 77 and start again\n");
            fflush(stdout);
            auto t1 = Clock::now();
            if (!chassis.restart_global())
                return fail("the global redis-server did not come back");
            out = converge(chassis, view, expected, t1, o.timeout_s, have);
            if (out == Outcome::converged)
                printf("converged again %lld ms after the restart; %d daemons exited 77 and were "
                       "started again\n",
                       ms_since(t1), chassis.daemon_exits_77());
            if (out == Outcome::converged && chassis.daemon_exits_77() != o.cards)
                chassis.fault("the global restart made " +
                              std::to_string(chassis.daemon_exits_77()) + " of " +
                              std::to_string(o.cards) + " daemons exit 77");
        }
        if (o.acl && out == Outcome::converged) {
            printf("card 1's user tries to change card 2's records; the operator deletes one of "
                   "card 2's entries and writes its deletion notice\n");
            fflush(stdout);
            auto t1 = Clock::now();
            out = chassis.confine(expected)
                      ? converge(chassis, view, expected, t1, o.timeout_s, have)
                      : Outcome::failed;
            if (out == Outcome::converged)
                printf("card 2 wrote itself again and removed the notice %lld ms after the "
                       "operator wrote it\n",
                       ms_since(t1));
            chassis.no_daemon_refused();
        }
        if (o.kill_primary && out == Outcome::converged) {
            printf("emptying the replica's db 28, then kill -9 the global primary: the sentinels "
                   "are to promote the replica, every vek_cap to exit 77 and start again\n");
            fflush(stdout);
            out = chassis.kill_primary() ? Outcome::converged : Outcome::failed;
            auto t1 = Clock::now();
            if (out == Outcome::converged)
                out = converge(chassis, view, expected, t1, o.timeout_s, have);
            if (out == Outcome::converged && chassis.failed_over())
                printf("db 28 complete on the new primary %lld ms after the kill; %d daemons "
                       "exited 77 and were started again\n",
                       ms_since(t1), chassis.daemon_exits_77());
            if (out == Outcome::converged && chassis.daemon_exits_77() != o.cards)
                chassis.fault("the failover made " + std::to_string(chassis.daemon_exits_77()) +
                              " of " + std::to_string(o.cards) + " daemons exit 77");
        }
    }
    if (out == Outcome::converged && fault && fault->after_converge) {
        auto t1 = Clock::now();
        fault_ok = fault->after_converge(fr);
        out = fault_ok ? converge(chassis, view, expected, t1, o.timeout_s, have) : Outcome::failed;
        if (out == Outcome::converged)
            printf("db 28 holds exactly the %zu expected records again, %lld ms after the fault "
                   "began\n",
                   expected.size(), ms_since(t1));
        if (out == Outcome::converged && fault->settled)
            fault_ok = fault->settled(fr);
    }
    if (out == Outcome::interrupted)
        return fail("interrupted");
    bool exact = out == Outcome::converged && fault_ok;
    if (out != Outcome::converged && fault_ok) {
        printf("db 28 does not hold what the inputs give:\n");
        print_difference(expected, have);
    }
    if (o.keep) {
        print_faults(chassis);
        print_keep(chassis);
        chassis.detach();
        *kept = true;
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
} // namespace

int main(int argc, char **argv)
{
    Options o;
    bool seed_given = false;
    for (int i = 1; i < argc; ++i)
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0)
            return fputs(usage_text, stdout), 0;
    if (auto why = parse_options(argc, argv, o, seed_given)) {
        fprintf(stderr, "vek_chassis: %s\n%s", why->c_str(), usage_text);
        return exit_usage;
    }
    if (!o.fault.empty() && !find_fault(o.fault)) {
        if (o.fault != "help")
            fprintf(stderr, "vek_chassis: no fault '%s'; the faults are:\n", o.fault.c_str());
        for (const Fault &f : faults)
            fprintf(o.fault == "help" ? stdout : stderr, "  %-15s %s\n", f.name, f.what);
        return o.fault == "help" ? 0 : exit_usage;
    }
    if (!seed_given)
        o.seed = std::random_device{}() % 1000000;
    Rng rng{std::mt19937_64(o.seed)};
    std::vector<Card> cards = make_cards(o, rng);
    std::vector<Input> inputs = boot_order(cards, o, rng);

    struct sigaction sa {};
    sa.sa_handler = on_signal;
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        sigaction(sig, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    const char *tmp = getenv("TMPDIR");
    std::string dir = std::string(tmp && *tmp ? tmp : "/tmp") + "/vek_chassis.XXXXXX";
    if (!mkdtemp(dir.data())) {
        perror("vek_chassis: mkdtemp");
        return exit_failed;
    }
    printf("vek_chassis: %d cards of %d entries, %d subcards of %d entries each; seed %llu "
           "(--seed %llu plays this order again)\n",
           o.cards, o.entries, o.subcards, o.subcard_entries,
           static_cast<unsigned long long>(o.seed), static_cast<unsigned long long>(o.seed));
    fflush(stdout);
    bool kept = false;
    int status = run(o, cards, inputs, dir, &kept);
    std::error_code ec;
    if (!kept)
        fs::remove_all(dir, ec);
    return status;
}
