// The thread contract under load: eight threads with event loops of their own start
// requests while other threads change every setting and cancel requests of others;
// init and uninit run between rounds, with nothing in flight. Every request completes
// exactly once, on the thread that started it. Run under ThreadSanitizer by
// `make test-tsan`, where any data race fails it.
#include "INBSeverApi.h"
#include "NBHttpClientManager.h"
#include "TestMain.h"
#include "TestServer.h"

#include <QAtomicInt>
#include <QEventLoop>
#include <QRandomGenerator>
#include <QThread>
#include <QTimer>
#include <atomic>
#include <memory>
#include <mutex>

namespace {

constexpr int Workers = 8;
constexpr int RequestsPerWorker = 40;
constexpr int InFlightPerWorker = 4;

// What one worker saw: requests started, completions, and anything out of contract.
struct WorkerReport
{
    int started = 0;
    int completed = 0;
    int cancelled = 0;
    QStringList problems;
};

// The identifiers of requests in flight, for the cancelling thread to pick from.
class InFlight
{
public:
    void add(long long id)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_ids.append(id);
    }
    void remove(long long id)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_ids.removeOne(id);
    }
    long long any()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_ids.isEmpty() ? -1 : m_ids.at(QRandomGenerator::global()->bounded(m_ids.size()));
    }

private:
    std::mutex m_mutex;
    QList<long long> m_ids;
};

// Starts one request of a kind chosen by the number; `done` runs at its completion.
// The quick-login picture, which reports no end, adds its identifier to `pictures`.
long long startRequest(int number, const QString& url, bool publicCloud,
    std::function<void(const ResponseData&)> done, std::function<void()> progress, QList<long long>& pictures)
{
    switch (number % (publicCloud ? 6 : 5)) {
    case 0:
        return ServerApi::UserInfo(NBServerApiUserInfoModel(), done);
    case 1: {
        NBServerApiCreateFolderModel folder;
        folder.path = QStringLiteral("/folder %1").arg(number);
        folder.pathType = QStringLiteral("ent");
        return ServerApi::CreateFolder(folder, done);
    }
    case 2: {
        NBServerApiUploadDataModel upload;
        upload.path = QStringLiteral("/up%1").arg(number);
        upload.pathType = QStringLiteral("ent");
        upload.serverUrl = url;
        upload.data = QByteArray(32 << 10, 'u');
        return ServerApi::UploadData(upload, done, [progress](const UploadProgressData&) { progress(); });
    }
    case 3: {
        NBServerApiDownloadDataModel download;
        download.path = QStringLiteral("/big");
        download.pathType = QStringLiteral("ent");
        download.serverUrl = url;
        return ServerApi::DownloadData(
            download, [progress](const QByteArray&) { progress(); }, done,
            [progress](const DownloadProgressData&) { progress(); });
    }
    case 4:
        return ServerApi::Download(
            url + QStringLiteral("/big"), [progress](const QByteArray&) { progress(); }, done);
    default: {
        // The quick-login session is written by one operation and read by the other.
        pictures << ServerApi::GetQuickLoginVerifyPic([](const QByteArray&) {});
        return ServerApi::GetQuickLoginSmsCode(NBServerApiSmsCodeModel(), done);
    }
    }
}

// One worker thread: keeps a few requests in flight until it has started its share,
// then waits for the last completion.
WorkerReport runWorker(const QString& url, bool publicCloud, InFlight& inFlight)
{
    WorkerReport report;
    QList<long long> pictures;
    QEventLoop loop;
    QThread* self = QThread::currentThread();
    std::function<void()> next;
    next = [&] {
        if (report.started >= RequestsPerWorker) {
            if (report.completed == report.started)
                loop.quit();
            return;
        }
        const int number = report.started++;
        auto completions = std::make_shared<int>(0);
        auto id = std::make_shared<long long>(-1);
        const auto progress = [&report, completions, self] {
            if (QThread::currentThread() != self)
                report.problems << QStringLiteral("a progress callback on another thread");
            if (*completions > 0)
                report.problems << QStringLiteral("a progress callback after the completion");
        };
        const auto done = [&, completions, id, self, number](const ResponseData& response) {
            if (QThread::currentThread() != self)
                report.problems << QStringLiteral("a completion on another thread");
            if (++*completions > 1) {
                report.problems << QStringLiteral("request %1 completed twice").arg(number);
                return;
            }
            if (response.networkError == 5)
                ++report.cancelled;
            else if (response.networkError != 0 || response.statusCode != 200)
                report.problems << QStringLiteral("request %1: %2 %3")
                                       .arg(number)
                                       .arg(response.networkError)
                                       .arg(response.errorString);
            inFlight.remove(*id);
            ++report.completed;
            // Started from the loop, not from inside this callback.
            QTimer::singleShot(0, &loop, next);
        };
        *id = startRequest(number, url, publicCloud, done, progress, pictures);
        if (*id <= 0)
            report.problems << QStringLiteral("request %1 was not started").arg(number);
        else if (*completions == 0)
            inFlight.add(*id);
    };
    for (int i = 0; i < InFlightPerWorker; ++i)
        QTimer::singleShot(0, &loop, next);
    QTimer::singleShot(120000, &loop, [&] {
        report.problems << QStringLiteral("the worker's requests did not finish");
        loop.quit();
    });
    loop.exec();
    // The pictures end unreported: wait until their handles are released.
    const auto picturesLeft = [&] {
        for (long long id : pictures) {
            if (NBHttpClientManager::manager()->getHttpClient(id))
                return true;
        }
        return false;
    };
    for (int i = 0; i < 1000 && picturesLeft(); ++i) {
        QEventLoop wait;
        QTimer::singleShot(10, &wait, &QEventLoop::quit);
        wait.exec();
    }
    if (picturesLeft())
        report.problems << QStringLiteral("a quick-login picture did not end");
    return report;
}

} // namespace

