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
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <event2/event.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "kx_codec.h"
#include "kx_internal.h"

namespace {

constexpr size_t max_line = 4096;
constexpr size_t max_word = 255;
constexpr size_t max_name = 64;
constexpr size_t max_clients = 64;
constexpr timeval idle_timeout{5, 0};
constexpr timeval accept_pause{1, 0};

struct Format {
    std::string_view text;
    size_t arity;
};

constexpr Format formats[] = {{"void", 0}, {"%d", 1}, {"%s %d", 2}};

struct Command {
    std::string name;
    const Format *format;
    ssat_fn fn; // null for the shell's own `help`
    ssat_thunk thunk;
};

// Commands by module, in registration order (the order `help` lists them).
std::mutex commands_mutex;
std::map<std::string, std::vector<Command>, std::less<>> commands;

bool valid_command(const char *cmd)
{
    if (!cmd || !*cmd || strlen(cmd) > max_name)
        return false;
    return std::all_of(cmd, cmd + strlen(cmd), [](char c) { return c > ' ' && c < 0x7f; });
}

std::optional<Command> find_command(std::string_view module, std::string_view name)
{
    if (name == "help")
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
    return text + "help void\n";
}

// ---- parsing a request line -------------------------------------------------------

// The words of `line`, or nothing when it holds a byte that is not printable ASCII.
std::optional<std::vector<std::string_view>> split_words(std::string_view line)
{
    constexpr std::string_view blanks = " \t";
    if (std::any_of(line.begin(), line.end(), [](char c) { return (c < ' ' && c != '\t') || c >= 0x7f; }))
        return std::nullopt;
    std::vector<std::string_view> words;
    for (size_t pos = line.find_first_not_of(blanks); pos != std::string_view::npos;) {
        size_t end = line.find_first_of(blanks, pos);
        words.push_back(line.substr(pos, end - pos));
        pos = line.find_first_not_of(blanks, end);
    }
    return words;
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

std::string error_reply(std::string_view reason)
{
    return "ERR " + std::string(reason) + "\n";
}

std::string ok_reply(std::string_view output)
{
    return "OK " + std::to_string(output.size()) + "\n" + std::string(output);
}

// Runs the handler with standard output in a memory file, then reads that file back.
std::string run_handler(const Command &command, const ssat_args &args)
{
    // Above the standard descriptors, so that a closed stdout cannot be handed the memfd.
    FdHolder memfd(memfd_create("ssat-stdout", MFD_CLOEXEC));
    if (memfd.get() >= 0 && memfd.get() < 3)
        memfd.reset(fcntl(memfd.get(), F_DUPFD_CLOEXEC, 3));
    if (memfd.get() < 0)
        return error_reply(std::string("cannot capture output: ") + strerror(errno));
    {
        StdoutRedirect redirect(memfd.get());
        command.thunk(command.fn, &args);
    }
    struct stat st{};
    if (fstat(memfd.get(), &st) != 0)
        return error_reply(std::string("cannot read the command's output: ") + strerror(errno));
    std::string output(static_cast<size_t>(st.st_size), '\0');
    if (pread(memfd.get(), output.data(), output.size(), 0) != st.st_size)
        return error_reply(std::string("cannot read the command's output: ") + strerror(errno));
    return ok_reply(output);
}

// The reply to one request line: the handler's output, or why it did not run.
std::string execute(std::string_view module, std::string_view line)
{
    auto words = split_words(line);
    if (!words)
        return error_reply("line holds bytes that are not printable text");
    if (words->empty())
        return error_reply("empty command line");
    std::string name((*words)[0]);
    auto command = find_command(module, name);
    if (!command)
        return error_reply("unknown command '" + name + "' (try help)");
    const Format &format = *command->format;
    std::string usage = name + ": expected " +
                        (format.arity == 0 ? "no argument" : std::string(format.text)) + ", got ";
    size_t given = words->size() - 1;
    if (given != format.arity)
        return error_reply(usage + std::to_string(given) + " argument" + (given == 1 ? "" : "s"));
    std::string word;
    ssat_args args{"", 0};
    if (format.arity == 2) {
        word = (*words)[1];
        if (word.size() > max_word)
            return error_reply(usage + "a word longer than " + std::to_string(max_word) + " bytes");
        args.word = word.c_str();
    }
    if (format.arity > 0 && !kx::parse_int32(words->back(), &args.num))
        return error_reply(usage + "'" + std::string(words->back()) + "', not a 32-bit integer");
    return command->fn ? run_handler(*command, args) : ok_reply(help_text(module));
}

// ---- connections ---------------------------------------------------------------------

struct Listener;

struct Client {
    Listener *owner;
    int fd;
    event *on_read = nullptr;
    event *on_write = nullptr;
    event *on_timeout = nullptr;
    std::string line;  // the request so far
    std::string reply; // once known: never empty, every reply has a status line
    size_t sent = 0;

    Client(Listener *l, int client_fd) : owner(l), fd(client_fd) {}
    ~Client()
    {
        for (event *ev : {on_read, on_write, on_timeout})
            if (ev)
                event_free(ev);
        close(fd);
    }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;
};

struct Listener {
    event_base *base;
    std::string module;
    std::string path;
    int fd = -1;
    ino_t inode = 0;
    event *on_accept = nullptr;
    event *on_resume = nullptr;
    std::vector<std::unique_ptr<Client>> clients;

    Listener(event_base *b, std::string m) : base(b), module(std::move(m)) {}
    ~Listener();
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;
};

void drop(Client *c)
{
    std::erase_if(c->owner->clients, [c](const auto &p) { return p.get() == c; });
}

void try_send(Client *c)
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
        if (n <= 0) // gone (EPIPE, ECONNRESET): nothing more to do for it
            break;
        c->sent += static_cast<size_t>(n);
        evtimer_add(c->on_timeout, &idle_timeout); // progress: the client is reading
    }
    drop(c);
}

