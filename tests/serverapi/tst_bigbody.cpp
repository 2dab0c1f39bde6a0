// Bodies of any size in little memory. A host process (bigbody_host, linked to the
// shared library as a host is) downloads what this test serves and reports what it
// counted and its own peak memory.
#include "RequestDispatcher.h"
#include "TestMain.h"
#include "TestServer.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

namespace {

// 64 KiB of the byte values 1 to 255, over and over: no zero byte anywhere.
QByteArray block()
{
    QByteArray bytes(64 << 10, Qt::Uninitialized);
    for (int i = 0; i < bytes.size(); ++i)
        bytes[i] = char(1 + i % 255);
    return bytes;
}

} // namespace

class TestBigBody : public QObject
{
    Q_OBJECT

    QJsonObject host(const QString& mode, const TestServer& server)
    {
        QProcess process;
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process.start(QStringLiteral(BIGBODY_HOST_PATH), { mode, server.url() });
        if (!process.waitForFinished(240000)) {
            process.kill();
            process.waitForFinished();
            return QJsonObject { { "failure", "the host did not finish" } };
        }
        if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
            return QJsonObject { { "failure", QString("the host ended with %1").arg(process.exitCode()) } };
        return QJsonDocument::fromJson(process.readAllStandardOutput()).object();
    }

private slots:
    // Every byte reaches the callback; the record keeps the first mebibyte; the whole
    // process stays small.
    void threeGibibytesThroughADataCallback()
    {
        const qint64 size = qint64(3) << 30;
        TestServer server([](const RecordedRequest&) { return ServerReply::repeated(block(), size); });
        const QJsonObject report = host("data", server);
        QVERIFY2(!report.contains("failure"), qPrintable(report.value("failure").toString()));
        QCOMPARE(report.value("networkError").toInt(), 0);
        QCOMPARE(report.value("status").toInt(), 200);
        QCOMPARE(qint64(report.value("bytes").toDouble()), size);
        QCOMPARE(report.value("zeroByte").toBool(), false);
        QCOMPARE(report.value("bodySize").toInt(), RequestDispatcher::KeptBodyLimit);
#ifdef NB_MEASURES_MEMORY
        const double peakMiB = report.value("peakRssKiB").toDouble() / 1024;
        qInfo("peak RSS of the host: %.1f MiB", peakMiB);
        QVERIFY2(peakMiB < 64, qPrintable(QString("peak RSS %1 MiB").arg(peakMiB)));
#endif
    }

    // Without a data callback the body is the record's: one larger than a record holds
    // ends the request with an error record, not the process.
    void aBodyPastWhatARecordHoldsIsAnErrorRecord()
    {
        const qint64 size = RequestDispatcher::WholeBodyLimit + (4 << 20);
        TestServer server([](const RecordedRequest&) { return ServerReply::repeated(block(), size); });
        const QJsonObject report = host("whole", server);
        QVERIFY2(!report.contains("failure"), qPrintable(report.value("failure").toString()));
        QCOMPARE(report.value("networkError").toInt(), RequestDispatcher::BodyTooLargeError);
        QCOMPARE(report.value("status").toInt(), 200);
        QCOMPARE(report.value("bodySize").toInt(), 0);
        QCOMPARE(report.value("errorString").toString(),
            QString("The reply's body is larger than %1 bytes, more than a record holds; read it through a "
                    "data callback")
                .arg(RequestDispatcher::WholeBodyLimit));
    }
};

NB_TEST_MAIN(TestBigBody)
#include "tst_bigbody.moc"
