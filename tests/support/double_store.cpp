// The in-memory platform: the store client. Records are kept per database as Redis
// keeps them (through libkx's codec), writes notify subscriptions through the queue.
#include <algorithm>
#include <memory>
#include <span>

#include "double_internal.h"
#include "kx_codec.h"

namespace kxd {
namespace detail {

void reset_store()
{
    state().dbs.clear();
    state().subs.clear();
}

} // namespace detail

using namespace detail;

namespace {

struct ResFree {
    void operator()(kx_mom_hash_res *res) const { kx_mom_hash_res_free(res); }
};
using ResPtr = std::unique_ptr<kx_mom_hash_res, ResFree>;
struct ObjFree {
    void operator()(void *obj) const { kx_mom_kx_obj_free(obj); }
};
using ObjPtr = std::unique_ptr<void, ObjFree>;

enum class Event { hset, hdel, set, del };

std::string table_of(std::string_view key)
{
    return std::string(key.substr(0, key.find('|')));
}

// A subscription's or scan's selection: the record key, or "table|*" (the table glob).
std::string selection_of(const ProtobufCMessage *key)
{
    return kx::selects_table(key) ? kx::table_glob(key->descriptor) : kx::record_key(key);
}

bool selects(std::string_view selection, std::string_view key)
{
    if (selection.ends_with("|*"))
        return table_of(key) == selection.substr(0, selection.size() - 2);
    return selection == key;
}

bool known_table(const ProtobufCMessage *msg)
{
    return msg && msg->descriptor && kx_mom_table(msg->descriptor->name) == msg->descriptor;
}

const Entry *find(int32_t db_no, std::string_view key)
{
    auto &records = db(db_no).records;
    auto it = records.find(std::string(key));
    return it == records.end() ? nullptr : &it->second;
}

// HGETALL of `key` now: never nullptr; a missing record has no obj and error_code 0.
ResPtr read_hash(int32_t db_no, std::string_view key)
{
    const Entry *e = find(db_no, key);
    if (!e)
        return ResPtr(kx::new_hash_res(db_no, key, 0));
    if (e->whole)
        return ResPtr(kx::new_hash_res(db_no, key, KX_MOM_ESERVER));
    std::vector<kx::FieldValue> fields;
    for (const auto &[name, text] : e->fields)
        fields.push_back({name, text});
    std::string error;
    return ResPtr(kx::decode_hash(db_no, key, kx::table_of_key(key), fields, &error));
}

// GET of `key` now: the decoded record, an empty record when missing.
ObjPtr read_whole(int32_t db_no, std::string_view key, int32_t *error)
{
    *error = 0;
    const ProtobufCMessageDescriptor *table = kx::table_of_key(key);
    const Entry *e = find(db_no, key);
    if (!e)
        return ObjPtr(kx::new_record(table));
    if (!e->whole) {
        *error = KX_MOM_ESERVER;
        return nullptr;
    }
    std::string why;
    ObjPtr obj(kx::decode_whole(table, key, e->value, &why));
    if (!obj)
        *error = KX_MOM_EPROTO;
    return obj;
}

void deliver(const Subscription &sub, std::string_view key, int32_t cmd, void *data,
             int32_t scan_over = 0)
{
    std::string k(key);
    kx_mom_msg msg{sub.db, kx::table_of_key(key), cmd, data, k.c_str(), scan_over};
    sub.cb(handle(), &msg, sub.privdata);
}

// What a subscriber receives for one event, read when it is delivered.
void deliver_event(const Subscription &sub, const std::string &key, Event ev)
{
    if (!db(sub.db).up)
        return; // the subscriber connection is down: the notification is lost
    switch (ev) {
    case Event::hset:
    case Event::hdel: {
        const Entry *e = find(sub.db, key);
        if (!e || e->whole)
            return;
        ResPtr res = read_hash(sub.db, key);
        deliver(sub, key, ev == Event::hset ? KX_MOM_CMD_HSET : KX_MOM_CMD_HDEL, res.get());
        return;
    }
    case Event::set: {
        int32_t error = 0;
        const Entry *e = find(sub.db, key);
        if (!e || !e->whole)
            return;
        ObjPtr obj = read_whole(sub.db, key, &error);
        if (obj && error == 0)
            deliver(sub, key, KX_MOM_CMD_SET, obj.get());
        return;
    }
    case Event::del: {
        std::string why;
        ObjPtr obj(kx::parse_key(kx::table_of_key(key), key, &why));
        if (obj)
            deliver(sub, key, KX_MOM_CMD_DEL, obj.get());
        return;
    }
    }
}

void notify(int32_t db_no, const std::string &key, Event ev)
{
    for (const auto &sub : state().subs)
        if (sub.db == db_no && selects(sub.selection, key))
            post([sub, key, ev] { deliver_event(sub, key, ev); });
}

void write_fields(int32_t db_no, const std::string &key, const Fields &fields)
{
    Entry &e = db(db_no).records[key];
    if (e.whole)
        e = Entry{};
    for (const auto &[name, text] : fields) {
        auto it = std::find_if(e.fields.begin(), e.fields.end(),
                               [&](const auto &f) { return f.first == name; });
        if (it != e.fields.end())
            it->second = text;
        else
            e.fields.emplace_back(name, text);
    }
}

int32_t encode(const ProtobufCMessage *record, std::span<const int32_t> tags, Fields *out)
{
    std::vector<kx::FieldText> texts;
    int32_t rc = kx::encode_hash(record, tags, &texts);
    for (auto &t : texts)
        out->emplace_back(std::string(t.name), std::move(t.text));
    return rc;
}

// Every record `selection` names, as the scan would find it now.
std::vector<std::string> matching(int32_t db_no, std::string_view selection)
{
    std::vector<std::string> out;
    for (const auto &[key, e] : db(db_no).records)
        if (!e.whole && selects(selection, key))
            out.push_back(key);
    return out;
}

void scan_deliver(const Subscription &scan, const std::vector<std::string> &keys)
{
    for (const auto &key : keys) {
        const Entry *e = find(scan.db, key);
        if (!e || e->whole)
            continue; // vanished meanwhile
        ResPtr res = read_hash(scan.db, key);
        deliver(scan, key, KX_MOM_CMD_HSET, res.get());
    }
}

// The checks every store call makes before acting; 0 when it may go on.
int32_t check(kx_global_t *global, int32_t db_no, const ProtobufCMessage *msg)
{
    return global != handle() || db_no < 0 || !known_table(msg) ? KX_MOM_EINVAL : 0;
}

Call mom_call(const char *name, int32_t db_no, const ProtobufCMessage *msg, bool selection)
{
    Call c{.name = name, .db = db_no};
    if (known_table(msg))
        c.key = selection ? selection_of(msg) : kx::record_key(msg);
    return c;
}

} // namespace

bool exists(int32_t db_no, std::string_view key)
{
    return find(db_no, key) != nullptr;
}

Fields hash(int32_t db_no, std::string_view key)
{
    const Entry *e = find(db_no, key);
    return e && !e->whole ? e->fields : Fields{};
}

std::optional<std::string> value(int32_t db_no, std::string_view key)
{
    const Entry *e = find(db_no, key);
    if (!e || !e->whole)
        return std::nullopt;
    return e->value;
}

std::vector<std::string> keys(int32_t db_no, std::string_view table)
{
    std::vector<std::string> out;
    for (const auto &[key, e] : db(db_no).records)
        if (table.empty() || table_of(key) == table)
            out.push_back(key);
    return out;
}

std::string key_of(const ProtobufCMessage *record)
{
    return kx::record_key(record);
}

const std::vector<Subscription> &subscriptions()
{
    return state().subs;
}

void seed_hash(int32_t db_no, const ProtobufCMessage *record, std::initializer_list<int32_t> tags)
{
    Fields fields;
    if (encode(record, std::span(tags.begin(), tags.size()), &fields) == 0)
        write_fields(db_no, kx::record_key(record), fields);
}

void seed_raw(int32_t db_no, std::string_view key, const Fields &fields)
{
    write_fields(db_no, std::string(key), fields);
}

void seed_whole(int32_t db_no, const ProtobufCMessage *record)
{
    Entry &e = db(db_no).records[kx::record_key(record)];
    e = Entry{true, kx::encode_whole(record), {}};
}

int32_t writer_hset(int32_t db_no, const ProtobufCMessage *record,
                    std::initializer_list<int32_t> tags)
{
    Fields fields;
    int32_t rc = encode(record, std::span(tags.begin(), tags.size()), &fields);
    if (rc == 0)
        writer_hset_raw(db_no, kx::record_key(record), fields);
    return rc;
}

void writer_hset_raw(int32_t db_no, std::string_view key, const Fields &fields)
{
    std::string k(key);
    write_fields(db_no, k, fields);
    notify(db_no, k, Event::hset);
}

void writer_hdel(int32_t db_no, std::string_view key, std::initializer_list<std::string_view> names)
{
    auto &records = db(db_no).records;
    auto it = records.find(std::string(key));
    if (it == records.end() || it->second.whole)
        return;
    auto &fields = it->second.fields;
    size_t before = fields.size();
    std::erase_if(fields, [&](const auto &f) {
        return std::find(names.begin(), names.end(), f.first) != names.end();
    });
    if (fields.size() == before)
        return;
    std::string k(key);
    notify(db_no, k, Event::hdel);
    if (fields.empty()) {
        records.erase(it);
        notify(db_no, k, Event::del);
    }
}

void writer_set(int32_t db_no, const ProtobufCMessage *record)
{
    seed_whole(db_no, record);
    notify(db_no, kx::record_key(record), Event::set);
}

void writer_del(int32_t db_no, std::string_view key)
{
    std::string k(key);
    if (db(db_no).records.erase(k))
        notify(db_no, k, Event::del);
}

bool is_up(int32_t db_no)
{
    return db(db_no).up;
}

void disconnect(int32_t db_no)
{
    Db &d = db(db_no);
    if (!d.up)
        return;
    d.up = false;
    post([db_no] {
        if (auto cb = db(db_no).on_down)
            cb(handle(), db_no);
    });
}

void reconnect(int32_t db_no, int32_t type)
{
    post([db_no, type] {
        Db &d = db(db_no);
        d.up = true;
        if (d.on_up)
            d.on_up(handle(), db_no, type);
        for (const auto &sub : state().subs)
            post([sub] {
                if (db(sub.db).up)
                    deliver(sub, sub.selection, KX_MOM_CMD_SUBSCRIBED, nullptr);
            });
    });
}

} // namespace kxd

