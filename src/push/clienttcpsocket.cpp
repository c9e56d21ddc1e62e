#include "clienttcpsocket.h"

#include <QTimer>

ClientTcpSocket::ClientTcpSocket(QObject* parent) : QTcpSocket(parent) {}

ClientTcpSocket::~ClientTcpSocket()
{
    stopTime();
}

void ClientTcpSocket::startTime(int seconds)
{
    startTimeMs(seconds * 1000);
}

void ClientTcpSocket::startTimeMs(int msec)
{
    stopTime();
    m_timer = new QTimer;
    m_timer->setInterval(msec);
    connect(m_timer, SIGNAL(timeout()), this, SLOT(OnTimer()));
    m_timer->start();
}

void ClientTcpSocket::stopTime()
{
    delete m_timer;
    m_timer = nullptr;
}

void ClientTcpSocket::disconnectFromHost()
{
    stopTime();
    QTcpSocket::disconnectFromHost();
}

void ClientTcpSocket::OnTimer()
{
    emit timer();
}
