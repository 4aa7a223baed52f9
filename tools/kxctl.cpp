// kxctl: reads, writes, scans and watches store records by table name.
//
//   kxctl [-n DB] [--json] get|set|del|scan|watch TABLE [index-field=value ...] [field=value ...]
//   kxctl [-n DB] [--json] chassis
//   kxctl [--json] tables
//
// Output, one record a line. Plain form:
//     KEY field=value ...
// KEY is the record's store key; the fields are those present in the store, by
// field number. A value (and the key) is written bare when it is non-empty
// printable ASCII without blanks, '"' or backslash; otherwise it is written in
// double quotes with backslash escapes: \" \\ \n \r \t and \xNN. Bools are
// true/false, integers and enums decimal.
// `watch` puts the event first: subscribed, set, hset, hdel or del.
// `chassis` appends entries=N to each ready record.
//
// JSON form (--json), one object a line:
//     {"key":"...","index":{...},"fields":{...}}
// `watch` adds "event" (a deletion has no "fields"), `chassis` adds "entries".
// Strings are JSON strings; bytes fields map each byte outside printable ASCII
// to \u00NN.
//
// Exit status: 0 done; 1 the store failed, the record is missing or a record could
// not be read; 2 bad usage, unknown table or field, bad value.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kx_codec.h"
#include "kx_global.h"
#include "kx_mom.h"

