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

SFrame__CapGlbTable glb(SFrame__CapGlbTableIndex *index, int32_t node, const char *url)
{
    *index = S_FRAME__CAP_GLB_TABLE_INDEX__INIT;
    index->node = node;
    index->url = const_cast<char *>(url);
    SFrame__CapGlbTable rec = S_FRAME__CAP_GLB_TABLE__INIT;
    rec.index = index;
    return rec;
}

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
        SFrame__CapGlbTableIndex index;
        SFrame__CapGlbTable rec = glb(&index, c.node, c.url);
        EXPECT_EQ(kx::record_key(&rec.base), c.key);
        std::string error;
        Obj parsed(kx::parse_key(&s_frame__cap_glb_table__descriptor, c.key, &error));
        ASSERT_TRUE(parsed) << error;
        auto *back = static_cast<SFrame__CapGlbTable *>(parsed.get());
        ASSERT_NE(back->index, nullptr);
        EXPECT_EQ(back->index->node, c.node);
        EXPECT_STREQ(back->index->url, c.url);
        EXPECT_EQ(back->int32_value, 0);
        EXPECT_STREQ(back->str_value, "");
    }
}

TEST(KxCodecKey, OtherTablesAndNullIndex)
{
    PLibpub__CapState state = P_LIBPUB__CAP_STATE__INIT;
    EXPECT_EQ(kx::record_key(&state.base), "p_libpub.cap_state");
    PLibpub__CapSubcardStateIndex sub_index = P_LIBPUB__CAP_SUBCARD_STATE_INDEX__INIT;
    sub_index.nodeid = 18;
    sub_index.config_dev_type = 7;
    PLibpub__CapSubcardState sub = P_LIBPUB__CAP_SUBCARD_STATE__INIT;
    sub.index = &sub_index;
    EXPECT_EQ(kx::record_key(&sub.base), "p_libpub.cap_subcard_state|18|7");
    // A write with no index names the record at the defaults (node 0), not the table.
    SFrame__CapFeReady ready = S_FRAME__CAP_FE_READY__INIT;
    EXPECT_EQ(kx::record_key(&ready.base), "s_frame.cap_fe_ready|0|0");
    SFrame__CapDep dep = S_FRAME__CAP_DEP__INIT;
    EXPECT_EQ(kx::record_key(&dep.base), "s_frame.cap_dep|");
}

TEST(KxCodecKey, MalformedKeysAreRefused)
{
    const auto *glb_table = &s_frame__cap_glb_table__descriptor;
    const auto *state = &p_libpub__cap_state__descriptor;
    struct Case {
        const ProtobufCMessageDescriptor *table;
        std::string key;
    } cases[] = {
        {glb_table, "s_frame.cap_glb_table"},
        {glb_table, "s_frame.cap_glb_table|16"},
        {glb_table, "s_frame.cap_glb_table|16|/a|b"},
        {glb_table, "s_frame.cap_glb_tablex|16|/a"},
        {glb_table, "s_frame.cap_dep|16|/a"},
        {glb_table, "s_frame.cap_glb_table||/a"},
        {glb_table, "s_frame.cap_glb_table|x|/a"},
        {glb_table, "s_frame.cap_glb_table|007|/a"},
        {glb_table, "s_frame.cap_glb_table|-0|/a"},
        {glb_table, "s_frame.cap_glb_table|+1|/a"},
        {glb_table, "s_frame.cap_glb_table| 1|/a"},
        {glb_table, "s_frame.cap_glb_table|2147483648|/a"},
        {glb_table, "s_frame.cap_glb_table|1|%41"},
        {glb_table, "s_frame.cap_glb_table|1|%7c"},
        {glb_table, "s_frame.cap_glb_table|1|a%"},
        {glb_table, "s_frame.cap_glb_table|1|a%2"},
        {glb_table, "s_frame.cap_glb_table|1|a\0b"s},
        {state, "p_libpub.cap_state|1"},
        {state, "p_libpub.cap_stat"},
        {nullptr, "x|1"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.key);
        std::string error;
        Obj parsed(kx::parse_key(c.table, c.key, &error));
        EXPECT_FALSE(parsed);
        EXPECT_NE(error.find("bad key"), std::string::npos) << error;
    }
}

