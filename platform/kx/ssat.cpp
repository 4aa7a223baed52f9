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
// (one at a time with the store callbacks) and the reply, which a bufferevent writes
// as the client reads it, so that a client that stops reading never holds the loop.
// A client idle for 5 s, before its line or during its reply, is dropped.
#include "ssat.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>
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

using BufferEvent = std::unique_ptr<bufferevent, FreeWith<bufferevent_free>>;
using ConnListener = std::unique_ptr<evconnlistener, FreeWith<evconnlistener_free>>;
using Event = std::unique_ptr<event, FreeWith<event_free>>;
using FileSegment = std::unique_ptr<evbuffer_file_segment, FreeWith<evbuffer_file_segment_free>>;

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

// Commands by module, in registration order (the order `help` lists them). Like all
// of libkx it is used from the loop's thread only (commands are registered before the
// loop runs), so it takes no lock.
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
    if (std::any_of(line.begin(), line.end(),
                    [](char c) { return (c < ' ' && c != '\t') || c >= 0x7f; }))
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

void reply_error(evbuffer *out, std::string_view reason)
{
    evbuffer_add_printf(out, "ERR %.*s\n", static_cast<int>(reason.size()), reason.data());
}

void reply_ok(evbuffer *out, std::string_view output)
{
    evbuffer_add_printf(out, "OK %zu\n", output.size());
    evbuffer_add(out, output.data(), output.size());
}

std::string reason(const char *what) { return std::string(what) + ": " + strerror(errno); }

// Runs the handler with standard output in a memory file, then queues the file itself
// on `out`: the bytes go from it to the socket as the client reads them.
void run_handler(const Command &command, const ssat_args &args, evbuffer *out)
{
    // Above the standard descriptors, so that a closed stdout cannot be handed the memfd.
    kx::FdHolder memfd(memfd_create("ssat-stdout", MFD_CLOEXEC));
    if (memfd.get() >= 0 && memfd.get() < 3)
        memfd.reset(fcntl(memfd.get(), F_DUPFD_CLOEXEC, 3));
    if (memfd.get() < 0)
        return reply_error(out, reason("cannot capture output"));
    {
        ssat_stdout_to redirect(memfd.get());
        command.thunk(command.fn, &args);
    }
    struct stat st {};
    if (fstat(memfd.get(), &st) != 0)
        return reply_error(out, reason("cannot read the command's output"));
    FileSegment output;
    if (st.st_size > 0) {
        output.reset(evbuffer_file_segment_new(memfd.get(), 0, st.st_size, EVBUF_FS_CLOSE_ON_FREE));
        if (!output)
            return reply_error(out, reason("cannot queue the command's output"));
        memfd.release(); // the segment closes it
    }
    evbuffer_add_printf(out, "OK %lld\n", static_cast<long long>(st.st_size));
    if (output) // the buffer takes its own reference
        evbuffer_add_file_segment(out, output.get(), 0, st.st_size);
}

// Queues the reply to one request line: the handler's output, or why it did not run.
void execute(std::string_view module, std::string_view line, evbuffer *out)
{
    auto words = split_words(line);
    if (!words)
        return reply_error(out, "line holds bytes that are not printable text");
    if (words->empty())
        return reply_error(out, "empty command line");
    std::string name((*words)[0]);
    auto command = find_command(module, name);
    if (!command)
        return reply_error(out, "unknown command '" + name + "' (try help)");
    const Format &format = *command->format;
    std::string usage = name + ": expected " +
                        (format.arity == 0 ? "no argument" : std::string(format.text)) + ", got ";
    size_t given = words->size() - 1;
    if (given != format.arity)
        return reply_error(out,
                           usage + std::to_string(given) + " argument" + (given == 1 ? "" : "s"));
    std::string word;
    ssat_args args{"", 0};
    if (format.arity == 2) {
        word = (*words)[1];
        if (word.size() > max_word)
            return reply_error(out,
                               usage + "a word longer than " + std::to_string(max_word) + " bytes");
        args.word = word.c_str();
    }
    std::optional<int32_t> num = format.arity > 0 ? kx::parse_int32(words->back()) : 0;
    if (!num)
        return reply_error(out,
                           usage + "'" + std::string(words->back()) + "', not a 32-bit integer");
    args.num = *num;
    if (command->fn)
        run_handler(*command, args, out);
    else
        reply_ok(out, help_text(module));
}

// ---- connections ---------------------------------------------------------------------

struct Listener;

struct Client {
    Listener *owner;
    BufferEvent bev;
};

