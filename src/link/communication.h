#pragma once
// SPDX-License-Identifier: Apache-2.0

#include "locallink/locallink.h"

#include <QByteArray>
#include <QObject>

class QLocalServer;
class QLocalSocket;

// The daemon's end of the local link: a local server under the instance name and the one
// current client. Only its own user may connect: the socket file is owner-only, and a
// connection from a process of another user id is closed before any byte is read. It moves
// raw bytes; each readyRead of the client is one message. Lives on the main thread.
class Communication : public QObject
{
    Q_OBJECT
public:
    // Connects its signals to the parent's onConnected(), onReadyRead(QByteArray) and
    // onDisconnected() slots.
    explicit Communication(QObject* parent);
    ~Communication() override;

    bool start();
    void stop();
    // Written in one piece and flushed; dropped silently when no client is connected.
    void sendMessage(const QByteArray& message);

signals:
    void connected();
    void disconnected();
    void readyRead(QByteArray data);

private slots:
    void onSocketConnected();
    void OnReadyRead();
    void onDisConnected();

private:
    bool isOwnUser(QLocalSocket* socket);

    QLocalServer* m_server;
    QLocalSocket* m_socket = nullptr;
};
