// SPDX-License-Identifier: Apache-2.0
// MsgClient: the message query, parsing the answers and dispatching them into the DataCenter.
#include "client.h"
#include "client_p.h"
#include "core/datacenter.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

using msgclient_detail::logger;
using msgclient_detail::readLevel;
using msgclient_detail::truncateToInt64;

namespace {
// Command of the "latest messages" query.
constexpr unsigned int kQueryCommand = 16781314;
// Message types.
constexpr int kWrappedItemType = 599999;
constexpr int kProfileChangeType = 138;
constexpr int kCheckLoginType = 149;
constexpr int kCheckLoginType2 = 601010;
// A notice asks for a new query once this long after the last one (or when every query has
// been answered).
constexpr time_t kQueryAgainAfterS = 3;

// A message type: an integer, or a JSON string holding a decimal number.
int readType(const QJsonValue& value)
{
    if (value.isString())
        return value.toString().toInt();
    return value.toInt();
}
} // namespace

int MsgClient::SendQuery(const QString& id)
{
    const QString text = QString("{\"id\":\"%1\", \"type\":627, \"max\":\"100\"}").arg(id);
    logger()->Msg(kLogImportant, "SendQuery id is %s, send squence id is %lu",
                  id.toUtf8().constData(), static_cast<unsigned long>(m_sequence));
    QByteArray frame;
    if (Msg_client::normal_req_encode(m_sequence, kQueryCommand, text, frame) != 0) {
        logger()->Msg(kLogError, "mclient.normal_req_encode fail");
        return -1;
    }
    const LinkPoint at = here();
    if (writeCmd(frame) != 0)
        logger()->Msg(kLogError, "write data failed");
    // A failed write still counts as a sent query, on its own connection. Its failure may have
    // restarted the steps meanwhile; the new connection's numbers are left alone.
    if (here() != at)
        return 0;
    m_sequence += 1;
    m_lastQueryTime = time(nullptr);
    return 0;
}

bool MsgClient::ParseMessage(QByteArray const& message, QVector<MsgClient::OneMessage>& out)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(message, &error);
    if (error.error != QJsonParseError::NoError) {
        logger()->Msg(kLogImportant, "parse message failed : %s",
                      error.errorString().toUtf8().constData());
        return false;
    }
    const QJsonObject root = document.object();
    if (root.value("code").toInt() != 0)
        return false;

    const QJsonArray items = root.value("data").toObject().value("list").toArray();
    for (const QJsonValue& itemValue : items) {
        const QJsonObject item = itemValue.toObject();
        if (readType(item.value("t")) != kWrappedItemType)
            continue;
        const QJsonObject inner = item.value("data").toObject();
        OneMessage one;
        one.type = readType(inner.value("t"));
        if (one.type == kProfileChangeType) {
            one.face = inner.value("face_l").toString();
            const QJsonArray vip =
                inner.value("data").toObject().value("vip_info").toObject().value("vip").toArray();
            if (!vip.isEmpty()) {
                const QJsonObject first = vip.at(0).toObject();
                one.mark = readLevel(first.value("mark"));
                one.expire = truncateToInt64(first.value("expire").toDouble());
            }
        }
        out.append(one);
    }
    return true;
}

void MsgClient::onhandleMsg(const QByteArray& message)
{
    logger()->Msg(kLogProgress, "handle msg ,and message is %s", message.constData());
    QVector<OneMessage> messages;
    if (!ParseMessage(message, messages)) {
        logger()->Msg(kLogImportant, "MsgClient::onhandleMsg parse message failed!");
        return;
    }
    for (const OneMessage& one : qAsConst(messages)) {
        if (one.type == kCheckLoginType || one.type == kCheckLoginType2) {
            logger()->Msg(kLogProgress, "MsgClient::onhandleMsg type is %d, check login status",
                          one.type);
            emit checkstatus(false);
        } else if (one.type == kProfileChangeType) {
            if (!one.face.isEmpty()) {
                logger()->Msg(kLogProgress, "MsgClient::onhandleMsg type is 138, change face");
                DataCenter::getInstance()->SetUserFace(one.face);
            } else {
                logger()->Msg(kLogProgress, "MsgClient::onhandleMsg type is 138, vip level change");
                DataCenter::getInstance()->SetVipInfor(one.mark, one.expire);
            }
        }
    }
}

void MsgClient::HandlerMessage(const QByteArray& message)
{
    logger()->Msg(kLogProgress, "MsgClient::HandlerMessage msg is %s", message.constData());
    onhandleMsg(message);
}

bool MsgClient::HandleMaxIdMessage(int, const QByteArray& message)
{
    // A message of the answer may wait for a status check in a nested event loop, where the
    // steps can restart or another answer move them on. Only the step that read this answer
    // moves on; the answer counts as handled either way.
    const LinkPoint at = here();
    HandlerMessage(message);
    if (here() == at)
        nextProcess();
    return true;
}

int MsgClient::HandleMessageFormServer(int type, const QByteArray& message)
{
    Infor tracer(kLogTrace, scopeName("HandleMessageFormServer"));
    logger()->Msg(kLogProgress, "MsgClient::HandleMessageFormServer type is %d, message is %s",
                  type, message.constData());
    switch (type) {
    case kFrameResponse:
        // An answer in the running step is not parsed: it prompts a status and profile check.
        if (!message.isEmpty()) {
            emit checkstatus(false);
            emit checkuserinfo();
        }
        return 0;
    case kFrameNotice: {
        const time_t now = time(nullptr);
        if (m_responseSeq + 1 < m_sequence) {
            // Answers are missing: check instead of asking again.
            emit checkstatus(false);
            emit checkuserinfo();
            return 0;
        }
        if (now - m_lastQueryTime > kQueryAgainAfterS || m_responseSeq + 1 == m_sequence) {
            if (SendQuery("0") == -1) {
                logger()->Msg(kLogImportant, "send query is -1, so check login status");
                return -1;
            }
        }
        return 0;
    }
    case kFrameHeartbeat:
        stopCheckTime();
        return 0;
    default:
        return 0;
    }
}
