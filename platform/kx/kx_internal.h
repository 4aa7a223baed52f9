// What the pieces of libkx share behind the plain interface: the handle's contents.
#ifndef KX_INTERNAL_H
#define KX_INTERNAL_H

#include <string>
#include <string_view>
#include <utility>

#include <unistd.h>

#include "kx_global.h"
#include "kx_zlog.h"

struct event_base;
struct event;
struct evbuffer;

namespace kx {
struct mom_state;  // kx_mom: connections and subscriptions (kx_mom.cpp)
struct ssat_state; // the debug-shell listener (ssat.cpp)

// Released by kx_global_finish; each is harmless on a handle that never used it.
void mom_release(kx_global_t *global);
void ssat_release(kx_global_t *global);

// The first log sink the process made with kx_zlog_init, or nullptr: where libkx's
// own diagnostics go.
kx_zlog_category_t *log_sink();

// One diagnostic of libkx: a record of the unit platform/kx in log_sink(), from the level
// its configuration gives (NOTICE by default); without a log, a line on stderr ("kx_mom: "
// first) (kx_zlog.cpp).
void log_at(int level, const char *func, int line, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
#define KX_LOG(level, ...) ::kx::log_at(KX_ZLOG_LEVEL_##level, __func__, __LINE__, __VA_ARGS__)

// mkdir -p for the directory part of `path` (failures show when the path is used).
void make_parent_dirs(const std::string &path);

// Owns a descriptor: closed on every path.
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

// Opens every log file output again by its path: after logrotate moved the file,
// records go to a new one (SIGHUP).
void zlog_reopen();
} // namespace kx

struct kx_global {
    event_base *base = nullptr;
    std::string module;
    event *sigterm = nullptr;
    event *sigint = nullptr;
    event *sighup = nullptr;
    kx::mom_state *mom = nullptr;
    kx::ssat_state *ssat = nullptr;
};

#endif
