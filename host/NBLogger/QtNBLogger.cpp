// Each channel keeps its file open in append mode without buffering and writes a
// whole line with one call under the channel's lock, so lines never interleave.
#include "QtNBLogger.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QVector>
#include <mutex>

namespace {

struct Channel
{
    QString path;
    QFile file;
    std::mutex mutex;
    QAtomicInt level { QtNBLogger::DefaultLevel };
};

// Channels are never freed: lines may be written from static destructors and from
// threads that outlive the application object.
std::mutex registryMutex;
QVector<Channel*>& channels()
{
    static auto* all = new QVector<Channel*>;
    return *all;
}

Channel* channel(int handle)
{
    std::lock_guard<std::mutex> lock(registryMutex);
    if (handle < 1 || handle > channels().size())
        return nullptr;
    return channels().at(handle - 1);
}

const char* priorityName(QtNBLogger::Priority priority)
{
    switch (priority) {
    case QtNBLogger::Fatal:
        return "FATAL";
    case QtNBLogger::Error:
        return "ERROR";
    case QtNBLogger::Warning:
        return "WARN ";
    case QtNBLogger::Information:
        return "INFO ";
    case QtNBLogger::Debug:
        return "DEBUG";
    }
    return "?????";
}

// "yyyy-MM-dd hh:mm:ss.zzz" in local time. Converting to local time reads the time zone
// file on every call, so it happens once a second and the milliseconds are appended.
QByteArray timestamp()
{
    static thread_local qint64 second = -1;
    static thread_local QByteArray secondText;
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    if (now / 1000 != second) {
        second = now / 1000;
        secondText = QDateTime::fromMSecsSinceEpoch(second * 1000)
                         .toString(QStringLiteral("yyyy-MM-dd hh:mm:ss."))
                         .toUtf8();
    }
    const int millis = int(now % 1000);
    return secondText + char('0' + millis / 100) + char('0' + millis / 10 % 10) + char('0' + millis % 10);
}

} // namespace

int QtNBLogger::create(const QString& path)
{
    const QString absolute = QFileInfo(path).absoluteFilePath();
    std::lock_guard<std::mutex> lock(registryMutex);
    QVector<Channel*>& all = channels();
    for (int i = 0; i < all.size(); ++i) {
        if (all.at(i)->path == absolute)
            return i + 1;
    }
    auto* c = new Channel;
    c->path = absolute;
    c->file.setFileName(absolute);
    all.append(c);
    return all.size();
}

void QtNBLogger::init(int handle)
{
    Channel* c = channel(handle);
    if (!c)
        return;
    std::lock_guard<std::mutex> lock(c->mutex);
    if (c->file.isOpen())
        return;
    QDir().mkpath(QFileInfo(c->path).absolutePath());
    c->file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered);
}

void QtNBLogger::setLevel(int handle, int level)
{
    if (Channel* c = channel(handle))
        c->level.storeRelaxed(level);
}

int QtNBLogger::level(int handle)
{
    Channel* c = channel(handle);
    return c ? c->level.loadRelaxed() : 0;
}

void QtNBLogger::information(int handle, const QString& line)
{
    write(handle, Information, line);
}

void QtNBLogger::error(int handle, const QString& line)
{
    write(handle, Error, line);
}

void QtNBLogger::fatal(int handle, const QString& line)
{
    write(handle, Fatal, line);
}

void QtNBLogger::write(int handle, Priority priority, const QString& line)
{
    Channel* c = channel(handle);
    if (!c || priority > c->level.loadRelaxed())
        return;
    QByteArray text = timestamp();
    text += ' ';
    text += priorityName(priority);
    text += ' ';
    text += line.toUtf8();
    text += '\n';
    std::lock_guard<std::mutex> lock(c->mutex);
    if (c->file.isOpen())
        c->file.write(text);
}
