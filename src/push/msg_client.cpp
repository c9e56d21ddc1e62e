// SPDX-License-Identifier: Apache-2.0
#include "msg_client.h"

#include "cipher/stringencrypt.h"
#include "core/constants.h"
#include "core/log.h"

#include <QDebug>
#include <QtEndian>
#include <cstring>
#include <lz4.h>
#include <vector>

namespace {

constexpr unsigned int kNoticeMessageType = 0x03000200; // 50332160
constexpr int kTokenBufferSize = 128;
// Decompression bounds up to this size are allocated as the result array itself.
constexpr int kDirectCapacity = 1 << 28;
constexpr char kNoticeText[] = R"({"data":{"notice_id":"%1","t":580001},"mt":50332160})";
// The short-body notice text goes out with "%llu" as it stands: it is never substituted.
constexpr char kFixedNoticeText[] = R"({"data":{"notice_id":"%llu","t":580001},"mt":50332160})";

void putLe32(QByteArray& array, int offset, quint32 value)
{
    qToLittleEndian<quint32>(value, array.data() + offset);
}

quint32 readLe32(const QByteArray& array, int offset)
{
    return pushframe::readLe32(array.constData() + offset);
}

// Plaintext of both request bodies: a little-endian word followed by the UTF-8 text.
QByteArray plainBody(quint32 word, QString const& text)
{
    // The UTF-8 conversion leaves room in its buffer, so the word goes in front without a copy
    // into a second array.
    QByteArray plain = text.toUtf8();
    char prefix[pushframe::kBodyWordSize];
    qToLittleEndian<quint32>(word, prefix);
    plain.prepend(prefix, pushframe::kBodyWordSize);
    return plain;
}

} // namespace

int Msg_client::init()
{
    StringEncrypt::getInstance()->Init();
    return 0;
}

int Msg_client::first_req_encode(unsigned int clientType, unsigned long sessionId,
                                 unsigned int userId, unsigned int sequence, unsigned int extra,
                                 QString const& text, QByteArray& out)
{
    QByteArray head(kFirstReqHeadSize, '\0');
    putLe32(head, 0, MAGIC_FIRST_REQ);
    qToLittleEndian<quint16>(pushframe::kLoginVersionValue, head.data() + pushframe::kLoginVersion);
    head[pushframe::kLoginClientType] = static_cast<char>(clientType & 0xFF);
    head[pushframe::kLoginReserved] = 0;
    qToLittleEndian<quint64>(sessionId, head.data() + pushframe::kLoginSessionId);
    putLe32(head, pushframe::kLoginUserId, userId);
    putLe32(head, pushframe::kLoginSequence, sequence);

    QByteArray body;
    unsigned char token[kTokenBufferSize] = {};
    int tokenLength = kTokenBufferSize;
    const int result = StringEncrypt::getInstance()->Ec627MsgEncode(userId, plainBody(extra, text),
                                                                    body, token, &tokenLength);
    if (result != 0) {
        LogManager::getInstance()->Msg(kLogError, "ec627_encode fail with return code [%d]",
                                       result);
        return result;
    }
    if (tokenLength != kTokenSize) {
        LogManager::getInstance()->Msg(kLogError, "token len [%d] err", tokenLength);
        return -1;
    }
    std::memcpy(head.data() + pushframe::kLoginToken, token, kTokenSize);
    putLe32(head, pushframe::kLoginBodyLength, static_cast<quint32>(body.size()));
    out = head + body;
    return 0;
}

int Msg_client::normal_req_encode(unsigned int sequence, unsigned int command, QString const& text,
                                  QByteArray& out)
{
    QByteArray head(kMsgHeadSize, '\0');
    putLe32(head, 0, MAGIC_REQ);
    putLe32(head, pushframe::kReqSequence, sequence);

    QByteArray body;
    const int result =
        StringEncrypt::getInstance()->Ec627EncodeData(plainBody(command, text), body);
    if (result != 0) {
        qDebug().nospace() << "ec627_encode fail with return code [" << result << "]";
        return -1;
    }
    putLe32(head, pushframe::kReqBodyLength, static_cast<quint32>(body.size()));
    out = head + body;
    return 0;
}

int Msg_client::heartbeat_req(QByteArray& out)
{
    out = QByteArray(pushframe::kMagicSize, '\0');
    putLe32(out, 0, MAGIC_HEART);
    return 0;
}

