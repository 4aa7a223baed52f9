// kxctl: reads, writes, scans and watches store records by table name (the usage
// text below), printing one record a line (kxctl_output.h).
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kx_codec.h"
#include "kx_global.h"
#include "kx_mom.h"
#include "kxctl_output.h"

namespace {

using Field = ProtobufCFieldDescriptor;
using Table = ProtobufCMessageDescriptor;
using kxctl::Line;
using kxctl::Style;

constexpr int exit_store = 1;
constexpr int exit_usage = 2;
constexpr std::string_view index_prefix = "index.";

std::span<const Field> fields_of(const Table *table)
{
    return table ? std::span(table->fields, table->n_fields) : std::span<const Field>();
}

const Table *index_table(const Table *table)
{
    const Field *idx = kx::index_field(table);
    return idx ? static_cast<const Table *>(idx->descriptor) : nullptr;
}

const ProtobufCMessage *index_of(const ProtobufCMessage &record)
{
    const Field *idx = kx::index_field(record.descriptor);
    return idx ? kx::member<ProtobufCMessage *>(&record, idx) : nullptr;
}

const Field *field_named(const Table *table, std::string_view name)
{
    for (const Field &f : fields_of(table))
        if (name == f.name)
            return &f;
    return nullptr;
}

int32_t home_db(const Table *table)
{
    for (const kx_mom_table_home &home : kx_mom_table_homes)
        if (strcmp(home.table, table->name) == 0)
            return home.db;
    return -1;
}

std::string type_name(const Field *f)
{
    switch (f->type) {
    case PROTOBUF_C_TYPE_INT32:
        return "int32";
    case PROTOBUF_C_TYPE_BOOL:
        return "bool";
    case PROTOBUF_C_TYPE_STRING:
        return "string";
    case PROTOBUF_C_TYPE_BYTES:
        return "bytes";
    case PROTOBUF_C_TYPE_ENUM:
        return std::string("enum:") +
               static_cast<const ProtobufCEnumDescriptor *>(f->descriptor)->name;
    default:
        return "unsupported";
    }
}

kxctl::Value value_of(const ProtobufCMessage &msg, const Field &f)
{
    auto kind = f.type == PROTOBUF_C_TYPE_BYTES    ? kxctl::Kind::bytes
                : f.type == PROTOBUF_C_TYPE_STRING ? kxctl::Kind::string
                                                   : kxctl::Kind::bare;
    return {f.name, kx::field_text(&msg, &f), kind};
}

// A record as a line: its key, its index, and the fields the hash `res` held (with
// `res` null, a whole value: every field).
Line record_line(std::string key, const ProtobufCMessage &record, const kx_mom_hash_res *res)
{
    Line line;
    line.key = std::move(key);
    line.fields.emplace();
    if (const ProtobufCMessage *index = index_of(record))
        for (const Field &f : fields_of(index->descriptor))
            line.index.push_back(value_of(*index, f));
    std::span<const int32_t> present;
    if (res && res->field_tag)
        present = {res->field_tag, static_cast<size_t>(res->field_len)};
    for (const Field &f : fields_of(record.descriptor))
        if (&f != kx::index_field(record.descriptor) &&
            (!res || std::ranges::count(present, static_cast<int32_t>(f.id)) > 0))
            line.fields->push_back(value_of(record, f));
    return line;
}

// Sets field `f` from its text as the store holds it, an enum also by its name.
bool set_value(ProtobufCMessage *msg, const Field *f, std::string_view text)
{
    std::string number;
    if (f->type == PROTOBUF_C_TYPE_ENUM) {
        auto *e = static_cast<const ProtobufCEnumDescriptor *>(f->descriptor);
        if (auto *v = protobuf_c_enum_descriptor_get_value_by_name(e, std::string(text).c_str()))
            text = number = std::to_string(v->value);
    }
    const char *why = nullptr;
    return kx::set_field(msg, f, text, &why);
}

struct Request {
    std::string command;
    Style style = Style::plain;
    int32_t db = -1;
    const Table *table = nullptr;
    kx::Message record; // the index and the values as given
    std::vector<const Field *> index_given;
    std::vector<int32_t> value_tags; // in the order given
};

int refuse(int status, const std::string &why)
{
    fprintf(stderr, "kxctl: %s\n", why.c_str());
    return status;
}

int store_failure(const std::string &what, int32_t rc)
{
    return refuse(exit_store, what + " (" + std::to_string(rc) + ")");
}

// The field `name` sets: index.NAME the index field; a bare name the record's field
// when the record has one so named, else the index field.
const Field *field_for(const Table *table, std::string_view name, bool *in_index)
{
    *in_index = name.starts_with(index_prefix);
    if (*in_index)
        return field_named(index_table(table), name.substr(index_prefix.size()));
    const Field *f = field_named(table, name);
    *in_index = !f || f == kx::index_field(table);
    return *in_index ? field_named(index_table(table), name) : f;
}

// Fills the request from "name=value" words; the reason when one does not fit.
std::optional<std::string> parse_assignments(Request &req, std::span<const std::string> words)
{
    bool values_allowed = req.command == "set";
    req.record.reset(kx::new_record(req.table));
    ProtobufCMessage *index = nullptr;
    if (const Field *idx = kx::index_field(req.table); idx && req.record)
        index = kx::member<ProtobufCMessage *>(req.record.get(), idx) =
            kx::new_record(index_table(req.table));
    if (!req.record || (kx::index_field(req.table) && !index))
        return "out of memory";
    for (const std::string &word : words) {
        size_t eq = word.find('=');
        if (eq == std::string::npos || eq == 0)
            return "expected name=value, got '" + word + "'";
        std::string name = word.substr(0, eq);
        std::string_view value = std::string_view(word).substr(eq + 1);
        bool in_index = false;
        const Field *f = field_for(req.table, name, &in_index);
        if (!f)
            return std::string(req.table->name) + " has no field '" + name + "'";
        auto tag = static_cast<int32_t>(f->id);
        if (in_index) {
            if (std::ranges::count(req.index_given, f) > 0)
                return "index field '" + name + "' given twice";
            req.index_given.push_back(f);
        } else {
            bool shared = field_named(index_table(req.table), name) != nullptr;
            if (!values_allowed)
                return "only index fields select a record here, not '" + name + "'" +
                       (shared ? " (the index's is index." + name + ")" : "");
            if (std::ranges::count(req.value_tags, tag) > 0)
                return "field '" + name + "' given twice";
            req.value_tags.push_back(tag);
        }
        if (!set_value(in_index ? index : req.record.get(), f, value))
            return "bad value for " + name + " (" + type_name(f) + "): '" + std::string(value) +
                   "'";
    }
    return std::nullopt;
}

// True when every index field given in `req` has the same value in `record`.
bool matches(const Request &req, const ProtobufCMessage &record)
{
    const ProtobufCMessage *want = index_of(*req.record);
    const ProtobufCMessage *have = index_of(record);
    for (const Field *f : req.index_given)
        if (!have || kx::field_text(want, f) != kx::field_text(have, f))
            return false;
    return true;
}

struct Session {
    kx_global_t *global = nullptr;
    ~Session()
    {
        if (global)
            kx_global_finish(global);
    }
};

int connect_db(Session &s, int32_t db)
{
    s.global = kx_global_init("kxctl", nullptr);
    if (!s.global)
        return refuse(exit_store, "cannot create the event loop");
    int32_t rc = kx_mom_client_connect_sync(s.global, db);
    return rc ? store_failure("cannot connect to database " + std::to_string(db), rc) : 0;
}

void print(const Line &line, Style style) { fputs(kxctl::render(line, style).c_str(), stdout); }

int cmd_get(Session &s, const Request &req)
{
    std::string key = kx::record_key(req.record.get());
    int32_t err = 0;
    kx::Message whole;
    kx::HashRes res;
    if (kx::stored_whole(req.table)) {
        whole.reset(static_cast<ProtobufCMessage *>(
            kx_mom_get_sync(s.global, req.db, req.record.get(), &err)));
    } else {
        res.reset(kx_mom_hgetall_sync(s.global, req.db, req.record.get()));
        if (!res)
            return refuse(exit_store, "cannot read " + key + ": connection lost");
        err = res->error_code;
    }
    const auto *record =
        whole ? whole.get() : static_cast<const ProtobufCMessage *>(res ? res->obj : nullptr);
    if (err != 0)
        return store_failure("cannot read " + key, err);
    if (!record)
        return refuse(exit_store, "no record " + key);
    print(record_line(key, *record, res.get()), req.style);
    return 0;
}

int cmd_set_or_del(Session &s, const Request &req)
{
    bool del = req.command == "del";
    int32_t rc = del ? kx_mom_del_sync(s.global, req.db, req.record.get())
                     : kx_mom_hmset_sync(s.global, req.db, req.record.get(), req.value_tags.data(),
                                         static_cast<int32_t>(req.value_tags.size()));
    if (rc == 0)
        return 0;
    return store_failure(
        (del ? "cannot delete " : "cannot write ") + kx::record_key(req.record.get()), rc);
}

// One readable record of a scan: its hash result and its decoded record.
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
        if (!scan->filter || !keyed || matches(*scan->filter, *keyed)) {
            fprintf(stderr, "kxctl: skipped %s (%d)\n", key, res->error_code);
            ++scan->unreadable;
        }
        return 0;
    }
    const auto &record = *static_cast<const ProtobufCMessage *>(res->obj);
    if (!scan->filter || matches(*scan->filter, record))
        scan->visit(*res, record);
    return 0;
}

