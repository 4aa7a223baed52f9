// kx_mom behind the handle: per database its two connections, its subscription
// routes, the scans reading from it and what it owes since it was away. Shared by
// kx_mom.cpp (the operations), kx_mom_read.cpp (reading records now), kx_mom_conn.cpp
// (connections, failure and reconnect), kx_mom_sub.cpp (subscriptions and notifications)
// and kx_mom_recover.cpp (what a lost connection costs: reconciled routes, kept writes).
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
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include <event2/event.h>

#include "kx_codec.h"
#include "kx_handshake.h"
#include "kx_internal.h"
#include "kx_mom.h"

namespace kx {

using Event = std::unique_ptr<event, FreeWith<event_free>>;

struct Database;

// A selection read by a route delivery's callback (a record, or a whole table), and what
// it held: its records' digests, added.
struct Input {
    int32_t db;
    std::string selection; // a key, or a table glob
    bool glob;
    uint64_t sum;
};

// What a route delivered for one record: the digest of the value it was delivered
// with, and what the callback read meanwhile. A record is delivered again when either
// changed. Memory: the key, 8 bytes and its inputs, none for most records (the records
// a route first finds share what its catch-up read: a copy each).
struct Noted {
    uint64_t digest;
    std::vector<Input> inputs;
};

// How far what a route delivered can be trusted to be what the store holds.
enum class Followed {
    not_yet, // never confirmed: what it covers is still to be read
    live,    // confirmed and followed since: every change came as a notification
    lost,    // its connection was lost since, or a delivery of it needed another database
};

// One callback following one record (SUBSCRIBE) or one table (PSUBSCRIBE).
struct Route {
    int32_t db;
    const ProtobufCMessageDescriptor *table;
    std::string channel; // channel or pattern, as sent to the server
    bool pattern;
    std::string key; // the record key or table glob, handed to the callback
    kx_mom_cb cb;
    void *privdata;
    bool pending = false;  // its (P)SUBSCRIBE is queued or sent, not yet answered
    bool announce = false; // the caller subscribed: cmd 29 is due once it is confirmed
    Followed followed = Followed::not_yet;
    // The database whose coming back made it subscribe again, until it has settled.
    Database *restorer = nullptr;
    // What it delivered, per record key (kx_mom_recover.cpp), and what the callback read
    // at its last cmd 29: what each record its first reconcile finds was delivered with.
    std::unordered_map<std::string, Noted> delivered = {};
    std::vector<Input> caught_up = {};
};

// The route delivery under way: what its callback reads is noted with it, and a read
// that finds another database away owes the route a reconcile once that one is back.
struct Delivery {
    Route *route;
    bool owed = false;
    std::vector<Input> inputs = {};
};

// A write kept while its database is away: the last one meant for its key.
struct Intent {
    bool del = false;                      // DEL first (a deletion, or fields written after one)
    std::optional<std::string> whole = {}; // SET key value
    std::vector<std::pair<std::string, std::string>> fields = {}; // HSET key name value...
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
    // The work of reading `selection` (a table glob when `whole_table`, else one key).
    ScanWork() = default;
    ScanWork(kx_global *g, int32_t d, const ProtobufCMessageDescriptor *t, std::string selection,
             bool table)
        : global(g), db(d), table(t), glob(std::move(selection)), whole_table(table), listed(!table)
    {
        if (!table)
            pending.push_back(glob);
    }
    kx_global *global = nullptr;
    int32_t db = 0;
    const ProtobufCMessageDescriptor *table = nullptr;
    std::string glob;         // what the listing matches, or the one key
    bool whole_table = false; // glob is a table's, listed with SCAN
    bool listed = false;      // true once SCAN is back at cursor 0 (or one key is taken)
    std::string cursor = "0";
    size_t reach = 0;                // the COUNT of the next SCAN call (kx_mom.cpp)
    std::deque<std::string> pending; // keys taken, not yet read
    SeenKeys seen;
    kx_mom_cb cb = nullptr;
    void *privdata = nullptr;
    std::unordered_set<std::string> deleted;
    uint64_t sum = 0; // the digests of the records read, added
    // What is done with each record read (a hash result's reply, a whole value, nil or an
    // empty array when missing): delivered to cb when null, else what `visit` makes of it.
    void (*visit)(Database &d, ScanWork &w, const std::string &key, const redisReply *r) = nullptr;
    void *visit_arg = nullptr;
};

enum class Link { never, up, down };

struct Database {
    kx_global *global = nullptr;
    int32_t db = 0;
    Endpoint endpoint;
    std::chrono::steady_clock::time_point up_since;
    Link link = Link::never;
    uint64_t epoch = 0; // changes whenever the connections are made or dropped
    Context cmd;        // synchronous commands: blocking, with the command timeout
    Context sub;        // subscriptions: non-blocking, read and written by the loop
    Event cmd_watch;    // notices the command connection closing while idle
    Event sub_read;
    Event sub_write; // added while the subscriber connection has output queued
    Event timer;     // the disconnect callback, then connection retries
    bool disconnect_pending = false;
    bool restore_due = false;  // back, its routes waiting for the other databases of its server
    std::string retry_failure; // why the last reconnect failed: a repeat is not logged again
    int retry_ms = 0;          // the last wait before a connection attempt; 0: none yet
    std::string run_id;        // the server's run its reconnect callback was last told of
    kx_mom_disconnect_cb on_disconnect = nullptr;
    kx_mom_reconnect_cb on_reconnect = nullptr;
    std::vector<std::unique_ptr<Route>> routes; // never removed before release
    std::deque<Route *> unconfirmed;            // pending routes, in the order sent
    std::vector<ScanWork *> scans;              // scans delivering from this db now
    std::unique_ptr<Handshake> dial;            // the reconnect under way
    Event dial_io;                              // the loop waiting for its socket
    Event dial_deadline;                        // the loop's limit for its stage
    // Since it was away: the writes it owes (the last per key, in the order meant) and
    // the routes of other databases whose deliveries needed it.
    std::list<std::pair<std::string, Intent>> kept;
    std::unordered_map<std::string, decltype(kept)::iterator> kept_at;
    std::vector<Route *> owed;
    size_t restoring = 0; // routes it made subscribe again, not yet settled
    size_t settled = 0;   // of those, the ones followed again
    size_t changes = 0;   // what they delivered meanwhile
};

// kx_mom_scan: the same work, one step per loop turn. One started by a route's cmd 29
// (a catch-up) that ends early has that cmd 29 given again.
struct AsyncScan {
    ScanWork work;
    Event turn;
    Route *catching_up = nullptr;
};

} // namespace kx

