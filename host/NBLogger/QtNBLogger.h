// Log channels of the host's logging library: one append-only file per channel,
// a level threshold per channel, and writes that are safe from any thread.
#pragma once

#include <QString>

#if defined(NBLOGGER_BUILD)
#define NBLOGGER_EXPORT __attribute__((visibility("default")))
#else
#define NBLOGGER_EXPORT
#endif

class NBLOGGER_EXPORT QtNBLogger
{
public:
    // A line is written when its priority is at or below the channel's level:
    // level 16 admits everything, level 2 only fatal and error lines.
    enum Priority { Fatal = 1, Error = 2, Warning = 4, Information = 8, Debug = 16 };
    static constexpr int DefaultLevel = Information;

    // Returns a positive handle; the same path always gives the same handle.
    static int create(const QString& path);
    // Opens the channel's file for appending; lines written before are dropped.
    static void init(int handle);
    static void setLevel(int handle, int level);
    static int level(int handle);

    static void information(int handle, const QString& line);
    static void error(int handle, const QString& line);
    static void fatal(int handle, const QString& line);

    QtNBLogger() = delete;

private:
    static void write(int handle, Priority priority, const QString& line);
};
