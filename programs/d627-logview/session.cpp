// SPDX-License-Identifier: Apache-2.0
#include "session.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>

namespace {
// Failures that one line tells, and that end the push connection.
struct Failure
{
    LineKind kind;
    const char* cause;
};
const Failure kFailures[] = {{LineKind::AddressFailed, "address lookup failure"},
                             {LineKind::ConnectFailed, "connect failure"},
                             {LineKind::Disconnected, "disconnection"},
                             {LineKind::WriteFailed, "write failure"},
                             {LineKind::NetError, "network error timer"},
                             {LineKind::CipherFailed, "cipher failure"}};

// The text after the fixed start of a line, for the inserted value (an answer, a message).
QString valueOf(const QByteArray& text, const char* start)
{
    return QString::fromUtf8(text.mid(int(qstrlen(start))));
}

QString dateOf(qint64 seconds)
{
    return QDateTime::fromSecsSinceEpoch(seconds, Qt::UTC).toString("yyyy-MM-dd hh:mm:ss");
}
} // namespace

QMap<QString, int> Summary::countBy(const QList<Mark>& marks)
{
    QMap<QString, int> counts;
    for (const Mark& mark : marks)
        ++counts[mark.what];
    return counts;
}

qint64 Summary::longestBackoffMs() const
{
    qint64 longest = 0;
    for (const Span& span : backoffs)
        longest = qMax(longest, span.to - span.from);
    return longest;
}

void Session::addRun(qint64 pid, const QString& files, const QList<LogLine>& lines)
{
    if (lines.isEmpty())
        return;
    // Thread stamps are taken before the file's lock: lines may be a few ms out of order.
    const auto [low, high] =
        std::minmax_element(lines.cbegin(), lines.cend(),
                            [](const LogLine& a, const LogLine& b) { return a.ms < b.ms; });
    m_run = Run{pid, files, low->ms, high->ms, QString()};
    m_connectedSince = m_backoffSince = m_stepSince = -1;
    m_downSince = m_run.start; // not connected until the first login step
    m_runConnectedMs = 0;
    m_step = -1;
    m_heldCause = Mark();
    m_logoutSent = false;
    m_logoutReported = Mark();
    m_runLogins = 0;
    for (const LogLine& line : lines)
        onLine(line);
    endRun();
}

void Session::onLine(const LogLine& line)
{
    ++m_summary.lines;
    const QByteArray& text = line.text;
    for (const Failure& failure : kFailures) {
        if (failure.kind == line.kind) {
            fail(line.ms, failure.cause, text, true);
            return;
        }
    }
    switch (line.kind) {
    case LineKind::Trace:
        ++m_summary.traceLines;
        break;
    case LineKind::Step:
        onStep(line);
        break;
    case LineKind::CheckTimer:
        // In the running step the watchdog waits for a heartbeat's echo, before it for the
        // answer to the login or the query.
        fail(line.ms, m_step == 4 ? "heartbeat unanswered" : "check timer", text, false);
        break;
    case LineKind::CipherDetail:
        holdCause(line, "cipher failure");
        break;
    case LineKind::UnknownFrame:
        holdCause(line, "unknown frame");
        break;
    case LineKind::ReadFailed:
    case LineKind::QueryFailed: {
        // The line before may have said why: a frame the cipher could not open, a bad magic.
        const QString cause = !m_heldCause.what.isEmpty()         ? m_heldCause.what
                              : line.kind == LineKind::ReadFailed ? "read failure"
                                                                  : "query failure";
        const QByteArray why = m_heldCause.detail.isEmpty() ? text : m_heldCause.detail.toUtf8();
        m_heldCause = Mark();
        fail(line.ms, cause, why, true);
        break;
    }
    case LineKind::StatusResult:
        m_summary.checks << Mark{line.ms, "session valid",
                                 valueOf(text, "check status result is ").left(200)};
        break;
    case LineKind::StatusValid:
        if (!m_summary.checks.isEmpty())
            m_summary.checks.last().what = "session valid, reconnect";
        m_backoffSince = line.ms;
        break;
    case LineKind::StatusLoggedOut:
        if (!m_summary.checks.isEmpty())
            m_summary.checks.last().what = "logged out";
        break;
    case LineKind::StatusFailed:
        if (!m_summary.checks.isEmpty())
            m_summary.checks.last().what = "no answer";
        break;
    case LineKind::Restart:
        if (m_backoffSince >= 0)
            m_summary.backoffs << Span{m_backoffSince, line.ms, "back-off"};
        m_backoffSince = -1;
        break;
    case LineKind::PushFrame:
        if (line.number == 0)
            ++m_summary.heartbeatEchoes;
        else
            m_summary.notices << Mark{line.ms, line.number == 1 ? "notice" : "answer", text};
        break;
    case LineKind::Query:
        m_summary.notices << Mark{line.ms, "query", QString::fromUtf8(text)};
        break;
    case LineKind::FromMainApp:
        onMessageFromMainApp(line);
        break;
    case LineKind::ToMainApp:
        onMessageToMainApp(line);
        break;
    case LineKind::LogoutReported:
        m_logoutReported = Mark{line.ms, "logout", valueOf(text, "user is logout! message is ")};
        m_run.ended = "after reporting a logout";
        break;
    case LineKind::MainAppGone:
        m_run.ended = "the main application was gone";
        break;
    default:
        break;
    }
}

