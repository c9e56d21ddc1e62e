// SPDX-License-Identifier: Apache-2.0
// d627-logview: reads d627 log files and shows what the daemon did in the user's session, as a
// summary, as JSON or as a timeline picture.

#include "logfile.h"
#include "report.h"
#include "session.h"
#include "timeline.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFileInfo>
#include <QJsonDocument>
#include <QMap>
#include <algorithm>
#include <cstdio>

namespace {
enum Exit
{
    Read = 0,
    NothingReadable = 1,
    BadUsage = 2,
    NoPicture = 3
};

void print(FILE* to, const QString& text)
{
    const QByteArray bytes = text.toUtf8();
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), to);
}

// The files of one daemon run share its pid; their names sort in time order.
Summary summarise(const QList<LogFile>& files)
{
    QMap<qint64, QList<const LogFile*>> byPid;
    QList<QList<const LogFile*>> runs;
    for (const LogFile& file : files) {
        if (!file.readable())
            continue;
        if (file.pid >= 0)
            byPid[file.pid] << &file;
        else
            runs << QList<const LogFile*>{&file};
    }
    for (QList<const LogFile*> run : qAsConst(byPid)) {
        std::sort(run.begin(), run.end(), [](const LogFile* a, const LogFile* b) {
            return QFileInfo(a->path).fileName() < QFileInfo(b->path).fileName();
        });
        runs << run;
    }
    std::sort(runs.begin(), runs.end(),
              [](const QList<const LogFile*>& a, const QList<const LogFile*>& b) {
                  return a.first()->lines.first().ms < b.first()->lines.first().ms;
              });
    Session session;
    for (const QList<const LogFile*>& run : qAsConst(runs)) {
        QList<LogLine> lines;
        QStringList names;
        for (const LogFile* file : run) {
            lines += file->lines;
            names << QFileInfo(file->path).fileName();
        }
        session.addRun(run.first()->pid, names.join(", "), lines);
    }
    return session.summary();
}
} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("d627-logview");
    QCoreApplication::setApplicationVersion(D627_VERSION);
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Reads d627 log files and prints a summary of the user's session: runs, login, push "
        "connections, failures by cause, status checks, back-off waits, notices and the "
        "messages sent to the main application.");
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption json("json", "Print the summary as one JSON object.");
    const QCommandLineOption svg("svg", "Draw the session's timeline into <file> (SVG).", "file");
    const QCommandLineOption png("png", "Draw the session's timeline into <file> (PNG).", "file");
    const QCommandLineOption unknown("unknown", "Also list the lines that are not d627's.");
    parser.addOptions({json, svg, png, unknown});
    parser.addPositionalArgument("files", "d627 log files (*_627.log), one or more.", "<file>...");
    if (!parser.parse(QCoreApplication::arguments())) {
        print(stderr, "d627-logview: " + parser.errorText() + "\n" + parser.helpText());
        return BadUsage;
    }
    if (parser.isSet("help") || parser.isSet("help-all")) {
        print(stdout, parser.helpText());
        return Read;
    }
    if (parser.isSet("version")) {
        print(stdout, "d627-logview " D627_VERSION "\n");
        return Read;
    }
    if (parser.positionalArguments().isEmpty()) {
        print(stderr, "d627-logview: no log file given\n" + parser.helpText());
        return BadUsage;
    }

    Reading reading;
    for (const QString& path : parser.positionalArguments())
        reading.files << LogFileReader::read(path);
    const bool anything = std::any_of(reading.files.cbegin(), reading.files.cend(),
                                      [](const LogFile& file) { return file.readable(); });
    if (!anything) {
        for (const LogFile& file : qAsConst(reading.files))
            print(stderr, "d627-logview: " + file.path + " " + file.problems.join("; ") + "\n");
        print(stderr, "d627-logview: nothing readable\n");
        return NothingReadable;
    }
    reading.summary = summarise(reading.files);
    const bool showUnknown = parser.isSet(unknown);
    if (parser.isSet(json))
        print(stdout,
              QString::fromUtf8(QJsonDocument(JsonReport::render(reading, showUnknown)).toJson()));
    else
        print(stdout, TextReport::render(reading, showUnknown));

    const Timeline timeline(reading.summary);
    int result = Read;
    for (const auto& [option, format] :
         {std::make_pair(svg, Timeline::Svg), std::make_pair(png, Timeline::Png)}) {
        QString error;
        if (parser.isSet(option) && timeline.render(parser.value(option), format, error) != 0) {
            print(stderr, "d627-logview: " + error + "\n");
            result = NoPicture;
        }
    }
    return result;
}
