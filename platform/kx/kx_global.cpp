// kx_global: the loop, its signals, the single-instance lock and the clock.
#include "kx_global.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

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

} // namespace

void kx::make_parent_dirs(const std::string &path)
{
    for (size_t pos = path.find('/', 1); pos != std::string::npos; pos = path.find('/', pos + 1))
        mkdir(path.substr(0, pos).c_str(), 0755);
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
    auto *g = new kx_global;
    g->module = module ? module : "";
    g->base = event_base_new();
    if (g->base) {
        g->sigterm = evsignal_new(g->base, SIGTERM, on_stop_signal, g->base);
        g->sigint = evsignal_new(g->base, SIGINT, on_stop_signal, g->base);
    }
    if (!g->base || !g->sigterm || !g->sigint || evsignal_add(g->sigterm, nullptr) != 0 ||
        evsignal_add(g->sigint, nullptr) != 0) {
        kx_global_finish(g);
        return nullptr;
    }
    return g;
}

int32_t kx_global_run(kx_global_t *global)
{
    if (!global || !global->base)
        return -1;
    return event_base_dispatch(global->base) < 0 ? -1 : 0;
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
    if (global->base)
        event_base_free(global->base);
    delete global;
}

int32_t kx_initframe_duplicate_check(void)
{
    // The lock lives as long as the process: the descriptor is deliberately kept open.
    static int lock_fd = -1;
    if (lock_fd >= 0)
        return 0;
    std::string path = kx_root_path("/var/run/");
    path += program_invocation_short_name;
    path += ".pid";
    kx::make_parent_dirs(path);
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return -errno;
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        int rc = errno == EWOULDBLOCK ? -EEXIST : -errno;
        close(fd);
        return rc;
    }
    char pid[32];
    int len = snprintf(pid, sizeof pid, "%d\n", static_cast<int>(getpid()));
    if (ftruncate(fd, 0) != 0 || pwrite(fd, pid, static_cast<size_t>(len), 0) != len) {
        close(fd);
        return -EIO;
    }
    lock_fd = fd;
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
