#pragma once

// Permission bits, and child processes of user 65534 talking over local sockets. A child uses
// plain system calls only and ends with _exit; alarm() ends it if a test leaves it behind.

#include <QByteArray>
#include <QFile>
#include <cerrno>
#include <grp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ownership {
constexpr uid_t kNobody = 65534;
enum Result
{
    kClosed,
    kRefused,
    kFailed,
    kStillOpen,
    kCannotSwitch = 90
};

inline int mode(const QString& path)
{
    struct stat info = {};
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0 ? int(info.st_mode & 0777) : -1;
}

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

inline bool canSwitch()
{
    return ::geteuid() == 0 && waitExit(asOtherUser([]() { return 0; })) == 0;
}

// Reads until the peer closes: the number of bytes read, or -1 when it stays open 30 s.
inline int readToEnd(int fd)
{
    int total = 0;
    char buffer[256];
    pollfd entry{fd, POLLIN, 0};
    for (ssize_t got = 1; got > 0; total += int(got)) {
        if (::poll(&entry, 1, 30000) <= 0)
            return -1;
        got = qMax<ssize_t>(::read(fd, buffer, sizeof buffer), 0);
    }
    return total;
}

// Child body: connects to the socket file at path and sends bytes; a Result.
inline int connectAndSend(const QByteArray& path, const QByteArray& bytes)
{
    sockaddr_un address{AF_UNIX, {}};
    qstrncpy(address.sun_path, path.constData(), sizeof address.sun_path);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        return errno == EACCES ? kRefused : kFailed;
    ::send(fd, bytes.constData(), size_t(bytes.size()), MSG_NOSIGNAL);
    return readToEnd(fd) == 0 ? kClosed : kStillOpen;
}

// Child body: serves one connection at path; the bytes it got before it closed (at most 50),
// or kCannotSwitch - 1 when it failed or stayed open.
inline int listenAndCount(const QByteArray& path)
{
    sockaddr_un address{AF_UNIX, {}};
    qstrncpy(address.sun_path, path.constData(), sizeof address.sun_path);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd, 4) != 0)
        return kCannotSwitch - 1;
    const int count = readToEnd(::accept(fd, nullptr, nullptr));
    return count < 0 ? kCannotSwitch - 1 : qMin(count, 50);
}
} // namespace ownership
