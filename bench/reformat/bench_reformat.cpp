// Reformat benchmarks beside scipy.ndimage.map_coordinates (order 1, one thread) on the same
// volume and the same sample points, in the same run: a 512 x 512 oblique plane and a 20-plane
// oblique slab out of a 512^3 volume, a 256-step curved plane, a rotating MIP of 36 directions of
// a 256^3 volume, and a 176-slice 3-D series resampled onto a 30-slice axial series.
//   bench_reformat [--no-peer]
#include "syntheticdicom.h"
#include "ndicomimage.h"
#include "ndicomvolume.h"
#include "qinstance.h"
#include "qseries.h"

#include "../timing.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QVector3D>

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <vector>

namespace {

using Vec = std::array<double, 3>;

struct Figures {
    double best, median, low, high;
};

// RUNS timed runs after one to warm up (the background value, the caches), in milliseconds.
Figures measure(int runs, const std::function<void()>& body)
{
    const std::vector<double> ms = sortedRunTimes(runs, body);
    return {ms.front(), ms[ms.size() / 2], ms.front(), ms.back()};
}

void report(const char* what, const Figures& f)
{
    std::printf("  %-46s best %9.2f ms   median %9.2f ms   range %.2f-%.2f ms\n", what, f.best, f.median, f.low, f.high);
    std::fflush(stdout);
}

Vec unit(const Vec& v)
{
    const double l = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    return {v[0] / l, v[1] / l, v[2] / l};
}

Vec cross(const Vec& a, const Vec& b)
{
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}

// An N^3 volume of 1 mm voxels at the origin (voxel indices are patient millimetres): smooth
// structure with noise, 12-bit values.
std::unique_ptr<NDicomVolume> syntheticVolume(int n)
{
    VolumeHead head;
    std::memset(&head, 0, sizeof head);
    std::memcpy(head.magic, "DCVM", 4);
    for (int a = 0; a < 3; ++a) {
        head.volumesize[a] = n;
        head.voxelspace[a] = 1;
        head.orientation[4 * a] = 1;
    }
    head.volumestep[0] = 2;
    head.volumestep[1] = 2 * n;
    head.volumestep[2] = 2 * n * n;
    head.volumestep[3] = 2 * n * n * n;
    head.timeNum = 1;
    head.RescaleSlope = 1;
    std::vector<double> si(static_cast<size_t>(n)), sj(static_cast<size_t>(n)), sk(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        si[size_t(i)] = std::sin(i / 17.0);
        sj[size_t(i)] = std::cos(i / 23.0);
        sk[size_t(i)] = std::sin(i / 11.0);
    }
    std::vector<short> voxels(size_t(n) * n * n);
    std::mt19937 rng(3);
    for (int k = 0; k < n; ++k)
        for (int j = 0; j < n; ++j)
            for (int i = 0; i < n; ++i)
                voxels[(size_t(k) * n + j) * n + i] =
                    short(1500 + 600 * si[size_t(i)] * sj[size_t(j)] + 400 * sk[size_t(k)] + (rng() & 63));
    return std::make_unique<NDicomVolume>(&head, reinterpret_cast<char*>(voxels.data()), qint64(voxels.size()) * 2);
}

QString writeRaw(NVolume& v, const QString& file)
{
    const int* n = v.geSize();
    QFile f(file);
    f.open(QIODevice::WriteOnly);
    f.write(v.getData(), qint64(n[0]) * n[1] * n[2] * 2);
    return file;
}

QJsonArray json(const Vec& v)
{
    return {v[0], v[1], v[2]};
}

// Runs the peer on CASES over the volume in RAW; prints its lines.
void peer(const QString& raw, int n, const QJsonArray& cases, const QString& dir)
{
    const QJsonObject setup{{"file", raw}, {"size", QJsonArray{n, n, n}}, {"cases", cases}};
    QFile f(dir + "/cases.json");
    f.open(QIODevice::WriteOnly);
    f.write(QJsonDocument(setup).toJson());
    f.close();
    QProcess p;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("OMP_NUM_THREADS", "1");
    env.insert("OPENBLAS_NUM_THREADS", "1");
    p.setProcessEnvironment(env);
    p.setProcessChannelMode(QProcess::MergedChannels);
    p.start("/usr/bin/python3", {KESTREL_BENCH_PEER, f.fileName()});
    p.waitForFinished(-1);
    for (const QString& line : QString::fromLocal8Bit(p.readAll()).trimmed().split('\n'))
        std::printf("  peer: %s\n", qPrintable(line));
    std::fflush(stdout);
}

// Writes IMAGE's pixel points (voxel indices of an identity volume: patient mm) to FILE.
void writePoints(NDicomImage& image, const QString& file)
{
    std::vector<double> points;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x) {
            double p[3];
            image.getXYZ(x, y, p[0], p[1], p[2]);
            points.insert(points.end(), p, p + 3);
        }
    QFile f(file);
    f.open(QIODevice::WriteOnly);
    f.write(reinterpret_cast<const char*>(points.data()), qint64(points.size() * sizeof(double)));
}

