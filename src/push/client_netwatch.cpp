// SPDX-License-Identifier: Apache-2.0
#include "client_netwatch.h"

#include "core/constants.h"
#include "core/log.h"

#include <QNetworkInterface>
#include <QSocketNotifier>
#include <QThread>
#include <cerrno>
#include <cstring>
#include <linux/if.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Reads per notifier activation, so that a flood of events cannot starve the event loop; the
// notifier fires again while data is left.
constexpr int kMaxReadsPerWakeUp = 64;

LogManager* logger()
{
    return LogManager::getInstance();
}

// The address as IPv4 when it is one (also when IPv4-mapped), else as IPv6 without a scope.
QHostAddress plain(const QHostAddress& address)
{
    bool isV4 = false;
    const quint32 v4 = address.toIPv4Address(&isV4);
    if (isV4)
        return QHostAddress(v4);
    QHostAddress v6(address.toIPv6Address());
    return v6;
}

// The address in an rtnetlink attribute of the given family, or a null address.
QHostAddress fromAttribute(int family, const void* data, size_t size)
{
    if (family == AF_INET && size == 4) {
        quint32 v4;
        std::memcpy(&v4, data, 4);
        return QHostAddress(ntohl(v4));
    }
    if (family == AF_INET6 && size == 16)
        return QHostAddress(static_cast<const quint8*>(data));
    return QHostAddress();
}

struct InterfaceOf
{
    int index = 0;
    QString name;
    bool live = false; // up and running
};

InterfaceOf findInterface(const QHostAddress& address)
{
    InterfaceOf found;
    const auto interfaces = QNetworkInterface::allInterfaces();
    for (const QNetworkInterface& iface : interfaces) {
        const auto entries = iface.addressEntries();
        for (const QNetworkAddressEntry& entry : entries) {
            if (plain(entry.ip()) != address)
                continue;
            found.index = iface.index();
            found.name = iface.name();
            const auto flags = iface.flags();
            found.live = flags.testFlag(QNetworkInterface::IsUp) &&
                         flags.testFlag(QNetworkInterface::IsRunning);
            return found;
        }
    }
    return found;
}

int setOption(int fd, int level, int name, int value, const char* what)
{
    if (::setsockopt(fd, level, name, &value, sizeof(value)) == 0)
        return 0;
    logger()->Msg(kLogError, "push socket option %s=%d refused: %s", what, value,
                  qPrintable(qt_error_string(errno)));
    return -1;
}

} // namespace

int setPushSocketOptions(qintptr fd, const PushSocketTimes& times)
{
    const int s = int(fd);
    if (setOption(s, SOL_SOCKET, SO_KEEPALIVE, 1, "SO_KEEPALIVE") != 0 ||
        setOption(s, IPPROTO_TCP, TCP_KEEPIDLE, times.keepIdleSeconds, "TCP_KEEPIDLE") != 0 ||
        setOption(s, IPPROTO_TCP, TCP_KEEPINTVL, times.keepIntervalSeconds, "TCP_KEEPINTVL") != 0 ||
        setOption(s, IPPROTO_TCP, TCP_KEEPCNT, times.keepCount, "TCP_KEEPCNT") != 0)
        return -1;
    if (times.userTimeoutMs > 0 &&
        setOption(s, IPPROTO_TCP, TCP_USER_TIMEOUT, times.userTimeoutMs, "TCP_USER_TIMEOUT") != 0)
        return -1;
    return 0;
}

// The default buffer holds a burst of link and address events; a larger burst is reported as
// ENOBUFS and then handled by looking the address up afresh.
NetworkWatch::NetworkWatch(QObject* parent, int receiveBufferBytes)
    : QObject(parent), m_receiveBufferBytes(receiveBufferBytes)
{
}

NetworkWatch::~NetworkWatch()
{
    closeSocket();
}

int NetworkWatch::watch(const QHostAddress& localAddress)
{
    unwatch();
    if (QThread::currentThread() != thread()) {
        logger()->Msg(kLogError, "network watch: watch() called off its thread, ignored");
        return -1;
    }
    const QHostAddress wanted = plain(localAddress);
    const InterfaceOf iface = findInterface(wanted);
    if (iface.index <= 0) {
        logger()->Msg(kLogError, "network watch: local address %s is on no interface",
                      qPrintable(wanted.toString()));
        return -1;
    }
    if (openSocket() != 0)
        return -1;
    m_address = wanted;
    m_interfaceIndex = iface.index;
    m_interfaceName = iface.name;
    logger()->Msg(kLogProgress, "network watch: watching %s on %s (index %d)",
                  qPrintable(m_address.toString()), qPrintable(m_interfaceName), m_interfaceIndex);
    // An address found on a dead interface is lost already; the socket was opened first so that
    // nothing between the look-up and now goes unseen.
    if (!iface.live)
        lose(QStringLiteral("interface %1 is not running").arg(m_interfaceName));
    return 0;
}

void NetworkWatch::unwatch()
{
    closeSocket();
    m_address = QHostAddress();
    m_interfaceIndex = 0;
    m_interfaceName.clear();
}

int NetworkWatch::openSocket()
{
    const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    if (fd < 0) {
        logger()->Msg(kLogError, "network watch: netlink socket failed: %s",
                      qPrintable(qt_error_string(errno)));
        return -1;
    }
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &m_receiveBufferBytes,
                 sizeof(m_receiveBufferBytes)); // best effort
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0) {
        logger()->Msg(kLogError, "network watch: netlink bind failed: %s",
                      qPrintable(qt_error_string(errno)));
        ::close(fd);
        return -1;
    }
    m_fd = fd;
    m_notifier = new QSocketNotifier(fd, QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &NetworkWatch::onNetlinkReadable);
    return 0;
}

