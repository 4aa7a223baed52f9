// ssat: the debug shell. A module registers commands; an operator runs them with
// `ssat MODULE COMMAND [ARGS]` over a Unix socket. Handlers run on the loop thread,
// one at a time with the store callbacks, with standard output sent to the client.
#ifndef SSAT_H
#define SSAT_H

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>

#include <fcntl.h>
#include <unistd.h>

#include "kx_global.h"

enum {
    SSAT_EINVAL = -2001,  // bad module, command, format or handler
    SSAT_ESOCKET = -2002, // the socket cannot be set up (or a live daemon holds it)
    SSAT_EEXIST = -2003,  // the command is registered already
};

// Arguments parsed by the registered format: "void", "%d" or "%s %d".
typedef struct ssat_args {
    const char *word;
    int32_t num;
} ssat_args;

typedef void (*ssat_fn)(void);
typedef void (*ssat_thunk)(ssat_fn fn, const ssat_args *args);

// A module's name is also part of file names (its socket, its log): 1 to 64 letters,
// digits, '_', '.' and '-', not starting with '.'. The daemon's side and the client
// both check it, so that they agree on which names exist.
inline bool ssat_valid_module(const char *module)
{
    size_t len = module ? strlen(module) : 0;
    if (len == 0 || len > 64 || module[0] == '.')
        return false;
    for (size_t i = 0; i < len; ++i)
        if (!isalnum(static_cast<unsigned char>(module[i])) && !strchr("_.-", module[i]))
            return false;
    return true;
}

// What a client of the module's socket receives for one request line: "OK <n>\n" and the
// command's n bytes of output, or one line "ERR <why>\n"; the command runs here, now.
std::string ssat_answer(const char *module, std::string_view line);

// Standard output sent to descriptor `fd` (none when it is negative) until this goes out of
// scope, on every path: the shell sends a command's output to its client so, and a
// command may send it elsewhere in turn (to a file) as long as it puts it back. Output
// closed before stays closed after.
class ssat_stdout_to {
public:
    explicit ssat_stdout_to(int fd)
    {
        fflush(stdout);
        saved_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3); // above the standard descriptors
        if (fd >= 0)
            dup2(fd, STDOUT_FILENO);
    }
    ~ssat_stdout_to()
    {
        fflush(stdout);
        if (saved_ >= 0) {
            dup2(saved_, STDOUT_FILENO);
            close(saved_);
        } else {
            close(STDOUT_FILENO);
        }
    }
    ssat_stdout_to(const ssat_stdout_to &) = delete;
    ssat_stdout_to &operator=(const ssat_stdout_to &) = delete;

private:
    int saved_;
};

// Listens on <KX_ROOT>/var/run/ssat/<module>.sock from the loop of `global`.
int32_t ssat_lib_init(kx_global_t *global, const char *module);

// The untyped registration behind ssat_reg_mod_cmd: `arity` is the number of
// arguments `fn` takes, checked against `format`; `thunk` calls `fn` with its own type.
int32_t ssat_reg_mod_cmd_impl(const char *module, const char *cmd, uint32_t flags,
                              const char *format, ssat_fn fn, ssat_thunk thunk, int arity);

// Registers `handler` for `cmd`. Handlers take (), (integer) or (const char *, integer)
// matching the formats "void", "%d" and "%s %d"; what they return is ignored. The
// handler is called through its own type, never through a cast function pointer.
template <class R, class... A>
int32_t ssat_reg_mod_cmd(const char *module, const char *cmd, uint32_t flags, const char *format,
                         R (*handler)(A...))
{
    static_assert(sizeof...(A) <= 2, "a debug command takes at most two arguments");
    using Fn = R (*)(A...);
    using Params = std::tuple<A...>;
    ssat_thunk thunk = [](ssat_fn fn, const ssat_args *args) {
        Fn f = reinterpret_cast<Fn>(fn);
        if constexpr (sizeof...(A) == 0) {
            (void)args;
            f();
        } else if constexpr (sizeof...(A) == 1) {
            using Num = std::tuple_element_t<0, Params>;
            static_assert(std::is_integral_v<Num>, "a \"%d\" handler takes an integer");
            f(static_cast<Num>(args->num));
        } else {
            using Word = std::tuple_element_t<0, Params>;
            using Num = std::tuple_element_t<1, Params>;
            static_assert(std::is_convertible_v<const char *, Word> && std::is_integral_v<Num>,
                          "a \"%s %d\" handler takes (const char *, integer)");
            f(args->word, static_cast<Num>(args->num));
        }
    };
    return ssat_reg_mod_cmd_impl(module, cmd, flags, format, reinterpret_cast<ssat_fn>(handler),
                                 thunk, static_cast<int>(sizeof...(A)));
}

#endif
