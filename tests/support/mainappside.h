#pragma once
// SPDX-License-Identifier: Apache-2.0

// The main application's side of the local link, as the tests play it against an Adapter in the
// same process or a real daemon: a local socket that sends the protocol's messages and collects
// what the daemon writes back. Every message the daemon writes must be one compact JSON object
// in one piece; anything else is kept for takeBadMessages(), for the test to fail on.

#include <QDeadlineTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>
#include <QTest>

class MainAppSide
{
public:
    MainAppSide()
    {
        QObject::connect(&m_socket, &QLocalSocket::readyRead, &m_socket,
                         [this] { m_received += m_socket.readAll(); });
    }

    // Connects to the local server (a name or a socket path), retrying while the daemon starts
    // listening.
    bool connectTo(const QString& server, int timeoutMs = 30000)
    {
        for (QDeadlineTimer deadline(timeoutMs); !deadline.hasExpired(); QTest::qWait(50)) {
            m_socket.connectToServer(server);
            if (m_socket.waitForConnected(500))
                return true;
        }
        return false;
    }
    // Writes one message in one piece; false when it could not be handed to the socket.
    bool send(const QByteArray& message)
    {
        m_socket.write(message);
        return m_socket.flush() || m_socket.bytesToWrite() == 0;
    }
    // The login message of the protocol, compact, with the given keys.
    bool sendLogin(const QJsonObject& keys)
    {
        return send(QJsonDocument(keys).toJson(QJsonDocument::Compact));
    }
    bool sendExit() { return send(R"({"exit":true})"); }

    // The next message from the daemon, or an empty object when none comes in time.
    QJsonObject next(int timeoutMs = 30000)
    {
        if (!QTest::qWaitFor([this] { return !m_received.isEmpty(); }, timeoutMs))
            return {};
        const QByteArray bytes = std::exchange(m_received, {});
        const QJsonDocument document = QJsonDocument::fromJson(bytes);
        if (!document.isObject() || bytes != document.toJson(QJsonDocument::Compact))
            m_badMessages << bytes;
        return document.object();
    }
    // Everything received and not yet taken by next().
    const QByteArray& received() const { return m_received; }
    // The same, handed over, for a reader that splits the messages itself.
    QByteArray takeReceived() { return std::exchange(m_received, {}); }
    QList<QByteArray> takeBadMessages() { return std::exchange(m_badMessages, {}); }
    QLocalSocket& socket() { return m_socket; }

private:
    QLocalSocket m_socket;
    QByteArray m_received;
    QList<QByteArray> m_badMessages;
};
