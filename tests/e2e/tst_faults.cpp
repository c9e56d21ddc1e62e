// SPDX-License-Identifier: Apache-2.0
// The fault suite: the real d627 against the real d627-sandbox, one fault (or one set of
// overlapping faults) per row. Each row plays its fault, checks the defined reaction in order
// (sandbox lines; "log:" daemon log; "out:" daemon output; "probe": the link still reads), puts
// things back, then waits for the reconnection, checks the daemon kept on with no new connection,
// or ends it with "exit" (code 0). Every push connection must carry one login, then its query.
// Rows without a start of their own share one daemon.

#include "e2eharness.h"
#include "link/communication.h"

#include <QDir>
#include <QLockFile>
#include <QRandomGenerator>
#include <QtTest>

using namespace e2e;

namespace {
enum Then
{
    Reconnect, // running again on a new push connection
    KeepOn,    // no new push connection, the link still reads
    Exit,      // "exit", code 0
    Changes    // running again, then an avatar and a membership change reach the main application
};
const QString kAddress = QStringLiteral("/get_tcp_server");
const QString kNotice = QStringLiteral("4c4f4f530700000000000000"); // "LOOS", id 7, 0
const QString kText = QStringLiteral(R"(text={"code":0,"data":{"list":[]}})");
const QByteArray kDropped = "client disconnected";
} // namespace

class tst_Faults : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase() { QVERIFY(h.prepare() && h.startSandbox()); }
    void cleanupTestCase();
    void cleanup();
    void faults_data();
    void faults();

private:
    bool startOwn(const QString& start);
    bool linkAction(const QString& action);
    bool probe();
    bool running(int connections);
    bool changesArrive();

    E2eHarness h;
    int m_played = 0;
    int m_survived = 0;
    // "/<name>" is one socket path for the whole machine: one such daemon at a time, whichever
    // run of this suite starts it.
    QLockFile m_rootSocket{"/tmp/d627-root-socket.lock"};
};

void tst_Faults::cleanupTestCase()
{
    qInfo("faults played: %d, survived as defined: %d", m_played, m_survived);
    h.cleanup();
    QCOMPARE(m_survived, m_played);
}

// An avatar and a membership change, queued for the next first query (the sandbox then drops
// the connection), both reach the main application (in one message or two).
bool tst_Faults::changesArrive()
{
    static int serial = 0;
    ++serial;
    const QString face = QString("http://127.0.0.1/avatars/%1.png").arg(serial);
    const int level = serial % 9 + 1;
    const qint64 expire = 4102444800 + serial;
    const int from = h.received().size();
    QJsonObject avatar, membership;
    return h.ctl("avatar drop=0 url=" + face) &&
           h.ctl(QString("vip level=%1 expire=%2").arg(level).arg(expire)) &&
           h.waitMessage("user_face", from, 60000, avatar) &&
           h.waitMessage("vip_level", from, 60000, membership) &&
           avatar.value("user_face").toString() == face &&
           membership.value("vip_level").toInt() == level &&
           qint64(membership.value("expire_time").toDouble()) == expire;
}

void tst_Faults::cleanup()
{
    m_rootSocket.unlock();
    if (!QTest::currentTestFailed()) {
        ++m_survived;
        return;
    }
    // Start the next row from scratch: a fresh sandbox (no overrides left) and daemon.
    h.cleanup();
    initTestCase();
}

