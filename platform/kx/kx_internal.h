// What the pieces of libkx share behind the plain interface: the handle's contents.
#ifndef KX_INTERNAL_H
#define KX_INTERNAL_H

#include <string>

#include "kx_global.h"
#include "kx_zlog.h"

struct event_base;
struct event;

namespace kx {
struct mom_state;  // kx_mom: connections and subscriptions (kx_mom.cpp)
struct ssat_state; // the debug-shell listener (ssat.cpp)

// Released by kx_global_finish; each is harmless on a handle that never used it.
void mom_release(kx_global_t *global);
void ssat_release(kx_global_t *global);

// The first log sink the process made with kx_zlog_init that does not write to
// standard error (libkx writes its own line there), or nullptr: where libkx's own
// diagnostics go too.
kx_zlog_category_t *log_sink();

// mkdir -p for the directory part of `path` (failures show when the path is used).
void make_parent_dirs(const std::string &path);
} // namespace kx

struct kx_global {
    event_base *base = nullptr;
    std::string module;
    event *sigterm = nullptr;
    event *sigint = nullptr;
    kx::mom_state *mom = nullptr;
    kx::ssat_state *ssat = nullptr;
};

#endif