void bigVolume(const QString& dir, bool withPeer)
{
    std::printf("\n== 512^3 volume of 1 mm voxels (16-bit); ours on all cores, the peer on one\n");
    auto v = syntheticVolume(512);
    const Vec centre{255.5, 255.5, 255.5};
    const Vec row = unit({1, 0.35, 0.2}), normal0 = unit({0.2, -0.3, 1});
    const Vec column = unit(cross(normal0, row)), normal = cross(row, column);
    NDicomImage image;
    report("oblique plane 512 x 512", measure(30, [&] {
               v->getDicomImage(image, centre.data(), row.data(), column.data(), 512, 512, 1, 1, 0, RenderMax);
           }));
    {
        // One plane after a pause, as a user turning the plane now and then sees it.
        const std::vector<double> ms = sortedTimesAfterPause(21, 20, [&] {
            v->getDicomImage(image, centre.data(), row.data(), column.data(), 512, 512, 1, 1, 0, RenderMax);
        });
        report("oblique plane 512 x 512, each after 20 ms idle", {ms.front(), ms[ms.size() / 2], ms.front(), ms.back()});
    }
    NDicomImage slab;
    report("oblique slab 512 x 512, 20 planes, MIP", measure(10, [&] {
               v->getDicomImage(slab, centre.data(), row.data(), column.data(), 512, 512, 1, 1, 20, RenderMax);
           }));
    // A curve of 256 steps of 1 mm: part of a helix about z, clicked at 11 points.
    QList<QVector3D> clicked;
    for (int s = 0; s <= 10; ++s) {
        const double a = s * M_PI / 16;
        clicked << QVector3D(float(256 + 150 * std::cos(a)), float(256 + 150 * std::sin(a)), float(200 + 7.5 * s));
    }
    QList<QVector3D> curve = NDicomVolume::getInterpolationPoints(clicked, 1.0);
    curve = curve.mid(0, 256);
    NDicomImage curved;
    report(qPrintable(QString("curved plane, %1 steps x 256 rows (stretched)").arg(curve.size())), measure(30, [&] {
               v->getCurvedMPRImagePlane(curved, curve, QVector3D(0, 0, -1), 256, 1.0);
           }));
    report("curved plane, the same, straightened", measure(30, [&] {
               v->getCurvedMPRImagePlaneMethodTwo(curved, curve, QVector3D(0, 0, -1), 256, 1.0);
           }));
    if (!withPeer)
        return;
    v->getCurvedMPRImagePlane(curved, curve, QVector3D(0, 0, -1), 256, 1.0);
    writePoints(curved, dir + "/curve.f64");
    const double* p = image.getPosition();
    const Vec origin{p[0], p[1], p[2]};
    const QJsonArray cases{
        QJsonObject{{"name", "oblique plane 512 x 512"}, {"origin", json(origin)}, {"dx", json(row)}, {"dy", json(column)},
                    {"dz", json(normal)}, {"width", 512}, {"height", 512}, {"layers", 1}, {"runs", 5}},
        QJsonObject{{"name", "oblique slab 512 x 512, 20 planes, MIP"}, {"origin", json(origin)}, {"dx", json(row)},
                    {"dy", json(column)}, {"dz", json(normal)}, {"width", 512}, {"height", 512}, {"layers", 20},
                    {"rule", "max"}, {"runs", 3}},
        QJsonObject{{"name", "curved plane, 256 x 256"}, {"points", dir + "/curve.f64"}, {"runs", 5}}};
    peer(writeRaw(*v, dir + "/volume512.raw"), 512, cases, dir);
    QFile::remove(dir + "/volume512.raw");
}

