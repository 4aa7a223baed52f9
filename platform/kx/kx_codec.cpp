// kx_codec: keys and values of records (see kx_codec.h for the formats).
#include "kx_codec.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "p_dev.pb-c.h"
#include "p_libpub.pb-c.h"
#include "s_frame.pb-c.h"

namespace kx {
namespace {

constexpr const ProtobufCMessageDescriptor *kTables[] = {
    &p_dev__dp_lib_my_info__descriptor,
    &p_dev__dp_lib_my_chss_info__descriptor,
    &p_libpub__cap_state__descriptor,
    &p_libpub__cap_table__descriptor,
    &p_libpub__cap_subcard_state__descriptor,
    &p_libpub__cap_subcard_table__descriptor,
    &s_frame__cap_dep__descriptor,
    &s_frame__cap_glb_table__descriptor,
    &s_frame__cap_fe_ready__descriptor,
    &s_frame__cap_del_fe_ready__descriptor,
    &s_frame__cap_subcard_glb_table__descriptor,
    &s_frame__cap_subcard_ready__descriptor,
    nullptr,
};
static_assert(std::size(kTables) == std::size(kx_mom_table_homes) + 1,
              "every table has its database in kx_mom.h");

void *plain_alloc(void *, size_t size) { return malloc(size); }
void plain_free(void *, void *mem) { free(mem); }
ProtobufCAllocator g_allocator = {plain_alloc, plain_free, nullptr};

void *alloc(size_t size) { return g_allocator.alloc(g_allocator.allocator_data, size); }
void release(void *mem) { g_allocator.free(g_allocator.allocator_data, mem); }

// What set_field and parse_key say when an allocation fails: the decode's KX_MOM_ENOMEM.
constexpr const char *kNoMemory = "out of memory";

struct Release {
    void operator()(void *mem) const { release(mem); }
};

int32_t no_memory(std::string_view key, std::string *error)
{
    *error = "key '" + printable(key) + "': " + kNoMemory;
    return KX_MOM_ENOMEM;
}

std::span<const ProtobufCFieldDescriptor> fields_of(const ProtobufCMessageDescriptor *desc)
{
    return {desc->fields, desc->n_fields};
}

bool is_int_kind(ProtobufCType type)
{
    return type == PROTOBUF_C_TYPE_INT32 || type == PROTOBUF_C_TYPE_SINT32 ||
           type == PROTOBUF_C_TYPE_SFIXED32 || type == PROTOBUF_C_TYPE_ENUM;
}

// A plain singular field the store can hold as text.
bool storable(const ProtobufCFieldDescriptor *f)
{
    return f->label == PROTOBUF_C_LABEL_NONE &&
           (is_int_kind(f->type) || f->type == PROTOBUF_C_TYPE_BOOL ||
            f->type == PROTOBUF_C_TYPE_STRING || f->type == PROTOBUF_C_TYPE_BYTES);
}

char *copy_string(std::string_view text)
{
    auto *s = static_cast<char *>(alloc(text.size() + 1));
    if (!s)
        return nullptr;
    memcpy(s, text.data(), text.size());
    s[text.size()] = '\0';
    return s;
}

// Replaces a string member, freeing what the codec allocated before.
bool set_string(ProtobufCMessage *msg, const ProtobufCFieldDescriptor *f, std::string_view text)
{
    char *&slot = member<char *>(msg, f);
    char *fresh = copy_string(text);
    if (!fresh)
        return false;
    if (slot && slot != f->default_value)
        release(slot);
    slot = fresh;
    return true;
}

std::string escape_key_part(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (c == '%')
            out += "%25";
        else if (c == '|')
            out += "%7C";
        else
            out += c;
    }
    return out;
}

bool unescape_key_part(std::string_view text, std::string *out)
{
    out->clear();
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '\0')
            return false;
        if (c != '%') {
            *out += c;
            continue;
        }
        std::string_view code = text.substr(i + 1, 2);
        if (code == "25")
            *out += '%';
        else if (code == "7C")
            *out += '|';
        else
            return false;
        i += 2;
    }
    return true;
}

