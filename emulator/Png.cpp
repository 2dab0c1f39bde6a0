#include "Png.h"

#include <QVector>
#include <QtEndian>
#include <zlib.h>

namespace {

// One 3x5 glyph per digit, five rows of three bits.
const unsigned char Font[10][5] = {
    { 7, 5, 5, 5, 7 },
    { 2, 6, 2, 2, 7 },
    { 7, 1, 7, 4, 7 },
    { 7, 1, 7, 1, 7 },
    { 5, 5, 7, 1, 1 },
    { 7, 4, 7, 1, 7 },
    { 7, 4, 7, 5, 7 },
    { 7, 1, 1, 1, 1 },
    { 7, 5, 7, 5, 7 },
    { 7, 5, 7, 1, 7 },
};

void chunk(QByteArray& png, const char* type, const QByteArray& data)
{
    quint32 length = qToBigEndian(quint32(data.size()));
    png.append(reinterpret_cast<const char*>(&length), 4);
    QByteArray body = QByteArray(type, 4) + data;
    png.append(body);
    quint32 crc = qToBigEndian(
        quint32(crc32(0, reinterpret_cast<const Bytef*>(body.constData()), uInt(body.size()))));
    png.append(reinterpret_cast<const char*>(&crc), 4);
}

// Eight-bit grey pixels, row by row.
QByteArray encode(const QVector<unsigned char>& pixels, int width, int height)
{
    QByteArray raw;
    for (int y = 0; y < height; ++y) {
        raw.append('\0'); // no filter
        raw.append(reinterpret_cast<const char*>(pixels.constData() + y * width), width);
    }
    uLongf size = compressBound(uLong(raw.size()));
    QByteArray compressed(int(size), Qt::Uninitialized);
    compress(reinterpret_cast<Bytef*>(compressed.data()), &size,
        reinterpret_cast<const Bytef*>(raw.constData()), uLong(raw.size()));
    compressed.resize(int(size));

    QByteArray png("\x89PNG\r\n\x1a\n", 8);
    QByteArray header(13, '\0');
    qToBigEndian(quint32(width), header.data());
    qToBigEndian(quint32(height), header.data() + 4);
    header[8] = 8; // bit depth
    header[9] = 0; // grey
    chunk(png, "IHDR", header);
    chunk(png, "IDAT", compressed);
    chunk(png, "IEND", QByteArray());
    return png;
}

} // namespace

QByteArray Png::digits(const QString& text, int scale)
{
    const int cellWidth = 4 * scale;
    const int width = qMax(1, text.size()) * cellWidth + scale;
    const int height = 7 * scale;
    QVector<unsigned char> pixels(width * height, 255);
    for (int i = 0; i < text.size(); ++i) {
        const int digit = text.at(i).digitValue();
        if (digit < 0)
            continue;
        for (int row = 0; row < 5; ++row) {
            for (int column = 0; column < 3; ++column) {
                if (!(Font[digit][row] & (4 >> column)))
                    continue;
                for (int dy = 0; dy < scale; ++dy)
                    for (int dx = 0; dx < scale; ++dx)
                        pixels[(scale + row * scale + dy) * width + scale + i * cellWidth + column * scale
                            + dx]
                            = 0;
            }
        }
    }
    return encode(pixels, width, height);
}

QByteArray Png::pattern(const QByteArray& seed, int size, int scale)
{
    const int width = size * scale;
    QVector<unsigned char> pixels(width * width, 255);
    quint32 state = quint32(qHash(seed)) | 1;
    for (int y = 0; y < size; ++y) {
        for (int x = 0; x < size; ++x) {
            state ^= state << 13;
            state ^= state >> 17;
            state ^= state << 5;
            if (!(state & 1))
                continue;
            for (int dy = 0; dy < scale; ++dy)
                for (int dx = 0; dx < scale; ++dx)
                    pixels[(y * scale + dy) * width + x * scale + dx] = 0;
        }
    }
    return encode(pixels, width, width);
}
