// kx_mom subscriptions: SUBSCRIBE for one record, PSUBSCRIBE for a table, and
// keyspace events turned into deliveries.
//
// The subscriber connection is a plain non-blocking redisContext that only the loop
// reads and writes: a (P)SUBSCRIBE is queued and written when the socket takes it,
// replies are taken from its reader as they come, so that a confirmation (cmd 29)
// is always delivered from the loop and nothing here ever waits for the server.
// Notifications carry only the event's name: the record is read now, on the command
// connection.
//
// A route is never lost: one asked for while the database is down, or whose
// confirmation a lost connection took away, is sent when the database is back. One
// already pending is not sent again: requests made meanwhile share its confirmation.
// What a route delivers is noted (kx_mom_recover.cpp), so that after a lost connection
// it is given what changed meanwhile, and nothing else.
#include <algorithm>
#include <string>

#include "kx_codec.h"
#include "kx_mom_state.h"

namespace kx {
namespace {

enum class Action { ignore, changed, fields_removed, deleted };

struct EventAction {
    std::string_view event;
    Action hash;  // for a table stored as hashes
    Action whole; // for a table stored as whole values
};

constexpr EventAction kEvents[] = {
    {"hset", Action::changed, Action::ignore},
    {"hdel", Action::fields_removed, Action::ignore},
    {"set", Action::ignore, Action::changed},
    {"rename_to", Action::changed, Action::changed},
    {"del", Action::deleted, Action::deleted},
    {"expired", Action::deleted, Action::deleted},
    {"evicted", Action::deleted, Action::deleted},
    {"rename_from", Action::deleted, Action::deleted},
};

Action action_for(std::string_view event, const ProtobufCMessageDescriptor *table)
{
    for (const auto &e : kEvents)
        if (e.event == event)
            return stored_whole(table) ? e.whole : e.hash;
    return Action::ignore;
}

std::string_view text_of(const redisReply *r)
{
    return r && (r->type == REDIS_REPLY_STRING || r->type == REDIS_REPLY_STATUS)
               ? std::string_view(r->str, r->len)
               : std::string_view();
}

void confirm(Database &d, std::string_view channel, bool pattern)
{
    auto it = std::find_if(d.unconfirmed.begin(), d.unconfirmed.end(), [&](const Route *r) {
        return r->pattern == pattern && r->channel == channel;
    });
    if (it == d.unconfirmed.end())
        return;
    Route *route = *it;
    d.unconfirmed.erase(it);
    route->pending = false;
    settle(d, *route);
}

// The payload of one event, read now; cmd 0 when there is nothing to deliver.
Payload read_payload(Database &d, const ProtobufCMessageDescriptor *table, const std::string &key,
                     Action action)
{
    Payload p;
    std::string error;
    Message from_key(parse_key(table, key, &error));
    if (!from_key) {
        KX_LOG(WARN, "db %d: notification skipped: %s", d.db, error.c_str());
        return p;
    }
    if (action == Action::deleted) {
        p.cmd = KX_MOM_CMD_DEL;
        p.record = std::move(from_key);
        return p;
    }
    Reads read;
    if (read.run(d, table, {&key, 1}) != 0)
        return p;
    return payload_from_reply(d.db, key, table, read.at(0),
                              action == Action::changed ? KX_MOM_CMD_HSET : KX_MOM_CMD_HDEL);
}

void dispatch(Database &d, std::string_view channel, const redisReply *pattern,
              std::string_view event)
{
    std::string prefix = keyspace_prefix(d.db);
    if (!channel.starts_with(prefix))
        return;
    std::vector<Route *> routes;
    for (const auto &r : d.routes) {
        bool match = pattern ? r->pattern && r->channel == text_of(pattern)
                             : !r->pattern && r->channel == channel;
        if (match)
            routes.push_back(r.get());
    }
    if (routes.empty())
        return;
    const ProtobufCMessageDescriptor *table = routes[0]->table;
    Action action = action_for(event, table);
    if (action == Action::ignore)
        return;
    std::string key(channel.substr(prefix.size()));
    const uint64_t epoch = d.epoch;
    Payload p = read_payload(d, table, key, action);
    // It changed, but how is for the reconcile to read. A record a route never had is
    // left out: the reconcile gives it as new if it is still there, and nothing if not.
    if (d.epoch != epoch)
        for (Route *route : routes)
            if (auto had = route->delivered.find(key); had != route->delivered.end())
                had->second = {kUnsure, {}};
    if (p.cmd == 0)
        return;
    std::optional<uint64_t> digest;
    if (p.cmd != KX_MOM_CMD_DEL)
        digest = p.digest;
    for (Route *route : routes)
        if (!deliver_to_route(d, *route, p.cmd, p.data(), key, digest))
            return;
}

// The server refused a (P)SUBSCRIBE (NOPERM for a channel the ACL user lacks):
// replies come in the order sent, so it is the oldest one pending. The route stays
// and is tried again after the next reconnect.
void refused(Database &d, const redisReply *r)
{
    if (d.unconfirmed.empty()) {
        KX_LOG(ERROR, "db %d: subscriber connection: the server said: %.*s", d.db,
               static_cast<int>(r->len), r->str);
        return;
    }
    Route *route = d.unconfirmed.front();
    d.unconfirmed.pop_front();
    route->pending = false;
    KX_LOG(ERROR, "db %d: %s %s refused: %.*s", d.db, route->pattern ? "PSUBSCRIBE" : "SUBSCRIBE",
           route->channel.c_str(), static_cast<int>(r->len), r->str);
    restored(*route, false);
}

// One reply of the subscriber connection: a confirmation, a refusal or a notification.
void handle_push(Database &d, const redisReply *r)
{
    if (r->type == REDIS_REPLY_ERROR)
        return refused(d, r);
    if (r->type != REDIS_REPLY_ARRAY || r->elements < 3)
        return;
    std::string_view kind = text_of(r->element[0]);
    if (kind == "subscribe" || kind == "psubscribe")
        confirm(d, text_of(r->element[1]), kind == "psubscribe");
    else if (kind == "message")
        dispatch(d, text_of(r->element[1]), nullptr, text_of(r->element[2]));
    else if (kind == "pmessage" && r->elements == 4)
        dispatch(d, text_of(r->element[2]), r->element[1], text_of(r->element[3]));
}

} // namespace

void on_subscriber_readable(evutil_socket_t, short, void *arg)
{
    auto &d = *static_cast<Database *>(arg);
    uint64_t epoch = d.epoch;
    redisContext *c = d.sub.get();
    if (redisBufferRead(c) != REDIS_OK) {
        mark_down(d, c->err == REDIS_ERR_EOF ? "subscriber connection closed by the server"
                                             : c->errstr);
        return;
    }
    for (;;) {
        void *r = nullptr;
        if (redisGetReplyFromReader(c, &r) != REDIS_OK) {
            mark_down(d, c->errstr);
            return;
        }
        if (!r)
            return;
        Reply reply(static_cast<redisReply *>(r));
        handle_push(d, reply.get());
        // A callback may have lost the connection: `c` is gone with it.
        if (d.epoch != epoch)
            return;
    }
}

void on_subscriber_writable(evutil_socket_t, short, void *arg)
{
    auto &d = *static_cast<Database *>(arg);
    int done = 0;
    if (redisBufferWrite(d.sub.get(), &done) != REDIS_OK)
        mark_down(d, d.sub->errstr);
    else if (!done)
        event_add(d.sub_write.get(), nullptr);
}

void send_subscribe(Database &d, Route &route)
{
    if (route.pending || d.link != Link::up)
        return;
    if (append_command(d.sub.get(), {route.pattern ? "PSUBSCRIBE" : "SUBSCRIBE", route.channel}) !=
        REDIS_OK) {
        mark_down(d, "out of memory"); // the route goes out after the reconnect
        return;
    }
    route.pending = true;
    d.unconfirmed.push_back(&route);
    event_add(d.sub_write.get(), nullptr);
}

} // namespace kx

