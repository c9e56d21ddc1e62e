#pragma once
// SPDX-License-Identifier: Apache-2.0

// A TCP proxy on 127.0.0.1 in front of one upstream port that delays, jitters, stalls and slices
// what it forwards, in both directions, for the faults that the kernel here cannot make (it has
// no netem). Each chunk read keeps its order; a stall holds everything until it is lifted.
// Runs on the thread that made it.

#include <QElapsedTimer>
#include <QObject>
#include <QTcpServer>
#include <QTimer>
#include <list>

class QTcpSocket;

class FaultProxy : public QObject
{
    Q_OBJECT
public:
    struct Faults
    {
        int delayMs = 0;    // added to every chunk
        int jitterMs = 0;   // plus a random 0..jitterMs
        int sliceBytes = 0; // written at most this many bytes per write, 5 ms apart (0: whole)
        bool stalled = false;
    };

    ~FaultProxy() override;
    bool listen(quint16 upstreamPort);
    quint16 port() const { return m_server.serverPort(); }
    void setFaults(const Faults& faults) { m_faults = faults; }

private:
    struct Chunk
    {
        qint64 dueMs;
        QByteArray bytes;
    };
    struct Link
    {
        QTcpSocket* down = nullptr; // the client's side
        QTcpSocket* up = nullptr;   // the upstream side
        std::list<Chunk> toUp, toDown;
    };

    void onNewConnection();
    void onTick();
    void queue(std::list<Chunk>& chunks, const QByteArray& bytes);
    void pump(std::list<Chunk>& chunks, QTcpSocket* to);
    void close(Link* link);

    QTcpServer m_server;
    quint16 m_upstreamPort = 0;
    Faults m_faults;
    QElapsedTimer m_clock;
    QTimer m_tick;
    std::list<Link> m_links;
};
