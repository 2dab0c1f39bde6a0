// What the library side (nbbench) and the bare Qt references (nbbare) share: the
// measured transfer, the result line the driver reads and the failure report.
#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QString>
#include <QStringList>
#include <cstdio>

inline int fail(const QString& what)
{
    std::fprintf(stderr, "%s: %s\n", qPrintable(QCoreApplication::applicationName()), qPrintable(what));
    return 1;
}

// One measured transfer. The clock runs from construction (just before the request is
// built) to stop(), which the completion calls, possibly before wait() runs the event
// loop. report() prints the line run.sh reads, "<amount> <seconds>", where the amount
// is bytes, or requests for small GETs; after a non-empty error it fails instead.
class Measurement
{
public:
    Measurement() { m_timer.start(); }

    void stop(const QString& error)
    {
        m_nanos = m_timer.nsecsElapsed();
        m_error = error;
        m_stopped = true;
        m_loop.quit();
    }

    void wait()
    {
        if (!m_stopped)
            m_loop.exec();
    }

    int report(qint64 amount) const
    {
        if (!m_error.isEmpty())
            return fail(m_error);
        std::printf("%lld %.6f\n", static_cast<long long>(amount), m_nanos / 1e9);
        return 0;
    }

private:
    QElapsedTimer m_timer;
    QEventLoop m_loop;
    qint64 m_nanos = 0;
    QString m_error;
    bool m_stopped = false;
};

// The arguments after the program name.
inline QStringList commandLine()
{
    QStringList args = QCoreApplication::arguments();
    args.removeFirst();
    return args;
}
