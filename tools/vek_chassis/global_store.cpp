// The global store's modes: a primary with a replica and three sentinels (--sentinel), and
// one ACL user per card (--acl).
#include "vek_chassis.h"

#include <filesystem>
#include <fstream>

namespace chassis {

// --acl: writes the chassis's description, from which vek_cap-acl writes the global
// store's ACL file and a password file per user.
bool Chassis::make_acl()
{
    std::ofstream chassis(dir_ + "/chassis.txt");
    for (const CardRun &r : runs_) {
        chassis << "card " << r.card->node << " " << r.card->type;
        for (const Subcard &s : r.card->subcards)
            chassis << " " << s.node;
        chassis << "\n";
    }
    if (o_.sentinel)
        chassis << "replica-user replica\nsentinel-user sentinel\n";
    chassis.close();
    std::string log = dir_ + "/vek_cap-acl.log";
    host::Process acl = spawn({"sh", "-c", "exec vek_cap-acl \"$1\" \"$2\" > \"$3\"", "sh",
                               dir_ + "/chassis.txt", dir_ + "/secrets", dir_ + "/users.acl"},
                              log);
    if (acl.wait(60s) == 0)
        return true;
    fprintf(stderr, "vek_chassis: vek_cap-acl %s: %s\n", describe(acl.wait_status()).c_str(),
            last_line(log).c_str());
    return false;
}

std::string Chassis::password(const std::string &user) const
{
    std::ifstream in(dir_ + "/secrets/" + user);
    std::string line;
    std::getline(in, line);
    return line;
}

Redis Chassis::as_operator(const std::string &socket) const
{
    return o_.acl ? Redis(socket, "operator", password("operator")) : Redis(socket);
}

Redis Chassis::as_user(const std::string &user) const
{
    return Redis(global_sock_, user, password(user));
}

// --sentinel: the replica of the global primary and three sentinels watching it, quorum
// 2. They find each other by address, so each listens on a TCP port of the loopback too.
bool Chassis::start_failover(Clock::time_point deadline)
{
    replica_.name = "the global replica redis-server";
    replica_port_ = host::free_port();
    std::vector<std::string> args = {"--port", std::to_string(replica_port_), "--replicaof",
                                     "127.0.0.1", std::to_string(primary_port_)};
    if (o_.acl)
        args.insert(args.end(), {"--aclfile", dir_ + "/users.acl", "--masteruser", "replica",
                                 "--masterauth", password("replica")});
    Redis replica = as_operator(dir_ + "/replica/redis.sock");
    if (!start_redis(replica_, dir_ + "/replica", args) ||
        !answers(replica_, replica, dir_ + "/replica/redis.log", deadline))
        return false;
    sentinels_.resize(3);
    for (size_t i = 0; i < sentinels_.size(); ++i) {
        Child &s = sentinels_[i];
        s.name = "sentinel " + std::to_string(i + 1);
        std::string dir = dir_ + "/sentinel" + std::to_string(i + 1);
        sentinel_ports_.push_back(host::free_port());
        std::filesystem::create_directories(dir);
        // Short timing: a primary silent for 1 s is down.
        std::ofstream conf(dir + "/sentinel.conf");
        conf << "port " << sentinel_ports_.back() << "\nbind 127.0.0.1\nunixsocket " << dir
             << "/redis.sock\nunixsocketperm 700\ndir " << dir << "\nsentinel monitor "
             << sentinel_master << " 127.0.0.1 " << primary_port_ << " 2\n"
             << "sentinel down-after-milliseconds " << sentinel_master << " 1000\n"
             << "sentinel failover-timeout " << sentinel_master << " 3000\n";
        if (o_.acl)
            conf << "sentinel auth-user " << sentinel_master << " sentinel\nsentinel auth-pass "
                 << sentinel_master << " " << password("sentinel") << "\n";
        conf.close();
        s.process =
            spawn({"redis-server", dir + "/sentinel.conf", "--sentinel"}, dir + "/redis.log");
        Redis conn(dir + "/redis.sock");
        if (s.pid() < 0 || !answers(s, conn, dir + "/redis.log", deadline))
            return false;
    }
    return true;
}

// Whether every sentinel knows the replica and the two other sentinels, as a failover
// needs.
bool Chassis::sentinels_ready()
{
    for (size_t i = 0; i < sentinels_.size(); ++i) {
        Redis sentinel(dir_ + "/sentinel" + std::to_string(i + 1) + "/redis.sock");
        std::string why;
        auto replies = sentinel.pipeline(0, {{"SENTINEL", "MASTER", sentinel_master}}, &why);
        if (replies.empty() || replies[0]->type != REDIS_REPLY_ARRAY)
            return false;
        std::map<std::string, std::string> fields;
        const redisReply *r = replies[0].get();
        for (size_t j = 0; j + 1 < r->elements; j += 2)
            fields[r->element[j]->str] = r->element[j + 1]->str;
        if (fields["num-slaves"] != "1" || fields["num-other-sentinels"] != "2")
            return false;
    }
    return true;
}

// Once the sentinels can fail over, the primary dies for good. What the replica holds of
// db 28 is emptied first: asynchronous replication may lose the last writes, and this
// makes it lose them all, so that db 28 is complete on the new primary only once every
// card has published there again.
bool Chassis::kill_primary()
{
    if (!wait_until([this] { return sentinels_ready(); }, 60s, 50ms)) {
        fault("the sentinels did not find the replica and each other within 60 s (see " + dir_ +
              "/sentinel1/redis.log)");
        return false;
    }
    Redis replica = as_operator(dir_ + "/replica/redis.sock");
    std::string why;
    if (!replica.command(0, {"CONFIG", "SET", "replica-read-only", "no"}, &why) ||
        !replica.command(global_db, {"FLUSHDB"}, &why)) {
        fault("cannot empty the replica's db 28: " + why);
        return false;
    }
    global_.stopping = true;
    global_.process.signal(SIGKILL);
    global_restarted_ = true;
    monitor_ = std::move(replica);
    return true;
}

// After kill_primary: the sentinels name the replica, and it is the primary.
bool Chassis::failed_over()
{
    Redis sentinel(dir_ + "/sentinel1/redis.sock");
    std::string why;
    auto named =
        sentinel.pipeline(0, {{"SENTINEL", "GET-MASTER-ADDR-BY-NAME", sentinel_master}}, &why);
    auto role = monitor_.pipeline(0, {{"ROLE"}}, &why);
    auto nth = [](const std::vector<Reply> &r, size_t i) {
        return r.size() == 1 && r[0]->type == REDIS_REPLY_ARRAY && r[0]->elements > i
                   ? std::string(r[0]->element[i]->str ? r[0]->element[i]->str : "")
                   : std::string();
    };
    if (nth(named, 1) == std::to_string(replica_port_) && nth(role, 0) == "master")
        return true;
    fault("sentinel 1 names port " + nth(named, 1) + " the primary, the replica (port " +
          std::to_string(replica_port_) + ") says it is " + nth(role, 0));
    return false;
}

} // namespace chassis
