// SPDX-License-Identifier: Apache-2.0
#include "stringencrypt.h"

#include "core/constants.h"
#include "core/log.h"
#include "core/sync.h"

#include <QCryptographicHash>
#include <QLibrary>
#include <climits>
#include <cstring>
#include <ctime>
#include <vector>

namespace {

constexpr char kLibraryName[] = "ec627";
constexpr char kKeyFormat[] = "#&@!*&@%dKQWZ&!*@";
constexpr int kTokenBufferBytes = 128;
constexpr int kEncodeTokenBufferBytes = 1024;
constexpr int kGetTokenBufferBytes = 1024;
constexpr int kScratchBytes = 16;
constexpr int kFormBufferBytes = 384;
constexpr qint64 kMinCapacityBytes = 1;
constexpr qint64 kMaxCapacityBytes = INT_MAX - 1;
constexpr size_t kSpareBytes = 1;
// Output buffers: a multiple of the input for the m627 calls and ec627_encode, else the
// library's own bound plus a margin.
constexpr qint64 kM627CapacityPerInputByte = 10;
constexpr qint64 kEncodeCapacityPerInputByte = 3;
constexpr qint64 kCapacityMarginBytes = 512;
constexpr qint64 kMsgEncodeMarginBytes = 1;

// A zeroed buffer of `capacity` bytes plus one spare byte, so that data() is never null even
// for a zero capacity; the library is only ever told about `capacity`.
std::vector<unsigned char> zeroed(qint64 capacity)
{
    return std::vector<unsigned char>(static_cast<size_t>(capacity) + kSpareBytes, 0);
}

// Bytes the library reported, bounded by what the buffer can hold.
QByteArray firstBytes(const std::vector<unsigned char>& buffer, qint64 length, qint64 capacity)
{
    const qint64 n = qBound<qint64>(0, length, capacity);
    return QByteArray(reinterpret_cast<const char*>(buffer.data()), static_cast<int>(n));
}

const unsigned char* bytes(const QByteArray& array)
{
    return reinterpret_cast<const unsigned char*>(array.constData());
}

} // namespace

