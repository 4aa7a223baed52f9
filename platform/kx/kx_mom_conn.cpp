// kx_mom connections: configuration, connect and server checks, failure
// detection and the reconnect timer.
//
// Each database has a synchronous command connection (2 s timeout) and a
// subscriber connection read from the loop. Any failure of either drops both:
// the database is down, sync calls fail at once with KX_MOM_ENOTCONN, and a timer
// (100 ms doubling to 5 s) makes fresh connections until the server answers.
// Fresh ones, not redisReconnect: that would forget the timeout and the SELECT.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/socket.h>

#include "kx_codec.h"
#include "kx_mom_state.h"

namespace kx {
namespace {

constexpr timeval kCommandTimeout{2, 0};
constexpr int kFirstRetryMs = 100;
constexpr int kLastRetryMs = 5000;
constexpr int kNeededDatabases = 29;
// Keyspace events on (K), for generic commands (g: del, rename, expire), hashes
// (h), strings ($), expiry (x) and eviction (e).
constexpr std::string_view kNeededNotify = "Kgh$xe";
constexpr std::string_view kUnit = "platform/kx";

struct Failure {
    int32_t code;
    std::string why;
};

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

bool parse_endpoint(std::string_view text, Endpoint *ep)
{
    ep->text = std::string(text);
    if (text.starts_with("unix:")) {
        ep->unix_socket = true;
        ep->where = std::string(text.substr(5));
        return !ep->where.empty();
    }
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

int32_t endpoint_for(int32_t db, Endpoint *ep)
{
    std::string name = "KX_MOM_ADDR_" + std::to_string(db);
    const char *value = getenv(name.c_str());
    if (!value) {
        name = "KX_MOM_ADDR";
        value = getenv(name.c_str());
    }
    if (!value)
        value = "tcp:127.0.0.1:6379";
    if (parse_endpoint(value, ep))
        return 0;
    KX_LOG(ERROR, "db %d: bad %s '%s': expected unix:/path/redis.sock or tcp:HOST:PORT", db,
           name.c_str(), printable(value).c_str());
    return KX_MOM_ECONFIG;
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

// One command on a context being set up (not yet part of a database).
Reply setup_command(redisContext *c, const Command &cmd, Failure *fail)
{
    void *r = nullptr;
    if (append_command(c, cmd) != REDIS_OK || redisGetReply(c, &r) != REDIS_OK) {
        *fail = {KX_MOM_ENOTCONN, std::string(cmd[0]) + ": " + c->errstr};
        return nullptr;
    }
    return Reply(static_cast<redisReply *>(r));
}

bool opens(redisContext *c, const Endpoint &ep, Context *out, Failure *fail)
{
    out->reset(c);
    if (!c) {
        *fail = {KX_MOM_ENOMEM, "out of memory"};
        return false;
    }
    if (c->err) {
        *fail = {KX_MOM_ENOTCONN, "cannot connect to " + ep.text + ": " + c->errstr};
        return false;
    }
    redisSetTimeout(c, kCommandTimeout);
    return true;
}

// A connection to the endpoint, authenticated when KX_MOM_PASSWORD is set.
bool open_connection(const Endpoint &ep, Context *out, Failure *fail)
{
    redisContext *c = ep.unix_socket
                          ? redisConnectUnixWithTimeout(ep.where.c_str(), kCommandTimeout)
                          : redisConnectWithTimeout(ep.where.c_str(), ep.port, kCommandTimeout);
    if (!opens(c, ep, out, fail))
        return false;
    const char *user = getenv("KX_MOM_USER");
    const char *password = getenv("KX_MOM_PASSWORD");
    if (!password) {
        if (user) {
            *fail = {KX_MOM_ECONFIG, "KX_MOM_USER is set without KX_MOM_PASSWORD"};
            return false;
        }
        return true;
    }
    Command auth{"AUTH"};
    if (user)
        auth.push_back(user);
    auth.push_back(password);
    Reply r = setup_command(c, auth, fail);
    if (!r)
        return false;
    if (r->type == REDIS_REPLY_ERROR) {
        *fail = {KX_MOM_ECONFIG, "AUTH refused by " + ep.text + ": " + reply_text(r.get())};
        return false;
    }
    return true;
}

// Only the loop reads and writes the subscriber connection: it must never wait.
bool make_nonblocking(redisContext *c, Failure *fail)
{
    int flags = fcntl(c->fd, F_GETFL);
    if (flags < 0 || fcntl(c->fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        *fail = {KX_MOM_ENOTCONN, std::string("subscriber connection: ") + strerror(errno)};
        return false;
    }
    c->flags &= ~REDIS_BLOCK;
    return true;
}

// The value of one setting from CONFIG GET; false with *fail set.
bool config_get(redisContext *c, const char *name, std::string *value, Failure *fail)
{
    Reply r = setup_command(c, {"CONFIG", "GET", name}, fail);
    if (!r)
        return false;
    if (r->type == REDIS_REPLY_ERROR && std::string_view(r->str, r->len).starts_with("NOAUTH")) {
        *fail = {KX_MOM_ECONFIG, "the server needs a password: set KX_MOM_PASSWORD (and "
                                 "KX_MOM_USER for an ACL user)"};
        return false;
    }
    if (r->type != REDIS_REPLY_ARRAY || r->elements != 2 ||
        r->element[1]->type != REDIS_REPLY_STRING) {
        *fail = {KX_MOM_ECONFIG, std::string("cannot read the server's ") + name + " (" +
                                     reply_text(r.get()) +
                                     "): allow CONFIG GET for this user"};
        return false;
    }
    value->assign(r->element[1]->str, r->element[1]->len);
    return true;
}

bool check_databases(redisContext *c, Failure *fail)
{
    std::string text;
    if (!config_get(c, "databases", &text, fail))
        return false;
    int count = 0;
    std::from_chars(text.data(), text.data() + text.size(), count);
    if (count >= kNeededDatabases)
        return true;
    *fail = {KX_MOM_ECONFIG, "the server has " + printable(text) + " databases, " +
                                 std::to_string(kNeededDatabases) +
                                 " are needed: set `databases 32` in redis.conf"};
    return false;
}

// Adds the keyspace notification flags the subscriptions rely on.
bool check_notifications(redisContext *c, Failure *fail)
{
    std::string flags;
    if (!config_get(c, "notify-keyspace-events", &flags, fail))
        return false;
    std::string have = flags;
    if (have.find('A') != std::string::npos)
        have += "g$lshzxetd";
    std::string missing;
    for (char f : kNeededNotify)
        if (have.find(f) == std::string::npos)
            missing += f;
    if (missing.empty())
        return true;
    Reply r = setup_command(c, {"CONFIG", "SET", "notify-keyspace-events", flags + missing}, fail);
    if (!r)
        return false;
    if (r->type == REDIS_REPLY_ERROR) {
        *fail = {KX_MOM_ECONFIG, "keyspace notifications '" + printable(flags) + "' lack '" +
                                     missing + "' and CONFIG SET was refused (" +
                                     reply_text(r.get()) +
                                     "): set `notify-keyspace-events KEA` in redis.conf"};
        return false;
    }
    return true;
}

// SELECT must be checked: a refused SELECT leaves the connection on db 0.
bool select_db(redisContext *c, int32_t db, Failure *fail)
{
    Reply r = setup_command(c, {"SELECT", std::to_string(db)}, fail);
    if (!r)
        return false;
    if (r->type != REDIS_REPLY_STATUS || std::string_view(r->str, r->len) != "OK") {
        *fail = {KX_MOM_ECONFIG, "SELECT " + std::to_string(db) + " refused: " + reply_text(r.get())};
        return false;
    }
    return true;
}

bool read_run_id(redisContext *c, std::string *run_id, Failure *fail)
{
    Reply r = setup_command(c, {"INFO", "server"}, fail);
    if (!r)
        return false;
    std::string_view info = r->type == REDIS_REPLY_STRING ? std::string_view(r->str, r->len) : "";
    size_t at = info.find("run_id:");
    if (at == std::string_view::npos) {
        *fail = {KX_MOM_EPROTO, "INFO server gave no run_id: " + reply_text(r.get())};
        return false;
    }
    info.remove_prefix(at + 7);
    *run_id = std::string(info.substr(0, info.find_first_of("\r\n")));
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

// A command connection is silent while idle: anything readable then is the
// server closing it (or a reply stream out of step, just as fatal).
void on_command_readable(evutil_socket_t fd, short, void *arg)
{
    auto &d = *static_cast<Database *>(arg);
    char byte;
    ssize_t n = recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return;
    mark_down(d, n == 0   ? "command connection closed by the server"
                 : n < 0 ? strerror(errno)
                         : "unexpected data on the command connection");
}

void try_reconnect(Database &d)
{
    std::string previous = d.run_id;
    int32_t rc = connect_database(d);
    if (rc != 0) {
        d.retry_ms = std::min(d.retry_ms * 2, kLastRetryMs);
        arm(d, d.retry_ms);
        return;
    }
    int32_t type = d.run_id == previous ? KX_MOM_RECONNECT_SAME : KX_MOM_RECONNECT_RESTARTED;
    KX_LOG(NOTICE, "db %d: reconnected to %s (%s)", d.db, d.endpoint.text.c_str(),
           type == KX_MOM_RECONNECT_SAME ? "same server run" : "the server restarted");
    uint64_t epoch = d.epoch;
    if (d.on_reconnect)
        d.on_reconnect(d.global, d.db, type);
    if (d.epoch == epoch)
        resubscribe_all(d);
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
    if (d.link == Link::down)
        try_reconnect(d);
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

int32_t connect_database(Database &d)
{
    int32_t rc = endpoint_for(d.db, &d.endpoint);
    if (rc != 0)
        return rc;
    Failure fail{0, ""};
    Context cmd, sub;
    std::string run_id;
    bool ok = open_connection(d.endpoint, &cmd, &fail) && check_databases(cmd.get(), &fail) &&
              check_notifications(cmd.get(), &fail) && select_db(cmd.get(), d.db, &fail) &&
              read_run_id(cmd.get(), &run_id, &fail) &&
              open_connection(d.endpoint, &sub, &fail) && make_nonblocking(sub.get(), &fail);
    Event cmd_watch, sub_read, sub_write;
    if (ok) {
        cmd_watch.reset(event_new(d.global->base, cmd->fd, EV_READ | EV_PERSIST,
                                  on_command_readable, &d));
        sub_read.reset(event_new(d.global->base, sub->fd, EV_READ | EV_PERSIST,
                                 on_subscriber_readable, &d));
        sub_write.reset(event_new(d.global->base, sub->fd, EV_WRITE, on_subscriber_writable, &d));
        if (!cmd_watch || !sub_read || !sub_write || event_add(cmd_watch.get(), nullptr) != 0 ||
            event_add(sub_read.get(), nullptr) != 0)
            fail = {KX_MOM_ENOMEM, "cannot watch the connections"}, ok = false;
    }
    if (!ok) {
        // A retry that keeps failing for the same reason is reported once.
        if (d.link != Link::down)
            KX_LOG(ERROR, "db %d: %s: %s", d.db, d.endpoint.text.c_str(), fail.why.c_str());
        else if (!d.retry_logged)
            KX_LOG(WARN, "db %d: %s: %s", d.db, d.endpoint.text.c_str(), fail.why.c_str());
        d.retry_logged = d.link == Link::down;
        return fail.code;
    }
    d.cmd = std::move(cmd);
    d.sub = std::move(sub);
    d.cmd_watch = std::move(cmd_watch);
    d.sub_read = std::move(sub_read);
    d.sub_write = std::move(sub_write);
    d.run_id = run_id;
    d.link = Link::up;
    d.retry_ms = kFirstRetryMs;
    d.retry_logged = false;
    ++d.epoch;
    return 0;
}

void mark_down(Database &d, const char *why)
{
    if (d.link != Link::up)
        return;
    KX_LOG(WARN, "db %d: connection to %s lost: %s", d.db, d.endpoint.text.c_str(), why);
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
            mark_down(d, c->errstr[0] ? c->errstr : "I/O error");
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
        return KX_MOM_ENOTCONN; // the retry timer is already at it
    kx::ignore_sigpipe();
    return kx::connect_database(*d);
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
