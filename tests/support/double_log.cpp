// The in-memory platform: a log sink that keeps every record, and the debug shell.
#include <cctype>
#include <charconv>
#include <cstdarg>
#include <cstdio>

#include "double_internal.h"

namespace kxd {
namespace detail {

void reset_log()
{
    state().logs.clear();
}

void reset_ssat()
{
    state().commands.clear();
}

} // namespace detail

using namespace detail;

namespace {

// The one category the sink hands out; only its address matters.
char g_category;

bool parse_int32(std::string_view text, int32_t *out)
{
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), *out);
    return ec == std::errc() && end == text.data() + text.size() && !text.empty();
}

std::vector<std::string_view> words(std::string_view text)
{
    std::vector<std::string_view> out;
    size_t i = 0;
    while (i < text.size()) {
        while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i])))
            ++i;
        size_t start = i;
        while (i < text.size() && !std::isspace(static_cast<unsigned char>(text[i])))
            ++i;
        if (i > start)
            out.push_back(text.substr(start, i - start));
    }
    return out;
}

bool known_format(std::string_view format, int arity)
{
    return (format == "void" && arity == 0) || (format == "%d" && arity == 1) ||
           (format == "%s %d" && arity == 2);
}

} // namespace

const char *level_name(int level)
{
    switch (level) {
    case KX_ZLOG_LEVEL_DEBUG: return "DEBUG";
    case KX_ZLOG_LEVEL_INFO: return "INFO";
    case KX_ZLOG_LEVEL_NOTICE: return "NOTICE";
    case KX_ZLOG_LEVEL_WARN: return "WARN";
    case KX_ZLOG_LEVEL_ERROR: return "ERROR";
    case KX_ZLOG_LEVEL_FATAL: return "FATAL";
    default: return "LEVEL?";
    }
}

std::string LogRecord::brief() const
{
    return std::string(level_name(level)) + " " + file + " " + func + ": " + text;
}

const std::vector<LogRecord> &logs()
{
    return state().logs;
}

std::vector<std::string> log_briefs()
{
    std::vector<std::string> out;
    for (const auto &r : state().logs)
        out.push_back(r.brief());
    return out;
}

void clear_logs()
{
    state().logs.clear();
}

const std::vector<SsatCommand> &ssat_commands()
{
    return state().commands;
}

const SsatCommand *ssat_find(std::string_view cmd)
{
    for (const auto &c : state().commands)
        if (c.cmd == cmd)
            return &c;
    return nullptr;
}

std::optional<std::string> ssat_invoke(std::string_view cmd, std::string_view args)
{
    const SsatCommand *c = ssat_find(cmd);
    if (!c)
        return std::nullopt;
    auto w = words(args);
    std::string word;
    ssat_args parsed{nullptr, 0};
    if (c->format == "void") {
        if (!w.empty())
            return std::nullopt;
    } else if (c->format == "%d") {
        if (w.size() != 1 || !parse_int32(w[0], &parsed.num))
            return std::nullopt;
    } else {
        if (w.size() != 2 || w[0].size() > 255 || !parse_int32(w[1], &parsed.num))
            return std::nullopt;
        word = w[0];
        parsed.word = word.c_str();
    }
    ssat_thunk thunk = c->thunk;
    ssat_fn fn = c->fn;
    return capture_stdout([&] { thunk(fn, &parsed); });
}

} // namespace kxd

using namespace kxd;
using namespace kxd::detail;

kx_zlog_category_t *kx_zlog_init(const char *module)
{
    size_t c = record({.name = "kx_zlog_init", .key = module ? module : ""});
    if (const Fault *f = take_fault("kx_zlog_init", -1)) {
        finish(c, f->outcome == Outcome::Code ? f->rc : -1);
        return nullptr;
    }
    return reinterpret_cast<kx_zlog_category_t *>(&g_category);
}

void kxdf_zlog(kx_zlog_category_t *category, const char *file, size_t filelen, const char *func,
               size_t funclen, long line, int level, const char *format, ...)
{
    if (!category || !format)
        return;
    va_list ap;
    va_start(ap, format);
    va_list copy;
    va_copy(copy, ap);
    int n = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text(n > 0 ? static_cast<size_t>(n) : 0, '\0');
    if (n > 0)
        std::vsnprintf(text.data(), text.size() + 1, format, ap);
    va_end(ap);
    state().logs.push_back({level, file ? std::string(file, filelen) : std::string(),
                            func ? std::string(func, funclen) : std::string(), line,
                            std::move(text)});
}

int at_snprintf(char *buf, size_t size, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    int n = std::vsnprintf(buf, size, format, ap);
    va_end(ap);
    return n;
}

int32_t ssat_lib_init(kx_global_t *global, const char *module)
{
    size_t c = record({.name = "ssat_lib_init", .key = module ? module : ""});
    if (!global || !module || !*module)
        return finish(c, SSAT_EINVAL);
    const Fault *f = take_fault("ssat_lib_init", -1);
    return finish(c, f ? f->rc : 0);
}

int32_t ssat_reg_mod_cmd_impl(const char *module, const char *cmd, uint32_t flags,
                              const char *format, ssat_fn fn, ssat_thunk thunk, int arity)
{
    std::string text = std::string(cmd ? cmd : "") + " " + (format ? format : "");
    size_t c = record({.name = "ssat_reg_mod_cmd",
                       .key = module ? module : "",
                       .flags = flags,
                       .fn = reinterpret_cast<void *>(fn),
                       .text = text});
    if (!module || !*module || !cmd || !*cmd || !format || !fn || !thunk ||
        !known_format(format, arity))
        return finish(c, SSAT_EINVAL);
    if (const Fault *f = take_fault("ssat_reg_mod_cmd", -1))
        return finish(c, f->rc);
    if (ssat_find(cmd))
        return finish(c, SSAT_EEXIST);
    state().commands.push_back({module, cmd, flags, format, fn, thunk, arity});
    return 0;
}
