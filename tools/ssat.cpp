// ssat: runs one debug-shell command in a daemon and prints what it printed.
//
//   ssat MODULE COMMAND [ARGS...]
//
// The reply's status line ("OK <n>" or "ERR <reason>", see platform/kx/ssat.cpp) is
// consumed here; the handler's n bytes go to standard output unchanged.
// Exit status: 0 the command ran; 1 the daemon refused it (reason on stderr) or its
// reply was cut short; 2 bad usage; 3 the daemon cannot be reached.
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "kx_global.h"
#include "ssat.h"

namespace {

constexpr int exit_refused = 1;
constexpr int exit_usage = 2;
constexpr int exit_unreachable = 3;
constexpr timeval reply_timeout{30, 0}; // a daemon that stopped serving

constexpr const char *usage_text =
    "usage: ssat MODULE COMMAND [ARGS...]\n"
    "Runs COMMAND in the debug shell of the daemon MODULE and writes its output to standard\n"
    "output unchanged. The socket is $KX_ROOT/var/run/ssat/MODULE.sock.\n"
    "The commands of vek_cap, each with an example (`ssat MODULE help` lists any module's):\n"
    "  ssat vek_cap help                   the commands and their argument formats\n"
    "  ssat vek_cap log-level 5            debug level: 0 off, 1 errors, 2 warnings, 4 info,\n"
    "                                      5 debug\n"
    "  ssat vek_cap show_time              when the key events last happened\n"
    "  ssat vek_cap dump_card_info         the card's identity\n"
    "  ssat vek_cap dump_status            the local and global ready flags\n"
    "  ssat vek_cap dump_dep_mod           every dependency module and its ready flag\n"
    "  ssat vek_cap dump_all               the four dumps above, in one reply\n"
    "  ssat vek_cap collect                dump_all into /data/collect/vek_cap.log\n"
    "  ssat vek_cap set_dep_mod fib_mgr 1  write a module's ready record (0: not ready)\n"
    "Exit status: 0 ran, 1 refused by the daemon, 2 bad usage, 3 daemon not reachable.\n";

int usage_error(const char *why)
{
    fprintf(stderr, "ssat: %s\n%s", why, usage_text);
    return exit_usage;
}

bool printable(std::string_view s)
{
    for (char c : s)
        if (c < ' ' || c >= 0x7f)
            return false;
    return true;
}

int connect_daemon(const std::string &module, const std::string &path)
{
    sockaddr_un addr{};
    if (path.size() >= sizeof addr.sun_path) {
        fprintf(stderr, "ssat: socket path too long: %s\n", path.c_str());
        return -1;
    }
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        perror("ssat: socket");
        return -1;
    }
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0) {
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &reply_timeout, sizeof reply_timeout);
        return fd;
    }
    int err = errno;
    close(fd);
    if (err == ENOENT)
        fprintf(stderr, "%s is not running (no socket at %s)\n", module.c_str(), path.c_str());
    else if (err == ECONNREFUSED)
        fprintf(stderr, "%s is not running (stale socket at %s)\n", module.c_str(), path.c_str());
    else
        fprintf(stderr, "ssat: cannot connect to %s: %s\n", path.c_str(), strerror(err));
    return -1;
}

// Reads the reply to its end (the daemon closes the connection after it) and passes
// on the status line's verdict and the announced bytes. `send_error` is why the line
// could not be sent, or 0: a daemon refusing a client may do so before reading its
// line, and its reason is read all the same.
int relay_reply(int fd, const std::string &module, int send_error)
{
    std::string reply;
    char buf[65536];
    int read_error = 0;
    for (;;) {
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n > 0) {
            reply.append(buf, static_cast<size_t>(n));
        } else if (n == 0 || errno != EINTR) { // EINTR: stopped and continued
            read_error = n < 0 ? errno : 0;
            break;
        }
    }
    size_t eol = reply.find('\n');
    if (eol == std::string::npos && send_error) {
        fprintf(stderr, "ssat: cannot send to %s: %s\n", module.c_str(), strerror(send_error));
        return exit_unreachable;
    }
    if (eol == std::string::npos) {
        fprintf(stderr, "ssat: no reply from %s%s%s\n", module.c_str(), read_error ? ": " : "",
                read_error ? strerror(read_error) : "");
        return exit_refused;
    }
    std::string status = reply.substr(0, eol);
    std::string_view body = std::string_view(reply).substr(eol + 1);
    if (status.starts_with("ERR ")) {
        fprintf(stderr, "%s\n", status.c_str() + 4);
        return exit_refused;
    }
    char *end = nullptr;
    bool ok = status.starts_with("OK ") && isdigit(static_cast<unsigned char>(status[3]));
    unsigned long long expected = ok ? strtoull(status.c_str() + 3, &end, 10) : 0;
    if (!end || *end != '\0') {
        fprintf(stderr, "ssat: unexpected reply from %s: %s\n", module.c_str(), status.c_str());
        return exit_refused;
    }
    body = body.substr(0, expected); // bytes past the announced ones are not the handler's
    if (!kx_write_all(STDOUT_FILENO, body)) {
        perror("ssat: standard output");
        return exit_refused;
    }
    if (body.size() == expected)
        return 0;
    fprintf(stderr, "ssat: reply from %s cut short: %zu of %llu bytes\n", module.c_str(),
            body.size(), expected);
    return exit_refused;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc >= 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
        fputs(usage_text, stdout);
        return 0;
    }
    if (argc < 3)
        return usage_error("missing MODULE or COMMAND");
    std::string module = argv[1];
    if (!ssat_valid_module(module.c_str()))
        return usage_error("MODULE is a name of letters, digits, '_', '.' and '-'");
    std::string line;
    for (int i = 2; i < argc; ++i) {
        if (!printable(argv[i]) || !*argv[i])
            return usage_error("COMMAND and ARGS are non-empty printable text");
        line += (i > 2 ? " " : "") + std::string(argv[i]);
    }
    line += '\n';

    std::string path = kx_root_path("/var/run/ssat/");
    path += module + ".sock";
    signal(SIGPIPE, SIG_IGN); // a daemon that refuses the client early is read, not fatal
    int fd = connect_daemon(module, path);
    if (fd < 0)
        return exit_unreachable;
    int rc = relay_reply(fd, module, kx_write_all(fd, line) ? 0 : errno);
    close(fd);
    return rc;
}
