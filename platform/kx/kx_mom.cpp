// kx_mom operations: reads, writes, deletions and scans on the command connection.
//
// A scan lists the table's keys with SCAN MATCH a page at a time and reads each page's
// keys in batches (kx_mom_read.cpp), delivering each record still present.
// Nothing is delivered while a batch is being read, so callbacks are free to make any
// synchronous call on any database, including deleting records of the table being
// scanned and nested scans.
#include <algorithm>
#include <utility>

#include <xxhash.h>

#include "kx_codec.h"
#include "kx_mom_state.h"

namespace kx {

namespace {

// What a scan holds at a time: one page of keys and one batch of records read. A page
// of about 128 keys and a batch of 32 records (about 35 KiB of replies) keep what a
// 10,000-record scan adds to the daemon near 200 KiB, at one more round trip per 32
// records than batches of 256 would cost. A SCAN call visits 128 of the database's keys
// (COUNT) while the table's keys are dense among them, and up to 2048 at a time while
// fewer than one in 16 are the table's: a small table in a big database (the deletion
// notices among a chassis's entries) is then listed in a few calls, with pages as small.
constexpr size_t kScanPage = 128;
constexpr size_t kScanReach = 2048;
constexpr size_t kReadBatch = 32;

// Runs one write: 0, the transport's code, or the server's refusal.
int32_t run_write(Database &d, const std::string &key, const Command &cmd)
{
    Reply r;
    int32_t rc = run_command(d, cmd, &r);
    return rc == 0 && r->type == REDIS_REPLY_ERROR ? server_refused(d.db, key, r.get()) : rc;
}

// Notes for the scans delivering from `d` that a record was deleted.
void note_deleted(Database &d, const std::string &key)
{
    for (ScanWork *scan : d.scans)
        scan->deleted.insert(key);
}

class DeliveringScan {
public:
    DeliveringScan(Database &d, ScanWork &w) : d_(d), w_(w) { d.scans.push_back(&w); }
    ~DeliveringScan() { std::erase(d_.scans, &w_); }
    DeliveringScan(const DeliveringScan &) = delete;
    DeliveringScan &operator=(const DeliveringScan &) = delete;

private:
    Database &d_;
    ScanWork &w_;
};

// Keys that do not parse are skipped with a warning: they are not records.
bool valid_key(const Database &d, const ScanWork &w, const std::string &key)
{
    std::string error;
    Message record(parse_key(w.table, key, &error));
    if (!record)
        KX_LOG(WARN, "db %d: scan skips %s", d.db, error.c_str());
    return record != nullptr;
}

// Takes the keys of one SCAN page that were not taken before.
void take_page(const Database &d, ScanWork &w, const redisReply *keys)
{
    for (size_t i = 0; i < keys->elements; ++i) {
        const redisReply *k = keys->element[i];
        if (k->type != REDIS_REPLY_STRING || !w.seen.insert(XXH3_64bits(k->str, k->len)))
            continue;
        if (std::string key(k->str, k->len); valid_key(d, w, key))
            w.pending.push_back(std::move(key));
    }
}

int32_t list_step(Database &d, ScanWork &w)
{
    Reply r;
    const std::string count = std::to_string(std::max(w.reach, kScanPage));
    int32_t rc = run_command(d, {"SCAN", w.cursor, "MATCH", w.glob, "COUNT", count}, &r);
    if (rc != 0)
        return rc;
    if (r->type == REDIS_REPLY_ERROR)
        return server_refused(d.db, w.glob, r.get());
    if (r->type != REDIS_REPLY_ARRAY || r->elements != 2 ||
        r->element[0]->type != REDIS_REPLY_STRING || r->element[1]->type != REDIS_REPLY_ARRAY) {
        KX_LOG(ERROR, "db %d: SCAN %s: unexpected reply", d.db, printable(w.glob).c_str());
        return KX_MOM_EPROTO;
    }
    w.cursor.assign(r->element[0]->str, r->element[0]->len);
    const size_t listed = r->element[1]->elements;
    w.reach = listed * 16 < w.reach ? std::min(w.reach * 2, kScanReach) : kScanPage;
    take_page(d, w, r->element[1]);
    w.listed = w.cursor == "0";
    return 0;
}

int32_t read_step(Database &d, ScanWork &w)
{
    const size_t n = std::min(w.pending.size(), kReadBatch);
    std::vector<std::string> batch(std::make_move_iterator(w.pending.begin()),
                                   std::make_move_iterator(w.pending.begin() + n));
    w.pending.erase(w.pending.begin(), w.pending.begin() + n);
    Reads read;
    if (int32_t rc = read.run(d, w.table, batch); rc != 0)
        return rc;
    w.deleted.clear();
    DeliveringScan delivering(d, w);
    uint64_t epoch = d.epoch;
    for (size_t i = 0; i < batch.size(); ++i) {
        if (d.epoch != epoch)
            return KX_MOM_EIO;
        const std::string &key = batch[i];
        if (w.deleted.count(key))
            continue;
        w.sum += keyed_digest(key, read.at(i));
        if (w.visit) {
            w.visit(d, w, key, read.at(i));
            continue;
        }
        Payload p = payload_from_reply(d.db, key, w.table, read.at(i), KX_MOM_CMD_HSET);
        if (p.cmd != 0)
            deliver(w.global, w.cb, w.privdata, d.db, w.table, p.cmd, p.data(), key.c_str(), 0);
    }
    return d.epoch == epoch ? 0 : KX_MOM_EIO;
}

} // namespace

int32_t scan_step(ScanWork &w)
{
    int32_t code = 0;
    Database *d = up_database(w.global, w.db, &code);
    if (!d)
        return code;
    int32_t rc = w.pending.empty() ? list_step(*d, w) : read_step(*d, w);
    if (rc != 0)
        return rc;
    return !w.listed || !w.pending.empty() ? 1 : 0;
}

int32_t run_scan(ScanWork &w)
{
    int32_t rc;
    while ((rc = scan_step(w)) == 1)
        ;
    return rc;
}

namespace {

int32_t start_scan(kx_global_t *global, int32_t db, const ProtobufCMessage *key, kx_mom_cb cb,
                   void *privdata, ScanWork *w)
{
    int32_t code = 0;
    if (!known_table(key) || !cb)
        return KX_MOM_EINVAL;
    if (!up_database(global, db, &code))
        return code;
    std::string selection;
    const bool table = selects_glob(key, &selection);
    *w = ScanWork(global, db, key->descriptor, std::move(selection), table);
    w->cb = cb;
    w->privdata = privdata;
    return 0;
}

void on_async_turn(evutil_socket_t, short, void *arg)
{
    auto *scan = static_cast<AsyncScan *>(arg);
    ScanWork &w = scan->work;
    int32_t rc = scan_step(w);
    if (rc == 1) {
        timeval now{0, 0};
        evtimer_add(scan->turn.get(), &now);
        return;
    }
    if (rc < 0) {
        KX_LOG(WARN, "db %d: scan of %s ended early: %d", w.db, printable(w.glob).c_str(), rc);
        // The catch-up is given again: at the route's next confirmation, which the scan's
        // database coming back brings when it is not the route's own.
        if (Route *route = scan->catching_up) {
            route->announce = true;
            Delivery cut{route};
            DeliveryScope scope(w.global, cut);
            note_unreachable(w.global, w.db, rc);
        }
    }
    deliver(w.global, w.cb, w.privdata, w.db, w.table, 0, nullptr, w.glob.c_str(), 1);
    auto &scans = w.global->mom->async_scans;
    scans.remove_if([scan](const auto &s) { return s.get() == scan; });
}

// Common checks of the one-record calls: the database is up and the key names a
// record of a known table.
Database *record_call(kx_global_t *global, int32_t db, const ProtobufCMessage *key, int32_t *code)
{
    if (!known_table(key)) {
        *code = KX_MOM_EINVAL;
        return nullptr;
    }
    return up_database(global, db, code);
}

} // namespace

void deliver(kx_global *global, kx_mom_cb cb, void *privdata, int32_t db,
             const ProtobufCMessageDescriptor *table, int32_t cmd, void *data, const char *key,
             int32_t scan_over)
{
    // What the callback returns is its own business: it logs its failures itself.
    kx_mom_msg msg{db, table, cmd, data, key, scan_over};
    cb(global, &msg, privdata);
}

bool selects_glob(const ProtobufCMessage *key, std::string *match)
{
    bool glob = selects_table(key) && index_field(key->descriptor);
    *match = glob ? table_glob(key->descriptor) : record_key(key);
    return glob;
}

} // namespace kx

