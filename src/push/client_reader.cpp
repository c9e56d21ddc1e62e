// SPDX-License-Identifier: Apache-2.0
// MsgClient: writing frames and reading them back, one whole frame per readyRead.
#include "client.h"
#include "client_p.h"
#include "clienttcpsocket.h"

#include <QTimer>
#include <QtEndian>
#include <cerrno>
#include <cstring>

using msgclient_detail::logger;

using pushframe::kMagicSize;

int MsgClient::writeCmd(const QByteArray& frame)
{
    // The wait below delivers the socket's signals, and what they start may close the socket.
    const SocketInUse inUse(this);
    if (!m_socket || m_socket->write(frame) != frame.size()) {
        logger()->Msg(kLogError, "write to server failed!");
        return -1;
    }
    m_socket->waitForBytesWritten(m_times.socketWaitMs);
    return 0;
}

ClientTcpSocket* MsgClient::setSocket(ClientTcpSocket* socket)
{
    ClientTcpSocket* previous = m_socket;
    if (previous)
        previous->disconnect(this);
    m_socket = socket;
    if (socket)
        attachSocket(socket);
    return previous;
}

int MsgClient::SendHeart()
{
    Infor tracer(kLogTrace, scopeName("SendHeart"));
    QByteArray frame;
    Msg_client::heartbeat_req(frame);
    return writeCmd(frame);
}

int MsgClient::nread(char* buffer, int length)
{
    const qint64 available = m_socket ? m_socket->bytesAvailable() : 0;
    if (length <= 0 || length > available) {
        logger()->Msg(kLogImportant, "nread failed! len is %d, available bytes is %lld", length,
                      static_cast<long long>(available));
        return -1;
    }
    int got = 0;
    while (got < length) {
        errno = 0;
        const qint64 n = m_socket->read(buffer + got, length - got);
        if (n == 0)
            return -1;
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return -1;
        }
        got += static_cast<int>(n);
    }
    return 0;
}

int MsgClient::readHead(tagTRANSPORT_PKG_HEAD_RSP& head)
{
    QByteArray headString;
    return readHead(head, headString);
}

int MsgClient::readHead(tagTRANSPORT_PKG_HEAD_RSP& head, QByteArray& headString)
{
    char rest[Msg_client::kMsgHeadSize - kMagicSize];
    std::memset(rest, 0, sizeof(rest));
    if (nread(rest, sizeof(rest)) != 0) {
        logger()->Msg(kLogError, "read head failed!");
        return -1;
    }
    headString = QByteArray(kMagicSize, '\0');
    qToLittleEndian<quint32>(head.magic_quote, headString.data());
    headString.append(rest, sizeof(rest));
    Msg_client::parseHead(headString, head);
    return 0;
}

int MsgClient::readData(int length, QByteArray& out)
{
    if (length < 1)
        return -1;
    // The length comes from the peer. nread turns down more than the socket holds, so the
    // buffer is sized by what is available: a corrupt head length must not be allocated first.
    const qint64 available = m_socket ? m_socket->bytesAvailable() : 0;
    QByteArray buffer(static_cast<int>(qMin<qint64>(length, available)) + 1, '\0');
    const int ret = nread(buffer.data(), length);
    if (ret == 0)
        out = buffer.left(length);
    return ret;
}

int MsgClient::readFromServer(QByteArray& out)
{
    if (!m_socket || !m_socket->isOpen())
        return -1;

    char magicBytes[kMagicSize] = {};
    if (nread(magicBytes, kMagicSize) != 0) {
        logger()->Msg(kLogImportant, "nread false! client read from server failed!");
        return -1;
    }
    const quint32 magic = pushframe::readLe32(magicBytes);
    logger()->Msg(kLogProgress, "nread ok! client read from server success!");
    logger()->Msg(kLogImportant, "magic is %d!", static_cast<int>(magic));

    if (magic == MAGIC_HEART) {
        logger()->Msg(kLogProgress, "current msg is heart beart!");
        return kFrameHeartbeat;
    }
    if (magic == MAGIC_RSP) {
        tagTRANSPORT_PKG_HEAD_RSP head;
        head.magic_quote = magic;
        QByteArray headString;
        QByteArray body;
        if (readHead(head, headString) != 0 || readData(static_cast<int>(head.length), body) != 0) {
            logger()->Msg(kLogImportant, "read false! read head or data failed!");
            return -1;
        }
        logger()->Msg(kLogProgress, "headstring : %s", headString.constData());
        if (Msg_client::decode(headString, body, out) != 0) {
            logger()->Msg(kLogError, "decode failed! decode headstring is %s!response is %s",
                          headString.constData(), body.constData());
            return -1;
        }
        m_responseSeq = head.seq;
        return kFrameResponse;
    }
    if (magic == MAGIC_NOTICE) {
        QByteArray body;
        if (readData(Msg_client::kNoticeBodySize, body) != 0) {
            logger()->Msg(kLogError, "read response err!");
            return -1;
        }
        if (Msg_client::decode(QByteArray(magicBytes, kMagicSize), body, out) != 0) {
            logger()->Msg(kLogError, "decode response failed! response is %s!", body.constData());
            return -1;
        }
        return kFrameNotice;
    }
    logger()->Msg(kLogProgress, "false magic:%d!", static_cast<int>(magic));
    return -1;
}

