// Record keys and hash values: the key form the store holds, and bad keys and
// values refused as errors, never turned into a record.
#include <gtest/gtest.h>

#include <tuple>

#include "kx_codec.h"
#include "p_dev.pb-c.h"
#include "s_frame.pb-c.h"

namespace {

using namespace std::string_literals;

TEST(KxCodec, KeysRoundTripInTheirDocumentedForm)
{
    const std::tuple<int32_t, const char *, const char *> cases[] = {
        {16, "/fe/l3/ecmp", "s_frame.cap_glb_table|16|/fe/l3/ecmp"},
        {-1, "a|b%c", "s_frame.cap_glb_table|-1|a%7Cb%25c"},
        {0, "", "s_frame.cap_glb_table|0|"},
        {-2147483647 - 1, "%7C*?[x]\\ ", "s_frame.cap_glb_table|-2147483648|%257C*?[x]\\ "},
    };
    for (const auto &[node, url, key] : cases) {
        std::string error;
        kx::Message rec(kx::parse_key(&s_frame__cap_glb_table__descriptor, key, &error));
        ASSERT_TRUE(rec) << error;
        auto *index = reinterpret_cast<SFrame__CapGlbTable *>(rec.get())->index;
        EXPECT_EQ(std::tuple(index->node, std::string(index->url)), std::tuple(node, url)) << key;
        EXPECT_EQ(kx::record_key(rec.get()), key);
    }
    // A record written without an index is the one at the defaults, not the table.
    SFrame__CapFeReady ready = S_FRAME__CAP_FE_READY__INIT;
    EXPECT_EQ(kx::record_key(&ready.base), "s_frame.cap_fe_ready|0|0");
}

// A bytes field holds any bytes, NUL and high ones too, and is written back as read.
TEST(KxCodec, BytesFieldsRoundTripExactly)
{
    const std::string serial = "\0\xff\x01|%="s;
    const kx::FieldValue fields[] = {{"prod_serial", serial}};
    std::string error;
    kx::HashRes res(kx::decode_hash(1, "p_dev.dp_lib_my_info", &p_dev__dp_lib_my_info__descriptor,
                                    fields, &error));
    ASSERT_EQ(res->error_code, 0) << error;
    const auto *info = static_cast<const PDev__DpLibMyInfo *>(res->obj);
    EXPECT_EQ(
        std::string(reinterpret_cast<const char *>(info->prod_serial.data), info->prod_serial.len),
        serial);
    const int32_t tag[] = {12};
    kx::Write w;
    ASSERT_EQ(kx::encode_write(&info->base, tag, 1, &w), 0);
    ASSERT_EQ(w.fields.size(), 1u);
    EXPECT_EQ(w.fields[0].text, serial);
}

TEST(KxCodec, MalformedKeysAndValuesAreErrorsNeverRecords)
{
    const std::string ok = "int32_value=1", glb = "s_frame.cap_glb_table";
    const std::tuple<std::string, std::string, const char *> cases[] = {
        // key, name=value, why
        {glb, ok, "too few index parts"},
        {glb + "|16|/a|b", ok, "too many index parts"},
        {glb + "x|16|/a", ok, "unknown table"},
        {"p_libpub.cap_state|1", ok, "a single-record table has no index"},
        {glb + "||/a", ok, "bad integer part"},
        {glb + "|007|/a", ok, "bad integer part"},
        {glb + "|2147483648|/a", ok, "bad integer part"},
        {glb + "|1|%41", ok, "bad escape"},
        {glb + "|1|a\0b"s, ok, "bad escape"},
        {glb + "|3|/u", "int32_value=abc", "field 'int32_value': not an int32"},
        {glb + "|3|/u", "int32_value=2147483648", "int32 out of range"},
        {glb + "|3|/u", "bool_value=maybe", "field 'bool_value': not a bool"},
        {glb + "|3|/u", "str_value=a\0b"s, "field 'str_value': NUL byte"},
    };
    for (const auto &[key, field, why] : cases) {
        const std::string_view name = std::string_view(field).substr(0, field.find('='));
        kx::FieldValue fields[] = {{"str_value", "ok"},
                                   {name, std::string_view(field).substr(name.size() + 1)}};
        std::string error;
        kx::HashRes res(kx::decode_hash(28, key, kx::table_of_key(key), fields, &error));
        EXPECT_EQ(res->error_code, KX_MOM_EPROTO) << key << " " << field;
        EXPECT_TRUE(!res->obj && !res->field_tag && res->field_len == 0);
        EXPECT_NE(error.find(why), std::string::npos) << error;
    }
}

} // namespace
