#include "CNBLoggerWrapper.h"

#include "NBLogRedactor.h"

#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>
#include <QtNBLogger.h>

namespace {

QString moduleFileName(CNBLoggerWrapper::ModuleName module)
{
    static const char* const names[] = { "Login.log", "Main.log", "Monitor.log", "LocalEdit.log", "Cef.log",
        "Sync.log", "TransMgr.log", "Transfer.log", "DB.log", "Upgrade.log" };
    const int index = static_cast<int>(module);
    if (index < 0 || index >= int(sizeof(names) / sizeof(names[0])))
        return QString();
    return QString::fromLatin1(names[index]);
}

void enterOrCreate(QDir& dir, const QString& name)
{
    if (!dir.cd(name)) {
        dir.mkdir(name);
        dir.cd(name);
    }
}

} // namespace

CNBLoggerWrapper::CNBLoggerWrapper(ModuleName module)
{
    const QString path = getLogPathName(module);
    if (m_handle == 0)
        m_handle = QtNBLogger::create(path);
    QtNBLogger::init(m_handle);
}

CNBLoggerWrapper& CNBLoggerWrapper::instTransfer()
{
    static CNBLoggerWrapper lw(Transfer);
    return lw;
}

QString CNBLoggerWrapper::getLogPathName(ModuleName module)
{
    // The logs live beside the application's own data folder, not inside it.
    const QString dataLocation = QStandardPaths::writableLocation(QStandardPaths::AppDataLocation);
    QDir dir(dataLocation);
    if (!dir.cdUp()) {
        // A fresh account may not have the folder that holds application data yet.
        const QString parent = QFileInfo(dataLocation).absolutePath();
        QDir().mkpath(parent);
        dir.setPath(parent);
    }
    enterOrCreate(dir, QStringLiteral("NimbraData"));
    enterOrCreate(dir, QStringLiteral("Log"));
    return dir.absoluteFilePath(moduleFileName(module));
}

QString CNBLoggerWrapper::formatMessage(
    const QString& message, const QString& fileName, const QString& function, int line)
{
    return QStringLiteral("[%1][%2][%3]: %4")
        .arg(fileName, 0, QLatin1Char(' '))
        .arg(function, 0, QLatin1Char(' '))
        .arg(line, 0, 10, QLatin1Char(' '))
        .arg(NBLogRedactor::apply(message), 0, QLatin1Char(' '));
}

void CNBLoggerWrapper::information(
    const QString& message, const QString& file, const QString& function, int line)
{
    QtNBLogger::information(m_handle, formatMessage(message, QFileInfo(file).fileName(), function, line));
}

void CNBLoggerWrapper::error(const QString& message, const QString& file, const QString& function, int line)
{
    QtNBLogger::error(m_handle, formatMessage(message, QFileInfo(file).fileName(), function, line));
}

void CNBLoggerWrapper::fatal(const QString& message, const QString& file, const QString& function, int line)
{
    QtNBLogger::fatal(m_handle, formatMessage(message, QFileInfo(file).fileName(), function, line));
}
