// The host's configuration: string attributes by number, filled by the host.
#pragma once

#include <QString>

#if defined(NBCONFIGURE_BUILD)
#define NBCONFIGURE_EXPORT __attribute__((visibility("default")))
#else
#define NBCONFIGURE_EXPORT
#endif

class NBCONFIGURE_EXPORT NBConfigure
{
public:
    enum Attribute { Language = 59 };

    // An attribute that was never set reads as an empty string. Safe from any thread.
    static QString getQStringAttribute(int attribute);
    static void setQStringAttribute(int attribute, const QString& value);

    NBConfigure() = delete;
};
