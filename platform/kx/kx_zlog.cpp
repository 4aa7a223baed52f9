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
//
// Under systemd, standard error is usually a stream to the journal, which then names
// it in JOURNAL_STREAM ("<device>:<inode>"). Records to standard error begin with their
// syslog priority there ("<4>WARN [...") and leave the time to the journal, so that
// `journalctl -p warning` selects by the record's level. Unlike output = syslog, a
// stream is attributed to its unit even for the last lines of a process that exits.
#include "kx_zlog.h"

#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "kx_internal.h"
#include "ssat.h"

struct kx_zlog_category {
    enum class Output { file, stderr_stream, syslog };
    Output output = Output::file;
    bool journal = false; // standard error is the journal's stream: priority prefixes
    int fd = -1;
    std::string path; // of a file output, to open it again on SIGHUP
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
    {KX_ZLOG_LEVEL_DEBUG, "DEBUG", LOG_DEBUG},    {KX_ZLOG_LEVEL_INFO, "INFO", LOG_INFO},
    {KX_ZLOG_LEVEL_NOTICE, "NOTICE", LOG_NOTICE}, {KX_ZLOG_LEVEL_WARN, "WARN", LOG_WARNING},
    {KX_ZLOG_LEVEL_ERROR, "ERROR", LOG_ERR},      {KX_ZLOG_LEVEL_FATAL, "FATAL", LOG_CRIT},
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
// keeps them reachable for leak checkers. Like all of libkx, used from one thread.
std::vector<std::unique_ptr<kx_zlog_category>> registry;
kx_zlog_category *libkx_sink = nullptr; // see kx::log_sink
// libkx's own lines are written from this level on: the configuration's, else NOTICE
// (a lost or regained connection, a refusal, a record that does not decode).
int libkx_level = KX_ZLOG_LEVEL_NOTICE;

struct Config {
    std::optional<std::string> output;
    std::optional<int> level; // else every record the process makes is written
};

std::string_view trim(std::string_view s)
{
    constexpr std::string_view blanks = " \t\r\n";
    size_t first = s.find_first_not_of(blanks);
    if (first == std::string_view::npos)
        return {};
    return s.substr(first, s.find_last_not_of(blanks) - first + 1);
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

// Applies one `key = value` line; the reason when it is not one.
std::string apply_line(Config &cfg, std::string_view line)
{
    size_t eq = line.find('=');
    if (eq == std::string_view::npos)
        return "expected 'key = value'";
    std::string key(trim(line.substr(0, eq)));
    std::string value(trim(line.substr(eq + 1)));
    if (value.empty())
        return "empty value for '" + key + "'";
    if (key == "output") {
        cfg.output = value;
        return {};
    }
    if (key != "level")
        return "unknown key '" + key + "'";
    auto level = parse_level(value);
    if (!level)
        return "unknown level '" + value + "'";
    cfg.level = *level;
    return {};
}

// Reads the configuration; an absent file gives the defaults, an unusable one nothing.
std::optional<Config> read_config(const std::string &path)
{
    Config cfg;
    std::unique_ptr<FILE, int (*)(FILE *)> f(fopen(path.c_str(), "re"), fclose);
    if (!f && errno == ENOENT)
        return cfg;
    std::string error = f ? "" : strerror(errno);
    char *raw = nullptr;
    size_t cap = 0;
    ssize_t len;
    int lineno = 0;
    while (error.empty() && (len = getline(&raw, &cap, f.get())) >= 0) {
        ++lineno;
        std::string_view line = trim(std::string_view(raw, static_cast<size_t>(len)));
        if (!line.empty() && line.front() != '#')
            error = apply_line(cfg, line);
    }
    free(raw);
    if (error.empty() && ferror(f.get()))
        error = strerror(errno);
    if (error.empty())
        return cfg;
    std::string where = lineno ? path + ":" + std::to_string(lineno) : path;
    fprintf(stderr, "kx_zlog: %s: %s\n", where.c_str(), error.c_str());
    return std::nullopt;
}

// Appends only: see the top of the file.
int open_file(const std::string &path)
{
    return open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
}

// Whether standard error is the stream that JOURNAL_STREAM names (see the top).
bool stderr_is_journal()
{
    const char *named = getenv("JOURNAL_STREAM");
    struct stat st {};
    if (!named || fstat(STDERR_FILENO, &st) != 0)
        return false;
    return named == std::to_string(st.st_dev) + ':' + std::to_string(st.st_ino);
}

bool open_output(kx_zlog_category &cat, const std::string &output, const char *module)
{
    using Output = kx_zlog_category::Output;
    if (output == "stderr") {
        cat.output = Output::stderr_stream;
        cat.journal = stderr_is_journal();
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
    cat.path = output;
    cat.fd = open_file(output);
    if (cat.fd < 0) {
        fprintf(stderr, "kx_zlog: cannot open %s: %s\n", output.c_str(), strerror(errno));
        return false;
    }
    return true;
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
        case '\n':
            out += 'n';
            break;
        case '\r':
            out += 'r';
            break;
        case '\t':
            out += 't';
            break;
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

} // namespace

kx_zlog_category_t *kx_zlog_init(const char *module)
{
    if (!ssat_valid_module(module))
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
        kx::make_parent_dirs(output);
    }

    auto cat = std::make_unique<kx_zlog_category>();
    cat->level = cfg->level.value_or(KX_ZLOG_LEVEL_DEBUG);
    if (!open_output(*cat, output, module))
        return nullptr;
    if (!libkx_sink) {
        libkx_sink = cat.get();
        libkx_level = cfg->level.value_or(KX_ZLOG_LEVEL_NOTICE);
    }
    registry.push_back(std::move(cat));
    return registry.back().get();
}

void kx::zlog_reopen()
{
    for (const auto &cat : registry) {
        if (cat->output != kx_zlog_category::Output::file)
            continue;
        int fd = open_file(cat->path);
        if (fd < 0) // records go on to the old file, wherever it is now
            fprintf(stderr, "kx_zlog: cannot reopen %s: %s\n", cat->path.c_str(), strerror(errno));
        else
            close(std::exchange(cat->fd, fd));
    }
}

kx_zlog_category_t *kx::log_sink() { return libkx_sink; }

void kx::log_at(int level, const char *func, int line, const char *fmt, ...)
{
    static constexpr std::string_view unit = "platform/kx";
    if (libkx_sink && level < libkx_level)
        return;
    char text[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    if (libkx_sink) {
        kxdf_zlog(libkx_sink, unit.data(), unit.size(), func, strlen(func), line, level, "%s",
                  text);
        return;
    }
    // A process without a log (a tool) says it on standard error, in one write.
    std::string plain = std::string("kx_mom: ") + text + "\n";
    fputs(plain.c_str(), stderr);
    fflush(stderr);
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

    const Level *named = level_by_number(level);
    const int priority = named ? named->syslog_priority : LOG_INFO;
    std::string record;
    record.reserve(96 + filelen + funclen + message.size());
    if (category->journal) {
        record += '<' + std::to_string(priority) + '>';
    } else if (category->output != kx_zlog_category::Output::syslog) {
        append_time(record);
        record += ' ';
    }
    record += named ? std::string(named->name) : std::to_string(level);
    record += " [" + std::to_string(getpid()) + ':';
    append_escaped(record, bounded(file, filelen));
    record += ':';
    append_escaped(record, bounded(func, funclen));
    record += ':' + std::to_string(line) + "] ";
    append_escaped(record, message);

    if (category->output == kx_zlog_category::Output::syslog) {
        syslog(priority, "%s", record.c_str());
        return;
    }
    record += '\n';
    // A full disk or a closed stderr loses the record; the caller goes on.
    (void)kx_write_all(category->fd, record);
}

int at_snprintf(char *buf, size_t size, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    int len = vsnprintf(buf, size, format, ap);
    va_end(ap);
    return len;
}