std::string key_part(const ProtobufCMessage *index, const ProtobufCFieldDescriptor *f)
{
    if (f->type == PROTOBUF_C_TYPE_STRING) {
        const char *s = index ? member<char *>(index, f) : nullptr;
        return escape_key_part(s ? s : "");
    }
    return std::to_string(index ? member<int32_t>(index, f) : 0);
}

bool part_is_default(const ProtobufCMessage *index, const ProtobufCFieldDescriptor *f)
{
    if (f->type == PROTOBUF_C_TYPE_STRING) {
        const char *s = member<char *>(index, f);
        return !s || !*s;
    }
    return member<int32_t>(index, f) == 0;
}

} // namespace

std::string field_text(const ProtobufCMessage *msg, const ProtobufCFieldDescriptor *f)
{
    switch (f->type) {
    case PROTOBUF_C_TYPE_BOOL:
        return member<protobuf_c_boolean>(msg, f) ? "true" : "false";
    case PROTOBUF_C_TYPE_STRING: {
        const char *s = member<char *>(msg, f);
        return s ? s : "";
    }
    case PROTOBUF_C_TYPE_BYTES: {
        const auto &b = member<ProtobufCBinaryData>(msg, f);
        return b.len ? std::string(reinterpret_cast<const char *>(b.data), b.len) : std::string();
    }
    default:
        return std::to_string(member<int32_t>(msg, f));
    }
}

namespace {

// `*why` is the reason a value is refused; always false.
bool refuse(const char **why, const char *reason)
{
    *why = reason;
    return false;
}

} // namespace

// Stores `value` into field `f` of `msg`; false when it does not fit the type.
bool set_field(ProtobufCMessage *msg, const ProtobufCFieldDescriptor *f, std::string_view value,
               const char **why)
{
    switch (f->type) {
    case PROTOBUF_C_TYPE_BOOL:
        if (value == "true" || value == "1")
            member<protobuf_c_boolean>(msg, f) = 1;
        else if (value == "false" || value == "0")
            member<protobuf_c_boolean>(msg, f) = 0;
        else
            return refuse(why, "not a bool");
        return true;
    case PROTOBUF_C_TYPE_STRING:
        if (value.find('\0') != std::string_view::npos)
            return refuse(why, "NUL byte in a string");
        if (!set_string(msg, f, value))
            return refuse(why, kNoMemory);
        return true;
    case PROTOBUF_C_TYPE_BYTES: {
        auto &b = member<ProtobufCBinaryData>(msg, f);
        release(b.data);
        b = {0, nullptr};
        if (value.empty())
            return true;
        b.data = static_cast<uint8_t *>(alloc(value.size()));
        if (!b.data)
            return refuse(why, kNoMemory);
        memcpy(b.data, value.data(), value.size());
        b.len = value.size();
        return true;
    }
    default: {
        // Values are read leniently about form ("007" is 7): only keys must be canonical.
        int32_t n = 0;
        auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), n);
        if (value.empty() || ec != std::errc() || end != value.data() + value.size())
            return refuse(why, ec == std::errc::result_out_of_range ? "int32 out of range"
                                                                    : "not an int32");
        member<int32_t>(msg, f) = n;
        return true;
    }
    }
}

namespace {

std::string key_error(std::string_view key, const char *why)
{
    return "bad key '" + printable(key) + "': " + why;
}

} // namespace

const ProtobufCFieldDescriptor *index_field(const ProtobufCMessageDescriptor *table)
{
    if (!table)
        return nullptr;
    const ProtobufCFieldDescriptor *f =
        protobuf_c_message_descriptor_get_field_by_name(table, "index");
    if (!f || f->type != PROTOBUF_C_TYPE_MESSAGE || f->label != PROTOBUF_C_LABEL_NONE)
        return nullptr;
    return f;
}

bool stored_whole(const ProtobufCMessageDescriptor *table)
{
    return table == &p_libpub__cap_state__descriptor;
}