using namespace kxd;
using namespace kxd::detail;

int32_t kx_mom_client_connect_sync(kx_global_t *global, int32_t db_no)
{
    size_t c = record({.name = "kx_mom_client_connect_sync", .db = db_no});
    if (global != handle() || db_no < 0)
        return finish(c, KX_MOM_EINVAL);
    if (const Fault *f = take_fault("kx_mom_client_connect_sync", db_no)) {
        db(db_no).up = false;
        return finish(c, f->rc);
    }
    db(db_no).up = true;
    return 0;
}

int32_t kx_mom_client_set_disconnect_cb(kx_global_t *global, int32_t db_no,
                                        kx_mom_disconnect_cb cb, uint32_t flags)
{
    size_t c = record({.name = "kx_mom_client_set_disconnect_cb",
                       .db = db_no,
                       .flags = flags,
                       .fn = reinterpret_cast<void *>(cb)});
    if (global != handle() || db_no < 0 || !cb)
        return finish(c, KX_MOM_EINVAL);
    if (const Fault *f = take_fault("kx_mom_client_set_disconnect_cb", db_no))
        return finish(c, f->rc);
    db(db_no).on_down = cb;
    return 0;
}

int32_t kx_mom_client_set_reconnect_cb(kx_global_t *global, int32_t db_no,
                                       kx_mom_reconnect_cb cb, uint32_t flags)
{
    size_t c = record({.name = "kx_mom_client_set_reconnect_cb",
                       .db = db_no,
                       .flags = flags,
                       .fn = reinterpret_cast<void *>(cb)});
    if (global != handle() || db_no < 0 || !cb)
        return finish(c, KX_MOM_EINVAL);
    if (const Fault *f = take_fault("kx_mom_client_set_reconnect_cb", db_no))
        return finish(c, f->rc);
    db(db_no).on_up = cb;
    return 0;
}

