// Hash records as HGETALL gives them: the first byte picks the table, the rest is the key's
// index part, then field names and values, each ended by a NUL byte. A record that decodes
// reads back the same from the text the store would hold for it.
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <vector>

#include "kx_codec.h"

namespace {

std::vector<std::string_view> split(std::string_view text)
{
    std::vector<std::string_view> parts;
    for (size_t end; (end = text.find('\0')) != std::string_view::npos; text.remove_prefix(end + 1))
        parts.push_back(text.substr(0, end));
    parts.push_back(text);
    return parts;
}

// Every field of `res`'s record as the store would hold it, in field-tag order.
std::vector<std::string> texts(const kx_mom_hash_res *res)
{
    auto *record = static_cast<const ProtobufCMessage *>(res->obj);
    std::vector<std::string> out;
    for (int32_t tag : std::span(res->field_tag, res->field_len)) {
        const ProtobufCFieldDescriptor *f =
            protobuf_c_message_descriptor_get_field(record->descriptor, tag);
        out.push_back(f->name + std::string("=") + kx::field_text(record, f));
    }
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const ProtobufCMessageDescriptor *const *tables = kx_mom_tables();
    size_t n = 0;
    while (tables[n])
        ++n;
    const ProtobufCMessageDescriptor *table = tables[data[0] % n];
    if (kx::stored_whole(table))
        return 0;
    std::vector<std::string_view> parts =
        split({reinterpret_cast<const char *>(data + 1), size - 1});
    std::string key =
        table->name + std::string(kx::index_field(table) ? "|" : "") + std::string(parts[0]);
    std::vector<kx::FieldValue> fields;
    for (size_t i = 1; i + 1 < parts.size(); i += 2)
        fields.push_back({parts[i], parts[i + 1]});
    std::string error;
    kx::HashRes res(kx::decode_hash(28, key, table, fields, &error));
    if (!res || !res->obj)
        return 0;
    // Written back as text and read again, the record is the same.
    std::vector<std::string> first = texts(res.get()), again_text;
    std::vector<kx::FieldValue> again;
    for (const std::string &t : first)
        again.push_back({std::string_view(t).substr(0, t.find('=')),
                         std::string_view(t).substr(t.find('=') + 1)});
    kx::HashRes reread(kx::decode_hash(28, key, table, again, &error));
    if (!reread || !reread->obj || texts(reread.get()) != first)
        abort();
    return 0;
}
