#pragma once

// Files' permission bits and processes of another user for the owner-only tests. A child
// forked by asOtherUser() uses plain system calls only, and ends with _exit.

#include <QByteArray>
#include <QFile>
#include <QString>
#include <cerrno>
#include <csignal>
#include <grp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ownership {
constexpr uid_t kNobody = 65534;
constexpr int kCannotSwitch = 90; // exit code of a child that could not become kNobody

inline int mode(const QString& path)
{
    struct stat info = {};
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0 ? int(info.st_mode & 07777)
                                                                    : -1;
}

// Forks a child that drops to user and group kNobody and runs body; returns its pid.
template <typename Body> pid_t asOtherUser(Body body)
{
    const pid_t pid = ::fork();
    if (pid != 0)
        return pid;
    ::alarm(60);
    if (::setgroups(0, nullptr) != 0 || ::setgid(kNobody) != 0 || ::setuid(kNobody) != 0)
        ::_exit(kCannotSwitch);
    ::_exit(body());
}

inline int waitExit(pid_t pid)
{
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
}

inline int unixSocket(const QByteArray& path, sockaddr_un& address)
{
    address = {};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, path.constData(), sizeof address.sun_path);
    return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

// Reads until the peer closes; returns the number of bytes read, or -1 after 30 s.
inline int readToEnd(int fd)
{
    int total = 0;
    char buffer[256];
    pollfd entry{fd, POLLIN, 0};
    while (::poll(&entry, 1, 30000) > 0) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got <= 0)
            return total;
        total += int(got);
    }
    return -1;
}

// Child body: connects to path and sends bytes. 0: the peer closed the link; 1: connect was
// refused for lack of permission; 2: connect failed otherwise; 3: the link stayed open.
inline int connectAndSend(const QByteArray& path, const QByteArray& bytes)
{
    sockaddr_un address;
    const int fd = unixSocket(path, address);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        return errno == EACCES ? 1 : 2;
    ::send(fd, bytes.constData(), size_t(bytes.size()), MSG_NOSIGNAL);
    return readToEnd(fd) == 0 ? 0 : 3;
}

// Child body: listens on path, takes one connection and returns how many bytes it sent before
// closing (capped at 50), or 60 when none came or it did not close.
inline int listenAndCount(const QByteArray& path)
{
    sockaddr_un address;
    const int fd = unixSocket(path, address);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd, 4) != 0)
        return 61;
    const int client = ::accept(fd, nullptr, nullptr);
    const int count = client < 0 ? -1 : readToEnd(client);
    return count < 0 ? 60 : qMin(count, 50);
}
} // namespace ownership
