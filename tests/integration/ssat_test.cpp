// The debug shell: a real listener served by a loop thread in this process, reached
// through raw sockets (the exact bytes on the wire) and through the built `ssat`.
#include <atomic>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "kx_global.h"
#include "ssat.h"
#include "test_redis.h"

using namespace testsupport;

namespace {

TempDir g_root;
kx_global_t *g_global = nullptr;
std::thread g_loop;
std::atomic<bool> g_loop_ended{false};
std::atomic<int> g_calls{0};

// Binary bytes through stdio, then through the descriptor itself, with 4 MiB after them.
const std::string dump_text = std::string("\0\x01\xff" "a\r\nb", 7) + std::string(4 << 20, 'x');

void cmd_num(int32_t n) { ++g_calls; printf("num=%d\n", n); }
void cmd_pair(const char *word, int n) { ++g_calls; printf("%s:%d", word, n); }
void cmd_void() { ++g_calls; }
void cmd_dump()
{
    fwrite(dump_text.data(), 1, 3, stdout);
    fflush(stdout);
    (void)!write(STDOUT_FILENO, dump_text.data() + 3, dump_text.size() - 3);
}

std::string ok(const std::string &output)
{
    return "OK " + std::to_string(output.size()) + "\n" + output;
}

// Connects and sends `request`; a server that stopped serving fails the test, not hangs it.
int dial(const std::string &request)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    timeval patience{30, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    sockaddr_un addr{AF_UNIX, {}};
    strncpy(addr.sun_path, (g_root / "var/run/ssat/shell.sock").c_str(), sizeof addr.sun_path - 1);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    (void)!send(fd, request.data(), request.size(), MSG_NOSIGNAL);
    return fd;
}

std::string reply_to(int fd)
{
    std::string reply;
    char buf[65536];
    for (ssize_t n; (n = recv(fd, buf, sizeof buf, 0)) > 0;)
        reply.append(buf, static_cast<size_t>(n));
    close(fd);
    return reply;
}

RunResult ssat(std::vector<std::string> args, std::vector<std::string> argv = {SSAT_BIN})
{
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv, {{"KX_ROOT", g_root.path()}});
}

class Ssat : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        setenv("KX_ROOT", g_root.path().c_str(), 1);
        g_global = kx_global_init("ssat_test", nullptr);
        ASSERT_EQ(ssat_lib_init(g_global, "shell"), 0);
        ASSERT_EQ(ssat_reg_mod_cmd("shell", "num", 0, "%d", cmd_num), 0);
        ASSERT_EQ(ssat_reg_mod_cmd("shell", "pair", 0, "%s %d", cmd_pair), 0);
        ASSERT_EQ(ssat_reg_mod_cmd("shell", "void", 0, "void", cmd_void), 0);
        ASSERT_EQ(ssat_reg_mod_cmd("shell", "dump", 0, "void", cmd_dump), 0);
        g_loop = std::thread([] { g_loop_ended = kx_global_run(g_global) == 0; });
    }
    static void TearDownTestSuite() // a failure here ends the program: it cannot hang
    {
        kill(getpid(), SIGTERM);
        ASSERT_TRUE(wait_for([] { return g_loop_ended.load(); })) << "SIGTERM left the loop running";
        g_loop.join();
        kx_global_finish(g_global);
    }
};

TEST_F(Ssat, LinesAreParsedByTheRegisteredFormat)
{
    const std::string num = "ERR num: expected %d, got ", binary =
        "ERR line holds bytes that are not printable text\n";
    const std::pair<std::string, std::string> cases[] = { // a handler runs exactly on OK
        {" \tnum  -2147483648 \t\n", ok("num=-2147483648\n")},
        {"num +7\nnum 8\n", ok("num=7\n")},
        {"num 2147483648\n", num + "'2147483648', not a 32-bit integer\n"},
        {"num 12abc\n", num + "'12abc', not a 32-bit integer\n"},
        {"num\n", num + "0 arguments\n"},
        {"num 1 2\n", num + "2 arguments\n"},
        {"pair " + std::string(255, 'w') + " 3\n", ok(std::string(255, 'w') + ":3")},
        {"pair " + std::string(256, 'w') + " 3\n", "ERR pair: expected %s %d, got a word longer "
                                                   "than 255 bytes\n"},
        {"void\n", ok("")},
        {"nosuch\n", "ERR unknown command 'nosuch' (try help)\n"},
        {std::string("num \0 1\n", 8), binary},
        {"pair \xc3\xa9 1\n", binary},
        {"num 1" + std::string(4091, ' ') + "\n", ok("num=1\n")},
        {"num 1" + std::string(4092, ' ') + "\n", "ERR line longer than 4096 bytes\n"},
        {"help\n", ok("num %d\npair %s %d\nvoid void\ndump void\nhelp void\n")},
    };
    for (const auto &[request, reply] : cases) {
        int before = g_calls;
        EXPECT_EQ(reply_to(dial(request)), reply) << request.substr(0, 40);
        EXPECT_EQ(g_calls - before, reply.starts_with("OK") && request != "help\n" ? 1 : 0);
    }
}

TEST_F(Ssat, ClientPassesTheOutputOnByteForByteAndExitsByOutcome)
{
    const std::tuple<std::vector<std::string>, int, std::string, std::string> cases[] = {
        {{"shell", "dump"}, 0, dump_text, ""},
        {{"shell", "pair", "x", "5"}, 0, "x:5", ""},
        {{"shell", "num", "x"}, 1, "", "num: expected %d, got 'x', not a 32-bit integer\n"},
        {{"vek_cap", "dump_all"}, 3, "",
         "vek_cap is not running (no socket at " + g_root / "var/run/ssat/vek_cap.sock" + ")\n"},
        {{"shell"}, 2, "", "ssat: missing MODULE or COMMAND\n"},
    };
    for (const auto &[args, status, out, err] : cases) {
        RunResult r = ssat(args);
        EXPECT_EQ(r.status, status) << args.back();
        EXPECT_TRUE(r.out == out) << args.back() << ": " << r.out.size() << " bytes";
        EXPECT_TRUE(r.err.starts_with(err)) << r.err;
    }
}

// An idle client is told off after 5 s; meanwhile one that stops reading its reply,
// some that vanish before their reply and many at once disturb no one.
TEST_F(Ssat, IdleStalledVanishingAndManyClientsDoNotDisturbOneAnother)
{
    int idle = dial("num");
    int stalled = dial("dump\n");
    for (int i = 0; i < 6; ++i)
        close(dial("dump\n"));
    std::vector<int> many;
    for (int i = 0; i < 30; ++i)
        many.push_back(dial("num " + std::to_string(i) + "\n"));
    for (int i = 0; i < 30; ++i)
        ASSERT_EQ(reply_to(many[i]), ok("num=" + std::to_string(i) + "\n"));
    EXPECT_EQ(reply_to(idle), "ERR no command line within 5 s\n");
    close(stalled);
}

TEST_F(Ssat, OnlyRootAndTheDaemonsUserGetIn)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to play another user";
    // Open the directories' and the socket's modes: only the peer check stands in the way.
    for (const char *path : {"", "/var", "/var/run", "/var/run/ssat", "/var/run/ssat/shell.sock"})
        chmod((g_root.path() + path).c_str(), 0777);
    int before = g_calls;
    RunResult r = ssat({"shell", "void"},
                       {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", SSAT_BIN});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "permission denied\n");
    EXPECT_EQ(g_calls, before);
}

} // namespace
