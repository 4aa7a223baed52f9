// Reading records now, bounded: a record larger than its table allows must never cross
// the connection (one oversized value must not take the memory of the card).
//
// One record is read by a script that checks its size on the server first: one round
// trip. A batch (a scan's 32 records) is probed first, one pipelined size command per
// key, then read with plain pipelined GET or HGETALL: Redis serves those for a tenth of
// what running the script for each record costs it, for one more round trip per batch.
// The probe of a whole value is its exact length (STRLEN). That of a hash is the memory
// the server holds it in (MEMORY USAGE), which is at least half its text: a listpack
// keeps a number of up to 20 digits in as few as 10 bytes, everything else takes at least
// its own size. So a hash whose probe is within half the bound is read plainly, and any
// other through the script, which checks the exact size. A record another client makes
// larger between the probe and the read (one round trip) is transferred all the same;
// the decode then refuses it by its exact size, and the next read finds it beyond the
// bound before it crosses.
#include <xxhash.h>

#include "kx_codec.h"
#include "kx_mom_state.h"

namespace kx {
namespace {

// For each key the value (GET) or the hash's fields (HGETALL), nil or an empty array when
// the record is missing, the size when it is beyond the table's bound (ARGV[1]), or the
// server's error for that key alone (WRONGTYPE).
constexpr const char *kReadWhole = "#!lua flags=no-writes\n"
                                   "local limit, out = tonumber(ARGV[1]), {}\n"
                                   "for i = 1, #KEYS do\n"
                                   "  local n = redis.pcall('STRLEN', KEYS[i])\n"
                                   "  if type(n) == 'table' or n > limit then out[i] = n\n"
                                   "  else out[i] = redis.call('GET', KEYS[i]) end\n"
                                   "end\n"
                                   "return out";
constexpr const char *kReadHash = "#!lua flags=no-writes\n"
                                  "local limit, out = tonumber(ARGV[1]), {}\n"
                                  "for i = 1, #KEYS do\n"
                                  "  local h = redis.pcall('HGETALL', KEYS[i])\n"
                                  "  if h.err == nil then\n"
                                  "    local n = 0\n"
                                  "    for j = 1, #h do n = n + #h[j] end\n"
                                  "    if n > limit then h = n end\n"
                                  "  end\n"
                                  "  out[i] = h\n"
                                  "end\n"
                                  "return out";

Command checked_read(const ProtobufCMessageDescriptor *table, const std::string &key)
{
    return {"EVAL_RO", stored_whole(table) ? kReadWhole : kReadHash, "1", key,
            value_limit(table).text};
}

// The element of a script's reply about its one key; the reply itself when the whole
// call failed (an error, an unexpected reply).
const redisReply *checked_result(const redisReply *reply)
{
    return reply->type == REDIS_REPLY_ARRAY && reply->elements == 1 ? reply->element[0] : reply;
}

// How a probed record is read: not at all (the probe says it all: missing, beyond the
// bound, or refused), plainly, or through the script.
enum class ReadBy { probe, plain, script };

ReadBy read_by(const ProtobufCMessageDescriptor *table, const redisReply *probe)
{
    if (probe->type != REDIS_REPLY_INTEGER)
        return ReadBy::probe;
    const auto size = static_cast<unsigned long long>(probe->integer);
    const size_t bound = value_limit(table).bytes;
    if (stored_whole(table))
        return size <= bound ? ReadBy::plain : ReadBy::probe;
    return size <= bound / 2 ? ReadBy::plain : ReadBy::script;
}

// A record read with a field its table does not have: noted in the process's log only.
// A tool prints the record without the field, which tells its user as much; the daemon's
// log keeps the trace of a writer's typo or of a newer schema.
void note_ignored_field(int32_t db, const std::string &what)
{
    constexpr std::string_view unit = "platform/kx", func = __func__;
    if (kx_zlog_category_t *sink = log_sink())
        kxdf_zlog(sink, unit.data(), unit.size(), func.data(), func.size(), __LINE__,
                  KX_ZLOG_LEVEL_WARN, "db %d: %s", db, what.c_str());
}

} // namespace

int32_t Reads::run(Database &d, const ProtobufCMessageDescriptor *table,
                   std::span<const std::string> keys)
{
    results_.clear();
    if (keys.size() == 1) {
        const Command read = checked_read(table, keys[0]);
        int32_t rc = run_commands(d, std::span(&read, 1), &replies_);
        if (rc == 0)
            results_.push_back(checked_result(replies_[0].get()));
        return rc;
    }
    const bool whole = stored_whole(table);
    std::vector<Command> cmds;
    for (const std::string &key : keys)
        cmds.push_back(whole ? Command{"STRLEN", key}
                             : Command{"MEMORY", "USAGE", key, "SAMPLES", "0"});
    if (int32_t rc = run_commands(d, cmds, &probes_); rc != 0)
        return rc;
    cmds.clear();
    std::vector<ReadBy> how;
    for (size_t i = 0; i < keys.size(); ++i) {
        how.push_back(read_by(table, probes_[i].get()));
        if (how.back() == ReadBy::plain)
            cmds.push_back({whole ? "GET" : "HGETALL", keys[i]});
        else if (how.back() == ReadBy::script)
            cmds.push_back(checked_read(table, keys[i]));
    }
    if (int32_t rc = run_commands(d, cmds, &replies_); rc != 0)
        return rc;
    for (size_t i = 0, read = 0; i < keys.size(); ++i) {
        if (how[i] == ReadBy::probe)
            results_.push_back(probes_[i].get());
        else if (how[i] == ReadBy::plain)
            results_.push_back(replies_[read++].get());
        else
            results_.push_back(checked_result(replies_[read++].get()));
    }
    return 0;
}

const redisReply *Reads::at(size_t i) const { return results_.at(i); }

bool missing(const redisReply *r)
{
    return r->type == REDIS_REPLY_NIL || (r->type == REDIS_REPLY_ARRAY && r->elements == 0);
}

uint64_t digest(const redisReply *r)
{
    uint64_t sum = 0;
    if (r->type == REDIS_REPLY_INTEGER) {
        sum = XXH3_64bits_withSeed(&r->integer, sizeof r->integer, REDIS_REPLY_INTEGER);
    } else if (r->type != REDIS_REPLY_ARRAY) {
        sum = XXH3_64bits_withSeed(r->str, r->len, static_cast<uint64_t>(r->type));
    } else {
        // A sum of one hash per field: the same fields in another order give the same.
        sum = r->elements;
        for (size_t i = 0; i + 1 < r->elements; i += 2) {
            const redisReply *name = r->element[i], *value = r->element[i + 1];
            sum += XXH3_64bits_withSeed(value->str, value->len, XXH3_64bits(name->str, name->len));
        }
    }
    return sum == kUnsure ? kUnsure + 1 : sum;
}

uint64_t keyed_digest(const std::string &key, const redisReply *r)
{
    return missing(r) ? 0 : XXH3_64bits_withSeed(key.data(), key.size(), digest(r));
}

int32_t server_refused(int32_t db, const std::string &key, const redisReply *r)
{
    KX_LOG(ERROR, "db %d: key '%s': the server refused: %.*s", db, printable(key).c_str(),
           static_cast<int>(r->len), r->str);
    return KX_MOM_ESERVER;
}

// No obj and error_code 0 when the record is missing; nullptr (logged) only when memory
// runs out for the result itself.
kx_mom_hash_res *hash_from_reply(int32_t db, const std::string &key,
                                 const ProtobufCMessageDescriptor *table, const redisReply *r)
{
    if (r->type == REDIS_REPLY_ERROR)
        return new_hash_res(db, key, server_refused(db, key, r));
    std::string error; // made only for a record that fails: most do not
    kx_mom_hash_res *res = nullptr;
    if (r->type == REDIS_REPLY_INTEGER) {
        error = oversized(table, key, r->integer);
        res = new_hash_res(db, key, KX_MOM_EPROTO);
    } else if (missing(r)) {
        res = new_hash_res(db, key, 0);
    } else if (r->type != REDIS_REPLY_ARRAY || r->elements % 2 != 0) {
        error = "key '" + printable(key) + "': the read gave an unexpected reply";
        res = new_hash_res(db, key, KX_MOM_EPROTO);
    } else {
        std::vector<FieldValue> fields;
        fields.reserve(r->elements / 2);
        for (size_t i = 0; i + 1 < r->elements; i += 2) {
            const redisReply *name = r->element[i];
            const redisReply *value = r->element[i + 1];
            fields.push_back({{name->str, name->len}, {value->str, value->len}});
        }
        res = decode_hash(db, key, table, fields, &error);
    }
    if (!res || res->error_code == KX_MOM_ENOMEM)
        KX_LOG(ERROR, "db %d: key '%s': out of memory", db, printable(key).c_str());
    else if (res->error_code != 0)
        KX_LOG(WARN, "db %d: %s", db, error.c_str());
    else if (!error.empty())
        note_ignored_field(db, error);
    return res;
}

// nullptr with *code 0 when the record is missing.
ProtobufCMessage *whole_from_reply(int32_t db, const std::string &key,
                                   const ProtobufCMessageDescriptor *table, const redisReply *r,
                                   int32_t *code)
{
    *code = 0;
    std::string error;
    Message record;
    switch (r->type) {
    case REDIS_REPLY_NIL:
        return nullptr;
    case REDIS_REPLY_ERROR:
        *code = server_refused(db, key, r);
        return nullptr;
    case REDIS_REPLY_STRING:
        *code = decode_whole(table, key, {r->str, r->len}, &record, &error);
        break;
    case REDIS_REPLY_INTEGER:
        *code = KX_MOM_EPROTO;
        error = oversized(table, key, r->integer);
        break;
    default:
        *code = KX_MOM_EPROTO;
        error = "key '" + printable(key) + "': the read gave an unexpected reply";
    }
    if (*code != 0)
        KX_LOG(WARN, "db %d: %s", db, error.c_str());
    return record.release();
}

Payload payload_from_reply(int32_t db, const std::string &key,
                           const ProtobufCMessageDescriptor *table, const redisReply *r,
                           int32_t hash_cmd)
{
    Payload p;
    if (stored_whole(table)) {
        int32_t code = 0;
        p.record.reset(whole_from_reply(db, key, table, r, &code));
        p.cmd = p.record ? KX_MOM_CMD_SET : 0;
    } else {
        p.hash.reset(hash_from_reply(db, key, table, r));
        p.cmd = p.hash && (p.hash->obj || p.hash->error_code != 0) ? hash_cmd : 0;
    }
    if (p.cmd != 0)
        p.digest = digest(r);
    return p;
}

} // namespace kx
