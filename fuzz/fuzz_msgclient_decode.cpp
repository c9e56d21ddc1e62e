// libFuzzer target for Msg_client::decode. Input layout:
//   byte 0        selector: bits 0-1 pick the head (0: 4-byte, 1: 16-byte, 2: 16-byte made to
//                 match the body, with the body first sealed by the cipher library so that the
//                 decryption succeeds and the LZ4 path sees arbitrary blocks; 3: odd size)
//   bytes 1..16   head material
//   rest          body
// Run with LD_LIBRARY_PATH pointing at the folder of libec627.so; without it every body fails
// to decrypt and only the head checks are exercised.
#include "cipher/stringencrypt.h"
#include "push/msg_client.h"

#include <QtEndian>
#include <QtGlobal>
#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const int initialised = [] {
        // The codec's debug-stream lines would only slow the fuzzer down.
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
        return Msg_client::init();
    }();
    (void)initialised;
    if (size < 17)
        return 0;
    const int selector = data[0] & 3;
    QByteArray head(reinterpret_cast<const char*>(data + 1), 16);
    QByteArray body(reinterpret_cast<const char*>(data + 17), static_cast<int>(size - 17));
    switch (selector) {
    case 0:
        head.truncate(4);
        break;
    case 2: {
        QByteArray sealed;
        if (StringEncrypt::getInstance()->Ec627EncodeData(body, sealed) == 0)
            body = sealed;
        qToLittleEndian<quint32>(MAGIC_RSP, head.data());
        qToLittleEndian<quint32>(static_cast<quint32>(body.size()), head.data() + 12);
        break;
    }
    case 3:
        head.truncate(data[1] % 16);
        break;
    default:
        break;
    }
    QByteArray out;
    Msg_client::decode(head, body, out);
    return 0;
}
