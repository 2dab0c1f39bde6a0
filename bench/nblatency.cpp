// A loopback TCP proxy that delays every piece of data by a set time in each direction,
// for benchmarks over a link with latency where netem is not available. It forwards
// bytes as they are (TLS passes through untouched). It cannot delay the TCP handshake
// itself: a client's connect completes at once, so figures measured through it miss one
// round trip per new connection.
//
//     nblatency --target HOST:PORT --delay MS [--port-file FILE] [--max-connections N] [--seconds S]
//
// Prints "nblatency: 127.0.0.1:PORT -> HOST:PORT, MS ms each way" once listening, and
// exits after S seconds (default 600) or when told to.
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFile>
#include <QHostAddress>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <cstdio>
#include <deque>

namespace {

// One direction of one connection: what was read, each piece held until its time.
class DelayedPipe : public QObject
{
public:
    DelayedPipe(QTcpSocket* from, QTcpSocket* to, int delayMs, QObject* parent)
        : QObject(parent)
        , m_from(from)
        , m_to(to)
        , m_delayMs(delayMs)
    {
        m_timer.setSingleShot(true);
        m_timer.setTimerType(Qt::PreciseTimer);
        connect(&m_timer, &QTimer::timeout, this, [this] { release(); });
        connect(from, &QTcpSocket::readyRead, this, [this] { take(); });
        connect(from, &QTcpSocket::disconnected, this, [this] {
            take();
            m_ended = true;
            schedule();
        });
    }

private:
    struct Piece
    {
        QDeadlineTimer due;
        QByteArray data;
    };

    void take()
    {
        const QByteArray data = m_from->readAll();
        if (data.isEmpty())
            return;
        m_queue.push_back({ QDeadlineTimer(m_delayMs, Qt::PreciseTimer), data });
        schedule();
    }

    void schedule()
    {
        if (!m_queue.empty()) {
            if (!m_timer.isActive())
                m_timer.start(int(qMax<qint64>(0, m_queue.front().due.remainingTime())));
        } else if (m_ended && m_to) {
            // The other side learns of the end once what came before it has gone through.
            m_to->disconnectFromHost();
        }
    }

    void release()
    {
        while (!m_queue.empty() && m_queue.front().due.hasExpired()) {
            if (m_to && m_to->state() == QAbstractSocket::ConnectedState)
                m_to->write(m_queue.front().data);
            m_queue.pop_front();
        }
        schedule();
    }

    QTcpSocket* m_from;
    QPointer<QTcpSocket> m_to;
    int m_delayMs;
    QTimer m_timer;
    std::deque<Piece> m_queue;
    bool m_ended = false;
};

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Forwards TCP connections from 127.0.0.1 to a target, "
                                                    "every piece of data delayed in each direction."));
    parser.addHelpOption();
    parser.addOption({ "target", "Where to forward (HOST:PORT).", "HOST:PORT" });
    parser.addOption({ "delay", "Milliseconds added in each direction.", "MS", "0" });
    parser.addOption({ "port-file", "Write the listening port to FILE once ready.", "FILE" });
    parser.addOption({ "max-connections", "Refuse connections beyond N at once (default 256).", "N", "256" });
    parser.addOption({ "seconds", "Exit after S seconds (default 600).", "S", "600" });
    parser.process(app);
    const QString target = parser.value("target");
    const int colon = target.lastIndexOf(QLatin1Char(':'));
    bool ok = colon > 0;
    const quint16 targetPort = quint16(target.mid(colon + 1).toUInt(&ok));
    const int delay = parser.value("delay").toInt();
    const int most = parser.value("max-connections").toInt();
    const int seconds = parser.value("seconds").toInt();
    if (!ok || targetPort == 0 || delay < 0 || most < 1 || seconds < 1) {
        std::fprintf(stderr, "nblatency: give --target HOST:PORT, --delay MS >= 0, and counts above 0\n");
        return 2;
    }
    const QString targetHost = target.left(colon);

    QTcpServer server;
    int open = 0;
    QObject::connect(&server, &QTcpServer::newConnection, &server, [&] {
        while (QTcpSocket* client = server.nextPendingConnection()) {
            if (open >= most) {
                client->abort();
                client->deleteLater();
                continue;
            }
            ++open;
            auto* upstream = new QTcpSocket(client);
            new DelayedPipe(client, upstream, delay, client);
            new DelayedPipe(upstream, client, delay, client);
            upstream->connectToHost(targetHost, targetPort);
            QObject::connect(
                upstream, &QTcpSocket::errorOccurred, client, [client](QAbstractSocket::SocketError error) {
                    if (error != QAbstractSocket::RemoteHostClosedError)
                        client->disconnectFromHost();
                });
            QObject::connect(client, &QTcpSocket::disconnected, client, [&open, client] {
                --open;
                // Give the other direction time to deliver what it still holds.
                QTimer::singleShot(10000, client, &QObject::deleteLater);
            });
        }
    });
    if (!server.listen(QHostAddress::LocalHost, 0)) {
        std::fprintf(stderr, "nblatency: cannot listen: %s\n", qPrintable(server.errorString()));
        return 1;
    }
    if (parser.isSet("port-file")) {
        QFile file(parser.value("port-file"));
        if (!file.open(QIODevice::WriteOnly) || file.write(QByteArray::number(server.serverPort())) < 0) {
            std::fprintf(stderr, "nblatency: cannot write %s\n", qPrintable(file.fileName()));
            return 1;
        }
    }
    std::printf(
        "nblatency: 127.0.0.1:%u -> %s, %d ms each way\n", server.serverPort(), qPrintable(target), delay);
    std::fflush(stdout);
    QTimer::singleShot(seconds * 1000, &app, &QCoreApplication::quit);
    return app.exec();
}
