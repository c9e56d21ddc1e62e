#pragma once
// SPDX-License-Identifier: Apache-2.0

// Faults of the network path for tests that run in a network namespace of their own
// (netns.sh): black-holing one TCP connection, addresses on dummy interfaces, links going down,
// and loopback shaped like a real link. Made with the system's `ip`, `nft` and `tc`. Only
// loopback-range addresses (127.0.0.0/8, ::1) are accepted, and nothing is done outside a
// private namespace. What an object made (its dummy interfaces, its nft table) goes with it.

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

class LinkFaults
{
public:
    LinkFaults() = default;
    ~LinkFaults();
    LinkFaults(const LinkFaults&) = delete;
    LinkFaults& operator=(const LinkFaults&) = delete;

    // True in a network namespace other than the first process's: the only place where faults
    // are made. Tests skip otherwise.
    static bool inPrivateNamespace();

    // Drops every packet of the TCP connection whose client side has port `clientPort`, both
    // ways, so that it goes silent as after a move to another network; other connections work.
    int blackHole(quint16 clientPort);
    int clearBlackHole(quint16 clientPort);
    // Client ports of the established IPv4 TCP connections to `serverPort` in this namespace
    // (from /proc/net/tcp), e.g. the daemon's live push connection to black-hole.
    static QList<quint16> clientPorts(quint16 serverPort);

    int addDummy(const QString& name); // an interface without traffic of its own (dummy), up
    int removeDummy(const QString& name);
    int addAddress(const QString& device, const QString& cidr); // e.g. "127.0.0.2/32"
    int removeAddress(const QString& device, const QString& cidr);
    int setLink(const QString& device, bool up);
    // Loopback as a real link: `mtu` bytes and a token-bucket cap of `rate` (tc syntax, e.g.
    // "256kbit"); an empty rate removes the cap.
    int shapeLoopback(int mtu, const QString& rate);

    // The command and output of the last failure, for test messages.
    QString lastError() const { return m_lastError; }

    // Runs a program with `input` on its standard input; its exit code, -1 when it did not run.
    // On failure the command and its output go to lastError().
    int run(const QString& program, const QStringList& arguments, const QByteArray& input = {});

private:
    int checked(const QString& cidr);
    int ensureTable();

    QStringList m_dummies;
    bool m_table = false;
    QString m_lastError;
};
