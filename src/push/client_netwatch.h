#pragma once
// SPDX-License-Identifier: Apache-2.0

// NetworkWatch: tells the push connection at once when its path is gone, from the kernel's own
// address and link events (rtnetlink), without polling. It watches one local address: when that
// address is deleted, or the interface that holds it goes down, loses its carrier or is removed,
// pathLost() is emitted once. Events about other addresses and interfaces change nothing.
//
// The netlink socket is open only while an address is watched and is read through a
// QSocketNotifier on the owner's thread; reads never block. When the kernel reports that events
// were lost (ENOBUFS, a truncated read), the watched address and its interface are looked up
// afresh instead. Owner thread only.
//
// setPushSocketOptions() makes the kernel fail a connection whose path died in silence: sent data
// that stays unacknowledged for the user timeout, and an idle connection whose keepalive probes
// go unanswered, end the connection with an error (ETIMEDOUT).

#include <QHostAddress>
#include <QObject>
#include <QString>

class QSocketNotifier;
struct nlmsghdr;

// Times of the push socket's dead-path detection. The defaults find an idle dead path within
// keepIdleSeconds + keepIntervalSeconds (55 s) and one with data in flight within the user
// timeout (25 s) after its first unacknowledged byte.
struct PushSocketTimes
{
    int userTimeoutMs = 25000;
    int keepIdleSeconds = 45;
    int keepIntervalSeconds = 10;
    int keepCount = 4; // unanswered probes that end the connection when no user timeout is set
};

// Sets TCP_USER_TIMEOUT (skipped when times.userTimeoutMs <= 0) and keepalive on a connected TCP
// socket. 0 on success; -1 with one log line when an option is refused.
int setPushSocketOptions(qintptr fd, const PushSocketTimes& times = PushSocketTimes());

class NetworkWatch : public QObject
{
    Q_OBJECT
public:
    // Bytes of events the kernel may queue for us; more are dropped and reported as lost.
    static constexpr int kReceiveBufferBytes = 256 * 1024;

    explicit NetworkWatch(QObject* parent = nullptr, int receiveBufferBytes = kReceiveBufferBytes);
    ~NetworkWatch() override;

    // Starts watching `localAddress` (an IPv4-mapped IPv6 address counts as IPv4): finds the
    // interface that holds it and opens the netlink socket. Replaces an earlier watch. 0 on
    // success; -1 with one log line when the address is on no interface or the socket fails.
    int watch(const QHostAddress& localAddress);
    // Stops watching and closes the socket. Safe to call when not watching.
    void unwatch();

    bool isWatching() const { return m_fd >= 0; }
    QHostAddress address() const { return m_address; }
    int interfaceIndex() const { return m_interfaceIndex; }

signals:
    // Emitted once per watch(), on the owner thread; `reason` is one readable line.
    void pathLost(const QString& reason);

private slots:
    void onNetlinkReadable();

private:
    int openSocket();
    void closeSocket();
    void handleMessage(const nlmsghdr* message);
    void handleAddress(const nlmsghdr* message, bool deleted);
    void handleLink(const nlmsghdr* message, bool deleted);
    // After lost events: is the address still on a live interface?
    void recheck();
    void lose(const QString& reason);

    int m_receiveBufferBytes;
    int m_fd = -1;
    quint32 m_generation = 0; // counts closed sockets: a read ends when its socket is closed
    QSocketNotifier* m_notifier = nullptr;
    QHostAddress m_address;
    int m_interfaceIndex = 0;
    QString m_interfaceName;
};
