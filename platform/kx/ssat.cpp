// ssat: the debug shell's server side.
//
// Wire protocol, one command per connection on <KX_ROOT>/var/run/ssat/<module>.sock:
//
//   client -> server   one line "command [arg ...]\n": printable ASCII, words separated
//                      by blanks (spaces or tabs), at most 4096 bytes before the line
//                      feed. Anything after the line feed is ignored.
//   server -> client   either "OK <n>\n" followed by exactly n bytes, everything the
//                      handler wrote to standard output,
//                      or "ERR <reason>\n" when the command did not run (unknown
//                      command, bad arguments, bad line, idle client, refused peer,
//                      too many clients).
//   Then the server closes the connection. The byte count lets a client tell a
//   complete reply from one cut short by a dying daemon.
//
// Everything runs on the loop of the handle: accepting, reading, the handler itself
// (one at a time with the store callbacks) and the reply, which is written without
// blocking so that a client that stops reading never holds the loop. A client gets
// 5 s to send its line and 5 s per stalled write of its reply.
#include "ssat.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include <event2/event.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "kx_internal.h"

namespace {

constexpr size_t max_line = 4096;
constexpr size_t max_word = 255;
constexpr size_t max_name = 64;
constexpr size_t max_clients = 64;
constexpr timeval idle_timeout{5, 0};
constexpr timeval accept_pause{1, 0};

enum class Format { none, num, word_num };

struct FormatInfo {
    Format format;
    std::string_view text;
    int arity;
};

constexpr FormatInfo formats[] = {
    {Format::none, "void", 0},
    {Format::num, "%d", 1},
    {Format::word_num, "%s %d", 2},
};

struct Command {
    std::string name;
    const FormatInfo *format;
    ssat_fn fn;
    ssat_thunk thunk;
};

// Commands by module, in registration order (the order `help` lists them).
std::mutex commands_mutex;
std::map<std::string, std::vector<Command>, std::less<>> commands;

bool valid_module(const char *module)
{
    if (!module || !*module || *module == '.' || strlen(module) > max_name)
        return false;
    return std::all_of(module, module + strlen(module), [](char c) {
        return isalnum(static_cast<unsigned char>(c)) || strchr("_.-", c);
    });
}

bool valid_command(const char *cmd)
{
    if (!cmd || !*cmd || strlen(cmd) > max_name)
        return false;
    return std::all_of(cmd, cmd + strlen(cmd), [](char c) { return c > ' ' && c < 0x7f; });
}

const FormatInfo *find_format(std::string_view text)
{
    for (const auto &f : formats)
        if (f.text == text)
            return &f;
    return nullptr;
}

std::optional<Command> find_command(std::string_view module, std::string_view name)
{
    if (name == "help") // the shell's own: listed by execute, never a handler
        return Command{"help", &formats[0], nullptr, nullptr};
    std::lock_guard lock(commands_mutex);
    auto it = commands.find(module);
    if (it == commands.end())
        return std::nullopt;
    for (const auto &c : it->second)
        if (c.name == name)
            return c;
    return std::nullopt;
}

std::string help_text(std::string_view module)
{
    std::string text;
    std::lock_guard lock(commands_mutex);
    if (auto it = commands.find(module); it != commands.end())
        for (const auto &c : it->second)
            text += c.name + " " + std::string(c.format->text) + "\n";
    text += "help void\n";
    return text;
}

// ---- parsing a request line -------------------------------------------------------

bool is_blank(char c)
{
    return c == ' ' || c == '\t';
}

// The words of `line`, or nothing when it holds a byte that is not printable ASCII.
std::optional<std::vector<std::string_view>> split_words(std::string_view line)
{
    std::vector<std::string_view> words;
    size_t start = std::string_view::npos;
    for (size_t i = 0; i <= line.size(); ++i) {
        bool end = i == line.size() || is_blank(line[i]);
        if (!end && (line[i] < ' ' || line[i] >= 0x7f))
            return std::nullopt;
        if (end && start != std::string_view::npos) {
            words.push_back(line.substr(start, i - start));
            start = std::string_view::npos;
        } else if (!end && start == std::string_view::npos) {
            start = i;
        }
    }
    return words;
}

// A whole decimal signed 32-bit integer: optional sign, digits, nothing else.
std::optional<int32_t> parse_int32(std::string_view text)
{
    bool plus = !text.empty() && text.front() == '+';
    if (plus)
        text.remove_prefix(1);
    if (text.empty() ||
        !(isdigit(static_cast<unsigned char>(text.front())) || (!plus && text.front() == '-')))
        return std::nullopt;
    int32_t value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

struct Call {
    Command command;
    std::string word;
    int32_t num = 0;
};

// The call a line asks for, or the reason it cannot be made.
std::variant<Call, std::string> parse_request(std::string_view module, std::string_view line)
{
    auto words = split_words(line);
    if (!words)
        return std::string("line holds bytes that are not printable text");
    if (words->empty())
        return std::string("empty command line");
    std::string name((*words)[0]);
    auto command = find_command(module, name);
    if (!command)
        return "unknown command '" + name + "' (try help)";
    const FormatInfo &format = *command->format;
    std::string usage = name + ": expected " +
                        (format.format == Format::none ? "no argument" : std::string(format.text));
    size_t given = words->size() - 1;
    if (given != static_cast<size_t>(format.arity))
        return usage + ", got " + std::to_string(given) + " argument" + (given == 1 ? "" : "s");

    Call call{*command, {}, 0};
    if (format.format == Format::none)
        return call;
    std::string_view num_text = words->back();
    if (format.format == Format::word_num) {
        std::string_view word = (*words)[1];
        if (word.size() > max_word)
            return usage + ", got a word longer than " + std::to_string(max_word) + " bytes";
        call.word = word;
    }
    auto num = parse_int32(num_text);
    if (!num)
        return usage + ", got '" + std::string(num_text) + "', not a 32-bit integer";
    call.num = *num;
    return call;
}

// ---- running a handler with standard output captured ---------------------------------

class FdHolder {
public:
    explicit FdHolder(int fd = -1) : fd_(fd) {}
    ~FdHolder() { reset(); }
    FdHolder(const FdHolder &) = delete;
    FdHolder &operator=(const FdHolder &) = delete;
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1)
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = fd;
    }

private:
    int fd_;
};

