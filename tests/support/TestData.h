// Payloads and files for transfer tests.
#pragma once

#include <QByteArray>
#include <QFile>
#include <QRandomGenerator>
#include <QString>

// Reproducible bytes of any value, zero bytes included.
inline QByteArray randomBytes(int size, quint32 seed = 42)
{
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator generator(seed);
    generator.fillRange(reinterpret_cast<quint32*>(bytes.data()), size / 4);
    for (int i = size - size % 4; i < size; ++i)
        bytes[i] = char(generator.generate());
    return bytes;
}

inline QByteArray readFile(const QString& path)
{
    QFile file(path);
    file.open(QIODevice::ReadOnly);
    return file.readAll();
}

inline QString writeFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    file.open(QIODevice::WriteOnly);
    file.write(content);
    return path;
}
