// kx_mom connections: configuration, the connect handshake and its server checks,
// failure detection and the reconnect.
//
// Each database has a command connection (blocking, with a 2 s timeout, for the
// synchronous calls) and a subscriber connection (non-blocking, read and written by
// the loop). Any failure of either drops both: the database is down, its calls fail
// at once with KX_MOM_ENOTCONN, and a timer (100 ms doubling to 5 s) makes fresh
// connections until the server answers. Fresh ones, not redisReconnect: that would
// forget the timeout and the SELECT.
//
// Connecting is a handshake: both connections are opened without waiting, then each
// step writes its commands and reads their replies as the sockets allow, within 2 s
// in all. kx_mom_client_connect_sync waits for it in poll(): its caller needs the
// result. A reconnect runs it from the loop with a loop timer as its limit, so that
// a server that is stopped, paused or unreachable never holds the loop.
//
// With a sentinel endpoint the handshake first asks the sentinels, in turn, where the
// primary is (each within 0.5 s), and the primary must then say it is one: a failover
// leaves sentinels naming the old primary for a while, and that one may come back as
// a replica. A new primary is another server run, so the reconnect reports it as a
// restarted server.
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include "kx_codec.h"
#include "kx_mom_state.h"

namespace kx {
namespace {

constexpr timeval kCommandTimeout{2, 0};
constexpr std::chrono::milliseconds kHandshakeLimit{2000};
constexpr std::chrono::milliseconds kSentinelLimit{500};
constexpr int kFirstRetryMs = 100;
constexpr int kLastRetryMs = 5000;
constexpr int kNeededDatabases = 29;
// Keyspace events on (K), for generic commands (g: del, rename, expire), hashes
// (h), strings ($), expiry (x) and eviction (e).
constexpr std::string_view kNeededNotify = "Kgh$xe";
constexpr std::string_view kUnit = "platform/kx";

bool parse_port(std::string_view text, int *port)
{
    int value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc() || end != text.data() + text.size() || value < 1 ||
        value > 65535)
        return false;
    *port = value;
    return true;
}

bool parse_sentinels(std::string_view text, Endpoint *ep);

bool parse_endpoint(std::string_view text, Endpoint *ep)
{
    ep->text = std::string(text);
    if (text.starts_with("unix:")) {
        ep->unix_socket = true;
        ep->where = std::string(text.substr(5));
        return !ep->where.empty();
    }
    if (text.starts_with("sentinel:"))
        return parse_sentinels(text.substr(9), ep);
    if (!text.starts_with("tcp:"))
        return false;
    std::string_view rest = text.substr(4);
    size_t colon = rest.rfind(':');
    if (colon == std::string_view::npos)
        return false;
    std::string_view host = rest.substr(0, colon);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    ep->unix_socket = false;
    ep->where = std::string(host);
    return !host.empty() && parse_port(rest.substr(colon + 1), &ep->port);
}

// HOST:PORT[,HOST:PORT...]/NAME, where a sentinel may also be unix:/path.
bool parse_sentinels(std::string_view text, Endpoint *ep)
{
    size_t slash = text.rfind('/');
    if (slash == std::string_view::npos || slash + 1 == text.size())
        return false;
    ep->primary_of = std::string(text.substr(slash + 1));
    for (std::string_view list = text.substr(0, slash);;) {
        std::string_view one = list.substr(0, list.find(','));
        Endpoint sentinel;
        if (!parse_endpoint(one.starts_with("unix:") ? std::string(one) : "tcp:" + std::string(one),
                            &sentinel))
            return false;
        sentinel.text = std::string(one);
        ep->sentinels.push_back(std::move(sentinel));
        if (one.size() == list.size())
            return true;
        list.remove_prefix(one.size() + 1);
    }
}

// The endpoint in messages: as configured, and the server a sentinel named.
std::string shown(const Endpoint &ep)
{
    if (ep.sentinels.empty() || ep.where.empty())
        return ep.text;
    return ep.text + " at " + ep.where + ":" + std::to_string(ep.port);
}

std::string reply_text(const redisReply *r)
{
    if (!r)
        return "no reply";
    if (r->type == REDIS_REPLY_STRING || r->type == REDIS_REPLY_STATUS ||
        r->type == REDIS_REPLY_ERROR)
        return printable(std::string_view(r->str, r->len));
    return "unexpected reply type " + std::to_string(r->type);
}

// Why an I/O call on `c` failed; a blocking read or write that timed out says so.
std::string io_failure(const redisContext *c)
{
    if (c->err == REDIS_ERR_IO && (errno == EAGAIN || errno == EWOULDBLOCK))
        return "no answer within " + std::to_string(kCommandTimeout.tv_sec) + " s";
    return c->errstr[0] ? c->errstr : "I/O error";
}

std::string user_name(const Handshake &h) { return h.user.value_or("default"); }

// The handshake fails for `what` at its endpoint.
bool fail(Handshake &h, int32_t code, const std::string &what)
{
    h.code = code;
    h.why = shown(h.endpoint) + ": " + what;
    return false;
}

bool endpoint_for(int32_t db, Handshake &h)
{
    std::string name = "KX_MOM_ADDR_" + std::to_string(db);
    const char *value = getenv(name.c_str());
    if (!value) {
        name = "KX_MOM_ADDR";
        value = getenv(name.c_str());
    }
    if (!value)
        value = "tcp:127.0.0.1:6379";
    if (parse_endpoint(value, &h.endpoint))
        return true;
    h.code = KX_MOM_ECONFIG;
    h.why = "bad " + name + " '" + printable(value) + "': expected " +
            (std::string_view(value).starts_with("sentinel:")
                 ? "sentinel:HOST:PORT[,HOST:PORT...]/NAME (a sentinel may be unix:/path)"
                 : "unix:/path/redis.sock or tcp:HOST:PORT");
    return false;
}

bool read_password(Handshake &h, const std::string &variable, const char *path)
{
    std::ifstream in(path);
    if (!in)
        return fail(h, KX_MOM_ECONFIG,
                    "cannot read " + variable + " '" + printable(path) + "': " + strerror(errno));
    std::string line;
    std::getline(in, line);
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    if (line.empty())
        return fail(h, KX_MOM_ECONFIG,
                    variable + " '" + printable(path) + "' holds no password on its first line");
    h.password = std::move(line);
    return true;
}

// The credentials for `db`: its own settings (KX_MOM_USER_<db>...) before the common
// ones, each password from the environment or from the first line of a file (so that
// the secret is not in every process's environment), never both.
bool credentials_for(int32_t db, Handshake &h)
{
    std::string user_variable;
    for (const std::string &own : {"_" + std::to_string(db), std::string()}) {
        if (const char *user = getenv(("KX_MOM_USER" + own).c_str()); user && !h.user) {
            h.user = user;
            user_variable = "KX_MOM_USER" + own;
        }
        std::string variable = "KX_MOM_PASSWORD" + own,
                    file_variable = "KX_MOM_PASSWORD_FILE" + own;
        const char *password = getenv(variable.c_str()), *file = getenv(file_variable.c_str());
        if (h.password || (!password && !file))
            continue;
        if (password && file)
            return fail(h, KX_MOM_ECONFIG, variable + " and " + file_variable + " are both set");
        if (password)
            h.password = password;
        else if (!read_password(h, file_variable, file))
            return false;
    }
    return !h.user || h.password ||
           fail(h, KX_MOM_ECONFIG,
                user_variable + " is set without KX_MOM_PASSWORD" + user_variable.substr(11));
}

redisContext *connect_without_waiting(const Endpoint &ep)
{
    return ep.unix_socket ? redisConnectUnixNonBlock(ep.where.c_str())
                          : redisConnectNonBlock(ep.where.c_str(), ep.port);
}

// Opens both connections to the server, without waiting for them.
bool open_server(Handshake &h)
{
    ++h.stage;
    for (Context *c : {&h.cmd, &h.sub}) {
        c->reset(connect_without_waiting(h.endpoint));
        if (!*c)
            return fail(h, KX_MOM_ENOMEM, "out of memory");
        if ((*c)->err)
            return fail(h, KX_MOM_ENOTCONN, std::string("cannot connect: ") + (*c)->errstr);
    }
    return true;
}

// The sentinel asked last named no primary, for `why`.
void unanswered(Handshake &h, const std::string &why)
{
    h.unanswered += (h.unanswered.empty() ? "" : "; ") +
                    h.endpoint.sentinels[h.next_sentinel - 1].text + ": " + why;
}

// Asks the next sentinel for the primary; with none left the handshake fails with
// what each of them said.
void ask_next_sentinel(Handshake &h)
{
    h.ask.reset();
    ++h.stage;
    const std::vector<Endpoint> &sentinels = h.endpoint.sentinels;
    while (h.next_sentinel < sentinels.size()) {
        Context c(connect_without_waiting(sentinels[h.next_sentinel++]));
        if (!c || (!c->err && append_command(c.get(), {"SENTINEL", "get-master-addr-by-name",
                                                       h.endpoint.primary_of}) != REDIS_OK)) {
            fail(h, KX_MOM_ENOMEM, "out of memory");
            return;
        }
        if (!c->err) {
            h.ask = std::move(c);
            return;
        }
        unanswered(h, c->errstr);
    }
    fail(h, KX_MOM_ENOTCONN,
         "no sentinel named the primary of '" + printable(h.endpoint.primary_of) +
             "': " + h.unanswered);
}

// The sentinel asked did not name the primary, for `why`: the next one is asked.
void sentinel_failed(Handshake &h, const std::string &why)
{
    unanswered(h, why);
    ask_next_sentinel(h);
}

// Takes the primary's address from a sentinel's answer; false when it names none.
bool take_primary(Handshake &h, const redisReply *r)
{
    if (r->type != REDIS_REPLY_ARRAY || r->elements != 2 ||
        r->element[0]->type != REDIS_REPLY_STRING || r->element[1]->type != REDIS_REPLY_STRING)
        return false;
    Endpoint &ep = h.endpoint;
    ep.unix_socket = false;
    ep.where.assign(r->element[0]->str, r->element[0]->len);
    return parse_port(std::string_view(r->element[1]->str, r->element[1]->len), &ep.port);
}

// What a handshake under way waits for; `none` once it is done or has failed.
enum class Wait { none, read, write };

// Waits for the sentinel asked to answer, then opens the connections to the primary
// it names; one that fails or names none hands over to the next.
Wait ask_sentinel(Handshake &h)
{
    while (h.ask) {
        redisContext *c = h.ask.get();
        int done = 0;
        void *r = nullptr;
        if (redisBufferWrite(c, &done) != REDIS_OK ||
            (done && redisGetReplyFromReader(c, &r) != REDIS_OK)) {
            sentinel_failed(h, io_failure(c));
            continue;
        }
        if (!done)
            return Wait::write;
        if (!r)
            return Wait::read;
        Reply answer(static_cast<redisReply *>(r));
        if (!take_primary(h, answer.get())) {
            sentinel_failed(h, answer->type == REDIS_REPLY_NIL
                                   ? "no primary named '" + printable(h.endpoint.primary_of) + "'"
                                   : reply_text(answer.get()));
            continue;
        }
        h.ask.reset();
        open_server(h);
    }
    return Wait::none;
}

// Parses the endpoint and the credentials, then opens both connections (or asks the
// first sentinel), without waiting.
bool open_handshake(int32_t db, Handshake &h)
{
    if (!endpoint_for(db, h) || !credentials_for(db, h))
        return false;
    if (h.endpoint.sentinels.empty())
        return open_server(h);
    ask_next_sentinel(h);
    return h.code == 0;
}

// Queues one command of a step: 1, or 0 when out of memory.
size_t queue(Handshake &h, redisContext *c, const Command &cmd)
{
    return append_command(c, cmd) == REDIS_OK ? 1 : (fail(h, KX_MOM_ENOMEM, "out of memory"), 0);
}

// The steps of the handshake. `send` queues a step's commands and gives their
// number (0 skips the step); `accept` checks their replies.
struct Step {
    const char *name;
    bool on_sub; // the subscriber connection, else the command connection
    size_t (*send)(int32_t db, Handshake &h, redisContext *c);
    bool (*accept)(int32_t db, Handshake &h, std::span<const Reply> replies);
};

// AUTH when a password is set, as the user when one is set too.
size_t send_auth(int32_t, Handshake &h, redisContext *c)
{
    if (!h.password)
        return 0;
    Command auth{"AUTH"};
    if (h.user)
        auth.push_back(*h.user);
    auth.push_back(*h.password);
    return queue(h, c, auth);
}

bool accept_auth(int32_t, Handshake &h, std::span<const Reply> r)
{
    return r[0]->type != REDIS_REPLY_ERROR ||
           fail(h, KX_MOM_ECONFIG,
                "AUTH as '" + user_name(h) + "' refused: " + reply_text(r[0].get()));
}

// The server a sentinel named must be the primary: a replica would refuse every write.
size_t send_role(int32_t, Handshake &h, redisContext *c)
{
    return h.endpoint.sentinels.empty() ? 0 : queue(h, c, {"ROLE"});
}

bool accept_role(int32_t, Handshake &h, std::span<const Reply> r)
{
    const redisReply *reply = r[0].get();
    if (reply->type == REDIS_REPLY_ERROR)
        return fail(h, KX_MOM_ECONFIG,
                    "ROLE refused: " + reply_text(reply) + ": allow ROLE for this user");
    std::string role = reply->type == REDIS_REPLY_ARRAY && reply->elements > 0
                           ? reply_text(reply->element[0])
                           : reply_text(reply);
    return role == "master" ||
           fail(h, KX_MOM_ENOTCONN,
                "the sentinels name it the primary of '" + printable(h.endpoint.primary_of) +
                    "' but its role is " + role + ": not connected until they name the primary");
}

// The value of a setting from its CONFIG GET reply; false with the failure set.
bool config_value(Handshake &h, const redisReply *r, const char *name, std::string *value)
{
    if (r->type == REDIS_REPLY_ERROR && std::string_view(r->str, r->len).starts_with("NOAUTH"))
        return fail(h, KX_MOM_ECONFIG,
                    "the server needs a password: set KX_MOM_PASSWORD or KX_MOM_PASSWORD_FILE "
                    "(and KX_MOM_USER for an ACL user), or their _<db> forms");
    if (r->type != REDIS_REPLY_ARRAY || r->elements != 2 ||
        r->element[1]->type != REDIS_REPLY_STRING)
        return fail(h, KX_MOM_ECONFIG,
                    std::string("cannot read the server's ") + name + " (" + reply_text(r) +
                        "): allow CONFIG GET for this user");
    value->assign(r->element[1]->str, r->element[1]->len);
    return true;
}

size_t send_databases(int32_t, Handshake &h, redisContext *c)
{
    return queue(h, c, {"CONFIG", "GET", "databases"});
}

bool accept_databases(int32_t, Handshake &h, std::span<const Reply> r)
{
    std::string text;
    if (!config_value(h, r[0].get(), "databases", &text))
        return false;
    int count = 0;
    std::from_chars(text.data(), text.data() + text.size(), count);
    return count >= kNeededDatabases || fail(h, KX_MOM_ECONFIG,
                                             "the server has " + printable(text) + " databases, " +
                                                 std::to_string(kNeededDatabases) +
                                                 " are needed: set `databases 32` in redis.conf");
}

size_t send_notify_get(int32_t, Handshake &h, redisContext *c)
{
    return queue(h, c, {"CONFIG", "GET", "notify-keyspace-events"});
}

bool accept_notify_get(int32_t, Handshake &h, std::span<const Reply> r)
{
    return config_value(h, r[0].get(), "notify-keyspace-events", &h.notify);
}

// The keyspace notification flags the subscriptions rely on that the server lacks.
std::string missing_notify(const std::string &flags)
{
    std::string have = flags;
    if (have.find('A') != std::string::npos)
        have += "g$lshzxetd";
    std::string missing;
    for (char f : kNeededNotify)
        if (have.find(f) == std::string::npos)
            missing += f;
    return missing;
}

size_t send_notify_set(int32_t, Handshake &h, redisContext *c)
{
    std::string missing = missing_notify(h.notify);
    return missing.empty()
               ? 0
               : queue(h, c, {"CONFIG", "SET", "notify-keyspace-events", h.notify + missing});
}

bool accept_notify_set(int32_t, Handshake &h, std::span<const Reply> r)
{
    return r[0]->type != REDIS_REPLY_ERROR ||
           fail(h, KX_MOM_ECONFIG,
                "keyspace notifications '" + printable(h.notify) + "' lack '" +
                    missing_notify(h.notify) + "' and CONFIG SET was refused (" +
                    reply_text(r[0].get()) + "): set `notify-keyspace-events KEA` in redis.conf");
}

// Redis 7 gives a new ACL user no channel at all: every subscription would be
// refused. One dry run per table libkx knows, with the channel that follows the
// table written as a plain name: any allowed passes, so a user granted only the
// channels it needs passes too. A server that will not dry-run for this user
// (an older one, or no ACL permission) is not checked here; its refusals are
// logged when they come.
size_t send_channel_probe(int32_t db, Handshake &h, redisContext *c)
{
    size_t n = 0;
    for (const ProtobufCMessageDescriptor *const *t = kx_mom_tables(); *t && h.code == 0; ++t)
        n += queue(
            h, c,
            {"ACL", "DRYRUN", user_name(h), "SUBSCRIBE", keyspace_prefix(db) + table_glob(*t)});
    return n;
}

bool accept_channel_probe(int32_t db, Handshake &h, std::span<const Reply> r)
{
    for (const Reply &reply : r)
        if (reply->type == REDIS_REPLY_ERROR || reply->type == REDIS_REPLY_STATUS)
            return true;
    std::string prefix = keyspace_prefix(db);
    return fail(h, KX_MOM_ECONFIG,
                "user '" + user_name(h) + "' may subscribe to no channel of db " +
                    std::to_string(db) + ": grant them, e.g. ACL SETUSER " + user_name(h) +
                    " allchannels, or '&" + prefix + "*' and each table followed whole as '&" +
                    prefix + "TABLE|*'");
}

// SELECT must be checked: a refused SELECT leaves the connection on db 0.
size_t send_select(int32_t db, Handshake &h, redisContext *c)
{
    return queue(h, c, {"SELECT", std::to_string(db)});
}

bool accept_select(int32_t db, Handshake &h, std::span<const Reply> r)
{
    return (r[0]->type == REDIS_REPLY_STATUS && std::string_view(r[0]->str, r[0]->len) == "OK") ||
           fail(h, KX_MOM_ECONFIG,
                "SELECT " + std::to_string(db) + " refused: " + reply_text(r[0].get()));
}

size_t send_run_id(int32_t, Handshake &h, redisContext *c)
{
    return queue(h, c, {"INFO", "server"});
}

bool accept_run_id(int32_t, Handshake &h, std::span<const Reply> r)
{
    std::string_view info =
        r[0]->type == REDIS_REPLY_STRING ? std::string_view(r[0]->str, r[0]->len) : "";
    size_t at = info.find("run_id:");
    if (at == std::string_view::npos)
        return fail(h, KX_MOM_EPROTO, "INFO server gave no run_id: " + reply_text(r[0].get()));
    info.remove_prefix(at + 7);
    h.run_id = std::string(info.substr(0, info.find_first_of("\r\n")));
    return true;
}

constexpr Step kSteps[] = {
    {"AUTH", false, send_auth, accept_auth},
    {"ROLE", false, send_role, accept_role},
    {"CONFIG GET databases", false, send_databases, accept_databases},
    {"CONFIG GET notify-keyspace-events", false, send_notify_get, accept_notify_get},
    {"CONFIG SET notify-keyspace-events", false, send_notify_set, accept_notify_set},
    {"ACL DRYRUN", false, send_channel_probe, accept_channel_probe},
    {"SELECT", false, send_select, accept_select},
    {"INFO server", false, send_run_id, accept_run_id},
    {"AUTH", true, send_auth, accept_auth},
};

redisContext *in_use(const Handshake &h)
{
    return h.ask ? h.ask.get() : (kSteps[h.step].on_sub ? h.sub : h.cmd).get();
}

// The time the stage under way may take: a sentinel's answer, or the rest.
std::chrono::milliseconds limit(const Handshake &h)
{
    return h.ask ? kSentinelLimit : kHandshakeLimit;
}

Wait io_failed(Handshake &h)
{
    std::string during = h.answered ? kSteps[h.step].name : "cannot connect";
    fail(h, KX_MOM_ENOTCONN, during + ": " + io_failure(in_use(h)));
    return Wait::none;
}

Wait advance(int32_t db, Handshake &h);

Wait timed_out(int32_t db, Handshake &h)
{
    if (h.ask) {
        sentinel_failed(h, "no answer within " + std::to_string(kSentinelLimit.count()) + " ms");
        return advance(db, h);
    }
    fail(h, KX_MOM_ENOTCONN,
         std::string("no answer to ") + kSteps[h.step].name + " within " +
             std::to_string(kHandshakeLimit.count() / 1000) + " s");
    return Wait::none;
}

// Moves the handshake on as far as it goes without waiting for a socket.
Wait advance(int32_t db, Handshake &h)
{
    if (Wait w = ask_sentinel(h); w != Wait::none)
        return w;
    for (; h.step < std::size(kSteps) && h.code == 0; ++h.step, h.sent = false) {
        const Step &s = kSteps[h.step];
        redisContext *c = in_use(h);
        if (!h.sent) {
            h.replies.clear();
            h.expected = s.send(db, h, c);
            h.sent = true;
            if (h.code != 0)
                break;
        }
        int written = 0;
        if (redisBufferWrite(c, &written) != REDIS_OK)
            return io_failed(h);
        if (!written)
            return Wait::write;
        while (h.replies.size() < h.expected) {
            void *r = nullptr;
            if (redisGetReplyFromReader(c, &r) != REDIS_OK)
                return io_failed(h);
            if (!r)
                return Wait::read;
            h.replies.emplace_back(static_cast<redisReply *>(r));
            h.answered = true;
        }
        if (h.expected > 0 && !s.accept(db, h, h.replies))
            break;
    }
    return Wait::none;
}

// The socket is ready for what the handshake waited for.
Wait resume(int32_t db, Handshake &h, Wait waited)
{
    if (waited == Wait::read && redisBufferRead(in_use(h)) != REDIS_OK) {
        if (!h.ask)
            return io_failed(h);
        sentinel_failed(h, io_failure(h.ask.get()));
    }
    return advance(db, h);
}

// kx_mom_client_connect_sync's handshake: poll() until it is done or the time is up.
void handshake_now(int32_t db, Handshake &h)
{
    using Clock = std::chrono::steady_clock;
    Clock::time_point deadline;
    for (Wait w = advance(db, h); w != Wait::none;) {
        if (h.stage != h.timed_stage) {
            h.timed_stage = h.stage;
            deadline = Clock::now() + limit(h);
        }
        pollfd p{in_use(h)->fd, static_cast<short>(w == Wait::read ? POLLIN : POLLOUT), 0};
        auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        int n = left.count() > 0 ? poll(&p, 1, static_cast<int>(left.count())) : 0;
        w = n == 0 || (n < 0 && errno != EINTR) ? timed_out(db, h) : resume(db, h, w);
    }
}

bool make_blocking(redisContext *c)
{
    int flags = fcntl(c->fd, F_GETFL);
    if (flags < 0 || fcntl(c->fd, F_SETFL, flags & ~O_NONBLOCK) < 0)
        return false;
    c->flags |= REDIS_BLOCK;
    return redisSetTimeout(c, kCommandTimeout) == REDIS_OK;
}

// A command connection is silent while idle: anything readable then is the
// server closing it (or a reply stream out of step, just as fatal).
void on_command_readable(evutil_socket_t fd, short, void *arg)
{
    auto &d = *static_cast<Database *>(arg);
    char byte;
    ssize_t n = recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return;
    mark_down(d, n == 0  ? "command connection closed by the server"
                 : n < 0 ? strerror(errno)
                         : "unexpected data on the command connection");
}

// The handshake's connections become the database's: the command connection
// blocking with the command timeout, the subscriber connection watched by the loop.
bool install(Database &d, Handshake &h)
{
    event_base *base = d.global->base;
    Event cmd_watch(event_new(base, h.cmd->fd, EV_READ | EV_PERSIST, on_command_readable, &d));
    Event sub_read(event_new(base, h.sub->fd, EV_READ | EV_PERSIST, on_subscriber_readable, &d));
    Event sub_write(event_new(base, h.sub->fd, EV_WRITE, on_subscriber_writable, &d));
    if (!make_blocking(h.cmd.get()) || !cmd_watch || !sub_read || !sub_write ||
        event_add(cmd_watch.get(), nullptr) != 0 || event_add(sub_read.get(), nullptr) != 0)
        return fail(h, KX_MOM_ENOMEM, "cannot set up the connections");
    d.endpoint = h.endpoint;
    d.cmd = std::move(h.cmd);
    d.sub = std::move(h.sub);
    d.cmd_watch = std::move(cmd_watch);
    d.sub_read = std::move(sub_read);
    d.sub_write = std::move(sub_write);
    d.run_id = h.run_id;
    d.link = Link::up;
    d.retry_ms = kFirstRetryMs;
    d.retry_failure.clear();
    ++d.epoch;
    return true;
}

// hiredis writes with write(2): a server that closed the connection would end the
// process with SIGPIPE instead of giving an error. The daemon ignores SIGPIPE
// itself; a program that left it at its default gets the same.
void ignore_sigpipe()
{
    struct sigaction current {};
    if (sigaction(SIGPIPE, nullptr, &current) == 0 && current.sa_handler == SIG_DFL)
        signal(SIGPIPE, SIG_IGN);
}

void arm(Database &d, int ms)
{
    timeval tv{ms / 1000, (ms % 1000) * 1000};
    evtimer_add(d.timer.get(), &tv);
}

void reconnected(Database &d, const std::string &previous_run_id)
{
    int32_t type = d.run_id == previous_run_id ? KX_MOM_RECONNECT_SAME : KX_MOM_RECONNECT_RESTARTED;
    KX_LOG(NOTICE, "db %d: reconnected to %s (%s)", d.db, shown(d.endpoint).c_str(),
           type == KX_MOM_RECONNECT_SAME ? "same server run" : "the server restarted");
    uint64_t epoch = d.epoch;
    if (d.on_reconnect)
        d.on_reconnect(d.global, d.db, type);
    if (d.epoch == epoch)
        resubscribe_all(d);
}

// A reconnect step has run: wait for its socket, or finish.
void dial_on(Database &d, Wait w);

void on_dial_io(evutil_socket_t, short what, void *arg)
{
    auto &d = *static_cast<Database *>(arg);
    dial_on(d, resume(d.db, *d.dial, what & EV_READ ? Wait::read : Wait::write));
}

void on_dial_deadline(evutil_socket_t, short, void *arg)
{
    auto &d = *static_cast<Database *>(arg);
    dial_on(d, timed_out(d.db, *d.dial));
}

// Each stage of the handshake gets its own time limit.
bool renew_deadline(Handshake &h)
{
    if (h.stage == h.timed_stage)
        return true;
    h.timed_stage = h.stage;
    auto ms = limit(h).count();
    timeval tv{static_cast<time_t>(ms / 1000), static_cast<suseconds_t>(ms % 1000 * 1000)};
    return evtimer_add(h.deadline.get(), &tv) == 0;
}

void dial_on(Database &d, Wait w)
{
    Handshake &h = *d.dial;
    if (w != Wait::none) {
        short what = w == Wait::read ? EV_READ : EV_WRITE;
        h.io.reset(event_new(d.global->base, in_use(h)->fd, what, on_dial_io, &d));
        if (h.io && event_add(h.io.get(), nullptr) == 0 && renew_deadline(h))
            return;
        fail(h, KX_MOM_ENOMEM, "cannot watch the connection");
    }
    std::unique_ptr<Handshake> done = std::move(d.dial);
    std::string previous_run_id = d.run_id;
    if (done->code == 0)
        install(d, *done);
    if (done->code == 0) {
        done.reset();
        reconnected(d, previous_run_id);
        return;
    }
    // A server that stays away for the same reason is reported once.
    if (done->why != d.retry_failure)
        KX_LOG(WARN, "db %d: reconnect failed: %s", d.db, done->why.c_str());
    d.retry_failure = done->why;
    d.retry_ms = std::min(d.retry_ms * 2, kLastRetryMs);
    arm(d, d.retry_ms);
}

void start_dial(Database &d)
{
    d.dial = std::make_unique<Handshake>();
    Handshake &h = *d.dial;
    h.deadline.reset(evtimer_new(d.global->base, on_dial_deadline, &d));
    if (!h.deadline)
        fail(h, KX_MOM_ENOMEM, "out of memory");
    dial_on(d, h.code == 0 && open_handshake(d.db, h) ? advance(d.db, h) : Wait::none);
}

void on_timer(evutil_socket_t, short, void *arg)
{
    auto &d = *static_cast<Database *>(arg);
    if (d.disconnect_pending) {
        d.disconnect_pending = false;
        if (d.on_disconnect)
            d.on_disconnect(d.global, d.db);
        if (d.link == Link::down)
            arm(d, d.retry_ms);
        return;
    }
    if (d.link == Link::down && !d.dial)
        start_dial(d);
}

} // namespace

