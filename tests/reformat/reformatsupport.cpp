#include "reformatsupport.h"

#include "fileimage.h"
#include "ndicomimage.h"
#include "ndicomvolume.h"
#include "qdcmfiles.h"
#include "qinstance.h"
#include "qseries.h"
#include "syntheticdicom.h"
#include "testcatalog.h"
#include "dicom/dcmvalues_p.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>

#include <cmath>
#include <cstring>

using namespace kestrel::internal;

Vec add(const Vec& a, const Vec& b, double f)
{
    return {a[0] + f * b[0], a[1] + f * b[1], a[2] + f * b[2]};
}

Vec cross(const Vec& a, const Vec& b)
{
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}

double dot(const Vec& a, const Vec& b)
{
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

Vec unit(const Vec& a)
{
    const double l = std::sqrt(dot(a, a));
    return {a[0] / l, a[1] / l, a[2] / l};
}

// The x, y and z axes turned by A about z, then B about x, then C about y (degrees).
std::array<Vec, 3> turned(double a, double b, double c)
{
    a *= M_PI / 180, b *= M_PI / 180, c *= M_PI / 180;
    auto turn = [&](Vec v) {
        v = {v[0] * std::cos(a) - v[1] * std::sin(a), v[0] * std::sin(a) + v[1] * std::cos(a), v[2]};
        v = {v[0], v[1] * std::cos(b) - v[2] * std::sin(b), v[1] * std::sin(b) + v[2] * std::cos(b)};
        return Vec{v[0] * std::cos(c) + v[2] * std::sin(c), v[1], -v[0] * std::sin(c) + v[2] * std::cos(c)};
    };
    return {turn({1, 0, 0}), turn({0, 1, 0}), turn({0, 0, 1})};
}

short contentAt(int content, const Vec& p)
{
    switch (content) {
    case Ramp:
        return short(1000 + 23 * p[0] - 17 * p[1] + 11 * p[2]);
    case Sphere: {
        const double r = std::sqrt(dot(add(p, {-3, 2, -1}, 1), add(p, {-3, 2, -1}, 1)));
        return short(r < 9 ? 2400 - 20 * r : 150 + int(p[0] * 3) % 40);
    }
    default: // a slab 8 mm thick, tilted, over a negative background
        return short(std::fabs(dot(p, unit({0.3, -0.5, 0.8})) - 2) < 4 ? 1800 : -700 + int(p[1] * 5));
    }
}


std::unique_ptr<NDicomVolume> makeVolume(const Grid3& g, int content)
{
    VolumeHead head;
    std::memset(&head, 0, sizeof head);
    std::memcpy(head.magic, "DCVM", 4);
    for (int a = 0; a < 3; ++a) {
        head.volumesize[a] = g.n[a];
        head.voxelspace[a] = g.spacing[a];
        head.topxyz[a] = g.origin[size_t(a)];
        for (int c = 0; c < 3; ++c)
            head.orientation[3 * a + c] = g.axes[size_t(a)][size_t(c)];
    }
    head.volumestep[0] = 2;
    head.volumestep[1] = 2 * g.n[0];
    head.volumestep[2] = 2 * g.n[0] * g.n[1];
    head.volumestep[3] = head.volumestep[2] * g.n[2];
    head.timeNum = 1;
    head.RescaleSlope = 1;
    head.WindowWidth = 2000;
    head.WindowCenter = 800;
    std::vector<short> voxels(size_t(g.n[0]) * g.n[1] * g.n[2]);
    for (int k = 0; k < g.n[2]; ++k)
        for (int j = 0; j < g.n[1]; ++j)
            for (int i = 0; i < g.n[0]; ++i) {
                Vec p = g.origin;
                p = add(p, g.axes[0], i * g.spacing[0]);
                p = add(p, g.axes[1], j * g.spacing[1]);
                p = add(p, g.axes[2], k * g.spacing[2]);
                voxels[(size_t(k) * g.n[1] + j) * g.n[0] + i] = contentAt(content, p);
            }
    return std::make_unique<NDicomVolume>(&head, reinterpret_cast<char*>(voxels.data()), qint64(voxels.size()) * 2);
}

// The double-oblique, anisotropic volume most tests cut.
Grid3 obliqueGrid()
{
    return {{40, 36, 28}, {0.9, 1.1, 1.7}, turned(10, -15, 20), {-20, -15, -25}};
}

Vec volumeMiddle(NVolume& v)
{
    const int* n = v.geSize();
    Vec p = {v.getTopLeft()[0], v.getTopLeft()[1], v.getTopLeft()[2]};
    const double* o = v.getHead()->orientation;
    for (int a = 0; a < 3; ++a)
        p = add(p, {o[3 * a], o[3 * a + 1], o[3 * a + 2]}, (n[a] - 1) / 2.0 * v.getVoxelSpace()[a]);
    return p;
}

// --- the independent oracle ------------------------------------------------------------------

QString oracleSkip()
{
    QProcess probe;
    probe.start("/usr/bin/python3", {"-c", "import numpy, scipy.ndimage"});
    if (!probe.waitForFinished(30000) || probe.exitCode() != 0)
        return "python3 with numpy and scipy is missing (scripts/setup.sh installs them)";
    return {};
}

QString script(const QString& name)
{
    return qEnvironmentVariable("KESTREL_SOURCE_DIR") + "/tests/reformat/" + name;
}

// The volume's current frame as raw voxels and its geometry as JSON in DIR; the JSON's path.
QString writeVolume(NVolume& v, const QString& dir)
{
    const int* n = v.geSize();
    const QString raw = dir + "/volume.raw";
    QFile file(raw);
    file.open(QIODevice::WriteOnly);
    file.write(v.getData(), qint64(n[0]) * n[1] * n[2] * 2);
    file.close();
    const VolumeHead* h = v.getHead();
    QJsonArray orientation, spacing, origin, size;
    for (int a = 0; a < 9; ++a)
        orientation << h->orientation[a];
    for (int a = 0; a < 3; ++a) {
        spacing << h->voxelspace[a];
        origin << h->topxyz[a];
        size << n[a];
    }
    const QJsonObject setup{{"file", raw},
                           {"size", size},
                           {"spacing", spacing},
                           {"orientation", orientation},
                           {"origin", origin},
                           {"slope", h->RescaleSlope != 0 ? h->RescaleSlope : 1.0},
                           {"intercept", h->RescaleIntercept}};
    const QString json = dir + "/volume.json";
    QFile out(json);
    out.open(QIODevice::WriteOnly);
    out.write(QJsonDocument(setup).toJson());
    return json;
}

// Runs trilinear_oracle.py on the points and values; its line, prefixed "FAILED " on failure.
QString runOracle(const QString& json, const std::vector<double>& points, const std::vector<short>& values,
                  double tolerance, int layers, const QString& rule)
{
    const QString dir = QFileInfo(json).absolutePath();
    QFile p(dir + "/points.f64"), v(dir + "/values.i16");
    p.open(QIODevice::WriteOnly);
    p.write(reinterpret_cast<const char*>(points.data()), qint64(points.size() * sizeof(double)));
    p.close();
    v.open(QIODevice::WriteOnly);
    v.write(reinterpret_cast<const char*>(values.data()), qint64(values.size() * sizeof(short)));
    v.close();
    QProcess oracle;
    oracle.setProcessChannelMode(QProcess::MergedChannels);
    oracle.start("/usr/bin/python3", {script("trilinear_oracle.py"), json, p.fileName(), v.fileName(),
                                      QString::number(tolerance), QString::number(layers), rule});
    if (!oracle.waitForFinished(300000))
        return "FAILED the oracle does not finish";
    const QString line = QString::fromLocal8Bit(oracle.readAll()).trimmed();
    return oracle.exitCode() == 0 ? line : "FAILED " + line;
}

const char* ruleName(RenderType render)
{
    return render == RenderMin ? "min" : render == RenderAverage ? "avg" : "max";
}

// Every pixel of IMAGE (LAYERS samples STEP apart along its normal, the middle one on its plane)
// against the oracle.
QString checkImage(NVolume& v, NDicomImage& image, const QString& dir, int layers, double step, RenderType render,
                   double tolerance)
{
    const double* o = image.getOrientation();
    const Vec normal = unit(cross({o[0], o[1], o[2]}, {o[3], o[4], o[5]}));
    std::vector<double> points;
    std::vector<short> values;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x) {
            Vec p;
            image.getXYZ(x, y, p[0], p[1], p[2]);
            for (int t = 0; t < layers; ++t) {
                const Vec q = add(p, normal, (t - (layers - 1) / 2.0) * step);
                points.insert(points.end(), q.begin(), q.end());
            }
            values.push_back(short(image.getValue16u(x, y)));
        }
    return runOracle(writeVolume(v, dir), points, values, tolerance, layers, ruleName(render));
}