namespace enctypt {

ec627_init_t f_ec627_init = nullptr;
ec627_encode_len_t f_ec627_encode_len = nullptr;
ec627_encode_token_t f_ec627_encode_token = nullptr;
ec627_encode_data_t f_ec627_encode_data = nullptr;
ec627_encode_t f_ec627_encode = nullptr;
ec627_decode_len_t f_ec627_decode_len = nullptr;
ec627_decode_t f_ec627_decode = nullptr;
ec627_get_token_t f_ec627_get_token = nullptr;
ec627_msg_encode_token_t f_ec627_msg_encode_token = nullptr;
ec627_msg_encode_t f_ec627_msg_encode = nullptr;
m627_edinit_t f_m627_edinit = nullptr;
m627_encode_t f_m627_encode = nullptr;
m627_decode_t f_m627_decode = nullptr;

void loadLibray()
{
    // The QLibrary object goes out of scope without unload(): the library stays mapped until
    // StringEncrypt::Destroy() or the end of the process.
    QLibrary library(kLibraryName);
    if (!library.load()) {
        LogManager::getInstance()->Msg(kLogTrace, "load lib ec627 failed!");
        return;
    }
    f_ec627_init = reinterpret_cast<ec627_init_t>(library.resolve("ec627_init"));
    f_ec627_encode_len = reinterpret_cast<ec627_encode_len_t>(library.resolve("ec627_encode_len"));
    f_ec627_encode_token =
        reinterpret_cast<ec627_encode_token_t>(library.resolve("ec627_encode_token"));
    f_ec627_encode_data =
        reinterpret_cast<ec627_encode_data_t>(library.resolve("ec627_encode_data"));
    f_ec627_encode = reinterpret_cast<ec627_encode_t>(library.resolve("ec627_encode"));
    f_ec627_decode_len = reinterpret_cast<ec627_decode_len_t>(library.resolve("ec627_decode_len"));
    f_ec627_decode = reinterpret_cast<ec627_decode_t>(library.resolve("ec627_decode"));
    f_ec627_get_token = reinterpret_cast<ec627_get_token_t>(library.resolve("ec627_get_token"));
    f_ec627_msg_encode_token =
        reinterpret_cast<ec627_msg_encode_token_t>(library.resolve("ec627_msg_encode_token"));
    f_ec627_msg_encode = reinterpret_cast<ec627_msg_encode_t>(library.resolve("ec627_msg_encode"));
    f_m627_edinit = reinterpret_cast<m627_edinit_t>(library.resolve("m627_edinit"));
    f_m627_encode = reinterpret_cast<m627_encode_t>(library.resolve("m627_encode"));
    f_m627_decode = reinterpret_cast<m627_decode_t>(library.resolve("m627_decode"));
}

void resetPointers()
{
    f_ec627_init = nullptr;
    f_ec627_encode_len = nullptr;
    f_ec627_encode_token = nullptr;
    f_ec627_encode_data = nullptr;
    f_ec627_encode = nullptr;
    f_ec627_decode_len = nullptr;
    f_ec627_decode = nullptr;
    f_ec627_get_token = nullptr;
    f_ec627_msg_encode_token = nullptr;
    f_ec627_msg_encode = nullptr;
    f_m627_edinit = nullptr;
    f_m627_encode = nullptr;
    f_m627_decode = nullptr;
}

int ec627_init()
{
    if (!f_ec627_init)
        loadLibray();
    return f_ec627_init ? f_ec627_init() : -1;
}

int ec627_encode_len(int inLength)
{
    return f_ec627_encode_len ? f_ec627_encode_len(inLength) : -1;
}

int ec627_encode_token(unsigned int product, unsigned char* token, int* tokenLength)
{
    return f_ec627_encode_token ? f_ec627_encode_token(product, token, tokenLength) : -1;
}

int ec627_encode_data(const unsigned char* in, int inLength, unsigned char* out, int* outLength)
{
    return f_ec627_encode_data ? f_ec627_encode_data(in, inLength, out, outLength) : -1;
}

int ec627_encode(unsigned int product, const unsigned char* in, int inLength, unsigned char* out,
                 int* outLength, unsigned char* token, int* tokenLength)
{
    return f_ec627_encode
               ? f_ec627_encode(product, in, inLength, out, outLength, token, tokenLength)
               : -1;
}

int ec627_decode_len(const unsigned char* in, int inLength)
{
    return f_ec627_decode_len ? f_ec627_decode_len(in, inLength) : -1;
}

int ec627_decode(const unsigned char* in, int inLength, unsigned char* out, int* outLength)
{
    return f_ec627_decode ? f_ec627_decode(in, inLength, out, outLength) : -1;
}

int ec627_get_token(unsigned int a, long long b, long long c, const unsigned char* d, int dLength,
                    const unsigned char* e, int eLength, const unsigned char* in, int inLength,
                    unsigned char* token, int* tokenLength)
{
    return f_ec627_get_token ? f_ec627_get_token(a, b, c, d, dLength, e, eLength, in, inLength,
                                                 token, tokenLength)
                             : -1;
}

int ec627_msg_encode_token(unsigned int type, unsigned char* token, int* tokenLength)
{
    return f_ec627_msg_encode_token ? f_ec627_msg_encode_token(type, token, tokenLength) : -1;
}

int ec627_msg_encode(unsigned int type, const unsigned char* in, int inLength, unsigned char* out,
                     int* outLength, unsigned char* token, int* tokenLength)
{
    return f_ec627_msg_encode
               ? f_ec627_msg_encode(type, in, inLength, out, outLength, token, tokenLength)
               : -1;
}

int m627_edinit()
{
    if (!f_m627_edinit)
        loadLibray();
    return f_m627_edinit ? f_m627_edinit() : -1;
}

int m627_encode(const unsigned char* in, unsigned int inLength, unsigned char* out,
                unsigned int* outLength, unsigned char* key, unsigned char* extra)
{
    return f_m627_encode ? f_m627_encode(in, inLength, out, outLength, key, extra) : -1;
}

int m627_decode(const unsigned char* in, unsigned int inLength, unsigned char* out,
                unsigned int* outLength, unsigned char* key, unsigned char* scratch)
{
    return f_m627_decode ? f_m627_decode(in, inLength, out, outLength, key, scratch) : -1;
}

} // namespace enctypt

QString m627KeyForTime(qint64 seconds)
{
    const QString text = QString::asprintf(kKeyFormat, static_cast<int>(seconds));
    return QString::fromLatin1(
        QCryptographicHash::hash(text.toUtf8(), QCryptographicHash::Md5).toHex());
}

StringEncrypt* StringEncrypt::m_this = nullptr;

StringEncrypt* StringEncrypt::getInstance()
{
    if (!m_this)
        m_this = new StringEncrypt;
    return m_this;
}

void StringEncrypt::destroyInstance()
{
    delete m_this;
    m_this = nullptr;
}

StringEncrypt::StringEncrypt()
{
    Init();
}

StringEncrypt::~StringEncrypt()
{
    Destroy();
}

