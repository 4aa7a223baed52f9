// kx_global: the loop, its signals, the single-instance lock and the clock.
#include "kx_global.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <tuple>

#include <event2/event.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kx_internal.h"

namespace {

void on_stop_signal(evutil_socket_t, short, void *arg)
{
    event_base_loopbreak(static_cast<event_base *>(arg));
}

// logrotate's postrotate sends SIGHUP once it has moved the log away.
void on_hangup(evutil_socket_t, short, void *) { kx::zlog_reopen(); }

// Sockets (the store's, the debug shell's clients) are written with write(2): a peer
// that went away must give EPIPE, not end the process. A program that chose its own
// SIGPIPE disposition keeps it.
void ignore_sigpipe()
{
    struct sigaction current {};
    if (sigaction(SIGPIPE, nullptr, &current) == 0 && current.sa_handler == SIG_DFL)
        signal(SIGPIPE, SIG_IGN);
}

// A process started with a standard descriptor closed would hand its number to the
// next file it opens (the lock file), and what it then writes to standard error would
// land in that file. Each closed one is opened on /dev/null: open(2) takes the lowest
// free number, which is `fd` itself as the ones below it are open by then.
void open_std_descriptors()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
        if (fcntl(fd, F_GETFD) < 0 && errno == EBADF)
            (void)open("/dev/null", O_RDWR);
}

// The lock's name: the executable's own file name from /proc/self/exe, so that the
// same binary started under another name (a symlink, another argv[0]) is still the
// same program and is refused as a second instance. Empty when it cannot be read.
std::string program_name()
{
    char buf[PATH_MAX];
    ssize_t len = readlink("/proc/self/exe", buf, sizeof buf);
    if (len <= 0 || static_cast<size_t>(len) >= sizeof buf)
        return {};
    std::string_view path(buf, static_cast<size_t>(len));
    if (constexpr std::string_view replaced = " (deleted)"; path.ends_with(replaced))
        path.remove_suffix(replaced.size()); // the binary was reinstalled since it started
    return std::string(path.substr(path.rfind('/') + 1));
}

// The start is refused: one line on stderr says why, the code says what.
int32_t refuse_start(const std::string &why, int err)
{
    fprintf(stderr, "kx_global: %s\n", why.c_str());
    return -err;
}

// Who holds the lock, from the pid it wrote there.
std::string holder_of(int fd, const std::string &path)
{
    char pid[32] = {};
    ssize_t len = pread(fd, pid, sizeof pid - 1, 0);
    std::string_view text(pid, len > 0 ? static_cast<size_t>(len) : 0);
    text = text.substr(0, text.find('\n'));
    if (text.empty() || text.find_first_not_of("0123456789") != std::string_view::npos)
        return "another process holds " + path;
    return "pid " + std::string(text) + " holds " + path;
}

} // namespace

void kx::make_parent_dirs(const std::string &path)
{
    for (size_t pos = path.find('/', 1); pos != std::string::npos; pos = path.find('/', pos + 1))
        mkdir(path.substr(0, pos).c_str(), 0755);
}

bool kx_write_all(int fd, std::string_view data)
{
    while (!data.empty()) {
        ssize_t n = write(fd, data.data(), data.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

std::string kx_root_path(std::string_view path)
{
    const char *root = getenv("KX_ROOT");
    return (root ? root : "") + std::string(path);
}

kx_global_t *kx_global_init(const char *module, kx_global_t *global)
{
    if (global)
        return global;
    ignore_sigpipe();
    auto *g = new kx_global;
    g->module = module ? module : "";
    g->base = event_base_new();
    const std::tuple<event **, int, event_callback_fn> handlers[] = {
        {&g->sigterm, SIGTERM, on_stop_signal},
        {&g->sigint, SIGINT, on_stop_signal},
        {&g->sighup, SIGHUP, on_hangup},
    };
    for (auto [slot, signal, handler] : handlers) {
        if (g->base)
            *slot = evsignal_new(g->base, signal, handler, g->base);
        if (!*slot || evsignal_add(*slot, nullptr) != 0) {
            kx_global_finish(g);
            return nullptr;
        }
    }
    return g;
}

int32_t kx_global_run(kx_global_t *global)
{
    if (!global || !global->base)
        return -1;
    return event_base_dispatch(global->base) < 0 ? -1 : 0;
}

int32_t kx_global_poll(kx_global_t *global)
{
    if (!global || !global->base)
        return -1;
    return event_base_loop(global->base, EVLOOP_NONBLOCK) < 0 ? -1 : 0;
}

void kx_global_finish(kx_global_t *global)
{
    if (!global)
        return;
    kx::ssat_release(global);
    kx::mom_release(global);
    if (global->sigterm)
        event_free(global->sigterm);
    if (global->sigint)
        event_free(global->sigint);
    if (global->sighup)
        event_free(global->sighup);
    if (global->base)
        event_base_free(global->base);
    delete global;
}

int32_t kx_initframe_duplicate_check(void)
{
    open_std_descriptors();
    // The lock lives as long as the process: the descriptor is deliberately kept open.
    static int lock_fd = -1;
    if (lock_fd >= 0)
        return 0;
    std::string name = program_name();
    if (name.empty())
        return refuse_start("cannot name the lock: /proc/self/exe cannot be read", ENOENT);
    std::string path = kx_root_path("/var/run/");
    path += name + ".pid";
    kx::make_parent_dirs(path);
    kx::FdHolder fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (int err = errno; fd.get() < 0)
        return refuse_start("cannot open " + path + ": " + strerror(err), err);
    if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        int err = errno;
        if (err == EWOULDBLOCK)
            return refuse_start(name + " is already running: " + holder_of(fd.get(), path), EEXIST);
        return refuse_start("cannot lock " + path + ": " + strerror(err), err);
    }
    char pid[32];
    int len = snprintf(pid, sizeof pid, "%d\n", static_cast<int>(getpid()));
    if (ftruncate(fd.get(), 0) != 0 || pwrite(fd.get(), pid, static_cast<size_t>(len), 0) != len) {
        int err = errno;
        return refuse_start("cannot write " + path + ": " + strerror(err), EIO);
    }
    lock_fd = fd.release();
    return 0;
}

// What was asked of the (absent) process manager, kept for a debugger or core dump.
namespace {
struct {
    int32_t action = 0;
    int32_t reason = 0;
} g_exit_action;
} // namespace

int32_t reg_process_exit_action(int32_t action, int32_t reason)
{
    g_exit_action.action = action;
    g_exit_action.reason = reason;
    return 0;
}

int32_t kx_monotime(kx_timestamp_t *ts)
{
    if (!ts)
        return -1;
    timespec now{};
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0)
        return -1;
    ts->sec = static_cast<uint32_t>(now.tv_sec);
    ts->usec = static_cast<uint32_t>(now.tv_nsec / 1000);
    return 0;
}
