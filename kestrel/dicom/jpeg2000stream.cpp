#include "dicom/jpeg2000stream_p.h"

#include <openjpeg.h>
#include <openjph/ojph_arch.h>
#include <openjph/ojph_file.h>
#include <openjph/ojph_mem.h>
#include <openjph/ojph_params.h>
#include <openjph/ojph_codestream.h>
#include <openjph/ojph_message.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace kestrel::internal {

namespace {

quint16 bigEndian16(const unsigned char* p)
{
    return quint16((p[0] << 8) | p[1]);
}

quint32 bigEndian32(const unsigned char* p)
{
    return (quint32(p[0]) << 24) | (quint32(p[1]) << 16) | (quint32(p[2]) << 8) | quint32(p[3]);
}

bool isJp2File(const unsigned char* data, std::size_t size)
{
    static const unsigned char signature[12] = {0, 0, 0, 0x0c, 0x6a, 0x50, 0x20, 0x20, 0x0d, 0x0a, 0x87, 0x0a};
    return size >= sizeof signature && std::memcmp(data, signature, sizeof signature) == 0;
}

// ---- OpenJPEG: classic JPEG 2000 ------------------------------------------------------------

struct MemorySource {
    const unsigned char* data;
    std::size_t size;
    std::size_t pos;
};

OPJ_SIZE_T readSource(void* buffer, OPJ_SIZE_T bytes, void* user)
{
    auto* source = static_cast<MemorySource*>(user);
    if (source->pos >= source->size)
        return OPJ_SIZE_T(-1);
    const std::size_t n = std::min<std::size_t>(bytes, source->size - source->pos);
    std::memcpy(buffer, source->data + source->pos, n);
    source->pos += n;
    return n;
}

OPJ_OFF_T skipSource(OPJ_OFF_T bytes, void* user)
{
    auto* source = static_cast<MemorySource*>(user);
    const OPJ_OFF_T room = OPJ_OFF_T(source->size - source->pos);
    const OPJ_OFF_T n = std::max<OPJ_OFF_T>(-OPJ_OFF_T(source->pos), std::min(bytes, room));
    source->pos = std::size_t(OPJ_OFF_T(source->pos) + n);
    return n;
}

OPJ_BOOL seekSource(OPJ_OFF_T offset, void* user)
{
    auto* source = static_cast<MemorySource*>(user);
    if (offset < 0 || std::size_t(offset) > source->size)
        return OPJ_FALSE;
    source->pos = std::size_t(offset);
    return OPJ_TRUE;
}

void keepError(const char* message, void* user)
{
    auto* text = static_cast<QString*>(user);
    if (text->isEmpty())
        *text = QString::fromLatin1(message).trimmed();
}

void ignoreMessage(const char*, void*) {}

// Owns what OpenJPEG hands out.
struct OpenJpegDecoder {
    opj_codec_t* codec = nullptr;
    opj_stream_t* stream = nullptr;
    opj_image_t* image = nullptr;
    opj_codestream_info_v2_t* info = nullptr;
    ~OpenJpegDecoder()
    {
        if (info)
            opj_destroy_cstr_info(&info);
        if (image)
            opj_image_destroy(image);
        if (stream)
            opj_stream_destroy(stream);
        if (codec)
            opj_destroy_codec(codec);
    }
};

Status decodeWithOpenJpeg(const unsigned char* data, std::size_t size, J2kImage& out)
{
    MemorySource source{data, size, 0};
    QString error;
    OpenJpegDecoder d;
    d.codec = opj_create_decompress(isJp2File(data, size) ? OPJ_CODEC_JP2 : OPJ_CODEC_J2K);
    d.stream = opj_stream_create(OPJ_J2K_STREAM_CHUNK_SIZE, OPJ_TRUE);
    if (!d.codec || !d.stream)
        return Status::failed(QStringLiteral("JPEG 2000: cannot set up the decoder"));
    opj_set_error_handler(d.codec, keepError, &error);
    opj_set_warning_handler(d.codec, ignoreMessage, nullptr);
    opj_set_info_handler(d.codec, ignoreMessage, nullptr);
    opj_stream_set_user_data(d.stream, &source, nullptr);
    opj_stream_set_user_data_length(d.stream, size);
    opj_stream_set_read_function(d.stream, readSource);
    opj_stream_set_skip_function(d.stream, skipSource);
    opj_stream_set_seek_function(d.stream, seekSource);
    opj_dparameters_t parameters;
    opj_set_default_decoder_parameters(&parameters);
    if (!opj_setup_decoder(d.codec, &parameters) || !opj_read_header(d.stream, d.codec, &d.image))
        return Status(Status::InvalidInput, QStringLiteral("JPEG 2000: unreadable header: ") + error);
    d.info = opj_get_cstr_info(d.codec);
    if (!opj_decode(d.codec, d.stream, d.image) || !opj_end_decompress(d.codec, d.stream))
        return Status(Status::InvalidInput, QStringLiteral("JPEG 2000: cannot decode: ") + error);

    const opj_image_t* image = d.image;
    if (image->numcomps < 1)
        return Status(Status::InvalidInput, QStringLiteral("JPEG 2000: no components"));
    out.components = int(image->numcomps);
    out.width = int(image->comps[0].w);
    out.height = int(image->comps[0].h);
    out.bitDepth = int(image->comps[0].prec);
    out.isSigned = image->comps[0].sgnd != 0;
    for (int c = 0; c < out.components; ++c) {
        const opj_image_comp_t& comp = image->comps[c];
        if (comp.dx != 1 || comp.dy != 1 || int(comp.w) != out.width || int(comp.h) != out.height || !comp.data)
            return Status(Status::InvalidInput, QStringLiteral("JPEG 2000: subsampled components are not supported"));
    }
    if (d.info) {
        out.colourTransform = out.components >= 3 && d.info->m_default_tile_info.mct != 0;
        out.reversible = !d.info->m_default_tile_info.tccp_info
                         || d.info->m_default_tile_info.tccp_info[0].qmfbid == 1;
    }
    const std::size_t pixels = std::size_t(out.width) * std::size_t(out.height);
    out.samples.resize(pixels * std::size_t(out.components));
    for (int c = 0; c < out.components; ++c) {
        const OPJ_INT32* from = image->comps[c].data;
        for (std::size_t i = 0; i < pixels; ++i)
            out.samples[i * std::size_t(out.components) + std::size_t(c)] = from[i];
    }
    return Status::ok();
}

// ---- OpenJPH: high-throughput JPEG 2000 -----------------------------------------------------

// OpenJPH reports through global handlers that print; errors are turned into exceptions that
// the decoder catches, the rest is dropped.
class ThrowingError : public ojph::message_error
{
public:
    void operator()(int, const char*, int, const char* format, ...) override
    {
        char text[256];
        va_list args;
        va_start(args, format);
        std::vsnprintf(text, sizeof text, format, args);
        va_end(args);
        throw std::runtime_error(text);
    }
};

class SilentWarning : public ojph::message_warning
{
public:
    void operator()(int, const char*, int, const char*, ...) override {}
};

class SilentInfo : public ojph::message_info
{
public:
    void operator()(int, const char*, int, const char*, ...) override {}
};

void quietOpenJph()
{
    static ThrowingError error;
    static SilentWarning warning;
    static SilentInfo info;
    static const bool configured = [] {
        ojph::configure_error(&error);
        ojph::configure_warning(&warning);
        ojph::configure_info(&info);
        return true;
    }();
    Q_UNUSED(configured);
}

Status decodeWithOpenJph(const unsigned char* data, std::size_t size, J2kImage& out)
{
    quietOpenJph();
    try {
        ojph::mem_infile file;
        file.open(data, size);
        ojph::codestream stream;
        stream.read_headers(&file);
        ojph::param_siz siz = stream.access_siz();
        out.components = int(siz.get_num_components());
        out.width = int(siz.get_recon_width(0));
        out.height = int(siz.get_recon_height(0));
        out.bitDepth = int(siz.get_bit_depth(0));
        out.isSigned = siz.is_signed(0);
        for (int c = 0; c < out.components; ++c) {
            const ojph::point sampling = siz.get_downsampling(ojph::ui32(c));
            if (sampling.x != 1 || sampling.y != 1)
                return Status(Status::InvalidInput, QStringLiteral("HTJ2K: subsampled components are not supported"));
        }
        ojph::param_cod cod = stream.access_cod();
        out.reversible = cod.is_reversible();
        out.colourTransform = out.components >= 3 && cod.is_using_color_transform();
        stream.set_planar(false);
        stream.create();
        const std::size_t components = std::size_t(out.components);
        out.samples.assign(std::size_t(out.width) * std::size_t(out.height) * components, 0);
        for (int y = 0; y < out.height; ++y) {
            for (std::size_t c = 0; c < components; ++c) {
                ojph::ui32 component = 0;
                const ojph::line_buf* line = stream.pull(component);
                if (!line || component >= components)
                    throw std::runtime_error("a line of the wrong component");
                qint32* row = out.samples.data() + std::size_t(y) * std::size_t(out.width) * components;
                const std::size_t width = std::min<std::size_t>(line->size, std::size_t(out.width));
                for (std::size_t x = 0; x < width; ++x)
                    row[x * components + component] = line->i32[x];
            }
        }
        stream.close();
    } catch (const std::exception& e) {
        return Status(Status::InvalidInput, QStringLiteral("HTJ2K: cannot decode: ") + QString::fromLatin1(e.what()));
    }
    return Status::ok();
}

} // namespace

