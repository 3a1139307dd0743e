#include "ndicomvolume.h"

#include "dicom/codecs_p.h"
#include "dicom/dcmvalues_p.h"
#include "dicom/pixelvalues_p.h"
#include "geometry/slicestack_p.h"
#include "platform/fileplacement_p.h"
#include "volume/volumecache_p.h"
#include "volume/volumeheadtext_p.h"
#include "ndicomimage.h"
#include "qinstance.h"
#include "qseries.h"
#include "qstudy.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcxfer.h>
#include <dcmtk/dcmimgle/dcmimage.h>
#include <dcmtk/dcmimgle/dipixel.h>

#include <QDebug>
#include <QFile>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

using namespace kestrel::internal;

QString getCachedVolumePath(const QString& key)
{
    return volumecache::registeredFile(key);
}

NDicomVolume::NDicomVolume(QObject* parent)
    : NVolume(parent)
{
}

NDicomVolume::NDicomVolume(VolumeHead* head, char* data, qint64 length, QObject* parent)
    : NVolume(parent)
{
    if (!head || !data || length < 0)
        return;
    if (!allocateBuffer(length + kVolumeHeaderBlock, kVolumeHeaderBlock))
        return;
    std::memcpy(m_data, data, size_t(length));
    m_head = *head;
    m_head.totallen = length + kVolumeHeaderBlock;
    std::memset(m_buffer, 0, kVolumeHeaderBlock);
    std::memcpy(m_buffer, &m_head, sizeof m_head);
}

NDicomVolume::~NDicomVolume()
{
    delete m_volumeSeries;
}

int NDicomVolume::viewAxis(int target) const
{
    return geometry::voxelAxisAlong(m_head.orientation, target) + 1;
}

bool NDicomVolume::planeTowards(NDicomImage& image, int index, int thickness, RenderType render, int target)
{
    int view[3];
    geometry::patientAxes(m_head.orientation, view);
    switch (viewAxis(target)) {
    case 3:
        return getDicomImagePlaneK(image, index, thickness, view, render);
    case 2:
        return getDicomImagePlaneJ(image, index, thickness, view, render);
    case 1:
        return getDicomImagePlaneI(image, index, thickness, view, render);
    default:
        // No voxel axis is closest to the wanted one: the raw k plane, maximum rule.
        return getDicomImagePlaneK(image, index, thickness, nullptr, RenderMax);
    }
}

int NDicomVolume::getAxiSliceNum()
{
    const int axis = viewAxis(2);
    return m_head.volumesize[axis == 0 ? 2 : axis - 1];
}

int NDicomVolume::getCorSliceNum()
{
    const int axis = viewAxis(1);
    return m_head.volumesize[axis == 0 ? 2 : axis - 1];
}

int NDicomVolume::getSagSliceNum()
{
    const int axis = viewAxis(0);
    return m_head.volumesize[axis == 0 ? 2 : axis - 1];
}

bool NDicomVolume::getDicomImagePlaneAxi(NDicomImage& image, int index, int thickness, RenderType render)
{
    return planeTowards(image, index, thickness, render, 2);
}

bool NDicomVolume::getDicomImagePlaneCor(NDicomImage& image, int index, int thickness, RenderType render)
{
    return planeTowards(image, index, thickness, render, 1);
}

bool NDicomVolume::getDicomImagePlaneSag(NDicomImage& image, int index, int thickness, RenderType render)
{
    return planeTowards(image, index, thickness, render, 0);
}

bool NDicomVolume::getDicomImagePlaneByIndex(NDicomImage& image, int /*index*/)
{
    // Kept as a placeholder the viewers call for sizing only; pixels come from the cutters.
    image.setSize(m_head.volumesize[0], m_head.volumesize[1]);
    image.setPixelSpace(m_head.voxelspace[0], m_head.voxelspace[1]);
    return false;
}

// --- building from series -------------------------------------------------------------------