void NetworkWatch::closeSocket()
{
    ++m_generation;
    if (m_notifier) {
        m_notifier->setEnabled(false);
        delete m_notifier;
        m_notifier = nullptr;
    }
    if (m_fd >= 0) {
        ::close(m_fd);
        m_fd = -1;
    }
}

void NetworkWatch::onNetlinkReadable()
{
    alignas(nlmsghdr) char buffer[16384];
    // A slot of pathLost() may watch again: what is left of this read is not for that watch.
    const quint32 generation = m_generation;
    for (int reads = 0; reads < kMaxReadsPerWakeUp && m_generation == generation; ++reads) {
        sockaddr_nl from{};
        iovec part{buffer, sizeof(buffer)};
        msghdr header{};
        header.msg_name = &from;
        header.msg_namelen = sizeof(from);
        header.msg_iov = &part;
        header.msg_iovlen = 1;
        const ssize_t got = ::recvmsg(m_fd, &header, MSG_DONTWAIT);
        const int error = got < 0 ? errno : 0;
        if (error == EINTR)
            continue;
        if (error == EAGAIN || error == EWOULDBLOCK)
            return;
        if (got < 0 || (header.msg_flags & MSG_TRUNC)) {
            // Events were dropped (ENOBUFS) or cut: what they said is unknown, so ask afresh.
            const QString why = got < 0 ? qt_error_string(error) : QStringLiteral("truncated");
            logger()->Msg(kLogImportant, "network watch: events lost (%s), checking %s again",
                          qPrintable(why), qPrintable(m_address.toString()));
            recheck();
            // Any other error would come back at every wake-up: give the watch up as lost.
            if (got < 0 && error != ENOBUFS && m_generation == generation)
                lose(QStringLiteral("events unreadable: %1").arg(why));
            continue;
        }
        if (from.nl_pid != 0)
            continue; // only the kernel speaks here
        const char* at = buffer;
        size_t left = size_t(got);
        while (left >= sizeof(nlmsghdr)) {
            const auto* message = reinterpret_cast<const nlmsghdr*>(at);
            if (message->nlmsg_len < sizeof(nlmsghdr) || message->nlmsg_len > left)
                break; // a malformed message: the rest of this read cannot be trusted
            handleMessage(message);
            if (m_generation != generation)
                return;
            const size_t step = NLMSG_ALIGN(message->nlmsg_len);
            if (step >= left)
                break;
            at += step;
            left -= step;
        }
    }
}

void NetworkWatch::handleMessage(const nlmsghdr* message)
{
    switch (message->nlmsg_type) {
    case RTM_DELADDR:
        handleAddress(message, true);
        break;
    case RTM_NEWLINK:
    case RTM_DELLINK:
        handleLink(message, message->nlmsg_type == RTM_DELLINK);
        break;
    default:
        break; // new addresses, errors, no-ops: nothing is lost by them
    }
}

void NetworkWatch::handleAddress(const nlmsghdr* message, bool deleted)
{
    if (!deleted || message->nlmsg_len < NLMSG_LENGTH(sizeof(ifaddrmsg)))
        return;
    const auto* info = static_cast<const ifaddrmsg*>(NLMSG_DATA(message));
    if (int(info->ifa_index) != m_interfaceIndex)
        return;
    // IFA_LOCAL is the local address where it differs from IFA_ADDRESS (point-to-point links);
    // either naming the watched address means it is gone.
    int left = int(message->nlmsg_len - NLMSG_LENGTH(sizeof(ifaddrmsg)));
    for (const rtattr* attr = IFA_RTA(info); RTA_OK(attr, left); attr = RTA_NEXT(attr, left)) {
        if (attr->rta_type != IFA_LOCAL && attr->rta_type != IFA_ADDRESS)
            continue;
        const QHostAddress gone =
            fromAttribute(info->ifa_family, RTA_DATA(attr), RTA_PAYLOAD(attr));
        if (!gone.isNull() && gone == m_address) {
            lose(QStringLiteral("local address %1 was removed from %2")
                     .arg(m_address.toString(), m_interfaceName));
            return;
        }
    }
}

void NetworkWatch::handleLink(const nlmsghdr* message, bool deleted)
{
    if (message->nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg)))
        return;
    const auto* info = static_cast<const ifinfomsg*>(NLMSG_DATA(message));
    if (info->ifi_index != m_interfaceIndex)
        return;
    if (deleted)
        lose(QStringLiteral("interface %1 was removed").arg(m_interfaceName));
    else if (!(info->ifi_flags & IFF_UP))
        lose(QStringLiteral("interface %1 is down").arg(m_interfaceName));
    else if (!(info->ifi_flags & IFF_LOWER_UP))
        lose(QStringLiteral("interface %1 lost its carrier").arg(m_interfaceName));
}

void NetworkWatch::recheck()
{
    const InterfaceOf iface = findInterface(m_address);
    if (iface.index != m_interfaceIndex)
        lose(QStringLiteral("local address %1 is no longer on %2")
                 .arg(m_address.toString(), m_interfaceName));
    else if (!iface.live)
        lose(QStringLiteral("interface %1 is not running").arg(m_interfaceName));
}

void NetworkWatch::lose(const QString& reason)
{
    // The reason goes with the signal; its receiver logs it with what it does about it.
    unwatch();
    emit pathLost(reason);
}
