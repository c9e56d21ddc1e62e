// SPDX-License-Identifier: Apache-2.0
// The push wire codec beside its floor, in one binary (Google Benchmark). For each message size
// from 64 B to 64 KiB:
//   login/ours     Msg_client::first_req_encode       login/floor    ec627_msg_encode alone
//   request/ours   Msg_client::normal_req_encode      request/floor  ec627_encode_data alone
//   plain/ours     Msg_client::decode of an answer    plain/floor    ec627_decode alone
//   lz4/ours       the same, LZ4-compressed answer    lz4/floor      ec627_decode +
//   LZ4_decompress_safe
// The floors write into buffers allocated once; ours take and return QByteArrays as the daemon
// does. Run with LD_LIBRARY_PATH=build-X/lib (bench/run does).
#include "cipher/stringencrypt.h"
#include "ec627/ec627.h"
#include "push/msg_client.h"

#include <QByteArray>
#include <QString>
#include <QtEndian>
#include <benchmark/benchmark.h>
#include <lz4.h>
#include <string>
#include <vector>

namespace {

// JSON-like message text of `size` bytes that compresses about as well as the service's lists.
QByteArray messageText(int size)
{
    QByteArray text = R"({"code":0,"data":{"list":[)";
    for (int i = 0; text.size() < size; ++i) {
        text += R"({"t":599999,"data":{"t":138,"face_l":"http://img/)" +
                QByteArray::number(i * 7919 % 100003) + R"(.png","id":)" +
                QByteArray::number(1000 + i * 37) + "}},";
    }
    text.truncate(size);
    return text;
}

QByteArray plainBody(quint32 word, const QByteArray& text)
{
    QByteArray plain(4, '\0');
    qToLittleEndian<quint32>(word, plain.data());
    return plain + text;
}

// A response head and sealed body, as the push server sends them.
QByteArray sealedAnswer(const QByteArray& text, bool compressed, QByteArray& head)
{
    QByteArray payload = text;
    if (compressed) {
        payload.resize(LZ4_compressBound(text.size()));
        payload.resize(
            LZ4_compress_default(text.data(), payload.data(), text.size(), payload.size()));
    }
    QByteArray body(payload.size() + 40, '\0');
    int length = body.size();
    ec627_encode_data(reinterpret_cast<const unsigned char*>(payload.constData()), payload.size(),
                      reinterpret_cast<unsigned char*>(body.data()), &length);
    body.resize(length);
    head = QByteArray(16, '\0');
    qToLittleEndian<quint32>(MAGIC_RSP, head.data());
    head[8] = compressed ? 1 : 0;
    qToLittleEndian<quint32>(quint32(body.size()), head.data() + 12);
    return body;
}

const unsigned char* bytes(const QByteArray& a)
{
    return reinterpret_cast<const unsigned char*>(a.constData());
}

void setBytes(benchmark::State& state)
{
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
}

void login_ours(benchmark::State& state)
{
    Msg_client::init();
    const QString text = QString::fromUtf8(messageText(int(state.range(0))));
    QByteArray out;
    // NOLINTNEXTLINE(clang-analyzer-deadcode.DeadStores): the loop variable is unused by design
    for (auto _ : state) {
        if (Msg_client::first_req_encode(7, 123456789, 4242, 1, 0, text, out) != 0)
            state.SkipWithError("encode failed");
        benchmark::DoNotOptimize(out.data());
    }
    setBytes(state);
}

void login_floor(benchmark::State& state)
{
    const QByteArray plain = plainBody(0, messageText(int(state.range(0))));
    std::vector<unsigned char> out(size_t(plain.size()) + 64);
    unsigned char token[128];
    // NOLINTNEXTLINE(clang-analyzer-deadcode.DeadStores): the loop variable is unused by design
    for (auto _ : state) {
        int length = int(out.size());
        int tokenLength = sizeof token;
        if (ec627_msg_encode(4242, bytes(plain), plain.size(), out.data(), &length, token,
                             &tokenLength) != 0)
            state.SkipWithError("encode failed");
        benchmark::DoNotOptimize(out.data());
    }
    setBytes(state);
}

