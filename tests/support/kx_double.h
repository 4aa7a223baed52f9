// kx_double: the platform (kx_global.h, kx_mom.h, kx_zlog.h, ssat.h) in memory, for
// unit tests: link kx_double instead of libkx.
//
// - The store keeps records per database as Redis would, through libkx's codec: keys like
//   "s_frame.cap_dep|fib_mgr", hash fields in the order first written, the whole-value
//   table packed. Subscriptions and scans select as libkx does ("table|*" or one key).
// - Calls are checked, read and written as libkx does them (tests/parity holds the two to
//   the same results and the same store contents); unlike libkx, every database is up
//   without a connect.
// - Every platform call is recorded in order as one line of text (trace()).
// - Deliveries wait in a queue that kx_global_run (or run()) empties: cmd 29 after each
//   subscribe, kx_mom_scan's records and its scan_over, the notifications of every write,
//   the disconnect and reconnect callbacks.
// - Faults make a chosen call fail; kxdf_zlog records and ssat registrations are kept.
// After reset() every database is up and nothing is recorded.
#ifndef KX_DOUBLE_H
#define KX_DOUBLE_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kx_global.h"
#include "kx_mom.h"
#include "kx_zlog.h"
#include "ssat.h"

namespace kxd {

// One line per platform call: its name, then its database, the record key (a whole-table
// selection as "table|*"), the field numbers written and its other arguments, e.g.
// "kx_mom_hmset_sync 28 s_frame.cap_fe_ready|16|5 [6,7]". Only lines starting with `prefix`.
std::vector<std::string> trace(std::string_view prefix = "");
// Each log record as one line: "ERROR app/vek_cap/vek_cap main: connect host failed, rv -1001".
const std::vector<std::string> &log_briefs();
void clear(); // forgets the calls and log records so far

// Another writer: writes these fields (a value that need not decode; a whole value is the
// field "value") under any key. With `notify`, subscribers hear of it through the queue,
// the record as read at delivery: cmd 4 (hash) or 1 (whole value).
using Fields = std::vector<std::pair<std::string, std::string>>;
void put_raw(int32_t db, const std::string &key, const Fields &fields, bool notify = false);
// Every record of `db` as stored, by key: its fields as put_raw takes them.
const std::map<std::string, Fields> &records(int32_t db);

// What `db` holds, one record a line in key order: "KEY name=value ..." with the hash
// fields in the order first written (a whole value: its one field "value", packed).
std::vector<std::string> contents(int32_t db);

struct Subscription {
    int32_t db;
    std::string selection; // a record key or "table|*"
    kx_mom_cb cb;
    void *privdata;
    bool operator==(const Subscription &) const = default;
};
const std::vector<Subscription> &subscriptions(); // each route once

// Runs queued deliveries until none is left (it gives up after 100000, a delivery loop).
void run();
// The database goes down at once (its calls fail with KX_MOM_ENOTCONN, hgetall gives
// nullptr, its notifications are lost) and its disconnect callback is queued.
void disconnect(int32_t db);
// Queued: the database comes up and its reconnect callback runs with `type`; what that
// subscribes again is confirmed as any subscription is. (What changed while it was away
// reaches the routes through libkx's reconcile, which the double does not play.)
void reconnect(int32_t db, int32_t type);

// The `nth` call of that name from now on fails.
// Code: it returns rc; kx_mom_hgetall_sync a result with no obj and error_code rc,
// kx_mom_get_sync nullptr and *error rc. Null: a call returning a pointer returns nullptr
// (kx_mom_get_sync with *error 0). WithObject: kx_mom_get_sync / kx_mom_hgetall_sync return
// the record read together with the error rc.
enum class Fail { Code, Null, WithObject };
struct Fault {
    std::string call; // the platform function
    int32_t rc = -1;
    int nth = 1;
    Fail how = Fail::Code;
};
void inject(Fault fault);

void set_root(
    std::string root); // kx_root_path's prefix (reset: a missing dir); kx_monotime reads 12:34

// Runs a registered command as the shell would with these arguments; false when unknown.
bool ssat_run(std::string_view cmd, int32_t num = 0, const char *word = nullptr);

void reset(); // everything above back to its initial state

} // namespace kxd

#endif
