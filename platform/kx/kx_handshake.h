// The connect handshake of a database (kx_handshake.cpp), and what talking to a Redis
// server with hiredis takes: owners of its contexts and replies, commands as argument
// lists.
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
#include "kx_free.h"

namespace kx {

using Reply = std::unique_ptr<redisReply, FreeWith<freeReplyObject>>;
using Context = std::unique_ptr<redisContext, FreeWith<redisFree>>;

using Command = std::vector<std::string_view>;

// How long a synchronous command may wait for its reply.
constexpr timeval kCommandTimeout{2, 0};

// Appends `cmd` (or `cmds`, pipelined) to the output buffer of `c`; REDIS_OK or REDIS_ERR.
int append_command(redisContext *c, const Command &cmd);
int append_commands(redisContext *c, std::span<const Command> cmds);
// A reply as one printable line, for messages.
std::string reply_text(const redisReply *r);
// Why an I/O call on `c` failed; a blocking read or write that timed out says so.
std::string io_failure(const redisContext *c);
// "__keyspace@<db>__:", what every channel of `db` starts with.
std::string keyspace_prefix(int32_t db);
// The keyspace notification flags libkx needs of a server: keyspace events (K) for
// generic commands (g: del, rename, expire), hashes (h), strings ($), expiry (x) and
// eviction (e).
inline constexpr std::string_view kNeededNotify = "Kgh$xe";

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
    bool answered = false; // the server has replied to something
    std::string notify;    // notify-keyspace-events as the server has it
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
