// kx_double: the whole platform interface (kx_global.h, kx_mom.h, kx_zlog.h, ssat.h)
// in memory, for unit tests. Link kx_double instead of libkx.
//
// - The store keeps records per database the way Redis would, through the same codec
//   as libkx: keys like "s_frame.cap_dep|fib_mgr", hash fields name -> text in the
//   order they were first written, the whole-value table as its packed bytes.
// - Every platform call is recorded in order with its arguments (calls(), trace()).
// - Deliveries are queued and run by kx_global_run (or kxd::run()) until the queue is
//   empty: cmd 29 after each subscribe, the records and scan_over of kx_mom_scan,
//   the notifications of every write (the daemon's own and another writer's), and
//   the disconnect and reconnect callbacks.
// - Faults: a chosen call returns a code, nullptr, or an object with an error code.
// - kxdf_zlog records are captured; ssat registrations are kept and can be invoked.
//
// Every database is up after reset(): handlers can be driven directly without going
// through start-up. kx_mom_client_connect_sync on an up database just returns 0.
#ifndef KX_DOUBLE_H
#define KX_DOUBLE_H

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <protobuf-c/protobuf-c.h>

#include "kx_global.h"
#include "kx_mom.h"
#include "kx_zlog.h"
#include "ssat.h"

namespace kxd {

// ---- recorded calls ------------------------------------------------------------
struct Call {
    std::string name{};    // the platform function, e.g. "kx_mom_subscribe"
    int32_t db = -1;       // -1 for calls without a database
    std::string key{};     // record key, or the selection "table|*" of a whole-table
                           // subscribe/scan; for kx_global_init, kx_zlog_init,
                           // ssat_*: the module name
    std::vector<int32_t> fields{}; // kx_mom_hmset_sync: the field numbers as passed
    std::vector<std::pair<std::string, std::string>> values{}; // hmset: name -> text written
    uint32_t flags = 0;
    kx_mom_cb cb = nullptr;      // subscribe / scan / scan_sync
    void *privdata = nullptr;
    void *fn = nullptr;          // disconnect / reconnect callback, ssat handler
    std::vector<int64_t> args{};   // reg_process_exit_action's two integers
    std::string text{};          // ssat_reg_mod_cmd: "command format"
    int32_t rc = 0;              // what the call returned (0 for calls returning pointers
                                 // unless they returned nullptr: then -1)

