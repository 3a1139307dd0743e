#include "dicom/jpeg2000codec_p.h"

#include "dicom/jpeg2000stream_p.h"

#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcerror.h>
#include <dcmtk/dcmdata/dcitem.h>
#include <dcmtk/dcmdata/dcpixel.h>
#include <dcmtk/dcmdata/dcpixseq.h>
#include <dcmtk/dcmdata/dcpxitem.h>
#include <dcmtk/dcmdata/dcstack.h>
#include <dcmtk/dcmdata/dcvrpobw.h>

#include <QtEndian>

#include <cstring>

namespace kestrel::internal {

namespace {

OFCondition codecError(const QString& text)
{
    return makeOFCondition(OFM_dcmdata, 0x7f0, OF_error, text.toLatin1().constData());
}

bool startsCodestream(const Uint8* bytes, Uint32 length)
{
    static const Uint8 jp2[8] = {0, 0, 0, 0x0c, 0x6a, 0x50, 0x20, 0x20};
    return (length >= 4 && bytes[0] == 0xff && bytes[1] == 0x4f && bytes[2] == 0xff && bytes[3] == 0x51)
           || (length >= 8 && std::memcmp(bytes, jp2, sizeof jp2) == 0);
}

struct Fragment {
    Uint8* bytes = nullptr;
    Uint32 length = 0;
};

bool fragmentAt(DcmPixelSequence* sequence, unsigned long index, Fragment& out)
{
    DcmPixelItem* item = nullptr;
    if (sequence->getItem(item, index).bad() || !item)
        return false;
    out.length = item->getLength();
    out.bytes = nullptr;
    return out.length == 0 || (item->getUint8Array(out.bytes).good() && out.bytes);
}

// Frame start offsets of a usable offset table: one per frame, the first 0, increasing.
std::vector<quint32> offsetTable(DcmPixelSequence* sequence, unsigned long frames)
{
    Fragment table;
    if (!fragmentAt(sequence, 0, table) || table.length < 4 * frames || !table.bytes)
        return {};
    std::vector<quint32> offsets(frames);
    for (unsigned long f = 0; f < frames; ++f) {
        offsets[f] = qFromLittleEndian<quint32>(table.bytes + 4 * f);
        if ((f == 0 && offsets[f] != 0) || (f > 0 && offsets[f] <= offsets[f - 1]))
            return {};
    }
    return offsets;
}

// The image pixel attributes the decoded frames are laid out by.
struct Layout {
    Uint16 rows = 0, columns = 0, samples = 1, bitsAllocated = 0, planar = 0;
    unsigned long frames = 1;
    OFString photometric;
    std::size_t frameBytes() const
    {
        return std::size_t(rows) * columns * samples * (bitsAllocated / 8);
    }
};

Status readLayout(DcmItem* item, Layout& layout)
{
    if (!item || item->findAndGetUint16(DCM_Rows, layout.rows).bad()
        || item->findAndGetUint16(DCM_Columns, layout.columns).bad()
        || item->findAndGetUint16(DCM_BitsAllocated, layout.bitsAllocated).bad())
        return Status(Status::InvalidInput, QStringLiteral("JPEG 2000: the image has no rows, columns or bits allocated"));
    item->findAndGetUint16(DCM_SamplesPerPixel, layout.samples);
    item->findAndGetUint16(DCM_PlanarConfiguration, layout.planar);
    item->findAndGetOFString(DCM_PhotometricInterpretation, layout.photometric);
    Sint32 frames = 1;
    if (item->findAndGetSint32(DCM_NumberOfFrames, frames).good() && frames > 1)
        layout.frames = static_cast<unsigned long>(frames);
    if (layout.bitsAllocated != 8 && layout.bitsAllocated != 16 && layout.bitsAllocated != 32)
        return Status(Status::InvalidInput, QStringLiteral("JPEG 2000: %1 bits allocated are not supported")
                                                .arg(layout.bitsAllocated));
    if (layout.rows == 0 || layout.columns == 0 || layout.samples == 0)
        return Status(Status::InvalidInput, QStringLiteral("JPEG 2000: an empty image"));
    return Status::ok();
}

DcmItem* itemOf(const DcmStack& objStack)
{
    DcmStack stack(objStack);
    stack.pop(); // the pixel data element itself
    DcmObject* parent = stack.top();
    if (!parent || (parent->ident() != EVR_dataset && parent->ident() != EVR_item))
        return nullptr;
    return static_cast<DcmItem*>(parent);
}

bool isYbrComponentTransform(const OFString& photometric)
{
    return photometric == "YBR_ICT" || photometric == "YBR_RCT";
}

// Writes the decoded samples of one frame into OUT (frameBytes() bytes) as the layout says.
Status storeFrame(const J2kImage& image, const Layout& layout, Uint8* out)
{
    if (image.width != layout.columns || image.height != layout.rows || image.components != layout.samples)
        return Status(Status::InvalidInput,
                      QStringLiteral("JPEG 2000: the codestream holds %1 x %2 pixels of %3 samples, the data set "
                                     "%4 x %5 of %6")
                          .arg(image.width).arg(image.height).arg(image.components)
                          .arg(layout.columns).arg(layout.rows).arg(layout.samples));
    const std::size_t pixels = std::size_t(layout.rows) * layout.columns;
    const std::size_t samples = layout.samples;
    for (std::size_t i = 0; i < pixels * samples; ++i) {
        // Colour-by-plane when the data set asks for it, pixel by pixel otherwise.
        const std::size_t at = layout.planar == 1 && samples > 1 ? (i % samples) * pixels + i / samples : i;
        const quint32 value = quint32(image.samples[i]);
        switch (layout.bitsAllocated) {
        case 8:
            out[at] = Uint8(value);
            break;
        case 16:
            reinterpret_cast<Uint16*>(out)[at] = Uint16(value);
            break;
        default:
            reinterpret_cast<Uint32*>(out)[at] = value;
            break;
        }
    }
    return Status::ok();
}

// Decodes frame FRAME (its fragments in FRAGMENTS) into OUT.
Status decodeOneFrame(DcmPixelSequence* sequence, const std::vector<unsigned long>& fragments, const Layout& layout,
                      Uint8* out, J2kImage& image)
{
    std::vector<unsigned char> stream;
    const unsigned char* bytes = nullptr;
    std::size_t length = 0;
    for (unsigned long index : fragments) {
        Fragment fragment;
        if (!fragmentAt(sequence, index, fragment))
            return Status(Status::InvalidInput, QStringLiteral("JPEG 2000: fragment %1 cannot be read").arg(index));
        if (fragments.size() == 1) {
            bytes = fragment.bytes;
            length = fragment.length;
        } else if (fragment.length > 0) {
            stream.insert(stream.end(), fragment.bytes, fragment.bytes + fragment.length);
        }
    }
    if (fragments.size() != 1) {
        bytes = stream.data();
        length = stream.size();
    }
    const Status decoded = decodeJpeg2000(bytes, length, image);
    return decoded ? storeFrame(image, layout, out) : decoded;
}

class NoParameter : public DcmCodecParameter
{
public:
    DcmCodecParameter* clone() const override { return new NoParameter; }
    const char* className() const override { return "kestrel::NoParameter"; }
};

class NoRepresentationParameter : public DcmRepresentationParameter
{
public:
    DcmRepresentationParameter* clone() const override { return new NoRepresentationParameter; }
    const char* className() const override { return "kestrel::NoRepresentationParameter"; }
    OFBool operator==(const DcmRepresentationParameter& other) const override
    {
        return std::strcmp(other.className(), className()) == 0;
    }
};

} // namespace

Status frameFragments(DcmPixelSequence* sequence, unsigned long frames, std::vector<std::vector<unsigned long>>& out)
{
    out.assign(frames, {});
    const unsigned long items = sequence ? sequence->card() : 0;
    if (items < 2 || frames == 0)
        return Status(Status::InvalidInput, QStringLiteral("JPEG 2000: the pixel data holds no fragments"));
    const std::vector<quint32> offsets = offsetTable(sequence, frames);
    if (!offsets.empty()) {
        quint64 position = 0;
        unsigned long frame = 0;
        for (unsigned long i = 1; i < items; ++i) {
            Fragment fragment;
            if (!fragmentAt(sequence, i, fragment))
                return Status(Status::InvalidInput, QStringLiteral("JPEG 2000: fragment %1 cannot be read").arg(i));
            while (frame + 1 < frames && position >= offsets[frame + 1])
                ++frame;
            out[frame].push_back(i);
            position += 8 + quint64(fragment.length);
        }
    } else if (frames == 1 || items - 1 == frames) {
        for (unsigned long i = 1; i < items; ++i)
            out[frames == 1 ? 0 : i - 1].push_back(i);
    } else {
        long frame = -1;
        for (unsigned long i = 1; i < items; ++i) {
            Fragment fragment;
            if (!fragmentAt(sequence, i, fragment))
                return Status(Status::InvalidInput, QStringLiteral("JPEG 2000: fragment %1 cannot be read").arg(i));
            if (startsCodestream(fragment.bytes, fragment.length))
                ++frame;
            if (frame < 0 || frame >= long(frames))
                return Status(Status::InvalidInput,
                              QStringLiteral("JPEG 2000: %1 fragments do not divide into %2 frames").arg(items - 1).arg(frames));
            out[std::size_t(frame)].push_back(i);
        }
    }
    for (unsigned long f = 0; f < frames; ++f)
        if (out[f].empty())
            return Status(Status::InvalidInput, QStringLiteral("JPEG 2000: frame %1 has no fragments").arg(f + 1));
    return Status::ok();
}

OFCondition Jpeg2000Decoder::decode(const DcmRepresentationParameter*, DcmPixelSequence* pixSeq,
                                    DcmPolymorphOBOW& uncompressedPixelData, const DcmCodecParameter*,
                                    const DcmStack& objStack, OFBool& removeOldRep) const
{
    DcmItem* item = itemOf(objStack);
    Layout layout;
    Status status = readLayout(item, layout);
    std::vector<std::vector<unsigned long>> frames;
    if (status)
        status = frameFragments(pixSeq, layout.frames, frames);
    if (!status)
        return codecError(status.text());
    const std::size_t frameBytes = layout.frameBytes();
    const std::size_t total = frameBytes * layout.frames;
    Uint16* words = nullptr;
    if (total > 0xfffffffeu || uncompressedPixelData.createUint16Array(Uint32((total + 1) / 2), words).bad() || !words)
        return EC_MemoryExhausted;
    if (total % 2)
        reinterpret_cast<Uint8*>(words)[total] = 0;
    J2kImage image;
    bool colourTransform = false, lossy = false;
    for (unsigned long f = 0; f < layout.frames; ++f) {
        status = decodeOneFrame(pixSeq, frames[f], layout, reinterpret_cast<Uint8*>(words) + f * frameBytes, image);
        if (!status)
            return codecError(status.text() + QStringLiteral(" (frame %1)").arg(f + 1));
        colourTransform = colourTransform || image.colourTransform;
        lossy = lossy || !image.reversible;
    }
    uncompressedPixelData.setVR(layout.bitsAllocated == 8 ? EVR_OB : EVR_OW);
    // The decoded samples are RGB once the component transform is undone.
    if (colourTransform && isYbrComponentTransform(layout.photometric)) {
        item->putAndInsertString(DCM_PhotometricInterpretation, "RGB");
        removeOldRep = OFTrue;
    }
    if (lossy)
        item->putAndInsertString(DCM_LossyImageCompression, "01");
    return EC_Normal;
}

OFCondition Jpeg2000Decoder::decodeFrame(const DcmRepresentationParameter*, DcmPixelSequence* fromPixSeq,
                                         const DcmCodecParameter*, DcmItem* dataset, Uint32 frameNo,
                                         Uint32& startFragment, void* buffer, Uint32 bufSize,
                                         OFString& decompressedColorModel) const
{
    Layout layout;
    Status status = readLayout(dataset, layout);
    std::vector<std::vector<unsigned long>> frames;
    if (status)
        status = frameFragments(fromPixSeq, layout.frames, frames);
    if (status && frameNo >= layout.frames)
        status = Status(Status::InvalidInput, QStringLiteral("JPEG 2000: there is no frame %1").arg(frameNo + 1));
    if (status && bufSize < layout.frameBytes())
        status = Status(Status::InvalidInput, QStringLiteral("JPEG 2000: the frame buffer is too small"));
    J2kImage image;
    if (status)
        status = decodeOneFrame(fromPixSeq, frames[frameNo], layout, static_cast<Uint8*>(buffer), image);
    if (!status)
        return codecError(status.text());
    startFragment = Uint32(frames[frameNo].back() + 1);
    decompressedColorModel =
        image.colourTransform && isYbrComponentTransform(layout.photometric) ? OFString("RGB") : layout.photometric;
    return EC_Normal;
}

OFCondition Jpeg2000Decoder::encode(const Uint16*, const Uint32, const DcmRepresentationParameter*, DcmPixelSequence*&,
                                    const DcmCodecParameter*, DcmStack&, OFBool&) const
{
    return EC_IllegalCall;
}

OFCondition Jpeg2000Decoder::encode(const E_TransferSyntax, const DcmRepresentationParameter*, DcmPixelSequence*,
                                    const DcmRepresentationParameter*, DcmPixelSequence*&, const DcmCodecParameter*,
                                    DcmStack&, OFBool&) const
{
    return EC_IllegalCall;
}

bool Jpeg2000Decoder::handles(E_TransferSyntax xfer)
{
    return xfer == EXS_JPEG2000LosslessOnly || xfer == EXS_JPEG2000 || xfer == EXS_JPEG2000MulticomponentLosslessOnly
           || xfer == EXS_JPEG2000Multicomponent;
}

OFBool Jpeg2000Decoder::canChangeCoding(const E_TransferSyntax oldRepType, const E_TransferSyntax newRepType) const
{
    return handles(oldRepType) && DcmXfer(newRepType).isNotEncapsulated();
}

OFCondition Jpeg2000Decoder::determineDecompressedColorModel(const DcmRepresentationParameter*, DcmPixelSequence*,
                                                             const DcmCodecParameter*, DcmItem* dataset,
                                                             OFString& decompressedColorModel) const
{
    if (!dataset)
        return EC_IllegalParameter;
    OFString photometric;
    const OFCondition found = dataset->findAndGetOFString(DCM_PhotometricInterpretation, photometric);
    decompressedColorModel = isYbrComponentTransform(photometric) ? OFString("RGB") : photometric;
    return found;
}

void Jpeg2000Decoder::registerOnce()
{
    static const Jpeg2000Decoder decoder;
    static const NoRepresentationParameter representation;
    static const NoParameter parameter;
    static const bool registered = DcmCodecList::registerCodec(&decoder, &representation, &parameter).good();
    Q_UNUSED(registered);
}

} // namespace kestrel::internal
