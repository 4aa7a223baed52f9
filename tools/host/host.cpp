#include "host.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace host {
namespace {

// Makes the descriptor `fd` the child's descriptor `target`.
bool onto(int fd, int target)
{
    return fd == target || (fd >= 0 && dup2(fd, target) == target && close(fd) == 0);
}

// In the child, after fork: never returns.
[[noreturn]] void become(const Command &c, pid_t parent)
{
    if (c.group >= 0)
        setpgid(0, c.group);
    if (c.tied && (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent))
        _exit(127);
    signal(SIGPIPE, SIG_DFL); // ignored here, it would stay ignored after exec
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    const int flags = O_WRONLY | O_CREAT | (c.append ? O_APPEND : O_TRUNC);
    if (!onto(open("/dev/null", O_RDONLY), 0) || !onto(open(c.out.c_str(), flags, 0644), 1) ||
        !(c.err.empty() ? dup2(1, 2) == 2 : onto(open(c.err.c_str(), flags, 0644), 2)))
        _exit(127);
    for (char **e = environ; *e;) // unsetenv moves the next one here
        if (!c.drop.empty() && std::string_view(*e).starts_with(c.drop))
            unsetenv(std::string(*e, strcspn(*e, "=")).c_str());
        else
            ++e;
    for (const auto &[name, value] : c.env)
        setenv(name.c_str(), value.c_str(), 1);
    std::vector<char *> argv;
    for (const std::string &a : c.argv)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    fprintf(stderr, "%s: cannot run %s: %s\n", program_invocation_short_name, argv[0],
            strerror(errno));
    _exit(127);
}

} // namespace

Process::Process(const Command &command)
{
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0)
        become(command, parent);
    if (pid_ > 0 && command.group >= 0)
        setpgid(pid_, command.group); // also here: the parent may signal the group first
}

Process::~Process()
{
    if (running()) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status_, 0);
    }
}

Process::Process(Process &&other) noexcept : pid_(other.pid_), status_(other.status_)
{
    other.pid_ = -1;
}

Process &Process::operator=(Process &&other) noexcept
{
    Process gone(std::move(*this));
    pid_ = std::exchange(other.pid_, -1);
    status_ = other.status_;
    return *this;
}

bool Process::running()
{
    int status = 0;
    if (status_ == -1 && pid_ > 0 && waitpid(pid_, &status, WNOHANG) == pid_)
        status_ = status;
    return status_ == -1 && pid_ > 0;
}

void Process::signal(int sig)
{
    if (running())
        kill(pid_, sig);
}

int Process::wait(std::chrono::milliseconds timeout)
{
    if (!wait_for([this] { return !running(); }, timeout)) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status_, 0);
        return -1;
    }
    if (status_ == -1) // none was started
        return -1;
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : 128 + WTERMSIG(status_);
}

TempDir::TempDir(const std::string &prefix)
{
    const char *base = getenv("TMPDIR");
    path_ = std::string(base && *base ? base : "/tmp") + "/" + prefix + ".XXXXXX";
    if (!mkdtemp(path_.data()))
        throw std::runtime_error("mkdtemp " + path_ + ": " + strerror(errno));
}

TempDir::~TempDir()
{
    std::error_code ignored;
    if (!kept_)
        std::filesystem::remove_all(path_, ignored);
}

std::vector<std::string> redis_server(const std::string &dir, const std::string &conf,
                                      const std::vector<std::string> &settings)
{
    std::vector<std::string> argv = {"redis-server"};
    if (!conf.empty())
        argv.push_back(conf);
    argv.insert(argv.end(),
                {"--port", "0", "--unixsocket", dir + "/redis.sock", "--unixsocketperm", "700",
                 "--save", "", "--appendonly", "no", "--dir", dir, "--loglevel", "warning"});
    argv.insert(argv.end(), settings.begin(), settings.end());
    return argv;
}

int free_port()
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return 0;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    bool bound = bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
                 getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0;
    close(fd);
    return bound ? ntohs(a.sin_port) : 0;
}

bool wait_for(const std::function<bool()> &done, std::chrono::milliseconds timeout,
              std::chrono::milliseconds every)
{
    for (auto deadline = std::chrono::steady_clock::now() + timeout; !done();
         std::this_thread::sleep_for(every))
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
    return true;
}

std::string read_file(const std::string &path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

} // namespace host