namespace {

// The raw bytes of the uncompressed Pixel Data (decoded first when the file is compressed).
const Uint8* pixelBytes(DcmDataset* ds, qint64& length)
{
    length = 0;
    // The file was read by loadPixelFile, with every decoder registered.
    if (DcmXfer(ds->getOriginalXfer()).isEncapsulated()
        && ds->chooseRepresentation(EXS_LittleEndianExplicit, nullptr).bad())
        return nullptr;
    DcmElement* element = nullptr;
    if (ds->findAndGetElement(DCM_PixelData, element).bad() || !element)
        return nullptr;
    Uint8* bytes = nullptr;
    if (element->getUint8Array(bytes).bad() || !bytes) {
        Uint16* words = nullptr;
        if (element->getUint16Array(words).bad() || !words)
            return nullptr;
        bytes = reinterpret_cast<Uint8*>(words);
    }
    length = element->getLength();
    return bytes;
}

template <typename T> void shiftByMinimum(const T* values, qint64 count, qint64 start, quint16* out, qint64& shift)
{
    qint64 m = start;
    for (qint64 n = 0; n < count; ++n)
        if (values[n] < m)
            m = values[n];
    for (qint64 n = 0; n < count; ++n)
        out[n] = quint16(qint64(values[n]) - m);
    shift = m;
}

} // namespace

DcmFileFormat* NDicomVolume::loadFile(const QString& file)
{
    auto* format = new DcmFileFormat;
    if (kestrel::internal::loadPixelFile(*format, file).bad()) {
        delete format;
        return nullptr;
    }
    return format;
}

void NDicomVolume::sortFiles(QSeries* series)
{
    delete m_volumeSeries;
    m_volumeSeries = series ? series->getVolumeSE() : nullptr;
    if (series)
        m_head.isOrder = series->getIsOrder();
    if (!m_volumeSeries || m_volumeSeries->getInstances().isEmpty())
        return;
    const QList<QInstance*>& slices = m_volumeSeries->getInstances();
    const QInstance* first = slices.first();
    std::memcpy(m_orientation, first->getOrientation(0), 3 * sizeof(double));
    std::memcpy(m_orientation + 3, first->getOrientation(1), 3 * sizeof(double));
    const double* p0 = first->getPosition();
    const double* p1 = slices.last()->getPosition();
    geometry::Vec3 axis;
    if (geometry::stackAxis({p0[0], p0[1], p0[2]}, {p1[0], p1[1], p1[2]}, slices.size(), axis, m_spacing[2]))
        std::copy(axis.begin(), axis.end(), m_orientation + 6);
}