void Session::onStep(const LogLine& line)
{
    flushHeldCause();
    endStep(line.ms);
    if (line.number == 0 && m_connectedSince >= 0)
        connectionLost(line.ms); // step 0 closes the old socket first
    if (line.number == 1 && m_connectedSince < 0) {
        m_connectedSince = line.ms;
        ++m_summary.connections;
        endOutage(line.ms);
    }
    m_step = line.number;
    m_stepSince = line.ms;
}

void Session::onMessageFromMainApp(const LogLine& line)
{
    // What one read brought: usually one message, the login or "exit" (the login's cookie is
    // not shown).
    const QByteArray data = line.text.mid(int(qstrlen("Communication::OnReadyRead data is ")));
    const QJsonObject message = QJsonDocument::fromJson(data).object();
    if (message.value("exit").toBool() || data.contains("\"exit\":true"))
        m_run.ended = "asked to exit by the main application";
    if (message.contains("user_id")) {
        m_summary.logins << Mark{line.ms, "login",
                                 "user " + message.value("user_id").toVariant().toString()};
        ++m_runLogins;
    }
}

void Session::onMessageToMainApp(const LogLine& line)
{
    const QJsonObject message =
        QJsonDocument::fromJson(line.text.mid(int(qstrlen("Communication::sendMessage msg is "))))
            .object();
    if (message.contains("logout")) {
        m_summary.messages << Mark{line.ms, "logout", message.value("logout").toString()};
        m_logoutSent = true;
    }
    if (message.contains("user_face"))
        m_summary.messages << Mark{line.ms, "avatar", message.value("user_face").toString()};
    if (message.contains("vip_level")) {
        const qint64 level = message.value("vip_level").toVariant().toLongLong();
        const qint64 expiry = message.value("expire_time").toVariant().toLongLong();
        // The pair (100, 100) asks the main application to refresh the user's information.
        m_summary.messages << Mark{
            line.ms, "membership",
            level == 100 && expiry == 100
                ? QStringLiteral("refresh the user information")
                : QStringLiteral("level %1, expires %2 UTC").arg(level).arg(dateOf(expiry))};
    }
    if (message.contains("net_error"))
        m_summary.messages << Mark{line.ms, "network",
                                   message.value("net_error").toBool() ? "unreachable" : "back"};
}

void Session::fail(qint64 at, const QString& cause, const QByteArray& text, bool drops)
{
    flushHeldCause();
    m_summary.failures << Mark{at, cause, QString::fromUtf8(text.left(300))};
    if (drops)
        connectionLost(at);
}

void Session::holdCause(const LogLine& line, const QString& cause)
{
    flushHeldCause();
    m_heldCause = Mark{line.ms, cause, QString::fromUtf8(line.text.left(300))};
}

void Session::flushHeldCause()
{
    if (m_heldCause.what.isEmpty())
        return;
    m_summary.failures << m_heldCause;
    m_heldCause = Mark();
}

void Session::connectionLost(qint64 at)
{
    if (m_connectedSince >= 0)
        m_runConnectedMs += at - m_connectedSince;
    m_connectedSince = -1;
    if (m_downSince < 0)
        m_downSince = at;
    endStep(at);
    m_step = -1;
}

void Session::endOutage(qint64 at)
{
    if (m_downSince >= 0)
        m_summary.longestOutageMs = qMax(m_summary.longestOutageMs, at - m_downSince);
    m_downSince = -1;
}

void Session::endStep(qint64 at)
{
    if (m_step >= 0)
        m_summary.steps << Span{m_stepSince, at, QString::number(m_step)};
    m_step = -1;
}

void Session::endRun()
{
    flushHeldCause();
    if (m_connectedSince >= 0)
        connectionLost(m_run.end);
    endOutage(m_run.end);
    m_summary.connectedMs += m_runConnectedMs;
    m_summary.notConnectedMs += m_run.end - m_run.start - m_runConnectedMs;
    endStep(m_run.end);
    if (m_backoffSince >= 0)
        m_summary.backoffs << Span{m_backoffSince, m_run.end, "back-off"};
    // Below threshold 2 the message itself is logged; above it, only the report.
    if (!m_logoutSent && !m_logoutReported.what.isEmpty())
        m_summary.messages << m_logoutReported;
    std::stable_sort(m_summary.messages.begin(), m_summary.messages.end(),
                     [](const Mark& a, const Mark& b) { return a.at < b.at; });
    // The daemon opens its log when the login message comes; without that line, the first line
    // stands for it.
    if (m_runLogins == 0)
        m_summary.logins << Mark{m_run.start, "login", "(its line is not in the log)"};
    if (m_run.ended.isEmpty())
        m_run.ended = "not shown: the log ends while the daemon ran, or it was stopped";
    m_summary.runs << m_run;
}
