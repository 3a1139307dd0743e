#include "dicom/pixelvalues_p.h"

namespace kestrel::internal {

bool storedBitsPartial(int bitsStored, int highBit)
{
    return bitsStored > 0 && bitsStored < 16 && highBit >= bitsStored - 1 && highBit < 16;
}

void unsignedStoredValues(const quint16* words, qint64 count, int bitsStored, int highBit, quint16* out)
{
    if (!storedBitsPartial(bitsStored, highBit)) {
        if (out != words)
            for (qint64 n = 0; n < count; ++n)
                out[n] = words[n];
        return;
    }
    const int shift = highBit + 1 - bitsStored;
    const quint16 mask = quint16((1u << bitsStored) - 1u);
    for (qint64 n = 0; n < count; ++n)
        out[n] = quint16((words[n] >> shift) & mask);
}

} // namespace kestrel::internal
