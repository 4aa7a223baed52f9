#include "test_redis.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace testsupport {

TempDir::TempDir()
{
    const char *base = getenv("TMPDIR");
    path_ = std::string(base && *base ? base : "/tmp") + "/vek_cap_test.XXXXXX";
    if (!mkdtemp(path_.data()))
        throw std::runtime_error("mkdtemp failed");
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

// fork + exec with `env` added to this process's environment.
Process::Process(const std::vector<std::string> &argv, const Env &env, const std::string &dir,
                 const std::string &name)
{
    if ((pid_ = fork()) != 0)
        return;
    const int out_flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
    dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
    dup2(open((dir + "/" + name + ".out").c_str(), out_flags, 0644), 1);
    dup2(open((dir + "/" + name + ".err").c_str(), out_flags, 0644), 2);
    for (const auto &[k, v] : env)
        setenv(k.c_str(), v.c_str(), 1);
    std::vector<char *> args;
    for (const auto &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
}

Process::~Process() { signal(SIGKILL), wait(5s); }

bool Process::running()
{
    int raw = 0;
    if (status_ == -1 && pid_ > 0 && waitpid(pid_, &raw, WNOHANG) == pid_)
        status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    return status_ == -1 && pid_ > 0;
}

void Process::signal(int sig)
{
    if (running())
        kill(pid_, sig);
}

int Process::wait(std::chrono::milliseconds timeout)
{
    if (wait_for([this] { return !running(); }, timeout))
        return status_;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    status_ = -2;
    return -1;
}

RunResult run(const std::vector<std::string> &argv, const Env &env,
              std::chrono::milliseconds timeout)
{
    TempDir dir;
    int status = Process(argv, env, dir.path(), "run").wait(timeout);
    return {status, read_file(dir / "run.out"), read_file(dir / "run.err")};
}

RedisServer::RedisServer(Options options)
    : options_(std::move(options)), socket_(dir_ / "redis.sock"), reach_(socket_)
{
    start();
}

void RedisServer::start()
{
    proc_.reset();
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

void RedisServer::away(bool away)
{
    const std::string aside = socket_ + ".away";
    std::filesystem::rename(away ? socket_ : aside, away ? aside : socket_);
    reach_ = away ? aside : socket_;
    if (away)
        for (const char *type : {"normal", "pubsub"})
            cli(0, {"CLIENT", "KILL", "TYPE", type});
}

std::string RedisServer::cli(int db, const std::vector<std::string> &args) const
{
    std::vector<std::string> argv{"redis-cli", "-s", reach_, "-n", std::to_string(db)};
    argv.insert(argv.end(), args.begin(), args.end());
    std::string out = run(argv).out;
    if (out.ends_with('\n'))
        out.pop_back();
    return out;
}

std::vector<std::string> RedisServer::dump(int db) const
{
    std::istringstream text(
        cli(db, {"EVAL",
                 "local out = {} for _, k in ipairs(redis.call('KEYS', '*')) do local line = k "
                 "local t = redis.call('TYPE', k).ok if t == 'string' then line = line .. "
                 "' value=' .. redis.call('GET', k) elseif t == 'hash' then "
                 "local h = redis.call('HGETALL', k) "
                 "for i = 1, #h, 2 do line = line .. ' ' .. h[i] .. '=' .. h[i + 1] end end "
                 "out[#out + 1] = line end return out",
                 "0"}));
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);)
        lines.push_back(line);
    std::ranges::sort(lines); // bytewise, whatever the server's locale
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
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

void write_file(const std::string &path, const std::string &text)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

} // namespace testsupport
