// The in-memory platform: process framework, recorded calls, faults, the delivery queue.
#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

#include "double_internal.h"

namespace kxd {
namespace detail {

State &state()
{
    static State s;
    return s;
}

Db &db(int32_t n)
{
    return state().dbs[n];
}

size_t record(Call call)
{
    state().calls.push_back(std::move(call));
    return state().calls.size() - 1;
}

int32_t finish(size_t call, int32_t rc)
{
    state().calls[call].rc = rc;
    return rc;
}

const Fault *take_fault(std::string_view name, int32_t db_no)
{
    const Fault *fired = nullptr;
    for (auto &armed : state().faults) {
        const Fault &f = armed.fault;
        if (f.call != name || (f.db >= 0 && f.db != db_no))
            continue;
        ++armed.seen;
        if (!fired && (f.nth == 0 || armed.seen == f.nth))
            fired = &f;
    }
    return fired;
}

} // namespace detail

using namespace detail;

namespace {

constexpr int kRunaway = 100000;
constexpr const char *kNoRoot = "/nonexistent-kx-double-root";

std::string join_ints(const std::vector<int32_t> &v)
{
    std::string out = "[";
    for (size_t i = 0; i < v.size(); ++i)
        out += (i ? "," : "") + std::to_string(v[i]);
    return out + "]";
}

} // namespace

std::string Call::brief() const
{
    std::string out = name;
    if (db >= 0)
        out += " " + std::to_string(db);
    if (!key.empty())
        out += " " + key;
    if (!text.empty())
        out += " " + text;
    if (!fields.empty())
        out += " " + join_ints(fields);
    for (int64_t a : args)
        out += " " + std::to_string(a);
    return out;
}

const std::vector<Call> &calls()
{
    return state().calls;
}

std::vector<Call> calls_named(std::string_view name)
{
    std::vector<Call> out;
    for (const auto &c : state().calls)
        if (c.name == name)
            out.push_back(c);
    return out;
}

std::vector<std::string> trace(std::string_view prefix)
{
    std::vector<std::string> out;
    for (const auto &c : state().calls)
        if (c.name.starts_with(prefix))
            out.push_back(c.brief());
    return out;
}

void clear_calls()
{
    state().calls.clear();
}

void inject(Fault fault)
{
    state().faults.push_back({std::move(fault), 0});
}

int run()
{
    State &s = state();
    s.stop = false;
    int ran = 0;
    while (!s.queue.empty() && !s.stop) {
        if (ran == kRunaway)
            return -1;
        auto next = std::move(s.queue.front());
        s.queue.pop_front();
        next();
        ++ran;
    }
    s.stop = false;
    return ran;
}

size_t pending()
{
    return state().queue.size();
}

void post(std::function<void()> fn)
{
    state().queue.push_back(std::move(fn));
}

kx_global_t *handle()
{
    return &state().global;
}

void set_clock(uint32_t sec, uint32_t usec)
{
    state().clock = {sec, usec};
}

void set_root(std::string root)
{
    state().root = std::move(root);
}

std::string capture_stdout(const std::function<void()> &fn)
{
    std::fflush(stdout);
    FILE *sink = std::tmpfile();
    int saved = dup(STDOUT_FILENO);
    if (!sink || saved < 0) {
        if (sink)
            std::fclose(sink);
        if (saved >= 0)
            close(saved);
        fn();
        return {};
    }
    dup2(fileno(sink), STDOUT_FILENO);
    fn();
    std::fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    std::string out;
    std::rewind(sink);
    char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, sink)) > 0;)
        out.append(buf, n);
    std::fclose(sink);
    return out;
}

void reset()
{
    State &s = state();
    s.calls.clear();
    s.queue.clear();
    s.stop = false;
    s.faults.clear();
    s.clock = {1000, 0};
    s.root = kNoRoot;
    s.global.module.clear();
    reset_store();
    reset_log();
    reset_ssat();
}

} // namespace kxd

using namespace kxd;
using namespace kxd::detail;

kx_global_t *kx_global_init(const char *module, kx_global_t *global)
{
    size_t c = record({.name = "kx_global_init", .key = module ? module : ""});
    if (const Fault *f = take_fault("kx_global_init", -1)) {
        finish(c, f->outcome == Outcome::Code ? f->rc : -1);
        return nullptr;
    }
    if (global)
        return global;
    state().global.module = module ? module : "";
    return &state().global;
}

int32_t kx_global_run(kx_global_t *global)
{
    record({.name = "kx_global_run"});
    if (global != &state().global)
        return -1;
    kxd::run();
    return 0;
}

void kx_global_stop(kx_global_t *)
{
    record({.name = "kx_global_stop"});
    state().stop = true;
}

void kx_global_finish(kx_global_t *)
{
    record({.name = "kx_global_finish"});
}

int32_t kx_initframe_duplicate_check(void)
{
    size_t c = record({.name = "kx_initframe_duplicate_check"});
    const Fault *f = take_fault("kx_initframe_duplicate_check", -1);
    return finish(c, f ? f->rc : 0);
}

int32_t reg_process_exit_action(int32_t action, int32_t reason)
{
    size_t c = record({.name = "reg_process_exit_action", .args = {action, reason}});
    const Fault *f = take_fault("reg_process_exit_action", -1);
    return finish(c, f ? f->rc : 0);
}

int32_t kx_monotime(kx_timestamp_t *ts)
{
    record({.name = "kx_monotime"});
    if (!ts)
        return -1;
    *ts = state().clock;
    return 0;
}

const char *kx_root_path(const char *path)
{
    thread_local std::string joined;
    joined = state().root;
    joined += path ? path : "";
    return joined.c_str();
}
