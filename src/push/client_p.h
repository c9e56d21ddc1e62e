#pragma once

// Helpers shared by the files that make up MsgClient. Not part of its interface.

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
