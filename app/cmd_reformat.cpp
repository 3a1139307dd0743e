// kestrel reformat --series PK --out DIR (--plane ... | --curve ... | --like PK2 | --project AZ,EL | --mask FILE)
//                  [--dicom DIR [--import]]:
// reformats of a series' volume: an oblique plane or a stack of them (with a slab), a curved plane
// through clicked points, the volume resampled onto another series' images, projections from any
// direction (a rotating MIP), the volume masked. Each writes PNG pictures at physical aspect into
// --out and, with --dicom, a derived DICOM series, which --import catalogues.
#include "catalog.h"
#include "command.h"
#include "derived.h"
#include "picture.h"

#include "nbitvolume.h"
#include "ndicomimage.h"
#include "ndicomvolume.h"
#include "qdcmfiles.h"
#include "qinstance.h"
#include "qseries.h"

#include <QCommandLineParser>
#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTextStream>
#include <QVector3D>

#include <algorithm>
#include <cmath>
#include <memory>

namespace {

const char* kName = "reformat";

// COUNT numbers separated by commas; false when TEXT holds anything else.
bool numbers(const QString& text, int count, QVector<double>& out)
{
    const QStringList parts = text.split(',', Qt::SkipEmptyParts);
    if (parts.size() != count)
        return false;
    out.clear();
    for (const QString& part : parts) {
        bool ok = false;
        out << part.trimmed().toDouble(&ok);
        if (!ok || !std::isfinite(out.last()))
            return false;
    }
    return true;
}

// A series of the catalogue with its images' geometry; null when it has no images.
std::unique_ptr<QSeries> catalogueSeries(qint64 pk)
{
    auto series = std::make_unique<QSeries>(pk);
    series->searchSeriesInfo();
    series->searchInstance();
    for (QInstance* instance : series->getInstances())
        instance->searchInstanceInfo();
    if (series->getInstances().isEmpty())
        return nullptr;
    return series;
}

struct Run {
    QTextStream out{stdout};
    NDicomVolume volume;
    std::unique_ptr<QSeries> series;
    QDir pictures;
    QString dicom;    // folder of the DICOM series, empty for none
    bool import = false;
    double width = 0, centre = 0; // window of the pictures