// Points descriptor 1 at `target` for its lifetime; the handler may move descriptor 1
// itself meanwhile (a dump to a file does) as long as it puts it back.
class StdoutRedirect {
public:
    explicit StdoutRedirect(int target)
    {
        fflush(stdout);
        saved_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3); // -1 when stdout was closed
        dup2(target, STDOUT_FILENO);
    }
    ~StdoutRedirect()
    {
        fflush(stdout);
        if (saved_ >= 0) {
            dup2(saved_, STDOUT_FILENO);
            close(saved_);
        } else {
            close(STDOUT_FILENO);
        }
    }
    StdoutRedirect(const StdoutRedirect &) = delete;
    StdoutRedirect &operator=(const StdoutRedirect &) = delete;

private:
    int saved_;
};

std::optional<std::string> read_all(int fd)
{
    struct stat st{};
    if (fstat(fd, &st) != 0)
        return std::nullopt;
    std::string data(static_cast<size_t>(st.st_size), '\0');
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = pread(fd, data.data() + done, data.size() - done, static_cast<off_t>(done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return std::nullopt;
        done += static_cast<size_t>(n);
    }
    return data;
}

std::string error_reply(std::string_view reason)
{
    return "ERR " + std::string(reason) + "\n";
}

std::string ok_reply(std::string_view output)
{
    return "OK " + std::to_string(output.size()) + "\n" + std::string(output);
}

std::string run_call(const Call &call)
{
    // Above the standard descriptors, so that a closed stdout cannot be handed the memfd.
    FdHolder memfd(memfd_create("ssat-stdout", MFD_CLOEXEC));
    if (memfd.get() >= 0 && memfd.get() < 3)
        memfd.reset(fcntl(memfd.get(), F_DUPFD_CLOEXEC, 3));
    if (memfd.get() < 0)
        return error_reply(std::string("cannot capture output: ") + strerror(errno));
    ssat_args args{call.word.c_str(), call.num};
    {
        StdoutRedirect redirect(memfd.get());
        call.command.thunk(call.command.fn, &args);
    }
    auto output = read_all(memfd.get());
    if (!output)
        return error_reply(std::string("cannot read the command's output: ") + strerror(errno));
    return ok_reply(*output);
}

std::string execute(std::string_view module, std::string_view line)
{
    auto request = parse_request(module, line);
    if (auto *reason = std::get_if<std::string>(&request))
        return error_reply(*reason);
    const Call &call = std::get<Call>(request);
    if (call.command.name == "help")
        return ok_reply(help_text(module));
    return run_call(call);
}

} // namespace