bool Msg_client::parseHead(QByteArray const& headString, tagTRANSPORT_PKG_HEAD_RSP& head)
{
    if (headString.size() != kMsgHeadSize)
        return false;
    head.magic_quote = readLe32(headString, 0);
    head.seq = readLe32(headString, pushframe::kHeadSeq);
    head.compressed = static_cast<quint8>(headString.at(pushframe::kHeadCompressed));
    head.length = readLe32(headString, pushframe::kHeadLength);
    return true;
}

int Msg_client::decode(QByteArray const& headString, QByteArray const& response, QByteArray& out)
{
    if (headString.size() == pushframe::kMagicSize) {
        const quint32 magic = readLe32(headString, 0);
        if (magic == MAGIC_NOTICE && response.size() == kNoticeBodySize) {
            const quint32 noticeId = readLe32(response, 0);
            out = QString::fromLatin1(kNoticeText).arg(noticeId).toUtf8();
            return 0;
        }
        LogManager::getInstance()->Msg(kLogError,
                                       "decode get push notice data but in data len err [%d], "
                                       "required len [%d]magic_num [%d]",
                                       response.size(), kNoticeBodySize, static_cast<int>(magic));
        return -1;
    }

    tagTRANSPORT_PKG_HEAD_RSP head;
    if (!parseHead(headString, head)) {
        LogManager::getInstance()->Msg(
            kLogError, "length of headstring [%d] not confirmed to sizeof(MSG_HEAD) [%d]",
            headString.size(), kMsgHeadSize);
        return -1;
    }
    if (head.magic_quote != MAGIC_RSP && head.magic_quote != MAGIC_PSH) {
        LogManager::getInstance()->Msg(
            kLogError, "head.magic_quote [%u] err, MAGIC_RSP [%d] MAGIC_PSH [%d]", head.magic_quote,
            static_cast<int>(MAGIC_RSP), static_cast<int>(MAGIC_PSH));
        return -1;
    }
    if (static_cast<qint64>(head.length) != response.size()) {
        LogManager::getInstance()->Msg(kLogError,
                                       "length err head.length = [%d], in.length() = [%d]",
                                       static_cast<int>(head.length), response.size());
        return -1;
    }
    return decodeX(0, head.compressed, response, out);
}

int Msg_client::decodeX(unsigned int magic, int compressed, QByteArray const& in, QByteArray& out)
{
    // An 8-byte body is a notice and is never decrypted; its text carries "%llu" verbatim.
    if (magic == kNoticeMessageType || magic == MAGIC_NOTICE || in.size() == kNoticeBodySize) {
        out = QByteArray(kFixedNoticeText);
        return 0;
    }

    StringEncrypt* cipher = StringEncrypt::getInstance();
    QByteArray plain;
    if (cipher->Ec627Decode(in, plain) != 0) {
        qDebug() << "ec627_decode fail";
        return -1;
    }
    if (compressed == 0) {
        out = plain;
        return 0;
    }

    // The decompressed size is bounded by the library's encode bound for the body (see
    // StringEncrypt::Ec627DecodeLen). LZ4 never reads destination bytes it has not written, so a
    // block that decompresses goes straight into the result, without zeroing the bound first.
    const int capacity = qMax(cipher->Ec627DecodeLen(in), 0);
    if (capacity <= kDirectCapacity) {
        QByteArray text(capacity, Qt::Uninitialized);
        const int produced =
            LZ4_decompress_safe(plain.constData(), text.data(), plain.size(), capacity);
        if (produced > 0) {
            text.resize(produced);
            text.squeeze(); // shrinks in place: the bound is many times the text
            out = text;
            return 0;
        }
    }
    // One spare zero byte after that capacity, which LZ4 never writes, keeps the text read below
    // inside the buffer.
    std::vector<char> buffer(static_cast<size_t>(capacity) + 1, 0);
    const int produced =
        LZ4_decompress_safe(plain.constData(), buffer.data(), plain.size(), capacity);
    if (produced == 0) {
        out.clear();
        return -1;
    }
    // A corrupt block (or one that does not fit) gives a negative count: what was decompressed
    // up to the first NUL byte is kept as the text, and the call still succeeds.
    out = produced > 0 ? QByteArray(buffer.data(), produced) : QByteArray(buffer.data());
    return 0;
}
