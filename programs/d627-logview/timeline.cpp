// SPDX-License-Identifier: Apache-2.0
#include "timeline.h"

#include <QProcess>
#include <QStandardPaths>

namespace {
// Lanes on the y axis, from the top.
enum Lane
{
    Messages = 1,
    Notices,
    Backoffs,
    Checks,
    Connection
};

const char* const kStepNames[] = {"step 0: connect", "step 1: log in", "step 2: query",
                                  "step 3: heartbeat", "step 4: running"};
// Greys to green: the darker, the nearer to running.
const char* const kStepColours[] = {"#d9d9d9", "#c7e9c0", "#a1d99b", "#74c476", "#238b45"};

// The picture's width, the height of everything but the key, and the key's measures (one row of
// the key; a character of the 12-point font as gnuplot counts it; what a column holds beside its
// longest title: the sample and the gaps; the margin kept free on each side).
constexpr int kWidthPx = 1400;
constexpr int kPlotHeightPx = 548;
constexpr int kKeyRowPx = 18;
constexpr int kCharPx = 8;
constexpr int kKeyColumnExtraChars = 16;
constexpr int kKeyMarginPx = 60;
constexpr int kKeyMaxColumns = 6;

QByteArray seconds(qint64 ms)
{
    return QByteArray::number(ms / 1000.0, 'f', 3);
}

// A bar of a lane from `from` to `to`: x y xlow xhigh ylow yhigh.
QByteArray bar(qint64 from, qint64 to, double lane, double half)
{
    return seconds(from) + ' ' + QByteArray::number(lane) + ' ' + seconds(from) + ' ' +
           seconds(qMax(to, from + 1)) + ' ' + QByteArray::number(lane - half) + ' ' +
           QByteArray::number(lane + half) + '\n';
}

QByteArray point(qint64 at, double lane)
{
    return seconds(at) + ' ' + QByteArray::number(lane) + '\n';
}

QByteArray quoted(const QString& text)
{
    QString escaped = text;
    return "'" + escaped.replace('\'', "''").toUtf8() + "'";
}
} // namespace

const char* const Timeline::kLanes[] = {"push connection", "status checks", "back-off waits",
                                        "notices and queries", "to the main application"};

qint64 Timeline::first() const
{
    qint64 at = m_summary.runs.isEmpty() ? 0 : m_summary.runs.first().start;
    for (const Run& run : m_summary.runs)
        at = qMin(at, run.start);
    return at;
}

qint64 Timeline::last() const
{
    qint64 at = first();
    for (const Run& run : m_summary.runs)
        at = qMax(at, run.end);
    return at;
}

void Timeline::addSeries(QByteArray& blocks, QByteArray& plots, Key& key, const QByteArray& rows,
                         const QString& title, const QByteArray& style) const
{
    if (rows.isEmpty())
        return; // gnuplot refuses a series without points
    ++key.entries;
    key.longest = qMax(key.longest, int(title.size()));
    const QByteArray name = "$d" + QByteArray::number(blocks.count("<< EOD"));
    blocks += name + " << EOD\n" + rows + "EOD\n";
    plots += QByteArray(plots.isEmpty() ? "plot " : ", \\\n     ") + name + ' ' + style +
             " title " + quoted(title);
}

