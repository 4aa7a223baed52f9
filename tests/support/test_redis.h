// Test helpers: a private redis-server on a Unix socket in a temporary directory,
// and child processes (the daemon, the tools, redis-cli) with captured output.
#ifndef TEST_REDIS_H
#define TEST_REDIS_H

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "host.h"

namespace testsupport {

using namespace std::chrono_literals;
using host::Env;
using host::read_file; // empty when missing
using host::wait_for;  // polls every 10 ms, for 5 s unless told

// A fresh directory under $TMPDIR, removed with everything in it.
class TempDir : public host::TempDir {
public:
    TempDir() : host::TempDir("vek_cap_test") {}
};

struct RunResult {
    int status = -1; // exit status, or 128 + signal
    std::string out;
    std::string err;
};

// A child process whose standard output and error go to `dir`/`name`.out and .err; it is
// killed if still running when it goes. wait() gives its exit status (or 128 + signal).
class Process : public host::Process {
public:
    Process(const std::vector<std::string> &argv, const Env &env, const std::string &dir,
            const std::string &name);
};

// Runs to completion (killed after `timeout`), standard input empty.
RunResult run(const std::vector<std::string> &argv, const Env &env = {},
              std::chrono::milliseconds timeout = 10s);

class RedisServer {
public:
    struct Options {
        int databases = 32;
        std::string notify = "KEA"; // notify-keyspace-events at start
    };
    RedisServer() : RedisServer(Options{}) {}
    explicit RedisServer(Options options);

    const std::string &socket() const { return socket_; }
    std::string addr() const { return "unix:" + socket_; } // for KX_MOM_ADDR
    // redis-cli -s <socket> -n <db> args...; its standard output without the last newline.
    std::string cli(int db, const std::vector<std::string> &args) const;
    // The calls of `command` (lower case) it served since its statistics were reset.
    long calls(const std::string &command) const;
    // Every key of `db`, sorted, as "KEY field=value ..." (hash fields in the server's
    // order; a string as its one field "value"; a key of another type alone).
    std::vector<std::string> dump(int db) const;
    void restart() { start(); } // a new run: its run_id differs
    // Out of its clients' reach (true): its socket file moved aside, where cli() still
    // finds it, and every client connection closed. false brings the socket back.
    void away(bool away);

private:
    void start();

    Options options_;
    TempDir dir_;
    std::string socket_;
    std::string reach_;             // where cli() finds the socket
    std::unique_ptr<Process> proc_; // killed first, before its directory goes
};

void write_file(const std::string &path, const std::string &text); // creates parent dirs

} // namespace testsupport

#endif