void request_ours(benchmark::State& state)
{
    Msg_client::init();
    const QString text = QString::fromUtf8(messageText(int(state.range(0))));
    QByteArray out;
    // NOLINTNEXTLINE(clang-analyzer-deadcode.DeadStores): the loop variable is unused by design
    for (auto _ : state) {
        if (Msg_client::normal_req_encode(2, 16781314, text, out) != 0)
            state.SkipWithError("encode failed");
        benchmark::DoNotOptimize(out.data());
    }
    setBytes(state);
}

void request_floor(benchmark::State& state)
{
    const QByteArray plain = plainBody(16781314, messageText(int(state.range(0))));
    std::vector<unsigned char> out(size_t(plain.size()) + 64);
    // NOLINTNEXTLINE(clang-analyzer-deadcode.DeadStores): the loop variable is unused by design
    for (auto _ : state) {
        int length = int(out.size());
        if (ec627_encode_data(bytes(plain), plain.size(), out.data(), &length) != 0)
            state.SkipWithError("encode failed");
        benchmark::DoNotOptimize(out.data());
    }
    setBytes(state);
}

void decodeOurs(benchmark::State& state, bool compressed)
{
    Msg_client::init();
    const QByteArray text = messageText(int(state.range(0)));
    QByteArray head;
    const QByteArray body = sealedAnswer(text, compressed, head);
    QByteArray out;
    // NOLINTNEXTLINE(clang-analyzer-deadcode.DeadStores): the loop variable is unused by design
    for (auto _ : state) {
        if (Msg_client::decode(head, body, out) != 0 || out.size() != text.size())
            state.SkipWithError("decode failed");
        benchmark::DoNotOptimize(out.data());
    }
    setBytes(state);
}

void decodeFloor(benchmark::State& state, bool compressed)
{
    const QByteArray text = messageText(int(state.range(0)));
    QByteArray head;
    const QByteArray body = sealedAnswer(text, compressed, head);
    std::vector<char> plain(size_t(body.size()));
    std::vector<char> out(size_t(text.size()));
    // NOLINTNEXTLINE(clang-analyzer-deadcode.DeadStores): the loop variable is unused by design
    for (auto _ : state) {
        int length = int(plain.size());
        if (ec627_decode(bytes(body), body.size(), reinterpret_cast<unsigned char*>(plain.data()),
                         &length) != 0)
            state.SkipWithError("decode failed");
        if (compressed &&
            LZ4_decompress_safe(plain.data(), out.data(), length, int(out.size())) != text.size())
            state.SkipWithError("decompress failed");
        benchmark::DoNotOptimize(out.data());
    }
    setBytes(state);
}

void plain_ours(benchmark::State& state)
{
    decodeOurs(state, false);
}
void plain_floor(benchmark::State& state)
{
    decodeFloor(state, false);
}
void lz4_ours(benchmark::State& state)
{
    decodeOurs(state, true);
}
void lz4_floor(benchmark::State& state)
{
    decodeFloor(state, true);
}

} // namespace

// Ours and its floor run back to back for each size, so both see the same machine load.
int main(int argc, char** argv)
{
    using Function = void (*)(benchmark::State&);
    const struct
    {
        const char* name;
        Function floor;
        Function ours;
    } pairs[] = {{"login", login_floor, login_ours},
                 {"request", request_floor, request_ours},
                 {"plain", plain_floor, plain_ours},
                 {"lz4", lz4_floor, lz4_ours}};
    for (const auto& pair : pairs) {
        for (int size = 64; size <= 65536; size *= 4) {
            benchmark::RegisterBenchmark((std::string(pair.name) + "/floor").c_str(), pair.floor)
                ->Arg(size);
            benchmark::RegisterBenchmark((std::string(pair.name) + "/ours").c_str(), pair.ours)
                ->Arg(size);
        }
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
