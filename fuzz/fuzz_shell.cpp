// Debug-shell request lines: whatever a client sends, the reply is either "OK <n>\n" and
// exactly n bytes of the command's output, or one line "ERR <reason>\n" of printable text;
// and a handler only ever runs with the arguments its format promises.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ssat.h"

namespace {

void none() { printf("none"); }
void number(int32_t n) { printf("%d", n); }
void word(const char *w, int32_t n)
{
    if (!w || strlen(w) > 255)
        abort();
    printf("%s %d", w, n);
}

bool register_commands()
{
    return ssat_reg_mod_cmd("fuzz", "none", 0, "void", none) == 0 &&
           ssat_reg_mod_cmd("fuzz", "number", 0, "%d", number) == 0 &&
           ssat_reg_mod_cmd("fuzz", "word", 0, "%s %d", word) == 0;
}

bool well_formed(std::string_view reply)
{
    size_t eol = reply.find('\n');
    if (eol == std::string_view::npos)
        return false;
    std::string_view head = reply.substr(0, eol), body = reply.substr(eol + 1);
    if (head.starts_with("ERR "))
        return body.empty() &&
               std::all_of(head.begin(), head.end(), [](char c) { return c >= ' ' && c < 0x7f; });
    return head.starts_with("OK ") && head.substr(3) == std::to_string(body.size());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool registered = register_commands(); // after libkx's own statics exist
    if (!registered)
        abort();
    const std::string reply = ssat_answer("fuzz", {reinterpret_cast<const char *>(data), size});
    if (!well_formed(reply))
        abort();
    return 0;
}
