// The frames of a series: which images at one slice position are different acquisitions, read
// from the files' headers; their grids and slice order come from the slice stack.
#include "ndicomvolume.h"

#include "dicom/dcmvalues_p.h"
#include "dicom/filestream_p.h"
#include "geometry/slicestack_p.h"
#include "volume/seriesframes_p.h"
#include "qinstance.h"
#include "qseries.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcsequen.h>

#include <QFile>

#include <algorithm>
#include <cmath>

using namespace kestrel::internal;

namespace kestrel::internal::frames {

namespace {

QString number(double value)
{
    return QString::number(value, 'g', 10);
}

// The attribute of DS, or of the first item of SEQUENCE (and of its NESTED sequence) when DS has none.
DcmItem* holderOf(DcmItem* ds, const DcmTagKey& tag, const DcmTagKey& sequence, const DcmTagKey& nested = DcmTagKey())
{
    if (dcmHas(ds, tag))
        return ds;
    DcmItem* item = nullptr;
    if (ds->findAndGetSequenceItem(sequence, item, 0).bad() || !item)
        return nullptr;
    if (dcmHas(item, tag))
        return item;
    DcmItem* inner = nullptr;
    if (nested != DcmTagKey() && item->findAndGetSequenceItem(nested, inner, 0).good() && inner && dcmHas(inner, tag))
        return inner;
    return nullptr;
}

// "magnitude", "phase", "real" or "imaginary" from the values of ImageType after the second;
// those values themselves when none of them says.
QString imageKind(const QString& imageType)
{
    const QStringList values = imageType.toUpper().split('\\');
    static const struct {
        const char* kind;
        QStringList words;
    } kinds[] = {{"magnitude", {"M", "MAG", "MAGNITUDE"}},
                 {"phase", {"P", "PHASE", "PHASE MAP"}},
                 {"real", {"R", "REAL"}},
                 {"imaginary", {"I", "IMAGINARY"}}};
    for (int v = 2; v < values.size(); ++v)
        for (const auto& kind : kinds)
            if (kind.words.contains(values[v].trimmed()))
                return kind.kind;
    const QString rest = values.mid(2).join('\\').trimmed();
    return "type " + (rest.isEmpty() ? imageType.trimmed() : rest);
}

// Seconds since midnight of a DICOM time (HHMMSS.FFFFFF, or with colons).
double seconds(QString time)
{
    time.remove(':');
    const double hh = time.mid(0, 2).toDouble(), mm = time.mid(2, 2).toDouble(), ss = time.mid(4).toDouble();
    return hh * 3600 + mm * 60 + ss;
}

} // namespace

bool readImageHeader(const QString& file, ImageHeader& out)
{
    out.file = file;
    DcmFileFormat format;
    const QByteArray name = QFile::encodeName(file);
    if (file.isEmpty() || loadDicomFile(format, name, 4096).bad()) { // pixels left unread
        out.problem = "cannot be read";
        return false;
    }
    DcmDataset* ds = format.getDataset();
    const QVector<double> position = dcmDoubles(ds, DCM_ImagePositionPatient);
    const QVector<double> orientation = dcmDoubles(ds, DCM_ImageOrientationPatient);
    const QVector<double> spacing = dcmDoubles(ds, DCM_PixelSpacing);
    geometry::StackImage& g = out.geometry;
    g.oriented = position.size() >= 3 && orientation.size() >= 6;
    for (int a = 0; g.oriented && a < 3; ++a) {
        g.position[size_t(a)] = position[a];
        g.row[size_t(a)] = orientation[a];
        g.column[size_t(a)] = orientation[3 + a];
    }
    if (g.oriented && !(geometry::length(geometry::cross(g.row, g.column)) > 0.5))
        g.oriented = false;
    g.instanceNumber = dcmInt(ds, DCM_InstanceNumber);
    g.rows = dcmInt(ds, DCM_Rows);
    g.columns = dcmInt(ds, DCM_Columns);
    g.pixelSpacing = {spacing.value(0), spacing.value(1, spacing.value(0))};
    out.samplesPerPixel = dcmInt(ds, DCM_SamplesPerPixel, 1);

    Trait* t = out.traits;
    const QString imageType = dcmStringAll(ds, DCM_ImageType).trimmed();
    t[ImageKind] = {imageType.toUpper(), {}, imageType.isEmpty() ? QString() : imageKind(imageType)};
    const QString echo = dcmString(ds, DCM_EchoNumbers).trimmed(), te = dcmString(ds, DCM_EchoTime).trimmed();
    QStringList echoLabel;
    if (!echo.isEmpty())
        echoLabel << "echo " + echo;
    if (!te.isEmpty())
        echoLabel << "TE " + number(te.toDouble()) + " ms";
    t[Echo] = {echo + "/" + te, {echo.toDouble(), te.toDouble()}, echoLabel.join(' ')};
    if (DcmItem* b = holderOf(ds, DCM_DiffusionBValue, DCM_MRDiffusionSequence)) {
        const double value = dcmDouble(b, DCM_DiffusionBValue);
        QString direction;
        if (DcmItem* d = holderOf(ds, DCM_DiffusionGradientOrientation, DCM_MRDiffusionSequence,
                                  DCM_DiffusionGradientDirectionSequence))
            for (unsigned long c = 0; c < 3; ++c)
                direction += QString::number(std::round(dcmDouble(d, DCM_DiffusionGradientOrientation, 0, c) * 1e4) / 1e4 + 0.0) + ' ';
        // The direction's number is given when the groups are known (direction ranks within a b-value).
        t[Diffusion] = {number(value) + "|" + direction.trimmed(), {value}, value == 0 ? "b 0" : "b " + number(value)};
    }
    auto numbered = [&](Trait& trait, const DcmTagKey& tag, const QString& label, const QString& unit) {
        const QString text = dcmString(ds, tag).trimmed();
        if (!text.isEmpty())
            trait = {text, {text.toDouble()}, label + " " + number(text.toDouble()) + unit};
    };
    numbered(t[TemporalPosition], DCM_TemporalPositionIdentifier, "time", "");
    numbered(t[AcquisitionNumber], DCM_AcquisitionNumber, "acquisition", "");
    numbered(t[TriggerTime], DCM_TriggerTime, "trigger", " ms");
    const QString acquired = dcmString(ds, DCM_AcquisitionTime).trimmed();
    if (!acquired.isEmpty())
        t[AcquisitionTime] = {acquired, {seconds(acquired)},
                              "acquired " + acquired.left(2) + ":" + acquired.mid(2, 2) + ":" + acquired.mid(4)};
    return true;
}

namespace {

// Splits ACQUISITION by TRAIT when that separates images at one position: at least two values, no more
// values than images at the position that has most, and every part keeps at least two positions
// (so a value that changes from slice to slice, as acquisition times often do, splits nothing).
std::vector<Acquisition> splitBy(const std::vector<ImageHeader>& headers, const Acquisition& acquisition, int trait)
{
    std::vector<Acquisition> parts;
    for (int image : acquisition.images) {
        const Trait& value = headers[size_t(image)].traits[trait];
        auto part = std::find_if(parts.begin(), parts.end(), [&](const Acquisition& p) {
            return headers[size_t(p.images.front())].traits[trait].key == value.key;
        });
        if (part == parts.end())
            part = parts.insert(parts.end(), Acquisition{{}, acquisition.label});
        part->images.push_back(image);
    }
    if (parts.size() < 2)
        return {};
    auto stackOf = [&](const std::vector<int>& images) {
        std::vector<geometry::StackImage> stack;
        for (int image : images)
            stack.push_back(headers[size_t(image)].geometry);
        return stack;
    };
    int positions = 0;
    const int most = geometry::mostAtOnePosition(stackOf(acquisition.images), &positions);
    if (int(parts.size()) > most)
        return {};
    for (const Acquisition& part : parts) {
        int partPositions = 0;
        geometry::mostAtOnePosition(stackOf(part.images), &partPositions);
        if (partPositions < std::min(2, positions))
            return {};
    }
    // In the order of the values; on equal order (image types) in the order met.
    std::stable_sort(parts.begin(), parts.end(), [&](const Acquisition& a, const Acquisition& b) {
        return headers[size_t(a.images.front())].traits[trait].order < headers[size_t(b.images.front())].traits[trait].order;
    });
    // Diffusion directions are numbered within their b-value, in that order.
    QString previousB;
    int direction = 0;
    for (Acquisition& part : parts) {
        const Trait& value = headers[size_t(part.images.front())].traits[trait];
        QString label = value.label;
        if (trait == Diffusion && value.order.front() != 0) {
            const QString b = value.key.section('|', 0, 0);
            direction = b == previousB ? direction + 1 : 1;
            previousB = b;
            label += QString(" dir %1").arg(direction);
        }
        if (!label.isEmpty())
            part.label << label;
    }
    return parts;
}

} // namespace

std::vector<Acquisition> acquisitions(const std::vector<ImageHeader>& headers, const std::vector<int>& images)
{
    std::vector<Acquisition> result{{images, {}}};
    for (int trait = 0; trait < TraitCount; ++trait) {
        std::vector<Acquisition> next;
        for (const Acquisition& acquisition : result) {
            std::vector<Acquisition> parts = splitBy(headers, acquisition, trait);
            if (parts.empty())
                next.push_back(acquisition);
            else
                next.insert(next.end(), parts.begin(), parts.end());
        }
        result = std::move(next);
    }
    return result;
}

} // namespace kestrel::internal::frames

