// kx_double: the platform in memory. One state for the whole process; reset() replaces it.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <deque>
#include <functional>
#include <ranges>
#include <set>

#include "kx_codec.h"
#include "kx_double.h"

// The double's handle: the loop is its queue of deliveries, nothing more.
struct kx_global {};

namespace kxd {
namespace {

// A record's hash fields in the order first written, as a small Redis hash keeps them; a
// whole value is the one field "value" holding the packed record.
struct State {
    std::map<int32_t, std::map<std::string, Fields>> dbs;
    std::set<int32_t> down;
    std::map<int32_t, kx_mom_disconnect_cb> on_down;
    std::map<int32_t, kx_mom_reconnect_cb> on_up;
    std::vector<std::string> calls, logs; // logs as log_briefs() shows them
    std::deque<std::function<void()>> queue;
    std::vector<Subscription> subs, unconfirmed; // unconfirmed: a cmd 29 of theirs is queued
    std::vector<std::pair<Fault, int>> faults;   // with the matching calls seen so far
    std::map<std::string, std::pair<ssat_fn, ssat_thunk>, std::less<>> commands;
    std::string root = "/nonexistent-kx-double-root";
    kx_global global;
};
State s;
char g_category; // the sink's one category: only its address matters

// Records a call; returns the fault that fires on it, counting the call for every fault
// it matches.
const Fault *called(const std::string &line)
{
    s.calls.push_back(line);
    std::string_view name = std::string_view(line).substr(0, line.find(' '));
    const Fault *fired = nullptr;
    for (auto &[f, seen] : s.faults)
        if (f.call == name && ++seen == f.nth && !fired)
            fired = &f;
    return fired;
}

int32_t code_of(const Fault *f) { return f ? f->rc : 0; }
bool is_down(int32_t db) { return s.down.count(db) != 0; }

// The checks libkx makes before a call reaches its database.
bool valid(kx_global_t *global, int32_t db, const ProtobufCMessage *key)
{
    return global == &s.global && db >= 0 && kx::known_table(key);
}

std::string selection(const ProtobufCMessage *key)
{
    return kx::selects_table(key) ? kx::table_glob(key->descriptor) : kx::record_key(key);
}

// A whole table "name|*": its name and the separator start the key.
bool selects(std::string_view selection, std::string_view key)
{
    return selection.ends_with("|*") ? key.starts_with(selection.substr(0, selection.size() - 1))
                                     : selection == key;
}

std::string line(const char *name, int32_t db, const ProtobufCMessage *key, bool select)
{
    std::string where =
        !kx::known_table(key) ? "" : " " + (select ? selection(key) : kx::record_key(key));
    return name + (" " + std::to_string(db)) + where;
}

// A store call returns a fault's code, KX_MOM_EINVAL for bad arguments, KX_MOM_ENOTCONN
// while its database is down, else what `act` returns.
int32_t status(const std::string &line, int32_t db, bool ok, const std::function<int32_t()> &act)
{
    const Fault *f = called(line);
    return !ok ? KX_MOM_EINVAL : f ? f->rc : is_down(db) ? KX_MOM_ENOTCONN : act();
}

const Fields *find(int32_t db, const std::string &key)
{
    auto it = s.dbs[db].find(key);
    return it == s.dbs[db].end() ? nullptr : &it->second;
}

// HGETALL now: a missing record has no obj; nullptr when memory runs out.
kx_mom_hash_res *read_hash(int32_t db, const std::string &key)
{
    const Fields *record = find(db, key);
    if (!record)
        return kx::new_hash_res(db, key, 0);
    std::vector<kx::FieldValue> fields;
    for (const auto &[name, text] : *record)
        fields.push_back({name, text});
    std::string why;
    return kx::decode_hash(db, key, kx::table_of_key(key), fields, &why);
}

// GET now (HGETALL for a hash table): a missing record is no object and no error.
ProtobufCMessage *read_record(int32_t db, const std::string &key, int32_t *error)
{
    const Fields *record = find(db, key);
    if (kx::stored_whole(kx::table_of_key(key))) {
        std::string why, packed = record && !record->empty() ? record->front().second : "";
        kx::Message obj;
        *error = record ? kx::decode_whole(kx::table_of_key(key), key, packed, &obj, &why) : 0;
        return obj.release();
    }
    kx::HashRes res(read_hash(db, key));
    *error = res ? res->error_code : KX_MOM_ENOMEM;
    return res ? static_cast<ProtobufCMessage *>(std::exchange(res->obj, nullptr)) : nullptr;
}

// Nothing reaches a subscriber while its database is down: the subscriber connection is
// gone as well.
void deliver(const Subscription &to, const std::string &key, int32_t cmd, void *data,
             int32_t scan_over = 0)
{
    kx_mom_msg msg{to.db, kx::table_of_key(key), cmd, data, key.c_str(), scan_over};
    if (!is_down(to.db))
        to.cb(&s.global, &msg, to.privdata);
}

// The record under `key` as it is now: cmd 4 (hash) or 1 (whole value), nothing when it
// is gone; cmd 3 with the record its key names when it was deleted.
void deliver_record(const Subscription &to, const std::string &key, bool deleted)
{
    if (!deleted && !find(to.db, key))
        return;
    if (!deleted && !kx::stored_whole(kx::table_of_key(key))) {
        kx::HashRes res(read_hash(to.db, key));
        return res ? deliver(to, key, KX_MOM_CMD_HSET, res.get()) : void();
    }
    std::string why;
    int32_t error;
    kx::Message rec(deleted ? kx::parse_key(kx::table_of_key(key), key, &why)
                            : read_record(to.db, key, &error));
    if (rec)
        deliver(to, key, deleted ? KX_MOM_CMD_DEL : KX_MOM_CMD_SET, rec.get());
}

// Queues cmd 29 for `sub` unless one is on its way: as libkx does not send a route again
// while its confirmation is pending. One for a database that goes down is lost with it.
void confirm(const Subscription &sub)
{
    if (std::ranges::find(s.unconfirmed, sub) != s.unconfirmed.end())
        return;
    s.unconfirmed.push_back(sub);
    s.queue.push_back([sub] {
        std::erase(s.unconfirmed, sub);
        deliver(sub, sub.selection, KX_MOM_CMD_SUBSCRIBED, nullptr);
    });
}

void notify(int32_t db, const std::string &key, bool deleted)
{
    for (const Subscription &sub : s.subs)
        if (sub.db == db && selects(sub.selection, key))
            s.queue.push_back([sub, key, deleted] { deliver_record(sub, key, deleted); });
}

// Every selected record still there when its turn comes (callbacks may delete some).
void scan(const Subscription &sc)
{
    auto selected = s.dbs[sc.db] | std::views::keys |
                    std::views::filter([&](auto &key) { return selects(sc.selection, key); });
    for (const auto &key : std::vector<std::string>(selected.begin(), selected.end()))
        deliver_record(sc, key, false);
}

} // namespace

std::vector<std::string> trace(std::string_view prefix)
{
    auto match = s.calls | std::views::filter([&](auto &c) { return c.starts_with(prefix); });
    return {match.begin(), match.end()};
}

void clear() { s.calls.clear(), s.logs.clear(); }

void put_raw(int32_t db, const std::string &key, const Fields &fields, bool tell)
{
    Fields &record = s.dbs[db][key];
    for (const auto &field : fields) {
        auto it = std::ranges::find(record, field.first, &Fields::value_type::first);
        it == record.end() ? record.push_back(field) : void(it->second = field.second);
    }
    if (tell)
        notify(db, key, false);
}

std::vector<std::string> contents(int32_t db)
{
    std::vector<std::string> out;
    for (const auto &[key, fields] : s.dbs[db])
        for (out.push_back(key); const auto &[name, text] : fields)
            out.back() += " " + name + "=" + text;
    return out;
}

const std::vector<Subscription> &subscriptions() { return s.subs; }
const std::map<std::string, Fields> &records(int32_t db) { return s.dbs[db]; }

void run()
{
    for (int ran = 0; !s.queue.empty() && ran < 100000; ++ran) {
        auto next = std::move(s.queue.front());
        s.queue.pop_front();
        next();
    }
}

void disconnect(int32_t db)
{
    if (s.down.insert(db).second)
        s.queue.push_back([db] {
            if (auto cb = s.on_down[db])
                cb(&s.global, db);
        });
}

void reconnect(int32_t db, int32_t type)
{
    s.queue.push_back([db, type] {
        s.down.erase(db);
        if (auto cb = s.on_up[db])
            cb(&s.global, db, type);
    });
}

void inject(Fault fault) { s.faults.emplace_back(std::move(fault), 0); }
void set_root(std::string root) { s.root = std::move(root); }
const std::vector<std::string> &log_briefs() { return s.logs; }
void reset() { s = State{}; }

bool ssat_run(std::string_view cmd, int32_t num, const char *word)
{
    auto it = s.commands.find(cmd);
    ssat_args args{word, num};
    return it != s.commands.end() && (it->second.second(it->second.first, &args), true);
}

} // namespace kxd

