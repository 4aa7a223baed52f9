#include "test_redis.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace testsupport {
namespace fs = std::filesystem;

namespace {

int decode_status(int raw)
{
    if (WIFEXITED(raw))
        return WEXITSTATUS(raw);
    if (WIFSIGNALED(raw))
        return 128 + WTERMSIG(raw);
    return -1;
}

// fork + exec with `env` added to this process's environment; stdio from/to the files.
pid_t spawn(const std::vector<std::string> &argv, const Env &env, const std::string &in,
            const std::string &out, const std::string &err)
{
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    dup2(open(in.c_str(), O_RDONLY | O_CLOEXEC), 0);
    dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), 1);
    dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), 2);
    for (const auto &[k, v] : env)
        setenv(k.c_str(), v.c_str(), 1);
    std::vector<char *> args;
    for (const auto &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
}

} // namespace

TempDir::TempDir()
{
    const char *base = getenv("TMPDIR");
    std::string tmpl = std::string(base && *base ? base : "/tmp") + "/vek_cap_test.XXXXXX";
    if (!mkdtemp(tmpl.data()))
        throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
}

TempDir::~TempDir()
{
    std::error_code ec;
    fs::remove_all(path_, ec);
}

Process::Process(const std::vector<std::string> &argv, const Env &env, const std::string &dir,
                 const std::string &name)
    : out_path_(dir + "/" + name + ".out")
{
    pid_ = spawn(argv, env, "/dev/null", out_path_, dir + "/" + name + ".err");
}

Process::~Process()
{
    if (running()) {
        kill(pid_, SIGKILL);
        wait(5s);
    }
}

bool Process::running()
{
    if (status_ != -1 || pid_ <= 0)
        return false;
    int raw = 0;
    if (waitpid(pid_, &raw, WNOHANG) == pid_) {
        status_ = decode_status(raw);
        return false;
    }
    return true;
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
        int raw = 0;
        waitpid(pid_, &raw, 0);
        status_ = -2;
        return -1;
    }
    return status_;
}

std::string Process::out() const { return read_file(out_path_); }

RunResult run(const std::vector<std::string> &argv, const Env &env,
              std::chrono::milliseconds timeout)
{
    TempDir dir;
    RunResult result;
    {
        Process p(argv, env, dir.path(), "run");
        result.status = p.wait(timeout);
    }
    result.out = read_file(dir / "run.out");
    result.err = read_file(dir / "run.err");
    return result;
}

RedisServer::RedisServer() : RedisServer(Options{}) {}

RedisServer::RedisServer(Options options)
    : options_(std::move(options)), socket_(dir_ / "redis.sock")
{
    start();
}

RedisServer::~RedisServer() { stop(); }

void RedisServer::start()
{
    proc_ = std::make_unique<Process>(
        std::vector<std::string>{"redis-server", "--port", "0", "--unixsocket", socket_,
                                 "--unixsocketperm", "700", "--databases",
                                 std::to_string(options_.databases), "--notify-keyspace-events",
                                 options_.notify, "--save", "", "--appendonly", "no", "--dir",
                                 dir_.path(), "--loglevel", "warning"},
        Env{}, dir_.path(), "redis");
    if (!wait_for([this] { return cli(0, {"PING"}) == "PONG"; }, 10s))
        throw std::runtime_error("redis-server did not start: " + read_file(dir_ / "redis.err"));
}

void RedisServer::stop()
{
    if (!proc_)
        return;
    proc_->signal(SIGKILL);
    proc_->wait(5s);
    proc_.reset();
    unlink(socket_.c_str());
}

std::string RedisServer::cli(int db, const std::vector<std::string> &args) const
{
    std::vector<std::string> argv{"redis-cli", "-s", socket_, "-n", std::to_string(db)};
    argv.insert(argv.end(), args.begin(), args.end());
    std::string out = run(argv).out;
    if (!out.empty() && out.back() == '\n')
        out.pop_back();
    return out;
}

std::vector<std::string> RedisServer::dump(int db) const
{
    static const char *const script = R"(
        local out = {}
        for _, k in ipairs(redis.call('KEYS', '*')) do
            local line = k
            if redis.call('TYPE', k).ok == 'hash' then
                local h = redis.call('HGETALL', k)
                for i = 1, #h, 2 do line = line .. ' ' .. h[i] .. '=' .. h[i + 1] end
            end
            out[#out + 1] = line
        end
        table.sort(out)
        return out)";
    std::string text = cli(db, {"EVAL", script, "0"});
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

bool wait_for(const std::function<bool()> &pred, std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void write_file(const std::string &path, const std::string &text)
{
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

} // namespace testsupport
