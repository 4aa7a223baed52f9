// Record keys and hash values: the key form the store holds, and bad keys and
// values refused as errors, never turned into a record.
#include <gtest/gtest.h>

#include "kx_codec.h"
#include "s_frame.pb-c.h"

namespace {

using namespace std::string_literals;

TEST(KxCodec, KeysRoundTripInTheirDocumentedForm)
{
    struct Case {
        int32_t node;
        const char *url;
        const char *key;
    } cases[] = {
        {16, "/fe/l3/ecmp", "s_frame.cap_glb_table|16|/fe/l3/ecmp"},
        {-1, "a|b%c", "s_frame.cap_glb_table|-1|a%7Cb%25c"},
        {0, "", "s_frame.cap_glb_table|0|"},
        {-2147483647 - 1, "%7C*?[x]\\ ", "s_frame.cap_glb_table|-2147483648|%257C*?[x]\\ "},
    };
    for (const auto &c : cases) {
        SFrame__CapGlbTableIndex index = S_FRAME__CAP_GLB_TABLE_INDEX__INIT;
        index.node = c.node;
        index.url = const_cast<char *>(c.url);
        SFrame__CapGlbTable rec = S_FRAME__CAP_GLB_TABLE__INIT;
        rec.index = &index;
        EXPECT_EQ(kx::record_key(&rec.base), c.key);
        std::string error;
        kx::Message back(kx::parse_key(&s_frame__cap_glb_table__descriptor, c.key, &error));
        ASSERT_TRUE(back) << error;
        auto *parsed = reinterpret_cast<SFrame__CapGlbTable *>(back.get());
        EXPECT_EQ(parsed->index->node, c.node) << c.key;
        EXPECT_STREQ(parsed->index->url, c.url);
    }
    // A record written without an index is the one at the defaults, not the table.
    SFrame__CapFeReady ready = S_FRAME__CAP_FE_READY__INIT;
    EXPECT_EQ(kx::record_key(&ready.base), "s_frame.cap_fe_ready|0|0");
}

TEST(KxCodec, MalformedKeysAndValuesAreErrorsNeverRecords)
{
    struct Case {
        std::string key;
        const char *why, *field = "int32_value";
        std::string value = "1";
    };
    const Case cases[] = {
        {"s_frame.cap_glb_table", "too few index parts"},
        {"s_frame.cap_glb_table|16|/a|b", "too many index parts"},
        {"s_frame.cap_glb_tablex|16|/a", "unknown table"},
        {"p_libpub.cap_state|1", "a single-record table has no index"},
        {"s_frame.cap_glb_table||/a", "bad integer part"},
        {"s_frame.cap_glb_table|007|/a", "bad integer part"},
        {"s_frame.cap_glb_table|-0|/a", "bad integer part"},
        {"s_frame.cap_glb_table|2147483648|/a", "bad integer part"},
        {"s_frame.cap_glb_table|1|%41", "bad escape"},
        {"s_frame.cap_glb_table|1|a\0b"s, "bad escape"},
        {"s_frame.cap_glb_table|3|/u", "field 'int32_value': not an int32", "int32_value", "abc"},
        {"s_frame.cap_glb_table|3|/u", "field 'int32_value': not an int32", "int32_value", ""},
        {"s_frame.cap_glb_table|3|/u", "int32 out of range", "int32_value", "2147483648"},
        {"s_frame.cap_glb_table|3|/u", "field 'bool_value': not a bool", "bool_value", "maybe"},
        {"s_frame.cap_glb_table|3|/u", "field 'str_value': NUL byte", "str_value", "a\0b"s},
    };
    for (const auto &c : cases) {
        kx::FieldValue fields[] = {{"str_value", "ok"}, {c.field, c.value}};
        std::string error;
        kx::HashRes res(kx::decode_hash(28, c.key, kx::table_of_key(c.key), fields, &error));
        EXPECT_EQ(res->error_code, KX_MOM_EPROTO) << c.key << " " << c.value;
        EXPECT_TRUE(!res->obj && !res->field_tag && res->field_len == 0);
        EXPECT_NE(error.find(c.why), std::string::npos) << error;
    }
}

} // namespace
