// kx_mom: the store client. Records are the generated protobuf-c messages; a key
// message (its type names the table, its `index` selects the record) addresses them.
//
// Ownership: deliveries and their payloads belong to the library and live only
// during the callback. What kx_mom_get_sync and kx_mom_hgetall_sync return belongs
// to the caller, who frees it with kx_mom_kx_obj_free / kx_mom_hash_res_free.
// Key messages are read during the call only.
//
// Waiting: only the synchronous calls wait for the server, each at most the command
// timeout (2 s); one that gets no answer in time fails with KX_MOM_EIO and leaves
// its database down. Everything else (subscriptions, notifications, reconnects) runs
// from the loop without waiting, whatever state the server is in.
//
// Diagnostics, only for libkx's own events (a bad record, a lost or regained connection
// and why, a refusal, a configuration it cannot use), are a record of the unit
// "platform/kx" in the log sink that the process made with kx_zlog_init, written from its
// configured level (NOTICE by default); a process without one gets a line on stderr.
// A password never appears in them.
#ifndef KX_MOM_H
#define KX_MOM_H

#include <cstdint>

#include <protobuf-c/protobuf-c.h>

#include "kx_global.h"

enum {
    KX_MOM_ENOTCONN = -1001, // the database is down (or was never connected)
    KX_MOM_EIO = -1002,      // the connection failed during the call
    KX_MOM_EPROTO = -1003,   // stored data that does not decode or is beyond its table's bound
    KX_MOM_EINVAL = -1004,   // a bad argument: null pointer, unknown db, bad field list
    KX_MOM_ENOMEM = -1005,   // a decode could not allocate (what is checked: kx_codec.h)
    KX_MOM_ESERVER = -1006,  // the server refused: WRONGTYPE, NOPERM, OOM...
    KX_MOM_ECONFIG = -1007,  // bad endpoint or server configuration
};

// What a delivery reports (kx_mom_msg.cmd).
enum {
    KX_MOM_CMD_SET = 1,         // whole-value record written; data: the record
    KX_MOM_CMD_DEL = 3,         // record deleted; data: a record decoded from the key
    KX_MOM_CMD_HSET = 4,        // hash record written or delivered by a scan; data: kx_mom_hash_res
    KX_MOM_CMD_HDEL = 6,        // fields removed, record still there; data: kx_mom_hash_res
    KX_MOM_CMD_SUBSCRIBED = 29, // the subscription is established; data: nullptr
};

// Reconnect types handed to the reconnect callback.
enum {
    KX_MOM_RECONNECT_RESTARTED = 1, // a different server run: its data may be gone
    KX_MOM_RECONNECT_SAME = 2,      // the same server run: only the connection was lost
};

typedef struct kx_mom_msg {
    int32_t db; // database of the record
    const ProtobufCMessageDescriptor *table;
    int32_t cmd;
    void *data;        // see the cmd codes
    const char *key;   // the store key the delivery is about
    int32_t scan_over; // 1 on the last delivery of kx_mom_scan
} kx_mom_msg;

typedef struct kx_mom_hash_res {
    void *obj;          // the decoded record (a message of the table's type), or nullptr
    int32_t *field_tag; // field numbers of the fields present, in the store's order
    int32_t field_len;
    int32_t db;
    const char *key;
    int32_t error_code; // 0, or why the read failed (then obj is nullptr)
} kx_mom_hash_res;

typedef int32_t (*kx_mom_cb)(kx_global_t *global, kx_mom_msg *pmsg, void *privdata);
typedef int32_t (*kx_mom_disconnect_cb)(kx_global_t *global, int32_t db);
typedef int32_t (*kx_mom_reconnect_cb)(kx_global_t *global, int32_t db, int32_t type);

