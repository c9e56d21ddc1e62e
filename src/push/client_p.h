#pragma once
// SPDX-License-Identifier: Apache-2.0

// Helpers shared by the files that make up MsgClient. Not part of its interface.

#include "client.h"
#include "core/constants.h"
#include "core/log.h"

#include <QJsonValue>
#include <QString>
#include <cmath>
#include <limits>

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

// A JSON number truncated towards zero to 64 bits. Numbers beyond the range (the service may
// send 1e99) give the nearest end of it instead of an undefined conversion.
inline qint64 truncateToInt64(double value)
{
    if (std::isnan(value))
        return 0;
    constexpr double kRange = 9223372036854775808.0; // 2^63
    if (value >= kRange)
        return std::numeric_limits<qint64>::max();
    if (value < -kRange)
        return std::numeric_limits<qint64>::min();
    return static_cast<qint64>(value);
}

} // namespace msgclient_detail

// Marks code that runs with a push socket's own code below it on the stack: a slot connected to
// one of its signals, or a blocking write, whose wait delivers the socket's signals. A socket
// closed meanwhile (in a nested event loop) is freed only when the outermost such code returns.
class MsgClient::SocketInUse
{
public:
    explicit SocketInUse(MsgClient* client) : m_client(client) { ++m_client->m_socketUseDepth; }
    ~SocketInUse()
    {
        if (--m_client->m_socketUseDepth == 0)
            m_client->freeClosedSockets();
    }
    SocketInUse(const SocketInUse&) = delete;
    SocketInUse& operator=(const SocketInUse&) = delete;

private:
    MsgClient* m_client;
};