bool isHighThroughputCodestream(const unsigned char* data, std::size_t size)
{
    if (size < 4 || bigEndian16(data) != 0xff4f)
        return false;
    std::size_t pos = 2;
    while (pos + 4 <= size) {
        const quint16 marker = bigEndian16(data + pos);
        if (marker == 0xff90 || marker == 0xff93 || (marker & 0xff00) != 0xff00)
            return false; // the first tile: the main header is over
        const quint16 length = bigEndian16(data + pos + 2);
        // CAP: Pcap is a bit per part of the standard, the most significant for part 1; part 15
        // (high throughput) is bit 15 from the top.
        if (marker == 0xff50 && length >= 6 && pos + 8 <= size)
            return (bigEndian32(data + pos + 4) & 0x00020000u) != 0;
        pos += 2 + std::size_t(length);
    }
    return false;
}

Status decodeJpeg2000(const unsigned char* data, std::size_t size, J2kImage& out)
{
    out = J2kImage();
    if (!data || size < 12)
        return Status(Status::InvalidInput, QStringLiteral("JPEG 2000: no codestream"));
    Status status = isHighThroughputCodestream(data, size) ? decodeWithOpenJph(data, size, out)
                                                            : decodeWithOpenJpeg(data, size, out);
    if (status && (out.width <= 0 || out.height <= 0 || out.components <= 0 || out.bitDepth < 1 || out.bitDepth > 31))
        status = Status(Status::InvalidInput, QStringLiteral("JPEG 2000: an empty image"));
    if (!status)
        return status;
    // An irreversible wavelet overshoots at edges: samples are held to the range of their bits.
    const qint64 low = out.isSigned ? -(qint64(1) << (out.bitDepth - 1)) : 0;
    const qint64 high = out.isSigned ? (qint64(1) << (out.bitDepth - 1)) - 1 : (qint64(1) << out.bitDepth) - 1;
    for (qint32& sample : out.samples)
        sample = qint32(std::clamp<qint64>(sample, low, high));
    return status;
}

} // namespace kestrel::internal
