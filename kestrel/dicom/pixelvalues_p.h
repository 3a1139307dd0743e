#pragma once

#include "platform/testexport_p.h"

#include <QtGlobal>

// Stored pixel values as DICOM defines them: of each Pixel Data word only the Bits Stored bits
// that end at High Bit; the bits above (overlays, garbage) are not part of the value.
namespace kestrel::internal {

// True when words of BITSSTORED bits ending at HIGHBIT need unpacking (anything but 16 and 15).
KESTREL_TEST_EXPORT bool storedBitsPartial(int bitsStored, int highBit);

// The unsigned stored values of COUNT words into OUT (which may be WORDS).
KESTREL_TEST_EXPORT void unsignedStoredValues(const quint16* words, qint64 count, int bitsStored, int highBit,
                                              quint16* out);

} // namespace kestrel::internal