void tst_Faults::faults_data()
{
    QTest::addColumn<QString>("start"); // empty: the shared daemon; else its own environment
    QTest::addColumn<QStringList>("play");
    QTest::addColumn<QStringList>("expect");
    QTest::addColumn<QStringList>("restore");
    QTest::addColumn<int>("then");
    const auto row = [](const char* name, const QString& start, const QStringList& play,
                        const QStringList& expect, const QStringList& restore, int then) {
        QTest::newRow(name) << start << play << expect << restore << then;
    };
    const QString check = QString::fromLatin1(kStatusCheck);
    const QString dropped = QString::fromLatin1(kDropped);
    const QString noAddress = "http path=" + kAddress;
    const auto address = [&](const QString& answer) {
        return QStringList{"http path=" + kAddress + ' ' + answer, "drop"};
    };
    const auto frame = [&](const QString& name, const QString& args) {
        row(qPrintable("push: " + name), "", {"rsp " + args}, {check}, {}, Reconnect);
    };
    const auto http = [&](const char* name, const QString& answer, const QString& shown) {
        row(name, "", address(answer), {dropped, shown, check}, {noAddress}, Reconnect);
    };
    const QString login = "log:client login first_req_encode failed!";
    const auto cipher = [&](const char* name, const QString& fail, const QString& shown) {
        row(name, "FAIL=" + fail, {}, {"client connected", check, shown}, {}, Exit);
    };

    row("push: drop in step 0 (address lookup)", "", address("body=drop"),
        {dropped, "POST /get_tcp_server", "connection dropped", check}, {noAddress}, Reconnect);
    row("push: drop in step 1 (login)", "", {"push once=login", "drop"},
        {"HOOS login", dropped, check}, {}, Reconnect);
    row("push: drop in step 2 (query)", "", {"push once=query", "drop"},
        {"IOOS request#0", dropped, check}, {}, Reconnect);
    row("push: drop in step 3 (query answered)", "", {"push once=answered", "drop"},
        {"answer seq=1", dropped, check}, {}, Reconnect);
    row("push: drop in step 4 (running)", "", {"drop"}, {dropped, check}, {}, Reconnect);
    // A frame that spans writes is read once whole: the notice asks for the latest messages.
    row("push: frame split over 3 writes", "", {"raw hex=" + kNotice + " split=3"},
        {"IOOS request#1"}, {}, KeepOn);
    // Both notices are read at once; the second finds the first one's query unanswered.
    row("push: two frames in one write", "", {"raw hex=" + kNotice + kNotice},
        {"IOOS request#", check, "log:check status result"}, {"drop"}, Reconnect);
    row("push: unknown magic", "", {"raw hex=5858585801000000"}, {check}, {}, Reconnect);
    frame("head length 0", kText + " len=0");
    frame("head length one short", kText + " len=-1");
    frame("head length one long", kText + " len=+1");
    frame("head length 0xFFFFFFF0", kText + " len=4294967280");
    frame("KOOS push", kText + " magic=KOOS");
    frame("body the cipher rejects", "seal=0 hex=" + QString(100, 'a'));
    frame("LZ4 block that decompresses to nothing", "z=1 hex=00");
    // A corrupt block still succeeds, as an empty text, which the running step ignores.
    row("push: LZ4 block that does not decompress", "", {"rsp z=1 hex=f0"},
        {"log:HandleMessageFormServer type is 2, message is \n"}, {}, KeepOn);
    row("push: server accepts and closes at once", "", {"push mode=refuse", "drop"},
        {dropped, check, "client connected", dropped, check}, {"push mode=normal"}, Reconnect);
    row("push: refused port", "", {"address mode=refused", "drop"},
        {dropped, "POST /get_tcp_server", check, "log:connect to server failed!"},
        {"address mode=ok"}, Reconnect);
    row("push: server never answers", "", {"push mode=silent", "drop"}, {"HOOS login", "probe"},
        {"push mode=normal", "drop"}, Reconnect);

    http("http: 500", "status=500 body=oops", "-> 500 oops");
    http("http: 404", "status=404 body=gone", "-> 404 gone");
    http("http: empty body", "body=empty", "-> 200 ");
    http("http: body not JSON", "body=<html>", "-> 200 <html>");
    http("http: 10 MB body", "body=size:10485760", "(10485760 bytes)");
    row("http: malformed Set-Cookie", "", {"cookie =;PHPSESSID;acw_tc==x=y;USERSESSIONID", "drop"},
        {"set-cookie=[=;PHPSESSID", "HOOS login", QString::fromLatin1(kLoginText)}, {"cookie"},
        Reconnect);
    row("http: TLS handshake fails", "", {"link:login https", "drop"},
        {"TLS handshake refused", "log:request or parse failed, request return:-1"}, {"link:login"},
        Reconnect);
    row("http: refused port", "", {"http listen=0", "drop"},
        {dropped, "log:request or parse failed, request return:-1"}, {"http listen=1"}, Reconnect);

    // Overlapping faults: whatever arrives while a status check waits joins it, and the next
    // connection still carries one login and one query whose answer brings the changes. Before
    // the link rows, whose extra clients leave the daemon writing to a link that is gone.
    const QString badFrame = "raw hex=5858585801000000";
    const auto slow = [](int ms) { return QString("sso mode=slow delay=%1").arg(ms); };
    row("overlap: bad frame, drop during a check 0.8 s slow", "", {slow(800), badFrame},
        {check, "ctl:drop"}, {"sso mode=ok"}, Changes);
    row("overlap: bad frame, drop during a check 3 s late", "", {slow(3000), badFrame},
        {check, "ctl:drop"}, {"sso mode=ok"}, Changes);
    row("overlap: two drops in quick succession", "", {"drop"},
        {dropped, check, "client connected", "ctl:drop"}, {}, Changes);
    for (const char* type : {"149", "601010"}) {
        row(qPrintable(
                QString("overlap: drop while the answer's %1 waits for its check").arg(type)),
            "", {slow(800), QString("message t=") + type},
            {dropped, check, "answer seq=1", check, "ctl:drop"}, {"sso mode=ok"}, Changes);
    }
    row("overlap: network-error timer fires during a check", "", {"sso mode=error", "drop"},
        {dropped, check, "log:request or parse failed", "ctl:" + slow(12000), check,
         "ctl:sso mode=ok", "log:net error, so check status"},
        {}, Changes);

    row("link: binary garbage", "", {"link:garbage"}, {"probe"}, {}, KeepOn);
    row("link: truncated JSON", "", {"link:truncated"}, {"probe"}, {}, KeepOn);
    row("link: 1 MB message", "", {"link:1mb"}, {"probe"}, {}, KeepOn);
    row("link: 10000 messages at once", "", {"link:flood"}, {"probe"}, {}, KeepOn);
    row("link: a second client", "", {"link:second"}, {"log:local socket disconnected", "probe"},
        {}, KeepOn);
    row("link: 500 connects and disconnects", "", {"link:cycles"}, {"probe"}, {}, KeepOn);
    row("http: answer never comes, then exit", "", address("body=hang"),
        {dropped, "POST /get_tcp_server"}, {noAddress}, Exit);

    row("cipher: library missing", "LIB=none", {}, {"client connected", check, login}, {}, Exit);
    // Failures that the login and the query do not depend on (an init failure is retried
    // later): the answer to the query is still read and handled. The daemon never calls the
    // last five entry points at all.
    const QStringList called{"ec627_init", "m627_edinit", "ec627_encode_token", "ec627_decode_len"};
    for (const QString& entry :
         called + QStringList{"ec627_encode", "ec627_get_token", "ec627_msg_encode_token",
                              "m627_encode", "m627_decode"}) {
        QStringList expect{"IOOS request#0", "log:MsgClient::HandlerMessage msg is {"};
        if (called.contains(entry))
            expect << "out:fake_ec627: " + entry + " fails";
        row(qPrintable("cipher: " + entry + " fails"), "FAIL=" + entry, {}, expect, {}, Exit);
    }
    cipher("cipher: ec627_encode_len fails", "ec627_encode_len", login);
    cipher("cipher: ec627_msg_encode fails", "ec627_msg_encode",
           "log:ec627_encode fail with return code [-1]");
    cipher("cipher: token of the wrong length", "token_length", "log:token len [47] err");
    row("cipher: ec627_encode_data fails", "FAIL=ec627_encode_data", {},
        {"HOOS login", "log:mclient.normal_req_encode fail", "probe"}, {}, Exit);
    row("cipher: ec627_decode fails", "FAIL=ec627_decode", {},
        {"HOOS login", check, "log:decode failed!"}, {}, Exit);

    row("env: log folder cannot be created", "HOME=blocked", {}, {"answer seq=1"}, {}, Exit);
    // The login is read before "exit" is sent: one read holding both is one unreadable message.
    row("env: TMPDIR points nowhere", "TMPDIR=nowhere", {}, {"answer seq=1"}, {}, Exit);
}

