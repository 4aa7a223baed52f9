// The chassis's processes: every Redis and vek_cap started, watched, started again or
// stopped, and the cards' inputs written to their stores.
#include "vek_chassis.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <sys/wait.h>

namespace chassis {
namespace {

namespace fs = std::filesystem;

constexpr int restart_limit = 5; // systemd's default StartLimitBurst

} // namespace

std::string describe(int status)
{
    if (WIFEXITED(status))
        return "exited with status " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status))
        return std::string("was killed by ") + strsignal(WTERMSIG(status));
    return "ended";
}

std::string last_line(const std::string &path)
{
    std::ifstream in(path);
    std::string line, last = "(nothing)";
    while (std::getline(in, line))
        last = line.empty() ? last : line;
    return last;
}

std::string tools_dir()
{
    std::error_code ec;
    fs::path self = fs::read_symlink("/proc/self/exe", ec);
    return ec ? std::string(".") : self.parent_path().string();
}

Chassis::Chassis(const Options &o, const std::vector<Card> &cards, std::string dir)
    : o_(o), dir_(std::move(dir)), global_sock_(dir_ + "/global/redis.sock"), monitor_(global_sock_)
{
    global_.name = "the global redis-server";
    for (const Card &c : cards) {
        std::string root = dir_ + "/card" + std::to_string(c.number);
        std::string name = "card " + std::to_string(c.number) + "'s ";
        runs_.push_back(
            {&c, root, {name + "redis-server"}, {name + "vek_cap"}, Redis(root + "/redis.sock")});
    }
}

host::Process Chassis::spawn(const std::vector<std::string> &argv, const std::string &out,
                             const host::Env &env) const
{
    return host::Process({.argv = argv,
                          .env = env,
                          .drop = "KX_",
                          .out = out,
                          .append = true,
                          .group = group_,
                          .tied = !o_.keep});
}

bool Chassis::start_redis(Child &c, const std::string &dir, const std::vector<std::string> &extra)
{
    fs::create_directories(dir);
    std::string conf = o_.redis_conf;
    if (o_.sentinel) { // a failover rewrites the servers' configuration files: each its own
        conf = dir + "/redis.conf";
        std::ofstream copy(conf);
        if (!o_.redis_conf.empty())
            copy << std::ifstream(o_.redis_conf).rdbuf();
    }
    std::vector<std::string> settings = extra;
    if (o_.redis_conf.empty()) // what the store needs, as the deployment's snippet has it
        settings.insert(settings.begin(),
                        {"--databases", "32", "--notify-keyspace-events", "Kgh$xe",
                         "--client-output-buffer-limit", "pubsub 0 0 0"});
    c.process = spawn(host::redis_server(dir, conf, settings), dir + "/redis.log");
    c.stopping = false;
    if (c.pid() < 0) {
        fprintf(stderr, "vek_chassis: cannot start %s: %s\n", c.name.c_str(), strerror(errno));
        return false;
    }
    if (group_ == 0)
        group_ = c.pid();
    return true;
}

// Waits until the server answers on `conn`.
bool Chassis::answers(Child &server, Redis &conn, const std::string &log,
                      Clock::time_point deadline)
{
    std::string why;
    while (!conn.command(0, {"PING"}, &why)) {
        reap();
        if (server.pid() < 0 || g_signal || Clock::now() > deadline) {
            if (!g_signal)
                fprintf(stderr, "vek_chassis: %s does not answer: %s; its log ends: %s\n",
                        server.name.c_str(), why.c_str(), last_line(log).c_str());
            return false;
        }
        nap(10ms);
    }
    return true;
}

// Starts every Redis, then waits until each answers.
bool Chassis::start_servers()
{
    if (o_.acl) {
        if (!make_acl())
            return false;
        global_args_ = {"--aclfile", dir_ + "/users.acl"};
        monitor_ = as_operator(global_sock_);
    }
    if (o_.sentinel) {
        primary_port_ = host::free_port();
        global_args_.insert(global_args_.end(), {"--port", std::to_string(primary_port_)});
    }
    if (!start_redis(global_, dir_ + "/global", global_args_))
        return false;
    for (CardRun &r : runs_)
        if (!start_redis(r.redis, r.root))
            return false;
    auto deadline = Clock::now() + 20s;
    if (!answers(global_, monitor_, dir_ + "/global/redis.log", deadline))
        return false;
    if (o_.sentinel && !start_failover(deadline))
        return false;
    for (CardRun &r : runs_)
        if (!answers(r.redis, r.local, r.root + "/redis.log", deadline))
            return false;
    // Each card's files: its dependency modules and the platform's marker file.
    for (CardRun &r : runs_) {
        fs::create_directories(r.root + "/etc/cap_cfg/cap_dep/fe");
        fs::create_directories(r.root + "/var/run");
        for (const std::string &m : r.card->modules)
            std::ofstream(r.root + "/etc/cap_cfg/cap_dep/fe/" + m);
        std::ofstream(r.root + "/var/run/vek_cap_ham.txt");
    }
    return true;
}

void Chassis::start_daemon(CardRun &r)
{
    host::Env env = {{"KX_ROOT", r.root},
                     {"KX_MOM_ADDR", "unix:" + r.root + "/redis.sock"},
                     {"KX_MOM_ADDR_28", "unix:" + global_sock_}};
    if (o_.sentinel) {
        std::string global = "sentinel:";
        for (int port : sentinel_ports_)
            global += "127.0.0.1:" + std::to_string(port) + ",";
        global.back() = '/';
        env["KX_MOM_ADDR_28"] = global + sentinel_master;
    }
    if (o_.acl) {
        std::string user = "card" + std::to_string(r.card->node);
        env["KX_MOM_USER_28"] = user;
        env["KX_MOM_PASSWORD_FILE_28"] = dir_ + "/secrets/" + user;
    }
    r.daemon.process = spawn({o_.daemon}, r.root + "/vek_cap.out", env);
    r.daemon.stopping = false;
    if (r.daemon.pid() < 0)
        fault("cannot start " + r.daemon.name + ": " + strerror(errno));
}