void StringEncrypt::Init()
{
    Sync lock(&m_mutex);
    if (!m_m627Ready) {
        if (enctypt::m627_edinit() != 0)
            LogManager::getInstance()->Msg(kLogProgress, "init m627 failed!");
        else
            m_m627Ready = true;
    }
    if (!m_ec627Ready) {
        if (enctypt::ec627_init() != 0)
            LogManager::getInstance()->Msg(kLogProgress, "init ec627 failed!");
        else
            m_ec627Ready = true;
    }
    // Non-zero means a token was written: the opposite sense of every other call, on purpose.
    // Without the library the wrapper's -1 counts too, and the token becomes 128 NUL characters.
    unsigned char buffer[kTokenBufferBytes] = {};
    int length = kTokenBufferBytes;
    if (enctypt::ec627_encode_token(static_cast<unsigned int>(m_productNumber), buffer, &length) !=
        0) {
        const int n = qBound(0, length, kTokenBufferBytes);
        m_token = QString::fromUtf8(reinterpret_cast<const char*>(buffer), n);
    }
}

void StringEncrypt::Destroy()
{
    Sync lock(&m_mutex);
    QLibrary library(kLibraryName);
    if (library.isLoaded() && library.unload()) {
        // The mapping is gone: clear the pointers instead of leaving them dangling, so a stray
        // call fails with -1 rather than jumping into unmapped memory.
        enctypt::resetPointers();
    }
}

QString StringEncrypt::token()
{
    Sync lock(&m_mutex);
    return m_token;
}

int StringEncrypt::M627Encode(const QByteArray& in, QByteArray& out)
{
    Sync lock(&m_mutex);
    const qint64 capacity = kM627CapacityPerInputByte * in.size();
    if (capacity > kMaxCapacityBytes)
        return -1;
    std::vector<unsigned char> buffer = zeroed(capacity);
    unsigned int length = static_cast<unsigned int>(capacity);
    m_key = m627KeyForTime(time(nullptr));
    QByteArray key = m_key.toUtf8();
    const int result =
        enctypt::m627_encode(bytes(in), static_cast<unsigned int>(in.size()), buffer.data(),
                             &length, reinterpret_cast<unsigned char*>(key.data()), nullptr);
    if (result == 0)
        out = firstBytes(buffer, length, capacity);
    return result;
}

int StringEncrypt::M627Decode(const QByteArray& in, QByteArray& out)
{
    Sync lock(&m_mutex);
    const qint64 capacity = kM627CapacityPerInputByte * in.size();
    if (capacity > kMaxCapacityBytes)
        return -1;
    std::vector<unsigned char> buffer = zeroed(capacity);
    unsigned char scratch[kScratchBytes] = {};
    unsigned int length = static_cast<unsigned int>(capacity);
    QByteArray key = m_key.toUtf8();
    const int result =
        enctypt::m627_decode(bytes(in), static_cast<unsigned int>(in.size()), buffer.data(),
                             &length, reinterpret_cast<unsigned char*>(key.data()), scratch);
    if (result == 0)
        out = firstBytes(buffer, length, capacity);
    return result;
}

int StringEncrypt::Ec627Encode(const QByteArray& in, QByteArray& out, QByteArray& token)
{
    Sync lock(&m_mutex);
    const qint64 capacity = kEncodeCapacityPerInputByte * in.size();
    if (capacity > kMaxCapacityBytes)
        return -1;
    std::vector<unsigned char> buffer = zeroed(capacity);
    std::vector<unsigned char> tokenBuffer = zeroed(kEncodeTokenBufferBytes);
    int length = static_cast<int>(capacity);
    int tokenLength = kEncodeTokenBufferBytes;
    const int result =
        enctypt::ec627_encode(static_cast<unsigned int>(m_productNumber), bytes(in), in.size(),
                              buffer.data(), &length, tokenBuffer.data(), &tokenLength);
    if (result == 0) {
        out = firstBytes(buffer, length, capacity);
        token = firstBytes(tokenBuffer, tokenLength, kEncodeTokenBufferBytes);
    }
    return result;
}

int StringEncrypt::Ec627Decode(const QByteArray& in, QByteArray& out)
{
    Sync lock(&m_mutex);
    const qint64 capacity =
        qint64(enctypt::ec627_decode_len(bytes(in), in.size())) + kCapacityMarginBytes;
    if (capacity < kMinCapacityBytes || capacity > kMaxCapacityBytes)
        return -1;
    std::vector<unsigned char> buffer = zeroed(capacity);
    int length = static_cast<int>(capacity);
    const int result = enctypt::ec627_decode(bytes(in), in.size(), buffer.data(), &length);
    if (result == 0)
        out = firstBytes(buffer, length, capacity);
    return result;
}