TEST(KxCodecKey, SelectionAndGlob)
{
    SFrame__CapGlbTableIndex index;
    SFrame__CapGlbTable rec = glb(&index, 0, "");
    EXPECT_TRUE(kx::selects_table(&rec.base));
    rec.index = nullptr;
    EXPECT_TRUE(kx::selects_table(&rec.base));
    rec = glb(&index, 0, "/a");
    EXPECT_FALSE(kx::selects_table(&rec.base));
    rec = glb(&index, -1, "");
    EXPECT_FALSE(kx::selects_table(&rec.base));
    PDev__DpLibMyInfo info = P_DEV__DP_LIB_MY_INFO__INIT;
    EXPECT_TRUE(kx::selects_table(&info.base));

    EXPECT_EQ(kx::table_glob(&s_frame__cap_glb_table__descriptor), "s_frame.cap_glb_table|*");
    EXPECT_EQ(kx::table_glob(&p_libpub__cap_state__descriptor), "p_libpub.cap_state");
    EXPECT_TRUE(kx::stored_whole(&p_libpub__cap_state__descriptor));
    EXPECT_FALSE(kx::stored_whole(&p_dev__dp_lib_my_info__descriptor));
    EXPECT_EQ(kx::table_of_key("s_frame.cap_dep|a|b"), &s_frame__cap_dep__descriptor);
    EXPECT_EQ(kx::table_of_key("s_frame.cap_dep_index|a"), nullptr);
}

TEST(KxCodecHash, RoundTripsValues)
{
    const uint8_t serial[] = {'S', 0, 0xff, '|', '%'};
    PDev__DpLibMyInfo info = P_DEV__DP_LIB_MY_INFO__INIT;
    info.dm_my_node_type = P_DEV__DM_NODE_TYPE_E__DM_TYPE_SUB_LC;
    info.slotid = -3;
    info.sslotid = 0;
    info.prod_serial = {sizeof serial, const_cast<uint8_t *>(serial)};
    const int32_t tags[] = {12, 6, 5, 7, 13};
    std::vector<kx::FieldText> out;
    ASSERT_EQ(kx::encode_hash(&info.base, tags, &out), 0);
    ASSERT_EQ(out.size(), 5u);
    EXPECT_EQ(out[0].name, "prod_serial");
    EXPECT_EQ(out[0].text, std::string(reinterpret_cast<const char *>(serial), sizeof serial));
    EXPECT_EQ(out[1].text, "-3");
    EXPECT_EQ(out[2].name, "dm_my_node_type");
    EXPECT_EQ(out[2].text, "4");
    EXPECT_EQ(out[3].text, "0");
    EXPECT_EQ(out[4].text, "");

    std::vector<kx::FieldValue> in;
    for (const auto &f : out)
        in.push_back({f.name, f.text});
    in.insert(in.begin() + 1, {"no_such_field", "x"});
    std::string error;
    Res res(kx::decode_hash(1, "p_dev.dp_lib_my_info", &p_dev__dp_lib_my_info__descriptor, in,
                            &error));
    ASSERT_EQ(res->error_code, 0) << error;
    EXPECT_EQ(res->db, 1);
    EXPECT_STREQ(res->key, "p_dev.dp_lib_my_info");
    ASSERT_EQ(res->field_len, 5);
    EXPECT_EQ(std::vector<int32_t>(res->field_tag, res->field_tag + 5),
              (std::vector<int32_t>{12, 6, 5, 7, 13}));
    auto *back = static_cast<PDev__DpLibMyInfo *>(res->obj);
    EXPECT_EQ(back->dm_my_node_type, P_DEV__DM_NODE_TYPE_E__DM_TYPE_SUB_LC);
    EXPECT_EQ(back->slotid, -3);
    ASSERT_EQ(back->prod_serial.len, sizeof serial);
    EXPECT_EQ(memcmp(back->prod_serial.data, serial, sizeof serial), 0);
    EXPECT_EQ(back->my_card_mac_addr.len, 0u);
}

TEST(KxCodecHash, BoolsStringsAndIndexFromKey)
{
    SFrame__CapGlbTableIndex index;
    SFrame__CapGlbTable rec = glb(&index, 16, "/x|y");
    rec.bool_value = 1;
    rec.str_value = const_cast<char *>("");
    const int32_t tags[] = {6, 8};
    std::vector<kx::FieldText> out;
    ASSERT_EQ(kx::encode_hash(&rec.base, tags, &out), 0);
    EXPECT_EQ(out[0].text, "true");
    EXPECT_EQ(out[1].text, "");

    struct Case {
        const char *text;
        protobuf_c_boolean value;
    } bools[] = {{"true", 1}, {"false", 0}, {"1", 1}, {"0", 0}};
    for (const auto &b : bools) {
        kx::FieldValue fields[] = {{"str_value", "s p"}, {"bool_value", b.text}, {"index", "9"}};
        std::string error;
        Res res(kx::decode_hash(28, kx::record_key(&rec.base), &s_frame__cap_glb_table__descriptor,
                                fields, &error));
        ASSERT_EQ(res->error_code, 0) << error;
        auto *back = static_cast<SFrame__CapGlbTable *>(res->obj);
        EXPECT_EQ(back->bool_value, b.value) << b.text;
        EXPECT_STREQ(back->str_value, "s p");
        EXPECT_EQ(back->index->node, 16);
        EXPECT_STREQ(back->index->url, "/x|y");
        EXPECT_EQ(res->field_len, 2);
    }
}

