// kestrel volume --series PK --out DIR [--index I] [--thickness T] [--render max|min|avg] [--dicom]
//                [--nifti FILE] [--frames] [--frame N] [--group G]:
// builds (or loads from the cache) a series' volume and writes its three planes as PNG, with
// --dicom also as derived DICOM images of one new series, with --nifti the volume as NIfTI. A
// series with several images per slice position (echoes, time points, ...) gives a volume of its
// frames; its planes are those of frame N.
#include "catalog.h"
#include "command.h"
#include "derived.h"
#include "picture.h"

#include "kestrelpaths.h"
#include "ndicomimage.h"
#include "ndicomvolume.h"
#include "qinstance.h"
#include "qseries.h"
#include "veldatabaseconnection.h"

#include <QCommandLineParser>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QImage>
#include <QSqlDatabase>
#include <QTextStream>

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

// What a person needs to know about the frames of a series before its volume is built.
void describeFrames(QTextStream& out, qint64 pk, const SeriesFrames& frames, int group)
{
    if (frames.groups.size() > 1) {
        out << QString("series %1 holds images on %2 grids (orientation, matrix or pixel spacing differ); "
                       "each is a volume of its own (--group G):\n").arg(pk).arg(frames.groups.size());
        for (int g = 0; g < frames.groups.size(); ++g) {
            const SeriesFrameGroup& grid = frames.groups[g];
            const double* o = grid.orientation;
            const double normal[3] = {o[1] * o[5] - o[2] * o[4], o[2] * o[3] - o[0] * o[5], o[0] * o[4] - o[1] * o[3]};
            out << QString("  group %1: %2 slices of %3x%4 along %5, %6 frame(s)%7\n")
                       .arg(g).arg(grid.sliceCount()).arg(grid.columns).arg(grid.rows)
                       .arg(hostkit::directionLetters(normal)).arg(grid.frames.size()).arg(g == group ? " (this one)" : "");
        }
    }
    if (group >= 0 && group < frames.groups.size() && frames.groups[group].frames.size() > 1) {
        const SeriesFrameGroup& grid = frames.groups[group];
        out << QString("series %1 holds several images per slice position: %2 frames of %3 slices\n")
                   .arg(pk).arg(grid.frames.size()).arg(grid.sliceCount());
        for (const SeriesFrame& frame : grid.frames) {
            QString state;
            if (!frame.isComplete()) {
                QStringList slices;
                for (int k : frame.missing)
                    slices << QString::number(k);
                state = ", incomplete: no image at slice " + slices.join(',');
            }
            out << QString("  frame %1: %2, %3 images%4\n").arg(frame.index).arg(frame.label).arg(frame.imageCount()).arg(state);
        }
    }
    if (group >= 0 && group < frames.groups.size())
        for (const auto& gap : frames.groups[group].gaps)
            out << QString("  gap: slice %1 lies %2 mm from the one before, the spacing is %3 mm; the volume spaces "
                           "its slices evenly, so positions from there on are not those of the images\n")
                       .arg(gap.first).arg(gap.second, 0, 'g', 6).arg(frames.groups[group].spacing, 0, 'g', 6);
    for (const QString& skipped : frames.skipped)
        out << "  left out: " << skipped << "\n";
}

// Sets VOLUME to the time frame holding FRAME of its group, with that frame's rescale in the head
// so that its planes carry its real values. False when the volume does not hold it.
bool showFrame(NDicomVolume& volume, int frame)
{
    const int t = getVolumeFrames(volume).indexOf(frame);
    double slope = 1, intercept = 0;
    if (t < 0 || !getFrameRescale(volume, t, slope, intercept))
        return false;
    volume.setTimeIndex(t);
    volume.getHead()->RescaleSlope = slope;
    volume.getHead()->RescaleIntercept = intercept;
    if (t > 0) {
        // The window of the first file is that of the first frame: later ones get their own range.
        const int* n = volume.geSize();
        const quint16* voxels = reinterpret_cast<const quint16*>(volume.getData());
        const auto range = std::minmax_element(voxels, voxels + qint64(n[0]) * n[1] * n[2]);
        volume.getHead()->WindowWidth = std::max(1.0, (*range.second - *range.first) * slope);
        volume.getHead()->WindowCenter = (*range.second + *range.first) / 2.0 * slope + intercept;
    }
    return true;
}

