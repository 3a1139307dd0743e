// Volumes of a series' frames: each frame read slice by slice as loadSeries reads a series, then
// one rescale found that keeps every frame's real values (or each frame its own), and the cache.
#include "volume/framevolume_p.h"

#include "ndicomvolume.h"

#include "dicom/dcmvalues_p.h"
#include "dicom/pixelvalues_p.h"
#include "geometry/slicestack_p.h"
#include "volume/volumecache_p.h"
#include "volume/volumeheadtext_p.h"
#include "qinstance.h"
#include "qseries.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>

namespace kestrel::internal {

namespace {

// Two doubles that a whole number stands for when they are this close to it (relative).
constexpr double kWhole = 1e-9;

bool whole(double value, qint64& out)
{
    const double r = std::round(value);
    if (!(std::fabs(value - r) <= kWhole * std::max(1.0, std::fabs(value))) || std::fabs(r) > 1e15)
        return false;
    out = qint64(r);
    return true;
}

void note(QStringList* problems, const QString& text)
{
    if (problems)
        *problems << text;
}

QString frameName(const SeriesFrame& frame)
{
    return QString("frame %1 (%2)").arg(frame.index).arg(frame.label);
}

QString cacheKey(const SeriesFrames& frames, int group)
{
    return volumecache::framesKey(frames.seriesBase, group);
}

} // namespace

// Each incomplete frame of GROUP, with the slices it lacks.
void noteIncomplete(const SeriesFrames& frames, int group, QStringList* problems)
{
    if (group < 0 || group >= frames.groups.size())
        return;
    for (const SeriesFrame& frame : frames.groups[group].frames) {
        if (frame.isComplete())
            continue;
        QStringList slices;
        for (int k : frame.missing)
            slices << QString::number(k);
        note(problems, QString("%1 has no image at slice %2 of %3: left out")
                           .arg(frameName(frame), slices.join(','))
                           .arg(frame.files.size()));
    }
}

namespace {

QString headItem(const QString& text, const QString& key)
{
    for (const QString& item : text.split(';'))
        if (item.startsWith(key + ':'))
            return item.mid(key.size() + 1);
    return QString();
}

} // namespace

bool sharedRescale(const std::vector<SliceRescale>& slices, qint64 largest, SharedRescale& out)
{
    out = SharedRescale();
    if (slices.empty())
        return false;
    const bool alike = std::all_of(slices.begin(), slices.end(), [&](const SliceRescale& s) {
        return s.slope == slices.front().slope && s.intercept == slices.front().intercept;
    });
    double slope = slices.front().slope, intercept = slices.front().intercept;
    for (const SliceRescale& s : slices) {
        if (!(s.slope > 0) || !std::isfinite(s.slope) || !std::isfinite(s.intercept))
            return false;
        slope = std::min(slope, s.slope);
        intercept = std::min(intercept, s.intercept);
    }
    if (alike) {
        slope = slices.front().slope;
        intercept = slices.front().intercept;
    }
    if (!alike && largest <= 0)
        return false;
    for (const SliceRescale& s : slices) {
        qint64 factor = 1, offset = 0;
        if (!alike && (!whole(s.slope / slope, factor) || !whole((s.intercept - intercept) / slope, offset)))
            return false;
        // Intercepts are the smallest real values a slice's voxels can have, so offsets are >= 0.
        if (factor < 1 || offset < 0 || s.lowest < 0 || s.highest > (largest - offset) / factor)
            return false;
        out.factor.push_back(factor);
        out.offset.push_back(offset);
    }
    out.slope = slope;
    out.intercept = intercept;
    return true;
}

QString frameVolumeHeadText(const VolumeHead& head, const QList<int>& frames,
                            const std::vector<std::pair<double, double>>& rescales)
{
    QStringList indices;
    for (int f : frames)
        indices << QString::number(f);
    QString text = volumeHeadText(head) + "frames:" + indices.join(',') + ';';
    if (!rescales.empty()) {
        QStringList values;
        for (const auto& r : rescales)
            values << QString::number(r.first, 'g', 17) << QString::number(r.second, 'g', 17);
        text += "rescale:" + values.join(',') + ';';
    }
    return text;
}

bool frameRescale(const QString& text, const VolumeHead& head, int frame, double& slope, double& intercept)
{
    if (frame < 0 || frame >= std::max(1, int(head.timeNum)))
        return false;
    const QStringList values = headItem(text, "rescale").split(',', Qt::SkipEmptyParts);
    if (values.size() >= 2 * (frame + 1)) {
        slope = values[2 * frame].toDouble();
        intercept = values[2 * frame + 1].toDouble();
    } else {
        slope = head.RescaleSlope;
        intercept = head.RescaleIntercept;
    }
    return true;
}

QList<int> headTextFrames(const QString& text)
{
    QList<int> frames;
    const QString item = headItem(text, "frames");
    for (const QString& f : item.split(',', Qt::SkipEmptyParts))
        frames << f.toInt();
    return frames;
}

// --- building ---------------------------------------------------------------------------------

void FrameVolumeBuilder::setVolumeSeries(NDicomVolume& v, const SeriesFrames& frames, int group, int frame)
{
    const SeriesFrameGroup& g = frames.groups[group];
    auto* series = new QSeries();
    series->setSeriesPK(frames.seriesPk);
    series->setSeriesUID(frames.seriesUid);
    series->setSeriesBase(cacheKey(frames, group));
    const QString orientation = QString("%1\\%2\\%3\\%4\\%5\\%6")
                                    .arg(g.orientation[0], 0, 'g', 17).arg(g.orientation[1], 0, 'g', 17)
                                    .arg(g.orientation[2], 0, 'g', 17).arg(g.orientation[3], 0, 'g', 17)
                                    .arg(g.orientation[4], 0, 'g', 17).arg(g.orientation[5], 0, 'g', 17);
    const QStringList& files = g.frames[frame].files;
    for (int k = 0; k < files.size(); ++k) {
        auto* instance = new QInstance(series);
        instance->setFilePath(files[k]);
        instance->setPosition(QString("%1\\%2\\%3").arg(g.positions[3 * k], 0, 'g', 17)
                                  .arg(g.positions[3 * k + 1], 0, 'g', 17).arg(g.positions[3 * k + 2], 0, 'g', 17));
        instance->setOrientation(orientation);
        instance->setPixelSpacing(QString("%1\\%2").arg(g.pixelSpacing[0], 0, 'g', 17).arg(g.pixelSpacing[1], 0, 'g', 17));
        instance->setImageSize(g.rows, g.columns);
        series->addInstance(instance);
    }
    delete v.m_volumeSeries;
    v.m_volumeSeries = series;
    // The grid: rows and columns of the images, slices from the first position to the last.
    std::copy(g.orientation, g.orientation + 6, v.m_orientation);
    const int n = g.sliceCount();
    geometry::Vec3 axis;
    double step = 0;
    if (geometry::stackAxis({g.positions[0], g.positions[1], g.positions[2]},
                            {g.positions[3 * n - 3], g.positions[3 * n - 2], g.positions[3 * n - 1]}, n, axis, step)) {
        std::copy(axis.begin(), axis.end(), v.m_orientation + 6);
        v.m_spacing[2] = step;
    }
    v.m_head.isOrder = g.isOrder;
}

bool FrameVolumeBuilder::readFrame(NDicomVolume& v, const QStringList& files, char* slot,
                                   std::vector<SliceRescale>& slices, QString& why)
{
    const qint64 pixels = qint64(v.m_head.volumesize[0]) * v.m_head.volumesize[1];
    qint64 written = 0;
    for (const QString& path : files) {
        std::unique_ptr<DcmFileFormat> file(NDicomVolume::loadFile(path));
        const qint64 before = written;
        qint64 shift = std::numeric_limits<qint64>::max();
        if (!file || !v.storeSlice(*file, path, slot, written, shift) || written == before) {
            why = path + (file ? ": its pixels cannot be read" : ": cannot be read");
            return false;
        }
        DcmDataset* ds = file->getDataset();
        SliceRescale r;
        const bool isSigned = dcmInt(ds, DCM_PixelRepresentation, 0) != 0;
        if (shift != std::numeric_limits<qint64>::max()) {
            r.intercept = double(shift); // signed: real values less their minimum, slope 1
        } else {
            r.slope = dcmDouble(ds, DCM_RescaleSlope, 1.0);
            r.intercept = dcmDouble(ds, DCM_RescaleIntercept, 0.0);
        }
        if (v.m_head.volumestep[0] == 2) {
            quint16* voxels = reinterpret_cast<quint16*>(slot + before);
            if (v.m_sourceBits == 8 && isSigned) {
                // Widened from signed bytes: moved up by 128 so that every voxel is >= 0.
                for (qint64 n = 0; n < pixels; ++n)
                    voxels[n] = quint16(qint16(voxels[n]) + 128);
                r.intercept -= 128 * r.slope;
            } else if (v.m_sourceBits == 16 && isSigned && shift == std::numeric_limits<qint64>::max()) {
                // Signed words of non-negative values, copied as they are: only the stored bits count.
                const int stored = dcmInt(ds, DCM_BitsStored, 16);
                unsignedStoredValues(voxels, pixels, stored, dcmInt(ds, DCM_HighBit, stored - 1), voxels);
            }
            const auto range = std::minmax_element(voxels, voxels + pixels);
            r.lowest = *range.first;
            r.highest = *range.second;
        }
        slices.push_back(r);
    }
    return true;
}

std::vector<std::pair<double, double>> FrameVolumeBuilder::rescaleFrames(NDicomVolume& v, QList<int>& frames,
                                                                          std::vector<std::vector<SliceRescale>>& slices,
                                                                          QStringList* problems)
{
    const qint64 frameBytes = v.m_head.volumestep[3], sliceBytes = v.m_head.volumestep[2];
    const qint64 pixels = qint64(v.m_head.volumesize[0]) * v.m_head.volumesize[1];
    // 16-bit voxels may be moved and scaled; wider ones only share a rescale they all have.
    const qint64 largest = v.m_head.volumestep[0] == 2 ? 65535 : 0;
    auto apply = [&](char* frame, const std::vector<SliceRescale>& frameSlices, const SharedRescale& shared, size_t first) {
        for (size_t s = 0; s < frameSlices.size(); ++s) {
            const qint64 factor = shared.factor[first + s], offset = shared.offset[first + s];
            if (factor == 1 && offset == 0)
                continue;
            quint16* voxels = reinterpret_cast<quint16*>(frame + qint64(s) * sliceBytes);
            for (qint64 n = 0; n < pixels; ++n)
                voxels[n] = quint16(voxels[n] * factor + offset);
        }
    };
    std::vector<SliceRescale> all;
    for (const auto& frame : slices)
        all.insert(all.end(), frame.begin(), frame.end());
    SharedRescale shared;
    if (sharedRescale(all, largest, shared)) {
        for (size_t f = 0, first = 0; f < slices.size(); first += slices[f].size(), ++f)
            apply(v.m_data + qint64(f) * frameBytes, slices[f], shared, first);
        v.m_head.RescaleSlope = shared.slope;
        v.m_head.RescaleIntercept = shared.intercept;
        return {};
    }
    // No rescale keeps every frame exact: each frame its own, recorded in the head string.
    std::vector<std::pair<double, double>> rescales;
    QList<int> kept;
    for (int f = 0; f < frames.size(); ++f) {
        char* frame = v.m_data + qint64(f) * frameBytes;
        if (!sharedRescale(slices[size_t(f)], largest, shared)) {
            note(problems, QString("frame %1: its slices' rescales cannot share one voxel scale: left out").arg(frames[f]));
            continue;
        }
        apply(frame, slices[size_t(f)], shared, 0);
        char* target = v.m_data + qint64(kept.size()) * frameBytes;
        if (target != frame)
            std::memmove(target, frame, size_t(frameBytes));
        kept << frames[f];
        rescales.emplace_back(shared.slope, shared.intercept);
    }
    frames = kept;
    if (!rescales.empty()) {
        v.m_head.RescaleSlope = rescales.front().first;
        v.m_head.RescaleIntercept = rescales.front().second;
    }
    return rescales;
}

bool FrameVolumeBuilder::build(NDicomVolume& v, const SeriesFrames& frames, int group, QStringList* problems)
{
    auto fail = [&](const QString& why) {
        note(problems, why);
        v.m_head.volumesize[2] = 0;
        v.m_size[2] = 0;
        return false;
    };
    if (group < 0 || group >= frames.groups.size())
        return fail(QString("the series has no group %1 of frames").arg(group));
    const SeriesFrameGroup& g = frames.groups[group];
    QList<int> wanted = g.completeFrames();
    if (wanted.isEmpty())
        return fail("no frame has an image at every slice");
    setVolumeSeries(v, frames, group, wanted.front());
    if (!v.fillHead())
        return fail("the first image of " + frameName(g.frames[wanted.front()]) + " cannot be read");
    const qint64 frameBytes = v.m_head.volumestep[3];
    v.m_head.timeNum = wanted.size();
    v.m_head.totallen = frameBytes * wanted.size() + kVolumeHeaderBlock;
    if (!v.prepareBuffer())
        return fail("no memory for the volume");

    QList<int> built;
    std::vector<std::vector<SliceRescale>> slices;
    for (int i = 0; i < wanted.size(); ++i) {
        const SeriesFrame& frame = g.frames[wanted[i]];
        char* slot = v.m_data + qint64(built.size()) * frameBytes;
        std::vector<SliceRescale> frameSlices;
        QString why;
        if (readFrame(v, frame.files, slot, frameSlices, why)) {
            built << frame.index;
            slices.push_back(frameSlices);
        } else {
            note(problems, frameName(frame) + ": " + why + ": left out");
            std::memset(slot, 0, size_t(frameBytes));
        }
        emit v.processBar(100 * (i + 1) / wanted.size(), 100);
    }
    if (built.isEmpty())
        return fail("no frame could be read");
    const std::vector<std::pair<double, double>> rescales = rescaleFrames(v, built, slices, problems);
    if (built.isEmpty())
        return fail("no frame could be kept exact");
    if (built.front() != wanted.front())
        setVolumeSeries(v, frames, group, built.front());
    v.m_head.timeNum = built.size();
    v.m_head.totallen = frameBytes * built.size() + kVolumeHeaderBlock;
    std::memcpy(v.m_buffer, &v.m_head, sizeof v.m_head);
    v.m_timeIndex = 0;
    v.getLayers();
    v.initVelIVolume();
    v.m_strHead = frameVolumeHeadText(v.m_head, built, rescales);
    emit v.seUID(frames.seriesUid);
    return true;
}

bool FrameVolumeBuilder::buildThroughCache(NDicomVolume& v, const SeriesFrames& frames, int group,
                                           QStringList* problems)
{
    if (group < 0 || group >= frames.groups.size() || frames.seriesBase.isEmpty())
        return build(v, frames, group, problems);
    const QString key = cacheKey(frames, group);
    const QList<int> complete = frames.groups[group].completeFrames();
    QString cachedHead;
    bool built = false, ok = false;
    v.lookupAndLoad(
        key,
        [&] {
            built = true;
            ok = build(v, frames, group, problems);
            if (!ok)
                return;
            const QString text = v.m_strHead;
            v.writeCache(key, text);
            v.m_strHead = text;
        },
        [&](const QString& head) {
            cachedHead = head;
            return headTextFrames(head) == complete;
        });
    if (built)
        return ok;
    const int isOrder = v.m_head.isOrder;
    setVolumeSeries(v, frames, group, complete.front());
    v.updateCal(); // the cached volume's geometry, not the one just worked out
    v.m_head.isOrder = isOrder;
    v.m_strHead = cachedHead;
    return true;
}

const char* FrameVolumeBuilder::frameData(NDicomVolume& v, int t)
{
    if (t < 0 || t >= v.framesAvailable())
        return nullptr;
    return v.m_buffer + v.headerOffset() + qint64(t) * v.m_head.volumestep[3];
}

} // namespace kestrel::internal

using kestrel::internal::FrameVolumeBuilder;

bool loadSeriesFrames(NDicomVolume& volume, const SeriesFrames& frames, int group, QStringList* problems)
{
    kestrel::internal::noteIncomplete(frames, group, problems);
    return FrameVolumeBuilder::build(volume, frames, group, problems);
}

bool getVolumeFromSeriesFrames(NDicomVolume& volume, const SeriesFrames& frames, int group, QStringList* problems)
{
    kestrel::internal::noteIncomplete(frames, group, problems);
    return FrameVolumeBuilder::buildThroughCache(volume, frames, group, problems);
}

QList<int> getVolumeFrames(NVolume& volume)
{
    return kestrel::internal::headTextFrames(volume.getStrVolumeHead());
}

bool getFrameRescale(NVolume& volume, int frame, double& slope, double& intercept)
{
    return kestrel::internal::frameRescale(volume.getStrVolumeHead(), *volume.getHead(), frame, slope, intercept);
}