int32_t kx_mom_subscribe(kx_global_t *global, int32_t db, const ProtobufCMessage *key, uint32_t,
                         kx_mom_cb cb, void *privdata)
{
    if (!kx::known_table(key) || !cb || !global || db < 0)
        return KX_MOM_EINVAL;
    kx::Database *d = kx::database(global, db);
    if (!d)
        return KX_MOM_EINVAL;
    if (d->link == kx::Link::never)
        return KX_MOM_ENOTCONN; // nothing would ever bring it up
    std::string record;
    bool pattern = kx::selects_glob(key, &record);
    std::string channel = kx::keyspace_prefix(db) + record;
    auto same = [&](const auto &r) {
        return r->channel == channel && r->pattern == pattern && r->cb == cb &&
               r->privdata == privdata;
    };
    auto it = std::find_if(d->routes.begin(), d->routes.end(), same);
    if (it == d->routes.end()) {
        d->routes.push_back(std::make_unique<kx::Route>(kx::Route{.db = db,
                                                                  .table = key->descriptor,
                                                                  .channel = channel,
                                                                  .pattern = pattern,
                                                                  .key = record,
                                                                  .cb = cb,
                                                                  .privdata = privdata}));
        it = std::prev(d->routes.end());
    }
    (*it)->announce = true;
    kx::send_subscribe(*d, **it);
    return 0;
}
