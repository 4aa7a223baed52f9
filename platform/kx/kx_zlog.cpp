// kx_zlog: the log sink behind zlog's wrapper API.
//
// A category is an output (an append-only file, standard error or syslog) and a
// minimum level. Each record is formatted completely in memory and handed to the
// kernel in one write(2) on an O_APPEND descriptor: nothing is buffered in the
// process, so a crash loses no line, concurrent writers never interleave inside a
// line, and logrotate's copytruncate works (the next append lands at the new end).
//
// Configuration, <KX_ROOT>/etc/kx/<module>.zlog, optional:
//     # comment
//     output = /var/log/vek_cap.log     (a path, "stderr" or "syslog")
//     level = INFO                      (a zlog level: name or number)
// KX_LOG overrides the output. Paths in the file and in KX_LOG are used as written;
// the default output, <KX_ROOT>/var/log/<module>.log, follows KX_ROOT.
#include "kx_zlog.h"

#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "kx_global.h"

struct kx_zlog_category {
    enum class Output { file, stderr_stream, syslog };
    Output output = Output::file;
    int fd = -1;
    int level = KX_ZLOG_LEVEL_DEBUG;
    std::string ident; // syslog keeps a pointer to its identity string
};

namespace {

struct Level {
    int number;
    std::string_view name;
    int syslog_priority;
};

constexpr Level levels[] = {
    {KX_ZLOG_LEVEL_DEBUG, "DEBUG", LOG_DEBUG},
    {KX_ZLOG_LEVEL_INFO, "INFO", LOG_INFO},
    {KX_ZLOG_LEVEL_NOTICE, "NOTICE", LOG_NOTICE},
    {KX_ZLOG_LEVEL_WARN, "WARN", LOG_WARNING},
    {KX_ZLOG_LEVEL_ERROR, "ERROR", LOG_ERR},
    {KX_ZLOG_LEVEL_FATAL, "FATAL", LOG_CRIT},
};

// zlog's own level numbers run from 1 to 253 (0 and 254..255 are reserved).
constexpr int min_level = 1;
constexpr int max_level = 253;

const Level *level_by_number(int number)
{
    for (const auto &l : levels)
        if (l.number == number)
            return &l;
    return nullptr;
}

// Categories live until the process ends, as zlog's do; keeping them here also
// keeps them reachable for leak checkers.
std::mutex registry_mutex;
std::vector<std::unique_ptr<kx_zlog_category>> registry;

struct Config {
    std::optional<std::string> output;
    int level = KX_ZLOG_LEVEL_DEBUG;
};

void config_error(const std::string &path, int line, const std::string &why)
{
    if (line > 0)
        fprintf(stderr, "kx_zlog: %s:%d: %s\n", path.c_str(), line, why.c_str());
    else
        fprintf(stderr, "kx_zlog: %s: %s\n", path.c_str(), why.c_str());
}

std::string_view trim(std::string_view s)
{
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
        s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r'))
        s.remove_suffix(1);
    return s;
}

std::optional<int> parse_level(std::string_view text)
{
    for (const auto &l : levels)
        if (text.size() == l.name.size() &&
            strncasecmp(text.data(), l.name.data(), text.size()) == 0)
            return l.number;
    int number = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (ec != std::errc() || end != text.data() + text.size() || number < min_level ||
        number > max_level)
        return std::nullopt;
    return number;
}

// Applies one `key = value` line; false (after saying why) when it is not one.
bool apply_line(Config &cfg, std::string_view line, const std::string &path, int lineno)
{
    size_t eq = line.find('=');
    if (eq == std::string_view::npos) {
        config_error(path, lineno, "expected 'key = value'");
        return false;
    }
    std::string_view key = trim(line.substr(0, eq));
    std::string_view value = trim(line.substr(eq + 1));
    if (value.empty()) {
        config_error(path, lineno, "empty value for '" + std::string(key) + "'");
        return false;
    }
    if (key == "output") {
        cfg.output = std::string(value);
        return true;
    }
    if (key == "level") {
        auto level = parse_level(value);
        if (!level) {
            config_error(path, lineno, "unknown level '" + std::string(value) + "'");
            return false;
        }
        cfg.level = *level;
        return true;
    }
    config_error(path, lineno, "unknown key '" + std::string(key) + "'");
    return false;
}

// Reads the configuration; an absent file gives the defaults, an unusable one nothing.
std::optional<Config> read_config(const std::string &path)
{
    Config cfg;
    FILE *f = fopen(path.c_str(), "re");
    if (!f) {
        if (errno == ENOENT)
            return cfg;
        config_error(path, 0, strerror(errno));
        return std::nullopt;
    }
    std::unique_ptr<FILE, int (*)(FILE *)> holder(f, fclose);
    char *raw = nullptr;
    size_t cap = 0;
    ssize_t len;
    int lineno = 0;
    bool ok = true;
    while (ok && (len = getline(&raw, &cap, f)) >= 0) {
        ++lineno;
        std::string_view line(raw, static_cast<size_t>(len));
        if (!line.empty() && line.back() == '\n')
            line.remove_suffix(1);
        line = trim(line);
        if (line.empty() || line.front() == '#')
            continue;
        ok = apply_line(cfg, line, path, lineno);
    }
    free(raw);
    if (ok && ferror(f)) {
        config_error(path, lineno, strerror(errno));
        ok = false;
    }
    return ok ? std::optional<Config>(cfg) : std::nullopt;
}

void make_parent_dirs(const std::string &path)
{
    for (size_t pos = path.find('/', 1); pos != std::string::npos; pos = path.find('/', pos + 1))
        mkdir(path.substr(0, pos).c_str(), 0755);
}

bool open_output(kx_zlog_category &cat, const std::string &output, const char *module)
{
    using Output = kx_zlog_category::Output;
    if (output == "stderr") {
        cat.output = Output::stderr_stream;
        cat.fd = STDERR_FILENO;
        return true;
    }
    if (output == "syslog") {
        cat.output = Output::syslog;
        cat.ident = module;
        openlog(cat.ident.c_str(), LOG_PID | LOG_NDELAY, LOG_DAEMON);
        return true;
    }
    cat.output = Output::file;
    cat.fd = open(output.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (cat.fd < 0) {
        fprintf(stderr, "kx_zlog: cannot open %s: %s\n", output.c_str(), strerror(errno));
        return false;
    }
    return true;
}

bool valid_module(const char *module)
{
    return module && *module && *module != '.' && !strchr(module, '/');
}

// Appends `text` with control characters made visible, so one record stays one line.
void append_escaped(std::string &out, std::string_view text)
{
    static constexpr char hex[] = "0123456789abcdef";
    for (char c : text) {
        auto u = static_cast<unsigned char>(c);
        if (u >= 0x20 && u != 0x7f) {
            out += c;
            continue;
        }
        out += '\\';
        switch (c) {
        case '\n': out += 'n'; break;
        case '\r': out += 'r'; break;
        case '\t': out += 't'; break;
        default:
            out += 'x';
            out += hex[u >> 4];
            out += hex[u & 0xf];
        }
    }
}

// "2026-11-22 23:01:02.123456" in local time.
void append_time(std::string &out)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char buf[64];
    size_t len = strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &local);
    snprintf(buf + len, sizeof buf - len, ".%06ld", now.tv_nsec / 1000);
    out += buf;
}