using namespace kxd;

kx_global_t *kx_global_init(const char *module, kx_global_t *global)
{
    return called(std::string("kx_global_init ") + module) ? nullptr : global ? global : &s.global;
}

int32_t kx_global_run(kx_global_t *)
{
    called("kx_global_run");
    run();
    return 0;
}
void kx_global_finish(kx_global_t *) { called("kx_global_finish"); }
int32_t kx_initframe_duplicate_check(void)
{
    return code_of(called("kx_initframe_duplicate_check"));
}

int32_t reg_process_exit_action(int32_t action, int32_t reason)
{
    return code_of(
        called("reg_process_exit_action " + std::to_string(action) + " " + std::to_string(reason)));
}

int32_t kx_monotime(kx_timestamp_t *ts)
{
    called("kx_monotime");
    *ts = {12, 34};
    return 0;
}
std::string kx_root_path(std::string_view path) { return s.root + std::string(path); }

int32_t kx_mom_client_connect_sync(kx_global_t *global, int32_t db)
{
    const Fault *f = called("kx_mom_client_connect_sync " + std::to_string(db));
    if (!f)
        s.down.erase(db);
    return global != &s.global ? KX_MOM_EINVAL : code_of(f);
}

int32_t kx_mom_client_set_disconnect_cb(kx_global_t *global, int32_t db, kx_mom_disconnect_cb cb,
                                        uint32_t)
{
    return status("kx_mom_client_set_disconnect_cb " + std::to_string(db), db,
                  global == &s.global && cb, [&] { return s.on_down[db] = cb, 0; });
}