class TestThreads : public QObject
{
    Q_OBJECT

    // One round: the workers, a thread changing settings and a thread cancelling,
    // all at once; returns the workers' reports.
    QList<WorkerReport> round(const TestServer& server, bool publicCloud)
    {
        InFlight inFlight;
        std::atomic<bool> running { true };
        QList<WorkerReport> reports;
        reports.reserve(Workers);
        for (int i = 0; i < Workers; ++i)
            reports.append(WorkerReport());
        QList<QThread*> threads;
        for (int i = 0; i < Workers; ++i)
            threads << QThread::create(
                [&, i] { reports[i] = runWorker(server.url(), publicCloud, inFlight); });
        QThread* settings = QThread::create([&] {
            for (int n = 0; running; ++n) {
                ServerApi::setSessionID(QStringLiteral("session-%1").arg(n));
                ServerApi::setLanguage(n % 2 ? QStringLiteral("zh-CN") : QStringLiteral("en-US"));
                ServerApi::setUserAgent(QStringLiteral("agent/%1").arg(n));
                ServerApi::setPriServerVerifyCode(n % 3 ? QStringLiteral("code-%1").arg(n) : QString());
                ServerApi::setBaseUrlString(server.url());
                ServerApi::setProxyHostname("127.0.0.1");
                ServerApi::setProxyPort(3128 + n % 2);
                ServerApi::setProxyPassword("proxy-secret");
                ServerApi::setProxySwitch(false);
                ServerApi::setTlsVerifyPeer(false);
                ServerApi::setTlsPinnedPublicKey(QString());
                ServerApi::setLogRedaction(n % 2 == 0);
                ServerApi::sessionID();
                ServerApi::userAgent();
                ServerApi::proxyHostname();
                QThread::usleep(200);
            }
        });
        QThread* canceller = QThread::create([&] {
            while (running) {
                const long long id = inFlight.any();
                if (id > 0)
                    ServerApi::Cancel(id);
                QThread::usleep(3000);
            }
        });
        settings->start();
        canceller->start();
        for (QThread* thread : threads)
            thread->start();
        for (QThread* thread : threads) {
            thread->wait();
            delete thread;
        }
        running = false;
        settings->wait();
        canceller->wait();
        delete settings;
        delete canceller;
        return reports;
    }

private slots:
    void requestsSettingsAndCancelsOnManyThreads()
    {
        TestServer server([](const RecordedRequest& request) {
            return request.path().endsWith("/big") ? ServerReply::ok(QByteArray(256 << 10, 'd'), "text/plain")
                                                   : ServerReply::ok("{}");
        });
        int cancelled = 0;
        // Between rounds nothing is in flight and no other thread calls: init and
        // uninit may run.
        for (const auto type : { ServerApi::Private, ServerApi::PublicCloud, ServerApi::PrivateSix }) {
            ServerApi::uninit();
            ServerApi::init(type);
            ServerApi::setBaseUrlString(server.url());
            const QList<WorkerReport> reports = round(server, type == ServerApi::PublicCloud);
            for (const WorkerReport& report : reports) {
                QVERIFY2(report.problems.isEmpty(), qPrintable(report.problems.join("; ")));
                QCOMPARE(report.started, RequestsPerWorker);
                QCOMPARE(report.completed, RequestsPerWorker);
                cancelled += report.cancelled;
            }
        }
        ServerApi::uninit();
        qInfo("%d of %d requests were cancelled", cancelled, 3 * Workers * RequestsPerWorker);
    }
};

NB_TEST_MAIN(TestThreads)
#include "tst_threads.moc"
