// The debug shell abused: long and binary lines, a crowd of clients, clients that vanish,
// and another user. Each abuse is refused or served, and every daemon answers after.
#include "faults.h"

#include <sys/stat.h>

namespace chassis {
namespace {

std::string shell_socket(const FaultRun &f, int card)
{
    return f.chassis.root(card) + "/var/run/ssat/vek_cap.sock";
}

// Runs `argv` to its end (killed after 10 s): its exit status, what it wrote in `*out`.
int run_tool(Chassis &chassis, const std::vector<std::string> &argv, const host::Env &env,
             std::string *out)
{
    std::string path = chassis.dir() + "/tool.out";
    unlink(path.c_str());
    int status = chassis.spawn(argv, path, env).wait(10s);
    *out = host::read_file(path);
    return status;
}

bool abuse(FaultRun &f)
{
    const std::string socket = shell_socket(f, 0);
    std::vector<ShellTalk> talks = {{std::string(1 << 20, 'a') + "\n"}, {"show_time\x01\xff\n"}};
    talk(socket, talks, 10s);
    bool ok = true;
    if (!talks[0].ended || !talks[0].reply.starts_with("ERR line longer than 4096 bytes"))
        ok = f.fault("a 1 MiB line got '" + talks[0].reply.substr(0, 80) + "'");
    if (!talks[1].ended || !talks[1].reply.starts_with("ERR line holds bytes"))
        ok = f.fault("a line of binary bytes got '" + talks[1].reply + "'");
    talks.assign(200, {"show_time\n"});
    for (int i = 0; i < 20; ++i) // and twenty more that vanish after the first bytes of a dump
        talks.push_back({"dump_all\n", 16});
    talk(socket, talks, 20s);
    int served = 0, turned_away = 0;
    for (size_t i = 0; i < 200; ++i) {
        served += talks[i].ended && talks[i].reply.starts_with("OK ");
        turned_away += talks[i].ended && talks[i].reply == "ERR too many clients, try again\n";
    }
    printf("200 clients at once: %d served, %d turned away\n", served, turned_away);
    if (served + turned_away != 200)
        ok = f.fault("of 200 clients at once, " + std::to_string(200 - served - turned_away) +
                     " were neither served nor turned away");
    // Another user: the socket's directory keeps it out; let in as far as the socket, the
    // daemon refuses it.
    const std::string ssat = tools_dir() + "/ssat", run_dir = f.chassis.root(0) + "/var/run/ssat";
    const std::vector<std::string> as_nobody = {
        "setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
        ssat,      "vek_cap",       "show_time"};
    const host::Env env = {{"KX_ROOT", f.chassis.root(0)}};
    std::string out;
    int status = run_tool(f.chassis, as_nobody, env, &out);
    if (status != 3 || out.find("Permission denied") == std::string::npos)
        ok = f.fault("another user reached the debug shell: status " + std::to_string(status) +
                     ", '" + out + "'");
    chmod(f.chassis.dir().c_str(), 0711);
    chmod(run_dir.c_str(), 0711);
    chmod(socket.c_str(), 0666);
    status = run_tool(f.chassis, as_nobody, env, &out);
    chmod(socket.c_str(), 0600);
    chmod(run_dir.c_str(), 0700);
    chmod(f.chassis.dir().c_str(), 0700);
    if (status != 1 || out.find("permission denied") == std::string::npos)
        ok = f.fault("the daemon did not refuse another user: status " + std::to_string(status) +
                     ", '" + out + "'");
    return shells_answer(f, answer_limit) && ok;
}

} // namespace

bool shells_answer(FaultRun &f, std::chrono::milliseconds limit, long long *slowest)
{
    bool ok = true;
    for (int c = 0; c < f.chassis.cards(); ++c) {
        std::vector<ShellTalk> talks = {{"show_time\n"}};
        talk(shell_socket(f, c), talks, limit);
        if (slowest)
            *slowest = std::max(*slowest, talks[0].ms);
        if (!talks[0].ended || !talks[0].reply.starts_with("OK "))
            ok = f.fault("card " + std::to_string(c + 1) + "'s debug shell did not answer within " +
                         std::to_string(limit.count()) + " ms: '" + talks[0].reply + "'");
    }
    return ok;
}

const Fault shell_abuse = {
    .name = "shell-abuse",
    .what = "card 1's debug shell abused: long and binary lines, 200 clients, another user",
    .after_converge = abuse};

} // namespace chassis
