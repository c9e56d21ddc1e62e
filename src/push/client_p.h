#pragma once

// Helpers shared by the files that make up MsgClient. Not part of its interface.

#include "client.h"
#include "core/log.h"

#include <QJsonValue>
#include <QString>

namespace msgclient_detail {

inline LogManager* logger()
{
    return LogManager::getInstance();
}

// A level given either as a number or as a numeric string.
inline int readLevel(const QJsonValue& value)
{
    int level = value.toInt();
    if (level == 0) {
        const QString text = value.toString();
        if (!text.isEmpty())
            level = text.toInt();
    }
    return level;
}

} // namespace msgclient_detail

// Marks a slot that runs inside a signal of a push socket. A socket closed meanwhile (in a
// nested event loop of that slot) is freed only when the outermost such slot returns, since the
// socket's own code still runs after the signal.
class MsgClient::SocketSignalScope
{
public:
    explicit SocketSignalScope(MsgClient* client) : m_client(client)
    {
        ++m_client->m_socketSignalDepth;
    }
    ~SocketSignalScope()
    {
        if (--m_client->m_socketSignalDepth == 0)
            m_client->freeClosedSockets();
    }
    SocketSignalScope(const SocketSignalScope&) = delete;
    SocketSignalScope& operator=(const SocketSignalScope&) = delete;

private:
    MsgClient* m_client;
};
