#pragma once
// SPDX-License-Identifier: Apache-2.0

#include <QByteArray>
#include <QString>
#include <QtEndian>

// Magics of the push wire protocol: 32-bit little-endian words whose bytes read as ASCII.
constexpr unsigned int MAGIC_HEART = 0x534F4F47;     // "GOOS" both ways: heartbeat
constexpr unsigned int MAGIC_FIRST_REQ = 0x534F4F48; // "HOOS" client: login request
constexpr unsigned int MAGIC_REQ = 0x534F4F49;       // "IOOS" client: normal request
constexpr unsigned int MAGIC_RSP = 0x534F4F4A;       // "JOOS" server: response, 16-byte head
constexpr unsigned int MAGIC_PSH = 0x534F4F4B;       // "KOOS" server: push, 16-byte head
constexpr unsigned int MAGIC_NOTICE = 0x534F4F4C;    // "LOOS" server: notice, 8-byte body

// Response head as received (16 bytes on the wire: magic, seq, compressed, 3 reserved, length).
struct tagTRANSPORT_PKG_HEAD_RSP
{
    quint32 magic_quote = 0;
    quint32 seq = 0;
    quint8 compressed = 0;
    quint32 length = 0;
};
using MSG_HEAD = tagTRANSPORT_PKG_HEAD_RSP;

// Layout of the push frames: sizes and byte offsets. All integers are little-endian.
namespace pushframe {
constexpr int kMagicSize = 4; // every frame starts with its magic; a heartbeat is only that
// Response head (16 bytes): magic, seq, compressed flag, 3 reserved bytes, body length.
constexpr int kHeadSeq = 4;
constexpr int kHeadCompressed = 8;
constexpr int kHeadLength = 12;
// Normal request head (16 bytes): magic, sequence, reserved word, body length.
constexpr int kReqSequence = 4;
constexpr int kReqBodyLength = 12;
// Login head (80 bytes): magic, version, client type, reserved byte, session id, user id,
// sequence, token, reserved word, body length.
constexpr int kLoginVersion = 4;
constexpr int kLoginClientType = 6;
constexpr int kLoginReserved = 7;
constexpr int kLoginSessionId = 8;
constexpr int kLoginUserId = 16;
constexpr int kLoginSequence = 20;
constexpr int kLoginToken = 24;
constexpr int kLoginBodyLength = 76;
constexpr quint16 kLoginVersionValue = 1;
// Plaintext of a request body: a little-endian word, then the UTF-8 text.
constexpr int kBodyWordSize = 4;

// The one little-endian read of the push layer: 32 bits at `bytes`.
inline quint32 readLe32(const char* bytes)
{
    return qFromLittleEndian<quint32>(bytes);
}
} // namespace pushframe

// Stateless encoders and decoder of push frames. Payloads are sealed and opened through
// StringEncrypt (which serialises calls into the cipher library); compressed answers are LZ4
// blocks. All callers run on the thread that owns the MsgClient.
class Msg_client
{
public:
    static constexpr int kMsgHeadSize = 16;
    static constexpr int kFirstReqHeadSize = 80;
    static constexpr int kNoticeBodySize = 8;
    static constexpr int kTokenSize = 48;

    // Loads and initialises the cipher library (StringEncrypt::getInstance()->Init()); returns 0.
    static int init();

    // Login frame: 80-byte head + body sealed by the message encoder. Returns 0, -1, or the
    // encoder's own non-zero code when sealing fails.
    static int first_req_encode(unsigned int clientType, unsigned long sessionId,
                                unsigned int userId, unsigned int sequence, unsigned int extra,
                                QString const& text, QByteArray& out);
    // Normal request frame: 16-byte head + body sealed by the data encoder. Returns 0 or -1.
    static int normal_req_encode(unsigned int sequence, unsigned int command, QString const& text,
                                 QByteArray& out);
    // The 4-byte heartbeat "GOOS". Always 0.
    static int heartbeat_req(QByteArray& out);

    // Turns a received head (4 bytes for a notice, 16 for a response or push) and its body into
    // message text. 0 or -1; `out` is untouched on failure (cleared on a decompression failure).
    static int decode(QByteArray const& headString, QByteArray const& response, QByteArray& out);
    // Opens (and with `compressed` non-zero, LZ4-decompresses) a body.
    static int decodeX(unsigned int magic, int compressed, QByteArray const& in, QByteArray& out);

    // Reads a 16-byte head; false when `headString` is not 16 bytes long.
    static bool parseHead(QByteArray const& headString, tagTRANSPORT_PKG_HEAD_RSP& head);
};