int StringEncrypt::Ec627EncodeData(const QByteArray& in, QByteArray& out)
{
    Sync lock(&m_mutex);
    const qint64 capacity = qint64(enctypt::ec627_encode_len(in.size())) + kCapacityMarginBytes;
    if (capacity < kMinCapacityBytes || capacity > kMaxCapacityBytes)
        return -1;
    std::vector<unsigned char> buffer = zeroed(capacity);
    int length = static_cast<int>(capacity);
    const int result = enctypt::ec627_encode_data(bytes(in), in.size(), buffer.data(), &length);
    if (result == 0)
        out = firstBytes(buffer, length, capacity);
    return result;
}

int StringEncrypt::Ec627DecodeLen(const QByteArray& in)
{
    // The encode bound, not ec627_decode_len: the decoder uses it as an upper bound.
    Sync lock(&m_mutex);
    const qint64 n = qint64(enctypt::ec627_encode_len(in.size())) + kCapacityMarginBytes;
    return static_cast<int>(qMin<qint64>(n, INT_MAX));
}

int StringEncrypt::Ec627MsgEncodeToken(unsigned int type, unsigned char* token, int* tokenLength)
{
    Sync lock(&m_mutex);
    return enctypt::ec627_msg_encode_token(type, token, tokenLength);
}

int StringEncrypt::Ec627MsgEncode(unsigned int type, const QByteArray& in, QByteArray& out,
                                  unsigned char* token, int* tokenLength)
{
    Sync lock(&m_mutex);
    const qint64 capacity = qint64(enctypt::ec627_encode_len(in.size())) + kMsgEncodeMarginBytes;
    if (capacity < kMinCapacityBytes || capacity > kMaxCapacityBytes)
        return -1;
    std::vector<unsigned char> buffer = zeroed(capacity);
    int length = static_cast<int>(capacity);
    const int result = enctypt::ec627_msg_encode(type, bytes(in), in.size(), buffer.data(), &length,
                                                 token, tokenLength);
    if (result == 0)
        out = firstBytes(buffer, length, capacity);
    return result;
}

int StringEncrypt::Ec627GetToken(unsigned int a, unsigned int b, long c, const unsigned char* d,
                                 int dLength, const unsigned char* e, int eLength,
                                 const QByteArray& in, QByteArray& out)
{
    Sync lock(&m_mutex);
    std::vector<unsigned char> buffer = zeroed(kGetTokenBufferBytes);
    int length = kGetTokenBufferBytes;
    const int result =
        enctypt::ec627_get_token(a, static_cast<long long>(b), c, d, dLength, e, eLength, bytes(in),
                                 in.size(), buffer.data(), &length);
    if (result == 0)
        out = firstBytes(buffer, length, kGetTokenBufferBytes);
    return result;
}

QString get_m627_encode(QString const& plain)
{
    return get_m627_encode_at(plain, time(nullptr));
}

QString get_m627_encode_at(QString const& plain, qint64 seconds)
{
    // Loads the library by itself, independently of StringEncrypt, and leaves it loaded.
    // m627_edinit is called again on every call.
    QString result;
    QLibrary library(kLibraryName);
    if (library.load()) {
        const auto init = reinterpret_cast<enctypt::m627_edinit_t>(library.resolve("m627_edinit"));
        if (init && init() == 0)
            LogManager::getInstance()->Msg(kLogTrace, "init lib success!");
    } else {
        LogManager::getInstance()->Msg(kLogTrace, "init lib failed!");
    }
    const auto encode = reinterpret_cast<enctypt::m627_encode_t>(library.resolve("m627_encode"));
    if (!encode)
        return result;

    std::vector<unsigned char> buffer = zeroed(kFormBufferBytes);
    unsigned int length = kFormBufferBytes;
    QByteArray key = m627KeyForTime(seconds).toUtf8();
    const QByteArray input = plain.toUtf8();
    // The sixth argument is the integer 0 (a null pointer in the library's signature).
    if (encode(bytes(input), static_cast<unsigned int>(input.size()), buffer.data(), &length,
               reinterpret_cast<unsigned char*>(key.data()), nullptr) != 0) {
        LogManager::getInstance()->Msg(kLogError, "failed to encode");
        return result;
    }
    // The output is NUL-terminated text; the length written back is not used. Never read past
    // the buffer even if the encoder filled it without a terminator.
    const char* text = reinterpret_cast<const char*>(buffer.data());
    const QByteArray cipher =
        QString::fromUtf8(text, static_cast<int>(qstrnlen(text, kFormBufferBytes))).toUtf8();
    result = QStringLiteral("data=") +
             QString::fromUtf8(cipher.toPercentEncoding(QByteArray(), QByteArray(), '%'));
    return result;
}
