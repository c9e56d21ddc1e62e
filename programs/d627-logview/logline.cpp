// SPDX-License-Identifier: Apache-2.0
#include "logline.h"

#include <array>
#include <cstring>
#include <vector>

namespace {
struct Known
{
    const char* start;
    LineKind kind;
};

// The fixed start of every line the daemon writes (its text up to the first inserted value).
const Known kKnown[] = {
    {"!!! over time, terminate invalid main thread", LineKind::Other},
    {"3.1: get max_id.", LineKind::Other},
    {"627 is not exist, exit app", LineKind::MainAppGone},
    {"627 is not runing!", LineKind::Other},
    {"627 is running, but pid(", LineKind::Other},
    {"Communication::OnReadyRead data is ", LineKind::FromMainApp},
    {"Communication::sendMessage msg is ", LineKind::ToMainApp},
    {"LoginIMServer first_req_encode out is ", LineKind::Other},
    {"MsgClient::GetServerAddressList response is ", LineKind::Other},
    {"MsgClient::HandleMessageFormServer type is ", LineKind::PushFrame},
    {"MsgClient::HandlerMessage msg is ", LineKind::Other},
    {"MsgClient::connect2Server GetServerAddress failed!", LineKind::AddressFailed},
    {"MsgClient::connect2Server connect to server failed!", LineKind::ConnectFailed},
    {"MsgClient::onRun current process is ", LineKind::Step},
    {"MsgClient::onRun ret is not 0, would check login status!", LineKind::Other},
    {"MsgClient::onhandleMsg parse message failed!", LineKind::Other},
    {"MsgClient::onhandleMsg type is ", LineKind::Other},
    {"MsgClient::onhandleMsg type is 138, change face", LineKind::Other},
    {"MsgClient::onhandleMsg type is 138, vip level change", LineKind::Other},
    {"MsgClient::startRunTimer user is logout!", LineKind::Other},
    {"ParseCheckStatusResponse failed!parser error is ", LineKind::Other},
    {"ParseUserInfor ------------------>>", LineKind::Other},
    {"SendQuery id is ", LineKind::Query},
    {"[ThreadManager]init", LineKind::Other},
    {"[thread]name:", LineKind::Other},
    {"boot-time timer cannot be ", LineKind::Other},
    {"check status is login out", LineKind::StatusLoggedOut},
    {"check status is login, would reconnect server", LineKind::StatusValid},
    {"check status result is ", LineKind::StatusResult},
    {"check timer is timeout, would check status!", LineKind::CheckTimer},
    {"client login first_req_encode failed!", LineKind::CipherFailed},
    {"client login write cmd(", LineKind::Other},
    {"client read from server message is ", LineKind::Other},
    {"communication start failed!", LineKind::Other},
    {"connect server success!, ip is ", LineKind::AddressChosen},
    {"cookie changed and cookie is ", LineKind::Other},
    {"current msg is heart beart!", LineKind::Other},
    {"decode failed! decode headstring is ", LineKind::CipherDetail},
    {"decode get push notice data but in data len err [", LineKind::Other},
    {"decode response failed! response is ", LineKind::CipherDetail},
    {"ec627_encode fail with return code [", LineKind::Other},
    {"exist the same valid thread", LineKind::Other},
    {"failed to encode", LineKind::Other},
    {"false magic:", LineKind::UnknownFrame},
    {"found main thread", LineKind::Other},
    {"get server address error is ", LineKind::Other},
    {"get server address failed!", LineKind::Other},
    {"handle msg ,and message is ", LineKind::Other},
    {"head.magic_quote [", LineKind::Other},
    {"headstring : ", LineKind::Other},
    {"init ec627 failed!", LineKind::Other},
    {"init lib failed!", LineKind::Other},
    {"init lib success!", LineKind::Other},
    {"init m627 failed!", LineKind::Other},
    {"invalid main thread is exist", LineKind::Other},
    {"length err head.length = [", LineKind::Other},
    {"length of headstring [", LineKind::Other},
    {"load lib ec627 failed!", LineKind::Other},
    {"local connection of another user (uid ", LineKind::Other},
    {"local server close", LineKind::Other},
    {"local socket disconnected", LineKind::Other},
    {"magic is ", LineKind::Other},
    {"mainapp detect thread receive quit flag", LineKind::Other},
    {"mclient.normal_req_encode fail", LineKind::CipherDetail},
    {"net error, so check status", LineKind::NetError},
    {"net is changed! net is ", LineKind::Other},
    {"network detect thread receive quit flag", LineKind::Other},
    {"network watch: ", LineKind::Other},
    {"nread failed! len is ", LineKind::Other},
    {"nread false! client read from server failed!", LineKind::Other},
    {"nread ok! client read from server success!", LineKind::Other},
    {"parse message failed : ", LineKind::Other},
    {"parse server address failed! because state is 0", LineKind::Other},
    {"push connection path lost: ", LineKind::Other},
    {"push socket option ", LineKind::Other},
    {"read false! read head or data failed!", LineKind::Other},
    {"read from 627 data is ", LineKind::Other},
    {"read from server result is -1, so check connect status! current process is ",
     LineKind::ReadFailed},
    {"read head failed!", LineKind::Other},
    {"read response err!", LineKind::Other},
    {"request or parse failed, request return:", LineKind::StatusFailed},
    {"send query is -1, so check login status", LineKind::QueryFailed},
    {"server address list num is 0!", LineKind::Other},
    {"server disconnect to socket, error is ", LineKind::Disconnected},
    {"socket error", LineKind::Restart},
    {"token len [", LineKind::Other},
    {"user is logout! message is ", LineKind::LogoutReported},
    {"user is logout, message is ", LineKind::Other},
    {"userinfor:", LineKind::Other},
    {"write data failed", LineKind::Other},
    {"write to server failed!", LineKind::WriteFailed},
};

// Candidates by first character, longest start first, so that a longer start wins.
class KnownIndex
{
public:
    KnownIndex()
    {
        for (const Known& known : kKnown) {
            std::vector<const Known*>& bucket =
                m_buckets[static_cast<unsigned char>(known.start[0])];
            auto at = bucket.begin();
            while (at != bucket.end() && std::strlen((*at)->start) >= std::strlen(known.start))
                ++at;
            bucket.insert(at, &known);
        }
    }
    const Known* find(const QByteArray& text) const
    {
        if (text.isEmpty())
            return nullptr;
        for (const Known* known : m_buckets[static_cast<unsigned char>(text.at(0))]) {
            if (text.startsWith(known->start))
                return known;
        }
        return nullptr;
    }

private:
    std::array<std::vector<const Known*>, 256> m_buckets;
};

// Days from 1970-01-01 to a date of the proleptic Gregorian calendar.
qint64 daysFromCivil(int y, int m, int d)
{
    y -= m <= 2 ? 1 : 0;
    const int era = (y >= 0 ? y : y - 399) / 400;
    const int yoe = y - era * 400;
    const int doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const int doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return qint64(era) * 146097 + doe - 719468;
}

// The decimal number of `count` digits at `at`; -1 if one of them is no digit.
int digits(const char* at, int count)
{
    int value = 0;
    for (int i = 0; i < count; ++i) {
        if (at[i] < '0' || at[i] > '9')
            return -1;
        value = value * 10 + (at[i] - '0');
    }
    return value;
}

// The decimal number that follows `start` in `text`, or -1.
int numberAfter(const QByteArray& text, const char* start)
{
    bool ok = false;
    int end = int(std::strlen(start));
    const int from = end;
    while (end < text.size() && text.at(end) >= '0' && text.at(end) <= '9')
        ++end;
    const int value = text.mid(from, end - from).toInt(&ok);
    return ok ? value : -1;
}
} // namespace

