// What talking to a Redis server with hiredis takes (kx_resp.cpp): owners of its contexts
// and replies, commands as argument lists.
#ifndef KX_RESP_H
#define KX_RESP_H

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <hiredis/hiredis.h>

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

} // namespace kx

#endif
