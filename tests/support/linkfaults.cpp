// SPDX-License-Identifier: Apache-2.0
#include "linkfaults.h"

#include <QFile>
#include <QHostAddress>
#include <QPair>
#include <QProcess>
#include <unistd.h>

namespace {
const QString kTable = QStringLiteral("d627faults");
constexpr int kToolWaitMs = 30000;
} // namespace

LinkFaults::~LinkFaults()
{
    for (const QString& name : qAsConst(m_dummies))
        run("ip", {"link", "del", name});
    if (m_table)
        run("nft", {"delete", "table", "inet", kTable});
}

bool LinkFaults::inPrivateNamespace()
{
    // netns.sh names the namespace it made in D627_NETNS; a process that left it, or never was
    // in one, reads another name here.
    char name[64] = {};
    const ssize_t size = ::readlink("/proc/self/ns/net", name, sizeof(name) - 1);
    const QByteArray made = qgetenv("D627_NETNS");
    return size > 0 && !made.isEmpty() && made == QByteArray(name, int(size));
}

int LinkFaults::run(const QString& program, const QStringList& arguments, const QByteArray& input)
{
    if (!inPrivateNamespace()) {
        m_lastError = QStringLiteral("not in a private network namespace");
        return -1;
    }
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    process.write(input);
    process.closeWriteChannel();
    const bool done = process.waitForFinished(kToolWaitMs);
    const int code = done && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    if (code != 0)
        m_lastError = program + ' ' + arguments.join(' ') + ": " +
                      QString::fromLocal8Bit(process.readAll()).trimmed();
    return code;
}

int LinkFaults::checked(const QString& cidr)
{
    const QPair<QHostAddress, int> subnet = QHostAddress::parseSubnet(cidr);
    if (subnet.first.isLoopback() &&
        (subnet.first.protocol() == QAbstractSocket::IPv6Protocol || subnet.second >= 8))
        return 0;
    m_lastError = QStringLiteral("refused: %1 is not in the loopback range").arg(cidr);
    return -1;
}

int LinkFaults::ensureTable()
{
    if (m_table)
        return 0;
    const QString script = QStringLiteral("table inet %1 {\n"
                                          "  set holes { type inet_service; }\n"
                                          "  chain output { type filter hook output priority 0;\n"
                                          "    tcp sport @holes drop\n"
                                          "    tcp dport @holes drop\n"
                                          "  }\n"
                                          "}\n")
                               .arg(kTable);
    if (run("nft", {"-f", "-"}, script.toUtf8()) != 0)
        return -1;
    m_table = true;
    return 0;
}

int LinkFaults::blackHole(quint16 clientPort)
{
    if (ensureTable() != 0)
        return -1;
    return run("nft",
               {"add", "element", "inet", kTable, "holes", QString("{ %1 }").arg(clientPort)});
}

int LinkFaults::clearBlackHole(quint16 clientPort)
{
    if (!m_table)
        return 0;
    return run("nft",
               {"delete", "element", "inet", kTable, "holes", QString("{ %1 }").arg(clientPort)});
}

QList<quint16> LinkFaults::clientPorts(quint16 serverPort)
{
    // Lines: "sl local_address rem_address st ...", addresses as HEXIP:HEXPORT, st 01 established.
    QList<quint16> ports;
    QFile table("/proc/net/tcp");
    if (!table.open(QIODevice::ReadOnly))
        return ports;
    table.readLine();
    while (!table.atEnd()) {
        const QList<QByteArray> fields = table.readLine().simplified().split(' ');
        if (fields.size() < 4 || fields.at(3) != "01")
            continue;
        bool ok = false;
        if (fields.at(2).mid(fields.at(2).indexOf(':') + 1).toUShort(&ok, 16) == serverPort && ok)
            ports << fields.at(1).mid(fields.at(1).indexOf(':') + 1).toUShort(nullptr, 16);
    }
    return ports;
}

int LinkFaults::addDummy(const QString& name)
{
    // Kernels built without dummy devices have ifb, which likewise carries no traffic of its own
    // and has its carrier while up.
    if (run("ip", {"link", "add", name, "type", "dummy"}) != 0 &&
        run("ip", {"link", "add", name, "type", "ifb"}) != 0)
        return -1;
    m_dummies << name;
    return setLink(name, true);
}

int LinkFaults::removeDummy(const QString& name)
{
    m_dummies.removeAll(name);
    return run("ip", {"link", "del", name});
}

int LinkFaults::addAddress(const QString& device, const QString& cidr)
{
    if (checked(cidr) != 0)
        return -1;
    return run("ip", {"addr", "add", cidr, "dev", device});
}

int LinkFaults::removeAddress(const QString& device, const QString& cidr)
{
    if (checked(cidr) != 0)
        return -1;
    return run("ip", {"addr", "del", cidr, "dev", device});
}

int LinkFaults::setLink(const QString& device, bool up)
{
    return run("ip", {"link", "set", device, up ? "up" : "down"});
}

int LinkFaults::shapeLoopback(int mtu, const QString& rate)
{
    if (run("ip", {"link", "set", "lo", "mtu", QString::number(mtu)}) != 0)
        return -1;
    if (rate.isEmpty()) {
        run("tc", {"qdisc", "del", "dev", "lo", "root"}); // none there is no failure
        return 0;
    }
    // A burst of two segments and a queue of up to 2 s, as a slow access link has.
    return run("tc", {"qdisc", "replace", "dev", "lo", "root", "tbf", "rate", rate, "burst",
                      QString::number(2 * mtu), "latency", "2s"});
}
