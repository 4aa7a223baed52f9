// The connect handshake: the commands that open a database's two connections and check
// its server, step by step, as the sockets allow. Protocol only: whoever drives it waits
// for the sockets (poll() in handshake_now, the loop for a reconnect) and owns the clock.
//
// Both connections are opened without waiting, then each step writes its commands and
// reads their replies, within 2 s in all. With a sentinel endpoint the handshake first
// asks the sentinels, in turn, where the primary is (each within 0.5 s), and the primary
// must then say it is one: a failover leaves sentinels naming the old primary for a
// while, and that one may come back as a replica.
#include "kx_handshake.h"

#include <cerrno>
#include <charconv>
#include <cstdlib>

#include <poll.h>

#include "kx_codec.h"

namespace kx {
namespace {

constexpr std::chrono::milliseconds kHandshakeLimit{2000};
constexpr std::chrono::milliseconds kSentinelLimit{500};

std::string user_name(const Handshake &h) { return h.settings.user.value_or("default"); }

// The handshake stops: it failed for `what` at its endpoint. Always false.
bool halt(Handshake &h, int32_t code, const std::string &what)
{
    h.code = code;
    h.why = endpoint_text(h.settings.endpoint) + ": " + what;
    return false;
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
        c->reset(connect_without_waiting(h.settings.endpoint));
        if (!*c)
            return halt(h, KX_MOM_ENOMEM, "out of memory");
        if ((*c)->err)
            return halt(h, KX_MOM_ENOTCONN, std::string("cannot connect: ") + (*c)->errstr);
    }
    return true;
}

// The sentinel asked last named no primary, for `why`.
void unanswered(Handshake &h, const std::string &why)
{
    h.unanswered += (h.unanswered.empty() ? "" : "; ") +
                    h.settings.endpoint.sentinels[h.next_sentinel - 1].text + ": " + why;
}

// Asks the next sentinel for the primary; with none left the handshake fails with
// what each of them said.
void ask_next_sentinel(Handshake &h)
{
    h.ask.reset();
    ++h.stage;
    const std::vector<Endpoint> &sentinels = h.settings.endpoint.sentinels;
    while (h.next_sentinel < sentinels.size()) {
        Context c(connect_without_waiting(sentinels[h.next_sentinel++]));
        if (!c ||
            (!c->err && append_command(c.get(), {"SENTINEL", "get-master-addr-by-name",
                                                 h.settings.endpoint.primary_of}) != REDIS_OK)) {
            halt(h, KX_MOM_ENOMEM, "out of memory");
            return;
        }
        if (!c->err) {
            h.ask = std::move(c);
            return;
        }
        unanswered(h, c->errstr);
    }
    halt(h, KX_MOM_ENOTCONN,
         "no sentinel named the primary of '" + printable(h.settings.endpoint.primary_of) +
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
    Endpoint &ep = h.settings.endpoint;
    ep.unix_socket = false;
    ep.where.assign(r->element[0]->str, r->element[0]->len);
    return parse_port(std::string_view(r->element[1]->str, r->element[1]->len), &ep.port);
}

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
                                   ? "no primary named '" +
                                         printable(h.settings.endpoint.primary_of) + "'"
                                   : reply_text(answer.get()));
            continue;
        }
        h.ask.reset();
        open_server(h);
    }
    return Wait::none;
}

// Queues one command of a step: 1, or 0 when out of memory.
size_t queue(Handshake &h, redisContext *c, const Command &cmd)
{
    if (append_command(c, cmd) == REDIS_OK)
        return 1;
    halt(h, KX_MOM_ENOMEM, "out of memory");
    return 0;
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
    if (!h.settings.password)
        return 0;
    Command auth{"AUTH"};
    if (h.settings.user)
        auth.push_back(*h.settings.user);
    auth.push_back(*h.settings.password);
    return queue(h, c, auth);
}

bool accept_auth(int32_t, Handshake &h, std::span<const Reply> r)
{
    if (r[0]->type != REDIS_REPLY_ERROR)
        return true;
    return halt(h, KX_MOM_ECONFIG,
                "AUTH as '" + user_name(h) + "' refused: " + reply_text(r[0].get()));
}

// A server whose ACL keeps CONFIG from this user (a card's user is granted no admin
// command: CONFIG GET would hand it the server's passwords) is not asked: the flags it
// lacks are not known, and the connect says which it must have.
size_t send_notify_get(int32_t, Handshake &h, redisContext *c)
{
    return queue(h, c, {"CONFIG", "GET", "notify-keyspace-events"});
}

bool accept_notify_get(int32_t, Handshake &h, std::span<const Reply> r)
{
    const redisReply *reply = r[0].get();
    const std::string_view text = reply->type == REDIS_REPLY_ERROR
                                      ? std::string_view(reply->str, reply->len)
                                      : std::string_view();
    if (text.starts_with("NOAUTH"))
        return halt(h, KX_MOM_ECONFIG,
                    "the server needs a password: set KX_MOM_PASSWORD or KX_MOM_PASSWORD_FILE "
                    "(and KX_MOM_USER for an ACL user), or their _<db> forms");
    if (text.starts_with("NOPERM")) {
        h.notify_unknown = true;
        return true;
    }
    if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 2 ||
        reply->element[1]->type != REDIS_REPLY_STRING)
        return halt(h, KX_MOM_ECONFIG,
                    "cannot read the server's notify-keyspace-events: " + reply_text(reply));
    h.notify.assign(reply->element[1]->str, reply->element[1]->len);
    return true;
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
    return h.notify_unknown || missing.empty()
               ? 0
               : queue(h, c, {"CONFIG", "SET", "notify-keyspace-events", h.notify + missing});
}

