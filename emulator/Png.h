// Small real PNG pictures for the sign-in screens: digits drawn in a 3x5 font (the
// quick-login captcha) and a square pattern standing for a QR code.
#pragma once

#include <QByteArray>
#include <QString>

namespace Png {
// Grey-scale, `scale` pixels per font dot; characters other than digits are blanks.
QByteArray digits(const QString& text, int scale = 8);
// A deterministic pattern of `size` x `size` cells derived from the text.
QByteArray pattern(const QByteArray& seed, int size, int scale = 6);
} // namespace Png