    // "kx_mom_hmset_sync 28 s_frame.cap_fe_ready|16|5 [6,7]": name, db, key, fields.
    std::string brief() const;
};

inline void PrintTo(const Call &c, std::ostream *os)
{
    *os << c.brief();
}
const std::vector<Call> &calls();
std::vector<Call> calls_named(std::string_view name);
// brief() of every call whose name starts with `prefix` ("kx_mom_", "" for all).
std::vector<std::string> trace(std::string_view prefix = "");
void clear_calls();

// ---- the store -------------------------------------------------------------------
using Fields = std::vector<std::pair<std::string, std::string>>;

bool exists(int32_t db, std::string_view key);
Fields hash(int32_t db, std::string_view key);          // empty when missing
std::optional<std::string> value(int32_t db, std::string_view key); // whole value
std::vector<std::string> keys(int32_t db, std::string_view table = ""); // sorted
std::string key_of(const ProtobufCMessage *record);       // the codec's record key

// Seeding: writes without notifying anybody and without recording a call.
void seed_hash(int32_t db, const ProtobufCMessage *record, std::initializer_list<int32_t> fields);
void seed_raw(int32_t db, std::string_view key, const Fields &fields); // any text, e.g. bad data
void seed_whole(int32_t db, const ProtobufCMessage *record);

// Another writer: the write is applied now and notifies subscribers through the queue,
// as Redis would: hset -> cmd 4 with the record as read at delivery, hdel -> cmd 6
// (nothing when the record is gone by then; the last field gone deletes the record:
// cmd 3 follows), set -> cmd 1, del -> cmd 3. Returns the codec's code.
int32_t writer_hset(int32_t db, const ProtobufCMessage *record,
                    std::initializer_list<int32_t> fields);
void writer_hset_raw(int32_t db, std::string_view key, const Fields &fields);
void writer_hdel(int32_t db, std::string_view key, std::initializer_list<std::string_view> names);
void writer_set(int32_t db, const ProtobufCMessage *record);
void writer_del(int32_t db, std::string_view key);

// ---- subscriptions and the loop --------------------------------------------------------
struct Subscription {
    int32_t db;
    std::string selection; // a record key, or "table|*"
    kx_mom_cb cb;
    void *privdata;
};
const std::vector<Subscription> &subscriptions(); // routes, each once

// Runs queued deliveries until the queue is empty or kx_global_stop; returns how many
// ran. Stops with -1 after a runaway of 100000 deliveries.
int run();
size_t pending();
// Queues an arbitrary delivery (for a test that wants its own pmsg shapes).
void post(std::function<void()> fn);

// ---- connections ---------------------------------------------------------------------
bool is_up(int32_t db);
// The database goes down at once (calls on it fail with KX_MOM_ENOTCONN, hgetall gives
// nullptr); its disconnect callback is queued.
void disconnect(int32_t db);
// Queued: the database comes up, its reconnect callback runs with `type`, then every
// subscription of every database is confirmed again with cmd 29.
void reconnect(int32_t db, int32_t type);

// ---- faults --------------------------------------------------------------------------
enum class Outcome {
    Code,           // status calls return rc; kx_mom_hgetall_sync: a result with no obj
                    // and error_code rc; kx_mom_get_sync: nullptr and *error rc
    Null,           // kx_mom_get_sync / kx_mom_hgetall_sync / kx_global_init /
                    // kx_zlog_init return nullptr (get: *error 0)
    ObjectWithCode, // kx_mom_get_sync returns the record read and *error rc;
                    // kx_mom_hgetall_sync a result with obj and error_code rc
};
struct Fault {
    std::string call;      // platform function name
    int32_t rc = -1;
    int nth = 1;           // the nth matching call from now on (1-based); 0: every one
    int32_t db = -1;       // only calls on this database; -1: any
    Outcome outcome = Outcome::Code;
};
void inject(Fault fault);
inline void fail(std::string_view call, int32_t rc, int nth = 1, int32_t db = -1)
{
    inject({std::string(call), rc, nth, db, Outcome::Code});
}
inline void fail_null(std::string_view call, int nth = 1)
{
    inject({std::string(call), 0, nth, -1, Outcome::Null});
}
inline void fail_with_object(std::string_view call, int32_t rc, int nth = 1)
{
    inject({std::string(call), rc, nth, -1, Outcome::ObjectWithCode});
}
// Every connect of `db` fails with rc, leaving it down.
inline void fail_connect(int32_t db, int32_t rc)
{
    inject({"kx_mom_client_connect_sync", rc, 0, db, Outcome::Code});
}

// ---- process framework -----------------------------------------------------------------
kx_global_t *handle();                 // what kx_global_init returns
void set_clock(uint32_t sec, uint32_t usec); // kx_monotime's reading (reset: 1000:0)
void set_root(std::string root);       // kx_root_path's prefix (reset: a directory
                                       // that does not exist)
// kx_initframe_duplicate_check and reg_process_exit_action return 0 unless a fault says
// otherwise: kxd::fail("kx_initframe_duplicate_check", -11).

// ---- log capture ---------------------------------------------------------------------
struct LogRecord {
    int level;        // zlog level: 20, 40, 60, 80, 100, 120
    std::string file; // the unit, e.g. "app/vek_cap/vek_cap"
    std::string func;
    long line;
    std::string text;

    // "ERROR app/vek_cap/vek_cap vek_cap_main: connect host failed, rv -1001"
    std::string brief() const;
};
inline void PrintTo(const LogRecord &r, std::ostream *os)
{
    *os << r.brief();
}
const std::vector<LogRecord> &logs();
std::vector<std::string> log_briefs();
void clear_logs();
const char *level_name(int level);

// ---- debug shell -------------------------------------------------------------------
struct SsatCommand {
    std::string module;
    std::string cmd;
    uint32_t flags;
    std::string format;
    ssat_fn fn;
    ssat_thunk thunk;
    int arity;
};
const std::vector<SsatCommand> &ssat_commands(); // in registration order
const SsatCommand *ssat_find(std::string_view cmd);
// Runs a registered command as the shell would, arguments parsed by its format
// ("void": none, "%d": one integer, "%s %d": a word and an integer). Returns what the
// handler printed on standard output, or nullopt for an unknown command or bad arguments.
std::optional<std::string> ssat_invoke(std::string_view cmd, std::string_view args = "");

// Standard output written (through stdio or the descriptor) while `fn` runs.
std::string capture_stdout(const std::function<void()> &fn);

// ---- reset -------------------------------------------------------------------------
// Everything back to its initial state: store, calls, queue, subscriptions, callbacks,
// faults, logs, commands, clock, root, injected results; every database up.
void reset();

} // namespace kxd

#endif
