#include "platform/textnumbers_p.h"

#include <charconv>
#include <cmath>

namespace kestrel::internal {

QString formatNumber(double value)
{
    // Exactly printf's "%g" (rounding, "-0", exponents), without its locale.
    char buffer[64];
    const std::to_chars_result result =
        std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::general, 6);
    return QString::fromLatin1(buffer, int(result.ptr - buffer));
}

QString formatDecimalString(double value)
{
    if (!std::isfinite(value))
        return QStringLiteral("0");
    for (int digits = 17; digits > 1; --digits) {
        const QString text = QString::number(value, 'g', digits);
        if (text.size() <= 16)
            return text;
    }
    return QString::number(value, 'g', 1);
}

double parseNumber(const QString& text, double fallback, bool* ok)
{
    bool good = false;
    const double value = text.trimmed().toDouble(&good);
    if (ok)
        *ok = good;
    return good ? value : fallback;
}

} // namespace kestrel::internal