using namespace kestrel::internal::frames;

namespace {

QString frameLabel(const Acquisition& acquisition, const geometry::StackFrameSeries& frame, bool repeated, int frameCount)
{
    QStringList label = acquisition.label;
    if (repeated) {
        int first = 0, last = 0;
        for (size_t k = 0; k < frame.keys.size(); ++k) {
            if (frame.keys[k] == geometry::kNoImage)
                continue;
            const int n = frame.instanceNumbers[k];
            first = first == 0 ? n : std::min(first, n);
            last = std::max(last, n);
        }
        label << QString("repeat %1 (instances %2-%3)").arg(frame.repeat + 1).arg(first).arg(last);
    }
    if (label.isEmpty())
        return frameCount == 1 ? QStringLiteral("all images") : QString("frame %1").arg(frame.repeat + 1);
    return label.join(", ");
}

// The frames of the images of one grid (indices into HEADERS), appended to OUT as a group; the
// images that make no volume go to SKIPPED.
void addGroup(std::vector<ImageHeader>& headers, const std::vector<int>& grid, SeriesFrames& out)
{
    const std::vector<Acquisition> found = acquisitions(headers, grid);
    std::vector<geometry::StackImage> images;
    for (size_t a = 0; a < found.size(); ++a)
        for (int image : found[a].images)
            headers[size_t(image)].geometry.acquisition = int(a);
    for (int image : grid) {
        images.push_back(headers[size_t(image)].geometry);
        images.back().key = image;
    }
    const geometry::FrameStack stack = geometry::buildFrameStack(images);
    if (stack.stack.slices.empty()) {
        for (int image : grid)
            out.skipped << headers[size_t(image)].file + ": no other position on its grid, no volume";
        return;
    }
    for (std::int64_t key : stack.stack.dropped)
        out.skipped << headers[size_t(key)].file + ": off the slice spacing of its series";

    SeriesFrameGroup group;
    const geometry::StackImage& first = headers[size_t(grid.front())].geometry;
    group.rows = first.rows;
    group.columns = first.columns;
    group.pixelSpacing[0] = first.pixelSpacing[0];
    group.pixelSpacing[1] = first.pixelSpacing[1];
    for (int a = 0; a < 3; ++a) {
        group.orientation[a] = first.row[size_t(a)];
        group.orientation[3 + a] = first.column[size_t(a)];
    }
    for (const geometry::StackSlice& slice : stack.stack.slices)
        group.positions << slice.position[0] << slice.position[1] << slice.position[2];
    group.spacing = stack.stack.spacing;
    for (const geometry::StackGap& gap : stack.stack.gaps)
        group.gaps << qMakePair(gap.slice, gap.distance);
    group.isOrder = stack.stack.startsAtFirstImage ? 1 : -1;
    for (const geometry::StackFrameSeries& f : stack.frames) {
        const bool repeated = std::any_of(stack.frames.begin(), stack.frames.end(), [&](const geometry::StackFrameSeries& o) {
            return o.acquisition == f.acquisition && o.repeat > 0;
        });
        SeriesFrame frame;
        frame.index = group.frames.size();
        frame.label = frameLabel(found[size_t(f.acquisition)], f, repeated, int(stack.frames.size()));
        for (size_t k = 0; k < f.keys.size(); ++k) {
            frame.files << (f.keys[k] == geometry::kNoImage ? QString() : headers[size_t(f.keys[k])].file);
            if (f.keys[k] == geometry::kNoImage)
                frame.missing << int(k);
        }
        group.frames << frame;
    }
    out.groups << group;
}

} // namespace