// Connects the command and subscriber connections of `db`, checks the server
// (databases >= 29, keyspace notifications, and with ACL DRYRUN where the server
// allows it that the user may subscribe to a channel of `db` at all) and selects
// `db`, waiting at most 2 s (and 0.5 s for each sentinel asked). The endpoint comes
// from KX_MOM_ADDR_<db>, else KX_MOM_ADDR (unix:/path, tcp:HOST:PORT, or
// sentinel:HOST:PORT[,HOST:PORT...]/NAME: the primary that the sentinels, asked in
// turn, name for NAME; it must say it is one), else tcp:127.0.0.1:6379. KX_MOM_USER_<db> and
// KX_MOM_PASSWORD_<db> (or KX_MOM_PASSWORD_FILE_<db>, its first line), else the same without _<db>,
// authenticate. A bad value or an unfit server gives
// KX_MOM_ECONFIG with a line naming the fix, an unreachable or silent one
// KX_MOM_ENOTCONN. After this,
// libkx alone keeps the database connected (see the callbacks).
int32_t kx_mom_client_connect_sync(kx_global_t *global, int32_t db);
// A database whose connection breaks is down: its disconnect callback runs once
// (from the loop), its calls fail at once with KX_MOM_ENOTCONN, and libkx
// reconnects on a timer (100 ms doubling to 5 s; from 100 ms again after a connection
// that held 5 s). The reconnect never holds the loop: a server that does not answer
// within 2 s is tried again later. Once it is back:
// - the writes and deletions that failed because it was away are made, the last one
//   meant for each key, in the order meant, before anything else runs;
// - the reconnect callback gets KX_MOM_RECONNECT_SAME or KX_MOM_RECONNECT_RESTARTED;
// - its subscriptions are restored and each route gets what changed while it was away,
//   once, as the lost notifications would have given it: a record new or changed as a
//   change, a record gone as a deletion (decoded from its key). Nothing is delivered for
//   what did not change, unless what the callback read when it last had the record
//   (any read or scan it made during that delivery) changed: then the record is
//   delivered again. KX_MOM_CMD_SUBSCRIBED comes only to a route subscribed (again)
//   meanwhile, or by the reconnect callback. Routes of other databases are not touched,
//   but for those whose last delivery read from this one, which are checked the same way;
// - a delivery whose callback could not read this database while it was away is given
//   again.
// `flags` is unused: pass 0.
int32_t kx_mom_client_set_disconnect_cb(kx_global_t *global, int32_t db, kx_mom_disconnect_cb cb,
                                        uint32_t flags);
int32_t kx_mom_client_set_reconnect_cb(kx_global_t *global, int32_t db, kx_mom_reconnect_cb cb,
                                       uint32_t flags);

// Follows one record (index set) or a whole table (index at its defaults). Returns
// at once without I/O: 0 means the route is kept, and `cb` receives
// KX_MOM_CMD_SUBSCRIBED from the loop once the server confirms it; for a database
// that is down (or whose connection is breaking), once the database is back. The
// same db, key, cb and privdata again add no second route; they are confirmed again,
// unless a confirmation is still pending (then that one answers both). A server
// that refuses the subscription (an ACL user without the channel) is logged with
// its reason and the channel, and tried again after the next reconnect.
// KX_MOM_ENOTCONN for a database never connected, KX_MOM_EINVAL for bad arguments.
// Changes come as the record is when read, not as it was written.
int32_t kx_mom_subscribe(kx_global_t *global, int32_t db, const ProtobufCMessage *key,
                         uint32_t flags, kx_mom_cb cb, void *privdata);
// One KX_MOM_CMD_HSET delivery per selected record still present, before
// returning (KX_MOM_CMD_SET with the record for the whole-value table). A stored
// value that does not decode comes with error_code set and no obj; a key that
// does not parse is skipped with a line on stderr. Callbacks may make any
// synchronous call, delete records of the scanned table, and scan again.
// What a callback returns changes nothing (the caller logs its own failures).
int32_t kx_mom_scan_sync(kx_global_t *global, int32_t db, const ProtobufCMessage *key,
                         uint32_t flags, kx_mom_cb cb, void *privdata);