ProtobufCAllocator &allocator() { return g_allocator; }

// Keys must be canonical: "007", "-0", "+1" or " 1" would name the same record under a
// second key.
bool known_table(const ProtobufCMessage *msg)
{
    return msg && msg->descriptor && kx_mom_table(msg->descriptor->name) == msg->descriptor;
}

bool hash_table(const ProtobufCMessage *key)
{
    return known_table(key) && !stored_whole(key->descriptor);
}

ValueLimit value_limit(const ProtobufCMessageDescriptor *table)
{
    const ProtobufCFieldDescriptor *idx = index_field(table);
    for (const auto &f : fields_of(table))
        if (&f != idx && (f.type == PROTOBUF_C_TYPE_STRING || f.type == PROTOBUF_C_TYPE_BYTES))
            return {64 * 1024, "65536"};
    return {4 * 1024, "4096"};
}

std::string oversized(const ProtobufCMessageDescriptor *table, std::string_view key, long long size)
{
    return "key '" + printable(key) + "': " + std::to_string(size) +
           " bytes stored, more than the " + std::string(value_limit(table).text) +
           " a record of " + table->name + " may hold";
}

std::string record_key(const ProtobufCMessage *record)
{
    const ProtobufCMessageDescriptor *table = record->descriptor;
    std::string key = table->name;
    const ProtobufCFieldDescriptor *idx = index_field(table);
    if (!idx)
        return key;
    const auto *index = member<ProtobufCMessage *>(record, idx);
    // protobuf-c keeps a descriptor's fields in field-number order: the key's order.
    for (const auto &f :
         fields_of(static_cast<const ProtobufCMessageDescriptor *>(idx->descriptor))) {
        key += '|';
        key += key_part(index, &f);
    }
    return key;
}

bool selects_table(const ProtobufCMessage *key)
{
    const ProtobufCFieldDescriptor *idx = index_field(key->descriptor);
    if (!idx)
        return true;
    const auto *index = member<ProtobufCMessage *>(key, idx);
    if (!index)
        return true;
    for (const auto &f : fields_of(index->descriptor))
        if (!part_is_default(index, &f))
            return false;
    return true;
}

std::string table_glob(const ProtobufCMessageDescriptor *table)
{
    std::string glob;
    for (const char *p = table->name; *p; ++p) {
        if (strchr("*?[]\\", *p))
            glob += '\\';
        glob += *p;
    }
    if (index_field(table))
        glob += "|*";
    return glob;
}

const ProtobufCMessageDescriptor *table_of_key(std::string_view key)
{
    std::string_view name = key.substr(0, key.find('|'));
    return kx_mom_table(std::string(name).c_str());
}

namespace {

// parse_key with the reason as a code: KX_MOM_EPROTO for a key that does not parse,
// KX_MOM_ENOMEM.
int32_t parse_key_into(const ProtobufCMessageDescriptor *table, std::string_view key, Message *out,
                       std::string *error)
{
    auto fail = [&](const char *why) -> int32_t {
        if (why == kNoMemory)
            return no_memory(key, error);
        *error = key_error(key, why);
        return KX_MOM_EPROTO;
    };
    if (!table)
        return fail("unknown table");
    std::string_view name = table->name;
    if (key.substr(0, name.size()) != name || (key.size() > name.size() && key[name.size()] != '|'))
        return fail("not a key of this table");
    Message record(new_record(table));
    if (!record)
        return fail(kNoMemory);
    std::string_view rest = key.substr(name.size());
    const ProtobufCFieldDescriptor *idx = index_field(table);
    if (!idx) {
        if (!rest.empty())
            return fail("a single-record table has no index");
        *out = std::move(record);
        return 0;
    }
    const auto *index_desc = static_cast<const ProtobufCMessageDescriptor *>(idx->descriptor);
    auto *index = new_record(index_desc);
    if (!index)
        return fail(kNoMemory);
    member<ProtobufCMessage *>(record.get(), idx) = index;
    std::string text;
    for (const auto &field : fields_of(index_desc)) {
        const ProtobufCFieldDescriptor *f = &field;
        if (rest.empty() || rest[0] != '|')
            return fail("too few index parts");
        rest.remove_prefix(1);
        std::string_view part = rest.substr(0, rest.find('|'));
        rest.remove_prefix(part.size());
        if (f->type != PROTOBUF_C_TYPE_STRING) {
            std::optional<int32_t> n = parse_int32(part);
            if (!n)
                return fail("bad integer part");
            member<int32_t>(index, f) = *n;
        } else if (!unescape_key_part(part, &text)) {
            return fail("bad escape in a string part");
        } else if (!set_string(index, f, text)) {
            return fail(kNoMemory);
        }
    }
    if (!rest.empty())
        return fail("too many index parts");
    *out = std::move(record);
    return 0;
}

} // namespace

