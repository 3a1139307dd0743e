#pragma once

#include "platform/testexport_p.h"

#include <QString>

// Numbers written and read as text (the volume head string, DICOM decimal strings, INI values)
// always in the C locale: a desktop set to German or French must not turn 0.9375 into "0,9375".
// Qt's own number conversions are locale-free; the C library's are not once a Qt application
// has set the process locale.
namespace kestrel::internal {

// Six significant digits, as "%g" in the C locale ("0.9375", "1e-05", "-120").
KESTREL_TEST_EXPORT QString formatNumber(double value);

// A DICOM decimal string (DS): the most significant digits that fit in 16 characters.
KESTREL_TEST_EXPORT QString formatDecimalString(double value);

// A number in C-locale text, surrounding spaces allowed; FALLBACK when it is not one.
KESTREL_TEST_EXPORT double parseNumber(const QString& text, double fallback = 0.0, bool* ok = nullptr);

} // namespace kestrel::internal