int SeriesFrames::largestGroup() const
{
    int best = -1, most = 0;
    for (int g = 0; g < groups.size(); ++g) {
        int images = 0;
        for (const SeriesFrame& frame : groups[g].frames)
            images += frame.imageCount();
        if (images > most) {
            most = images;
            best = g;
        }
    }
    return best;
}

bool SeriesFrames::severalPerPosition() const
{
    return std::any_of(groups.begin(), groups.end(), [](const SeriesFrameGroup& g) { return g.frames.size() > 1; });
}

SeriesFrames getSeriesFrames(QSeries* series)
{
    SeriesFrames out;
    if (!series)
        return out;
    out.seriesPk = series->getSeriesPK();
    out.seriesUid = series->getSeriesUID();
    out.seriesBase = series->getSeriesBase();
    std::vector<ImageHeader> headers;
    for (QInstance* instance : series->getInstances()) {
        ImageHeader header;
        if (!readImageHeader(instance->getFilePath(), header))
            out.skipped << header.file + ": " + header.problem;
        else if (header.samplesPerPixel != 1)
            out.skipped << header.file + ": colour image";
        else if (!header.geometry.oriented)
            out.skipped << header.file + ": no position or orientation";
        else
            headers.push_back(header);
    }
    // By instance number, files of one number in the order given.
    std::stable_sort(headers.begin(), headers.end(), [](const ImageHeader& a, const ImageHeader& b) {
        return a.geometry.instanceNumber < b.geometry.instanceNumber;
    });
    std::vector<geometry::StackImage> images;
    for (const ImageHeader& header : headers)
        images.push_back(header.geometry);
    for (const std::vector<int>& grid : geometry::gridGroups(images))
        addGroup(headers, grid, out);
    return out;
}
