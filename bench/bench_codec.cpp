// Throughput of the push wire codec through the cipher library: login and normal request
// frames, plain and compressed answers. Run with LD_LIBRARY_PATH=build-X/lib.
//   bench_codec [iterations]
#include "cipher/stringencrypt.h"
#include "push/msg_client.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QtEndian>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <lz4.h>

namespace {

void report(const char* name, int iterations, const std::function<bool()>& step)
{
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < iterations; ++i) {
        if (!step()) {
            std::printf("%-28s failed (is libec627 on LD_LIBRARY_PATH?)\n", name);
            return;
        }
    }
    const double seconds = static_cast<double>(timer.nsecsElapsed()) / 1e9;
    std::printf("%-28s %10.0f frames/s\n", name, iterations / seconds);
}

QByteArray answer(const QByteArray& text, bool compressed, QByteArray& head)
{
    QByteArray payload = text;
    if (compressed) {
        payload.resize(LZ4_compressBound(text.size()));
        payload.resize(
            LZ4_compress_default(text.data(), payload.data(), text.size(), payload.size()));
    }
    QByteArray body;
    StringEncrypt::getInstance()->Ec627EncodeData(payload, body);
    head = QByteArray(16, '\0');
    qToLittleEndian<quint32>(MAGIC_RSP, head.data());
    head[8] = compressed ? 1 : 0;
    qToLittleEndian<quint32>(static_cast<quint32>(body.size()), head.data() + 12);
    return body;
}

} // namespace

int main(int argc, char** argv)
{
    const int iterations = argc > 1 ? std::max(1, std::atoi(argv[1])) : 20000;
    Msg_client::init();

    QByteArray text = R"({"data":{"list":[)";
    for (int i = 0; i < 40; ++i)
        text += R"({"id":)" + QByteArray::number(1000 + i * 37) + R"(,"mt":138,"face":"f"},)";
    text += "]}}";
    const QString request = QString::fromUtf8(text);

    QByteArray out;
    std::printf("payload %d bytes, %d iterations\n", text.size(), iterations);
    report("encode login frame", iterations, [&] {
        return Msg_client::first_req_encode(7, 123456789, 4242, 1, 0, request, out) == 0;
    });
    report("encode normal frame", iterations,
           [&] { return Msg_client::normal_req_encode(2, 1, request, out) == 0; });
    QByteArray head;
    const QByteArray plain = answer(text, false, head);
    const QByteArray plainHead = head;
    report("decode plain answer", iterations,
           [&] { return Msg_client::decode(plainHead, plain, out) == 0; });
    const QByteArray packed = answer(text, true, head);
    report("decode compressed answer", iterations,
           [&] { return Msg_client::decode(head, packed, out) == 0; });
    return 0;
}