std::string_view bounded(const char *s, size_t len)
{
    return s ? std::string_view(s, strnlen(s, len)) : std::string_view();
}

std::string vformat(const char *format, va_list ap)
{
    va_list measure;
    va_copy(measure, ap);
    int len = vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (len <= 0)
        return {};
    std::string text(static_cast<size_t>(len) + 1, '\0');
    vsnprintf(text.data(), text.size(), format, ap);
    text.resize(static_cast<size_t>(len));
    return text;
}

void write_all(int fd, std::string_view data)
{
    while (!data.empty()) {
        ssize_t n = write(fd, data.data(), data.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return; // a full disk or a closed stderr: the record is lost, the caller goes on
        data.remove_prefix(static_cast<size_t>(n));
    }
}

} // namespace

kx_zlog_category_t *kx_zlog_init(const char *module)
{
    if (!valid_module(module))
        return nullptr;
    std::string conf_path = kx_root_path("/etc/kx/");
    conf_path += module;
    conf_path += ".zlog";
    auto cfg = read_config(conf_path);
    if (!cfg)
        return nullptr;

    std::string output;
    if (const char *env = getenv("KX_LOG"); env && *env) {
        output = env;
    } else if (cfg->output) {
        output = *cfg->output;
    } else {
        output = kx_root_path("/var/log/");
        output += module;
        output += ".log";
        make_parent_dirs(output);
    }

    auto cat = std::make_unique<kx_zlog_category>();
    cat->level = cfg->level;
    if (!open_output(*cat, output, module))
        return nullptr;
    std::lock_guard lock(registry_mutex);
    registry.push_back(std::move(cat));
    return registry.back().get();
}

void kxdf_zlog(kx_zlog_category_t *category, const char *file, size_t filelen, const char *func,
               size_t funclen, long line, int level, const char *format, ...)
{
    if (!category || !format || level < category->level)
        return;
    va_list ap;
    va_start(ap, format);
    std::string message = vformat(format, ap);
    va_end(ap);
    if (!message.empty() && message.back() == '\n')
        message.pop_back();

    std::string record;
    record.reserve(96 + filelen + funclen + message.size());
    if (category->output != kx_zlog_category::Output::syslog) {
        append_time(record);
        record += ' ';
    }
    if (const Level *l = level_by_number(level))
        record += l->name;
    else
        record += std::to_string(level);
    record += " [" + std::to_string(getpid()) + ':';
    append_escaped(record, bounded(file, filelen));
    record += ':';
    append_escaped(record, bounded(func, funclen));
    record += ':' + std::to_string(line) + "] ";
    append_escaped(record, message);

    if (category->output == kx_zlog_category::Output::syslog) {
        const Level *l = level_by_number(level);
        syslog(l ? l->syslog_priority : LOG_INFO, "%s", record.c_str());
        return;
    }
    record += '\n';
    write_all(category->fd, record);
}

int at_snprintf(char *buf, size_t size, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    int len = vsnprintf(buf, size, format, ap);
    va_end(ap);
    return len;
}
