// SPDX-License-Identifier: Apache-2.0
// d627-sandbox: the daemon's remote services, played locally on 127.0.0.1 (see sandbox.h).
// Control it with lines on standard input or with GET /control/<command>?... on its HTTP port;
// "help" lists the commands.

#include "sandbox.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSocketNotifier>
#include <cerrno>
#include <unistd.h>

namespace {

// Reads standard input line by line without blocking the event loop (main thread).
class StdinReader : public QObject
{
public:
    explicit StdinReader(Sandbox* sandbox) : QObject(sandbox), m_sandbox(sandbox)
    {
        m_notifier = new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read, this);
        connect(m_notifier, &QSocketNotifier::activated, this, [this]() { onReadable(); });
    }

private:
    void onReadable()
    {
        char chunk[4096];
        const ssize_t n = ::read(STDIN_FILENO, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR)
            return;
        if (n <= 0) {
            m_notifier->setEnabled(false); // end of input: keep serving, stop reading
            return;
        }
        m_buffer.append(chunk, int(n));
        int newline;
        while ((newline = m_buffer.indexOf('\n')) >= 0) {
            const QByteArray line = m_buffer.left(newline);
            m_buffer.remove(0, newline + 1);
            const QByteArray reply = m_sandbox->controlLine(line);
            if (!reply.isEmpty())
                Sandbox::say(QStringLiteral("ctl   -> ") + QString::fromUtf8(reply));
        }
    }

    Sandbox* m_sandbox;
    QSocketNotifier* m_notifier;
    QByteArray m_buffer;
};

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("d627-sandbox");
    QCoreApplication::setApplicationVersion(D627_VERSION);

    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Local stand-ins for the push-address service, the single-sign-on status service and the "
        "push server, all on 127.0.0.1. Commands (stdin lines or GET /control/<command>?...): "
        "avatar, vip, message, notice, drop, logout, sso, address, push, cookie, clear, status, "
        "quit, help.");
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption httpPort("http-port", "Port of both HTTP services.", "port", "18627");
    const QCommandLineOption pushPort("push-port", "Port of the push server.", "port", "18628");
    const QCommandLineOption https("https", "Serve HTTPS (self-signed) instead of HTTP.");
    const QCommandLineOption cookie("cookie",
                                    "Set-Cookie value sent with every status answer, e.g. "
                                    "\"PHPSESSID=abc; path=/\".",
                                    "value");
    const QCommandLineOption backlog("backlog",
                                     "Accept queue of both servers, in connections (default: "
                                     "Qt's 50). A fleet of daemons needs more.",
                                     "n", "0");
    parser.addOptions({httpPort, pushPort, https, cookie, backlog});
    parser.process(app);

    bool httpOk = false;
    bool pushOk = false;
    const uint http = parser.value(httpPort).toUInt(&httpOk);
    const uint push = parser.value(pushPort).toUInt(&pushOk);
    if (!httpOk || !pushOk || http > 65535 || push > 65535) {
        Sandbox::say(QStringLiteral("bad port number"));
        return 2;
    }

    Sandbox sandbox;
    if (parser.isSet(cookie))
        sandbox.setCookie(parser.value(cookie).toUtf8());
    sandbox.setListenBacklog(parser.value(backlog).toInt());
    if (!sandbox.start(quint16(http), quint16(push), parser.isSet(https)))
        return 1;
    QObject::connect(&sandbox, &Sandbox::quitRequested, &app, &QCoreApplication::quit,
                     Qt::QueuedConnection);
    new StdinReader(&sandbox);
    return QCoreApplication::exec();
}
