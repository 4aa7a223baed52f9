// What the pieces of the in-memory platform share: one state for the whole process.
#ifndef KX_DOUBLE_INTERNAL_H
#define KX_DOUBLE_INTERNAL_H

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "kx_double.h"
#include "kx_internal.h"

namespace kxd::detail {

struct Entry {
    bool whole = false; // a packed value (SET) rather than a hash
    std::string value;
    Fields fields;      // in the order they were first written, like a small Redis hash
};

struct Db {
    bool up = true;
    std::map<std::string, Entry> records;
    kx_mom_disconnect_cb on_down = nullptr;
    kx_mom_reconnect_cb on_up = nullptr;
};

struct ArmedFault {
    Fault fault;
    int seen = 0;
};

struct State {
    std::map<int32_t, Db> dbs;
    std::vector<Call> calls;
    std::deque<std::function<void()>> queue;
    bool stop = false;
    std::vector<Subscription> subs;
    std::vector<ArmedFault> faults;
    std::vector<LogRecord> logs;
    std::vector<SsatCommand> commands;
    kx_timestamp_t clock{1000, 0};
    std::string root;
    kx_global global;
};

State &state();
Db &db(int32_t n);

// Appends a call and returns its position (references would not survive later calls).
size_t record(Call call);
int32_t finish(size_t call, int32_t rc);

// The fault that applies to this call of `name` on `db_no`, counting the call for every
// armed fault that matches it; nullptr when none fires.
const Fault *take_fault(std::string_view name, int32_t db_no);

void reset_store();
void reset_log();
void reset_ssat();

} // namespace kxd::detail

#endif
