// One table of store calls, good and bad, run against libkx on a real redis-server
// (kx_parity_libkx) and against the unit tests' double (kx_parity_double): both must
// give the same results and leave the same records in the store.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "kx_codec.h"
#include "s_frame.pb-c.h"
#ifdef KX_PARITY_DOUBLE
#include "kx_double.h"
#else
#include <sstream>

#include "test_redis.h"
#endif

namespace {

using Fields = std::vector<std::pair<std::string, std::string>>;
using Records = std::map<std::string, Fields>;

#ifdef KX_PARITY_DOUBLE
struct Backend {
    Backend() { kxd::reset(); }
    void put(int32_t db, const std::string &key, const Fields &f) { kxd::put_raw(db, key, f); }
    Records records(int32_t db) { return kxd::records(db); }
    kx_global_t *g = kx_global_init("kx_parity", nullptr);
};
#else
// Writes a record as given (a whole value as the field "value"); lists every field stored
// as three lines: key, name, value.
constexpr const char *kPut = "if ARGV[1] == 'value' then redis.call('SET', KEYS[1], ARGV[2]) "
                             "else redis.call('HSET', KEYS[1], unpack(ARGV)) end";
constexpr const char *kList =
    "local out = {} for _, k in ipairs(redis.call('KEYS', '*')) do "
    "local f = redis.call('TYPE', k).ok == 'hash' and redis.call('HGETALL', k) "
    "or {'value', redis.call('GET', k)} for i = 1, #f, 2 do "
    "out[#out + 1] = k out[#out + 1] = f[i] out[#out + 1] = f[i + 1] end end return out";

struct Backend {
    Backend()
    {
        setenv("KX_MOM_ADDR", server.addr().c_str(), 1);
        for (int32_t db : {1, 2, 3, 28})
            EXPECT_EQ(kx_mom_client_connect_sync(g, db), 0);
    }
    ~Backend() { kx_global_finish(g); }
    void put(int32_t db, const std::string &key, const Fields &f)
    {
        std::vector<std::string> args = {"EVAL", kPut, "1", key};
        for (const auto &[name, value] : f)
            args.insert(args.end(), {name, value});
        server.cli(db, args);
    }
    Records records(int32_t db)
    {
        std::istringstream in(server.cli(db, {"EVAL", kList, "0"}));
        Records out;
        for (std::string k, name, value; getline(in, k) && getline(in, name) && getline(in, value);)
            out[k].emplace_back(name, value);
        return out;
    }
    testsupport::RedisServer server;
    kx_global_t *g = kx_global_init("kx_parity", nullptr);
};
#endif

// A record of the table its key names, these fields set from their text.
kx::Message record(const std::string &key, const Fields &fields = {})
{
    std::string error;
    const char *why = "";
    kx::Message rec(kx::parse_key(kx::table_of_key(key), key, &error));
    for (const auto &[name, text] : fields)
        kx::set_field(
            rec.get(),
            protobuf_c_message_descriptor_get_field_by_name(rec->descriptor, name.c_str()), text,
            &why);
    return rec;
}

std::string describe(const void *obj) // key, then every field but the index
{
    const auto *msg = static_cast<const ProtobufCMessage *>(obj);
    std::string out = msg ? kx::record_key(msg) : "no record";
    for (unsigned i = 0; msg && i < msg->descriptor->n_fields; ++i) {
        const ProtobufCFieldDescriptor *f = &msg->descriptor->fields[i];
        if (f != kx::index_field(msg->descriptor))
            out += " " + std::string(f->name) + "=" + kx::field_text(msg, f);
    }
    return out + (msg && msg->n_unknown_fields ? " and unknown fields" : "");
}

std::string describe(const kx_mom_hash_res *res) // error, then the fields listed, in order
{
    if (!res)
        return "null";
    const auto *msg = static_cast<const ProtobufCMessage *>(res->obj);
    std::string out = std::to_string(res->error_code) + (msg ? " [" : " no record");
    for (int32_t i = 0; msg && i < res->field_len; ++i) {
        const ProtobufCFieldDescriptor *f = protobuf_c_message_descriptor_get_field(
            msg->descriptor, static_cast<unsigned>(res->field_tag[i]));
        out += (i ? " " : "") + std::string(f->name) + "=" + kx::field_text(msg, f);
    }
    return out + (msg ? "]" : "");
}

int32_t add_delivery(kx_global_t *, kx_mom_msg *m, void *out)
{
    auto *res = static_cast<kx_mom_hash_res *>(m->data);
    std::string what = m->cmd == KX_MOM_CMD_HSET ? describe(res) : describe(m->data);
    static_cast<std::vector<std::string> *>(out)->push_back(std::to_string(m->cmd) + " " + m->key +
                                                            ": " + what + "; ");
    return 0;
}

struct Call {
    std::string op; // get0: kx_mom_get_sync without an error pointer
    int32_t db;
    std::string key;                // "": no key; "?": a message of no table the store knows
    std::vector<int32_t> tags = {}; // hmset: none is a null list
    int32_t len = 0;                // hmset: the list's length when not its size
    Fields fields = {};             // hmset: the record's values
};

std::string run(kx_global_t *g, const Call &c)
{
    static SFrame__CapDepIndex unknown = S_FRAME__CAP_DEP_INDEX__INIT;
    kx::Message rec = c.key.empty() || c.key == "?" ? nullptr : record(c.key, c.fields);
    const ProtobufCMessage *key = c.key == "?" ? &unknown.base : rec.get();
    int32_t error = 7, n = c.len ? c.len : static_cast<int32_t>(c.tags.size());
    if (c.op == "hmset")
        return std::to_string(
            kx_mom_hmset_sync(g, c.db, key, c.tags.empty() ? nullptr : c.tags.data(), n));
    if (c.op == "del")
        return std::to_string(kx_mom_del_sync(g, c.db, key));
    if (c.op == "hgetall")
        return describe(kx::HashRes(kx_mom_hgetall_sync(g, c.db, key)).get());
    if (c.op == "scan") { // in key order: the store's order is its own
        std::vector<std::string> got;
        std::string out =
            std::to_string(kx_mom_scan_sync(g, c.db, key, 0, add_delivery, &got)) + " ";
        std::ranges::sort(got);
        for (const std::string &one : got)
            out += one;
        return out;
    }
    kx::Message obj(static_cast<ProtobufCMessage *>(
        kx_mom_get_sync(g, c.db, key, c.op == "get" ? &error : nullptr)));
    return (c.op == "get" ? std::to_string(error) + " " : "") + describe(obj.get());
}

TEST(KxParity, SameCallsGiveSameResultsAndStoreTheSame)
{
    // Exactly at the bound of their tables (4 KiB of names and values, of packed value),
    // then one byte more; unknown fields count but are not kept.
    const std::string edge(4096 - 13, 'x'), whole_edge = "(\x01" + std::string(4094, 'x');
    const std::string dep = "s_frame.cap_dep|", state = "p_libpub.cap_state", desc(65536, 'd');
    std::map<int32_t, Records> store = {
        {1,
         {{state, {{"value", whole_edge + "x"}}},
          {"p_dev.dp_lib_my_chss_info", {{"devid", "9"}, {"dev_desc", desc}}}}},
        {2, {{state, {{"value", whole_edge}}}}},
        {3,
         {{dep + "bad", {{"ready", "maybe"}}},
          {dep + "odd", {{"junk", "1"}}},
          {dep + "edge", {{"ready", "true"}, {"junk", edge}}},
          {dep + "big", {{"ready", "true"}, {"junk", edge + "x"}}}}},
        {28, {{state, {{"value", "\xff"}}}}},
    };
    Backend b;
    for (const auto &[db, records] : store)
        for (const auto &[key, fields] : records)
            b.put(db, key, fields);
    const std::string ready = "s_frame.cap_fe_ready|16|5", other = "s_frame.cap_fe_ready|16|7";
    const Fields values = {{"ready", "true"}, {"devid", "3"}};
    const std::pair<Call, std::string> cases[] = {
        {{"hmset", 28, ready, {6, 8}, 0, values}, "0"},
        {{"hmset", 28, other, {}, 0, values}, "-1004"}, // a write names what it writes
        {{"hmset", 28, other, {}, 1, values}, "-1004"},
        {{"hmset", 28, other, {6}, -1, values}, "-1004"},
        {{"hmset", 28, other, {6, 5}, 0, values}, "-1004"},
        {{"hmset", 28, other, {6, 99}, 0, values}, "-1004"},
        {{"hmset", -1, other, {6}, 0, values}, "-1004"},
        {{"hmset", 28, "?", {1}}, "-1004"},
        {{"hmset", 3, state, {5}, 0, {{"ready", "true"}}}, "0"},
        {{"hmset", 28, state, {}}, "-1004"},
        {{"hmset", 28, state, {9}}, "-1004"},
        {{"hmset", 1, "p_dev.dp_lib_my_info", {12, 6}, 0, {{"slotid", "4"}, {"prod_serial", "S"}}},
         "0"},
        {{"get", 3, state}, "0 p_libpub.cap_state ready=true"},
        {{"get0", 3, state}, "p_libpub.cap_state ready=true"},
        {{"get", 2, state}, "0 p_libpub.cap_state ready=true"},
        {{"get", 1, state}, "-1003 no record"},
        {{"get", 28, state}, "-1003 no record"},
        {{"get", 3, dep + "edge"}, "0 s_frame.cap_dep|edge ready=true"},
        {{"get", 3, dep + "bad"}, "-1003 no record"},
        {{"get", 3, ""}, "-1004 no record"},
        {{"hgetall", 28, ready}, "0 [ready=true devid=3]"},
        {{"hgetall", 28, other}, "0 no record"},
        {{"hgetall", 3, dep + "odd"}, "0 []"},
        {{"hgetall", 3, dep + "big"}, "-1003 no record"},
        {{"hgetall", 1, "p_dev.dp_lib_my_info"}, "0 [prod_serial=S slotid=4]"},
        {{"hgetall", 1, "p_dev.dp_lib_my_chss_info"}, "-1003 no record"},
        {{"hgetall", 3, state}, "null"}, // the whole value has no hash fields
        {{"hgetall", 3, ""}, "null"},
        {{"scan", 3, dep},
         "0 4 s_frame.cap_dep|bad: -1003 no record; "
         "4 s_frame.cap_dep|big: -1003 no record; "
         "4 s_frame.cap_dep|edge: 0 [ready=true]; 4 s_frame.cap_dep|odd: 0 []; "},
        {{"scan", 2, state}, "0 1 p_libpub.cap_state: p_libpub.cap_state ready=true; "},
        {{"del", 3, state}, "0"},
        {{"get", 3, state}, "0 no record"},
        {{"del", 28, ""}, "-1004"},
    };
    for (const auto &[call, result] : cases)
        EXPECT_EQ(run(b.g, call), result) << call.op << " " << call.db << " " << call.key;
    store[28][ready] = values;
    store[1]["p_dev.dp_lib_my_info"] = {{"prod_serial", "S"}, {"slotid", "4"}};
    for (auto &[db, expected] : store) {
        Records stored = b.records(db);
        for (auto *records : {&stored, &expected}) // a large hash has no field order in Redis
            for (auto &[key, fields] : *records)
                std::ranges::sort(fields);
        EXPECT_EQ(stored, expected) << db;
    }
}

// Every allocation of a read's decode failing in turn: the record, or out of memory (a
// null hash result), never a missing record or a bad value.
TEST(KxParity, ReadsThatCannotAllocateAreOutOfMemory)
{
    static int left;
    struct Restore {
        ProtobufCAllocator saved = kx::allocator();
        ~Restore() { kx::allocator() = saved; }
    } restore;
    Backend b;
    b.put(3, "p_libpub.cap_state", {{"value", "(\x01xx"}});
    b.put(3, "p_libpub.cap_table|/u", {{"str_value", "s"}, {"pri", "3"}, {"junk", "1"}});
    kx::Message table = record("p_libpub.cap_table|/u"), state = record("p_libpub.cap_state");
    kx::allocator().alloc = [](void *, size_t size) { return left-- > 0 ? malloc(size) : nullptr; };
    const std::string hash_read = "0 [str_value=s pri=3]";
    const std::string whole_read = "0 p_libpub.cap_state ready=true";
    std::string hash, whole;
    for (int n = 0; n < 20; ++n) {
        int32_t error = 7;
        left = n;
        hash = describe(kx::HashRes(kx_mom_hgetall_sync(b.g, 3, table.get())).get());
        left = n;
        kx::Message obj(
            static_cast<ProtobufCMessage *>(kx_mom_get_sync(b.g, 3, state.get(), &error)));
        whole = std::to_string(error) + " " + describe(obj.get());
        EXPECT_TRUE(hash == "null" || hash == "-1005 no record" || hash == hash_read) << hash;
        EXPECT_TRUE(whole == "-1005 no record" || whole == whole_read) << whole;
    }
    EXPECT_EQ(hash + "; " + whole, hash_read + "; " + whole_read);
}

} // namespace