    bool picture(NDicomImage& image, const QString& name)
    {
        const QString file = pictures.filePath(name);
        if (!hostkit::physicalImage(image, width, centre).save(file, "PNG"))
            return false;
        out << file << QString(": %1x%2\n").arg(image.width()).arg(image.height());
        return true;
    }
    // The series' files the library wrote: said, and the middle one as PICTURE.
    bool written(const QStringList& files, const QString& picture)
    {
        if (files.isEmpty())
            return false;
        NDicomImage middle;
        middle.InitImageInfo(files[files.size() / 2]);
        if (!this->picture(middle, picture))
            return false;
        out << QString("%1 images written to %2%3\n").arg(files.size()).arg(QFileInfo(files.first()).absolutePath())
                   .arg(import ? ", catalogued" : "");
        return true;
    }
    // Images the host made, as one derived series.
    bool writeSeries(QList<NDicomImage*> images, const QString& prefix, QString& error)
    {
        if (dicom.isEmpty())
            return true;
        if (!QDir().mkpath(dicom)) {
            error = "cannot create " + dicom;
            return false;
        }
        const app::DerivedSeries derived = app::derivedSeries(*series, prefix);
        QStringList files;
        for (int n = 0; n < images.size(); ++n) {
            files << QDir(dicom).filePath(QString("IMG%1.dcm").arg(n + 1, 4, 10, QChar('0')));
            if (!app::writeDerivedImage(*images[n], *volume.getHead(), derived, n + 1, files.last())) {
                error = "cannot write " + files.last();
                return false;
            }
        }
        out << QString("%1 images written to %2, series %3\n").arg(files.size()).arg(dicom, derived.uid);
        if (!import)
            return true;
        QDcmFiles importer;
        importer.loadLocalFilesToDB(files, 0);
        if (importer.lastRunCounts().imagesAdded != files.size()) {
            error = QString("the catalogue took %1 of %2 images").arg(importer.lastRunCounts().imagesAdded).arg(files.size());
            return false;
        }
        out << "catalogued\n";
        return true;
    }
    // Where the library writes a series: --dicom, or a scratch folder for the pictures alone.
    QString seriesFolder(QTemporaryDir& scratch) const { return dicom.isEmpty() ? scratch.path() : dicom; }
};

int planes(Run& run, const QCommandLineParser& parser)
{
    QVector<double> p, size, spacing;
    if (!numbers(parser.value("plane"), 9, p))
        return app::fail(kName, "--plane needs nine numbers: centre x,y,z, row direction x,y,z, column direction x,y,z");
    if (!numbers(parser.value("size"), 2, size) || size[0] < 1 || size[1] < 1)
        return app::fail(kName, "--size needs two numbers >= 1: W,H");
    if (!numbers(parser.value("spacing"), 2, spacing) && !numbers(parser.value("spacing") + "," + parser.value("spacing"), 2, spacing))
        return app::fail(kName, "--spacing needs one or two numbers (mm)");
    const QVector3D row = QVector3D(float(p[3]), float(p[4]), float(p[5]));
    const QVector3D column = QVector3D(float(p[6]), float(p[7]), float(p[8]));
    if (row.length() == 0 || column.length() == 0)
        return app::fail(kName, "--plane: a direction has no length");
    if (QVector3D::crossProduct(row.normalized(), column.normalized()).length() < 1e-3)
        return app::fail(kName, "--plane: the row and column directions are parallel");
    // Unit directions, the column made square to the row (as a person's click gives them).
    const QVector3D r = row.normalized(), c = (column - QVector3D::dotProduct(column, r) * r).normalized();
    const double rd[3] = {r.x(), r.y(), r.z()}, cd[3] = {c.x(), c.y(), c.z()};
    bool ok = false;
    const int count = parser.value("count").toInt(&ok);
    const double step = parser.value("step").toDouble();
    const double thickness = parser.value("thickness").toDouble();
    if (!ok || count < 1 || (count > 1 && !(step > 0)))
        return app::fail(kName, "--count needs a number >= 1, and more than one plane a --step above 0");
    const QString rule = parser.value("render");
    const RenderType render = rule == "min" ? RenderMin : rule == "avg" ? RenderAverage : RenderMax;
    const double normal[3] = {rd[1] * cd[2] - rd[2] * cd[1], rd[2] * cd[0] - rd[0] * cd[2], rd[0] * cd[1] - rd[1] * cd[0]};
    for (int n = 0; n < count; ++n) {
        const double at[3] = {p[0] + n * step * normal[0], p[1] + n * step * normal[1], p[2] + n * step * normal[2]};
        NDicomImage image;
        if (!run.volume.getDicomImage(image, at, rd, cd, int(size[0]), int(size[1]), spacing[0], spacing[1], thickness, render))
            return app::fail(kName, "the plane cannot be cut");
        if (!run.picture(image, QString("plane_%1.png").arg(n + 1, 3, 10, QChar('0'))))
            return app::fail(kName, "cannot write the picture into " + run.pictures.path());
    }
    if (run.dicom.isEmpty())
        return 0;
    QStringList files;
    QString error;
    const double centre[3] = {p[0], p[1], p[2]};
    if (!run.volume.createNewSeriesbyManual(run.dicom, centre, rd, cd, int(size[0]), int(size[1]), spacing[0], spacing[1],
                                            step, count, thickness, render, run.import, &files, &error))
        return app::fail(kName, error);
    run.out << QString("%1 images written to %2%3\n").arg(files.size()).arg(run.dicom).arg(run.import ? ", catalogued" : "");
    return 0;
}

int curve(Run& run, const QCommandLineParser& parser)
{
    QList<QVector3D> points;
    for (const QString& text : parser.value("curve").split(';', Qt::SkipEmptyParts)) {
        QVector<double> p;
        if (!numbers(text, 3, p))
            return app::fail(kName, "--curve needs points x,y,z separated by ';'");
        points << QVector3D(float(p[0]), float(p[1]), float(p[2]));
    }
    QVector<double> up, spacing;
    if (!numbers(parser.value("up"), 3, up))
        return app::fail(kName, "--up needs three numbers");
    if (!numbers(parser.value("spacing"), 1, spacing) || spacing[0] < 0)
        return app::fail(kName, "--spacing needs one number (mm) for a curve");
    if (spacing[0] == 0)
        spacing[0] = *std::min_element(run.volume.getVoxelSpace(), run.volume.getVoxelSpace() + 3);
    const QList<QVector3D> curve = NDicomVolume::getInterpolationPoints(points, spacing[0]);
    if (curve.size() < 2)
        return app::fail(kName, "--curve needs at least two different points");
    bool ok = false;
    const int height = parser.value("height").toInt(&ok);
    NDicomImage image;
    const QVector3D direction = QVector3D(float(up[0]), float(up[1]), float(up[2]));
    const bool straightened = parser.isSet("straightened");
    if (!ok || height < 1
        || !(straightened ? run.volume.getCurvedMPRImagePlaneMethodTwo(image, curve, direction, height, spacing[0])
                          : run.volume.getCurvedMPRImagePlane(image, curve, direction, height, spacing[0])))
        return app::fail(kName, "the curved plane cannot be made (--up of no length? --height >= 1)");
    run.out << QString("curve: %1 points, %2 samples %3 mm apart\n").arg(points.size()).arg(curve.size()).arg(spacing[0]);
    if (!run.picture(image, straightened ? "curved_straightened.png" : "curved.png"))
        return app::fail(kName, "cannot write the picture into " + run.pictures.path());
    QString error;
    return run.writeSeries({&image}, "CPR", error) ? 0 : app::fail(kName, error);
}

int like(Run& run, const QCommandLineParser& parser)
{
    bool ok = false;
    const qint64 pk = parser.value("like").toLongLong(&ok);
    std::unique_ptr<QSeries> reference = ok ? catalogueSeries(pk) : nullptr;
    if (!reference)
        return app::fail(kName, QString("--like: series %1 has no images in the catalogue").arg(parser.value("like")));
    QTemporaryDir scratch;
    QStringList files;
    QString error;
    if (!run.volume.createNewSeriesbyReference(reference.get(), run.seriesFolder(scratch), run.import, &files, &error))
        return app::fail(kName, error);
    return run.written(files, "like.png") ? 0 : app::fail(kName, "cannot write the picture");
}

int project(Run& run, const QCommandLineParser& parser)
{
    QVector<double> view;
    if (!numbers(parser.value("project"), 2, view))
        return app::fail(kName, "--project needs the azimuth and elevation in degrees: AZ,EL");
    bool ok = false;
    const int turns = parser.value("turns").toInt(&ok);
    if (!ok || turns < 1 || turns > 360)
        return app::fail(kName, "--turns needs a number from 1 to 360");
    const QString rule = parser.value("render");
    const RenderType render = rule == "min" ? RenderMin : rule == "avg" ? RenderAverage : RenderMax;
    std::vector<std::unique_ptr<NDicomImage>> images;
    QList<NDicomImage*> list;
    for (int t = 0; t < turns; ++t) {
        images.push_back(std::make_unique<NDicomImage>());
        const double azimuth = view[0] + t * 360.0 / turns;
        if (!run.volume.getDicomImage3D(*images.back(), azimuth, view[1], render))
            return app::fail(kName, "the projection cannot be made");
        if (!run.picture(*images.back(), QString("project_%1.png").arg(t, 3, 10, QChar('0'))))
            return app::fail(kName, "cannot write the picture into " + run.pictures.path());
        list << images.back().get();
    }
    QString error;
    return run.writeSeries(list, rule.toUpper() + "IP", error) ? 0 : app::fail(kName, error);
}

int mask(Run& run, const QCommandLineParser& parser)
{
    const QString file = parser.value("mask");
    const int* n = run.volume.geSize();
    const qint64 voxels = qint64(n[0]) * n[1] * n[2];
    if (!QFileInfo(file).isFile())
        return app::fail(kName, "--mask: no file " + file);
    if (QFileInfo(file).size() != voxels)
        return app::fail(kName, QString("--mask: %1 holds %2 bytes, the volume has %3 voxels (%4 x %5 x %6, one byte each)")
                                    .arg(file).arg(QFileInfo(file).size()).arg(voxels).arg(n[0]).arg(n[1]).arg(n[2]));
    NBitVolume bits;
    int size[3] = {n[0], n[1], n[2]};
    if (!bits.ReadFromRawFile(QFile::encodeName(file).constData(), size))
        return app::fail(kName, "--mask: cannot read " + file);
    QTemporaryDir scratch;
    QStringList files;
    QString error;
    if (!run.volume.maskDicomVolume(&bits, run.seriesFolder(scratch), run.import, &files, &error))
        return app::fail(kName, error);
    return run.written(files, "masked.png") ? 0 : app::fail(kName, "cannot write the picture");
}

int runReformat(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Reformats of a series' volume, written as PNG pictures at physical aspect (and with --dicom as a derived "
        "DICOM series). Give one of --plane, --curve, --like, --project, --mask. Coordinates are patient "
        "millimetres (x to the patient's left, y to the back, z to the head).");
    parser.addHelpOption();
    parser.addOption({"series", "Key (pk) of the series.", "PK"});
    parser.addOption({"out", "Folder for the pictures.", "DIR"});
    parser.addOption({"plane", "Oblique plane: its centre and its row and column directions.", "X,Y,Z,RX,RY,RZ,CX,CY,CZ"});
    parser.addOption({"size", "Plane size in pixels (default 256,256).", "W,H", "256,256"});
    parser.addOption({"spacing", "Pixel spacing in mm (default: the volume's smallest voxel spacing).", "S[,S]", "0"});
    parser.addOption({"thickness", "Slab thickness in mm along the plane's normal (default 0: a plane).", "MM", "0"});
    parser.addOption({"render", "Slab and projection rule: max, min or avg (default max).", "RULE", "max"});
    parser.addOption({"count", "Planes in the stack, each --step further along the normal (default 1).", "N", "1"});
    parser.addOption({"step", "Distance between the stack's planes in mm.", "MM", "0"});
    parser.addOption({"curve", "Curved plane through these points (at least two).", "X,Y,Z;X,Y,Z;..."});
    parser.addOption({"up", "Direction of the curved plane's columns (default 0,0,-1: head at the top).", "X,Y,Z", "0,0,-1"});
    parser.addOption({"height", "Rows of the curved plane (default 200).", "H", "200"});
    parser.addOption({"straightened", "Straightened curved plane (columns square to the curve) instead of stretched."});
    parser.addOption({"like", "Resample onto the images of this catalogued series (same Frame of Reference).", "PK2"});
    parser.addOption({"project", "Projection of the whole volume seen from this azimuth and elevation.", "AZ,EL"});
    parser.addOption({"turns", "Projections around the z axis, 360/N degrees apart (default 1).", "N", "1"});
    parser.addOption({"mask", "The volume masked by FILE: one byte per voxel (i fastest, then j, then k), "
                              "nonzero keeps the voxel.", "FILE"});
    parser.addOption({"dicom", "Also write the result as a derived DICOM series into DIR.", "DIR"});
    parser.addOption({"import", "Catalogue the DICOM series written (needs --dicom)."});
    if (const auto status = app::parseArguments(parser, kName, args))
        return *status;
    bool ok = false;
    const qint64 pk = parser.value("series").toLongLong(&ok);
    if (!parser.isSet("series") || !ok)
        return app::fail(kName, "--series PK is required (a number)");
    if (!parser.isSet("out"))
        return app::fail(kName, "--out DIR is required");
    const QStringList kinds = {"plane", "curve", "like", "project", "mask"};
    int chosen = 0;
    for (const QString& kind : kinds)
        chosen += parser.isSet(kind);
    if (chosen != 1)
        return app::fail(kName, "give one of --plane, --curve, --like, --project, --mask");
    if (parser.isSet("import") && !parser.isSet("dicom"))
        return app::fail(kName, "--import needs --dicom DIR");
    if (!QStringList({"max", "min", "avg"}).contains(parser.value("render")))
        return app::fail(kName, "--render is max, min or avg");
    if (!app::openCatalog())
        return app::fail(kName, app::catalogOpenError());