// A child has ended: the daemons are started again as their unit would be, anything
// else is a fault unless it was asked for.
void Chassis::ended(Child &c)
{
    c.status = c.process.wait_status();
    c.process = {};
    if (c.stopping)
        return;
    auto run = std::ranges::find(runs_, &c, [](CardRun &r) { return &r.daemon; });
    if (run == runs_.end()) {
        fault(c.name + " " + describe(c.status));
        broken_ = true;
        return;
    }
    // 77: the daemon saw a restarted store, which only a restart or a failover makes.
    bool exit_77 = global_restarted_ && WIFEXITED(c.status) && WEXITSTATUS(c.status) == 77;
    bool killed = run->killed && WIFSIGNALED(c.status) && WTERMSIG(c.status) == SIGKILL;
    exits_77_ += exit_77;
    run->killed = false;
    if (!exit_77 && !killed)
        fault(c.name + " " + describe(c.status) + " (see " + run->root + "/vek_cap.out and " +
              run->root + "/var/log/vek_cap.log)");
    if (++run->restarts > restart_limit) {
        fault(c.name + " is not started again: it ended " + std::to_string(run->restarts) +
              " times");
        broken_ = true;
        return;
    }
    start_daemon(*run);
}

void Chassis::fault(const std::string &what)
{
    auto it = std::ranges::find(faults_, what, &std::pair<std::string, int>::first);
    if (it == faults_.end())
        faults_.emplace_back(what, 1);
    else
        ++it->second;
}

std::vector<Child *> Chassis::servers()
{
    std::vector<Child *> all = {&global_, &replica_};
    for (Child &s : sentinels_)
        all.push_back(&s);
    for (CardRun &r : runs_)
        all.push_back(&r.redis);
    return all;
}

std::vector<Child *> Chassis::daemons()
{
    std::vector<Child *> all;
    for (CardRun &r : runs_)
        all.push_back(&r.daemon);
    return all;
}

void Chassis::reap()
{
    for (const auto &children : {servers(), daemons()})
        for (Child *c : children)
            if (c->pid() > 0 && !c->process.running())
                ended(*c);
}

size_t Chassis::global_size(std::string *why)
{
    auto replies = monitor_.pipeline(global_db, {{"DBSIZE"}}, why);
    return replies.empty() || replies[0]->type != REDIS_REPLY_INTEGER
               ? SIZE_MAX
               : static_cast<size_t>(replies[0]->integer);
}

bool Chassis::write_input(const Input &in, std::string *why)
{
    CardRun &r = runs_[static_cast<size_t>(in.card)];
    if (in.step == Step::start) {
        start_daemon(r);
    } else if (in.step == Step::kill) {
        r.killed = r.daemon.pid() > 0 && kill(r.daemon.pid(), SIGKILL) == 0;
        if (r.killed)
            printf("kill -9 %s (pid %d) in the middle of its inputs\n", r.daemon.name.c_str(),
                   r.daemon.pid());
    } else {
        auto [db, command] = input_command(*r.card, in);
        return r.local.command(db, command, why);
    }
    return true;
}

bool Chassis::play(const std::vector<Input> &inputs, std::string *why)
{
    for (const Input &in : inputs) {
        if (g_signal)
            return false;
        if (!write_input(in, why)) {
            *why = "card " + std::to_string(in.card + 1) + ": " + *why;
            return false;
        }
        reap();
    }
    return true;
}

// Ends the children (SIGTERM, then SIGKILL after 10 s); true when all ended by
// SIGTERM in time.
bool Chassis::stop(std::vector<Child *> children)
{
    std::erase_if(children, [](const Child *c) { return c->pid() <= 0; });
    for (Child *c : children) {
        c->stopping = true;
        c->process.signal(SIGTERM);
    }
    auto deadline = Clock::now() + 10s;
    bool in_time = true;
    for (;;) {
        reap();
        if (std::ranges::none_of(children, [](const Child *c) { return c->pid() > 0; }))
            return in_time;
        if (Clock::now() > deadline) {
            in_time = false;
            for (Child *c : children)
                c->process.signal(SIGKILL);
        }
        nap(5ms);
    }
}

bool Chassis::restart_global()
{
    stop({&global_});
    global_restarted_ = true;
    return start_redis(global_, dir_ + "/global", global_args_) &&
           answers(global_, monitor_, dir_ + "/global/redis.log", Clock::now() + 20s);
}

// Stops every vek_cap; true when each ended with status 0, as SIGTERM asks.
bool Chassis::stop_daemons()
{
    std::vector<Child *> running = daemons();
    std::erase_if(running, [](const Child *c) { return c->pid() <= 0; });
    stop(running);
    bool clean = true;
    for (const Child *c : running)
        if (!(WIFEXITED(c->status) && WEXITSTATUS(c->status) == 0)) {
            fault(c->name + " " + describe(c->status) + " on SIGTERM");
            clean = false;
        }
    return clean;
}

void Chassis::detach()
{
    for (const auto &children : {servers(), daemons()})
        for (Child *c : children)
            c->process.release();
}

void Chassis::stop_all()
{
    stop(daemons());
    stop(servers());
}

} // namespace chassis