TEST(KxCodecHash, BadFieldListsWriteNothing)
{
    SFrame__CapGlbTableIndex index;
    SFrame__CapGlbTable rec = glb(&index, 1, "/a");
    const std::vector<std::vector<int32_t>> lists = {{6, 5}, {6, 9}, {0}, {-1}, {21}};
    for (const auto &tags : lists) {
        std::vector<kx::FieldText> out;
        EXPECT_EQ(kx::encode_hash(&rec.base, tags, &out), KX_MOM_EINVAL) << tags.back();
        EXPECT_TRUE(out.empty());
    }
    std::vector<kx::FieldText> out;
    EXPECT_EQ(kx::encode_hash(nullptr, {}, &out), KX_MOM_EINVAL);
}

TEST(KxCodecHash, BadStoredDataIsAnErrorNamingKeyAndField)
{
    const std::string key = "s_frame.cap_glb_table|3|/u";
    struct Case {
        std::string key;
        const char *name;
        std::string value;
        const char *mention; // what the message must name
    } cases[] = {
        {key, "int32_value", "abc", "field 'int32_value'"},
        {key, "int32_value", "", "field 'int32_value'"},
        {key, "int32_value", "2147483648", "field 'int32_value'"},
        {key, "int32_value", "1.5", "field 'int32_value'"},
        {key, "bool_value", "maybe", "field 'bool_value'"},
        {key, "bool_value", "TRUE", "field 'bool_value'"},
        {key, "str_value", "a\0b"s, "field 'str_value'"},
        {"s_frame.cap_glb_table|x|/u", "int32_value", "1", "bad key"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name + (" = " + c.value));
        kx::FieldValue fields[] = {{"str_value", "ok"}, {c.name, c.value}};
        std::string error;
        Res res(kx::decode_hash(28, c.key, &s_frame__cap_glb_table__descriptor, fields, &error));
        ASSERT_TRUE(res);
        EXPECT_EQ(res->error_code, KX_MOM_EPROTO);
        EXPECT_EQ(res->obj, nullptr);
        EXPECT_EQ(res->field_len, 0);
        EXPECT_STREQ(res->key, c.key.c_str());
        EXPECT_NE(error.find(c.mention), std::string::npos) << error;
        EXPECT_NE(error.find("cap_glb_table|"), std::string::npos) << error;
    }
}

TEST(KxCodecWhole, PackedValues)
{
    PLibpub__CapState state = P_LIBPUB__CAP_STATE__INIT;
    state.ready = 1;
    std::string packed = kx::encode_whole(&state.base);
    std::string error;
    Obj back(kx::decode_whole(&p_libpub__cap_state__descriptor, "k", packed, &error));
    ASSERT_TRUE(back) << error;
    EXPECT_EQ(static_cast<PLibpub__CapState *>(back.get())->ready, 1);
    Obj empty(kx::decode_whole(&p_libpub__cap_state__descriptor, "k", "", &error));
    ASSERT_TRUE(empty);
    EXPECT_EQ(static_cast<PLibpub__CapState *>(empty.get())->ready, 0);
    Obj bad(kx::decode_whole(&p_libpub__cap_state__descriptor, "p_libpub.cap_state", "\xff\xff",
                             &error));
    EXPECT_FALSE(bad);
    EXPECT_NE(error.find("p_libpub.cap_state"), std::string::npos);
}

TEST(KxCodecTables, EveryTableByNameAndNoIndexTypes)
{
    int count = 0;
    for (const auto *const *t = kx_mom_tables(); *t; ++t, ++count)
        EXPECT_EQ(kx_mom_table((*t)->name), *t);
    EXPECT_EQ(count, 12);
    EXPECT_EQ(kx_mom_table("s_frame.cap_fe_ready"), &s_frame__cap_fe_ready__descriptor);
    EXPECT_EQ(kx_mom_table("s_frame.cap_fe_ready_index"), nullptr);
    EXPECT_EQ(kx_mom_table(nullptr), nullptr);
    kx_mom_hash_res_free(nullptr);
    kx_mom_kx_obj_free(nullptr);
}

} // namespace
