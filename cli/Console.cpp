#include "Console.h"

#include <INBSeverApi.h>
#include <NBQtCompat.h>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <cstdio>
#include <cstdlib>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

Console::Console()
    : m_out(stdout)
    , m_err(stderr)
    , m_errTerminal(::isatty(STDERR_FILENO) == 1)
{
    NBQtCompat::setTextCodec(m_out, "UTF-8");
    NBQtCompat::setTextCodec(m_err, "UTF-8");
}

QString Console::redacted(const QString& text)
{
    return ServerApi::RedactSecrets(text);
}

int Console::width() const
{
    winsize size {};
    if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 10)
        return size.ws_col;
    return 80;
}

void Console::out(const QString& line)
{
    endProgress();
    m_out << line << '\n';
    m_out.flush();
}

void Console::outJson(const QJsonValue& value)
{
    const QJsonDocument document
        = value.isArray() ? QJsonDocument(value.toArray()) : QJsonDocument(value.toObject());
    m_out << QString::fromUtf8(document.toJson(QJsonDocument::Compact)) << '\n';
    m_out.flush();
}

void Console::note(const QString& line)
{
    if (quiet)
        return;
    endProgress();
    m_err << redacted(line) << '\n';
    m_err.flush();
}

void Console::error(const QString& line)
{
    endProgress();
    m_err << "nbcli: " << redacted(line) << '\n';
    m_err.flush();
}

void Console::progress(const QString& text)
{
    if (quiet)
        return;
    if (m_errTerminal) {
        // One line that fits, so that the next redraw replaces all of it.
        QString shown = text;
        const int room = width() - 1;
        if (shown.size() > room)
            shown = shown.left(qMax(0, room - 3)) + QStringLiteral("...");
        m_err << '\r' << shown << "\x1b[K";
        m_progressShown = true;
    } else {
        m_err << text << '\n';
    }
    m_err.flush();
}

void Console::endProgress()
{
    if (!m_progressShown)
        return;
    m_err << '\n';
    m_err.flush();
    m_progressShown = false;
}

void Console::status(const QString& line)
{
    if (quiet)
        return;
    if (m_errTerminal)
        progress(redacted(line));
    else
        note(line);
}

bool Console::stdinIsTerminal() const
{
    return ::isatty(STDIN_FILENO) == 1;
}

QString Console::readSecret(const QString& prompt)
{
    if (!stdinIsTerminal())
        return QString();
    endProgress();
    m_err << prompt;
    m_err.flush();
    termios saved {};
    ::tcgetattr(STDIN_FILENO, &saved);
    termios quietMode = saved;
    quietMode.c_lflag &= ~tcflag_t(ECHO);
    ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &quietMode);
    const QString secret = readLine(QString());
    ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
    m_err << '\n';
    m_err.flush();
    return secret;
}

QString Console::readLine(const QString& prompt)
{
    if (!prompt.isEmpty()) {
        endProgress();
        m_err << prompt;
        m_err.flush();
    }
    // stdio, not a QTextStream: a stream's buffer would swallow the lines after this one.
    char* line = nullptr;
    size_t capacity = 0;
    const ssize_t length = ::getline(&line, &capacity, stdin);
    QString text = length > 0 ? QString::fromUtf8(line, int(length)) : QString();
    std::free(line);
    while (text.endsWith(QLatin1Char('\n')) || text.endsWith(QLatin1Char('\r')))
        text.chop(1);
    return text;
}