// Running on a live connection made after `connections`, and settled: the running step logged
// since the last connection was made, no disconnect since (the step timer goes on for a while on
// a dropped connection), no reconnection waiting for its back-off (every confirmation re-arms the
// one restart, so the last one is followed by it) and no status check under way.
// Gives up at once when a connection broke the order of the steps.
bool tst_Faults::running(int connections)
{
    return waitFor(
               [&] {
                   const QByteArray log = h.daemonLog(), sandbox = h.sandboxText();
                   const int connected = log.lastIndexOf("connect server success!");
                   const int last = log.lastIndexOf("MsgClient::onRun current process is ");
                   return !h.stepFault(connections).isEmpty() ||
                          (sandbox.count("client connected") > connections && connected >= 0 &&
                           last > connected && log.mid(last).startsWith(kRunning) &&
                           log.indexOf("server disconnect to socket", connected) < 0 &&
                           log.lastIndexOf("would reconnect server") <=
                               log.lastIndexOf("  socket error\n") &&
                           sandbox.count(kStatusCheck) <= log.count("check status result is"));
               },
               90000) &&
           h.stepFault(connections).isEmpty();
}

bool tst_Faults::startOwn(const QString& start)
{
    const QString lib = QStringLiteral(D627_LIB_DIR);
    if (start == "LIB=none")
        return h.startDaemonAndLogin({"LD_LIBRARY_PATH=" + lib + "/no-ec627"});
    if (start.startsWith("FAIL="))
        return h.startDaemonAndLogin({"LD_LIBRARY_PATH=" + lib + "/fake-ec627",
                                      "FAKE_EC627_REAL=" + lib + "/libec627.so",
                                      "FAKE_EC627_" + start});
    if (start == "HOME=blocked") {
        // Documents is a file, so the log folder under it cannot be made.
        QFile documents(h.dir() + "/blocked/Documents");
        return QDir().mkpath(h.dir() + "/blocked") && documents.open(QIODevice::WriteOnly) &&
               h.startDaemonAndLogin({"HOME=" + h.dir() + "/blocked"});
    }
    // TMPDIR naming no folder: the socket goes to "/<name>". Where that cannot be made the
    // daemon ends at once with code 0; otherwise it runs as usual.
    m_rootSocket.setStaleLockTime(0); // only a dead holder's lock is stale
    if (!m_rootSocket.tryLock(600000))
        return false;
    if (!h.startDaemon({"TMPDIR=" + h.dir() + "/nowhere"}, QString("/") + kInstanceId))
        return h.daemon().state() == QProcess::NotRunning;
    return h.login();
}