// Visits every readable record of `table` matching `filter`; 0, or the exit status.
int scan_table(Session &s, int32_t db, const Table *table, const Request *filter, Visit visit)
{
    ScanState scan{filter, std::move(visit)};
    kx::Message key(kx::new_record(table)); // an index at its defaults selects the whole table
    int32_t rc = kx_mom_scan_sync(s.global, db, key.get(), 0, on_scanned, &scan);
    if (rc != 0)
        return store_failure(std::string("cannot scan ") + table->name, rc);
    return scan.unreadable ? exit_store : 0;
}

// Prints lines in index order (numbers as numbers, strings bytewise), whatever order
// the store listed the keys in.
void print_sorted(std::vector<Line> &lines, Style style)
{
    auto value_less = [](const kxctl::Value &x, const kxctl::Value &y) {
        if (x.kind == kxctl::Kind::bare) // an int32 or enum index field
            return std::stoll(x.text) < std::stoll(y.text);
        return x.text < y.text;
    };
    std::ranges::stable_sort(lines, [&](const Line &a, const Line &b) {
        return std::ranges::lexicographical_compare(a.index, b.index, value_less);
    });
    for (const Line &line : lines)
        print(line, style);
}

int cmd_scan(Session &s, const Request &req)
{
    if (!index_table(req.table)) // a single record: there is nothing to scan for
        return cmd_get(s, req);
    std::vector<Line> lines;
    int rc = scan_table(s, req.db, req.table, &req,
                        [&](const kx_mom_hash_res &res, const ProtobufCMessage &record) {
                            lines.push_back(record_line(res.key, record, &res));
                        });
    print_sorted(lines, req.style);
    return rc;
}