bool accept_notify_set(int32_t, Handshake &h, std::span<const Reply> r)
{
    if (r[0]->type != REDIS_REPLY_ERROR)
        return true;
    return halt(h, KX_MOM_ECONFIG,
                "keyspace notifications '" + printable(h.notify) + "' lack '" +
                    missing_notify(h.notify) + "' and CONFIG SET was refused (" +
                    reply_text(r[0].get()) + "): set `notify-keyspace-events KEA` in redis.conf");
}

// SELECT proves the server has the database, with no admin command; it must be checked:
// a refused SELECT leaves the connection on db 0.
size_t send_select(int32_t db, Handshake &h, redisContext *c)
{
    return queue(h, c, {"SELECT", std::to_string(db)});
}

bool accept_select(int32_t db, Handshake &h, std::span<const Reply> r)
{
    const redisReply *reply = r[0].get();
    if (reply->type == REDIS_REPLY_STATUS && std::string_view(reply->str, reply->len) == "OK")
        return true;
    const bool small =
        reply->type == REDIS_REPLY_ERROR &&
        std::string_view(reply->str, reply->len).find("out of range") != std::string_view::npos;
    return halt(h, KX_MOM_ECONFIG,
                "SELECT " + std::to_string(db) + " refused: " + reply_text(reply) +
                    (small ? ": set `databases 32` in redis.conf" : ""));
}

// The server's run (run_id, to tell a restarted server at a reconnect) and, behind
// sentinels, its role: a replica the sentinels still name would refuse every write.
size_t send_info(int32_t, Handshake &h, redisContext *c)
{
    return queue(h, c, {"INFO", "server", "replication"});
}

// The value of `field` in INFO text, or empty.
std::string_view info_field(std::string_view info, std::string_view field)
{
    for (size_t at = 0; (at = info.find(field, at)) != std::string_view::npos; ++at)
        if ((at == 0 || info[at - 1] == '\n') && info.substr(at + field.size()).starts_with(":")) {
            std::string_view value = info.substr(at + field.size() + 1);
            return value.substr(0, value.find_first_of("\r\n"));
        }
    return {};
}

bool accept_info(int32_t, Handshake &h, std::span<const Reply> r)
{
    const std::string_view info =
        r[0]->type == REDIS_REPLY_STRING ? std::string_view(r[0]->str, r[0]->len) : "";
    h.run_id = std::string(info_field(info, "run_id"));
    if (h.run_id.empty())
        return halt(h, KX_MOM_EPROTO, "INFO gave no run_id: " + reply_text(r[0].get()));
    const std::string_view role = info_field(info, "role");
    if (h.settings.endpoint.sentinels.empty() || role == "master")
        return true;
    return halt(h, KX_MOM_ENOTCONN,
                "the sentinels name it the primary of '" +
                    printable(h.settings.endpoint.primary_of) + "' but its role is " +
                    std::string(role) + ": not connected until they name the primary");
}

constexpr Step kSteps[] = {
    {"AUTH", false, send_auth, accept_auth},
    {"CONFIG GET notify-keyspace-events", false, send_notify_get, accept_notify_get},
    {"CONFIG SET notify-keyspace-events", false, send_notify_set, accept_notify_set},
    {"SELECT", false, send_select, accept_select},
    {"INFO", false, send_info, accept_info},
    {"AUTH", true, send_auth, accept_auth},
};

} // namespace

redisContext *in_use(const Handshake &h)
{
    return h.ask ? h.ask.get() : (kSteps[h.step].on_sub ? h.sub : h.cmd).get();
}

// The time the stage under way may take: a sentinel's answer, or the rest.
std::chrono::milliseconds limit(const Handshake &h)
{
    return h.ask ? kSentinelLimit : kHandshakeLimit;
}

namespace {

Wait io_failed(Handshake &h)
{
    std::string during = h.answered ? kSteps[h.step].name : "cannot connect";
    halt(h, KX_MOM_ENOTCONN, during + ": " + io_failure(in_use(h)));
    return Wait::none;
}

} // namespace

Wait timed_out(int32_t db, Handshake &h)
{
    if (h.ask) {
        sentinel_failed(h, "no answer within " + std::to_string(kSentinelLimit.count()) + " ms");
        return advance(db, h);
    }
    halt(h, KX_MOM_ENOTCONN,
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

bool open_handshake(int32_t db, Handshake &h)
{
    h.code = settings_for(
        db, [](const std::string &name) -> const char * { return getenv(name.c_str()); },
        &h.settings, &h.why);
    if (h.code != 0)
        return false;
    if (h.settings.endpoint.sentinels.empty())
        return open_server(h);
    ask_next_sentinel(h);
    return h.code == 0;
}

} // namespace kx
