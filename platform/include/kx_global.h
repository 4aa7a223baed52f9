// kx_global: the process framework. One event loop per process, reached through
// an opaque handle that every store call, the debug shell and every callback take.
#ifndef KX_GLOBAL_H
#define KX_GLOBAL_H

#include <cstdint>
#include <string>
#include <string_view>

typedef struct kx_global kx_global_t;

// A monotonic time stamp: seconds, then microseconds, of CLOCK_MONOTONIC.
typedef struct kx_timestamp {
    uint32_t sec;
    uint32_t usec;
} kx_timestamp_t;

// Creates the event loop and returns the handle; returns `global` unchanged when
// it is already a live handle, and nullptr when the loop cannot be created.
// SIGPIPE left at its default is ignored from then on.
kx_global_t *kx_global_init(const char *module, kx_global_t *global);

// Runs the loop until SIGTERM or SIGINT. Returns 0, or -1 when it cannot run.
// SIGHUP makes the log sink open its output files again (after logrotate).
int32_t kx_global_run(kx_global_t *global);

// Closes every store connection and the debug shell and frees the handle.
void kx_global_finish(kx_global_t *global);

// First opens /dev/null on any closed standard descriptor, then takes an exclusive
// lock on <KX_ROOT>/var/run/<program>.pid, <program> being the executable's file
// name (/proc/self/exe, whatever name it was started under), and writes the pid
// there. 0 when this is the only instance, otherwise a negative errno (-EEXIST: the
// lock is held) and one line on stderr saying why.
int32_t kx_initframe_duplicate_check(void);

// There is no process manager to tell: the request is recorded and 0 returned.
int32_t reg_process_exit_action(int32_t action, int32_t reason);

// Fills `ts` from CLOCK_MONOTONIC. Returns 0, or -1 when `ts` is null.
int32_t kx_monotime(kx_timestamp_t *ts);

// KX_ROOT followed by `path` (an absolute path); `path` alone when KX_ROOT is unset.
std::string kx_root_path(std::string_view path);

// Writes all of `data` to `fd` (a blocking descriptor), going on after EINTR and short
// writes; false on any other failure.
bool kx_write_all(int fd, std::string_view data);

// Runs what is ready on the loop now (due timers, connections with data), without
// waiting: for a program that drives the loop itself. 0, or -1 when it cannot run.
int32_t kx_global_poll(kx_global_t *global);

#endif