const char *event_name(int32_t cmd)
{
    switch (cmd) {
    case KX_MOM_CMD_SET:
        return "set";
    case KX_MOM_CMD_DEL:
        return "del";
    case KX_MOM_CMD_HSET:
        return "hset";
    case KX_MOM_CMD_HDEL:
        return "hdel";
    case KX_MOM_CMD_SUBSCRIBED:
        return "subscribed";
    default:
        return nullptr;
    }
}

int32_t on_change(kx_global_t *, kx_mom_msg *pmsg, void *privdata)
{
    const Request &req = *static_cast<const Request *>(privdata);
    const char *event = event_name(pmsg->cmd);
    std::string key = pmsg->key ? pmsg->key : "";
    bool hash = pmsg->cmd == KX_MOM_CMD_HSET || pmsg->cmd == KX_MOM_CMD_HDEL;
    auto *res = hash ? static_cast<const kx_mom_hash_res *>(pmsg->data) : nullptr;
    auto *record =
        static_cast<const ProtobufCMessage *>(hash ? (res ? res->obj : nullptr) : pmsg->data);
    if (hash && (!record || res->error_code != 0)) {
        fprintf(stderr, "kxctl: %s %s: unreadable record (%d)\n", event, key.c_str(),
                res ? res->error_code : 0);
        return 0;
    }
    if (!event || (record ? !matches(req, *record) : pmsg->cmd != KX_MOM_CMD_SUBSCRIBED))
        return 0;
    Line line = record ? record_line(key, *record, res) : Line(); // "subscribed": the key alone
    line.event = event;
    line.key = key;
    if (pmsg->cmd == KX_MOM_CMD_DEL) // known by its key alone
        line.fields.reset();
    print(line, req.style);
    if (fflush(stdout) != 0) // the reader is gone (a closed pipe, a hung-up terminal)
        raise(SIGTERM);      // which ends the loop as an interrupt does
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

// Each chassis ready table, with the table of global entries its records count.
constexpr std::pair<const char *, const char *> chassis_tables[] = {
    {"s_frame.cap_fe_ready", "s_frame.cap_glb_table"},
    {"s_frame.cap_subcard_ready", "s_frame.cap_subcard_glb_table"},
};

// The card or subcard a chassis record is about: its index's `node` or `nodeid`.
std::optional<int32_t> node_of(const ProtobufCMessage &record)
{
    const ProtobufCMessage *index = index_of(record);
    for (const char *name : {"node", "nodeid"})
        if (const Field *f = index ? field_named(index->descriptor, name) : nullptr;
            f && f->type == PROTOBUF_C_TYPE_INT32)
            return kx::member<int32_t>(index, f);
    return std::nullopt;
}

// Each card's or subcard's ready record with its number of global entries, by node; a
// node whose entries have no ready record (being published, or left behind) is listed by
// the key prefix of those entries.
int cmd_chassis(Session &s, int32_t db, Style style)
{
    int status = 0;
    for (auto [ready_name, entries_name] : chassis_tables) {
        const Table *ready = kx_mom_table(ready_name);
        const Table *entries = kx_mom_table(entries_name);
        if (!ready || !entries)
            return refuse(exit_store, "the store does not know the chassis tables");
        std::map<int32_t, long> counts;
        int rc = scan_table(s, db, entries, nullptr, [&](const auto &, const auto &record) {
            if (auto node = node_of(record))
                ++counts[*node];
        });
        std::vector<Line> lines;
        std::map<int32_t, bool> has_ready;
        int rc2 = scan_table(s, db, ready, nullptr, [&](const auto &res, const auto &record) {
            Line line = record_line(res.key, record, &res);
            if (auto node = node_of(record)) {
                line.entries = counts[*node];
                has_ready[*node] = true;
            }
            lines.push_back(std::move(line));
        });
        for (auto [node, n] : counts) {
            std::string text = std::to_string(node);
            if (!has_ready[node])
                lines.push_back({{},
                                 std::string(entries_name) + "|" + text,
                                 {{"node", text, kxctl::Kind::bare}},
                                 std::nullopt,
                                 n});
        }
        print_sorted(lines, style);
        status = status ? status : rc ? rc : rc2;
    }
    return status;
}

void print_table(const Table *table, Style style)
{
    std::vector<std::pair<const Field *, bool>> fields; // and whether it is an index field
    for (const Field &f : fields_of(index_table(table)))
        fields.emplace_back(&f, true);
    for (const Field &f : fields_of(table))
        if (&f != kx::index_field(table))
            fields.emplace_back(&f, false);
    if (style == Style::plain) {
        for (const auto &[f, is_index] : fields)
            printf("%s %s %u %s%s\n", table->name, f->name, f->id, type_name(f).c_str(),
                   is_index ? " index" : "");
        return;
    }
    std::string line = "{\"table\":" + kxctl::json_string(table->name) +
                       ",\"db\":" + std::to_string(home_db(table)) +
                       ",\"whole_value\":" + (kx::stored_whole(table) ? "true" : "false") +
                       ",\"fields\":[";
    for (const auto &[f, is_index] : fields)
        line += std::string(line.back() == '[' ? "" : ",") +
                "{\"name\":" + kxctl::json_string(f->name) +
                ",\"number\":" + std::to_string(f->id) +
                ",\"type\":" + kxctl::json_string(type_name(f)) +
                ",\"index\":" + (is_index ? "true" : "false") + "}";
    puts((line + "]}").c_str());
}

int usage_error(const std::string &why)
{
    fprintf(stderr, "kxctl: %s\n%s", why.c_str(), kxctl::usage().c_str());
    return exit_usage;
}

int run_table_command(Request &req, std::span<const std::string> words)
{
    req.table = kx_mom_table(words[0].c_str());
    if (!req.table)
        return refuse(exit_usage, "unknown table '" + words[0] + "' (kxctl tables lists them)");
    req.db = req.db >= 0 ? req.db : home_db(req.table);
    if (auto err = parse_assignments(req, words.subspan(1)))
        return refuse(exit_usage, *err);
    bool one_record = req.command != "scan" && req.command != "watch";
    for (const Field &f : fields_of(index_table(req.table)))
        if (one_record && std::ranges::count(req.index_given, &f) == 0)
            return refuse(exit_usage, std::string("missing index field ") + f.name + " (" +
                                          type_name(&f) + ")");
    if (req.command == "set" && req.value_tags.empty())
        return refuse(exit_usage, "set needs at least one field=value");

    Session s;
    if (int rc = connect_db(s, req.db); rc != 0)
        return rc;
    if (req.command == "get")
        return cmd_get(s, req);
    if (req.command == "set" || req.command == "del")
        return cmd_set_or_del(s, req);
    if (req.command == "scan")
        return cmd_scan(s, req);
    return cmd_watch(s, req);
}

} // namespace