// ---- connections ---------------------------------------------------------------------

namespace kx {

struct ssat_listener;

struct ssat_client {
    ssat_listener *owner;
    int fd;
    event *on_read = nullptr;
    event *on_write = nullptr;
    event *on_timeout = nullptr;
    std::string line;  // the request so far
    std::string reply; // once known
    size_t sent = 0;
    bool replying = false;

    ssat_client(ssat_listener *l, int client_fd) : owner(l), fd(client_fd) {}
    ~ssat_client()
    {
        for (event *ev : {on_read, on_write, on_timeout})
            if (ev)
                event_free(ev);
        close(fd);
    }
    ssat_client(const ssat_client &) = delete;
    ssat_client &operator=(const ssat_client &) = delete;
};

struct ssat_listener {
    event_base *base;
    std::string module;
    std::string path;
    int fd = -1;
    ino_t inode = 0;
    event *on_accept = nullptr;
    event *on_resume = nullptr;
    std::vector<std::unique_ptr<ssat_client>> clients;

    ssat_listener(event_base *b, std::string m) : base(b), module(std::move(m)) {}
    ~ssat_listener();
    ssat_listener(const ssat_listener &) = delete;
    ssat_listener &operator=(const ssat_listener &) = delete;
};

struct ssat_state {
    std::vector<std::unique_ptr<ssat_listener>> listeners;
};

} // namespace kx