ProtobufCMessage *parse_key(const ProtobufCMessageDescriptor *table, std::string_view key,
                            std::string *error)
{
    Message record;
    parse_key_into(table, key, &record, error);
    return record.release();
}

int32_t encode_write(const ProtobufCMessage *record, const int32_t *field_tag, int32_t field_len,
                     Write *out)
{
    *out = Write{};
    if (!known_table(record) || !field_tag || field_len <= 0)
        return KX_MOM_EINVAL;
    const ProtobufCFieldDescriptor *idx = index_field(record->descriptor);
    for (int32_t tag : std::span(field_tag, static_cast<size_t>(field_len))) {
        const ProtobufCFieldDescriptor *f =
            tag > 0 ? protobuf_c_message_descriptor_get_field(record->descriptor,
                                                              static_cast<unsigned>(tag))
                    : nullptr;
        if (!f || f == idx || !storable(f)) {
            out->fields.clear();
            return KX_MOM_EINVAL;
        }
        out->fields.push_back({f->name, field_text(record, f)});
    }
    out->key = record_key(record);
    out->whole = stored_whole(record->descriptor);
    if (out->whole) {
        out->fields.clear();
        out->value = encode_whole(record);
    }
    return 0;
}

kx_mom_hash_res *new_hash_res(int32_t db, std::string_view key, int32_t error_code)
{
    auto *res = static_cast<kx_mom_hash_res *>(alloc(sizeof(kx_mom_hash_res)));
    if (!res)
        return nullptr;
    *res = {};
    res->db = db;
    res->key = copy_string(key);
    res->error_code = res->key ? error_code : KX_MOM_ENOMEM;
    return res;
}

namespace {

// Sets obj and field_tag of `res` from the hash `fields` read under `key`; 0, or
// KX_MOM_EPROTO or KX_MOM_ENOMEM with `res` left without them.
int32_t decode_into(kx_mom_hash_res *res, std::string_view key,
                    const ProtobufCMessageDescriptor *table, std::span<const FieldValue> fields,
                    std::string *error)
{
    if (!res->key)
        return no_memory(key, error);
    size_t size = 0;
    for (const FieldValue &fv : fields)
        size += fv.name.size() + fv.value.size();
    if (table && size > value_limit(table).bytes) {
        *error = oversized(table, key, static_cast<long long>(size));
        return KX_MOM_EPROTO;
    }
    Message obj;
    if (int32_t rc = parse_key_into(table, key, &obj, error))
        return rc;
    std::unique_ptr<int32_t, Release> tags(
        static_cast<int32_t *>(alloc(sizeof(int32_t) * (fields.size() + 1))));
    if (!tags)
        return no_memory(key, error);
    int32_t count = 0;
    const ProtobufCFieldDescriptor *idx = index_field(table);
    for (const FieldValue &fv : fields) {
        const ProtobufCFieldDescriptor *f =
            protobuf_c_message_descriptor_get_field_by_name(table, std::string(fv.name).c_str());
        if (!f && error->empty()) // a writer's typo, or a field of a newer schema
            *error = "key '" + printable(key) + "': field '" + printable(fv.name) +
                     "' is not a field of " + table->name + ", ignored";
        if (!f || f == idx || !storable(f))
            continue;
        const char *why = "";
        if (!set_field(obj.get(), f, fv.value, &why)) {
            if (why == kNoMemory)
                return no_memory(key, error);
            *error = "key '" + printable(key) + "' field '" + f->name + "': " + why + " ('" +
                     printable(fv.value) + "')";
            return KX_MOM_EPROTO;
        }
        tags.get()[count++] = static_cast<int32_t>(f->id);
    }
    res->obj = obj.release();
    res->field_tag = tags.release();
    res->field_len = count;
    return 0;
}

} // namespace