int main(int argc, char **argv)
{
    Request req;
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) {
        std::string_view a = argv[i];
        if (a == "--help" || a == "-h") {
            fputs(kxctl::usage().c_str(), stdout);
            return 0;
        }
        if (a == "--json")
            req.style = Style::json;
        else if (a != "-n")
            words.emplace_back(a);
        else if (std::optional<int32_t> db = ++i < argc ? kx::parse_int32(argv[i]) : std::nullopt;
                 db && *db >= 0)
            req.db = *db;
        else
            return usage_error("-n needs a database number");
    }
    if (words.empty())
        return usage_error("missing COMMAND");
    req.command = words[0];
    std::span<const std::string> rest = std::span(words).subspan(1);
    if (req.command == "tables" || req.command == "chassis") {
        if (!rest.empty())
            return usage_error(req.command + " takes no argument");
        if (req.command == "tables") {
            for (const Table *const *t = kx_mom_tables(); *t; ++t)
                print_table(*t, req.style);
            return 0;
        }
        Session s;
        int32_t db = req.db >= 0 ? req.db : KX_MOM_DB_CE_GLOBAL;
        int rc = connect_db(s, db);
        return rc ? rc : cmd_chassis(s, db, req.style);
    }
    static constexpr std::string_view table_commands[] = {"get", "set", "del", "scan", "watch"};
    if (std::ranges::count(table_commands, req.command) == 0)
        return usage_error("unknown command '" + req.command + "'");
    if (rest.empty())
        return usage_error(req.command + " needs a TABLE");
    return run_table_command(req, rest);
}
