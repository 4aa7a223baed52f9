// The connect handshake of a database (kx_handshake.cpp).
#ifndef KX_HANDSHAKE_H
#define KX_HANDSHAKE_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <hiredis/hiredis.h>

#include "kx_endpoint.h"
#include "kx_resp.h"

namespace kx {

// Opening a database's two connections and checking its server, step by step. Both
// connections stay non-blocking until it is done.
struct Handshake {
    Settings settings;
    Context ask;              // the sentinel being asked for the primary
    size_t next_sentinel = 0; // the one to ask after it
    std::string unanswered;   // why the sentinels asked so far named no primary
    int stage = 0;            // a new time limit starts: each sentinel, then the primary
    int timed_stage = -1;     // the stage the deadline is set for
    Context cmd;
    Context sub;
    size_t step = 0;     // the step under way
    bool sent = false;   // its commands are queued
    size_t expected = 0; // replies it waits for
    std::vector<Reply> replies;
    bool answered = false;       // the server has replied to something
    std::string notify;          // notify-keyspace-events as the server has it
    bool notify_unknown = false; // the user may not read it (CONFIG GET refused)
    std::string run_id;
    int32_t code = 0; // why it failed: the code and a line
    std::string why;
};

// What a handshake under way waits for; `none` once it is done or has failed (code).
enum class Wait { none, read, write };

// Reads the settings of `db`, then opens both connections (or asks the first sentinel),
// without waiting; false with the failure set.
bool open_handshake(int32_t db, Handshake &h);
// Moves the handshake on as far as it goes without waiting for a socket.
Wait advance(int32_t db, Handshake &h);
// The socket is ready for what the handshake waited for.
Wait resume(int32_t db, Handshake &h, Wait waited);
// The stage under way took longer than limit(): the next sentinel, or the failure.
Wait timed_out(int32_t db, Handshake &h);
// The connection the handshake waits on now.
redisContext *in_use(const Handshake &h);
// The time the stage under way may take: a sentinel's answer, or the rest.
std::chrono::milliseconds limit(const Handshake &h);
// kx_mom_client_connect_sync's handshake: poll() until it is done or the time is up.
void handshake_now(int32_t db, Handshake &h);

} // namespace kx

#endif
