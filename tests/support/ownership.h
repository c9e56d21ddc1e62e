#pragma once
// SPDX-License-Identifier: Apache-2.0

// Permission bits, and children of user 65534 on local sockets: a child makes plain system
// calls only and ends with _exit (alarm() ends one that a failed test leaves behind).

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
constexpr int kClosed = 0, kRefused = 1, kFailed = 2, kCannotSwitch = 90; // child results

inline int mode(const QString& path)
{
    struct stat info = {};
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0 ? int(info.st_mode & 0777) : -1;
}

template <typename Body> pid_t asOtherUser(Body body)
{
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::alarm(60);
        if (::setgroups(0, nullptr) != 0 || ::setgid(kNobody) != 0 || ::setuid(kNobody) != 0)
            ::_exit(kCannotSwitch);
        ::_exit(body());
    }
    return pid;
}

inline int waitExit(pid_t pid)
{
    int status = 0;
    return ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

inline bool canSwitch()
{
    return ::geteuid() == 0 && waitExit(asOtherUser([]() { return 0; })) == 0;
}

// Child body. With bytes: connects to path, sends them; kClosed when the peer then closes. Without:
// listens at path; kClosed when its one client closes without a byte. Else or after 30 s kFailed.
inline int talk(const QByteArray& path, const QByteArray* bytes = nullptr)
{
    sockaddr_un address{AF_UNIX, {}};
    qstrncpy(address.sun_path, path.constData(), sizeof address.sun_path);
    auto* at = reinterpret_cast<sockaddr*>(&address);
    int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (bytes && ::connect(fd, at, sizeof address) != 0)
        return errno == EACCES ? kRefused : kFailed;
    if (bytes)
        ::send(fd, bytes->constData(), size_t(bytes->size()), MSG_NOSIGNAL);
    else if (::bind(fd, at, sizeof address) != 0 || ::listen(fd, 1) != 0 ||
             (fd = ::accept(fd, nullptr, nullptr)) < 0)
        return kFailed;
    char buffer[256];
    ssize_t total = 0, got = 1;
    pollfd entry{fd, POLLIN, 0};
    while (::poll(&entry, 1, 30000) > 0 && (got = ::read(fd, buffer, sizeof buffer)) > 0)
        total += got;
    return got <= 0 && (bytes || total == 0) ? kClosed : kFailed;
}
} // namespace ownership
