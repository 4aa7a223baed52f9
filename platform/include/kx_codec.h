// kx_codec: how records become store keys and hash fields, and back, and which
// arguments the store calls accept. Pure code: no connection, no I/O, no logging.
// libkx, its tools (kxctl reads and writes records as text through it) and the
// unit-test store share it, so all agree byte for byte on keys, values and selections,
// and refuse the same calls.
//
// Keys: the table's full name, then for a table with an `index` each index field
// in field-number order, each preceded by `|`. Integers in decimal; in strings
// `%` is written `%25` and `|` is written `%7C`, nothing else is escaped:
//     s_frame.cap_glb_table|16|/fe/l3/ecmp      p_libpub.cap_state
// Values: one hash field per message field, named by the field's name, holding
// text (int32 and enum in decimal, bool `true`/`false`, string and bytes raw).
// The one whole-value table (p_libpub.cap_state) is its packed protobuf.
//
// Size: a stored record is bounded by its table (value_limit) and refused before it is
// decoded, with KX_MOM_EPROTO and a message naming key and size. The records are a few
// flags, numbers and short names; one oversized value, or a packed value full of fields
// this schema does not know, must not take the memory of the card. Unknown fields of a
// packed value are not kept.
//
// Memory, for all of libkx: everything a decode allocates (records, their strings and
// bytes, field-number arrays, hash results) comes from allocator(), so that a failure is
// seen and reported: a decode that cannot allocate gives KX_MOM_ENOMEM (a hash result's
// error_code, a read's code, or a logged line when a delivery has to be dropped), never
// "no record" and never "bad value". hiredis reports a reply it cannot allocate as a
// broken connection: the call fails and the database is reconnected. What C++ containers
// allocate (keys, commands, field texts, all small with the size bounds) is not checked:
// std::bad_alloc is not caught and ends the process (std::terminate), as any failed
// allocation in C++ code does. Every message the codec returns is freed by
// kx_mom_kx_obj_free, every kx_mom_hash_res by kx_mom_hash_res_free.
#ifndef KX_CODEC_H
#define KX_CODEC_H

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include <protobuf-c/protobuf-c.h>

#include "kx_free.h"
#include "kx_mom.h"
#include "kx_text.h"

