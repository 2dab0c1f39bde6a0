// The library's log channel: binds a module's log file to a logger channel and
// prefixes every line with its source file, function and line number.
#pragma once

#include <QString>

class CNBLoggerWrapper
{
public:
    // Values past the last module are valid too: their lines go to the folder itself.
    enum ModuleName : int {
        Login = 0,
        Main = 1,
        Monitor = 2,
        LocalEdit = 3,
        Cef = 4,
        Sync = 5,
        TransMgr = 6,
        Transfer = 7,
        DB = 8,
        Upgrade = 9,
    };

    explicit CNBLoggerWrapper(ModuleName module);

    // The channel of "Transfer.log", created on first use; every line of the library goes through it.
    static CNBLoggerWrapper& instTransfer();

    // "<data location>/../NimbraData/Log/<module file>", creating the folders on the way.
    static QString getLogPathName(ModuleName module);
    static QString formatMessage(
        const QString& message, const QString& fileName, const QString& function, int line);

    void information(const QString& message, const QString& file, const QString& function, int line);
    void error(const QString& message, const QString& file, const QString& function, int line);
    void fatal(const QString& message, const QString& file, const QString& function, int line);

    int handle() const { return m_handle; }

private:
    Q_DISABLE_COPY(CNBLoggerWrapper)

    int m_handle = 0;
};

// A source file may name its lines after another file by defining NB_LOG_SOURCE_FILE
// before its first include.
#ifndef NB_LOG_SOURCE_FILE
#define NB_LOG_SOURCE_FILE __FILE__
#endif

#define NB_LOG_LINE(level, function, message)                                                                \
    CNBLoggerWrapper::instTransfer().level(                                                                  \
        (message), QStringLiteral(NB_LOG_SOURCE_FILE), (function), __LINE__)
#define NB_LOG_AT(level, message) NB_LOG_LINE(level, QString::fromUtf8(__FUNCTION__), message)
#define NB_LOG_INFO(message) NB_LOG_AT(information, message)
#define NB_LOG_ERROR(message) NB_LOG_AT(error, message)
#define NB_LOG_FATAL(message) NB_LOG_AT(fatal, message)
// A line whose function field the log's readers rely on, whichever function writes it.
#define NB_LOG_AS(level, function, message) NB_LOG_LINE(level, QStringLiteral(function), message)
