// The key and value forms of records: what reaches the store and what comes back.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "kx_codec.h"
#include "p_dev.pb-c.h"
#include "p_libpub.pb-c.h"
#include "s_frame.pb-c.h"

namespace {

using namespace std::string_literals;

struct ObjFree {
    void operator()(void *obj) const { kx_mom_kx_obj_free(obj); }
};
using Obj = std::unique_ptr<void, ObjFree>;
struct ResFree {
    void operator()(kx_mom_hash_res *res) const { kx_mom_hash_res_free(res); }
};
using Res = std::unique_ptr<kx_mom_hash_res, ResFree>;

const ProtobufCMessageDescriptor *const kGlb = &s_frame__cap_glb_table__descriptor;

struct Glb {
    SFrame__CapGlbTableIndex index = S_FRAME__CAP_GLB_TABLE_INDEX__INIT;
    SFrame__CapGlbTable rec = S_FRAME__CAP_GLB_TABLE__INIT;
    Glb(int32_t node, const char *url)
    {
        index.node = node;
        index.url = const_cast<char *>(url);
        rec.index = &index;
    }
};

TEST(KxCodecKey, RoundTripsEveryIndexForm)
{
    struct Case {
        int32_t node;
        const char *url;
        const char *key;
    } cases[] = {
        {16, "/fe/l3/ecmp", "s_frame.cap_glb_table|16|/fe/l3/ecmp"},
        {-1, "a|b%c", "s_frame.cap_glb_table|-1|a%7Cb%25c"},
        {0, "", "s_frame.cap_glb_table|0|"},
        {2147483647, "%7C|", "s_frame.cap_glb_table|2147483647|%257C%7C"},
        {-2147483647 - 1, "*?[x]\\ ", "s_frame.cap_glb_table|-2147483648|*?[x]\\ "},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.key);
        Glb rec(c.node, c.url);
        EXPECT_EQ(kx::record_key(&rec.rec.base), c.key);
        std::string error;
        Obj parsed(kx::parse_key(kGlb, c.key, &error));
        ASSERT_TRUE(parsed) << error;
        auto *back = static_cast<SFrame__CapGlbTable *>(parsed.get());
        EXPECT_EQ(back->index->node, c.node);
        EXPECT_STREQ(back->index->url, c.url);
        EXPECT_STREQ(back->str_value, "");
    }
    // A write without index names the record at the defaults (node 0), not the table.
    SFrame__CapFeReady ready = S_FRAME__CAP_FE_READY__INIT;
    EXPECT_EQ(kx::record_key(&ready.base), "s_frame.cap_fe_ready|0|0");
    PLibpub__CapState state = P_LIBPUB__CAP_STATE__INIT;
    EXPECT_EQ(kx::record_key(&state.base), "p_libpub.cap_state");
}

TEST(KxCodecKey, MalformedKeysAreRefused)
{
    const auto *state = &p_libpub__cap_state__descriptor;
    struct Case {
        const ProtobufCMessageDescriptor *table;
        std::string key;
    } cases[] = {
        {kGlb, "s_frame.cap_glb_table"},           {kGlb, "s_frame.cap_glb_table|16"},
        {kGlb, "s_frame.cap_glb_table|16|/a|b"},   {kGlb, "s_frame.cap_glb_tablex|16|/a"},
        {kGlb, "s_frame.cap_dep|16|/a"},           {kGlb, "s_frame.cap_glb_table||/a"},
        {kGlb, "s_frame.cap_glb_table|x|/a"},      {kGlb, "s_frame.cap_glb_table|007|/a"},
        {kGlb, "s_frame.cap_glb_table|-0|/a"},     {kGlb, "s_frame.cap_glb_table|+1|/a"},
        {kGlb, "s_frame.cap_glb_table|2147483648|/a"},
        {kGlb, "s_frame.cap_glb_table|1|%41"},     {kGlb, "s_frame.cap_glb_table|1|%7c"},
        {kGlb, "s_frame.cap_glb_table|1|a%"},      {kGlb, "s_frame.cap_glb_table|1|a\0b"s},
        {state, "p_libpub.cap_state|1"},           {nullptr, "x|1"},
    };
    for (const auto &c : cases) {
        std::string error;
        EXPECT_FALSE(Obj(kx::parse_key(c.table, c.key, &error))) << c.key;
        EXPECT_TRUE(error.starts_with("bad key")) << error;
    }
}