struct kx::mom_state {
    std::map<int32_t, std::unique_ptr<Database>> dbs;
    // kx_mom_scan work under way; released (declared after dbs) before the databases.
    std::list<std::unique_ptr<AsyncScan>> async_scans;
    Delivery *delivering = nullptr;
};

namespace kx {

// For its scope `delivery` is the one under way: what is read meanwhile, or found out of
// reach, is noted with it (note_input, note_unreachable).
class DeliveryScope {
public:
    DeliveryScope(kx_global *global, Delivery &delivery)
        : mom_(*global->mom), outer_(std::exchange(mom_.delivering, &delivery))
    {
    }
    ~DeliveryScope() { mom_.delivering = outer_; }
    DeliveryScope(const DeliveryScope &) = delete;
    DeliveryScope &operator=(const DeliveryScope &) = delete;

private:
    mom_state &mom_;
    Delivery *outer_;
};

// The database entry of `db`, created on first use; nullptr for a bad handle or db.
Database *database(kx_global *global, int32_t db);
// The database when it is up, else nullptr with *code set (EINVAL or ENOTCONN).
Database *up_database(kx_global *global, int32_t db, int32_t *code);

// The database is down: drop its connections, then (from the loop) call its
// disconnect callback and retry. Harmless when it is not up.
void mark_down(Database &d, const char *why);

// Runs `cmds` pipelined on the command connection, one reply each. An I/O
// failure marks the database down and gives KX_MOM_EIO.
int32_t run_commands(Database &d, std::span<const Command> cmds, std::vector<Reply> *replies);
int32_t run_command(Database &d, const Command &cmd, Reply *reply);

// Queues (P)SUBSCRIBE for `route` unless it is pending already or the database is
// down (the reconnect sends it); the loop writes it and settles the route when the
// server confirms. No I/O here: a broken connection shows in the loop (only a want of
// memory marks the database down at once).
void send_subscribe(Database &d, Route &route);
// The loop's handlers of the subscriber connection.
void on_subscriber_readable(evutil_socket_t fd, short what, void *arg);
void on_subscriber_writable(evutil_socket_t fd, short what, void *arg);

// Hands one delivery to a callback.
void deliver(kx_global *global, kx_mom_cb cb, void *privdata, int32_t db,
             const ProtobufCMessageDescriptor *table, int32_t cmd, void *data, const char *key,
             int32_t scan_over);

// What a selection follows: the table's glob (true) or one record's key (false).
// A single-record table has one key: it is followed like one record.
bool selects_glob(const ProtobufCMessage *key, std::string *match);

// Reads records `keys` of `table` now (kx_mom_read.cpp), never transferring one beyond
// its table's bound. For each key, at(i) gives what the store holds: the value (GET), the
// fields (HGETALL), nil or an empty array when it is missing, the size (an integer) when
// it is beyond the bound, or the server's error about that key alone.
class Reads {
public:
    // 0, or the transport's code (the database is then down).
    int32_t run(Database &d, const ProtobufCMessageDescriptor *table,
                std::span<const std::string> keys);
    const redisReply *at(size_t i) const;

private:
    std::vector<Reply> probes_, replies_;
    std::vector<const redisReply *> results_;
};

// True when a read found no record.
bool missing(const redisReply *r);
// The digest of the record `key` read as `r`, as it goes into an input's sum: the key
// counts, so that two records trading values change the sum.
uint64_t keyed_digest(const std::string &key, const redisReply *r);
// What a read gave for a record, as 64 bits: the same value always gives the same
// digest, whatever the order of its hash fields. Never kUnsure.
uint64_t digest(const redisReply *r);
// The digest of a record whose last delivery did not go through, or whose notification
// came but was lost with the connection before it was read: whatever the store holds
// is delivered again.
constexpr uint64_t kUnsure = 0;

// A record read now, as delivered: the decoded record with KX_MOM_CMD_SET for
// the whole-value table, else the hash result with `hash_cmd` (also when it
// carries an error_code); cmd 0 when the record is gone or its value is unusable.
struct Payload {
    int32_t cmd = 0;
    uint64_t digest = 0; // of what was read, when cmd is not 0
    Message record;
    HashRes hash;
    void *data() const { return hash ? static_cast<void *>(hash.get()) : record.get(); }
};
Payload payload_from_reply(int32_t db, const std::string &key,
                           const ProtobufCMessageDescriptor *table, const redisReply *r,
                           int32_t hash_cmd);
// The record of `key`, as hash_from_reply and whole_from_reply make them (kx_mom_read.cpp).
kx_mom_hash_res *hash_from_reply(int32_t db, const std::string &key,
                                 const ProtobufCMessageDescriptor *table, const redisReply *r);
ProtobufCMessage *whole_from_reply(int32_t db, const std::string &key,
                                   const ProtobufCMessageDescriptor *table, const redisReply *r,
                                   int32_t *code);
// The server refused a command about `key`: logged, KX_MOM_ESERVER.
int32_t server_refused(int32_t db, const std::string &key, const redisReply *r);

// One step of a scan (kx_mom.cpp): a batch of reads and what is done with them while keys
// are pending, else the next SCAN page. 1 while there is more to do, 0 at the end, or
// the error.
int32_t scan_step(ScanWork &w);
// All the steps: 0 once the scan is done, else why it stopped.
int32_t run_scan(ScanWork &w);

// Recovery (kx_mom_recover.cpp).
// Hands `route` one delivery (cmd 29 with no data, or a record) and notes what it
// delivered: `digest` for a record present, none for a deletion. A delivery cut short
// (its connection lost meanwhile, or a read it made found another database away) is
// noted as unsure, or cmd 29 as still due, so that it is delivered again. False when
// the route's connection went.
bool deliver_to_route(Database &d, Route &route, int32_t cmd, void *data, const std::string &key,
                      std::optional<uint64_t> digest);
// The route's subscription is in place: what it covers is brought up to date (its
// changes delivered if it was lost, read silently the first time) and cmd 29 is
// delivered if the caller asked for it.
void settle(Database &d, Route &route);
// A read on `db` failed for want of its connection: the route delivery under way, if
// any, is owed to it. Gives `rc` back.
int32_t note_unreachable(kx_global *global, int32_t db, int32_t rc);
// A read made: noted with the route delivery under way, if any.
void note_input(kx_global *global, Input input);
// A write or deletion that failed for want of its database's connection, kept for when
// it is back (a database never connected keeps nothing).
void keep_write(kx_global *global, int32_t db, const Write &w);
void keep_delete(kx_global *global, int32_t db, const std::string &key);
// `d` is back: the writes it kept are made, in order; false when it was lost again.
bool make_kept_writes(Database &d);
// `d` is back, its reconnect callback has run: its own routes are subscribed again
// (each settles when confirmed), and the routes that owed it a delivery are reconciled.
void restore_routes(Database &d);
// A route subscribed again is settled, or not to be (refused, its own connection lost):
// the last one of a database's coming back says what it cost.
void restored(Route &route, bool settled);

} // namespace kx

#endif