int32_t kx_mom_client_set_reconnect_cb(kx_global_t *global, int32_t db, kx_mom_reconnect_cb cb,
                                       uint32_t)
{
    return status("kx_mom_client_set_reconnect_cb " + std::to_string(db), db,
                  global == &s.global && cb, [&] { return s.on_up[db] = cb, 0; });
}

// A route asked for while its database is down is kept, and confirmed by the reconnect.
int32_t kx_mom_subscribe(kx_global_t *global, int32_t db, const ProtobufCMessage *key, uint32_t,
                         kx_mom_cb cb, void *privdata)
{
    const Fault *f = called(line("kx_mom_subscribe", db, key, true));
    if (!valid(global, db, key) || !cb)
        return KX_MOM_EINVAL;
    if (f)
        return f->rc;
    Subscription sub{db, selection(key), cb, privdata};
    if (std::ranges::find(s.subs, sub) == s.subs.end())
        s.subs.push_back(sub);
    if (!is_down(db))
        confirm(sub);
    return 0;
}

int32_t kx_mom_scan_sync(kx_global_t *global, int32_t db, const ProtobufCMessage *key, uint32_t,
                         kx_mom_cb cb, void *privdata)
{
    return status(line("kx_mom_scan_sync", db, key, true), db, valid(global, db, key) && cb, [&] {
        scan({db, selection(key), cb, privdata});
        return 0;
    });
}

int32_t kx_mom_scan(kx_global_t *global, int32_t db, const ProtobufCMessage *key, uint32_t,
                    kx_mom_cb cb, void *privdata)
{
    return status(line("kx_mom_scan", db, key, true), db, valid(global, db, key) && cb, [&] {
        Subscription sc{db, selection(key), cb, privdata};
        s.queue.push_back([sc] { scan(sc), deliver(sc, sc.selection, 0, nullptr, 1); });
        return 0;
    });
}