qint64 LineParser::readTime(const char* at, int size)
{
    static const char kShape[] = "0000-00-00 00:00:00.000";
    if (size < int(sizeof(kShape)) - 1)
        return -1;
    for (int i = 0; kShape[i]; ++i) {
        if (kShape[i] != '0' && at[i] != kShape[i])
            return -1;
    }
    const int year = digits(at, 4), month = digits(at + 5, 2), day = digits(at + 8, 2);
    const int hour = digits(at + 11, 2), minute = digits(at + 14, 2), second = digits(at + 17, 2);
    const int milli = digits(at + 20, 3);
    if (year < 0 || month < 1 || month > 12 || day < 1 || day > 31 || hour < 0 || hour > 23 ||
        minute < 0 || minute > 59 || second < 0 || second > 60 || milli < 0)
        return -1;
    const qint64 seconds =
        daysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second;
    return seconds * 1000 + milli;
}

bool LineParser::parse(const QByteArray& raw, LogLine& line)
{
    // "[" thread "]" time, then two blanks and the text.
    const int close = raw.indexOf(']');
    if (raw.size() < 2 || raw.at(0) != '[' || close < 2 || close > 24)
        return false;
    quint64 thread = 0;
    for (int i = 1; i < close; ++i) {
        const char c = raw.at(i);
        if (c < '0' || c > '9')
            return false;
        thread = thread * 10 + quint64(c - '0');
    }
    const int timeAt = close + 1;
    const qint64 ms = readTime(raw.constData() + timeAt, raw.size() - timeAt);
    if (ms < 0)
        return false;
    int textAt = timeAt + 23;
    for (int blanks = 0; blanks < 2 && textAt < raw.size() && raw.at(textAt) == ' '; ++blanks)
        ++textAt;
    line.ms = ms;
    line.thread = thread;
    line.text = raw.mid(textAt);
    line.kind = classify(line.text, line.number);
    return true;
}

int LineParser::marker(const QByteArray& raw)
{
    if (!raw.endsWith("!!!") || raw.size() < 4 || raw.size() > 13)
        return 0;
    bool ok = false;
    const int value = raw.left(raw.size() - 3).toInt(&ok);
    return ok && value > 0 && raw.at(0) != '+' ? value : 0;
}

LineKind LineParser::classify(const QByteArray& text, int& number)
{
    static const KnownIndex index;
    number = -1;
    if (text.endsWith("----[Enter]") || text.endsWith("----[Leave]"))
        return LineKind::Trace;
    const Known* known = index.find(text);
    if (!known)
        return LineKind::Unknown;
    if (known->kind == LineKind::Step || known->kind == LineKind::PushFrame)
        number = numberAfter(text, known->start);
    return known->kind;
}
