#pragma once
// SPDX-License-Identifier: Apache-2.0

// Server side of the push wire format: little-endian helpers, frame builders and body openers.
// Everything a stand-in push server or a test needs to speak to the daemon's push client.
// Sealing goes through the stand-in cipher library (ec627), compression through liblz4.

#include <QByteArray>
#include <QtGlobal>

namespace pushwire {

// Magics: 32-bit little-endian values whose bytes read as four ASCII letters.
constexpr quint32 kMagicHeart = 0x534F4F47;    // "GOOS"
constexpr quint32 kMagicFirstReq = 0x534F4F48; // "HOOS"
constexpr quint32 kMagicReq = 0x534F4F49;      // "IOOS"
constexpr quint32 kMagicRsp = 0x534F4F4A;      // "JOOS"
constexpr quint32 kMagicPsh = 0x534F4F4B;      // "KOOS"
constexpr quint32 kMagicNotice = 0x534F4F4C;   // "LOOS"

constexpr int kLoginHeadSize = 80;
constexpr int kHeadSize = 16; // normal request head and response head
constexpr int kTokenOffset = 24;
constexpr int kTokenSize = 48;
constexpr int kNoticeBodySize = 8;

// Command of the "latest messages" query.
constexpr quint32 kQueryCommand = 16781314;

void appendLe16(QByteArray& out, quint16 value);
void appendLe32(QByteArray& out, quint32 value);
void appendLe64(QByteArray& out, quint64 value);
// Reads at `offset`; the caller checks that the bytes are there.
quint16 readLe16(const QByteArray& in, int offset);
quint32 readLe32(const QByteArray& in, int offset);
quint64 readLe64(const QByteArray& in, int offset);
// The four letters of a magic, e.g. "JOOS".
QByteArray magicText(quint32 magic);

// The daemon decompresses an answer whose sealed body has E bytes into at most 16 * E + 1536
// bytes. True when a plaintext of `plainSize` bytes whose LZ4 block has `blockSize` bytes fits.
bool fitsDecompressBound(int plainSize, int blockSize);

// The LZ4 block (LZ4_compress_default) of `plain`; empty on failure.
QByteArray lz4Block(const QByteArray& plain);
// Seals `plain` with ec627_encode_data. False when the library fails.
bool seal(const QByteArray& plain, QByteArray& sealed);
// Opens a normal request body (ec627_decode).
bool openRequestBody(const QByteArray& body, QByteArray& plain);
// Opens a login body with the token and the user id of its head (ec627_msg_decode).
bool openLoginBody(quint32 userId, const QByteArray& token, const QByteArray& body,
                   QByteArray& plain);

// A response frame ("JOOS" or "KOOS" head + sealed body). With `compress` the plaintext is first
// turned into an LZ4 block and the compressed byte is set. Returns an empty array on failure.
QByteArray responseFrame(quint32 seq, const QByteArray& text, bool compress,
                         quint32 magic = kMagicRsp);
// A push notice frame: "LOOS", the id, then four more (ignored) bytes.
QByteArray noticeFrame(quint32 id, quint32 extra = 0);
QByteArray heartbeatFrame();

// Client-side frames, for tests that want to talk to a stand-in server without the daemon.
QByteArray loginFrame(quint8 clientType, quint64 sessionId, quint32 userId, quint32 seq,
                      quint32 extra, const QByteArray& text);
QByteArray requestFrame(quint32 seq, quint32 command, const QByteArray& text);

} // namespace pushwire