bool NDicomVolume::fillHead()
{
    if (!m_volumeSeries || m_volumeSeries->getInstances().isEmpty())
        return false;
    const QList<QInstance*>& slices = m_volumeSeries->getInstances();
    std::unique_ptr<DcmFileFormat> format(loadFile(slices.first()->getFilePath()));
    if (!format) {
        m_head.volumesize[2] = 0;
        m_size[2] = 0;
        return false;
    }
    DcmDataset* ds = format->getDataset();
    std::memset(m_head.magic, 0, sizeof m_head.magic);
    std::memcpy(m_head.magic, "DCVM", 4);
    if (dcmHas(ds, DCM_Rows))
        m_head.volumesize[1] = dcmInt(ds, DCM_Rows);
    if (dcmHas(ds, DCM_Columns))
        m_head.volumesize[0] = dcmInt(ds, DCM_Columns);
    m_head.volumesize[2] = slices.size();
    if (dcmHas(ds, DCM_BitsAllocated))
        m_head.BitsAllocated = dcmInt(ds, DCM_BitsAllocated);
    m_sourceBits = m_head.BitsAllocated;
    // The plane code reads 16-bit voxels: 8-bit data is widened on loading.
    if (m_head.BitsAllocated == 8)
        m_head.BitsAllocated = 16;
    const int bytes = m_head.BitsAllocated / 8;
    const qint64 x = m_head.volumesize[0], y = m_head.volumesize[1], z = m_head.volumesize[2];
    const bool usable = (m_sourceBits == 8 || m_sourceBits == 16 || m_sourceBits == 32) && x > 0 && y > 0
        && x * y * z * bytes < (qint64(1) << 31);
    if (!usable) {
        qWarning() << "NDicomVolume::fillHead: unusable pixel layout in" << slices.first()->getFilePath();
        m_head.volumesize[2] = 0;
        m_size[2] = 0;
        return false;
    }
    m_head.totallen = bytes * x * y * z + kVolumeHeaderBlock;
    m_head.SEPK = m_volumeSeries->getSeriesPK();
    std::memset(m_head.SEUID, 0, sizeof m_head.SEUID);
    std::memset(m_head.STUID, 0, sizeof m_head.STUID);
    const QByteArray seriesUid = dcmString(ds, DCM_SeriesInstanceUID).trimmed().toLatin1().left(64);
    const QByteArray studyUid = dcmString(ds, DCM_StudyInstanceUID).trimmed().toLatin1().left(64);
    std::memcpy(m_head.SEUID, seriesUid.constData(), size_t(seriesUid.size()));
    std::memcpy(m_head.STUID, studyUid.constData(), size_t(studyUid.size()));
    m_head.volumestep[0] = bytes;
    m_head.volumestep[1] = int(x * bytes);
    m_head.volumestep[2] = int(x * y * bytes);
    m_head.volumestep[3] = int(x * y * z * bytes);
    m_head.padding = 0;
    // Pixel Spacing is the distance between rows (down a column, along j), then between columns
    // (along a row, i).
    const QVector<double> spacing = dcmDoubles(ds, DCM_PixelSpacing);
    if (spacing.size() >= 2) {
        m_head.voxelspace[0] = spacing[1];
        m_head.voxelspace[1] = spacing[0];
    }
    m_head.voxelspace[2] = m_spacing[2];
    if (dcmHas(ds, DCM_SliceThickness))
        m_head.thinkness = dcmDouble(ds, DCM_SliceThickness);
    const QVector<double> position = dcmDoubles(ds, DCM_ImagePositionPatient);
    if (position.size() >= 3)
        for (int c = 0; c < 3; ++c)
            m_head.topxyz[c] = position[c];
    if (dcmHas(ds, DCM_SamplesPerPixel))
        m_head.SamplesPerPixel = dcmInt(ds, DCM_SamplesPerPixel);
    m_head.PhotometricInterpretation = photometricCode(dcmString(ds, DCM_PhotometricInterpretation),
                                                       m_head.PhotometricInterpretation);
    if (dcmHas(ds, DCM_HighBit))
        m_head.HighBit = dcmInt(ds, DCM_HighBit);
    m_head.RescaleIntercept = dcmDouble(ds, DCM_RescaleIntercept, 0.0);
    m_head.RescaleSlope = dcmDouble(ds, DCM_RescaleSlope, 1.0);
    m_head.WindowCenter = dcmDouble(ds, DCM_WindowCenter, 0.0);
    m_head.WindowWidth = dcmDouble(ds, DCM_WindowWidth, 2000.0);
    m_head.timeNum = 1;
    // The head carries the slice geometry that sortFiles found.
    std::memcpy(m_head.orientation, m_orientation, sizeof m_head.orientation);
    std::memcpy(m_size, m_head.volumesize, sizeof m_size);
    std::memcpy(m_spacing, m_head.voxelspace, sizeof m_spacing);
    std::memcpy(m_origin, m_head.topxyz, sizeof m_origin);
    return true;
}

bool NDicomVolume::prepareBuffer()
{
    if (!allocateBuffer(m_head.totallen, kVolumeHeaderBlock)) {
        m_head.volumesize[2] = 0;
        m_size[2] = 0;
        return false;
    }
    // Slices that cannot be read stay black.
    std::memset(m_buffer, 0, size_t(m_head.totallen));
    std::memcpy(m_buffer, &m_head, sizeof m_head);
    m_timeIndex = 0;
    return true;
}