int32_t kx_mom_scan_sync(kx_global_t *global, int32_t db, const ProtobufCMessage *key, uint32_t,
                         kx_mom_cb cb, void *privdata)
{
    kx::ScanWork w;
    int32_t rc = kx::start_scan(global, db, key, cb, privdata, &w);
    if (rc == 0)
        rc = kx::run_scan(w);
    if (rc == 0)
        kx::note_input(global, {db, w.glob, w.whole_table, w.sum});
    return kx::note_unreachable(global, db, rc);
}

int32_t kx_mom_scan(kx_global_t *global, int32_t db, const ProtobufCMessage *key, uint32_t,
                    kx_mom_cb cb, void *privdata)
{
    auto scan = std::make_unique<kx::AsyncScan>();
    int32_t rc = kx::start_scan(global, db, key, cb, privdata, &scan->work);
    if (rc != 0)
        return kx::note_unreachable(global, db, rc);
    if (const kx::Delivery *delivery = global->mom->delivering)
        scan->catching_up = delivery->route;
    scan->turn.reset(evtimer_new(global->base, kx::on_async_turn, scan.get()));
    timeval now{0, 0};
    if (!scan->turn || evtimer_add(scan->turn.get(), &now) != 0)
        return KX_MOM_ENOMEM;
    global->mom->async_scans.push_back(std::move(scan));
    return 0;
}