void log_at(int level, const char *func, int line, const char *fmt, ...)
{
    char text[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    // One write per line, so that lines of concurrent writers do not mix.
    std::string plain = std::string("kx_mom: ") + text + "\n";
    fputs(plain.c_str(), stderr);
    fflush(stderr);
    if (kx_zlog_category_t *sink = log_sink())
        kxdf_zlog(sink, kUnit.data(), kUnit.size(), func, strlen(func), line, level, "%s", text);
}

Database *database(kx_global *global, int32_t db)
{
    if (!global || !global->base || db < 0)
        return nullptr;
    if (!global->mom)
        global->mom = new mom_state;
    auto &slot = global->mom->dbs[db];
    if (!slot) {
        slot = std::make_unique<Database>();
        slot->global = global;
        slot->db = db;
        slot->timer.reset(evtimer_new(global->base, on_timer, slot.get()));
        if (!slot->timer) {
            global->mom->dbs.erase(db);
            return nullptr;
        }
    }
    return slot.get();
}

Database *up_database(kx_global *global, int32_t db, int32_t *code)
{
    if (!global || db < 0) {
        *code = KX_MOM_EINVAL;
        return nullptr;
    }
    if (global->mom) {
        auto it = global->mom->dbs.find(db);
        if (it != global->mom->dbs.end() && it->second->link == Link::up)
            return it->second.get();
    }
    *code = KX_MOM_ENOTCONN;
    return nullptr;
}

void mark_down(Database &d, const char *why)
{
    if (d.link != Link::up)
        return;
    KX_LOG(WARN, "db %d: connection to %s lost: %s", d.db, shown(d.endpoint).c_str(), why);
    d.link = Link::down;
    ++d.epoch;
    d.cmd_watch.reset();
    d.sub_read.reset();
    d.sub_write.reset();
    d.cmd.reset();
    d.sub.reset();
    // What was waiting for its confirmation is sent again after the reconnect.
    for (Route *r : d.unconfirmed)
        r->pending = false;
    d.unconfirmed.clear();
    d.disconnect_pending = true;
    arm(d, 0);
}

int append_command(redisContext *c, const Command &cmd)
{
    std::vector<const char *> argv;
    std::vector<size_t> lens;
    for (auto arg : cmd) {
        argv.push_back(arg.data());
        lens.push_back(arg.size());
    }
    return redisAppendCommandArgv(c, static_cast<int>(argv.size()), argv.data(), lens.data());
}

int32_t run_commands(Database &d, std::span<const Command> cmds, std::vector<Reply> *replies)
{
    replies->clear();
    if (d.link != Link::up)
        return KX_MOM_ENOTCONN;
    redisContext *c = d.cmd.get();
    for (const Command &cmd : cmds) {
        if (append_command(c, cmd) != REDIS_OK) {
            mark_down(d, "out of memory");
            return KX_MOM_ENOMEM;
        }
    }
    for (size_t i = 0; i < cmds.size(); ++i) {
        void *r = nullptr;
        if (redisGetReply(c, &r) != REDIS_OK) {
            mark_down(d, io_failure(c).c_str());
            replies->clear();
            return KX_MOM_EIO;
        }
        replies->emplace_back(static_cast<redisReply *>(r));
    }
    return 0;
}

int32_t run_command(Database &d, const Command &cmd, Reply *reply)
{
    std::vector<Reply> replies;
    int32_t rc = run_commands(d, std::span<const Command>(&cmd, 1), &replies);
    if (rc == 0)
        *reply = std::move(replies[0]);
    return rc;
}

void mom_release(kx_global_t *global)
{
    if (!global)
        return;
    delete global->mom;
    global->mom = nullptr;
}

} // namespace kx

