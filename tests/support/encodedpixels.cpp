#include "encodedpixels.h"

#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcmetinf.h>
#include <dcmtk/dcmdata/dcpixel.h>
#include <dcmtk/dcmdata/dcpixseq.h>
#include <dcmtk/dcmdata/dcpxitem.h>

#include <openjpeg.h>
#include <openjph/ojph_arch.h>
#include <openjph/ojph_file.h>
#include <openjph/ojph_mem.h>
#include <openjph/ojph_params.h>
#include <openjph/ojph_codestream.h>

#include <QFile>

#include <cstring>
#include <vector>

namespace {

struct Sink {
    QByteArray bytes;
    qint64 pos = 0;
};

OPJ_SIZE_T writeSink(void* buffer, OPJ_SIZE_T n, void* user)
{
    auto* sink = static_cast<Sink*>(user);
    if (sink->pos + qint64(n) > sink->bytes.size())
        sink->bytes.resize(int(sink->pos + qint64(n)));
    std::memcpy(sink->bytes.data() + sink->pos, buffer, n);
    sink->pos += qint64(n);
    return n;
}

OPJ_OFF_T skipSink(OPJ_OFF_T n, void* user)
{
    auto* sink = static_cast<Sink*>(user);
    sink->pos += n;
    if (sink->pos > sink->bytes.size())
        sink->bytes.resize(int(sink->pos));
    return n;
}

OPJ_BOOL seekSink(OPJ_OFF_T n, void* user)
{
    static_cast<Sink*>(user)->pos = n;
    return OPJ_TRUE;
}

} // namespace

QByteArray encodeOpenJpeg(const QVector<quint16>& samples, int width, int height, int components, bool irreversible)
{
    opj_cparameters_t parameters;
    opj_set_default_encoder_parameters(&parameters);
    parameters.tcp_numlayers = 1;
    parameters.tcp_rates[0] = irreversible ? 5.0f : 0.0f;
    parameters.cp_disto_alloc = 1;
    parameters.irreversible = irreversible ? 1 : 0;
    parameters.tcp_mct = components == 3 ? 1 : 0;
    std::vector<opj_image_cmptparm_t> planes(static_cast<std::size_t>(components));
    for (opj_image_cmptparm_t& plane : planes) {
        std::memset(&plane, 0, sizeof plane);
        plane.dx = plane.dy = 1;
        plane.w = OPJ_UINT32(width);
        plane.h = OPJ_UINT32(height);
        plane.prec = 16;
    }
    opj_image_t* image = opj_image_create(OPJ_UINT32(components), planes.data(),
                                          components == 3 ? OPJ_CLRSPC_SRGB : OPJ_CLRSPC_GRAY);
    image->x1 = OPJ_UINT32(width);
    image->y1 = OPJ_UINT32(height);
    for (int c = 0; c < components; ++c)
        for (int i = 0; i < width * height; ++i)
            image->comps[c].data[i] = samples[i * components + c];
    opj_codec_t* codec = opj_create_compress(OPJ_CODEC_J2K);
    Sink sink;
    opj_stream_t* stream = opj_stream_create(OPJ_J2K_STREAM_CHUNK_SIZE, OPJ_FALSE);
    opj_stream_set_user_data(stream, &sink, nullptr);
    opj_stream_set_write_function(stream, writeSink);
    opj_stream_set_skip_function(stream, skipSink);
    opj_stream_set_seek_function(stream, seekSink);
    const bool ok = opj_setup_encoder(codec, &parameters, image) && opj_start_compress(codec, image, stream)
                    && opj_encode(codec, stream) && opj_end_compress(codec, stream);
    opj_stream_destroy(stream);
    opj_destroy_codec(codec);
    opj_image_destroy(image);
    return ok ? sink.bytes : QByteArray();
}

