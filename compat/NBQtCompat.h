// Where Qt 5 and Qt 6 differ in what the library, its programs and tests use; everything
// else is written against the API both majors have.
#pragma once

#include <QTextStream>
#include <QtGlobal>
#include <cstdlib>
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
#include <QStringConverter>
#endif

namespace NBQtCompat {

// Qt 6's network layer announces every coding it can decode ("zstd, br, gzip, deflate"),
// Qt 5's only "gzip, deflate"; where it does, the library announces them itself.
inline constexpr bool announcesEveryCoding = QT_VERSION >= QT_VERSION_CHECK(6, 0, 0);

// Qt 5's qsrand and qrand, which Qt 6 dropped: a seed per thread and rand_r's sequence,
// so a seed gives the same numbers on both majors.
inline thread_local unsigned int randomSeed = 1;
inline void seedRandom(unsigned int seed)
{
    randomSeed = seed;
}
inline int random()
{
    return rand_r(&randomSeed);
}

// A text stream reading and writing the named encoding ("UTF-8"); an unknown name leaves
// the stream's own (the locale's on Qt 5, UTF-8 on Qt 6).
inline void setTextCodec(QTextStream& stream, const char* name)
{
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    if (const auto encoding = QStringConverter::encodingForName(name))
        stream.setEncoding(*encoding);
#else
    stream.setCodec(name);
#endif
}

} // namespace NBQtCompat