void rotatingMip(const QString& dir, bool withPeer)
{
    std::printf("\n== rotating MIP of a 256^3 volume: 36 directions 10 degrees apart, elevation 20\n");
    auto v = syntheticVolume(256);
    std::vector<std::unique_ptr<NDicomImage>> turns(36);
    for (auto& t : turns)
        t = std::make_unique<NDicomImage>();
    const Figures all = measure(3, [&] {
        for (int t = 0; t < 36; ++t)
            v->getDicomImage3D(*turns[size_t(t)], t * 10.0, 20, RenderMax);
    });
    report(qPrintable(QString("36 projections of %1 x %1 pixels, %1 samples a ray").arg(turns[0]->width())), all);
    if (!withPeer)
        return;
    NDicomImage& first = *turns[1];
    const double* p = first.getPosition();
    const double* o = first.getOrientation();
    const Vec row{o[0], o[1], o[2]}, column{o[3], o[4], o[5]}, normal = cross(row, column);
    const int size = first.width();
    // The peer resamples one direction's N^3 ray samples (in bands of rows) and is scaled to 36.
    const QJsonArray cases{QJsonObject{{"name", "36 projections (one done, x36)"}, {"origin", json({p[0], p[1], p[2]})},
                                       {"dx", json(row)}, {"dy", json(column)}, {"dz", json(normal)}, {"width", size},
                                       {"height", size}, {"layers", size}, {"rule", "max"}, {"chunk_rows", 16},
                                       {"runs", 1}, {"scale", 36}}};
    peer(writeRaw(*v, dir + "/volume256.raw"), 256, cases, dir);
}

// A series of COUNT images written into DIR as a catalogue-free QSeries (geometry set as the
// catalogue would).
QSeries* writeSeries(const QString& dir, SyntheticImage base, int count, const Vec& step, QObject* owner)
{
    QDir().mkpath(dir);
    const QStringList files = writeSyntheticSeries(dir, base, count, {step[0], step[1], step[2]});
    auto* series = new QSeries(owner);
    for (int k = 0; k < files.size(); ++k) {
        auto* instance = new QInstance(series);
        instance->setFilePath(files[k]);
        instance->setInstanceNumber(k + 1);
        const Vec at{base.position[0] + k * step[0], base.position[1] + k * step[1], base.position[2] + k * step[2]};
        instance->setPosition(QString("%1\\%2\\%3").arg(at[0], 0, 'g', 17).arg(at[1], 0, 'g', 17).arg(at[2], 0, 'g', 17));
        QStringList o;
        for (double c : base.orientation)
            o << QString::number(c, 'g', 17);
        instance->setOrientation(o.join('\\'));
        instance->setPixelSpacing(QString("%1\\%2").arg(base.rowSpacing).arg(base.columnSpacing));
        instance->setImageSize(base.rows, base.columns);
        series->addInstance(instance);
    }
    return series;
}