namespace {

constexpr int exit_store = 1;
constexpr int exit_usage = 2;

constexpr const char *usage_text =
    "usage: kxctl [-n DB] [--json] COMMAND ...\n"
    "  get   TABLE index=value ...              print one record\n"
    "  set   TABLE index=value ... field=value ...  write exactly the fields given\n"
    "  del   TABLE index=value ...              delete one record\n"
    "  scan  TABLE [index=value ...]            print every record (matching the index given)\n"
    "  watch TABLE [index=value ...]            print every change until interrupted\n"
    "  chassis                                  cards' and subcards' ready records with\n"
    "                                           their numbers of global capability entries\n"
    "  tables                                   list tables and fields\n"
    "Index fields are given by name (url=, node=, module=...); every one is needed by get,\n"
    "set and del. A name shared by the index and the record names the index field until\n"
    "that is given, then the record's field. Values: integers in decimal, bools true/false,\n"
    "enums by number or name, strings as written. For the whole-value table\n"
    "p_libpub.cap_state, set writes the whole record (fields not given are defaults).\n"
    "DB defaults to the table's own database (p_dev: 1, p_libpub and s_frame.cap_dep: 3,\n"
    "other s_frame tables and chassis: 28). The store is $KX_MOM_ADDR (or\n"
    "$KX_MOM_ADDR_<db>), e.g. unix:/run/redis.sock or tcp:127.0.0.1:6379.\n"
    "Output: one record a line, `KEY field=value ...`, or one JSON object with --json.\n"
    "Exit status: 0 done, 1 store failure or no such record, 2 bad usage or input.\n";

// ---- messages --------------------------------------------------------------------------

using Field = ProtobufCFieldDescriptor;
using Table = ProtobufCMessageDescriptor;

const Table *index_table(const Table *table)
{
    const Field *idx = kx::index_field(table);
    return idx ? static_cast<const Table *>(idx->descriptor) : nullptr;
}

const ProtobufCMessage *index_of(const ProtobufCMessage *record)
{
    const Field *idx = kx::index_field(record->descriptor);
    return idx ? kx::member<ProtobufCMessage *>(record, idx) : nullptr;
}

std::vector<const Field *> all_fields(const Table *table)
{
    std::vector<const Field *> fields;
    for (unsigned i = 0; table && i < table->n_fields; ++i)
        fields.push_back(&table->fields[i]);
    return fields;
}

// The value fields (all but the index) present in a hash result, in field-number
// order; without `tags`, every value field.
std::vector<const Field *> value_fields(const Table *table, const int32_t *tags = nullptr,
                                        int32_t n_tags = 0)
{
    std::vector<const Field *> fields;
    for (const Field *f : all_fields(table))
        if (f != kx::index_field(table) &&
            (!tags || std::find(tags, tags + n_tags, static_cast<int32_t>(f->id)) != tags + n_tags))
            fields.push_back(f);
    return fields;
}

const Field *field_named(const Table *table, std::string_view name)
{
    for (const Field *f : all_fields(table))
        if (name == f->name)
            return f;
    return nullptr;
}

int home_db(const Table *table)
{
    std::string_view name = table->name;
    if (name.starts_with("p_dev."))
        return 1;
    if (name.starts_with("p_libpub.") || name == "s_frame.cap_dep")
        return 3;
    return 28;
}

std::string type_name(const Field *f)
{
    switch (f->type) {
    case PROTOBUF_C_TYPE_INT32: return "int32";
    case PROTOBUF_C_TYPE_BOOL: return "bool";
    case PROTOBUF_C_TYPE_STRING: return "string";
    case PROTOBUF_C_TYPE_BYTES: return "bytes";
    case PROTOBUF_C_TYPE_ENUM:
        return std::string("enum:") +
               static_cast<const ProtobufCEnumDescriptor *>(f->descriptor)->name;
    case PROTOBUF_C_TYPE_MESSAGE:
        return std::string("message:") + static_cast<const Table *>(f->descriptor)->name;
    default: return "unsupported";
    }
}

bool is_number(const Field *f)
{
    return f->type == PROTOBUF_C_TYPE_INT32 || f->type == PROTOBUF_C_TYPE_ENUM;
}

// ---- values as text ---------------------------------------------------------------------

// Sets field `f` of `msg` from `text` as the store reads it, an enum also by its name;
// false when `text` does not fit.
bool set_field(ProtobufCMessage *msg, const Field *f, std::string_view text)
{
    std::string number;
    if (f->type == PROTOBUF_C_TYPE_ENUM) {
        auto *e = static_cast<const ProtobufCEnumDescriptor *>(f->descriptor);
        if (auto *v = protobuf_c_enum_descriptor_get_value_by_name(e, std::string(text).c_str())) {
            number = std::to_string(v->value);
            text = number;
        }
    }
    const char *why = nullptr;
    return kx::set_field(msg, f, text, &why);
}

// ---- output ----------------------------------------------------------------------------

bool g_json = false;

// `s` in double quotes with backslash escapes: \" \\ \n \r \t, and `hex` (a printf
// format) for the other control bytes and, when `escape_high`, bytes above ASCII.
std::string quoted(std::string_view s, const char *hex, bool escape_high)
{
    std::string out = "\"";
    for (char c : s) {
        auto u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else if (u < 0x20 || u == 0x7f || (escape_high && u > 0x7f)) {
            char buf[8];
            snprintf(buf, sizeof buf, hex, u);
            out += buf;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string plain_quote(std::string_view s)
{
    bool bare = !s.empty() && std::all_of(s.begin(), s.end(), [](char c) {
        return c > ' ' && c < 0x7f && c != '"' && c != '\\';
    });
    return bare ? std::string(s) : quoted(s, "\\x%02x", true);
}

std::string json_quote(std::string_view s, bool bytes = false)
{
    return quoted(s, "\\u%04x", bytes);
}

std::string json_fields(const ProtobufCMessage *msg, const std::vector<const Field *> &fields)
{
    std::string out;
    for (const Field *f : fields) {
        std::string text = kx::field_text(msg, f);
        bool bytes = f->type == PROTOBUF_C_TYPE_BYTES;
        bool string = bytes || f->type == PROTOBUF_C_TYPE_STRING;
        out += (out.empty() ? "" : ",") + json_quote(f->name) + ":" +
               (string ? json_quote(text, bytes) : text);
    }
    return "{" + out + "}";
}

// One record as a line: `event` only for watch, `record` null for a bare key, `fields`
// null for a record known by its index only (a deletion), `entries` only for chassis.
std::string render(const char *event, std::string_view key, const ProtobufCMessage *record,
                   const std::vector<const Field *> *fields, std::optional<long> entries = {})
{
    std::string line;
    if (g_json) {
        line = "{";
        if (event)
            line += "\"event\":" + json_quote(event) + ",";
        line += "\"key\":" + json_quote(key);
        if (const ProtobufCMessage *index = record ? index_of(record) : nullptr)
            line += ",\"index\":" + json_fields(index, all_fields(index->descriptor));
        if (record && fields)
            line += ",\"fields\":" + json_fields(record, *fields);
        if (entries)
            line += ",\"entries\":" + std::to_string(*entries);
        return line + "}\n";
    }
    if (event)
        line = std::string(event) + " ";
    line += plain_quote(key);
    for (const Field *f : fields ? *fields : std::vector<const Field *>{})
        line += " " + std::string(f->name) + "=" + plain_quote(kx::field_text(record, f));
    if (entries)
        line += " entries=" + std::to_string(*entries);
    return line + '\n';
}

// ---- the command line --------------------------------------------------------------------

int fail(int status, const std::string &why)
{
    fprintf(stderr, "kxctl: %s\n", why.c_str());
    return status;
}

int store_failure(const std::string &what, int32_t rc)
{
    return fail(exit_store, what + " (" + std::to_string(rc) + ")");
}

struct Request {
    const Table *table = nullptr;
    int db = -1;
    kx::Message record; // index and values as given
    std::vector<const Field *> index_given;
    std::vector<int32_t> value_tags; // in the order given
};

bool contains(const std::vector<const Field *> &fields, const Field *f)
{
    return std::find(fields.begin(), fields.end(), f) != fields.end();
}

// Fills `req` from "name=value" words; the reason when one does not fit. A name the
// index and the record share names the index field until that has been given.
std::optional<std::string> parse_assignments(Request &req, const std::vector<std::string> &words,
                                             bool values_allowed)
{
    const Table *itable = index_table(req.table);
    const Field *index_field = kx::index_field(req.table);
    req.record.reset(kx::new_record(req.table));
    ProtobufCMessage *index = itable ? kx::new_record(itable) : nullptr;
    if (index)
        kx::member<ProtobufCMessage *>(req.record.get(), index_field) = index;
    for (const auto &word : words) {
        size_t eq = word.find('=');
        if (eq == std::string::npos || eq == 0)
            return "expected name=value, got '" + word + "'";
        std::string name = word.substr(0, eq);
        std::string_view value = std::string_view(word).substr(eq + 1);
        const Field *f = field_named(itable, name);
        ProtobufCMessage *target = index;
        if (f && !contains(req.index_given, f)) {
            req.index_given.push_back(f);
        } else {
            bool in_index = f != nullptr;
            f = field_named(req.table, name);
            if (!f || f == index_field)
                return std::string(req.table->name) +
                       (in_index ? ": index field '" + name + "' given twice"
                                 : " has no field '" + name + "'");
            if (!values_allowed)
                return "only index fields select a record here, not '" + name + "'";
            auto tag = static_cast<int32_t>(f->id);
            if (std::find(req.value_tags.begin(), req.value_tags.end(), tag) !=
                req.value_tags.end())
                return "field '" + name + "' given twice";
            req.value_tags.push_back(tag);
            target = req.record.get();
        }
        if (!set_field(target, f, value))
            return "bad value for " + name + " (" + type_name(f) + "): '" + std::string(value) + "'";
    }
    return std::nullopt;
}

std::optional<std::string> require_whole_index(const Request &req)
{
    for (const Field *f : all_fields(index_table(req.table)))
        if (!contains(req.index_given, f))
            return std::string("missing index field ") + f->name + " (" + type_name(f) + ")";
    return std::nullopt;
}

// ---- store commands ----------------------------------------------------------------------

struct Session {
    kx_global_t *global = nullptr;
    ~Session()
    {
        if (global)
            kx_global_finish(global);
    }
};

int connect_db(Session &s, int db)
{
    s.global = kx_global_init("kxctl", nullptr);
    if (!s.global)
        return fail(exit_store, "cannot create the event loop");
    int32_t rc = kx_mom_client_connect_sync(s.global, db);
    return rc ? store_failure("cannot connect to database " + std::to_string(db), rc) : 0;
}

int cmd_get(Session &s, Request &req)
{
    std::string key = kx::record_key(req.record.get());
    if (kx::stored_whole(req.table)) {
        int32_t err = 0;
        kx::Message obj(static_cast<ProtobufCMessage *>(
            kx_mom_get_sync(s.global, req.db, req.record.get(), &err)));
        if (!obj || err != 0)
            return store_failure("cannot read " + key, err);
        auto fields = value_fields(req.table);
        fputs(render(nullptr, key, obj.get(), &fields).c_str(), stdout);
        return 0;
    }
    kx::HashRes res(kx_mom_hgetall_sync(s.global, req.db, req.record.get()));
    if (!res)
        return fail(exit_store, "cannot read " + key + ": connection lost");
    if (res->error_code != 0)
        return store_failure("cannot read " + key, res->error_code);
    if (!res->obj)
        return fail(exit_store, "no record " + key);
    auto *obj = static_cast<ProtobufCMessage *>(res->obj);
    auto fields = value_fields(req.table, res->field_tag, res->field_len);
    fputs(render(nullptr, res->key, obj, &fields).c_str(), stdout);
    return 0;
}

int cmd_set_or_del(Session &s, Request &req, bool del)
{
    int32_t rc = del ? kx_mom_del_sync(s.global, req.db, req.record.get())
                     : kx_mom_hmset_sync(s.global, req.db, req.record.get(),
                                         req.value_tags.data(),
                                         static_cast<int32_t>(req.value_tags.size()));
    if (rc == 0)
        return 0;
    return store_failure((del ? "cannot delete " : "cannot write ") +
                             kx::record_key(req.record.get()),
                         rc);
}

// True when every index field given in `req` has the same value in `record`.
bool matches(const Request &req, const ProtobufCMessage *record)
{
    const ProtobufCMessage *want = index_of(req.record.get());
    const ProtobufCMessage *have = index_of(record);
    for (const Field *f : req.index_given)
        if (!have || kx::field_text(want, f) != kx::field_text(have, f))
            return false;
    return true;
}

// Orders records by their index values: numbers as numbers, strings bytewise.
using SortKey = std::vector<std::pair<int32_t, std::string>>;

SortKey sort_key(const ProtobufCMessage *record)
{
    SortKey key;
    const ProtobufCMessage *index = index_of(record);
    for (const Field *f : all_fields(index ? index->descriptor : nullptr))
        key.emplace_back(is_number(f) ? kx::member<int32_t>(index, f) : 0,
                         is_number(f) ? "" : kx::field_text(index, f));
    return key;
}

// One readable record of a scan: the hash result and its decoded record.
using Visit = std::function<void(const kx_mom_hash_res &, const ProtobufCMessage &)>;

struct ScanState {
    const Request *filter; // the index fields given, or null for every record
    Visit visit;
    int unreadable = 0;
};

int32_t on_scanned(kx_global_t *, kx_mom_msg *pmsg, void *privdata)
{
    auto *scan = static_cast<ScanState *>(privdata);
    auto *res = static_cast<kx_mom_hash_res *>(pmsg->data);
    if (pmsg->cmd != KX_MOM_CMD_HSET || !res)
        return 0;
    const char *key = res->key ? res->key : "";
    if (res->error_code != 0 || !res->obj) {
        // Reported when it may be one of the records asked for: its key tells.
        std::string ignored;
        kx::Message keyed(kx::parse_key(pmsg->table, key, &ignored));
        if (!scan->filter || !keyed || matches(*scan->filter, keyed.get())) {
            fprintf(stderr, "kxctl: skipped %s (%d)\n", key, res->error_code);
            ++scan->unreadable;
        }
        return 0;
    }
    const auto &record = *static_cast<const ProtobufCMessage *>(res->obj);
    if (!scan->filter || matches(*scan->filter, &record))
        scan->visit(*res, record);
    return 0;
}

// Visits every readable record of `table` matching `filter`; 0, or the exit status.
int scan_table(Session &s, int db, const Table *table, const Request *filter, Visit visit)
{
    ScanState scan{filter, std::move(visit)};
    kx::Message key(kx::new_record(table)); // an index at its defaults selects the whole table
    int32_t rc = kx_mom_scan_sync(s.global, db, key.get(), 0, on_scanned, &scan);
    if (rc != 0)
        return store_failure(std::string("cannot scan ") + table->name, rc);
    return scan.unreadable ? exit_store : 0;
}

// Lines printed in index order, whatever order the store listed the keys in.
struct SortedLines {
    std::vector<std::pair<SortKey, std::string>> lines;

    void add(const ProtobufCMessage &record, std::string line)
    {
        lines.emplace_back(sort_key(&record), std::move(line));
    }
    void print()
    {
        std::stable_sort(lines.begin(), lines.end(),
                         [](const auto &a, const auto &b) { return a.first < b.first; });
        for (const auto &entry : lines)
            fputs(entry.second.c_str(), stdout);
    }
};

int cmd_scan(Session &s, Request &req)
{
    if (!index_table(req.table)) // a single record: there is nothing to scan for
        return cmd_get(s, req);
    SortedLines out;
    int rc = scan_table(s, req.db, req.table, &req,
                        [&](const kx_mom_hash_res &res, const ProtobufCMessage &record) {
                            auto fields = value_fields(req.table, res.field_tag, res.field_len);
                            out.add(record, render(nullptr, res.key, &record, &fields));
                        });
    out.print();
    return rc;
}

// ---- watch -----------------------------------------------------------------------------------

const char *event_name(int32_t cmd)
{
    switch (cmd) {
    case KX_MOM_CMD_SET: return "set";
    case KX_MOM_CMD_DEL: return "del";
    case KX_MOM_CMD_HSET: return "hset";
    case KX_MOM_CMD_HDEL: return "hdel";
    case KX_MOM_CMD_SUBSCRIBED: return "subscribed";
    default: return nullptr;
    }
}

int32_t on_change(kx_global_t *, kx_mom_msg *pmsg, void *privdata)
{
    const Request &req = *static_cast<const Request *>(privdata);
    const char *event = event_name(pmsg->cmd);
    const char *key = pmsg->key ? pmsg->key : "";
    const ProtobufCMessage *record = nullptr; // none for "subscribed"
    std::vector<const Field *> fields;
    if (!event)
        return 0;
    if (pmsg->cmd == KX_MOM_CMD_HSET || pmsg->cmd == KX_MOM_CMD_HDEL) {
        auto *res = static_cast<kx_mom_hash_res *>(pmsg->data);
        if (!res || res->error_code != 0 || !res->obj) {
            fprintf(stderr, "kxctl: %s %s: unreadable record (%d)\n", event, key,
                    res ? res->error_code : 0);
            return 0;
        }
        record = static_cast<const ProtobufCMessage *>(res->obj);
        fields = value_fields(req.table, res->field_tag, res->field_len);
    } else if (pmsg->cmd != KX_MOM_CMD_SUBSCRIBED) {
        record = static_cast<const ProtobufCMessage *>(pmsg->data);
        if (!record)
            return 0;
        if (pmsg->cmd == KX_MOM_CMD_SET)
            fields = value_fields(req.table);
    }
    if (record && !matches(req, record))
        return 0;
    fputs(render(event, key, record, pmsg->cmd == KX_MOM_CMD_DEL ? nullptr : &fields).c_str(),
          stdout);
    fflush(stdout);
    return 0;
}

int32_t on_disconnect(kx_global_t *, int32_t db)
{
    fprintf(stderr, "kxctl: database %d disconnected, reconnecting\n", db);
    return 0;
}

int32_t on_reconnect(kx_global_t *, int32_t db, int32_t type)
{
    fprintf(stderr, "kxctl: database %d reconnected%s\n", db,
            type == KX_MOM_RECONNECT_RESTARTED ? " (the server restarted)" : "");
    return 0;
}

int cmd_watch(Session &s, Request &req)
{
    kx::Message key(kx::new_record(req.table)); // the whole table; the index given filters
    int32_t rc = kx_mom_client_set_disconnect_cb(s.global, req.db, on_disconnect, 0);
    if (rc == 0)
        rc = kx_mom_client_set_reconnect_cb(s.global, req.db, on_reconnect, 0);
    if (rc == 0)
        rc = kx_mom_subscribe(s.global, req.db, key.get(), 0, on_change, &req);
    if (rc != 0)
        return store_failure(std::string("cannot watch ") + req.table->name, rc);
    kx_global_run(s.global); // until SIGINT or SIGTERM
    return 0;
}

// ---- chassis -------------------------------------------------------------------------------

int32_t node_of(const ProtobufCMessage &record)
{
    const ProtobufCMessage *index = index_of(&record);
    const Field *node = field_named(index->descriptor, "node");
    return kx::member<int32_t>(index, node ? node : field_named(index->descriptor, "nodeid"));
}

// Every ready record of `ready_table` with the number of `entry_table` records
// under its node.
int print_ready_with_entries(Session &s, int db, const char *ready_table, const char *entry_table)
{
    const Table *ready = kx_mom_table(ready_table);
    const Table *entries = kx_mom_table(entry_table);
    if (!ready || !entries)
        return fail(exit_store, "the store does not know the chassis tables");
    std::map<int32_t, long> counts;
    int rc = scan_table(s, db, entries, nullptr,
                        [&](const kx_mom_hash_res &, const ProtobufCMessage &record) {
                            ++counts[node_of(record)];
                        });
    SortedLines out;
    int rc2 = scan_table(
        s, db, ready, nullptr, [&](const kx_mom_hash_res &res, const ProtobufCMessage &record) {
            auto fields = value_fields(ready, res.field_tag, res.field_len);
            out.add(record, render(nullptr, res.key, &record, &fields, counts[node_of(record)]));
        });
    out.print();
    return rc ? rc : rc2;
}

int cmd_chassis(Session &s, int db)
{
    int rc = print_ready_with_entries(s, db, "s_frame.cap_fe_ready", "s_frame.cap_glb_table");
    int rc2 = print_ready_with_entries(s, db, "s_frame.cap_subcard_ready",
                                       "s_frame.cap_subcard_glb_table");
    return rc ? rc : rc2;
}

// ---- tables --------------------------------------------------------------------------------

void print_table(const Table *table)
{
    std::vector<std::pair<const Field *, bool>> fields; // and whether it is an index field
    for (const Field *f : all_fields(index_table(table)))
        fields.emplace_back(f, true);
    for (const Field *f : value_fields(table))
        fields.emplace_back(f, false);
    if (!g_json) {
        for (const auto &[f, is_index] : fields)
            printf("%s %s %u %s%s\n", table->name, f->name, f->id, type_name(f).c_str(),
                   is_index ? " index" : "");
        return;
    }
    std::string line = "{\"table\":" + json_quote(table->name) +
                       ",\"db\":" + std::to_string(home_db(table)) +
                       ",\"whole_value\":" + (kx::stored_whole(table) ? "true" : "false") +
                       ",\"fields\":[";
    for (const auto &[f, is_index] : fields)
        line += std::string(line.back() == '[' ? "" : ",") + "{\"name\":" + json_quote(f->name) +
                ",\"number\":" + std::to_string(f->id) +
                ",\"type\":" + json_quote(type_name(f)) +
                ",\"index\":" + (is_index ? "true" : "false") + "}";
    puts((line + "]}").c_str());
}

// ---- main ------------------------------------------------------------------------------------

int usage_error(const std::string &why)
{
    fprintf(stderr, "kxctl: %s\n%s", why.c_str(), usage_text);
    return exit_usage;
}

int run_table_command(const std::string &command, int db, const std::vector<std::string> &words)
{
    Request req;
    req.table = kx_mom_table(words[0].c_str());
    if (!req.table)
        return fail(exit_usage, "unknown table '" + words[0] + "' (kxctl tables lists them)");
    req.db = db >= 0 ? db : home_db(req.table);
    bool values = command == "set";
    if (auto err = parse_assignments(req, {words.begin() + 1, words.end()}, values))
        return fail(exit_usage, *err);
    bool one_record = command == "get" || command == "set" || command == "del";
    if (one_record)
        if (auto err = require_whole_index(req))
            return fail(exit_usage, *err);
    if (values && req.value_tags.empty())
        return fail(exit_usage, "set needs at least one field=value");

    Session s;
    if (int rc = connect_db(s, req.db); rc != 0)
        return rc;
    if (command == "get")
        return cmd_get(s, req);
    if (command == "set" || command == "del")
        return cmd_set_or_del(s, req, command == "del");
    if (command == "scan")
        return cmd_scan(s, req);
    return cmd_watch(s, req);
}

} // namespace

int main(int argc, char **argv)
{
    int32_t db = -1;
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) {
        std::string_view a = argv[i];
        if (a == "--help" || a == "-h") {
            fputs(usage_text, stdout);
            return 0;
        }
        if (a == "--json") {
            g_json = true;
        } else if (a == "-n") {
            if (i + 1 == argc || !kx::parse_int32(argv[i + 1], &db) || db < 0)
                return usage_error("-n needs a database number");
            ++i;
        } else {
            words.emplace_back(a);
        }
    }
    if (words.empty())
        return usage_error("missing COMMAND");
    std::string command = words[0];
    words.erase(words.begin());
    if (command == "tables" || command == "chassis") {
        if (!words.empty())
            return usage_error(command + " takes no argument");
        if (command == "tables") {
            for (const Table *const *t = kx_mom_tables(); *t; ++t)
                print_table(*t);
            return 0;
        }
        Session s;
        db = db >= 0 ? db : 28;
        int rc = connect_db(s, db);
        return rc ? rc : cmd_chassis(s, db);
    }
    static constexpr std::string_view table_commands[] = {"get", "set", "del", "scan", "watch"};
    if (std::find(std::begin(table_commands), std::end(table_commands), command) ==
        std::end(table_commands))
        return usage_error("unknown command '" + command + "'");
    if (words.empty())
        return usage_error(command + " needs a TABLE");
    return run_table_command(command, db, words);
}
