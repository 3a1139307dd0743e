#pragma once

#include "platform/status_p.h"
#include "platform/testexport_p.h"

#include <QtGlobal>

#include <cstddef>
#include <vector>

// One JPEG 2000 codestream (or JP2 file) decoded to integer samples. Classic JPEG 2000 goes
// through OpenJPEG; a high-throughput codestream (HTJ2K, the CAP marker naming Part 15) through
// OpenJPH.
namespace kestrel::internal {

struct J2kImage {
    int width = 0;
    int height = 0;
    int components = 0;
    int bitDepth = 0;        // of the first component
    bool isSigned = false;   // of the first component
    bool reversible = true;  // false: an irreversible (9/7) wavelet, so the pixels are lossy
    bool colourTransform = false; // a multi-component transform was undone: the samples are RGB
    // Samples pixel by pixel, the components of a pixel side by side (row after row).
    std::vector<qint32> samples;
};

// True when the bytes start a high-throughput codestream (a CAP marker with the Part 15 bit
// before the first tile).
KESTREL_TEST_EXPORT bool isHighThroughputCodestream(const unsigned char* data, std::size_t size);

// Decodes DATA (a codestream starting with SOC, or a JP2 file) into OUT.
KESTREL_TEST_EXPORT Status decodeJpeg2000(const unsigned char* data, std::size_t size, J2kImage& out);

} // namespace kestrel::internal
