#pragma once
// SPDX-License-Identifier: Apache-2.0

// One line of a d627 log file and the parser that reads it. A line is
// "[<thread id>]yyyy-MM-dd hh:mm:ss.zzz  <text>"; a file starts (and restarts every hour) with a
// marker line "<n>!!!". The text is told apart by the fixed start the daemon gives each of its
// log lines; what it means for the session is left to Session.

#include <QByteArray>
#include <QtGlobal>

enum class LineKind
{
    Unknown, // a well-formed line whose text the daemon does not write
    Other,   // a known line that the summary does not use
    Trace,   // a scope tracer's enter or leave line (threshold below 0)
    Step,    // the push connection runs step <number>
    AddressChosen,
    AddressFailed,
    ConnectFailed,
    Disconnected,
    ReadFailed,
    WriteFailed,
    CheckTimer,
    NetError,
    CipherFailed, // a login frame that could not be sealed
    CipherDetail, // a frame the cipher could not open or a query it could not seal
    UnknownFrame, // a frame with a magic the daemon does not read
    QueryFailed,
    StatusResult,    // a status check's answer
    StatusValid,     // ... which asks for a reconnection
    StatusLoggedOut, // ... which says that the user was logged out
    StatusFailed,    // ... which could not be had or read
    Restart,         // the back-off ended: the push connection starts again at step 0
    PushFrame,       // a frame read in the running step: notice, answer or heartbeat echo
    Query,
    FromMainApp,
    ToMainApp,
    LogoutReported,
    MainAppGone
};

struct LogLine
{
    qint64 ms = 0;      // wall-clock time of the line, read as if it were UTC, in ms
    quint64 thread = 0; // the writing thread's id
    LineKind kind = LineKind::Unknown;
    int number = -1; // the step number, or the frame type of a PushFrame line
    QByteArray text; // the text after the time
    int lineNo = 0;  // 1-based line number in its file
};

class LineParser
{
public:
    // Reads `raw` (without its line end) into `line`; false if it is not a timed d627 line.
    static bool parse(const QByteArray& raw, LogLine& line);
    // The marker number of a "<n>!!!" line, or 0 if `raw` is no marker.
    static int marker(const QByteArray& raw);
    // The kind of a line's text, and the number it carries (step, frame type) or -1.
    static LineKind classify(const QByteArray& text, int& number);
    // Milliseconds of "yyyy-MM-dd hh:mm:ss.zzz" at `at`, read as UTC; -1 if it is no such time.
    static qint64 readTime(const char* at, int size);
};