struct Listener {
    event_base *base;
    std::string module;
    std::string path;
    ino_t inode = 0;
    ConnListener listener;
    Event resume;
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

// Answers the request line once it is complete; then reads no more, and on_flushed
// closes the connection once the reply is written.
void on_request(bufferevent *bev, void *arg)
{
    auto *c = static_cast<Client *>(arg);
    evbuffer *in = bufferevent_get_input(bev);
    size_t len = 0;
    std::unique_ptr<char, FreeWith<free>> line(evbuffer_readln(in, &len, EVBUFFER_EOL_LF));
    if (line && len <= max_line)
        execute(c->owner->module, std::string_view(line.get(), len), bufferevent_get_output(bev));
    else if (line || evbuffer_get_length(in) > max_line)
        reply_error(bufferevent_get_output(bev), "line longer than 4096 bytes");
    else
        return; // the line is not complete yet
    bufferevent_disable(bev, EV_READ);
}

void on_flushed(bufferevent *, void *arg) { drop(static_cast<Client *>(arg)); }

void on_event(bufferevent *bev, short what, void *arg)
{
    auto *c = static_cast<Client *>(arg);
    if (what == (BEV_EVENT_READING | BEV_EVENT_TIMEOUT)) // libevent stopped reading
        return reply_error(bufferevent_get_output(bev), "no command line within 5 s");
    // Gone before its line was complete (nothing runs), or stalled or gone during its
    // reply: nothing more to do for it.
    drop(c);
}

// Refuses a connection with one line; the socket is fresh, so the line fits its buffer.
void refuse(int fd, std::string_view why)
{
    std::string reply = "ERR " + std::string(why) + "\n";
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

void on_accept(evconnlistener *, evutil_socket_t fd, sockaddr *, int, void *arg)
{
    auto *l = static_cast<Listener *>(arg);
    if (!peer_allowed(fd))
        return refuse(fd, "permission denied");
    if (l->clients.size() >= max_clients)
        return refuse(fd, "too many clients, try again");
    BufferEvent bev(bufferevent_socket_new(l->base, fd, BEV_OPT_CLOSE_ON_FREE));
    if (!bev)
        return (void)close(fd);
    auto c = std::make_unique<Client>(Client{l, std::move(bev)});
    bufferevent_setcb(c->bev.get(), on_request, on_flushed, on_event, c.get());
    // Reading stops once the buffer holds more than a line may: memory stays bounded.
    bufferevent_setwatermark(c->bev.get(), EV_READ, 0, max_line + 1);
    bufferevent_set_timeouts(c->bev.get(), &idle_timeout, &idle_timeout);
    if (bufferevent_enable(c->bev.get(), EV_READ) == 0)
        l->clients.push_back(std::move(c));
}

// Out of descriptors or memory: the pending connection would wake the loop again at
// once, so stop accepting for a while instead of spinning.
void on_accept_error(evconnlistener *listener, void *arg)
{
    evconnlistener_disable(listener);
    evtimer_add(static_cast<Listener *>(arg)->resume.get(), &accept_pause);
}

void on_resume(evutil_socket_t, short, void *arg)
{
    evconnlistener_enable(static_cast<Listener *>(arg)->listener.get());
}

Listener::~Listener()
{
    // Only our own socket: never one that replaced it in the meantime.
    struct stat st {};
    if (listener && lstat(path.c_str(), &st) == 0 && st.st_ino == inode)
        unlink(path.c_str());
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
    struct stat st {};
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
    kx::FdHolder probe(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
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
    struct stat st {};
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

    kx::FdHolder fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (fd.get() < 0)
        return fail("socket", errno);
    sockaddr_un addr = socket_address(l.path);
    if (bind(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0)
        return fail(l.path, errno);
    // 0600 before listen(2): no one else connects in between.
    struct stat st {};
    l.resume.reset(evtimer_new(l.base, on_resume, &l));
    if (chmod(l.path.c_str(), 0600) == 0 && lstat(l.path.c_str(), &st) == 0 && l.resume)
        l.listener.reset(evconnlistener_new(
            l.base, on_accept, &l, LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC, 16, fd.get()));
    if (!l.listener) {
        int err = errno;
        unlink(l.path.c_str());
        return fail(l.path, err);
    }
    fd.release();
    evconnlistener_set_error_cb(l.listener.get(), on_accept_error);
    l.inode = st.st_ino;
    return 0;
}

} // namespace

std::string ssat_answer(const char *module, std::string_view line)
{
    std::unique_ptr<evbuffer, decltype(&evbuffer_free)> out(evbuffer_new(), evbuffer_free);
    if (!out || !module)
        return {};
    execute(module, line, out.get());
    std::string reply(evbuffer_get_length(out.get()), '\0');
    evbuffer_remove(out.get(), reply.data(), reply.size());
    return reply;
}

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
    auto &list = commands[module];
    if (std::any_of(list.begin(), list.end(), [cmd](const Command &c) { return c.name == cmd; }))
        return SSAT_EEXIST;
    list.push_back(Command{cmd, info, fn, thunk});
    return 0;
}