bool NDicomVolume::storeSlice(DcmFileFormat& file, const QString& path, char* frame, qint64& written, qint64& shift)
{
    DcmDataset* ds = file.getDataset();
    const qint64 x = m_head.volumesize[0], y = m_head.volumesize[1];
    const qint64 pixels = x * y;
    if (dcmInt(ds, DCM_Rows) != y || dcmInt(ds, DCM_Columns) != x) {
        qWarning() << "NDicomVolume::loadSeries: slice size differs from the first file, skipped:" << path;
        return false;
    }
    if (dcmInt(ds, DCM_BitsAllocated) != m_sourceBits)
        return false;
    const qint64 sliceBytes = pixels * m_head.volumestep[0];
    if (written + sliceBytes > m_head.volumestep[3])
        return false;
    qint64 length = 0;
    const Uint8* data = pixelBytes(ds, length);
    const qint64 sourceBytes = pixels * (m_sourceBits / 8);
    if (!data || length < sourceBytes)
        return false;
    char* slot = frame + written;

    switch (m_sourceBits) {
    case 16: {
        if (dcmInt(ds, DCM_PixelRepresentation, 0) == 0) {
            const int bitsStored = dcmInt(ds, DCM_BitsStored, 16);
            unsignedStoredValues(reinterpret_cast<const quint16*>(data), pixels, bitsStored,
                                 dcmInt(ds, DCM_HighBit, bitsStored - 1), reinterpret_cast<quint16*>(slot));
            break;
        }
        // Signed data: the modality-transformed values, in the representation of the declared
        // pixel format (not of the values' range), shifted by the slice's minimum for now.
        DicomImage image(ds, ds->getCurrentXfer(), CIF_UseAbsolutePixelRange, 0, 1);
        const DiPixel* inter = image.getStatus() == EIS_Normal ? image.getInterData() : nullptr;
        if (!inter || !inter->getData() || qint64(inter->getCount()) < pixels)
            return false;
        quint16* out = reinterpret_cast<quint16*>(slot);
        switch (inter->getRepresentation()) {
        case EPR_Sint16:
            shiftByMinimum(static_cast<const Sint16*>(inter->getData()), pixels, -1, out, shift);
            break;
        case EPR_Sint32:
            shiftByMinimum(static_cast<const Sint32*>(inter->getData()), pixels, 65535, out, shift);
            break;
        case EPR_Uint8:
        case EPR_Uint16:
            std::memcpy(slot, data, size_t(sliceBytes));
            break;
        case EPR_Uint32:
            // Written over the first slice while the position still advances: volumes of such
            // files have always been laid out this way.
            std::memcpy(frame, data, size_t(sliceBytes));
            break;
        default:
            qWarning() << "ndicomvolume" << 758 << "NDicomVolume::loadSeries" << path;
            return false;
        }
        break;
    }
    case 32:
        std::memcpy(slot, data, size_t(sliceBytes));
        break;
    case 8: {
        quint16* out = reinterpret_cast<quint16*>(slot);
        const bool isSigned = dcmInt(ds, DCM_PixelRepresentation, 0) != 0;
        for (qint64 n = 0; n < pixels; ++n)
            out[n] = isSigned ? quint16(qint16(qint8(data[n]))) : quint16(data[n]);
        break;
    }
    default:
        return false;
    }
    written += sliceBytes;
    return true;
}

void NDicomVolume::readFrame(char* frame, int progressBase, int progressSpan, QVector<QPair<char*, qint64>>& shifted)
{
    if (!m_volumeSeries)
        return;
    const QList<QInstance*>& slices = m_volumeSeries->getInstances();
    qint64 written = 0;
    for (int k = 0; k < slices.size(); ++k) {
        const QString path = slices[k]->getFilePath();
        std::unique_ptr<DcmFileFormat> file(loadFile(path));
        // A file that cannot be read is skipped; the following slices move up one place.
        const qint64 before = written;
        qint64 shift = std::numeric_limits<qint64>::max();
        if (file && storeSlice(*file, path, frame, written, shift) && shift != std::numeric_limits<qint64>::max())
            shifted.append({frame + before, shift});
        emit processBar(progressBase + progressSpan * (k + 1) / slices.size(), 100);
    }
}

void NDicomVolume::shiftToCommonMinimum(const QVector<QPair<char*, qint64>>& shifted)
{
    if (shifted.isEmpty())
        return;
    qint64 common = shifted.first().second;
    for (const auto& slice : shifted)
        common = std::min(common, slice.second);
    // One intercept for the volume: a slice shifted by its own, larger, minimum moves up by the
    // difference, so that every voxel's real value is voxel + intercept.
    const qint64 pixels = qint64(m_head.volumesize[0]) * m_head.volumesize[1];
    for (const auto& slice : shifted) {
        const qint64 up = slice.second - common;
        quint16* voxels = reinterpret_cast<quint16*>(slice.first);
        for (qint64 n = 0; up > 0 && n < pixels; ++n)
            voxels[n] = quint16(std::min<qint64>(voxels[n] + up, 65535));
    }
    m_head.RescaleIntercept = double(common);
    m_head.RescaleSlope = 1;
}

void NDicomVolume::loadSeries(QSeries* series)
{
    if (!series || series->getInstances().size() < 2)
        return;
    sortFiles(series);
    if (!m_volumeSeries || m_volumeSeries->getInstances().isEmpty()) {
        m_head.volumesize[2] = 0;
        m_size[2] = 0;
        return;
    }
    if (!fillHead() || !prepareBuffer())
        return;
    QVector<QPair<char*, qint64>> shifted;
    readFrame(m_data, 0, 100, shifted);
    shiftToCommonMinimum(shifted);
    std::memcpy(m_buffer, &m_head, sizeof m_head);
    getLayers();
    initVelIVolume();
    emit seUID(series->getSeriesUID());
}

