#pragma once

#include "platform/testexport_p.h"
#include "volumehead.h"

#include <QString>

// The "magic:DCVM;..." text form of a VolumeHead, and the checks that keep a head's geometry
// inside the buffer it describes.
namespace kestrel::internal {

// The 21-item head string, then the format item "format:2;". Doubles are printed as C printf's
// "%g" (6 significant digits), which the modules reading the string expect (Qt's own formatting
// rounds ties and -0 differently). Readers take the 21 items by position and ignore the rest.
KESTREL_TEST_EXPORT QString volumeHeadText(const VolumeHead& head);

// True when TEXT is the head string of a volume built by the present geometry rules (slice order
// along the normal, Pixel Spacing by rows then columns); heads of earlier builds lack the format
// item, and their cached volumes are rebuilt rather than read.
KESTREL_TEST_EXPORT bool isCurrentVolumeHeadText(const QString& text);

// Parses a head string by position into HEAD (keys are ignored). Items missing from a short text
// leave their fields as they were. UIDs are copied without terminator and only over the length of
// the new value; values longer than the field are cut to it.
KESTREL_TEST_EXPORT void parseVolumeHeadText(const QString& text, VolumeHead& head);

// Code of a PhotometricInterpretation string (0 = MONOCHROME1 ... 12 = YBR_RCT), or CURRENT when
// the string is not one of them.
KESTREL_TEST_EXPORT int photometricCode(const QString& value, int current);

// Number of whole frames of HEAD's geometry that fit in LENGTH bytes of buffer whose voxels start
// at OFFSET, at most HEAD.timeNum (at least 1 when frame 0 fits). 0 when the sizes or strides are
// negative or frame 0 does not fit.
KESTREL_TEST_EXPORT int framesInBuffer(const VolumeHead& head, qint64 offset, qint64 length);

// Why a volume file of FILESIZE bytes that starts with HEAD cannot be loaded (too small for a volume
// file, a head that does not describe the file or does not fit its own buffer); empty when it can.
KESTREL_TEST_EXPORT QString volumeFileFault(const VolumeHead& head, qint64 fileSize);

} // namespace kestrel::internal