QByteArray Timeline::script(const QString& output, Format format) const
{
    const Summary& s = m_summary;
    QByteArray blocks, plots;
    Key key;
    for (int step = 0; step < 5; ++step) {
        QByteArray rows;
        for (const Span& span : s.steps) {
            if (span.what.toInt() == step)
                rows += bar(span.from, span.to, Connection, 0.3);
        }
        addSeries(blocks, plots, key, rows, kStepNames[step],
                  "using 1:2:3:4:5:6 with boxxyerror fs solid 1.0 noborder lc rgb '" +
                      QByteArray(kStepColours[step]) + "'");
    }
    // Failures: one marker shape per cause, on the connection lane above its bars.
    const QMap<QString, int> causes = Summary::countBy(s.failures);
    int shape = 0;
    for (auto cause = causes.cbegin(); cause != causes.cend(); ++cause, ++shape) {
        QByteArray rows;
        for (const Mark& failure : s.failures) {
            if (failure.what == cause.key())
                rows += point(failure.at, Connection + 0.42);
        }
        static const int kShapes[] = {9, 7, 5, 11, 13, 15, 3, 1, 2};
        addSeries(blocks, plots, key, rows, cause.key(),
                  "using 1:2 with points pt " + QByteArray::number(kShapes[shape % 9]) +
                      " ps 1.4 lc rgb '#d62728'");
    }
    const QMap<QString, QByteArray> checkColours{{"session valid", "#1f77b4"},
                                                 {"session valid, reconnect", "#17becf"},
                                                 {"logged out", "#9467bd"},
                                                 {"no answer", "#ff7f0e"}};
    for (auto colour = checkColours.cbegin(); colour != checkColours.cend(); ++colour) {
        QByteArray rows;
        for (const Mark& check : s.checks) {
            if (check.what == colour.key())
                rows += point(check.at, Checks);
        }
        addSeries(blocks, plots, key, rows, "check: " + colour.key(),
                  "using 1:2 with points pt 7 ps 1.1 lc rgb '" + colour.value() + "'");
    }
    QByteArray rows;
    for (const Span& wait : s.backoffs)
        rows += bar(wait.from, wait.to, Backoffs, 0.2);
    addSeries(blocks, plots, key, rows, "back-off wait",
              "using 1:2:3:4:5:6 with boxxyerror fs solid 1.0 noborder lc rgb '#fd8d3c'");
    const QMap<QString, QByteArray> noticeStyles{{"notice", "pt 9 lc rgb '#8c564b'"},
                                                 {"query", "pt 6 lc rgb '#7f7f7f'"},
                                                 {"answer", "pt 4 lc rgb '#bcbd22'"}};
    for (auto style = noticeStyles.cbegin(); style != noticeStyles.cend(); ++style) {
        rows.clear();
        for (const Mark& notice : s.notices) {
            if (notice.what == style.key())
                rows += point(notice.at, Notices);
        }
        addSeries(blocks, plots, key, rows, style.key(),
                  "using 1:2 with points ps 1.1 " + style.value());
    }
    rows.clear();
    for (const Mark& message : s.messages)
        rows += point(message.at, Messages).trimmed() + " \"" + message.what.toUtf8() + "\"\n";
    // Names beside the points while they fit; a long log shows points only.
    addSeries(blocks, plots, key, rows, "message to the main application",
              s.messages.size() <= 24
                  ? "using 1:2:3 with labels point pt 5 ps 1.1 lc rgb '#e377c2' left offset 0.6,0.6"
                  : "using 1:2 with points pt 5 ps 1.1 lc rgb '#e377c2'");

    const qint64 from = first(), to = last();
    const qint64 pad = qMax<qint64>(1000, (to - from) / 50);
    // The key below the plot takes as many columns as fit across the picture, with room to
    // spare for the sample beside the last one, and as many rows as it then needs: the picture
    // grows by those rows, so no entry is ever cut off at an edge.
    const int columnPx = (key.longest + kKeyColumnExtraChars) * kCharPx;
    const int columns = qBound(1, (kWidthPx - 2 * kKeyMarginPx) / columnPx, kKeyMaxColumns);
    const int keyRows = qMax(1, (key.entries + columns - 1) / columns);
    const int heightPx = kPlotHeightPx + keyRows * kKeyRowPx;
    const QByteArray size = QByteArray::number(kWidthPx) + ',' + QByteArray::number(heightPx);
    QByteArray head = format == Svg
                          ? "set terminal svg size " + size +
                                " dynamic noenhanced font 'Sans,12' background '#ffffff'\n"
                          : "set terminal pngcairo size " + size +
                                " noenhanced font 'Sans,12' background '#ffffff'\n";
    head += "set output " + quoted(output) + "\n";
    head +=
        "set title " + quoted(QStringLiteral("d627 session, %1 run(s)").arg(s.runs.size())) + "\n";
    head += "set xdata time\nset timefmt '%s'\nset format x '%H:%M:%S'\n";
    head += "set xrange [" + seconds(from - pad) + ":" + seconds(to + pad) + "]\n";
    if (to + pad - (from - pad) < 12000)
        head += "set xtics 1\n"; // the labels show whole seconds
    head += "set yrange [0.4:5.8]\nset ytics (";
    for (int lane = 0; lane < 5; ++lane)
        head += QByteArray(lane ? ", " : "") + quoted(kLanes[lane]) + ' ' +
                QByteArray::number(Connection - lane);
    head += ") nomirror\nset grid xtics lc rgb '#dddddd'\nset border 3\n";
    head += "set key outside below horizontal maxcols " + QByteArray::number(columns) +
            " maxrows " + QByteArray::number(keyRows) + " width 1 height 1\n";
    // Where each run started.
    for (const Run& run : s.runs)
        head += "set arrow from " + seconds(run.start) + ", graph 0 to " + seconds(run.start) +
                ", graph 1 nohead dt 2 lc rgb '#999999'\n";
    if (plots.isEmpty())
        plots = "plot NaN notitle";
    return head + blocks + plots + "\n";
}

int Timeline::render(const QString& output, Format format, QString& error) const
{
    const QString gnuplot = QStandardPaths::findExecutable("gnuplot");
    if (gnuplot.isEmpty()) {
        error = "gnuplot is needed to draw the timeline (Debian: apt install gnuplot-nox)";
        return -1;
    }
    QProcess process;
    process.start(gnuplot, QStringList());
    process.write(script(output, format));
    process.closeWriteChannel();
    if (!process.waitForFinished(120000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0) {
        error = "gnuplot could not draw " + output + ": " +
                QString::fromLocal8Bit(process.readAllStandardError()).trimmed();
        return -1;
    }
    return 0;
}