void start_reply(Client *c, std::string reply)
{
    event_del(c->on_read);
    c->reply = std::move(reply);
    evtimer_add(c->on_timeout, &idle_timeout);
    try_send(c);
}

void on_client_writable(evutil_socket_t, short, void *arg)
{
    try_send(static_cast<Client *>(arg));
}

void on_client_timeout(evutil_socket_t, short, void *arg)
{
    auto *c = static_cast<Client *>(arg);
    if (!c->reply.empty())
        drop(c); // it stopped reading its reply
    else
        start_reply(c, error_reply("no command line within 5 s"));
}

void on_client_readable(evutil_socket_t, short, void *arg)
{
    auto *c = static_cast<Client *>(arg);
    char buf[1024];
    ssize_t n = recv(c->fd, buf, sizeof buf, 0);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return;
    if (n <= 0) // gone before its line was complete: nothing runs
        return drop(c);
    size_t scanned = c->line.size();
    c->line.append(buf, static_cast<size_t>(n));
    size_t eol = std::min(c->line.find('\n', scanned), c->line.size());
    if (eol > max_line)
        return start_reply(c, error_reply("line longer than 4096 bytes"));
    if (eol < c->line.size())
        start_reply(c, execute(c->owner->module, std::string_view(c->line).substr(0, eol)));
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

void add_client(Listener *l, int fd)
{
    if (!peer_allowed(fd))
        return refuse(fd, "permission denied");
    if (l->clients.size() >= max_clients)
        return refuse(fd, "too many clients, try again");
    auto c = std::make_unique<Client>(l, fd);
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
    auto *l = static_cast<Listener *>(arg);
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
    event_add(static_cast<Listener *>(arg)->on_accept, nullptr);
}

Listener::~Listener()
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

// ---- the listening socket ------------------------------------------------------------

int32_t fail(const std::string &what, int err)
{
    fprintf(stderr, "ssat: %s: %s\n", what.c_str(), strerror(err));
    return SSAT_ESOCKET;
}

// The socket directory, private to the daemon's user.
int32_t prepare_dir(const std::string &dir)
{
    kx::make_parent_dirs(dir);
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

int32_t open_listener(Listener &l)
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

// One listener per module served from this handle.
struct kx::ssat_state {
    std::vector<std::unique_ptr<Listener>> listeners;
};

void kx::ssat_release(kx_global_t *global)
{
    if (!global)
        return;
    delete global->ssat;
    global->ssat = nullptr;
}

int32_t ssat_lib_init(kx_global_t *global, const char *module)
{
    if (!global || !global->base || !ssat_valid_module(module))
        return SSAT_EINVAL;
    if (!global->ssat)
        global->ssat = new kx::ssat_state;
    auto &listeners = global->ssat->listeners;
    for (const auto &l : listeners)
        if (l->module == module)
            return 0;
    auto l = std::make_unique<Listener>(global->base, module);
    if (int32_t rc = open_listener(*l); rc != 0)
        return rc;
    listeners.push_back(std::move(l));
    return 0;
}

int32_t ssat_reg_mod_cmd_impl(const char *module, const char *cmd, uint32_t flags,
                              const char *format, ssat_fn fn, ssat_thunk thunk, int arity)
{
    (void)flags; // no flags are defined
    if (!ssat_valid_module(module) || !valid_command(cmd) || !format || !fn || !thunk)
        return SSAT_EINVAL;
    auto info = std::find_if(std::begin(formats), std::end(formats),
                             [format](const Format &f) { return f.text == format; });
    if (info == std::end(formats) || info->arity != static_cast<size_t>(arity))
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