bool tst_Faults::linkAction(const QString& action)
{
    QLocalSocket* link = h.link();
    if (action == "link:login" || action == "link:login https")
        return h.login(action.endsWith("https") ? 2 : 0);
    QByteArray bytes(4096, '\0');
    QRandomGenerator::global()->fillRange(reinterpret_cast<quint32*>(bytes.data()), 1024);
    if (action == "link:garbage") {
        link->write(bytes);
    } else if (action == "link:truncated") {
        link->write(R"({"user_id":"73105","cookie":"USERSESS)");
    } else if (action == "link:1mb") {
        link->write(R"({"exit":false,"pad":")" + QByteArray(1 << 20, 'x') + "\"}");
    } else if (action == "link:flood") {
        link->write(QByteArray(R"({"exit":false})").repeated(10000));
    } else {
        const int count = action == "link:second" ? 1 : 500;
        const int before = h.logCount("local socket disconnected");
        for (int done = 0; done < count;) {
            QLocalSocket other;
            other.connectToServer(h.tmp() + '/' + kInstanceId);
            if (!other.waitForConnected(5000))
                continue;
            ++done;
            if (count == 1)
                other.write(R"({"exit":false,"second":true})") && other.waitForBytesWritten(5000);
            other.disconnectFromServer();
        }
        return h.waitLog("local socket disconnected", before + count, 60000);
    }
    return link->flush() || link->bytesToWrite() == 0;
}

