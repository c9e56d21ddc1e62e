// SPDX-License-Identifier: Apache-2.0
#include "core/datacenter.h"
#include "core/log.h"
#include "ownership.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>
#include <unistd.h>

namespace {
time_t g_now = 1000000;

// The lines of a file, or only their texts (without the thread and time prefix).
QStringList fileLines(const QString& path, bool texts = false)
{
    QFile file(path);
    QString all = file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : "";
    if (texts)
        all.replace(QRegularExpression("^[^\n]*  ", QRegularExpression::MultilineOption), "");
    return all.isEmpty() ? QStringList() : all.chopped(all.endsWith('\n') ? 1 : 0).split('\n');
}
} // namespace

class tst_Log : public QObject
{
    Q_OBJECT
private slots:
    void init()
    {
        m_home.reset(new QTemporaryDir);
        qputenv("HOME", m_home->path().toUtf8());
        cleanup();
    }
    void cleanup()
    {
        LogManager::destroyInstance();
        DataCenter::destroyInstance();
    }
    void linesAtOrAboveTheThresholdAreWritten_data()
    {
        QTest::addColumn<int>("threshold");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("threshold 0: no file at all") << 0 << QStringList{};
        QTest::newRow("threshold 3 keeps 3 and 4") << 3 << QStringList{"level3", "level4"};
        QTest::newRow("threshold 1 keeps all but tracing")
            << 1 << QStringList{"level1", "level3", "level4"};
        QTest::newRow("negative keeps tracing too")
            << -1
            << QStringList{"level0", "T----[Enter]", "T----[Leave]", "level1", "level3", "level4"};
        QTest::newRow("threshold 5 keeps nothing") << 5 << QStringList{};
    }
    void linesAtOrAboveTheThresholdAreWritten()
    {
        QFETCH(int, threshold);
        QFETCH(QStringList, expected);
        LogManager* log = openLog(threshold);
        for (int level : {0, 1, 3, 4}) {
            log->Msg(level, "level%d", level);
            if (level == 0) {
                Infor tracer(0, "T");
            }
        }
        QCOMPARE(fileLines(log->fileName(), true).filter(QRegularExpression("^(?!\\d+!!!$)")),
                 expected);
        QCOMPARE(QFileInfo::exists(documents()), threshold != 0);
        QCOMPARE(log->fileName().isEmpty(), threshold == 0);
    }
    void firstLinesCarryTheMarkerThePrefixAndTheCut()
    {
        LogManager* log = openLog(1);
        const QString folder = QRegularExpression::escape(documents() + "/627log/support/");
        const QRegularExpression name(
            QString("^%1%2_%3_627\\.log$")
                .arg(folder, QDateTime::fromSecsSinceEpoch(g_now).toString("MMdd_hhmmss"))
                .arg(getpid()));
        QVERIFY2(name.match(log->fileName()).hasMatch(), qPrintable(log->fileName()));
        log->Msg(1, "hello %s", "world");
        log->Msg(1, "%s", QByteArray(5000, 'x').constData());
        const QStringList lines = fileLines(log->fileName());
        QCOMPARE(lines.size(), 3);
        QCOMPARE(lines.at(0), QString("1!!!"));
        const QRegularExpression prefix(
            "^\\[(\\d{5,})\\]\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}  hello world$");
        const QRegularExpressionMatch match = prefix.match(lines.at(1));
        QVERIFY2(match.hasMatch(), qPrintable(lines.at(1)));
        QCOMPARE(match.captured(1).toULongLong(), static_cast<qulonglong>(pthread_self()));
        QCOMPARE(lines.at(2).count('x'), 2047);
    }
    // The log holds the cookie at levels 0 and 1: folders 0700 and files 0600 whatever the umask,
    // folders left open by an earlier run tightened, the hourly recycled file made afresh.
    void filesStayOwnerOnlyAndAreRecycledHourly()
    {
        const QString support = documents() + "/627log/support";
        QVERIFY(QDir().mkpath(support));
        for (const QString& dir : {documents() + "/627log", support})
            QCOMPARE(::chmod(QFile::encodeName(dir).constData(), 0777), 0);
        const mode_t before = ::umask(0);
        LogManager* log = openLog(1);
        const QString path = log->fileName();
        g_now = 1000000;
        log->Msg(1, "first hour");
        QCOMPARE(ownership::mode(path), 0600);
        g_now += 3600;
        log->Msg(1, "still first hour");
        QCOMPARE(fileLines(path, true), QStringList({"1!!!", "first hour", "still first hour"}));
        g_now += 1;
        log->Msg(1, "trigger");
        QCOMPARE(fileLines(path, true), QStringList({"trigger"}));
        log->Msg(1, "after");
        ::umask(before);
        QCOMPARE(fileLines(path, true), QStringList({"trigger", "2!!!", "after"}));
        QCOMPARE(log->fileName(), path);
        QCOMPARE(ownership::mode(path), 0600);
        QCOMPARE(ownership::mode(documents() + "/627log"), 0700);
        QCOMPARE(ownership::mode(support), 0700);
    }

private:
    LogManager* openLog(int threshold)
    {
        DataCenter::getInstance()->SetLogLevel(threshold);
        LogManager::getInstance()->setClock([] { return g_now; });
        LogManager::getInstance()->init();
        return LogManager::getInstance();
    }
    QString documents() const { return m_home->path() + "/Documents"; }

    QScopedPointer<QTemporaryDir> m_home;
};

QTEST_GUILESS_MAIN(tst_Log)
#include "tst_log.moc"