// A series of COUNT images of SIZE pixels (columns x rows) SPACING apart along ORIENTATION's normal,
// in DIR, of the study and Frame of Reference given; stored values from the ramp and sphere.
QStringList writeSeries(const QString& dir, const std::array<Vec, 3>& axes, QSize size, QPointF pixel, double spacing,
                        int count, const Vec& position, const QString& study, const QString& frame, int number)
{
    SyntheticImage base;
    base.columns = size.width();
    base.rows = size.height();
    base.columnSpacing = pixel.x(); // between columns
    base.rowSpacing = pixel.y();
    base.orientation = {axes[0][0], axes[0][1], axes[0][2], axes[1][0], axes[1][1], axes[1][2]};
    base.studyUid = study;
    base.seriesUid = newTestUid();
    base.seriesNumber = number;
    base.bitsStored = 16;
    base.hasRescale = true;
    base.rescaleSlope = 0.5;
    base.rescaleIntercept = -100;
    base.extra.push_back({DCM_FrameOfReferenceUID, frame});
    base.extra.push_back({DCM_SpacingBetweenSlices, QString::number(spacing)});
    QStringList files;
    for (int k = 0; k < count; ++k) {
        SyntheticImage slice = base;
        slice.sopUid = newTestUid();
        slice.instanceNumber = k + 1;
        const Vec origin = add(position, axes[2], k * spacing);
        slice.position = {origin[0], origin[1], origin[2]};
        slice.pixel = [=](int x, int y, int) {
            const Vec p = add(add(origin, axes[0], x * pixel.x()), axes[1], y * pixel.y());
            return std::max(0, contentAt(Sphere, p) + 3 * int(contentAt(Ramp, p) / 10) % 500);
        };
        files << QDir(dir).filePath(QString("s%1_%2.dcm").arg(number).arg(k + 1, 3, 10, QChar('0')));
        if (!writeSyntheticImage(files.last(), slice))
            return {};
    }
    return files;
}

qint64 catalogue(const QStringList& files)
{
    QDcmFiles importer;
    importer.loadLocalFilesToDB(files, 0);
    DcmFileFormat file;
    file.loadFile(QFile::encodeName(files.first()).constData());
    return TestCatalog::value("SELECT pk FROM generalseries WHERE SeriesInstanceUID=?",
                              {dcmString(file.getDataset(), DCM_SeriesInstanceUID)}).toLongLong();
}

void loadCatalogued(QSeries& series, NDicomVolume& volume)
{
    series.searchInstance();
    for (QInstance* instance : series.getInstances())
        instance->searchInstanceInfo();
    volume.loadSeries(&series);
}