namespace kx {

// Owners of what the codec and the reads return.
using Message = std::unique_ptr<ProtobufCMessage, FreeWith<kx_mom_kx_obj_free>>;
using HashRes = std::unique_ptr<kx_mom_hash_res, FreeWith<kx_mom_hash_res_free>>;

// Malloc and free unless a test replaces them to make allocations fail. protobuf-c
// unpacks through it; every free of what the codec made goes through `free`.
ProtobufCAllocator &allocator();

// The field `f` of `msg`, const when `msg` is.
template <typename T, typename M> auto &member(M *msg, const ProtobufCFieldDescriptor *f)
{
    static_assert(std::is_same_v<std::remove_const_t<M>, ProtobufCMessage>);
    using Byte = std::conditional_t<std::is_const_v<M>, const char, char>;
    using Out = std::conditional_t<std::is_const_v<M>, const T, T>;
    return *reinterpret_cast<Out *>(reinterpret_cast<Byte *>(msg) + f->offset);
}

// True for a message of a table libkx knows. Every call refuses any other key or record,
// and a null one, with KX_MOM_EINVAL.
bool known_table(const ProtobufCMessage *msg);

// True for a key of a known table stored as a hash: what kx_mom_hgetall_sync reads (the
// whole-value table has no hash fields to give, kx_mom_get_sync reads it).
bool hash_table(const ProtobufCMessage *key);

// The most a stored record of `table` may hold, in bytes (a hash: its field names and
// values together; a whole value: its length), as a number and as decimal text. From the
// schema: 4 KiB when every field is an int32, enum or bool (p_libpub.cap_state, the ready
// and dependency records: a packed record is a few bytes, a hash well under 200); 64 KiB
// when a field holds text or bytes (urls, capability strings, identity texts).
struct ValueLimit {
    size_t bytes;
    std::string_view text;
};
ValueLimit value_limit(const ProtobufCMessageDescriptor *table);

// The message of a record refused for its size: "key 'K': N bytes stored, more than
// the L a record of T may hold".
std::string oversized(const ProtobufCMessageDescriptor *table, std::string_view key,
                      long long size);

// The `index` field of a keyed table (a sub-message), or nullptr for a
// single-record table.
const ProtobufCFieldDescriptor *index_field(const ProtobufCMessageDescriptor *table);

// True for the tables stored as one packed value under SET (p_libpub.cap_state)
// rather than as a hash.
bool stored_whole(const ProtobufCMessageDescriptor *table);

// The key of the one record `record` names. A null `index` pointer stands for an
// index at its defaults: for writes and reads that is a real record (node 0).
std::string record_key(const ProtobufCMessage *record);

// True when `key` selects every record of its table: a table without index, a
// null index pointer, or every index field at its default (0, empty string).
bool selects_table(const ProtobufCMessage *key);

// The Redis glob matching every key of `table` (the name with glob characters
// escaped, then `|*`); for a single-record table, the escaped key itself.
std::string table_glob(const ProtobufCMessageDescriptor *table);

// The table a key belongs to, from the name before the first `|`; nullptr
// when libkx does not know it.
const ProtobufCMessageDescriptor *table_of_key(std::string_view key);

// Parses `key` into a fresh record of `table` with only its index set (the
// other fields at their defaults). A key of another table, a wrong number of
// parts, a non-canonical or out-of-range integer, a bad escape or a NUL byte
// gives nullptr and the reason in `*error` (as does a failed allocation).
ProtobufCMessage *parse_key(const ProtobufCMessageDescriptor *table, std::string_view key,
                            std::string *error);

// One field's value as the store holds it: int32 and enum in decimal, bool
// `true`/`false`, string and bytes raw.
std::string field_text(const ProtobufCMessage *msg, const ProtobufCFieldDescriptor *f);

// Sets field `f` (int32, enum, bool, string or bytes) of `msg` from its text as the
// store holds it (bool also `1`/`0`); false, and the reason in `*why`, when `value`
// does not fit the field's type or memory runs out.
bool set_field(ProtobufCMessage *msg, const ProtobufCFieldDescriptor *f, std::string_view value,
               const char **why);

// One hash field as written: the field's name and its text.
struct FieldText {
    std::string_view name; // points into the table's descriptor
    std::string text;
};

// What kx_mom_hmset_sync stores: HSET key name text ... for a hash table, SET key value
// for the whole-value table (the whole record, packed: the listed numbers are checked
// all the same).
struct Write {
    std::string key;
    bool whole = false;
    std::vector<FieldText> fields; // hash fields in the order listed
    std::string value;             // the packed record of the whole-value table
};

// Checks the arguments of kx_mom_hmset_sync and forms its write. KX_MOM_EINVAL, and
// nothing to write, for a null record or one of an unknown table, a list that is null
// or empty (a write names what it writes, for both kinds of table), a number the
// message lacks, the index field, or a field of a kind the store cannot hold.
int32_t encode_write(const ProtobufCMessage *record, const int32_t *field_tag, int32_t field_len,
                     Write *out);

// One hash field as read.
struct FieldValue {
    std::string_view name;
    std::string_view value;
};

// Decodes a hash read from `key` (a key of `table`) into a hash result: obj with
// the index from the key and the fields present, field_tag their numbers in the
// order given (unknown names, and a field named like the index, are ignored; the
// first unknown name is named in `*error` all the same, for a warning).
// A key that does not parse, fields beyond the table's size limit, or a value that
// does not fit its field gives error_code KX_MOM_EPROTO, no obj, no field_tag, and
// `*error` names the key and the field; an allocation that fails gives KX_MOM_ENOMEM.
// nullptr only when the result itself cannot be allocated.
kx_mom_hash_res *decode_hash(int32_t db, std::string_view key,
                             const ProtobufCMessageDescriptor *table,
                             std::span<const FieldValue> fields, std::string *error);

// A hash result with only db, key and error_code set (a missing record, a read
// that failed); nullptr when it cannot be allocated.
kx_mom_hash_res *new_hash_res(int32_t db, std::string_view key, int32_t error_code);

// The packed value of a whole-value record.
std::string encode_whole(const ProtobufCMessage *record);

// Decodes the record of `table` packed in `value` into `*out`, without the fields this
// schema does not know. 0; KX_MOM_EPROTO and `*error` when the value is beyond the
// table's size limit or does not unpack; KX_MOM_ENOMEM. An empty value is a record at
// its defaults.
int32_t decode_whole(const ProtobufCMessageDescriptor *table, std::string_view key,
                     std::string_view value, Message *out, std::string *error);

// A fresh record of `table` with every field at its default; nullptr when it cannot be
// allocated.
ProtobufCMessage *new_record(const ProtobufCMessageDescriptor *table);

} // namespace kx

#endif