int32_t kx_mom_subscribe(kx_global_t *global, int32_t db_no, const ProtobufCMessage *key,
                         uint32_t flags, kx_mom_cb cb, void *privdata)
{
    Call call = mom_call("kx_mom_subscribe", db_no, key, true);
    call.flags = flags;
    call.cb = cb;
    call.privdata = privdata;
    size_t c = record(std::move(call));
    if (int32_t rc = check(global, db_no, key); rc != 0 || !cb)
        return finish(c, rc ? rc : KX_MOM_EINVAL);
    if (const Fault *f = take_fault("kx_mom_subscribe", db_no))
        return finish(c, f->rc);
    if (!db(db_no).up)
        return finish(c, KX_MOM_ENOTCONN);
    Subscription sub{db_no, selection_of(key), cb, privdata};
    auto &subs = state().subs;
    bool known = std::any_of(subs.begin(), subs.end(), [&](const Subscription &s) {
        return s.db == sub.db && s.selection == sub.selection && s.cb == sub.cb &&
               s.privdata == sub.privdata;
    });
    if (!known)
        subs.push_back(sub);
    post([sub] {
        if (db(sub.db).up)
            deliver(sub, sub.selection, KX_MOM_CMD_SUBSCRIBED, nullptr);
    });
    return 0;
}