void NDicomVolume::loadSeries(QList<QSeries*> series)
{
    series.removeAll(nullptr);
    if (series.isEmpty())
        return;
    sortFiles(series.first());
    if (!m_volumeSeries || m_volumeSeries->getInstances().isEmpty() || !fillHead()) {
        qWarning() << "NDicomVolume::loadSeries: no volume in the first series";
        m_head.volumesize[2] = 0;
        m_size[2] = 0;
        return;
    }
    m_head.timeNum = series.size();
    m_head.totallen = qint64(m_head.volumestep[3]) * m_head.timeNum + kVolumeHeaderBlock;
    if (!prepareBuffer())
        return;
    // The geometry is the first series'; later series only contribute their pixels.
    double orientation[9], spacing[3];
    std::memcpy(orientation, m_orientation, sizeof orientation);
    std::memcpy(spacing, m_spacing, sizeof spacing);
    const int isOrder = m_head.isOrder;
    const int frames = series.size();
    QVector<QPair<char*, qint64>> shifted;
    for (int t = 0; t < frames; ++t) {
        if (t > 0)
            sortFiles(series[t]);
        if (!m_volumeSeries) {
            qWarning() << "NDicomVolume::loadSeries: series" << t << "has no volume";
            continue;
        }
        readFrame(m_buffer + kVolumeHeaderBlock + qint64(t) * m_head.volumestep[3], 100 * t / frames, 100 / frames,
                  shifted);
    }
    shiftToCommonMinimum(shifted);
    std::memcpy(m_orientation, orientation, sizeof orientation);
    std::memcpy(m_spacing, spacing, sizeof spacing);
    m_head.isOrder = isOrder;
    std::memcpy(m_buffer, &m_head, sizeof m_head);
    getLayers();
    initVelIVolume();
    emit seUID(series.first()->getSeriesUID());
}

void NDicomVolume::clone(NDicomVolume* src)
{
    if (!src || src == this)
        return;
    m_head = src->m_head;
    releaseBuffer();
    if (src->bufferStart() && allocateBuffer(src->bufferLength(), src->headerOffset())) {
        std::memcpy(m_buffer, src->bufferStart(), size_t(src->bufferLength()));
        m_timeIndex = 0;
        setTimeIndex(src->getTimeIndex());
    }
    std::memcpy(m_orientation, src->m_orientation, sizeof m_orientation);
    std::memcpy(m_size, src->m_size, sizeof m_size);
    std::memcpy(m_spacing, src->m_spacing, sizeof m_spacing);
    std::memcpy(m_origin, src->m_origin, sizeof m_origin);
    m_strHead = src->m_strHead;
    m_curVolumeDataPath = src->m_curVolumeDataPath;
    getLayers();
}

// --- the cache ------------------------------------------------------------------------------

void NDicomVolume::lookupAndLoad(const QString& key, const std::function<void()>& build,
                                 const std::function<bool(const QString&)>& accepts)
{
    QString head, checksum;
    m_curVolumeDataPath = volumecache::registeredFile(key, &head, &checksum);
    if (!m_curVolumeDataPath.isEmpty()) {
        // A volume cached by an earlier build has the geometry of its rules: built again.
        if (isCurrentVolumeHeadText(head) && (!accepts || accepts(head)) && loadVolume(m_curVolumeDataPath) >= 0) {
            // A file damaged after it was written is rebuilt, never shown.
            const QString fault = volumecache::cachedHeadFault(m_head, headerOffset());
            const char* voxels = m_buffer ? m_buffer + headerOffset() : nullptr;
            if (fault.isEmpty() &&
                (checksum.isEmpty() || checksum == volumecache::voxelChecksum(voxels, m_head.totallen - headerOffset()))) {
                emit registrationInfo(1);
                return;
            }
            qWarning() << "NDicomVolume: cached volume is damaged:" << (fault.isEmpty() ? QStringLiteral("its voxels changed") : fault);
        }
        qWarning() << "NDicomVolume: cached volume is of an earlier build or other frames, or does not load; rebuilding:"
                   << m_curVolumeDataPath;
        volumecache::forget(key);
    }
    build();
    emit registrationInfo(0);
}

bool NDicomVolume::getVolumeFromSeriesUID(QSeries* series)
{
    if (!series)
        return true;
    lookupAndLoad(series->getSeriesBase(), [&] {
        loadSeries(series);
        saveVolumeToDefaultPath();
    });
    return true;
}

