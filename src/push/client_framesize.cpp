// SPDX-License-Identifier: Apache-2.0
#include "client_framesize.h"

#include "msg_client.h"

#include <QtEndian>
#include <limits>

qint64 pushFrameSize(const QByteArray& front)
{
    constexpr int kMagicSize = 4;
    constexpr int kLengthAt = 12;
    if (front.size() < kMagicSize)
        return 0;
    const quint32 magic = qFromLittleEndian<quint32>(front.constData());
    if (magic == MAGIC_HEART)
        return kMagicSize;
    if (magic == MAGIC_NOTICE)
        return kMagicSize + Msg_client::kNoticeBodySize;
    if (magic != MAGIC_RSP)
        return -1;
    if (front.size() < Msg_client::kMsgHeadSize)
        return 0;
    const quint32 length = qFromLittleEndian<quint32>(front.constData() + kLengthAt);
    if (length == 0 || length > quint32(std::numeric_limits<int>::max()))
        return -1;
    return Msg_client::kMsgHeadSize + qint64(length);
}
