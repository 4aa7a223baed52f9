#include "test_redis.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace testsupport {

Process::Process(const std::vector<std::string> &argv, const Env &env, const std::string &dir,
                 const std::string &name)
    : host::Process({.argv = argv,
                     .env = env,
                     .out = dir + "/" + name + ".out",
                     .err = dir + "/" + name + ".err"})
{
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
        host::redis_server(dir_.path(), {},
                           {"--databases", std::to_string(options_.databases),
                            "--notify-keyspace-events", options_.notify}),
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

long RedisServer::calls(const std::string &command) const
{
    const std::string stats = cli(0, {"INFO", "commandstats"});
    const std::string tag = "cmdstat_" + command + ":calls=";
    const size_t at = stats.find(tag);
    return at == std::string::npos ? 0 : std::stol(stats.substr(at + tag.size()));
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

void write_file(const std::string &path, const std::string &text)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

} // namespace testsupport