bool NDicomVolume::getVolumeFromStudyUID(QList<QSeries*> series)
{
    if (series.isEmpty() || !series.first())
        return true;
    QStudy* study = series.first()->getStudy();
    const QString key = study ? study->getStudyUID() : QString();
    lookupAndLoad(key, [&] {
        loadSeries(series);
        saveVolumeToDefaultPath(series);
    });
    return true;
}

int NDicomVolume::writeCache(const QString& key, const QString& headText)
{
    m_curVolumeDataPath.clear();
    if (key.isEmpty() || !isValid())
        return 0;
    const QString file = volumecache::fileFor(volumecache::folder(), key);
    // Written under a name of its own and then renamed over the cache file in one step: a process
    // reading the cache at the same time sees the old file or the new one, never half of one.
    const QString part = kestrel::internal::partName(file);
    if (!saveAs(part) || !QFile::exists(part) ||
        std::rename(QFile::encodeName(part).constData(), QFile::encodeName(file).constData()) != 0) {
        QFile::remove(part);
        qWarning() << "NDicomVolume::saveVolumeToDefaultPath: cannot write" << file;
        return 0;
    }
    m_curVolumeDataPath = file;
    const Status registered =
        volumecache::registerFile(key, file, headText.isEmpty() ? volumeHeadtoString(m_head) : headText,
                                  volumecache::voxelChecksum(m_buffer + headerOffset(), m_head.totallen - headerOffset()));
    if (!registered)
        qWarning() << "NDicomVolume::saveVolumeToDefaultPath:" << registered.text();
    // The answer has always been that of a query positioned on a row, which an INSERT never
    // leaves: 0 after a good write too. Kept because the callers have always ignored it and the
    // boolean form relies on the same answer.
    return 0;
}

int NDicomVolume::saveVolumeToDefaultPath()
{
    if (!m_volumeSeries)
        return 0;
    // Every call writes the volume again (the cache is refreshed, never trusted to be current).
    return writeCache(m_volumeSeries->getSeriesBase());
}

bool NDicomVolume::saveVolumeToDefaultPath(QList<QSeries*> series)
{
    if (series.isEmpty() || !series.first())
        return false;
    QStudy* study = series.first()->getStudy();
    return writeCache(study ? study->getStudyUID() : QString()) == 1;
}

// --- axis queries -----------------------------------------------------------------------------

int NDicomVolume::getSliceIndexByPosition(double x, double y, double z)
{
    const int* n = m_head.volumesize;
    if (n[2] <= 0)
        return 0;
    const float* f = getPointFIJK(x, y, z);
    if (f[0] < -0.5f || f[0] > n[0] - 0.5f || f[1] < -0.5f || f[1] > n[1] - 0.5f)
        return 0;
    int index = int(std::lround(f[2]));
    index = std::min(std::max(index, 0), n[2] - 1);
    if (m_head.isOrder == -1)
        index = std::min(n[2] - index, n[2] - 1);
    return index;
}

void NDicomVolume::getStandardDicomVolume()
{
    const double* k = m_head.orientation + 6;
    const int axis = getmainz(k[0], k[1], k[2]);
    if (axis == 0 || k[axis - 1] > 0 || framesAvailable() < 1)
        return;
    m_head.isOrder = -m_head.isOrder;
    // Start from the corner of the last slice and walk the slices the other way.
    getCubeEightTopPosition();
    std::memcpy(m_head.topxyz, getTopPointFirstLeftandUp(), sizeof m_head.topxyz);
    for (int c = 0; c < 3; ++c)
        m_head.orientation[6 + c] = -m_head.orientation[6 + c];
    const int z = m_head.volumesize[2];
    const qint64 sliceBytes = m_head.volumestep[2];
    std::vector<char> tmp(static_cast<size_t>(sliceBytes));
    for (int t = 0; t < framesAvailable(); ++t) {
        char* frame = m_buffer + headerOffset() + qint64(t) * m_head.volumestep[3];
        for (int a = 0, b = z - 1; a < b; ++a, --b) {
            std::memcpy(tmp.data(), frame + a * sliceBytes, size_t(sliceBytes));
            std::memmove(frame + a * sliceBytes, frame + b * sliceBytes, size_t(sliceBytes));
            std::memcpy(frame + b * sliceBytes, tmp.data(), size_t(sliceBytes));
        }
    }
    std::memcpy(m_buffer, &m_head, sizeof m_head);
    updateCal();
}
