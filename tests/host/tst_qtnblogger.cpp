// The host's logger: handles, level threshold, line prefix, and lines that stay
// whole when many threads write at once.
#include "TestMain.h"

#include <QFile>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <QThread>
#include <QtNBLogger.h>

class TestQtNBLogger : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

    QStringList linesOf(const QString& path)
    {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly))
            return {};
        QStringList lines = QString::fromUtf8(file.readAll()).split('\n');
        if (!lines.isEmpty() && lines.last().isEmpty())
            lines.removeLast();
        return lines;
    }

private slots:
    void samePathGivesTheSameHandle()
    {
        const int a = QtNBLogger::create(m_dir.filePath("a.log"));
        const int b = QtNBLogger::create(m_dir.filePath("b.log"));
        QVERIFY(a > 0);
        QVERIFY(b > 0);
        QVERIFY(a != b);
        QCOMPARE(QtNBLogger::create(m_dir.filePath("a.log")), a);
        QCOMPARE(QtNBLogger::level(a), int(QtNBLogger::DefaultLevel));
    }

    void linesBeforeInitAreDropped()
    {
        const QString path = m_dir.filePath("sub/dir/late.log");
        const int h = QtNBLogger::create(path);
        QtNBLogger::fatal(h, "too early");
        QVERIFY(!QFile::exists(path));
        QtNBLogger::init(h);
        QtNBLogger::fatal(h, "in time");
        QCOMPARE(linesOf(path).size(), 1);
        QVERIFY(linesOf(path).first().endsWith(" FATAL in time"));
    }

    void linePrefixHasTimeStampAndLevel()
    {
        const QString path = m_dir.filePath("prefix.log");
        const int h = QtNBLogger::create(path);
        QtNBLogger::init(h);
        QtNBLogger::information(h, QString::fromUtf8("信息"));
        QtNBLogger::error(h, "e");
        QtNBLogger::fatal(h, "f");
        const QStringList lines = linesOf(path);
        QCOMPARE(lines.size(), 3);
        const QRegularExpression stamp(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )");
        for (const QString& line : lines)
            QVERIFY2(stamp.match(line).hasMatch(), qPrintable(line));
        QVERIFY(lines[0].endsWith(QString::fromUtf8(" INFO  信息")));
        QVERIFY(lines[1].endsWith(" ERROR e"));
        QVERIFY(lines[2].endsWith(" FATAL f"));
    }

    void thresholdSixteenAdmitsAllAndTwoOnlyFatalAndError()
    {
        const QString path = m_dir.filePath("level.log");
        const int h = QtNBLogger::create(path);
        QtNBLogger::init(h);
        QtNBLogger::setLevel(h, 2);
        QCOMPARE(QtNBLogger::level(h), 2);
        QtNBLogger::information(h, "i2");
        QtNBLogger::error(h, "e2");
        QtNBLogger::fatal(h, "f2");
        QtNBLogger::setLevel(h, 16);
        QtNBLogger::information(h, "i16");
        QStringList messages;
        for (const QString& line : linesOf(path))
            messages << line.section(' ', 3).trimmed();
        QCOMPARE(messages, (QStringList { "e2", "f2", "i16" }));
    }

    void unknownHandlesAreIgnored()
    {
        QtNBLogger::init(0);
        QtNBLogger::setLevel(-1, 16);
        QtNBLogger::fatal(100000, "nowhere");
        QCOMPARE(QtNBLogger::level(100000), 0);
    }

    void manyThreadsLoseAndInterleaveNoLine()
    {
        const QString path = m_dir.filePath("threads.log");
        const int h = QtNBLogger::create(path);
        QtNBLogger::init(h);
        const int threads = 8;
        const int perThread = 2000;
        QList<QThread*> workers;
        for (int t = 0; t < threads; ++t) {
            workers << QThread::create([h, t] {
                const QString filler(200, QChar('a' + t));
                for (int i = 0; i < perThread; ++i)
                    QtNBLogger::fatal(h, QStringLiteral("t%1 n%2 %3").arg(t).arg(i).arg(filler));
            });
        }
        for (QThread* w : workers)
            w->start();
        for (QThread* w : workers) {
            QVERIFY(w->wait(60000));
            delete w;
        }
        const QStringList lines = linesOf(path);
        QCOMPARE(lines.size(), threads * perThread);
        QSet<QString> seen;
        const QRegularExpression shape(R"(^\S+ \S+ FATAL t(\d) n(\d+) ([a-h])\3{199}$)");
        for (const QString& line : lines) {
            const auto m = shape.match(line);
            QVERIFY2(m.hasMatch(), qPrintable(line.left(120)));
            QCOMPARE(m.captured(3).at(0), QChar('a' + m.captured(1).toInt()));
            seen.insert(m.captured(1) + '/' + m.captured(2));
        }
        QCOMPARE(seen.size(), threads * perThread);
    }
};

NB_TEST_MAIN(TestQtNBLogger)
#include "tst_qtnblogger.moc"
