// kestrel volume --series PK --out DIR [--index I] [--thickness T] [--render max|min|avg] [--dicom]:
// builds (or loads from the cache) a series' volume and writes its three planes as PNG, and with
// --dicom also as derived DICOM images of one new series.
#include "catalog.h"
#include "command.h"
#include "picture.h"

#include "kestrelpaths.h"
#include "ndicomimage.h"
#include "ndicomvolume.h"
#include "qinstance.h"
#include "qseries.h"
#include "veldatabaseconnection.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcuid.h>

#include <QCommandLineParser>
#include <QDir>
#include <QElapsedTimer>
#include <QImage>
#include <QSqlDatabase>
#include <QTextStream>

#include <cstring>
#include <vector>

namespace {

// The derived series the planes of one run are written into: a new UID, the source's number plus
// 1000, "MPR" before its description.
struct DerivedSeries {
    QString uid, templateFile, description;
    int number = 0;
};

DerivedSeries derivedSeries(QSeries& series)
{
    char uid[100];
    dcmGenerateUniqueIdentifier(uid, SITE_SERIES_UID_ROOT);
    DerivedSeries derived;
    derived.uid = QString::fromLatin1(uid);
    derived.templateFile = series.getInstances().first()->getFilePath();
    derived.number = 1000 + series.getSeriesNumber();
    derived.description = QString("MPR %1").arg(series.getSeriesDescription()).trimmed().left(64);
    return derived;
}

bool writeDicomPlane(NDicomImage& image, const VolumeHead& head, const DerivedSeries& series, int number,
                     const QString& file)
{
    image.setInstanceNumber(number);
    image.setSeriesNumber(series.number);
    image.setSeriesDescription(series.description);
    image.setWindowWidth(head.WindowWidth);
    image.setWindowCenter(head.WindowCenter);
    return image.saveAs(file, series.templateFile, series.uid);
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
    if (const auto status = app::parseArguments(parser, "volume", args))
        return *status;
    bool ok = false;
    const qint64 pk = parser.value("series").toLongLong(&ok);
    if (!parser.isSet("series") || !ok)
        return app::fail("volume", "--series PK is required (a number)");
    if (!parser.isSet("out"))
        return app::fail("volume", "--out DIR is required");
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

    NDicomVolume volume;
    QElapsedTimer timer;
    timer.start();
    volume.getVolumeFromSeriesUID(&series);
    const double ms = timer.nsecsElapsed() / 1e6;
    if (!volume.isValid())
        return app::fail("volume", QString("no volume could be built from series %1").arg(pk));
    QTextStream out(stdout);
    out << volume.volumeHeadtoString(*volume.getHead()) << "\n";
    out << "cache: " << volume.getCurVolumeDataPath() << "\n";
    out << QString("volume ready in %1 ms\n").arg(ms, 0, 'f', 1);

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
    const DerivedSeries derived = derivedSeries(series);
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
        if (!writeDicomPlane(image, *volume.getHead(), derived, ++number, dicom)) {
            status = app::fail("volume", QString("cannot write %1").arg(dicom));
            continue;
        }
        out << dicom << QString(": series %1 image %2\n").arg(derived.uid).arg(number);
    }
    return status;
}

} // namespace

KESTREL_COMMAND("volume", "build a series' volume and write its three planes as PNG", runVolume);
