// Records as text, for the tests of the store calls: a record made from its key, and a
// record or a hash result described in one line.
#ifndef RECORD_TEXT_H
#define RECORD_TEXT_H

#include <string>
#include <utility>
#include <vector>

#include "kx_codec.h"

namespace testsupport {

using Fields = std::vector<std::pair<std::string, std::string>>;

// A record of the table its key names, with the index from the key and these fields set
// from their text.
inline kx::Message record(const std::string &key, const Fields &fields = {})
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

// Its key, then each field but the index as name=value: all of them, or those `res`
// lists, in its order. "no record" for none.
inline std::string describe(const void *obj, const kx_mom_hash_res *res = nullptr)
{
    const auto *msg = static_cast<const ProtobufCMessage *>(obj);
    std::string out = msg ? kx::record_key(msg) : "no record";
    const int32_t n = !msg  ? 0
                      : res ? res->field_len
                            : static_cast<int32_t>(msg->descriptor->n_fields);
    for (int32_t i = 0; i < n; ++i) {
        const auto *f = res ? protobuf_c_message_descriptor_get_field(
                                  msg->descriptor, static_cast<unsigned>(res->field_tag[i]))
                            : &msg->descriptor->fields[i];
        if (f != kx::index_field(msg->descriptor))
            out += " " + std::string(f->name) + "=" + kx::field_text(msg, f);
    }
    return out + (msg && msg->n_unknown_fields ? " and unknown fields" : "");
}

// Its error code, then its record; "null" for no result.
inline std::string describe(const kx_mom_hash_res *res)
{
    return res ? std::to_string(res->error_code) + " " + describe(res->obj, res) : "null";
}

} // namespace testsupport

#endif
