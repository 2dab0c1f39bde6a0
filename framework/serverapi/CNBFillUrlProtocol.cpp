#include "CNBFillUrlProtocol.h"

#include "CNBCheckUrl.h"
#include "CNBLoggerWrapper.h"
#include "NBCallbackScope.h"

namespace {

bool hasScheme(const QString& in)
{
    return in.startsWith(QLatin1String("http://"), Qt::CaseInsensitive)
        || in.startsWith(QLatin1String("https://"), Qt::CaseInsensitive);
}

QString hostPart(const QString& in)
{
    return in.startsWith(QLatin1Char('/')) ? in.mid(1) : in;
}

} // namespace

CNBFillUrlProtocol::CNBFillUrlProtocol(QObject* parent)
    : QObject(parent)
{
}

// Inside a callback of the library a nested event loop could delete the reply whose
// signal is still running: such a call is refused before anything happens.
bool CNBFillUrlProtocol::refused()
{
    if (!NBCallbackScope::inside())
        return false;
    NB_LOG_ERROR(
        QStringLiteral("FillUrlProtocol refused: called from inside a callback of the library, "
                       "where its nested event loop could delete the reply whose signal is running"));
    return true;
}

bool CNBFillUrlProtocol::start(const QString& in, QString& out)
{
    if (hasScheme(in)) {
        out = in;
        return true;
    }
    m_failures = 0;
    m_found = false;
    return false;
}

bool CNBFillUrlProtocol::fillUrlProtocol(const QString& in, QString& out)
{
    if (refused())
        return false;
    if (start(in, out))
        return true;
    m_answered = false;
    const QString host = hostPart(in);
    CNBCheckUrl http;
    CNBCheckUrl https;
    connect(&http, SIGNAL(onCheckFinished(bool, QString)), this, SLOT(handleOnCheckFinished(bool, QString)));
    connect(&https, SIGNAL(onCheckFinished(bool, QString)), this, SLOT(handleOnCheckFinished(bool, QString)));
    http.checkUrl(QStringLiteral("http://%1").arg(host));
    https.checkUrl(QStringLiteral("https://%1").arg(host));
    runLoop();
    if (!m_found)
        return false;
    out = m_result;
    return true;
}

bool CNBFillUrlProtocol::fillUrlProtocolByStep(const QString& in, QString& out)
{
    if (refused())
        return false;
    if (start(in, out))
        return true;
    const QString host = hostPart(in);
    for (const char* scheme : { "https://%1", "http://%1" }) {
        m_answered = false;
        CNBCheckUrl probe;
        connect(&probe, SIGNAL(onCheckFinished(bool, QString)), this,
            SLOT(handleOnCheckFinishedByStep(bool, QString)));
        probe.checkUrlByStep(QString::fromLatin1(scheme).arg(host));
        runLoop();
        if (m_found) {
            out = m_result;
            return true;
        }
    }
    return false;
}

void CNBFillUrlProtocol::handleOnCheckFinished(bool ok, const QString& url)
{
    // The first scheme to answer 200 wins, however quickly the other follows.
    if (m_found)
        return;
    if (ok) {
        m_found = true;
        m_result = url;
        m_answered = true;
        m_loop.quit();
        return;
    }
    if (m_failures++ >= 1) {
        m_answered = true;
        m_loop.quit();
    }
}

void CNBFillUrlProtocol::handleOnCheckFinishedByStep(bool ok, const QString& url)
{
    if (ok) {
        m_found = true;
        m_result = url;
    }
    m_answered = true;
    m_loop.quit();
}

void CNBFillUrlProtocol::runLoop()
{
    if (!m_answered)
        m_loop.exec();
}
