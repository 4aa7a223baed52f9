// The debug shell: a real listener on a loop thread in this process, driven through
// raw sockets (exact bytes on the wire) and through the built `ssat` client.
#include <atomic>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "kx_global.h"
#include "ssat.h"
#include "test_redis.h"

using namespace testsupport;

namespace {

std::atomic<int> g_calls{0};
kx_global_t *g_global = nullptr;
std::string g_file; // where "redirect" sends its first line

const std::string raw_bytes("\0\x01\xff" "a\r\nb", 7);
const size_t big_size = 4 << 20;

void cmd_num(int32_t n) { ++g_calls; printf("num=%d\n", n); }
void cmd_level(uint32_t n) { ++g_calls; printf("%u", n); }
void cmd_pair(const char *word, int n) { ++g_calls; printf("%s:%d", word, n); }
void cmd_count() { ++g_calls; }
void cmd_raw()
{
    ++g_calls;
    fwrite(raw_bytes.data(), 1, 3, stdout);
    fflush(stdout);
    (void)!write(STDOUT_FILENO, raw_bytes.data() + 3, raw_bytes.size() - 3);
}
void cmd_big()
{
    ++g_calls;
    for (size_t i = 0; i < big_size; ++i)
        putchar('a' + static_cast<int>(i % 26));
}
// Like a dump "collected" into a file: moves descriptor 1 itself and puts it back.
int cmd_redirect()
{
    ++g_calls;
    int saved = dup(STDOUT_FILENO);
    int fd = open(g_file.c_str(), O_RDWR | O_CREAT, 0666);
    dup2(fd, STDOUT_FILENO);
    close(fd);
    printf("to file");
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    printf("after");
    return 0;
}
void cmd_stop() { kx_global_stop(g_global); }

class SsatTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        root = new TempDir;
        setenv("KX_ROOT", root->path().c_str(), 1);
        g_file = *root / "collected";
        g_global = kx_global_init("ssat_test", nullptr);
        ASSERT_NE(g_global, nullptr);
        ASSERT_EQ(ssat_lib_init(g_global, "shelltest"), 0);
        const char *m = "shelltest";
        ASSERT_EQ(ssat_reg_mod_cmd(m, "num", 0, "%d", cmd_num), 0);
        ASSERT_EQ(ssat_reg_mod_cmd(m, "level", 0, "%d", cmd_level), 0);
        ASSERT_EQ(ssat_reg_mod_cmd(m, "pair", 0, "%s %d", cmd_pair), 0);
        ASSERT_EQ(ssat_reg_mod_cmd(m, "count", 0, "void", cmd_count), 0);
        ASSERT_EQ(ssat_reg_mod_cmd(m, "raw", 0, "void", cmd_raw), 0);
        ASSERT_EQ(ssat_reg_mod_cmd(m, "big", 0, "void", cmd_big), 0);
        ASSERT_EQ(ssat_reg_mod_cmd(m, "redirect", 0, "void", cmd_redirect), 0);
        ASSERT_EQ(ssat_reg_mod_cmd(m, "stop", 0, "void", cmd_stop), 0);
        loop = new std::thread([] { kx_global_run(g_global); });
    }
    static void TearDownTestSuite()
    {
        ask("stop\n");
        loop->join();
        kx_global_finish(g_global);
        EXPECT_NE(access(sock().c_str(), F_OK), 0) << "the socket outlived kx_global_finish";
        delete loop;
        delete root;
        unsetenv("KX_ROOT");
    }

    static std::string sock() { return *root / "var/run/ssat/shelltest.sock"; }

    static int dial()
    {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        timeval patience{30, 0}; // a server that stopped serving fails the test, not hangs it
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        strncpy(addr.sun_path, sock().c_str(), sizeof addr.sun_path - 1);
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        return fd;
    }
    static std::string read_to_end(int fd)
    {
        std::string reply;
        char buf[65536];
        for (ssize_t n; (n = recv(fd, buf, sizeof buf, 0)) > 0;)
            reply.append(buf, static_cast<size_t>(n));
        return reply;
    }
    static std::string ask(const std::string &request)
    {
        int fd = dial();
        EXPECT_EQ(send(fd, request.data(), request.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(request.size()));
        std::string reply = read_to_end(fd);
        close(fd);
        return reply;
    }
    static RunResult ssat(const std::vector<std::string> &args)
    {
        std::vector<std::string> argv{SSAT_BIN};
        argv.insert(argv.end(), args.begin(), args.end());
        return run(argv, {{"KX_ROOT", root->path()}});
    }

    static TempDir *root;
    static std::thread *loop;
};

TempDir *SsatTest::root = nullptr;
std::thread *SsatTest::loop = nullptr;

std::string ok(const std::string &output)
{
    return "OK " + std::to_string(output.size()) + "\n" + output;
}