TEST(KxCodecKey, SelectionGlobAndTables)
{
    struct Case {
        int32_t node;
        const char *url;
        bool whole;
    } cases[] = {{0, "", true}, {0, "/a", false}, {-1, "", false}};
    for (const auto &c : cases) {
        Glb key(c.node, c.url);
        EXPECT_EQ(kx::selects_table(&key.rec.base), c.whole) << c.node << c.url;
    }
    SFrame__CapGlbTable no_index = S_FRAME__CAP_GLB_TABLE__INIT;
    EXPECT_TRUE(kx::selects_table(&no_index.base));
    EXPECT_EQ(kx::table_glob(kGlb), "s_frame.cap_glb_table|*");
    EXPECT_EQ(kx::table_glob(&p_libpub__cap_state__descriptor), "p_libpub.cap_state");
    EXPECT_TRUE(kx::stored_whole(&p_libpub__cap_state__descriptor));
    EXPECT_FALSE(kx::stored_whole(&p_dev__dp_lib_my_info__descriptor));

    int count = 0;
    for (const auto *const *t = kx_mom_tables(); *t; ++t, ++count)
        EXPECT_EQ(kx_mom_table((*t)->name), *t);
    EXPECT_EQ(count, 12);
    EXPECT_EQ(kx_mom_table("s_frame.cap_fe_ready_index"), nullptr);
    EXPECT_EQ(kx::table_of_key("s_frame.cap_dep|a|b"), &s_frame__cap_dep__descriptor);
    kx_mom_hash_res_free(nullptr);
    kx_mom_kx_obj_free(nullptr);
}

TEST(KxCodecHash, RoundTripsValuesInTheOrderGiven)
{
    const uint8_t serial[] = {'S', 0, 0xff, '|', '%'};
    PDev__DpLibMyInfo info = P_DEV__DP_LIB_MY_INFO__INIT;
    info.dm_my_node_type = P_DEV__DM_NODE_TYPE_E__DM_TYPE_SUB_LC;
    info.slotid = -3;
    info.prod_serial = {sizeof serial, const_cast<uint8_t *>(serial)};
    const int32_t tags[] = {12, 6, 5, 7, 13};
    std::vector<kx::FieldText> out;
    ASSERT_EQ(kx::encode_hash(&info.base, tags, &out), 0);
    std::vector<std::string> texts;
    for (const auto &f : out)
        texts.push_back(std::string(f.name) + "=" + f.text);
    EXPECT_EQ(texts, (std::vector<std::string>{"prod_serial=S\0\xff|%"s, "slotid=-3",
                                               "dm_my_node_type=4", "sslotid=0",
                                               "my_card_mac_addr="}));

    std::vector<kx::FieldValue> in;
    for (const auto &f : out)
        in.push_back({f.name, f.text});
    in.insert(in.begin() + 1, {"no_such_field", "x"});
    std::string error;
    Res res(kx::decode_hash(1, "p_dev.dp_lib_my_info", &p_dev__dp_lib_my_info__descriptor, in,
                            &error));
    ASSERT_EQ(res->error_code, 0) << error;
    EXPECT_STREQ(res->key, "p_dev.dp_lib_my_info");
    EXPECT_EQ(std::vector<int32_t>(res->field_tag, res->field_tag + res->field_len),
              (std::vector<int32_t>{12, 6, 5, 7, 13}));
    auto *back = static_cast<PDev__DpLibMyInfo *>(res->obj);
    EXPECT_EQ(back->dm_my_node_type, P_DEV__DM_NODE_TYPE_E__DM_TYPE_SUB_LC);
    EXPECT_EQ(back->slotid, -3);
    ASSERT_EQ(back->prod_serial.len, sizeof serial);
    EXPECT_EQ(memcmp(back->prod_serial.data, serial, sizeof serial), 0);

    // Bools are written true/false and read as 1/0 too; the index comes from the key.
    for (auto [text, value] : {std::pair{"true", 1}, {"false", 0}, {"1", 1}, {"0", 0}}) {
        kx::FieldValue fields[] = {{"bool_value", text}, {"index", "9"}, {"str_value", ""}};
        Res r(kx::decode_hash(28, "s_frame.cap_glb_table|16|/x%7Cy", kGlb, fields, &error));
        auto *rec = static_cast<SFrame__CapGlbTable *>(r->obj);
        ASSERT_TRUE(rec) << error;
        EXPECT_EQ(rec->bool_value, value) << text;
        EXPECT_STREQ(rec->index->url, "/x|y");
        EXPECT_EQ(r->field_len, 2);
    }
}