bool tst_Faults::probe()
{
    static int serial = 0;
    // A probe may share a read with earlier bytes; a later one then shows on its own.
    for (int tries = 0; tries < 20; ++tries) {
        const QByteArray text = R"({"exit":false,"probe":)" + QByteArray::number(++serial) + "}";
        h.link()->write(text);
        h.link()->flush();
        if (h.waitLog(text, 1, 1000))
            return true;
    }
    return false;
}

void tst_Faults::faults()
{
    QFETCH(QString, start);
    QFETCH(QStringList, play);
    QFETCH(QStringList, expect);
    QFETCH(QStringList, restore);
    QFETCH(int, then);
    ++m_played;

    if (!start.isEmpty() && h.daemon().state() != QProcess::NotRunning)
        QVERIFY(h.exitDaemon());
    // What was there before: a daemon of its own may react before start() returns.
    int from = h.sandboxCount("");
    QByteArray log = h.daemonLog(), out = h.daemonOut();
    if (!start.isEmpty()) {
        QVERIFY2(startOwn(start), "the daemon did not start");
        if (h.daemon().state() == QProcess::NotRunning) { // TMPDIR: no socket, ended at once
            QCOMPARE(h.daemon().exitStatus(), QProcess::NormalExit);
            QCOMPARE(h.daemon().exitCode(), 0);
            return;
        }
    } else if (h.daemon().state() == QProcess::NotRunning) {
        const int connections = h.sandboxCount("client connected");
        QVERIFY(h.startDaemonAndLogin());
        QVERIFY2(running(connections), "the shared daemon did not reach the running step");
        from = h.sandboxCount("");
        log = h.daemonLog();
        out = h.daemonOut();
    }
    const int mark = h.sandboxCount("client connected");
    const auto act = [&](const QString& action) {
        return action.startsWith("link:") ? linkAction(action) : h.ctl(action);
    };
    for (const QString& action : play)
        QVERIFY(act(action));
    for (const QString& item : expect) {
        if (item == "probe") {
            QVERIFY2(probe(), "the local link no longer reads");
        } else if (item.startsWith("ctl:")) { // a sandbox command at this point of the sequence
            QVERIFY(h.ctl(item.mid(4)));
        } else if (item.startsWith("out:") || item.startsWith("log:")) {
            const bool isOut = item.startsWith("out:");
            const QByteArray text = item.mid(4).toUtf8();
            const int count = (isOut ? out : log).count(text) + 1;
            const auto now = [&] { return isOut ? h.daemonOut() : h.daemonLog(); };
            QVERIFY2(waitFor([&] { return now().count(text) >= count; }, 90000), qPrintable(item));
        } else {
            QVERIFY2(waitFor([&] { return h.sandboxLine(item.toUtf8(), from) >= 0; }, 40000),
                     qPrintable(item));
            from = h.sandboxLine(item.toUtf8(), from);
        }
    }
    for (const QString& action : restore)
        QVERIFY(act(action));

    if (then == Reconnect || then == Changes) {
        QVERIFY2(running(mark),
                 qPrintable("not running again on a new connection " + h.stepFault(mark)));
        if (then == Changes) {
            QVERIFY2(changesArrive(), "a change did not reach the main application");
            QVERIFY2(running(mark),
                     qPrintable("not running after the changes " + h.stepFault(mark)));
        }
    } else if (then == KeepOn) {
        QVERIFY(probe());
        QCOMPARE(h.sandboxCount("client connected"), mark);
        QCOMPARE(h.daemon().state(), QProcess::Running);
    } else {
        QVERIFY2(h.exitDaemon(), "no clean exit");
    }
}

QTEST_GUILESS_MAIN(tst_Faults)
#include "tst_faults.moc"
