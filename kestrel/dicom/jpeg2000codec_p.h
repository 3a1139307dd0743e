#pragma once

#include "platform/status_p.h"
#include "platform/testexport_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dccodec.h>

#include <vector>

class DcmPixelSequence;

namespace kestrel::internal {

// The fragment numbers (in the pixel sequence; item 0 is the offset table) of each of FRAMES
// frames: by the offset table when it has one entry per frame, else one fragment per frame when
// the counts match, all fragments for one frame, or split where a fragment starts a new
// codestream.
KESTREL_TEST_EXPORT Status frameFragments(DcmPixelSequence* sequence, unsigned long frames,
                                          std::vector<std::vector<unsigned long>>& out);

// DCMTK decoder of the JPEG 2000 transfer syntaxes (lossless only, lossless or lossy, and
// their multi-component forms), registered with DcmCodecList, so that every DCMTK path that
// decompresses pixel data (chooseRepresentation, DicomImage, frame access) can read them.
// High-throughput codestreams in those datasets are decoded too. It only decodes.
class Jpeg2000Decoder : public DcmCodec
{
public:
    OFCondition decode(const DcmRepresentationParameter* fromRepParam, DcmPixelSequence* pixSeq,
                       DcmPolymorphOBOW& uncompressedPixelData, const DcmCodecParameter* cp,
                       const DcmStack& objStack, OFBool& removeOldRep) const override;
    OFCondition decodeFrame(const DcmRepresentationParameter* fromParam, DcmPixelSequence* fromPixSeq,
                            const DcmCodecParameter* cp, DcmItem* dataset, Uint32 frameNo, Uint32& startFragment,
                            void* buffer, Uint32 bufSize, OFString& decompressedColorModel) const override;
    OFCondition encode(const Uint16* pixelData, const Uint32 length, const DcmRepresentationParameter* toRepParam,
                       DcmPixelSequence*& pixSeq, const DcmCodecParameter* cp, DcmStack& objStack,
                       OFBool& removeOldRep) const override;
    OFCondition encode(const E_TransferSyntax fromRepType, const DcmRepresentationParameter* fromRepParam,
                       DcmPixelSequence* fromPixSeq, const DcmRepresentationParameter* toRepParam,
                       DcmPixelSequence*& toPixSeq, const DcmCodecParameter* cp, DcmStack& objStack,
                       OFBool& removeOldRep) const override;
    OFBool canChangeCoding(const E_TransferSyntax oldRepType, const E_TransferSyntax newRepType) const override;
    OFCondition determineDecompressedColorModel(const DcmRepresentationParameter* fromParam,
                                                DcmPixelSequence* fromPixSeq, const DcmCodecParameter* cp,
                                                DcmItem* dataset, OFString& decompressedColorModel) const override;

    // True for the transfer syntaxes this decoder reads.
    static bool handles(E_TransferSyntax xfer);

    // Registers one decoder with DCMTK for the life of the process (registerDecoders calls it).
    static void registerOnce();
};

} // namespace kestrel::internal
