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
time_t fakeClock()
{
    return g_now;
}

QStringList fileLines(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QStringList lines = QString::fromUtf8(file.readAll()).split('\n');
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    return lines;
}
} // namespace

class tst_Log : public QObject
{
    Q_OBJECT
private slots:
    void init();
    void cleanup();
    void thresholdZero_writesNothing();
    void levelFilter_data();
    void levelFilter();
    void firstLines_markerAndPrefix();
    void hourlyRecycle_emptiesFileAndRestartsMarker();
    void tracer_onlyUnderNegativeThreshold();
    void longText_isCut();
    void ownerOnly_evenUnderUmaskZero();

private:
    void openLog(int threshold);
    QString documents() const { return m_home->path() + "/Documents"; }

    QScopedPointer<QTemporaryDir> m_home;
};

void tst_Log::init()
{
    m_home.reset(new QTemporaryDir);
    QVERIFY(m_home->isValid());
    qputenv("HOME", m_home->path().toUtf8());
    LogManager::destroyInstance();
    DataCenter::destroyInstance();
}

void tst_Log::cleanup()
{
    LogManager::destroyInstance();
    DataCenter::destroyInstance();
}

void tst_Log::openLog(int threshold)
{
    DataCenter::getInstance()->SetLogLevel(threshold);
    LogManager::getInstance()->setClock(fakeClock);
    LogManager::getInstance()->init();
}

void tst_Log::thresholdZero_writesNothing()
{
    openLog(0);
    LogManager::getInstance()->Msg(4, "an error %d", 1);
    {
        Infor tracer(0, "Test_scope");
    }
    QVERIFY(!QFileInfo::exists(documents()));
    QVERIFY(LogManager::getInstance()->fileName().isEmpty());
}

void tst_Log::levelFilter_data()
{
    QTest::addColumn<int>("threshold");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("threshold 3 keeps 3 and 4") << 3 << QStringList{"level3", "level4"};
    QTest::newRow("threshold 1 keeps all but tracing")
        << 1 << QStringList{"level1", "level3", "level4"};
    QTest::newRow("negative keeps tracing too")
        << -1 << QStringList{"level0", "level1", "level3", "level4"};
    QTest::newRow("threshold 5 keeps nothing") << 5 << QStringList{};
}

void tst_Log::levelFilter()
{
    QFETCH(int, threshold);
    QFETCH(QStringList, expected);
    openLog(threshold);
    LogManager* log = LogManager::getInstance();
    for (int level : {0, 1, 3, 4})
        log->Msg(level, "level%d", level);

    QStringList texts;
    for (const QString& line : fileLines(log->fileName())) {
        if (!line.endsWith("!!!"))
            texts << line.mid(line.indexOf("  ") + 2);
    }
    QCOMPARE(texts, expected);
}

void tst_Log::firstLines_markerAndPrefix()
{
    openLog(1);
    LogManager* log = LogManager::getInstance();
    const QString name = QFileInfo(log->fileName()).fileName();
    QCOMPARE(QFileInfo(log->fileName()).absolutePath(), documents() + "/627log/support");
    QVERIFY2(QRegularExpression(QString("^\\d{4}_\\d{6}_%1_627\\.log$").arg(getpid()))
                 .match(name)
                 .hasMatch(),
             qPrintable(name));

    log->Msg(1, "hello %s", "world");
    log->Msg(1, "second");
    const QStringList lines = fileLines(log->fileName());
    QCOMPARE(lines.size(), 3);
    QCOMPARE(lines.at(0), QString("1!!!"));
    const QRegularExpression prefix(
        "^\\[(\\d{5,})\\]\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}  hello world$");
    const QRegularExpressionMatch match = prefix.match(lines.at(1));
    QVERIFY2(match.hasMatch(), qPrintable(lines.at(1)));
    QCOMPARE(match.captured(1).toULongLong(), static_cast<qulonglong>(pthread_self()));
    QVERIFY(lines.at(2).endsWith("  second"));
}

void tst_Log::hourlyRecycle_emptiesFileAndRestartsMarker()
{
    openLog(1);
    LogManager* log = LogManager::getInstance();
    const QString path = log->fileName();
    g_now = 1000000;
    log->Msg(1, "first hour");
    g_now += 3600;
    log->Msg(1, "still first hour");
    QCOMPARE(fileLines(path).size(), 3);

    g_now += 1;
    log->Msg(1, "trigger");
    QStringList lines = fileLines(path);
    QCOMPARE(lines.size(), 1);
    QVERIFY(lines.at(0).endsWith("  trigger"));

    log->Msg(1, "after");
    lines = fileLines(path);
    QCOMPARE(lines.size(), 3);
    QCOMPARE(lines.at(1), QString("2!!!"));
    QVERIFY(lines.at(2).endsWith("  after"));
    QCOMPARE(log->fileName(), path);
}

void tst_Log::tracer_onlyUnderNegativeThreshold()
{
    openLog(1);
    {
        Infor tracer(0, "Adapter_start");
    }
    QCOMPARE(fileLines(LogManager::getInstance()->fileName()).size(), 0);

    DataCenter::getInstance()->SetLogLevel(-1);
    {
        Infor tracer(0, "Adapter_start");
    }
    const QStringList lines = fileLines(LogManager::getInstance()->fileName());
    QCOMPARE(lines.size(), 3);
    QVERIFY(lines.at(1).endsWith("  Adapter_start----[Enter]"));
    QVERIFY(lines.at(2).endsWith("  Adapter_start----[Leave]"));
}

void tst_Log::longText_isCut()
{
    openLog(1);
    const QByteArray text(5000, 'x');
    LogManager::getInstance()->Msg(1, "%s", text.constData());
    const QStringList lines = fileLines(LogManager::getInstance()->fileName());
    QCOMPARE(lines.size(), 2);
    QCOMPARE(lines.at(1).count('x'), 2047);
}

// The log holds the cookie at levels 0 and 1: folders 0700 and files 0600 whatever the umask,
// folders left open by an earlier run tightened.
void tst_Log::ownerOnly_evenUnderUmaskZero()
{
    const QString support = documents() + "/627log/support";
    QVERIFY(QDir().mkpath(support));
    for (const QString& dir : {documents() + "/627log", support})
        QCOMPARE(::chmod(QFile::encodeName(dir).constData(), 0777), 0);
    const mode_t before = ::umask(0);
    openLog(1);
    g_now = 1000000;
    LogManager* log = LogManager::getInstance();
    log->Msg(1, "first");
    QCOMPARE(ownership::mode(log->fileName()), 0600);
    g_now += 3601; // the recycled file is made afresh
    log->Msg(1, "recycled");
    ::umask(before);
    QCOMPARE(ownership::mode(log->fileName()), 0600);
    QCOMPARE(ownership::mode(documents() + "/627log"), 0700);
    QCOMPARE(ownership::mode(support), 0700);
}

QTEST_GUILESS_MAIN(tst_Log)
#include "tst_log.moc"