namespace {

using kx::ssat_client;
using kx::ssat_listener;

void drop(ssat_client *c)
{
    auto &clients = c->owner->clients;
    std::erase_if(clients, [c](const auto &p) { return p.get() == c; });
}

void try_send(ssat_client *c)
{
    while (c->sent < c->reply.size()) {
        ssize_t n = send(c->fd, c->reply.data() + c->sent, c->reply.size() - c->sent,
                         MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            event_add(c->on_write, nullptr);
            return;
        }
        if (n <= 0) { // gone (EPIPE, ECONNRESET): nothing more to do for it
            drop(c);
            return;
        }
        c->sent += static_cast<size_t>(n);
        evtimer_add(c->on_timeout, &idle_timeout); // progress: the client is reading
    }
    drop(c);
}

void start_reply(ssat_client *c, std::string reply)
{
    event_del(c->on_read);
    c->replying = true;
    c->reply = std::move(reply);
    evtimer_add(c->on_timeout, &idle_timeout);
    try_send(c);
}

void on_client_writable(evutil_socket_t, short, void *arg)
{
    try_send(static_cast<ssat_client *>(arg));
}

void on_client_timeout(evutil_socket_t, short, void *arg)
{
    auto *c = static_cast<ssat_client *>(arg);
    if (c->replying)
        drop(c); // it stopped reading its reply
    else
        start_reply(c, error_reply("no command line within 5 s"));
}

void on_client_readable(evutil_socket_t, short, void *arg)
{
    auto *c = static_cast<ssat_client *>(arg);
    char buf[1024];
    ssize_t n = recv(c->fd, buf, sizeof buf, 0);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return;
    if (n <= 0) { // gone before its line was complete: nothing runs
        drop(c);
        return;
    }
    size_t scanned = c->line.size();
    c->line.append(buf, static_cast<size_t>(n));
    size_t eol = c->line.find('\n', scanned);
    if (eol == std::string::npos ? c->line.size() > max_line : eol > max_line) {
        start_reply(c, error_reply("line longer than 4096 bytes"));
        return;
    }
    if (eol == std::string::npos)
        return;
    c->line.resize(eol);
    start_reply(c, execute(c->owner->module, c->line));
}

// Refuses a connection with one line; the socket is fresh, so the line fits its buffer.
void refuse(int fd, std::string_view reason)
{
    std::string reply = error_reply(reason);
    (void)!send(fd, reply.data(), reply.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    close(fd);
}

bool peer_allowed(int fd)
{
    ucred cred{};
    socklen_t len = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0)
        return false;
    return cred.uid == 0 || cred.uid == geteuid();
}

void add_client(ssat_listener *l, int fd)
{
    if (!peer_allowed(fd))
        return refuse(fd, "permission denied");
    if (l->clients.size() >= max_clients)
        return refuse(fd, "too many clients, try again");
    auto c = std::make_unique<ssat_client>(l, fd);
    c->on_read = event_new(l->base, fd, EV_READ | EV_PERSIST, on_client_readable, c.get());
    c->on_write = event_new(l->base, fd, EV_WRITE, on_client_writable, c.get());
    c->on_timeout = evtimer_new(l->base, on_client_timeout, c.get());
    if (!c->on_read || !c->on_write || !c->on_timeout || event_add(c->on_read, nullptr) != 0 ||
        evtimer_add(c->on_timeout, &idle_timeout) != 0)
        return; // c closes the descriptor
    l->clients.push_back(std::move(c));
}

void on_accept(evutil_socket_t, short, void *arg)
{
    auto *l = static_cast<ssat_listener *>(arg);
    for (;;) {
        int fd = accept4(l->fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0) {
            add_client(l, fd);
            continue;
        }
        if (errno == EINTR || errno == ECONNABORTED)
            continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            // Out of descriptors or memory: the pending connection would wake the loop
            // again at once, so stop accepting for a while instead of spinning.
            event_del(l->on_accept);
            evtimer_add(l->on_resume, &accept_pause);
        }
        return;
    }
}

void on_resume(evutil_socket_t, short, void *arg)
{
    auto *l = static_cast<ssat_listener *>(arg);
    event_add(l->on_accept, nullptr);
}

// ---- the listening socket ------------------------------------------------------------

int32_t fail(const std::string &what, int err)
{
    fprintf(stderr, "ssat: %s: %s\n", what.c_str(), strerror(err));
    return SSAT_ESOCKET;
}

void make_parent_dirs(const std::string &path)
{
    for (size_t pos = path.find('/', 1); pos != std::string::npos; pos = path.find('/', pos + 1))
        mkdir(path.substr(0, pos).c_str(), 0755);
}

// The socket directory, private to the daemon's user.
int32_t prepare_dir(const std::string &dir)
{
    make_parent_dirs(dir);
    if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST)
        return fail(dir, errno);
    struct stat st{};
    if (lstat(dir.c_str(), &st) != 0)
        return fail(dir, errno);
    if (!S_ISDIR(st.st_mode))
        return fail(dir, ENOTDIR);
    if ((st.st_mode & 07777) != 0700 && chmod(dir.c_str(), 0700) != 0)
        return fail(dir, errno);
    return 0;
}

sockaddr_un socket_address(const std::string &path)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    return addr;
}

