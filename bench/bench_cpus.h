// Where a benchmark's processes run. A round trip between two processes on one CPU is
// two context switches (about 7 us on the reference machine); between two CPUs it waits
// for the other CPU to wake (about 55 us in a virtual machine). Left to the scheduler, a
// run mixes the two and its figures vary tenfold, so each benchmark pins the server to
// one CPU and itself (and the daemon it starts) to one, the same or another.
//
//   --cpus S,C     the server on CPU S, the clients on CPU C (default: not pinned)
#ifndef BENCH_CPUS_H
#define BENCH_CPUS_H

#include <sched.h>
#include <sys/types.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <hiredis/hiredis.h>

struct Cpus {
    int server = -1;
    int client = -1;
    bool pinned() const { return server >= 0; }
    std::string name() const
    {
        if (!pinned())
            return "not pinned";
        return server == client ? "one CPU" : "two CPUs";
    }
};

// Takes "--cpus S,C" out of argv; false on a bad value.
inline bool take_cpus(int &argc, char **argv, Cpus *cpus)
{
    for (int i = 1; i + 1 < argc; ++i) {
        if (strcmp(argv[i], "--cpus") != 0)
            continue;
        if (sscanf(argv[i + 1], "%d,%d", &cpus->server, &cpus->client) != 2 || cpus->server < 0 ||
            cpus->client < 0)
            return false;
        for (int j = i; j + 2 <= argc; ++j)
            argv[j] = argv[j + 2];
        argc -= 2;
        return true;
    }
    return true;
}

inline bool pin(pid_t pid, int cpu)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    return sched_setaffinity(pid, sizeof set, &set) == 0;
}

// Pins the server that `c` is connected to (its pid from INFO) and this process.
inline bool pin_both(redisContext *c, const Cpus &cpus)
{
    if (!cpus.pinned())
        return true;
    auto *r = static_cast<redisReply *>(redisCommand(c, "INFO server"));
    const char *at = r && r->type == REDIS_REPLY_STRING ? strstr(r->str, "process_id:") : nullptr;
    pid_t server = at ? static_cast<pid_t>(atol(at + 11)) : 0;
    freeReplyObject(r);
    return server > 0 && pin(server, cpus.server) && pin(0, cpus.client);
}

#endif