void MsgClient::onReadyRead()
{
    Infor tracer(kLogTrace, scopeName("onReadyRead"));
    const SocketInUse inUse(this);
    // Every whole frame the socket holds is read now: Qt signals again only for bytes that
    // arrive later, and a frame that came in the same segment as the one before must not wait
    // for them. A frame still arriving (on a real link an answer of a few kB spans segments) is
    // read when its last bytes come, or as it is once the wait for them runs out. Handling a
    // frame may wait in a nested event loop that replaces the connection; the bytes of a
    // replaced connection are not read.
    const quint64 connection = m_connection;
    while (connection == m_connection && m_socket && m_socket->bytesAvailable() > 0) {
        if (!frameComplete()) {
            if (!m_frameTimer->isActive())
                m_frameTimer->start(m_times.frameCompleteMs);
            return;
        }
        m_frameTimer->stop();
        if (!readOneFrame())
            return;
    }
}

void MsgClient::onFrameTimer()
{
    const SocketInUse inUse(this);
    // The rest of the frame did not come: it is read as it is and fails as a cut frame would.
    if (m_socket && m_socket->bytesAvailable() > 0)
        readOneFrame();
}

bool MsgClient::frameComplete() const
{
    const qint64 available = m_socket->bytesAvailable();
    if (available < kMagicSize)
        return false;
    const QByteArray head = m_socket->peek(Msg_client::kMsgHeadSize);
    const quint32 magic = pushframe::readLe32(head.constData());
    if (magic == MAGIC_NOTICE)
        return available >= kMagicSize + Msg_client::kNoticeBodySize;
    if (magic != MAGIC_RSP) // a heartbeat, or a magic that fails as it is
        return true;
    if (head.size() < Msg_client::kMsgHeadSize)
        return false;
    const qint64 length = pushframe::readLe32(head.constData() + pushframe::kHeadLength);
    return length > kMaxFrameBody || available >= Msg_client::kMsgHeadSize + length;
}

bool MsgClient::readOneFrame()
{
    QByteArray message;
    const int rc = readFromServer(message);
    if (rc < 0) {
        logger()->Msg(kLogImportant,
                      "read from server result is -1, so check connect status! current process "
                      "is %d",
                      m_process);
        emit checkstatus(true);
        return false;
    }
    logger()->Msg(kLogProgress, "client read from server message is %s", message.constData());
    const LinkPoint at = here();
    switch (m_process) {
    case kStepLogin:
        // Whatever the login answer holds, it moves the process on.
        stopCheckTime();
        nextProcess();
        break;
    case kStepQuery:
        // Only a frame read after the query has gone out answers it (the login clears the query
        // time); one that came before, such as a notice right after the login answer, is dropped.
        if (m_lastQueryTime == 0)
            break;
        // The answer's messages may wait for a status check; the watchdog is stopped only if the
        // connection is still the one that asked.
        if (HandleMaxIdMessage(rc, message) && at.connection == m_connection)
            stopCheckTime();
        break;
    case kStepRunning:
        if (HandleMessageFormServer(rc, message) != 0 && here() == at) {
            emit checkstatus(true);
            emit checkuserinfo();
        }
        break;
    default:
        break;
    }
    return true;
}

void MsgClient::ondisconnected()
{
    Infor tracer(kLogTrace, scopeName("ondisconnected"));
    const SocketInUse inUse(this);
    const QString error = m_socket ? m_socket->errorString() : QString();
    logger()->Msg(kLogError, "server disconnect to socket, error is %s",
                  error.toUtf8().constData());
    emit checkstatus(true);
}