int32_t kx_mom_scan_sync(kx_global_t *global, int32_t db_no, const ProtobufCMessage *key,
                         uint32_t flags, kx_mom_cb cb, void *privdata)
{
    Call call = mom_call("kx_mom_scan_sync", db_no, key, true);
    call.flags = flags;
    call.cb = cb;
    call.privdata = privdata;
    size_t c = record(std::move(call));
    if (int32_t rc = check(global, db_no, key); rc != 0 || !cb)
        return finish(c, rc ? rc : KX_MOM_EINVAL);
    if (const Fault *f = take_fault("kx_mom_scan_sync", db_no))
        return finish(c, f->rc);
    if (!db(db_no).up)
        return finish(c, KX_MOM_ENOTCONN);
    Subscription scan{db_no, selection_of(key), cb, privdata};
    scan_deliver(scan, matching(db_no, scan.selection));
    return 0;
}

int32_t kx_mom_scan(kx_global_t *global, int32_t db_no, const ProtobufCMessage *key,
                    uint32_t flags, kx_mom_cb cb, void *privdata)
{
    Call call = mom_call("kx_mom_scan", db_no, key, true);
    call.flags = flags;
    call.cb = cb;
    call.privdata = privdata;
    size_t c = record(std::move(call));
    if (int32_t rc = check(global, db_no, key); rc != 0 || !cb)
        return finish(c, rc ? rc : KX_MOM_EINVAL);
    if (const Fault *f = take_fault("kx_mom_scan", db_no))
        return finish(c, f->rc);
    if (!db(db_no).up)
        return finish(c, KX_MOM_ENOTCONN);
    Subscription scan{db_no, selection_of(key), cb, privdata};
    post([scan] {
        scan_deliver(scan, matching(scan.db, scan.selection));
        deliver(scan, scan.selection, 0, nullptr, 1);
    });
    return 0;
}

