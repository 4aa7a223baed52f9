// kx_mom connections: their lifecycle on the loop. A database is connected once by
// kx_mom_client_connect_sync; from then on libkx alone keeps it connected.
//
// Each database has a command connection (blocking, with a 2 s timeout, for the
// synchronous calls) and a subscriber connection (non-blocking, read and written by
// the loop). Any failure of either drops both: the database is down, its calls fail
// at once with KX_MOM_ENOTCONN, and a timer makes fresh connections until the server
// answers. Fresh ones, not redisReconnect: that would forget the timeout and the SELECT.
// The reconnect runs the handshake (kx_handshake.cpp) from the loop with a loop timer as
// its limit, so that a server that is stopped, paused or unreachable never holds the loop.
//
// Once back, the database first makes the writes it kept while away, then the reconnect
// callback runs, then its routes are restored (kx_mom_recover.cpp) once every other
// database on its server has had its attempt too. A new primary named
// by the sentinels is another server run: the reconnect reports it as a restarted server.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <sys/socket.h>

#include "kx_mom_state.h"

namespace kx {
namespace {

using Clock = std::chrono::steady_clock;

// Connection attempts: 100 ms after the loss, then twice the last wait, up to 5 s. A
// connection that held (stayed up for the longest wait) starts them from 100 ms again;
// one that keeps failing at once does not make them faster.
constexpr int kFirstRetryMs = 100;
constexpr int kLastRetryMs = 5000;
constexpr auto kHeld = std::chrono::milliseconds(kLastRetryMs);

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
        event_add(cmd_watch.get(), nullptr) != 0 || event_add(sub_read.get(), nullptr) != 0) {
        h.code = KX_MOM_ENOMEM;
        h.why = endpoint_text(h.settings.endpoint) + ": cannot set up the connections";
        return false;
    }
    d.endpoint = h.settings.endpoint;
    d.cmd = std::move(h.cmd);
    d.sub = std::move(h.sub);
    d.cmd_watch = std::move(cmd_watch);
    d.sub_read = std::move(sub_read);
    d.sub_write = std::move(sub_write);
    if (d.link == Link::never)
        d.run_id = h.run_id;
    d.link = Link::up;
    d.up_since = Clock::now();
    d.retry_failure.clear();
    ++d.epoch;
    return true;
}

void arm(Event &timer, std::chrono::milliseconds after)
{
    auto ms = after.count();
    timeval tv{static_cast<time_t>(ms / 1000), static_cast<suseconds_t>(ms % 1000 * 1000)};
    evtimer_add(timer.get(), &tv);
}

// The next connection attempt, after the wait the backoff gives.
void retry_later(Database &d)
{
    d.retry_ms = d.retry_ms == 0 ? kFirstRetryMs : std::min(d.retry_ms * 2, kLastRetryMs);
    arm(d.timer, std::chrono::milliseconds(d.retry_ms));
}

// The databases on the same server as `d` (its card's db 1 and db 3 share one) that are
// down now.
std::vector<Database *> siblings_down(const Database &d)
{
    std::vector<Database *> down;
    for (const auto &[db, other] : d.global->mom->dbs)
        if (other.get() != &d && other->link == Link::down &&
            other->endpoint.text == d.endpoint.text)
            down.push_back(other.get());
    return down;
}

// The databases on the server of `d` that waited for its attempt follow their routes again.
void release_waiting(const Database &d)
{
    for (const auto &[db, other] : d.global->mom->dbs)
        if (other->endpoint.text == d.endpoint.text && other->link == Link::up &&
            std::exchange(other->restore_due, false))
            restore_routes(*other);
}

// `d` is back. Its routes are followed again once every database on its server has had
// its attempt: a delivery of one of them often reads another (the identity record's
// publication reads the card's entries), and would find it still away and be given
// again, writing twice what it writes.
void restore_when_siblings_tried(Database &d)
{
    std::vector<Database *> down = siblings_down(d);
    if (!down.empty()) {
        d.restore_due = true;
        for (Database *sibling : down)
            if (!sibling->dial && !sibling->disconnect_pending)
                arm(sibling->timer, std::chrono::milliseconds(0)); // now, not after its backoff
        return;
    }
    restore_routes(d);
    release_waiting(d);
}

