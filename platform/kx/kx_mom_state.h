// kx_mom behind the handle: per database its two connections, its subscription
// routes and the scans reading from it. Shared by kx_mom.cpp (the operations),
// kx_mom_conn.cpp (connections, failure and reconnect) and kx_mom_sub.cpp
// (subscriptions and notifications).
//
// Re-entrancy. libkx hands deliveries to callbacks in the middle of its own work
// (dispatching a notification, delivering a scan batch, reading the subscriber
// connection, finishing a reconnect), and a callback may make any call, one of
// which may find the connection broken and drop it: mark_down frees both contexts
// and their events. So code that holds a database's connection, its reply stream or
// a batch read from it across anything that can run a callback or drop the
// connection (deliver, a connection callback, run_command) notes `Database::epoch`
// before and compares it after. Another value means that those connections are gone,
// and perhaps new ones made: it stops there and touches nothing it held, leaving
// the rest to the reconnect. Routes and ScanWork outlive connections and stay valid.
#ifndef KX_MOM_STATE_H
#define KX_MOM_STATE_H

#include <algorithm>
#include <array>
#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include <event2/event.h>
#include <hiredis/hiredis.h>

#include "kx_codec.h"
#include "kx_internal.h"
#include "kx_mom.h"
#include "kx_zlog.h"