kx_mom_hash_res *decode_hash(int32_t db, std::string_view key,
                             const ProtobufCMessageDescriptor *table,
                             std::span<const FieldValue> fields, std::string *error)
{
    HashRes res(new_hash_res(db, key, 0));
    if (res)
        res->error_code = decode_into(res.get(), key, table, fields, error);
    return res.release();
}

std::string encode_whole(const ProtobufCMessage *record)
{
    std::string out(protobuf_c_message_get_packed_size(record), '\0');
    protobuf_c_message_pack(record, reinterpret_cast<uint8_t *>(out.data()));
    return out;
}

namespace {

// protobuf-c says only "no message" when an unpack fails: the allocator it unpacks
// through notes whether memory ran out.
void *noting_alloc(void *failed, size_t size)
{
    void *mem = alloc(size);
    if (!mem)
        *static_cast<bool *>(failed) = true;
    return mem;
}

void noting_free(void *, void *mem) { release(mem); }

// A subscriber needs the fields it knows; protobuf-c keeps every other one it meets.
void drop_unknown_fields(ProtobufCMessage *msg)
{
    for (unsigned i = 0; i < msg->n_unknown_fields; ++i)
        release(msg->unknown_fields[i].data);
    release(msg->unknown_fields);
    msg->unknown_fields = nullptr;
    msg->n_unknown_fields = 0;
}

} // namespace

int32_t decode_whole(const ProtobufCMessageDescriptor *table, std::string_view key,
                     std::string_view value, Message *out, std::string *error)
{
    out->reset();
    if (value.size() > value_limit(table).bytes) {
        *error = oversized(table, key, static_cast<long long>(value.size()));
        return KX_MOM_EPROTO;
    }
    bool failed = false;
    ProtobufCAllocator noting = {noting_alloc, noting_free, &failed};
    out->reset(protobuf_c_message_unpack(table, &noting, value.size(),
                                         reinterpret_cast<const uint8_t *>(value.data())));
    if (*out) {
        drop_unknown_fields(out->get());
        return 0;
    }
    if (failed)
        return no_memory(key, error);
    *error = "key '" + printable(key) + "': the value does not unpack as " + table->name;
    return KX_MOM_EPROTO;
}

ProtobufCMessage *new_record(const ProtobufCMessageDescriptor *table)
{
    void *mem = alloc(table->sizeof_message);
    if (!mem)
        return nullptr;
    protobuf_c_message_init(table, mem);
    return static_cast<ProtobufCMessage *>(mem);
}

} // namespace kx

void kx_mom_hash_res_free(kx_mom_hash_res *res)
{
    if (!res)
        return;
    kx_mom_kx_obj_free(res->obj);
    kx::release(res->field_tag);
    kx::release(const_cast<char *>(res->key));
    kx::release(res);
}

void kx_mom_kx_obj_free(void *obj)
{
    if (obj)
        protobuf_c_message_free_unpacked(static_cast<ProtobufCMessage *>(obj), &kx::allocator());
}

const ProtobufCMessageDescriptor *kx_mom_table(const char *name)
{
    if (!name)
        return nullptr;
    for (const auto *const *t = kx::kTables; *t; ++t)
        if (strcmp((*t)->name, name) == 0)
            return *t;
    return nullptr;
}

const ProtobufCMessageDescriptor *const *kx_mom_tables(void) { return kx::kTables; }
