// kx_zlog: the log sink, with zlog's wrapper API and level numbers.
#ifndef KX_ZLOG_H
#define KX_ZLOG_H

#include <cstddef>
#include <cstdint>

typedef struct kx_zlog_category kx_zlog_category_t;

enum {
    KX_ZLOG_LEVEL_DEBUG = 20,
    KX_ZLOG_LEVEL_INFO = 40,
    KX_ZLOG_LEVEL_NOTICE = 60,
    KX_ZLOG_LEVEL_WARN = 80,
    KX_ZLOG_LEVEL_ERROR = 100,
    KX_ZLOG_LEVEL_FATAL = 120,
};

// Reads <KX_ROOT>/etc/kx/<module>.zlog (KX_LOG overrides its output) and opens the
// output. Returns nullptr when a configuration exists but cannot be used.
kx_zlog_category_t *kx_zlog_init(const char *module);

// Writes one record: time, level, pid, file, function, line and the message.
void kxdf_zlog(kx_zlog_category_t *category, const char *file, size_t filelen, const char *func,
               size_t funclen, long line, int level, const char *format, ...)
    __attribute__((format(printf, 8, 9)));

// snprintf: truncates to `size` and always terminates.
int at_snprintf(char *buf, size_t size, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

#endif