namespace kx {

struct ReplyFree {
    void operator()(redisReply *r) const { freeReplyObject(r); }
};
using Reply = std::unique_ptr<redisReply, ReplyFree>;
struct ContextFree {
    void operator()(redisContext *c) const { redisFree(c); }
};
using Context = std::unique_ptr<redisContext, ContextFree>;
struct EventFree {
    void operator()(event *e) const { event_free(e); }
};
using Event = std::unique_ptr<event, EventFree>;

// One diagnostic: a line on stderr ("kx_mom: " first), and a record of the unit
// platform/kx in the process's log sink when it has made one (kx_zlog_init).
void log_at(int level, const char *func, int line, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
#define KX_LOG(level, ...) ::kx::log_at(KX_ZLOG_LEVEL_##level, __func__, __LINE__, __VA_ARGS__)

// Where a database lives (KX_MOM_ADDR_<db>, else KX_MOM_ADDR, else the default). A
// sentinel endpoint names the sentinels to ask and the primary to ask them for; `where`
// and `port` are then that primary's, once a sentinel has named it.
struct Endpoint {
    bool unix_socket = false;
    std::string where; // socket path or host
    int port = 0;
    std::string text; // as configured, for messages
    std::vector<Endpoint> sentinels;
    std::string primary_of; // the name the sentinels monitor the primary by
};

// One callback following one record (SUBSCRIBE) or one table (PSUBSCRIBE).
struct Route {
    const ProtobufCMessageDescriptor *table;
    std::string channel; // channel or pattern, as sent to the server
    bool pattern;
    std::string key; // the record key or table glob, handed to the callback
    kx_mom_cb cb;
    void *privdata;
    bool pending = false; // its (P)SUBSCRIBE is queued or sent, not yet answered
};

// The keys a scan has taken, as 64-bit hashes: the server may give a key on two pages,
// and the repeat is dropped. Two keys of one table hashing alike would lose a delivery:
// at 100,000 keys the chance is below one in 10^9 per scan. The hashes are kept sorted in
// 256 parts chosen by their top byte, each grown by an eighth at a time, so that the set
// never holds a second copy of itself while it grows: one sorted vector doubling to
// 10,000 keys takes 192 KiB for a moment, these parts about 90 KiB.
class SeenKeys {
public:
    // True when `hash` was not seen before; it is seen from now on.
    bool insert(uint64_t hash)
    {
        std::vector<uint64_t> &part = parts_[hash >> 56];
        auto at = std::ranges::lower_bound(part, hash) - part.begin();
        if (at < std::ssize(part) && part[static_cast<size_t>(at)] == hash)
            return false;
        if (part.size() == part.capacity())
            part.reserve(part.size() + part.size() / 8 + 4);
        part.insert(part.begin() + at, hash);
        return true;
    }

private:
    std::array<std::vector<uint64_t>, 256> parts_;
};

// A scan delivering records now, one SCAN page at a time: the page's keys not taken
// before are read in batches and delivered, then the next page is listed, so that a
// scan holds one page of keys, not the whole table. Deletions made meanwhile through
// kx_mom_del_sync on its database are noted so that a record already read is not
// delivered after a callback deleted it.
struct ScanWork {
    kx_global *global = nullptr;
    int32_t db = 0;
    const ProtobufCMessageDescriptor *table = nullptr;
    std::string glob;    // what the listing matches, or the one key
    bool listed = false; // true once SCAN is back at cursor 0 (or one key is taken)
    std::string cursor = "0";
    size_t reach = 0;                // the COUNT of the next SCAN call (kx_mom.cpp)
    std::deque<std::string> pending; // keys taken, not yet read
    SeenKeys seen;
    kx_mom_cb cb = nullptr;
    void *privdata = nullptr;
    std::unordered_set<std::string> deleted;
};

enum class Link { never, up, down };

// Opening a database's two connections and checking its server, step by step
// (kx_mom_conn.cpp). Both connections stay non-blocking until it is done: the loop,
// or poll() for kx_mom_client_connect_sync, waits for the sockets.
struct Handshake {
    Endpoint endpoint;
    std::optional<std::string> user; // the ACL user to AUTH as (else "default")
    std::optional<std::string> password;
    Context ask;              // the sentinel being asked for the primary
    size_t next_sentinel = 0; // the one to ask after it
    std::string unanswered;   // why the sentinels asked so far named no primary
    int stage = 0;            // a new time limit starts: each sentinel, then the primary
    int timed_stage = -1;     // the stage the deadline is set for
    Context cmd;
    Context sub;
    size_t step = 0;     // the step under way
    bool sent = false;   // its commands are queued
    size_t expected = 0; // replies it waits for
    std::vector<Reply> replies;
    bool answered = false; // the server has replied to something
    std::string notify;    // notify-keyspace-events as the server has it
    std::string run_id;
    int32_t code = 0; // why it failed: the code and a line
    std::string why;
    Event io;       // the loop waiting for the socket in use
    Event deadline; // the loop's limit for the whole handshake
};

struct Database {
    kx_global *global = nullptr;
    int32_t db = 0;
    Endpoint endpoint;
    Link link = Link::never;
    uint64_t epoch = 0; // changes whenever the connections are made or dropped
    Context cmd;        // synchronous commands: blocking, with the command timeout
    Context sub;        // subscriptions: non-blocking, read and written by the loop
    Event cmd_watch;    // notices the command connection closing while idle
    Event sub_read;
    Event sub_write; // added while the subscriber connection has output queued
    Event timer;     // the disconnect callback, then connection retries
    bool disconnect_pending = false;
    std::string retry_failure; // why the last reconnect failed: a repeat is not logged again
    int retry_ms = 0;
    std::string run_id;
    kx_mom_disconnect_cb on_disconnect = nullptr;
    kx_mom_reconnect_cb on_reconnect = nullptr;
    std::vector<std::unique_ptr<Route>> routes; // never removed before release
    std::deque<Route *> unconfirmed;            // pending routes, in the order sent
    std::vector<ScanWork *> scans;              // scans delivering from this db now
    std::unique_ptr<Handshake> dial;            // the reconnect under way
};

// kx_mom_scan: the same work, one step per loop turn.
struct AsyncScan {
    ScanWork work;
    Event turn;
};

} // namespace kx

struct kx::mom_state {
    std::map<int32_t, std::unique_ptr<Database>> dbs;
    // kx_mom_scan work under way; released (declared after dbs) before the databases.
    std::list<std::unique_ptr<AsyncScan>> async_scans;
};

namespace kx {

using Command = std::vector<std::string_view>;

// The database entry of `db`, created on first use; nullptr for a bad handle or db.
Database *database(kx_global *global, int32_t db);
// The database when it is up, else nullptr with *code set (EINVAL or ENOTCONN).
Database *up_database(kx_global *global, int32_t db, int32_t *code);

// The database is down: drop its connections, then (from the loop) call its
// disconnect callback and retry. Harmless when it is not up.
void mark_down(Database &d, const char *why);

// Appends `cmd` to the output buffer of `c`; REDIS_OK or REDIS_ERR.
int append_command(redisContext *c, const Command &cmd);
// Runs `cmds` pipelined on the command connection, one reply each. An I/O
// failure marks the database down and gives KX_MOM_EIO.
int32_t run_commands(Database &d, std::span<const Command> cmds, std::vector<Reply> *replies);
int32_t run_command(Database &d, const Command &cmd, Reply *reply);

// "__keyspace@<db>__:", what every channel of `db` starts with.
std::string keyspace_prefix(int32_t db);
// Queues (P)SUBSCRIBE for `route` unless it is pending already or the database is
// down (the reconnect sends it); the loop writes it and delivers cmd 29 when the
// server confirms. No I/O here: a broken connection shows in the loop.
void send_subscribe(Database &d, Route &route);
// After `d` came back: its routes again, then every route of every other db.
void resubscribe_all(Database &d);
// The loop's handlers of the subscriber connection.
void on_subscriber_readable(evutil_socket_t fd, short what, void *arg);
void on_subscriber_writable(evutil_socket_t fd, short what, void *arg);

// Hands one delivery to a callback, logging a negative result.
void deliver(kx_global *global, kx_mom_cb cb, void *privdata, int32_t db,
             const ProtobufCMessageDescriptor *table, int32_t cmd, void *data, const char *key,
             int32_t scan_over);

// What a selection follows: the table's glob (true) or one record's key (false).
// A single-record table has one key: it is followed like one record.
bool selects_glob(const ProtobufCMessage *key, std::string *match);

// The command reading records `keys` of `table` now (GET or HGETALL, each bounded), one
// script for them all: its reply is an array with one element per key.
Command read_command(const ProtobufCMessageDescriptor *table, std::span<const std::string> keys);
// The element of `reply` (to read_command) about the i-th key; the reply itself when the
// whole read failed (an error, an unexpected reply), so that every key gets that.
const redisReply *read_result(const redisReply *reply, size_t i);

// A record read now, as delivered: the decoded record with KX_MOM_CMD_SET for
// the whole-value table, else the hash result with `hash_cmd` (also when it
// carries an error_code); cmd 0 when the record is gone or its value is unusable.
struct Payload {
    int32_t cmd = 0;
    Message record;
    HashRes hash;
    void *data() const { return hash ? static_cast<void *>(hash.get()) : record.get(); }
};
Payload payload_from_reply(int32_t db, const std::string &key,
                           const ProtobufCMessageDescriptor *table, const redisReply *r,
                           int32_t hash_cmd);

} // namespace kx

#endif
