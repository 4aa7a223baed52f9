// Child processes, files and private redis-servers on this host, for the programs that
// run the daemon and its stores here: the chassis simulator, the tests and the benchmarks.
#ifndef HOST_H
#define HOST_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace host {

using namespace std::chrono_literals;
using Env = std::map<std::string, std::string>;

// How a child starts: standard input from /dev/null, standard output to `out`, standard
// error to `err` (or to `out` too), SIGPIPE at its default and no signal blocked.
struct Command {
    std::vector<std::string> argv;
    Env env = {};          // added to this process's environment...
    std::string drop = {}; // ...less the variables whose names begin with this
    std::string out = "/dev/null";
    std::string err = {};
    bool append = false; // to `out` and `err`, which are otherwise emptied first
    pid_t group = -1;    // its process group: 0 a new one, -1 this process's
    bool tied = false;   // killed when this process ends, however that happens
};

// A child process: killed and reaped when its holder goes, unless released.
class Process {
public:
    Process() = default;
    explicit Process(const Command &command); // pid() is -1 when fork failed (errno)
    ~Process();
    Process(Process &&other) noexcept;
    Process &operator=(Process &&other) noexcept;

    pid_t pid() const { return pid_; }
    bool running(); // false once it has ended (reaped then), or when none was started
    int wait_status() const { return status_; } // of its end, as waitpid gives it; -1 before
    void signal(int sig);                       // while it runs
    // Its exit status (or 128 + signal), or -1 after `timeout` (it is killed then).
    int wait(std::chrono::milliseconds timeout = 10s);
    void release() { pid_ = -1; } // it runs on, no longer held

private:
    pid_t pid_ = -1;
    int status_ = -1;
};

// A fresh directory under $TMPDIR named `prefix`.XXXXXX, removed with everything in it
// unless kept; std::runtime_error when it cannot be made.
class TempDir {
public:
    explicit TempDir(const std::string &prefix);
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }
    void keep() { kept_ = true; }

private:
    std::string path_;
    bool kept_ = false;
};

// A redis-server of its own in `dir`: no TCP port, the Unix socket `dir`/redis.sock (its
// owner's only), nothing saved, warnings only; the file `conf` first when one is named,
// `settings` last, so that they override the rest.
std::vector<std::string> redis_server(const std::string &dir, const std::string &conf = {},
                                      const std::vector<std::string> &settings = {});

// A TCP port of the loopback that is free now, for a server to listen on; 0 when none is.
int free_port();

// Polls `done` every `every` until it holds; false once `timeout` has passed.
bool wait_for(const std::function<bool()> &done, std::chrono::milliseconds timeout = 5s,
              std::chrono::milliseconds every = 10ms);
std::string read_file(const std::string &path); // empty when missing

} // namespace host

#endif