    Run run;
    run.series = catalogueSeries(pk);
    if (!run.series || run.series->getInstances().size() < 2)
        return app::fail(kName, QString("series %1 has fewer than two images").arg(pk));
    run.volume.loadSeries(run.series.get());
    if (!run.volume.isValid())
        return app::fail(kName, QString("no volume could be built from series %1").arg(pk));
    run.pictures = QDir(parser.value("out"));
    if (!QDir().mkpath(run.pictures.path()))
        return app::fail(kName, "cannot create " + run.pictures.path());
    run.dicom = parser.value("dicom");
    run.import = parser.isSet("import");
    const VolumeHead& head = *run.volume.getHead();
    run.width = head.WindowWidth;
    run.centre = head.WindowCenter;
    if (!(run.width > 0)) {
        const int* n = run.volume.geSize();
        const short* v = reinterpret_cast<const short*>(run.volume.getData());
        const auto range = std::minmax_element(v, v + qint64(n[0]) * n[1] * n[2]);
        const double slope = head.RescaleSlope != 0 ? head.RescaleSlope : 1.0;
        run.width = std::max(1.0, (*range.second - *range.first) * slope);
        run.centre = (*range.second + *range.first) / 2.0 * slope + head.RescaleIntercept;
    }
    if (parser.isSet("plane"))
        return planes(run, parser);
    if (parser.isSet("curve"))
        return curve(run, parser);
    if (parser.isSet("like"))
        return like(run, parser);
    if (parser.isSet("project"))
        return project(run, parser);
    return mask(run, parser);
}

} // namespace

KESTREL_COMMAND("reformat", "oblique and curved planes, projections, resampling onto another series, masks", runReformat);