void *kx_mom_get_sync(kx_global_t *global, int32_t db, const ProtobufCMessage *key, int32_t *error)
{
    int32_t ignored = 0;
    int32_t &code = error ? *error : ignored;
    const Fault *f = called(line("kx_mom_get_sync", db, key, false));
    bool read = !f || f->how == Fail::WithObject;
    code = !valid(global, db, key) ? KX_MOM_EINVAL
           : !read                 ? (f->how == Fail::Code ? f->rc : 0)
           : is_down(db)           ? KX_MOM_ENOTCONN
                                   : 0;
    void *obj = code || !read ? nullptr : read_record(db, kx::record_key(key), &code);
    if (obj && f)
        code = f->rc;
    return obj;
}

kx_mom_hash_res *kx_mom_hgetall_sync(kx_global_t *global, int32_t db, const ProtobufCMessage *key)
{
    const Fault *f = called(line("kx_mom_hgetall_sync", db, key, false));
    bool read = valid(global, db, key) && kx::hash_table(key) && !is_down(db);
    if (!read || (f && f->how == Fail::Null))
        return nullptr;
    kx_mom_hash_res *res = f && f->how == Fail::Code ? kx::new_hash_res(db, kx::record_key(key), 0)
                                                     : read_hash(db, kx::record_key(key));
    if (f && res)
        res->error_code = f->rc;
    return res;
}

int32_t kx_mom_hmset_sync(kx_global_t *global, int32_t db, const ProtobufCMessage *record,
                          const int32_t *field_tag, int32_t field_len)
{
    std::string tags;
    for (int32_t i = 0; field_tag && i < field_len; ++i)
        tags += (i ? "," : "") + std::to_string(field_tag[i]);
    kx::Write w;
    bool ok = valid(global, db, record) && kx::encode_write(record, field_tag, field_len, &w) == 0;
    return status(line("kx_mom_hmset_sync", db, record, false) + " [" + tags + "]", db, ok, [&] {
        Fields fields = w.whole ? Fields{{"value", w.value}} : Fields{};
        for (auto &f : w.fields) // none for the whole value
            fields.emplace_back(f.name, std::move(f.text));
        put_raw(db, w.key, fields, true);
        return 0;
    });
}

int32_t kx_mom_del_sync(kx_global_t *global, int32_t db, const ProtobufCMessage *key)
{
    return status(line("kx_mom_del_sync", db, key, false), db, valid(global, db, key), [&] {
        if (s.dbs[db].erase(kx::record_key(key)))
            notify(db, kx::record_key(key), true);
        return 0;
    });
}

kx_zlog_category_t *kx_zlog_init(const char *module)
{
    const Fault *f = called(std::string("kx_zlog_init ") + module);
    return f ? nullptr : reinterpret_cast<kx_zlog_category_t *>(&g_category);
}

void kxdf_zlog(kx_zlog_category_t *, const char *file, size_t filelen, const char *func,
               size_t funclen, long, int level, const char *format, ...)
{
    // zlog's levels are 20 apart: DEBUG 20 to FATAL 120.
    static const char *const names[] = {"LEVEL?", "DEBUG", "INFO", "NOTICE",
                                        "WARN",   "ERROR", "FATAL"};
    char text[4096]; // the daemon formats into 1024 bytes and logs them with "%s"
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(text, sizeof text, format, ap);
    va_end(ap);
    s.logs.push_back(std::string(names[level % 20 || level > 120 ? 0 : level / 20]) + " " +
                     std::string(file, filelen) + " " + std::string(func, funclen) + ": " + text);
}

int at_snprintf(char *buf, size_t size, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    int n = std::vsnprintf(buf, size, format, ap);
    va_end(ap);
    return n;
}

int32_t ssat_lib_init(kx_global_t *, const char *module)
{
    return code_of(called(std::string("ssat_lib_init ") + module));
}

int32_t ssat_reg_mod_cmd_impl(const char *module, const char *cmd, uint32_t, const char *format,
                              ssat_fn fn, ssat_thunk thunk, int)
{
    const Fault *f = called(std::string("ssat_reg_mod_cmd ") + module + " " + cmd + " " + format);
    if (!f)
        s.commands[cmd] = {fn, thunk};
    return code_of(f);
}