// `run_id` is the server's run now; the database's is the run its reconnect callback was
// last told of, so that a restart is reported even when a first attempt at reporting it
// was cut by another lost connection.
void reconnected(Database &d, const std::string &run_id)
{
    int32_t type = d.run_id == run_id ? KX_MOM_RECONNECT_SAME : KX_MOM_RECONNECT_RESTARTED;
    KX_LOG(NOTICE, "db %d: reconnected to %s (%s)", d.db, endpoint_text(d.endpoint).c_str(),
           type == KX_MOM_RECONNECT_SAME ? "same server run" : "the server restarted");
    // The writes kept while it was away go first: they are older than anything a
    // callback may write from now on.
    uint64_t epoch = d.epoch;
    if (make_kept_writes(d)) {
        d.run_id = run_id;
        if (d.on_reconnect)
            d.on_reconnect(d.global, d.db, type);
    }
    if (d.epoch != epoch) { // lost again: its attempt is over all the same
        release_waiting(d);
        return;
    }
    restore_when_siblings_tried(d);
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

// Waits for the socket the handshake needs, each stage within its own time limit.
bool wait_for_socket(Database &d, Wait w)
{
    Handshake &h = *d.dial;
    short what = w == Wait::read ? EV_READ : EV_WRITE;
    d.dial_io.reset(event_new(d.global->base, in_use(h)->fd, what, on_dial_io, &d));
    if (!d.dial_io || event_add(d.dial_io.get(), nullptr) != 0)
        return false;
    if (h.stage != h.timed_stage) {
        h.timed_stage = h.stage;
        arm(d.dial_deadline, limit(h));
    }
    return true;
}

void dial_on(Database &d, Wait w)
{
    if (w != Wait::none && wait_for_socket(d, w))
        return;
    std::unique_ptr<Handshake> done = std::move(d.dial);
    d.dial_io.reset();
    d.dial_deadline.reset();
    if (w != Wait::none) {
        done->code = KX_MOM_ENOMEM;
        done->why = endpoint_text(done->settings.endpoint) + ": cannot watch the connection";
    }
    if (done->code == 0 && install(d, *done)) {
        reconnected(d, done->run_id);
        return;
    }
    // A server that stays away for the same reason is reported once.
    if (done->why != d.retry_failure)
        KX_LOG(WARN, "db %d: reconnect failed: %s", d.db, done->why.c_str());
    d.retry_failure = done->why;
    retry_later(d);
    release_waiting(d);
}

void start_dial(Database &d)
{
    d.dial = std::make_unique<Handshake>();
    d.dial_deadline.reset(evtimer_new(d.global->base, on_dial_deadline, &d));
    if (!d.dial_deadline) {
        d.dial->code = KX_MOM_ENOMEM;
        d.dial->why = "out of memory";
        dial_on(d, Wait::none);
        return;
    }
    dial_on(d, open_handshake(d.db, *d.dial) ? advance(d.db, *d.dial) : Wait::none);
}

void on_timer(evutil_socket_t, short, void *arg)
{
    auto &d = *static_cast<Database *>(arg);
    if (d.disconnect_pending) {
        d.disconnect_pending = false;
        if (d.on_disconnect)
            d.on_disconnect(d.global, d.db);
        if (d.link == Link::down)
            retry_later(d);
        return;
    }
    if (d.link == Link::down && !d.dial)
        start_dial(d);
}

} // namespace

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
    KX_LOG(WARN, "db %d: connection to %s lost: %s", d.db, endpoint_text(d.endpoint).c_str(), why);
    d.link = Link::down;
    d.restore_due = false;
    ++d.epoch;
    d.cmd_watch.reset();
    d.sub_read.reset();
    d.sub_write.reset();
    d.cmd.reset();
    d.sub.reset();
    if (Clock::now() - d.up_since >= kHeld)
        d.retry_ms = 0;
    // What was waiting for its confirmation is sent again after the reconnect, and
    // what the routes delivered may no longer be what the store holds.
    for (Route *r : d.unconfirmed)
        r->pending = false;
    d.unconfirmed.clear();
    // A coming back of this database that was under way is over; its routes that another
    // database's coming back was checking are not to be settled.
    d.restoring = 0;
    for (const auto &[db, other] : d.global->mom->dbs)
        for (const auto &r : other->routes)
            if (r->restorer == &d || (other.get() == &d && r->restorer))
                restored(*r, false);
    for (const auto &r : d.routes)
        if (r->followed == Followed::live)
            r->followed = Followed::lost;
    d.disconnect_pending = true;
    arm(d.timer, std::chrono::milliseconds(0));
}

int32_t run_commands(Database &d, std::span<const Command> cmds, std::vector<Reply> *replies)
{
    replies->clear();
    if (d.link != Link::up)
        return KX_MOM_ENOTCONN;
    redisContext *c = d.cmd.get();
    if (append_commands(c, cmds) != REDIS_OK) {
        mark_down(d, "out of memory");
        return KX_MOM_ENOMEM;
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
    kx::Handshake h;
    if (kx::open_handshake(db, h))
        kx::handshake_now(db, h);
    if (h.code == 0)
        kx::install(*d, h);
    if (h.code != 0)
        KX_LOG(ERROR, "db %d: %s", db, h.why.c_str());
    else if (h.notify_unknown)
        KX_LOG(NOTICE,
               "db %d: %s: this user may not read the server's keyspace notification flags "
               "(CONFIG GET): the server must have notify-keyspace-events with %s (e.g. KEA)",
               db, kx::endpoint_text(d->endpoint).c_str(), std::string(kx::kNeededNotify).c_str());
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
