// SPDX-License-Identifier: Apache-2.0
#include "pushwire.h"

#include "ec627/ec627.h"

#include <QtEndian>
#include <lz4.h>

namespace pushwire {

namespace {
template <typename T> void appendLe(QByteArray& out, T value)
{
    char bytes[sizeof(T)];
    qToLittleEndian<T>(value, bytes);
    out.append(bytes, int(sizeof(T)));
}
} // namespace

void appendLe16(QByteArray& out, quint16 value)
{
    appendLe(out, value);
}

void appendLe32(QByteArray& out, quint32 value)
{
    appendLe(out, value);
}

void appendLe64(QByteArray& out, quint64 value)
{
    appendLe(out, value);
}

quint16 readLe16(const QByteArray& in, int offset)
{
    return qFromLittleEndian<quint16>(in.constData() + offset);
}

quint32 readLe32(const QByteArray& in, int offset)
{
    return qFromLittleEndian<quint32>(in.constData() + offset);
}

quint64 readLe64(const QByteArray& in, int offset)
{
    return qFromLittleEndian<quint64>(in.constData() + offset);
}

QByteArray magicText(quint32 magic)
{
    QByteArray text;
    appendLe32(text, magic);
    for (char& c : text) {
        if (c < 0x20 || c > 0x7E)
            c = '?';
    }
    return text;
}

bool fitsDecompressBound(int plainSize, int blockSize)
{
    const qint64 sealedSize = qint64(blockSize) + EC627_SEAL_OVERHEAD;
    return qint64(plainSize) <= 16 * sealedSize + 1536;
}

QByteArray lz4Block(const QByteArray& plain)
{
    QByteArray block(LZ4_compressBound(plain.size()), '\0');
    const int size =
        LZ4_compress_default(plain.constData(), block.data(), plain.size(), block.size());
    if (size <= 0)
        return QByteArray();
    block.resize(size);
    return block;
}

bool seal(const QByteArray& plain, QByteArray& sealed)
{
    QByteArray out(plain.size() + EC627_SEAL_OVERHEAD, '\0');
    int length = out.size();
    const int rc =
        ec627_encode_data(reinterpret_cast<const unsigned char*>(plain.constData()), plain.size(),
                          reinterpret_cast<unsigned char*>(out.data()), &length);
    if (rc != EC627_OK)
        return false;
    out.resize(length);
    sealed = out;
    return true;
}

bool openRequestBody(const QByteArray& body, QByteArray& plain)
{
    if (body.size() < EC627_SEAL_OVERHEAD)
        return false;
    QByteArray out(body.size(), '\0');
    int length = out.size();
    const int rc = ec627_decode(reinterpret_cast<const unsigned char*>(body.constData()),
                                body.size(), reinterpret_cast<unsigned char*>(out.data()), &length);
    if (rc != EC627_OK)
        return false;
    out.resize(length);
    plain = out;
    return true;
}

bool openLoginBody(quint32 userId, const QByteArray& token, const QByteArray& body,
                   QByteArray& plain)
{
    if (token.size() != kTokenSize)
        return false;
    QByteArray out(body.size() + 1, '\0');
    int length = out.size();
    const int rc =
        ec627_msg_decode(userId, reinterpret_cast<const unsigned char*>(token.constData()),
                         token.size(), reinterpret_cast<const unsigned char*>(body.constData()),
                         body.size(), reinterpret_cast<unsigned char*>(out.data()), &length);
    if (rc != EC627_OK)
        return false;
    out.resize(length);
    plain = out;
    return true;
}

QByteArray responseFrame(quint32 seq, const QByteArray& text, bool compress, quint32 magic)
{
    QByteArray plain = text;
    if (compress) {
        plain = lz4Block(text);
        if (plain.isEmpty())
            return QByteArray();
    }
    QByteArray sealed;
    if (!seal(plain, sealed))
        return QByteArray();
    QByteArray frame;
    appendLe32(frame, magic);
    appendLe32(frame, seq);
    frame.append(static_cast<char>(compress ? 1 : 0));
    frame.append(3, '\0');
    appendLe32(frame, static_cast<quint32>(sealed.size()));
    return frame + sealed;
}

QByteArray noticeFrame(quint32 id, quint32 extra)
{
    QByteArray frame;
    appendLe32(frame, kMagicNotice);
    appendLe32(frame, id);
    appendLe32(frame, extra);
    return frame;
}

QByteArray heartbeatFrame()
{
    QByteArray frame;
    appendLe32(frame, kMagicHeart);
    return frame;
}

QByteArray loginFrame(quint8 clientType, quint64 sessionId, quint32 userId, quint32 seq,
                      quint32 extra, const QByteArray& text)
{
    QByteArray plain;
    appendLe32(plain, extra);
    plain += text;
    QByteArray body(plain.size() + 16, '\0');
    int length = body.size();
    QByteArray token(kTokenSize, '\0');
    int tokenLength = token.size();
    const int rc =
        ec627_msg_encode(userId, reinterpret_cast<const unsigned char*>(plain.constData()),
                         plain.size(), reinterpret_cast<unsigned char*>(body.data()), &length,
                         reinterpret_cast<unsigned char*>(token.data()), &tokenLength);
    if (rc != EC627_OK || tokenLength != kTokenSize)
        return QByteArray();
    body.resize(length);
    QByteArray frame;
    appendLe32(frame, kMagicFirstReq);
    appendLe16(frame, 1);
    frame.append(static_cast<char>(clientType));
    frame.append('\0');
    appendLe64(frame, sessionId);
    appendLe32(frame, userId);
    appendLe32(frame, seq);
    frame += token;
    appendLe32(frame, 0);
    appendLe32(frame, static_cast<quint32>(body.size()));
    return frame + body;
}

QByteArray requestFrame(quint32 seq, quint32 command, const QByteArray& text)
{
    QByteArray plain;
    appendLe32(plain, command);
    plain += text;
    QByteArray sealed;
    if (!seal(plain, sealed))
        return QByteArray();
    QByteArray frame;
    appendLe32(frame, kMagicReq);
    appendLe32(frame, seq);
    appendLe32(frame, 0);
    appendLe32(frame, static_cast<quint32>(sealed.size()));
    return frame + sealed;
}

} // namespace pushwire