void *kx_mom_get_sync(kx_global_t *global, int32_t db_no, const ProtobufCMessage *key,
                      int32_t *error)
{
    size_t c = record(mom_call("kx_mom_get_sync", db_no, key, false));
    int32_t dummy = 0;
    int32_t *err = error ? error : &dummy;
    if (int32_t rc = check(global, db_no, key); rc != 0 || !error) {
        *err = finish(c, rc ? rc : KX_MOM_EINVAL);
        return nullptr;
    }
    const Fault *f = take_fault("kx_mom_get_sync", db_no);
    if (f && f->outcome != Outcome::ObjectWithCode) {
        *error = finish(c, f->outcome == Outcome::Code ? f->rc : 0);
        return nullptr;
    }
    if (!db(db_no).up) {
        *error = finish(c, KX_MOM_ENOTCONN);
        return nullptr;
    }
    ObjPtr obj = read_whole(db_no, kx::record_key(key), error);
    if (f)
        *error = f->rc;
    finish(c, *error);
    return obj.release();
}

kx_mom_hash_res *kx_mom_hgetall_sync(kx_global_t *global, int32_t db_no,
                                     const ProtobufCMessage *key)
{
    size_t c = record(mom_call("kx_mom_hgetall_sync", db_no, key, false));
    if (check(global, db_no, key) != 0) {
        finish(c, KX_MOM_EINVAL);
        return nullptr;
    }
    std::string k = kx::record_key(key);
    const Fault *f = take_fault("kx_mom_hgetall_sync", db_no);
    if (f && f->outcome == Outcome::Null) {
        finish(c, -1);
        return nullptr;
    }
    if (f && f->outcome == Outcome::Code) {
        finish(c, f->rc);
        return kx::new_hash_res(db_no, k, f->rc);
    }
    if (!db(db_no).up) {
        finish(c, KX_MOM_ENOTCONN);
        return nullptr;
    }
    ResPtr res = read_hash(db_no, k);
    if (f)
        res->error_code = f->rc;
    finish(c, res->error_code);
    return res.release();
}

int32_t kx_mom_hmset_sync(kx_global_t *global, int32_t db_no, const ProtobufCMessage *record_msg,
                          const int32_t *field_tag, int32_t field_len)
{
    Call call = mom_call("kx_mom_hmset_sync", db_no, record_msg, false);
    if (field_tag && field_len > 0)
        call.fields.assign(field_tag, field_tag + field_len);
    Fields fields;
    int32_t encoded = known_table(record_msg) ? encode(record_msg, call.fields, &fields)
                                              : KX_MOM_EINVAL;
    call.values = fields;
    size_t c = record(std::move(call));
    if (int32_t rc = check(global, db_no, record_msg); rc != 0)
        return finish(c, rc);
    if (encoded != 0 || field_len <= 0 || !field_tag || kx::stored_whole(record_msg->descriptor))
        return finish(c, KX_MOM_EINVAL);
    if (const Fault *f = take_fault("kx_mom_hmset_sync", db_no))
        return finish(c, f->rc);
    if (!db(db_no).up)
        return finish(c, KX_MOM_ENOTCONN);
    std::string k = kx::record_key(record_msg);
    const Entry *e = find(db_no, k);
    if (e && e->whole)
        return finish(c, KX_MOM_ESERVER);
    write_fields(db_no, k, fields);
    notify(db_no, k, Event::hset);
    return 0;
}

int32_t kx_mom_del_sync(kx_global_t *global, int32_t db_no, const ProtobufCMessage *key)
{
    size_t c = record(mom_call("kx_mom_del_sync", db_no, key, false));
    if (int32_t rc = check(global, db_no, key); rc != 0)
        return finish(c, rc);
    if (const Fault *f = take_fault("kx_mom_del_sync", db_no))
        return finish(c, f->rc);
    if (!db(db_no).up)
        return finish(c, KX_MOM_ENOTCONN);
    std::string k = kx::record_key(key);
    if (db(db_no).records.erase(k))
        notify(db_no, k, Event::del);
    return 0;
}
