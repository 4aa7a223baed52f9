// Talk with a daemon's debug shell: many clients at once, as well or as badly behaved as
// a fault wants them.
#include "vek_chassis.h"

#include <cerrno>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace chassis {
namespace {

// A connection to `addr`, made within `wait` while the daemon's backlog is full; -1 when
// none could be.
int connected(const sockaddr_un &addr, const timeval &wait)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait) != 0 ||
        connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0 ||
        fcntl(fd, F_SETFL, O_NONBLOCK) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

} // namespace

void talk(const std::string &socket, std::vector<ShellTalk> &talks, std::chrono::milliseconds limit)
{
    auto t0 = Clock::now();
    std::vector<int> fds;
    std::vector<size_t> sent(talks.size(), 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", socket.c_str());
    const timeval wait{static_cast<time_t>(limit.count() / 1000), 0};
    for (size_t i = 0; i < talks.size(); ++i)
        fds.push_back(connected(addr, wait));
    auto finish = [&](size_t i, bool ended) {
        close(fds[i]);
        fds[i] = -1;
        talks[i].ended = ended;
        talks[i].ms = ms_since(t0);
    };
    for (;;) {
        std::vector<pollfd> polls;
        std::vector<size_t> which;
        for (size_t i = 0; i < talks.size(); ++i)
            if (fds[i] >= 0) {
                bool more = sent[i] < talks[i].request.size();
                polls.push_back({fds[i], static_cast<short>(POLLIN | (more ? POLLOUT : 0)), 0});
                which.push_back(i);
            }
        long long left = limit.count() - ms_since(t0);
        if (polls.empty() || left <= 0 || poll(polls.data(), polls.size(), int(left)) < 0)
            break;
        for (size_t k = 0; k < polls.size(); ++k) {
            size_t i = which[k];
            ShellTalk &t = talks[i];
            if (polls[k].revents & POLLOUT) {
                ssize_t n = send(fds[i], t.request.data() + sent[i], t.request.size() - sent[i],
                                 MSG_NOSIGNAL);
                // A daemon that stopped reading takes no more: nothing more to send.
                sent[i] = n > 0             ? sent[i] + size_t(n)
                          : errno == EAGAIN ? sent[i]
                                            : t.request.size();
            }
            if (!(polls[k].revents & (POLLIN | POLLHUP | POLLERR)))
                continue;
            char buf[4096];
            ssize_t n = recv(fds[i], buf, sizeof buf, 0);
            if (n > 0)
                t.reply.append(buf, size_t(n));
            if (n > 0 && t.reply.size() >= t.hang_up_after)
                finish(i, false);
            else if (n == 0 || (n < 0 && errno != EAGAIN)) // a reset follows a refused line
                finish(i, n == 0 || errno == ECONNRESET);
        }
    }
    for (int fd : fds)
        if (fd >= 0)
            close(fd);
}

} // namespace chassis
