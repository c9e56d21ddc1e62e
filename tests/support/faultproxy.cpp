// SPDX-License-Identifier: Apache-2.0
#include "faultproxy.h"

#include <QHostAddress>
#include <QRandomGenerator>
#include <QTcpSocket>

namespace {
constexpr int kTickMs = 5;
}

FaultProxy::~FaultProxy()
{
    // The sockets go after the list of links: they must not report their end to it.
    for (Link& link : m_links) {
        link.down->disconnect(this);
        link.up->disconnect(this);
    }
}

bool FaultProxy::listen(quint16 upstreamPort)
{
    m_upstreamPort = upstreamPort;
    m_clock.start();
    connect(&m_server, &QTcpServer::newConnection, this, &FaultProxy::onNewConnection);
    connect(&m_tick, &QTimer::timeout, this, &FaultProxy::onTick);
    m_tick.start(kTickMs);
    return m_server.listen(QHostAddress::LocalHost, 0);
}

void FaultProxy::onNewConnection()
{
    while (QTcpSocket* down = m_server.nextPendingConnection()) {
        m_links.emplace_back();
        Link* link = &m_links.back();
        link->down = down;
        link->up = new QTcpSocket(this);
        connect(down, &QTcpSocket::readyRead, this,
                [this, link] { queue(link->toUp, link->down->readAll()); });
        connect(link->up, &QTcpSocket::readyRead, this,
                [this, link] { queue(link->toDown, link->up->readAll()); });
        // Either side ending ends the other, with what is still held dropped.
        connect(down, &QTcpSocket::disconnected, this, [this, link] { close(link); });
        connect(link->up, &QTcpSocket::disconnected, this, [this, link] { close(link); });
        link->up->connectToHost(QHostAddress::LocalHost, m_upstreamPort);
    }
}

void FaultProxy::queue(std::list<Chunk>& chunks, const QByteArray& bytes)
{
    qint64 due = m_clock.elapsed() + m_faults.delayMs;
    if (m_faults.jitterMs > 0)
        due += QRandomGenerator::global()->bounded(m_faults.jitterMs + 1);
    if (!chunks.empty())
        due = qMax(due, chunks.back().dueMs); // jitter never reorders the stream
    chunks.push_back({due, bytes});
}

void FaultProxy::onTick()
{
    for (Link& link : m_links) {
        if (link.up->state() == QAbstractSocket::ConnectedState)
            pump(link.toUp, link.up);
        pump(link.toDown, link.down);
    }
}

void FaultProxy::pump(std::list<Chunk>& chunks, QTcpSocket* to)
{
    while (!m_faults.stalled && !chunks.empty() && chunks.front().dueMs <= m_clock.elapsed()) {
        Chunk& chunk = chunks.front();
        const int size = m_faults.sliceBytes > 0 ? qMin(m_faults.sliceBytes, chunk.bytes.size())
                                                 : chunk.bytes.size();
        to->write(chunk.bytes.left(size));
        to->flush();
        chunk.bytes.remove(0, size);
        if (chunk.bytes.isEmpty())
            chunks.pop_front();
        if (m_faults.sliceBytes > 0)
            return; // one slice per tick: each goes out as a write of its own
    }
}

void FaultProxy::close(Link* link)
{
    for (auto it = m_links.begin(); it != m_links.end(); ++it) {
        if (&*it != link)
            continue;
        link->down->disconnect(this);
        link->up->disconnect(this);
        link->down->abort();
        link->up->abort();
        link->down->deleteLater();
        link->up->deleteLater();
        m_links.erase(it);
        return;
    }
}