// The same from the loop after returning, then one delivery with scan_over 1. A
// connection lost meanwhile ends the scan: the records read before it, each once,
// then scan_over 1; it is not resumed (a subscriber's catch-up covers the rest).
int32_t kx_mom_scan(kx_global_t *global, int32_t db, const ProtobufCMessage *key, uint32_t flags,
                    kx_mom_cb cb, void *privdata);

// Reads one record. A missing record gives nullptr and *error 0, so that nothing
// is applied; a non-null result is freed with kx_mom_kx_obj_free whatever *error holds.
// A stored value that does not decode, or is beyond the bound of its table, gives
// KX_MOM_EPROTO; one that cannot be decoded for want of memory KX_MOM_ENOMEM.
void *kx_mom_get_sync(kx_global_t *global, int32_t db, const ProtobufCMessage *key, int32_t *error);
// Reads one hash record. A missing record gives a result with no obj and
// error_code 0; a bad one error_code KX_MOM_EPROTO or KX_MOM_ENOMEM. A bad key
// (also one of the whole-value table: kx_mom_get_sync reads it), a lost connection
// or no memory for the result gives nullptr.
kx_mom_hash_res *kx_mom_hgetall_sync(kx_global_t *global, int32_t db, const ProtobufCMessage *key);
// Writes exactly the listed fields of the record its index selects (the
// whole-value table is written whole). KX_MOM_EINVAL, and nothing written, for
// an empty or null list, a number the message lacks or the index field.
int32_t kx_mom_hmset_sync(kx_global_t *global, int32_t db, const ProtobufCMessage *record,
                          const int32_t *field_tag, int32_t field_len);
int32_t kx_mom_del_sync(kx_global_t *global, int32_t db, const ProtobufCMessage *key);

void kx_mom_hash_res_free(kx_mom_hash_res *res); // nullptr is harmless
void kx_mom_kx_obj_free(void *obj);              // nullptr is harmless

// Every table libkx knows, by full name ("s_frame.cap_dep"); nullptr when unknown.
const ProtobufCMessageDescriptor *kx_mom_table(const char *name);
// All of them, in a fixed order, ending with nullptr.
const ProtobufCMessageDescriptor *const *kx_mom_tables(void);

// The databases of a card's store, with the names the daemon's messages give them.
enum {
    KX_MOM_DB_TUNNER = 1,     // "tunner_db": the card's and the chassis's identity
    KX_MOM_DB_HOST = 3,       // "host": the card's own capability and its dependencies
    KX_MOM_DB_CE_GLOBAL = 28, // "ce_global": chassis-wide, written by every card
};

// The database each table lives in, in the order of kx_mom_tables().
typedef struct kx_mom_table_home {
    const char *table;
    int32_t db;
} kx_mom_table_home;

inline constexpr kx_mom_table_home kx_mom_table_homes[] = {
    {"p_dev.dp_lib_my_info", KX_MOM_DB_TUNNER},
    {"p_dev.dp_lib_my_chss_info", KX_MOM_DB_TUNNER},
    {"p_libpub.cap_state", KX_MOM_DB_HOST},
    {"p_libpub.cap_table", KX_MOM_DB_HOST},
    {"p_libpub.cap_subcard_state", KX_MOM_DB_HOST},
    {"p_libpub.cap_subcard_table", KX_MOM_DB_HOST},
    {"s_frame.cap_dep", KX_MOM_DB_HOST},
    {"s_frame.cap_glb_table", KX_MOM_DB_CE_GLOBAL},
    {"s_frame.cap_fe_ready", KX_MOM_DB_CE_GLOBAL},
    {"s_frame.cap_del_fe_ready", KX_MOM_DB_CE_GLOBAL},
    {"s_frame.cap_subcard_glb_table", KX_MOM_DB_CE_GLOBAL},
    {"s_frame.cap_subcard_ready", KX_MOM_DB_CE_GLOBAL},
};

#endif