int runVolume(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription("Builds a series' volume (or loads it from the volume cache) and writes its "
                                     "axial, coronal and sagittal planes as PNG.");
    parser.addHelpOption();
    parser.addOption({"series", "Key (pk) of the series.", "PK"});
    parser.addOption({"out", "Folder for axial.png, coronal.png and sagittal.png.", "DIR"});
    parser.addOption({"index", "Plane index (default: the middle plane of each view).", "I"});
    parser.addOption({"thickness", "Slab thickness in planes (default 1).", "T", "1"});
    parser.addOption({"render", "Slab rule: max, min or avg (default max).", "RULE", "max"});
    parser.addOption({"dicom", "Also write the planes as axial.dcm, coronal.dcm and sagittal.dcm: derived images of "
                               "one new series (number + 1000) on the series' first file."});
    parser.addOption({"nifti", "Also write the volume (every frame) as NIfTI-1: FILE ends in .nii or .nii.gz; the "
                               "frames' labels go to the JSON file beside it.", "FILE"});
    parser.addOption({"frames", "Only list the frames of the series (images at one slice position that are different "
                                "echoes, time points, image types or diffusion weightings)."});
    parser.addOption({"frame", "The frame whose planes are written (default 0).", "N", "0"});
    parser.addOption({"group", "The group of images on one grid to build (default: the one with most images).", "G"});
    if (const auto status = app::parseArguments(parser, "volume", args))
        return *status;
    bool ok = false;
    const qint64 pk = parser.value("series").toLongLong(&ok);
    if (!parser.isSet("series") || !ok)
        return app::fail("volume", "--series PK is required (a number)");
    const bool listOnly = parser.isSet("frames");
    if (!parser.isSet("out") && !listOnly && !parser.isSet("nifti"))
        return app::fail("volume", "--out DIR is required (or --nifti FILE, or --frames)");
    const int frame = parser.value("frame").toInt(&ok);
    if (!ok || frame < 0)
        return app::fail("volume", "--frame needs a number >= 0");
    int group = -1;
    if (parser.isSet("group")) {
        group = parser.value("group").toInt(&ok);
        if (!ok || group < 0)
            return app::fail("volume", "--group needs a number >= 0");
    }
    const int thickness = parser.value("thickness").toInt(&ok);
    if (!ok)
        return app::fail("volume", "--thickness needs a number");
    const QString rule = parser.value("render");
    if (rule != "max" && rule != "min" && rule != "avg")
        return app::fail("volume", "--render is max, min or avg");
    const RenderType render = rule == "min" ? RenderMin : (rule == "avg" ? RenderAverage : RenderMax);
    int index = -1;
    if (parser.isSet("index")) {
        index = parser.value("index").toInt(&ok);
        if (!ok || index < 0)
            return app::fail("volume", "--index needs a number >= 0");
    }
    if (!app::openCatalog())
        return app::fail("volume", app::catalogOpenError());

    QSeries series(pk);
    series.searchSeriesInfo();
    series.searchInstance();
    for (QInstance* instance : series.getInstances())
        instance->searchInstanceInfo();
    if (series.getInstances().size() < 2)
        return app::fail("volume", QString("series %1 has fewer than two images").arg(pk));

    QTextStream out(stdout);
    QElapsedTimer timer;
    timer.start();
    const SeriesFrames frames = getSeriesFrames(&series);
    const bool chosen = group >= 0;
    if (!chosen)
        group = std::max(0, frames.largestGroup());
    if (chosen && group >= frames.groups.size())
        return app::fail("volume", QString("series %1 has %2 group(s) of images").arg(pk).arg(frames.groups.size()));
    describeFrames(out, pk, frames, group);
    if (listOnly)
        return 0;
    // A series of one image per position is built as it always was; frames and chosen groups
    // through their own volume.
    const bool framed = chosen || (group < frames.groups.size() && frames.groups[group].frames.size() > 1);
    QStringList labels;
    NDicomVolume volume;
    if (framed) {
        QStringList problems;
        getVolumeFromSeriesFrames(volume, frames, group, &problems);
        for (const QString& problem : problems)
            out << "  " << problem << "\n";
        for (int f : getVolumeFrames(volume))
            labels << frames.groups[group].frames[f].label;
    } else {
        volume.getVolumeFromSeriesUID(&series);
        if (group < frames.groups.size())
            labels << frames.groups[group].frames.first().label;
    }
    out.flush();
    const double ms = timer.nsecsElapsed() / 1e6;
    if (!volume.isValid())
        return app::fail("volume", QString("no volume could be built from series %1").arg(pk));
    out << volume.volumeHeadtoString(*volume.getHead()) << "\n";
    out << "cache: " << volume.getCurVolumeDataPath() << "\n";
    out << QString("volume ready in %1 ms\n").arg(ms, 0, 'f', 1);
    if (parser.isSet("nifti")) {
        QString error;
        QDir().mkpath(QFileInfo(parser.value("nifti")).absolutePath());
        if (!saveVolumeAsNifti(volume, parser.value("nifti"), labels, &error))
            return app::fail("volume", error);
        out << parser.value("nifti") << QString(": %1 frame(s)\n").arg(std::max(1, volume.getHead()->timeNum));
    }
    if (framed && !showFrame(volume, frame))
        return app::fail("volume", QString("frame %1 is not in the volume (see the frames above)").arg(frame));
    if (!framed && frame > 0)
        return app::fail("volume", QString("series %1 has one frame").arg(pk));
    if (!parser.isSet("out"))
        return 0;

    const QDir dir(parser.value("out"));
    if (!QDir().mkpath(dir.path()))
        return app::fail("volume", "cannot create " + dir.path());
    struct View {
        const char* name;
        bool (NDicomVolume::*cut)(NDicomImage&, int, int, RenderType);
        int (NDicomVolume::*planes)();
    } views[] = {{"axial", &NDicomVolume::getDicomImagePlaneAxi, &NDicomVolume::getAxiSliceNum},
                 {"coronal", &NDicomVolume::getDicomImagePlaneCor, &NDicomVolume::getCorSliceNum},
                 {"sagittal", &NDicomVolume::getDicomImagePlaneSag, &NDicomVolume::getSagSliceNum}};
    const app::DerivedSeries derived = app::derivedSeries(series);
    int status = 0;
    int number = 0;
    for (const View& view : views) {
        NDicomImage image;
        const int plane = index >= 0 ? index : (volume.*view.planes)() / 2;
        const bool cut = (volume.*view.cut)(image, plane, thickness, render);
        const QString file = dir.filePath(QString(view.name) + ".png");
        if (!cut || !hostkit::physicalImage(image, volume.getHead()->WindowWidth, volume.getHead()->WindowCenter).save(file, "PNG")) {
            status = app::fail("volume", QString("cannot write the %1 plane (index past the end?)").arg(view.name));
            continue;
        }
        out << file << QString(": %1x%2\n").arg(image.width()).arg(image.height());
        if (!parser.isSet("dicom"))
            continue;
        const QString dicom = dir.filePath(QString(view.name) + ".dcm");
        if (!app::writeDerivedImage(image, *volume.getHead(), derived, ++number, dicom)) {
            status = app::fail("volume", QString("cannot write %1").arg(dicom));
            continue;
        }
        out << dicom << QString(": series %1 image %2\n").arg(derived.uid).arg(number);
    }
    return status;
}

} // namespace

KESTREL_COMMAND("volume", "build a series' volume and write its three planes as PNG", runVolume);
