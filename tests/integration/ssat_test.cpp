// The debug shell: a real listener served by a loop thread in this process, reached
// through raw sockets (the exact bytes on the wire) and through the built `ssat`.
#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <thread>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "ssat.h" // and kx_global.h
#include "test_redis.h"

namespace {

testsupport::TempDir g_root;
std::atomic<int> g_calls{0};

// Binary bytes with 4 MiB after them, left in stdio's buffer for the shell to flush.
const std::string dump_text = std::string("\0\x01\xff\r\nb", 6) + std::string(4 << 20, 'x');

// Handlers write through stdio and through the descriptor itself.
void cmd_num(int32_t n) { printf("num=%d\n", n), ++g_calls; }
void cmd_pair(const char *word, int n) { dprintf(STDOUT_FILENO, "%s:%d", word, n), ++g_calls; }
void cmd_dump() { fwrite(dump_text.data(), 1, dump_text.size(), stdout); }

std::string ok(const std::string &s) { return "OK " + std::to_string(s.size()) + "\n" + s; }

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
    return close(fd), reply;
}

// The shell's loop runs in a thread until SIGTERM ends it. Many clients at once, beside
// one that stops reading its reply and one that vanishes before its reply: each gets its
// own, and a handler runs exactly on OK. Then the client passes the output on byte for byte
// and exits by the outcome; run as root (as CI does), it drops to another user to be
// refused: with the directories' and the socket's modes opened, only the peer check
// stands in the way.
TEST(Ssat, LinesAreParsedByTheRegisteredFormatAndTheClientPassesTheReplyOn)
{
    setenv("KX_ROOT", g_root.path().c_str(), 1);
    kx_global_t *global = kx_global_init("ssat_test", nullptr);
    ASSERT_EQ(ssat_lib_init(global, "shell"), 0);
    ASSERT_EQ(ssat_reg_mod_cmd("shell", "num", 0, "%d", cmd_num), 0);
    ASSERT_EQ(ssat_reg_mod_cmd("shell", "pair", 0, "%s %d", cmd_pair), 0);
    ASSERT_EQ(ssat_reg_mod_cmd("shell", "dump", 0, "void", cmd_dump), 0);
    std::atomic<bool> ended = false;
    std::thread loop([&] { ended = kx_global_run(global) == 0; }); // a failure ends the program

    const std::string num = "ERR num: expected %d, got ",
                      text = "ERR line holds bytes that are not printable text\n";
    const std::pair<std::string, std::string> cases[] = {
        {" \tnum  -2147483648 \t\nnum 8\n", ok("num=-2147483648\n")}, // one line a connection
        {"num 2147483648\n", num + "'2147483648', not a 32-bit integer\n"},
        {"num\n", num + "0 arguments\n"},
        {"num 1 2\n", num + "2 arguments\n"},
        {"pair " + std::string(255, 'w') + " 3\n", ok(std::string(255, 'w') + ":3")},
        {"pair " + std::string(256, 'w') + " 3\n",
         "ERR pair: expected %s %d, got a word longer than 255 bytes\n"},
        {"nosuch\n", "ERR unknown command 'nosuch' (try help)\n"},
        {std::string("num \0 1\n", 8), text},
        {"pair \xc3\xa9 1\n", text},
        {"num 1" + std::string(4091, ' ') + "\n", ok("num=1\n")},
        {"num 1" + std::string(4092, ' ') + "\n", "ERR line longer than 4096 bytes\n"},
        {"help\n", ok("num %d\npair %s %d\ndump void\nhelp void\n")},
    };
    const int stalled = dial("dump\n"); // read last
    close(dial("dump\n"));
    std::vector<int> fds;
    std::ranges::transform(cases, std::back_inserter(fds),
                           [](const auto &c) { return dial(c.first); });
    for (size_t i = 0; i < fds.size(); ++i)
        EXPECT_EQ(reply_to(fds[i]), cases[i].second) << cases[i].first.substr(0, 40);
    EXPECT_EQ(g_calls, 3); // the OK lines but help
    EXPECT_TRUE(reply_to(stalled) == ok(dump_text)) << "the stalled client's reply";

    for (const char *path : {"", "/var", "/var/run", "/var/run/ssat", "/var/run/ssat/shell.sock"})
        chmod((g_root.path() + path).c_str(), 0777);
    const std::tuple<std::vector<std::string>, int, std::string, std::string> runs[] = {
        {{SSAT_BIN, "shell", "dump"}, 0, dump_text, ""},
        {{SSAT_BIN, "shell", "num", "x"},
         1,
         "",
         "num: expected %d, got 'x', not a 32-bit integer\n"},
        {{SSAT_BIN, "vek_cap", "dump_all"},
         3,
         "",
         "vek_cap is not running (no socket at " + g_root / "var/run/ssat/vek_cap.sock" + ")\n"},
        {{SSAT_BIN, "shell"}, 2, "", "ssat: missing MODULE or COMMAND\n"},
        {{"setpriv", "--reuid=65534", "--clear-groups", SSAT_BIN, "shell", "num", "1"},
         1,
         "",
         "permission denied\n"},
    };
    for (const auto &[argv, status, out, err] : runs) { // KX_ROOT is inherited
        testsupport::RunResult r = testsupport::run(argv);
        EXPECT_EQ(r.status, status) << argv.back();
        EXPECT_TRUE(r.out == out) << argv.back() << ": " << r.out.size() << " bytes";
        EXPECT_TRUE(r.err.starts_with(err)) << r.err;
    }
    EXPECT_EQ(g_calls, 3); // neither the refused num nor the bad one ran
    kill(getpid(), SIGTERM);
    ASSERT_TRUE(testsupport::wait_for([&] { return ended.load(); })) << "SIGTERM left it running";
    loop.join();
    kx_global_finish(global);
}

} // namespace
