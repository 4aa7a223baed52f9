// Shared by the kx_mom integration tests: a handle on a private redis-server,
// a bounded loop runner and a recorder of deliveries in a comparable text form.
#ifndef KX_MOM_TEST_H
#define KX_MOM_TEST_H

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <event2/event.h>

#include "kx_codec.h"
#include "kx_internal.h"
#include "kx_mom.h"
#include "p_dev.pb-c.h"
#include "p_libpub.pb-c.h"
#include "s_frame.pb-c.h"
#include "test_redis.h"

namespace momtest {

using namespace std::chrono_literals;

// Runs the loop until `done` holds or `limit` passes (checked every 2 ms);
// returns whether `done` held.
inline bool run_until(kx_global_t *g, const std::function<bool()> &done,
                      std::chrono::milliseconds limit = 5s)
{
    struct Check {
        kx_global_t *g;
        const std::function<bool()> *done;
        std::chrono::steady_clock::time_point deadline;
        event *ev;
    } check{g, &done, std::chrono::steady_clock::now() + limit, nullptr};
    auto tick = [](evutil_socket_t, short, void *arg) {
        auto *c = static_cast<Check *>(arg);
        if ((*c->done)() || std::chrono::steady_clock::now() >= c->deadline) {
            kx_global_stop(c->g);
            return;
        }
        timeval tv{0, 2000};
        evtimer_add(c->ev, &tv);
    };
    check.ev = evtimer_new(g->base, tick, &check);
    timeval now{0, 0};
    evtimer_add(check.ev, &now);
    kx_global_run(g);
    event_free(check.ev);
    return done();
}

// A record as text: its key, then each field but the index as name=value.
inline std::string describe(const ProtobufCMessage *msg)
{
    if (!msg)
        return "null";
    std::string out = kx::record_key(msg);
    const ProtobufCFieldDescriptor *index = kx::index_field(msg->descriptor);
    for (unsigned i = 0; i < msg->descriptor->n_fields; ++i) {
        const ProtobufCFieldDescriptor *f = &msg->descriptor->fields[i];
        if (f == index)
            continue;
        int32_t tag = static_cast<int32_t>(f->id);
        std::vector<kx::FieldText> text;
        kx::encode_hash(msg, {&tag, 1}, &text);
        out += " " + std::string(f->name) + "=" + text.at(0).text;
    }
    return out;
}

inline std::string describe(const kx_mom_hash_res *res)
{
    if (!res)
        return "no result";
    if (res->error_code != 0)
        return "error " + std::to_string(res->error_code);
    if (!res->obj)
        return "no record";
    std::string tags;
    for (int32_t i = 0; i < res->field_len; ++i)
        tags += (i ? "," : "") + std::to_string(res->field_tag[i]);
    return describe(static_cast<const ProtobufCMessage *>(res->obj)) + " [" + tags + "]";
}

// "db:cmd key payload" for every delivery, in order.
struct Recorder {
    std::vector<std::string> seen;
    std::function<void(kx_mom_msg *)> also; // runs after recording, inside the callback
    int32_t result = 0;                     // what the callback returns

    size_t count(const std::string &prefix) const
    {
        size_t n = 0;
        for (const auto &s : seen)
            n += s.starts_with(prefix);
        return n;
    }

    static int32_t cb(kx_global_t *, kx_mom_msg *m, void *privdata)
    {
        auto *self = static_cast<Recorder *>(privdata);
        std::string line = std::to_string(m->db) + ":" + std::to_string(m->cmd);
        if (m->scan_over)
            line += " scan_over";
        else if (m->cmd == KX_MOM_CMD_HSET || m->cmd == KX_MOM_CMD_HDEL)
            line += " " + describe(static_cast<kx_mom_hash_res *>(m->data));
        else if (m->cmd == KX_MOM_CMD_SET || m->cmd == KX_MOM_CMD_DEL)
            line += " " + describe(static_cast<ProtobufCMessage *>(m->data));
        else
            line += std::string(" ") + (m->key ? m->key : "null");
        self->seen.push_back(line);
        if (self->also)
            self->also(m);
        return self->result;
    }
};

// A fresh server per test, KX_MOM_ADDR pointing at it, and a handle.
class MomTest : public ::testing::Test {
protected:
    MomTest()
    {
        setenv("KX_MOM_ADDR", server.addr().c_str(), 1);
        for (const char *name : {"KX_MOM_ADDR_1", "KX_MOM_ADDR_3", "KX_MOM_ADDR_28",
                                 "KX_MOM_USER", "KX_MOM_PASSWORD"})
            unsetenv(name);
        g = kx_global_init("kx_mom_test", nullptr);
    }
    ~MomTest() override { kx_global_finish(g); }

    void connect(std::initializer_list<int32_t> dbs)
    {
        for (int32_t db : dbs)
            ASSERT_EQ(kx_mom_client_connect_sync(g, db), 0) << "db " << db;
    }
    std::string cli(int db, const std::vector<std::string> &args) { return server.cli(db, args); }

    testsupport::RedisServer server;
    kx_global_t *g = nullptr;
};

struct ObjFree {
    void operator()(void *obj) const { kx_mom_kx_obj_free(obj); }
};
using Obj = std::unique_ptr<ProtobufCMessage, ObjFree>;
struct ResFree {
    void operator()(kx_mom_hash_res *res) const { kx_mom_hash_res_free(res); }
};
using Res = std::unique_ptr<kx_mom_hash_res, ResFree>;

// A record of the table its key names, index from the key, other fields at
// their defaults (a string field set by a test must be malloc'ed: it is freed).
inline Obj record(const std::string &key)
{
    std::string error;
    Obj rec(kx::parse_key(kx::table_of_key(key), key, &error));
    EXPECT_TRUE(rec) << error;
    return rec;
}
template <typename T> T *as(const Obj &rec)
{
    return reinterpret_cast<T *>(rec.get());
}

} // namespace momtest

#endif
