#include "communication.h"

#include "core/log.h"

#include <QLocalServer>
#include <QLocalSocket>

Communication::Communication(QObject* parent) : QObject(parent), m_server(new QLocalServer(this))
{
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
        LogManager::getInstance()->Msg(4, "%s", text.toUtf8().constData());
    }
    return listening;
}

void Communication::stop()
{
    LogManager::getInstance()->Msg(1, "local server close");
    m_server->close();
}

void Communication::sendMessage(const QByteArray& message)
{
    if (!m_socket)
        return;
    LogManager::getInstance()->Msg(1, "Communication::sendMessage msg is %s", message.constData());
    m_socket->write(message);
    m_socket->flush();
}

void Communication::onSocketConnected()
{
    Infor tracer(0, "Communication_onSocketConnected");
    QLocalSocket* socket = m_server->nextPendingConnection();
    if (!socket)
        return;
    m_socket = socket;
    emit connected();
    connect(m_socket, SIGNAL(readyRead()), this, SLOT(OnReadyRead()));
    connect(m_socket, SIGNAL(disconnected()), this, SLOT(onDisConnected()));
}

void Communication::OnReadyRead()
{
    auto* socket = qobject_cast<QLocalSocket*>(sender());
    if (!socket)
        return;
    const QByteArray data = socket->readAll();
    emit readyRead(data);
    LogManager::getInstance()->Msg(1, "Communication::OnReadyRead data is %s", data.constData());
}

void Communication::onDisConnected()
{
    LogManager::getInstance()->Msg(1, "local socket disconnected");
    m_socket = nullptr;
    emit disconnected();
}
