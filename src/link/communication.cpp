// SPDX-License-Identifier: Apache-2.0
#include "communication.h"

#include "core/constants.h"
#include "core/log.h"

#include <QLocalServer>
#include <QLocalSocket>
#include <unistd.h>

Communication::Communication(QObject* parent) : QObject(parent), m_server(new QLocalServer(this))
{
    m_server->setSocketOptions(QLocalServer::UserAccessOption);
    connect(m_server, SIGNAL(newConnection()), this, SLOT(onSocketConnected()));
    connect(this, SIGNAL(connected()), parent, SLOT(onConnected()));
    connect(this, SIGNAL(readyRead(QByteArray)), parent, SLOT(onReadyRead(QByteArray)));
    connect(this, SIGNAL(disconnected()), parent, SLOT(onDisconnected()));
}

Communication::~Communication()
{
    stop();
}

bool Communication::start()
{
    const QString name = QString::fromLatin1(kInstanceId);
    QLocalServer::removeServer(name);
    const bool listening = m_server->listen(name);
    if (!listening) {
        const QString text =
            QString("Application Error: failed to start listening to %1 server, error %2")
                .arg(name)
                .arg(static_cast<int>(m_server->serverError()));
        LogManager::getInstance()->Msg(kLogError, "%s", text.toUtf8().constData());
    }
    return listening;
}

void Communication::stop()
{
    LogManager::getInstance()->Msg(kLogProgress, "local server close");
    m_server->close();
}

void Communication::sendMessage(const QByteArray& message)
{
    if (!m_socket)
        return;
    LogManager::getInstance()->Msg(kLogProgress, "Communication::sendMessage msg is %s",
                                   message.constData());
    m_socket->write(message);
    m_socket->flush();
}

void Communication::onSocketConnected()
{
    Infor tracer(kLogTrace, "Communication_onSocketConnected");
    QLocalSocket* socket = m_server->nextPendingConnection();
    if (!socket || !isOwnUser(socket))
        return;
    m_socket = socket;
    emit connected();
    connect(m_socket, SIGNAL(readyRead()), this, SLOT(OnReadyRead()));
    connect(m_socket, SIGNAL(disconnected()), this, SLOT(onDisConnected()));
}

bool Communication::isOwnUser(QLocalSocket* socket)
{
    const qint64 peer = GetPeerUserId(socket->socketDescriptor());
    if (peer == qint64(::geteuid()))
        return true;
    // Nothing of it has been read yet, and nothing will be.
    LogManager::getInstance()->Msg(kLogError,
                                   "local connection of another user (uid %lld) closed unread",
                                   static_cast<long long>(peer));
    socket->abort();
    socket->deleteLater();
    return false;
}

void Communication::OnReadyRead()
{
    auto* socket = qobject_cast<QLocalSocket*>(sender());
    if (!socket)
        return;
    const QByteArray data = socket->readAll();
    emit readyRead(data);
    LogManager::getInstance()->Msg(kLogProgress, "Communication::OnReadyRead data is %s",
                                   data.constData());
}

void Communication::onDisConnected()
{
    LogManager::getInstance()->Msg(kLogProgress, "local socket disconnected");
    m_socket = nullptr;
    emit disconnected();
}
