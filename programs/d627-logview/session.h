#pragma once
// SPDX-License-Identifier: Apache-2.0

// What a user's session looked like, built from the timed lines of the daemon's runs: when the
// push connection was up and in which step, what failed and why, the status checks and their
// answers, the back-off waits, the notices and queries, and what the main application was told.

#include "logline.h"

#include <QList>
#include <QMap>
#include <QString>

struct Mark
{
    qint64 at = 0;  // ms, wall clock read as UTC
    QString what;   // cause, result or kind
    QString detail; // the text that says so
};

struct Span
{
    qint64 from = 0;
    qint64 to = 0;
    QString what;
};

struct Run
{
    qint64 pid = -1;
    QString files;
    qint64 start = 0;
    qint64 end = 0;
    QString ended; // how the run ended, as far as the log shows it
};

struct Summary
{
    QList<Run> runs;
    QList<Mark> logins;
    int connections = 0;
    qint64 connectedMs = 0;
    qint64 notConnectedMs = 0;
    qint64 longestOutageMs = 0; // the longest stretch not connected
    QList<Mark> failures;       // what: the cause
    QList<Mark> checks;         // what: the answer
    QList<Span> backoffs;
    QList<Mark> notices;  // what: "notice", "query" or "answer"
    QList<Mark> messages; // to the main application; what: "logout", "avatar", "membership", ...
    QList<Span> steps;    // what: the step number
    int heartbeatEchoes = 0;
    int lines = 0;
    int traceLines = 0;

    static QMap<QString, int> countBy(const QList<Mark>& marks);
    qint64 longestBackoffMs() const;
};

class Session
{
public:
    // One run of the daemon: the lines of its files in order.
    void addRun(qint64 pid, const QString& files, const QList<LogLine>& lines);
    const Summary& summary() const { return m_summary; }

private:
    void onLine(const LogLine& line);
    void onStep(const LogLine& line);
    void onMessageFromMainApp(const LogLine& line);
    void onMessageToMainApp(const LogLine& line);
    void fail(qint64 at, const QString& cause, const QByteArray& text, bool drops);
    void holdCause(const LogLine& line, const QString& cause);
    void flushHeldCause();
    void connectionLost(qint64 at);
    // A stretch not connected ends: from the run's start or a lost connection to a login step or
    // the run's end. Together they make up the time not connected.
    void endOutage(qint64 at);
    void endStep(qint64 at);
    void endRun();

    Summary m_summary;
    Run m_run;
    qint64 m_connectedSince = -1;
    qint64 m_runConnectedMs = 0;
    qint64 m_downSince = -1;
    qint64 m_backoffSince = -1;
    qint64 m_stepSince = -1;
    int m_step = -1;
    Mark m_heldCause; // a failure whose consequence may follow on the next line
    int m_runLogins = 0;
    bool m_logoutSent = false;
    Mark m_logoutReported;
};