int32_t kx_mom_client_connect_sync(kx_global_t *global, int32_t db)
{
    kx::Database *d = kx::database(global, db);
    if (!d)
        return KX_MOM_EINVAL;
    if (d->link == kx::Link::up)
        return 0;
    if (d->link == kx::Link::down)
        return KX_MOM_ENOTCONN; // the reconnect is already at it
    kx::ignore_sigpipe();
    kx::Handshake h;
    if (kx::open_handshake(db, h))
        kx::handshake_now(db, h);
    if (h.code == 0)
        kx::install(*d, h);
    if (h.code != 0)
        KX_LOG(ERROR, "db %d: %s", db, h.why.c_str());
    return h.code;
}

int32_t kx_mom_client_set_disconnect_cb(kx_global_t *global, int32_t db, kx_mom_disconnect_cb cb,
                                        uint32_t)
{
    kx::Database *d = kx::database(global, db);
    if (!d)
        return KX_MOM_EINVAL;
    d->on_disconnect = cb;
    return 0;
}

int32_t kx_mom_client_set_reconnect_cb(kx_global_t *global, int32_t db, kx_mom_reconnect_cb cb,
                                       uint32_t)
{
    kx::Database *d = kx::database(global, db);
    if (!d)
        return KX_MOM_EINVAL;
    d->on_reconnect = cb;
    return 0;
}