QByteArray encodeOpenJph(const QVector<quint16>& samples, int width, int height, bool reversible)
{
    ojph::codestream stream;
    ojph::param_siz siz = stream.access_siz();
    siz.set_image_extent(ojph::point(ojph::ui32(width), ojph::ui32(height)));
    siz.set_num_components(1);
    siz.set_component(0, ojph::point(1, 1), 16, false);
    siz.set_image_offset(ojph::point(0, 0));
    siz.set_tile_size(ojph::size(ojph::ui32(width), ojph::ui32(height)));
    siz.set_tile_offset(ojph::point(0, 0));
    ojph::param_cod cod = stream.access_cod();
    cod.set_num_decomposition(5);
    cod.set_block_dims(64, 64);
    cod.set_progression_order("RPCL");
    cod.set_color_transform(false);
    cod.set_reversible(reversible);
    if (!reversible)
        stream.access_qcd().set_irrev_quant(0.00002f);
    stream.set_planar(false);
    ojph::mem_outfile file;
    file.open();
    stream.write_headers(&file);
    ojph::ui32 component = 0;
    ojph::line_buf* line = stream.exchange(nullptr, component);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x)
            line->i32[x] = samples[y * width + x];
        line = stream.exchange(line, component);
    }
    stream.flush();
    QByteArray bytes(reinterpret_cast<const char*>(file.get_data()), int(file.tell()));
    stream.close();
    return bytes;
}

bool writeEncapsulated(const QString& templateFile, const QString& target, const Encapsulated& layout)
{
    DcmFileFormat format;
    if (format.loadFile(QFile::encodeName(templateFile).constData()).bad())
        return false;
    DcmDataset* ds = format.getDataset();
    ds->loadAllDataIntoMemory();
    if (layout.frames.size() > 1)
        ds->putAndInsertString(DCM_NumberOfFrames, QByteArray::number(layout.frames.size()).constData());
    for (auto it = layout.changes.constBegin(); it != layout.changes.constEnd(); ++it)
        ds->putAndInsertString(it.key(), it.value().toLatin1().constData());
    auto* sequence = new DcmPixelSequence(DCM_PixelSequenceTag);
    auto* table = new DcmPixelItem(DCM_PixelItemTag);
    sequence->insert(table);
    QByteArray offsets;
    quint32 position = 0;
    for (QByteArray frame : layout.frames) {
        if (frame.size() % 2)
            frame.append('\0');
        offsets.append(reinterpret_cast<const char*>(&position), 4);
        const int step = (frame.size() / layout.pieces + 1) & ~1;
        for (int at = 0; at < frame.size(); at += step) {
            const QByteArray piece = frame.mid(at, step);
            auto* item = new DcmPixelItem(DCM_PixelItemTag);
            item->putUint8Array(reinterpret_cast<const Uint8*>(piece.constData()), Uint32(piece.size()));
            sequence->insert(item);
            position += 8 + quint32(piece.size());
        }
    }
    if (layout.offsetTable)
        table->putUint8Array(reinterpret_cast<const Uint8*>(offsets.constData()), Uint32(offsets.size()));
    auto* pixelData = new DcmPixelData(DCM_PixelData);
    pixelData->putOriginalRepresentation(layout.xfer, nullptr, sequence);
    ds->insert(pixelData, true);
    if (layout.tsUid.isEmpty())
        return format.saveFile(QFile::encodeName(target).constData(), layout.xfer).good();
    // A transfer syntax DCMTK has no name for: its UID goes into the meta header as it is.
    DcmMetaInfo* meta = format.getMetaInfo();
    if (format.saveFile(QFile::encodeName(target).constData(), layout.xfer).bad())
        return false;
    meta->putAndInsertString(DCM_TransferSyntaxUID, layout.tsUid.toLatin1().constData());
    meta->findAndDeleteElement(DCM_FileMetaInformationGroupLength);
    return format.saveFile(QFile::encodeName(target).constData(), layout.xfer, EET_ExplicitLength, EGL_recalcGL,
                           EPD_noChange, 0, 0, EWM_dontUpdateMeta)
        .good();
}