TEST_F(SsatTest, LinesAreParsedByTheRegisteredFormat)
{
    const std::string w255(255, 'w');
    const std::string num_usage = "ERR num: expected %d, ";
    const std::string pair_usage = "ERR pair: expected %s %d, ";
    struct Case {
        std::string request;
        std::string reply; // a handler runs exactly when the reply starts with "OK"
    };
    const Case cases[] = {
        {"num 42\n", ok("num=42\n")},
        {"num -2147483648\n", ok("num=-2147483648\n")},
        {"num +7\n", ok("num=7\n")},
        {" \tnum   5 \t\n", ok("num=5\n")},
        {"num 2147483648\n", num_usage + "got '2147483648', not a 32-bit integer\n"},
        {"num -2147483649\n", num_usage + "got '-2147483649', not a 32-bit integer\n"},
        {"num 12abc\n", num_usage + "got '12abc', not a 32-bit integer\n"},
        {"num 0x10\n", num_usage + "got '0x10', not a 32-bit integer\n"},
        {"num +-1\n", num_usage + "got '+-1', not a 32-bit integer\n"},
        {"num -\n", num_usage + "got '-', not a 32-bit integer\n"},
        {"num\n", num_usage + "got 0 arguments\n"},
        {"num 1 2\n", num_usage + "got 2 arguments\n"},
        {"level -1\n", ok("4294967295")},
        {"pair abc 5\n", ok("abc:5")},
        {"pair " + w255 + " -3\n", ok(w255 + ":-3")},
        {"pair " + w255 + "w 1\n", pair_usage + "got a word longer than 255 bytes\n"},
        {"pair 5 abc\n", pair_usage + "got 'abc', not a 32-bit integer\n"},
        {"pair abc\n", pair_usage + "got 1 argument\n"},
        {"count\n", ok("")},
        {"count extra\n", "ERR count: expected no argument, got 1 argument\n"},
        {"nosuch 1\n", "ERR unknown command 'nosuch' (try help)\n"},
        {"\n", "ERR empty command line\n"},
        {"count\r\n", "ERR line holds bytes that are not printable text\n"},
        {std::string("num \0 1\n", 8), "ERR line holds bytes that are not printable text\n"},
        {"pair \xc3\xa9 1\n", "ERR line holds bytes that are not printable text\n"},
        {"num 1" + std::string(4091, ' ') + "\n", ok("num=1\n")}, // 4096 bytes: the limit
        {"num 1" + std::string(4092, ' ') + "\n", "ERR line longer than 4096 bytes\n"},
        {"num 1" + std::string(9000, ' '), "ERR line longer than 4096 bytes\n"},
        {"num 3\nnum 4\n", ok("num=3\n")}, // one command per connection
        {"help\n", ok("num %d\nlevel %d\npair %s %d\ncount void\nraw void\nbig void\n"
                      "redirect void\nstop void\nhelp void\n")},
        {"help me\n", "ERR help: expected no argument, got 1 argument\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.request.substr(0, 40));
        int before = g_calls;
        EXPECT_EQ(ask(c.request), c.reply);
        bool runs = c.reply.rfind("OK", 0) == 0 && c.request.rfind("help", 0) != 0;
        EXPECT_EQ(g_calls - before, runs ? 1 : 0);
    }
}

TEST_F(SsatTest, ClientPrintsTheHandlersOutputByteForByte)
{
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string out;
        std::string err;
    };
    std::string big;
    for (size_t i = 0; i < big_size; ++i)
        big += static_cast<char>('a' + i % 26);
    const Case cases[] = {
        {{"shelltest", "raw"}, 0, raw_bytes, ""},
        {{"shelltest", "num", "-5"}, 0, "num=-5\n", ""},
        {{"shelltest", "pair", "x", "5"}, 0, "x:5", ""},
        {{"shelltest", "big"}, 0, big, ""},
        {{"shelltest", "redirect"}, 0, "after", ""},
        {{"shelltest", "count"}, 0, "", ""},
        {{"shelltest", "nosuch"}, 1, "", "unknown command 'nosuch' (try help)\n"},
        {{"shelltest", "num", "x"}, 1, "", "num: expected %d, got 'x', not a 32-bit integer\n"},
        {{"vek_cap", "dump_all"}, 3, "",
         "vek_cap is not running (no socket at " + *root / "var/run/ssat/vek_cap.sock" + ")\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.args[1]);
        RunResult r = ssat(c.args);
        EXPECT_EQ(r.status, c.status);
        EXPECT_TRUE(r.out == c.out) << "stdout differs: " << r.out.size() << " bytes";
        EXPECT_EQ(r.err, c.err);
    }
    EXPECT_EQ(read_file(g_file), "to file");
    EXPECT_EQ(ssat({"shelltest"}).status, 2);
    RunResult help = ssat({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("usage: ssat MODULE COMMAND"), std::string::npos);
}

// An idle client, one that stops reading a large reply and clients that vanish
// before their reply never hold up the others; the idle one is told and closed.
TEST_F(SsatTest, StalledAndVanishingClientsDoNotDisturbOthers)
{
    int idle = dial();
    ASSERT_EQ(send(idle, "num", 3, MSG_NOSIGNAL), 3);
    int stalled = dial();
    ASSERT_EQ(send(stalled, "big\n", 4, MSG_NOSIGNAL), 4);
    for (int i = 0; i < 20; ++i) { // a few leave in the middle of a large reply
        int fd = dial();
        const char *line = i < 4 ? "big\n" : "num 1\n";
        ASSERT_EQ(send(fd, line, strlen(line), MSG_NOSIGNAL), static_cast<ssize_t>(strlen(line)));
        if (i % 2) { // reset instead of an orderly close
            linger hard{1, 0};
            setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
        }
        close(fd);
    }
    std::vector<int> many;
    for (int i = 0; i < 30; ++i) {
        many.push_back(dial());
        std::string line = "num " + std::to_string(i) + "\n";
        ASSERT_EQ(send(many.back(), line.data(), line.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(line.size()));
    }
    for (int i = 0; i < 30; ++i) {
        ASSERT_EQ(read_to_end(many[i]), ok("num=" + std::to_string(i) + "\n"));
        close(many[i]);
    }
    EXPECT_EQ(read_to_end(idle), "ERR no command line within 5 s\n");
    close(idle);
    close(stalled);
    EXPECT_EQ(ask("num 1\n"), ok("num=1\n"));
}

TEST_F(SsatTest, OnlyRootAndTheDaemonsUserGetIn)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to play another user";
    // Open the file permissions so that only the peer check stands in the way.
    std::string dir = *root / "var/run/ssat";
    struct stat st{};
    ASSERT_EQ(stat(dir.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    ASSERT_EQ(stat(sock().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    ASSERT_EQ(chmod(root->path().c_str(), 0755), 0);
    ASSERT_EQ(chmod(dir.c_str(), 0755), 0);
    ASSERT_EQ(chmod(sock().c_str(), 0666), 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, sock().c_str(), sizeof addr.sun_path - 1);
    int before = g_calls;
    pid_t child = fork();
    if (child == 0) { // no allocation here: another thread runs in the parent
        static const char expected[] = "ERR permission denied\n";
        char reply[64] = {};
        if (setgid(65534) != 0 || setuid(65534) != 0)
            _exit(10);
        int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0)
            _exit(11);
        // The refusal may come before the line is sent (EPIPE): it is read all the same.
        (void)!send(fd, "count\n", 6, MSG_NOSIGNAL);
        ssize_t n = recv(fd, reply, sizeof reply, MSG_WAITALL);
        _exit(n == sizeof expected - 1 && memcmp(reply, expected, n) == 0 ? 0 : 12);
    }
    int raw = 0;
    ASSERT_EQ(waitpid(child, &raw, 0), child);
    EXPECT_TRUE(WIFEXITED(raw) && WEXITSTATUS(raw) == 0) << "status " << raw;
    EXPECT_EQ(g_calls, before);
    chmod(sock().c_str(), 0600);
    chmod(dir.c_str(), 0700);
    chmod(root->path().c_str(), 0700);
}

TEST_F(SsatTest, SetUpAndRegistrationRefuseWhatCannotWork)
{
    kx_global_t *other = kx_global_init("other", nullptr);
    ASSERT_NE(other, nullptr);
    // A live listener is never replaced.
    EXPECT_EQ(ssat_lib_init(other, "shelltest"), SSAT_ESOCKET);
    EXPECT_EQ(ask("num 2\n"), ok("num=2\n"));
    // A socket file left by a dead process is.
    std::string stale = *root / "var/run/ssat/stale.sock";
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, stale.c_str(), sizeof addr.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    close(fd);
    EXPECT_EQ(ssat_lib_init(other, "stale"), 0);
    // Something else at the path is left alone.
    write_file(*root / "var/run/ssat/plain.sock", "data");
    EXPECT_EQ(ssat_lib_init(other, "plain"), SSAT_ESOCKET);
    EXPECT_EQ(read_file(*root / "var/run/ssat/plain.sock"), "data");
    EXPECT_EQ(ssat_lib_init(other, "../escape"), SSAT_EINVAL);

    EXPECT_EQ(ssat_reg_mod_cmd("stale", "a", 0, "%d", cmd_count), SSAT_EINVAL);
    EXPECT_EQ(ssat_reg_mod_cmd("stale", "a", 0, "void", cmd_num), SSAT_EINVAL);
    EXPECT_EQ(ssat_reg_mod_cmd("stale", "a", 0, "%u", cmd_num), SSAT_EINVAL);
    EXPECT_EQ(ssat_reg_mod_cmd("stale", "two words", 0, "void", cmd_count), SSAT_EINVAL);
    EXPECT_EQ(ssat_reg_mod_cmd("stale", "help", 0, "void", cmd_count), SSAT_EEXIST);
    EXPECT_EQ(ssat_reg_mod_cmd("stale", "a", 0, "void", cmd_count), 0);
    EXPECT_EQ(ssat_reg_mod_cmd("stale", "a", 0, "void", cmd_count), SSAT_EEXIST);
    kx_global_finish(other);
    EXPECT_NE(access(stale.c_str(), F_OK), 0);
}

} // namespace
