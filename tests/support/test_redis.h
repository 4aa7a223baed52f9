// Test helpers: a private redis-server on a Unix socket in a temporary directory,
// and child processes (the daemon, the tools, redis-cli) with captured output.
#ifndef TEST_REDIS_H
#define TEST_REDIS_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace testsupport {

using namespace std::chrono_literals;
using Env = std::map<std::string, std::string>;

// A fresh directory under $TMPDIR, removed with everything in it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

struct RunResult {
    int status = -1; // exit status, or 128 + signal
    std::string out;
    std::string err;
};

// A child process whose standard output and error go to `dir`/`name`.out and .err.
class Process {
public:
    Process(const std::vector<std::string> &argv, const Env &env, const std::string &dir,
            const std::string &name);
    ~Process(); // kills it if still running
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    pid_t pid() const { return pid_; }
    bool running();
    void signal(int sig);
    // Exit status (or 128 + signal), or -1 after `timeout` (the process is then killed).
    int wait(std::chrono::milliseconds timeout = 10s);

private:
    pid_t pid_ = -1;
    int status_ = -1;
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
    std::string reach_; // where cli() finds the socket
    std::unique_ptr<Process> proc_; // killed first, before its directory goes
};

// Polls `pred` every 10 ms until it holds or `timeout` passes.
bool wait_for(const std::function<bool()> &pred, std::chrono::milliseconds timeout = 5s);
std::string read_file(const std::string &path);                    // empty when missing
void write_file(const std::string &path, const std::string &text); // creates parent dirs

} // namespace testsupport

#endif
