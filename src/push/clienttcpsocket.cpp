// SPDX-License-Identifier: Apache-2.0
#include "clienttcpsocket.h"

#include "client.h"
#include "client_sleepwatch.h"

ClientTcpSocket::ClientTcpSocket(QObject* parent) : QTcpSocket(parent) {}

ClientTcpSocket::~ClientTcpSocket()
{
    stopTime();
}

void ClientTcpSocket::startTime(int seconds)
{
    startTimeMs(seconds * kMsPerSecond);
}

void ClientTcpSocket::startTimeMs(int msec)
{
    // One timer, a child of the socket, for the socket's whole life: stopping it never deletes
    // it, since a stop may come from inside its own timeout.
    if (!m_timer) {
        m_timer = new BootDeadline(this);
        connect(m_timer, SIGNAL(timeout()), this, SLOT(OnTimer()));
    }
    m_intervalMs = msec;
    m_timer->start(msec);
}

void ClientTcpSocket::stopTime()
{
    if (m_timer)
        m_timer->stop();
}

void ClientTcpSocket::disconnectFromHost()
{
    stopTime();
    QTcpSocket::disconnectFromHost();
}

void ClientTcpSocket::OnTimer()
{
    m_timer->start(m_intervalMs); // the next tick, one period after this one
    emit timer();
}