void seriesOntoSeries(const QString& dir, bool withPeer)
{
    std::printf("\n== a 176-slice sagittal 3-D series (256 x 256, 1 mm) resampled onto a 30-slice axial series "
                "(256 x 256, 0.9 mm, 5 mm apart)\n");
    QObject owner;
    const QString frame = newTestUid(), study = newTestUid();
    SyntheticImage sag;
    sag.rows = sag.columns = 256;
    sag.orientation = {0, 1, 0, 0, 0, -1};
    sag.position = {-88, -128, 128};
    sag.studyUid = study;
    sag.bitsStored = 12;
    sag.extra.push_back({DCM_FrameOfReferenceUID, frame});
    sag.pixel = [](int x, int y, int) { return 1200 + int(500 * std::sin(x / 13.0) * std::cos(y / 9.0)); };
    QSeries* source = writeSeries(dir + "/sag", sag, 176, {1, 0, 0}, &owner);
    SyntheticImage axial = sag;
    axial.seriesUid.clear();
    axial.orientation = {1, 0, 0, 0, 1, 0};
    axial.rowSpacing = axial.columnSpacing = 0.9;
    axial.position = {-115, -115, -70};
    QSeries* reference = writeSeries(dir + "/axial", axial, 30, {0, 0, 5}, &owner);
    NDicomVolume v;
    report("loadSeries of the 176 files (the volume, once)", measure(2, [&] { v.loadSeries(source); }));
    int written = 0;
    const Figures all = measure(5, [&] {
        QStringList files;
        QDir(dir + "/out").removeRecursively();
        v.createNewSeriesbyReference(reference, dir + "/out", false, &files);
        written = files.size();
    });
    report(qPrintable(QString("createNewSeriesbyReference, %1 files written").arg(written)), all);
    // The resampling alone: the 30 planes.
    std::vector<double> points;
    report("the 30 planes alone (getDicomImage each)", measure(10, [&] {
               for (QInstance* like : reference->getInstances()) {
                   const double* p = like->getPosition();
                   const double* r = like->getOrientation(0);
                   const double* c = like->getOrientation(1);
                   const double centre[3] = {p[0] + 127.5 * 0.9 * (r[0] + c[0]), p[1] + 127.5 * 0.9 * (r[1] + c[1]),
                                             p[2] + 127.5 * 0.9 * (r[2] + c[2])};
                   NDicomImage image;
                   v.getDicomImage(image, centre, r, c, 256, 256, 0.9, 0.9, 0, RenderMax);
               }
           }));
    if (!withPeer)
        return;
    for (QInstance* like : reference->getInstances())
        for (int y = 0; y < 256; ++y)
            for (int x = 0; x < 256; ++x) {
                const double* p = like->getPosition();
                const float* f = v.getPointFIJK(p[0] + 0.9 * x, p[1] + 0.9 * y, p[2]);
                points.insert(points.end(), {double(f[0]), double(f[1]), double(f[2])});
            }
    QFile f(dir + "/series.f64");
    f.open(QIODevice::WriteOnly);
    f.write(reinterpret_cast<const char*>(points.data()), qint64(points.size() * sizeof(double)));
    f.close();
    const int* n = v.geSize();
    QFile raw(dir + "/sag.raw");
    raw.open(QIODevice::WriteOnly);
    raw.write(v.getData(), qint64(n[0]) * n[1] * n[2] * 2);
    raw.close();
    // The peer volume is 256 x 256 x 176: its own description.
    const QJsonObject setup{{"file", raw.fileName()},
                           {"size", QJsonArray{n[0], n[1], n[2]}},
                           {"cases", QJsonArray{QJsonObject{{"name", "the 30 planes (resampling alone)"},
                                                            {"points", f.fileName()}, {"runs", 5}}}}};
    QFile cases(dir + "/series.json");
    cases.open(QIODevice::WriteOnly);
    cases.write(QJsonDocument(setup).toJson());
    cases.close();
    QProcess p;
    p.setProcessChannelMode(QProcess::MergedChannels);
    p.start("/usr/bin/python3", {KESTREL_BENCH_PEER, cases.fileName()});
    p.waitForFinished(-1);
    std::printf("  peer: %s\n", QString::fromLocal8Bit(p.readAll()).trimmed().toLocal8Bit().constData());
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    const bool withPeer = !app.arguments().contains("--no-peer");
    QTemporaryDir tmp;
    std::printf("Reformat benchmarks (ours: best, median and range of the runs after a warm-up; peer: scipy "
                "map_coordinates order 1, one thread, same points, the clock on the resampling alone)\n");
    bigVolume(tmp.path(), withPeer);
    rotatingMip(tmp.path(), withPeer);
    seriesOntoSeries(tmp.path(), withPeer);
    return 0;
}
