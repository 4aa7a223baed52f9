// Talking to Redis with hiredis: commands written as RESP by libkx itself, replies and
// failures said as one line.
#include "kx_resp.h"

#include <algorithm>
#include <cerrno>
#include <charconv>

#include "kx_codec.h"

namespace kx {

std::string reply_text(const redisReply *r)
{
    if (!r)
        return "no reply";
    if (r->type == REDIS_REPLY_STRING || r->type == REDIS_REPLY_STATUS ||
        r->type == REDIS_REPLY_ERROR)
        return printable(std::string_view(r->str, r->len));
    return "unexpected reply type " + std::to_string(r->type);
}

// Why an I/O call on `c` failed; a blocking read or write that timed out says so.
std::string io_failure(const redisContext *c)
{
    if (c->err == REDIS_ERR_IO && (errno == EAGAIN || errno == EWOULDBLOCK))
        return "no answer within " + std::to_string(kCommandTimeout.tv_sec) + " s";
    return c->errstr[0] ? c->errstr : "I/O error";
}

std::string keyspace_prefix(int32_t db) { return "__keyspace@" + std::to_string(db) + "__:"; }

// RESP, written by hand into one buffer for a whole pipeline: hiredis's own formatting
// costs a dozen allocations a command, more than the rest of a write.
int append_commands(redisContext *c, std::span<const Command> cmds)
{
    size_t size = 0; // each argument, and at most 24 bytes of framing each
    for (const Command &cmd : cmds) {
        size += 24;
        for (std::string_view arg : cmd)
            size += arg.size() + 24;
    }
    std::string text(size, '\0');
    char *at = text.data();
    auto number = [&at](char kind, size_t n) {
        *at++ = kind;
        at = std::to_chars(at, at + 20, n).ptr;
        *at++ = '\r';
        *at++ = '\n';
    };
    for (const Command &cmd : cmds) {
        number('*', cmd.size());
        for (std::string_view arg : cmd) {
            number('$', arg.size());
            at = std::copy(arg.begin(), arg.end(), at);
            *at++ = '\r';
            *at++ = '\n';
        }
    }
    return redisAppendFormattedCommand(c, text.data(), static_cast<size_t>(at - text.data()));
}

int append_command(redisContext *c, const Command &cmd) { return append_commands(c, {&cmd, 1}); }

} // namespace kx