void *kx_mom_get_sync(kx_global_t *global, int32_t db, const ProtobufCMessage *key, int32_t *error)
{
    int32_t ignored = 0;
    int32_t &code = error ? *error : ignored;
    kx::Database *d = kx::record_call(global, db, key, &code);
    if (!d) {
        kx::note_unreachable(global, db, code);
        return nullptr;
    }
    std::string k = kx::record_key(key);
    kx::Reads read;
    code = read.run(*d, key->descriptor, {&k, 1});
    if (code != 0) {
        kx::note_unreachable(global, db, code);
        return nullptr;
    }
    kx::note_input(global, {db, k, false, kx::keyed_digest(k, read.at(0))});
    // A missing record is no object and no error: the caller's "no record" path.
    if (kx::stored_whole(key->descriptor))
        return kx::whole_from_reply(db, k, key->descriptor, read.at(0), &code);
    kx::HashRes res(kx::hash_from_reply(db, k, key->descriptor, read.at(0)));
    code = res ? res->error_code : KX_MOM_ENOMEM;
    return res ? std::exchange(res->obj, nullptr) : nullptr;
}

kx_mom_hash_res *kx_mom_hgetall_sync(kx_global_t *global, int32_t db, const ProtobufCMessage *key)
{
    if (!kx::hash_table(key))
        return nullptr;
    int32_t code = 0;
    kx::Database *d = kx::record_call(global, db, key, &code);
    std::string k = kx::record_key(key);
    kx::Reads read;
    if (d)
        code = read.run(*d, key->descriptor, {&k, 1});
    if (kx::note_unreachable(global, db, code) != 0)
        return nullptr;
    kx::note_input(global, {db, k, false, kx::keyed_digest(k, read.at(0))});
    return kx::hash_from_reply(db, k, key->descriptor, read.at(0));
}

int32_t kx_mom_hmset_sync(kx_global_t *global, int32_t db, const ProtobufCMessage *record,
                          const int32_t *field_tag, int32_t field_len)
{
    kx::Write w;
    int32_t rc = kx::encode_write(record, field_tag, field_len, &w);
    if (rc != 0)
        return rc;
    kx::Command cmd = {w.whole ? "SET" : "HSET", w.key};
    if (w.whole)
        cmd.push_back(w.value);
    for (const auto &f : w.fields) {
        cmd.push_back(f.name);
        cmd.push_back(f.text);
    }
    kx::Database *d = kx::up_database(global, db, &rc);
    if (d)
        rc = kx::run_write(*d, w.key, cmd);
    if (rc == KX_MOM_ENOTCONN || rc == KX_MOM_EIO)
        kx::keep_write(global, db, w);
    return rc;
}

int32_t kx_mom_del_sync(kx_global_t *global, int32_t db, const ProtobufCMessage *key)
{
    int32_t rc = 0;
    kx::Database *d = kx::record_call(global, db, key, &rc);
    if (rc == KX_MOM_EINVAL)
        return rc;
    std::string k = kx::record_key(key);
    if (d)
        rc = kx::run_write(*d, k, {"DEL", k});
    if (rc == 0)
        kx::note_deleted(*d, k);
    if (rc == KX_MOM_ENOTCONN || rc == KX_MOM_EIO)
        kx::keep_delete(global, db, k);
    return rc;
}