// True when a process accepts connections on `path`.
bool someone_listens(const std::string &path)
{
    FdHolder probe(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (probe.get() < 0)
        return false;
    sockaddr_un addr = socket_address(path);
    if (connect(probe.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0)
        return true;
    return errno == EAGAIN; // a full backlog still means a live listener
}

// Removes a socket file no one answers on; a live one or a non-socket is left alone.
int32_t clear_stale(const std::string &path)
{
    struct stat st{};
    if (lstat(path.c_str(), &st) != 0)
        return errno == ENOENT ? 0 : fail(path, errno);
    if (!S_ISSOCK(st.st_mode))
        return fail(path + " exists and is not a socket", EEXIST);
    if (someone_listens(path))
        return fail(path + " is answered by another process", EADDRINUSE);
    if (unlink(path.c_str()) != 0 && errno != ENOENT)
        return fail(path, errno);
    return 0;
}

int32_t open_listener(ssat_listener &l)
{
    std::string dir = kx_root_path("/var/run/ssat");
    l.path = dir + "/" + l.module + ".sock";
    if (l.path.size() >= sizeof(sockaddr_un::sun_path))
        return fail(l.path, ENAMETOOLONG);
    if (int32_t rc = prepare_dir(dir); rc != 0)
        return rc;
    if (int32_t rc = clear_stale(l.path); rc != 0)
        return rc;

    FdHolder fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (fd.get() < 0)
        return fail("socket", errno);
    sockaddr_un addr = socket_address(l.path);
    if (bind(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0)
        return fail(l.path, errno);
    struct stat st{};
    if (chmod(l.path.c_str(), 0600) != 0 || lstat(l.path.c_str(), &st) != 0 ||
        listen(fd.get(), 16) != 0) {
        int err = errno;
        unlink(l.path.c_str());
        return fail(l.path, err);
    }
    l.on_accept = event_new(l.base, fd.get(), EV_READ | EV_PERSIST, on_accept, &l);
    l.on_resume = evtimer_new(l.base, on_resume, &l);
    if (!l.on_accept || !l.on_resume || event_add(l.on_accept, nullptr) != 0) {
        unlink(l.path.c_str());
        return fail("event", ENOMEM);
    }
    l.inode = st.st_ino;
    l.fd = fd.release();
    return 0;
}

} // namespace

kx::ssat_listener::~ssat_listener()
{
    clients.clear();
    for (event *ev : {on_accept, on_resume})
        if (ev)
            event_free(ev);
    if (fd < 0)
        return;
    close(fd);
    // Only our own socket: never one that replaced it in the meantime.
    struct stat st{};
    if (lstat(path.c_str(), &st) == 0 && st.st_ino == inode)
        unlink(path.c_str());
    std::lock_guard lock(commands_mutex);
    commands.erase(module);
}

void kx::ssat_release(kx_global_t *global)
{
    if (!global)
        return;
    delete global->ssat;
    global->ssat = nullptr;
}

int32_t ssat_lib_init(kx_global_t *global, const char *module)
{
    if (!global || !global->base || !valid_module(module))
        return SSAT_EINVAL;
    if (!global->ssat)
        global->ssat = new kx::ssat_state;
    auto &listeners = global->ssat->listeners;
    for (const auto &l : listeners)
        if (l->module == module)
            return 0;
    auto l = std::make_unique<ssat_listener>(global->base, module);
    if (int32_t rc = open_listener(*l); rc != 0)
        return rc;
    listeners.push_back(std::move(l));
    return 0;
}

int32_t ssat_reg_mod_cmd_impl(const char *module, const char *cmd, uint32_t flags,
                              const char *format, ssat_fn fn, ssat_thunk thunk, int arity)
{
    (void)flags; // no flags are defined
    if (!valid_module(module) || !valid_command(cmd) || !format || !fn || !thunk)
        return SSAT_EINVAL;
    const FormatInfo *info = find_format(format);
    if (!info || info->arity != arity)
        return SSAT_EINVAL;
    if (strcmp(cmd, "help") == 0)
        return SSAT_EEXIST;
    std::lock_guard lock(commands_mutex);
    auto &list = commands[module];
    if (std::any_of(list.begin(), list.end(), [cmd](const Command &c) { return c.name == cmd; }))
        return SSAT_EEXIST;
    list.push_back(Command{cmd, info, fn, thunk});
    return 0;
}
