#pragma once
// SPDX-License-Identifier: Apache-2.0

#include <QTcpSocket>

class BootDeadline;

// The push connection's socket. Besides the TCP stream it carries the heartbeat timer, a child
// of the socket made on its thread (the client thread) at the first start, whose ticks come out
// as the signal timer(). It repeats on the boot-time clock, which runs on while the machine
// sleeps: a tick that fell due during a suspend comes at once after the resume.
class ClientTcpSocket : public QTcpSocket
{
    Q_OBJECT
public:
    explicit ClientTcpSocket(QObject* parent = nullptr);
    ~ClientTcpSocket() override;

    // Starts (or restarts) the repeating timer with an interval of `seconds` seconds.
    void startTime(int seconds);
    // The same with the interval in milliseconds.
    void startTimeMs(int msec);
    void stopTime();

    // Stops the timer, then disconnects as QTcpSocket does.
    void disconnectFromHost() override;

signals:
    void timer();

private slots:
    void OnTimer();

private:
    BootDeadline* m_timer = nullptr;
    int m_intervalMs = 0;
};