TEST(KxCodecHash, BadFieldListsAndBadValues)
{
    Glb rec(1, "/a");
    for (const auto &tags : std::vector<std::vector<int32_t>>{{6, 5}, {6, 9}, {0}, {-1}, {21}}) {
        std::vector<kx::FieldText> out;
        EXPECT_EQ(kx::encode_hash(&rec.rec.base, tags, &out), KX_MOM_EINVAL) << tags.back();
        EXPECT_TRUE(out.empty());
    }
    struct Case {
        const char *name;
        std::string value;
        const char *why;
    } cases[] = {
        {"int32_value", "abc", "not an int32"},        {"int32_value", "", "not an int32"},
        {"int32_value", "2147483648", "int32 out of range"}, {"int32_value", "1.5", "not an int32"},
        {"bool_value", "maybe", "not a bool"},         {"bool_value", "TRUE", "not a bool"},
        {"str_value", "a\0b"s, "NUL byte"},
    };
    for (const auto &c : cases) {
        kx::FieldValue fields[] = {{"str_value", "ok"}, {c.name, c.value}};
        std::string error;
        Res res(kx::decode_hash(28, "s_frame.cap_glb_table|3|/u", kGlb, fields, &error));
        EXPECT_EQ(res->error_code, KX_MOM_EPROTO);
        EXPECT_EQ(res->obj, nullptr);
        EXPECT_EQ(res->field_len, 0);
        EXPECT_TRUE(error.starts_with("key 's_frame.cap_glb_table|3|/u' field '"s + c.name +
                                      "': " + c.why))
            << error;
    }
    std::string error;
    Res bad_key(kx::decode_hash(28, "s_frame.cap_glb_table|x|/u", kGlb, {}, &error));
    EXPECT_EQ(bad_key->error_code, KX_MOM_EPROTO);
    EXPECT_TRUE(error.starts_with("bad key")) << error;
}

TEST(KxCodecWhole, PackedValues)
{
    PLibpub__CapState state = P_LIBPUB__CAP_STATE__INIT;
    state.ready = 1;
    const auto *desc = &p_libpub__cap_state__descriptor;
    std::string error;
    for (auto [packed, ready] : {std::pair{kx::encode_whole(&state.base), 1}, {"", 0}}) {
        Obj back(kx::decode_whole(desc, "k", packed, &error));
        ASSERT_TRUE(back) << error;
        EXPECT_EQ(static_cast<PLibpub__CapState *>(back.get())->ready, ready);
    }
    EXPECT_FALSE(Obj(kx::decode_whole(desc, "p_libpub.cap_state", "\xff\xff", &error)));
    EXPECT_EQ(error, "key 'p_libpub.cap_state': the value does not unpack as p_libpub.cap_state");
}

} // namespace
