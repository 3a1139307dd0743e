// Reformats against independent answers: every pixel of oblique planes, slabs, projections and
// curved images against scipy's trilinear interpolation at the point the image states for it;
// planes on a volume's own grid against its voxels; slabs across k against the slab cutter;
// reference lines meeting at the crosshair. (The series made from volumes: tst_reformatseries.)
#include "reformatsupport.h"
#include "ndicomimage.h"
#include "ndicomvolume.h"
#include "qinstance.h"
#include "qseries.h"
#include "seriesfromfiles.h"
#include "simd/kernels_p.h"
#include "syntheticdicom.h"
#include "testcatalog.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSqlDatabase>
#include <QtTest>
#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/oflog/oflog.h>

#include <array>
#include <cmath>
#include <functional>
#include <memory>
#include <random>

using namespace kestrel::internal;


class TestReformat : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void lineSampler_data();
    void lineSampler();
    void obliquePlane_data();
    void obliquePlane();
    void ownGrid_data();
    void ownGrid();
    void slabAcrossK_data();
    void slabAcrossK();
    void projection_data();
    void projection();
    void straightCurve_data();
    void straightCurve();
    void arcCurve_data();
    void arcCurve();
    void badParameters();
    void axisQueries_data();
    void axisQueries();
    void locationLines_data();
    void locationLines();
    void realPlanes_data();
    void realPlanes();
};

void TestReformat::initTestCase()
{
    QVERIFY(openEmptyCatalogue());
}

void TestReformat::lineSampler_data()
{
    QTest::addColumn<int>("lowest");  // voxel values in [lowest, lowest + 6000)
    QTest::addColumn<int>("stride");  // output stride
    QTest::newRow("non-negative voxels") << 0 << 1;
    QTest::newRow("negative voxels") << -3000 << 1;
    QTest::newRow("negative voxels, strided output") << -6000 << 3;
}

// The vector kernel against its scalar twin on random lines, and against voxel_valued_sse4_s16
// where that one is right (voxels >= 0).
void TestReformat::lineSampler()
{
    QFETCH(int, lowest);
    QFETCH(int, stride);
    const int n[3] = {17, 13, 11};
    std::mt19937 rng(7);
    std::vector<short> voxels(size_t(n[0]) * n[1] * n[2]);
    for (short& v : voxels)
        v = short(lowest + int(rng() % 6000));
    LineSource source{reinterpret_cast<const char*>(voxels.data()), {2, 2 * n[0], 2 * n[0] * n[1]}, {n[0], n[1], n[2]}};
    std::uniform_real_distribution<double> unit01(0, 1);
    int samples = 0;
    for (int line = 0; line < 300; ++line) {
        // Odd lines run between any two points; even ones start and step on 1/512 of a voxel,
        // where float and double positions agree and voxel_valued_sse4_s16 can be held to them.
        const bool dyadic = line % 2 == 0;
        double a[3], step[3];
        int count = 1 + int(rng() % 40);
        for (int c = 0; c < 3; ++c) {
            a[c] = unit01(rng) * (n[c] - 1);
            const double b = line % 10 == 1 ? (n[c] - 1) * double(rng() % 2) : unit01(rng) * (n[c] - 1);
            step[c] = count > 1 ? (b - a[c]) / (count - 1) : 0;
            if (dyadic) {
                a[c] = std::floor(a[c] * 512) / 512;
                step[c] = std::round(step[c] * 512) / 512;
            }
        }
        if (dyadic)
            while (count > 1 && [&] {
                for (int c = 0; c < 3; ++c)
                    if (a[c] + (count - 1) * step[c] < 0 || a[c] + (count - 1) * step[c] > n[c] - 1)
                        return true;
                return false;
            }())
                --count;
        std::vector<short> fast(size_t(count) * stride, 0), twin(size_t(count) * stride, 0);
        sampleLineS16(source, a, step, count, fast.data(), stride);
        sampleLineS16Scalar(source, a, step, count, twin.data(), stride);
        QCOMPARE(fast, twin);
        if (lowest < 0 || !dyadic)
            continue;
        for (int m = 0; m < count; ++m) {
            const float x = float(a[0] + m * step[0]), y = float(a[1] + m * step[1]), z = float(a[2] + m * step[2]);
            // voxel_valued_sse4_s16 reads one voxel beyond a far edge: keep to its domain.
            if (x >= n[0] - 1 || y >= n[1] - 1 || z >= n[2] - 1)
                continue;
            const short reference = voxel_valued_sse4_s16(reinterpret_cast<char*>(voxels.data()), source.steps, x, y, z);
            QVERIFY2(reference == fast[size_t(m) * stride],
                     qPrintable(QString("%1 vs %2 at %3 %4 %5").arg(fast[size_t(m) * stride]).arg(reference).arg(x).arg(y).arg(z)));
            ++samples;
        }
    }
    QVERIFY(lowest < 0 || samples > 500);
}

void TestReformat::obliquePlane_data()
{
    QTest::addColumn<int>("content");
    QTest::addColumn<QVector<double>>("angles"); // of the plane's row and column, as turned()
    QTest::addColumn<QVector<double>>("offset"); // of the centre from the volume's middle, mm
    QTest::addColumn<QSize>("size");
    QTest::addColumn<QPointF>("spacing");
    QTest::addColumn<double>("thickness");
    QTest::addColumn<int>("render");
    QTest::newRow("ramp, double oblique plane") << int(Ramp) << QVector<double>{25, 35, -10} << QVector<double>{1, -2, 0.5}
                                                << QSize(41, 37) << QPointF(0.7, 0.8) << 0.0 << 0;
    QTest::newRow("sphere, plane partly outside") << int(Sphere) << QVector<double>{-40, 10, 70}
                                                  << QVector<double>{12, 9, -14} << QSize(60, 50) << QPointF(0.9, 0.6) << 0.0 << 0;
    QTest::newRow("tilted slab of negative voxels, plane across it")
        << int(TiltedSlab) << QVector<double>{0, 80, 5} << QVector<double>{0, 0, 0} << QSize(45, 45) << QPointF(0.8, 0.8) << 0.0 << 0;
    // Large enough to be shared between threads.
    QTest::newRow("sphere, 512 x 512 plane") << int(Sphere) << QVector<double>{-40, 10, 70} << QVector<double>{1, 2, -1}
                                             << QSize(512, 512) << QPointF(0.11, 0.09) << 0.0 << 0;
    QTest::newRow("ramp, 6 mm MIP slab") << int(Ramp) << QVector<double>{15, -20, 30} << QVector<double>{0, 3, 0}
                                         << QSize(30, 34) << QPointF(1.0, 1.0) << 6.0 << int(RenderMax);
    QTest::newRow("tilted slab, 4.5 mm MinIP slab, partly outside")
        << int(TiltedSlab) << QVector<double>{60, 0, -30} << QVector<double>{10, -8, 6} << QSize(40, 40) << QPointF(0.9, 0.9) << 4.5
        << int(RenderMin);
    QTest::newRow("sphere, 3.6 mm average slab") << int(Sphere) << QVector<double>{5, 5, 5} << QVector<double>{2, -2, 1}
                                                 << QSize(36, 36) << QPointF(0.9, 0.9) << 3.6 << int(RenderAverage);
}

void TestReformat::obliquePlane()
{
    QFETCH(int, content);
    QFETCH(QVector<double>, angles);
    QFETCH(QVector<double>, offset);
    QFETCH(QSize, size);
    QFETCH(QPointF, spacing);
    QFETCH(double, thickness);
    QFETCH(int, render);
    if (const QString skip = oracleSkip(); !skip.isEmpty())
        QSKIP(qPrintable(skip));
    auto v = makeVolume(obliqueGrid(), content);
    const auto axes = turned(angles[0], angles[1], angles[2]);
    const Vec centre = add(volumeMiddle(*v), {offset[0], offset[1], offset[2]});
    NDicomImage image;
    QVERIFY(v->getDicomImage(image, centre.data(), axes[0].data(), axes[1].data(), size.width(), size.height(),
                             spacing.x(), spacing.y(), thickness, RenderType(render)));
    // The image states the plane asked for.
    QCOMPARE(QSize(image.width(), image.height()), size);
    QCOMPARE(image.getPixelSpacing()[0], spacing.x());
    QCOMPARE(image.getPixelSpacing()[1], spacing.y());
    Vec middle;
    image.getXYZ(0, 0, middle[0], middle[1], middle[2]);
    middle = add(add(middle, axes[0], (size.width() - 1) / 2.0 * spacing.x()), axes[1], (size.height() - 1) / 2.0 * spacing.y());
    for (int a = 0; a < 3; ++a)
        QVERIFY(std::fabs(middle[size_t(a)] - centre[size_t(a)]) < 1e-9);
    const int layers = thickness > 0 ? std::max(1, int(std::lround(thickness / 0.9))) : 1;
    QTemporaryDir dir;
    const QString line = checkImage(*v, image, dir.path(), layers, 0.9, RenderType(render));
    qInfo().noquote() << line;
    QVERIFY2(!line.startsWith("FAILED"), qPrintable(line));
}

void TestReformat::ownGrid_data()
{
    QTest::addColumn<int>("content");
    QTest::newRow("ramp") << int(Ramp);
    QTest::newRow("tilted slab, negative voxels") << int(TiltedSlab);
}

// Planes on the volume's own grid (every k plane, and a j plane) are its voxels, negative ones too.
void TestReformat::ownGrid()
{
    QFETCH(int, content);
    const Grid3 g = obliqueGrid();
    auto v = makeVolume(g, content);
    for (int k = 0; k < g.n[2]; ++k) {
        NDicomImage image;
        Vec centre = add(add(add(g.origin, g.axes[0], (g.n[0] - 1) / 2.0 * g.spacing[0]), g.axes[1],
                             (g.n[1] - 1) / 2.0 * g.spacing[1]), g.axes[2], k * g.spacing[2]);
        QVERIFY(v->getDicomImage(image, centre.data(), g.axes[0].data(), g.axes[1].data(), g.n[0], g.n[1], g.spacing[0],
                                 g.spacing[1], 0, RenderMax));
        for (int j = 0; j < g.n[1]; ++j)
            for (int i = 0; i < g.n[0]; ++i)
                QCOMPARE(image.getValue16u(i, j), v->getVoxel(i, j, k));
    }
    NDicomImage across;
    const int j = 17;
    Vec centre = add(add(add(g.origin, g.axes[0], (g.n[0] - 1) / 2.0 * g.spacing[0]), g.axes[2],
                         (g.n[2] - 1) / 2.0 * g.spacing[2]), g.axes[1], j * g.spacing[1]);
    QVERIFY(v->getDicomImage(across, centre.data(), g.axes[0].data(), g.axes[2].data(), g.n[0], g.n[2], g.spacing[0],
                             g.spacing[2], 0, RenderMax));
    for (int k = 0; k < g.n[2]; ++k)
        for (int i = 0; i < g.n[0]; ++i)
            QCOMPARE(across.getValue16u(i, k), v->getVoxel(i, j, k));
}

void TestReformat::slabAcrossK_data()
{
    QTest::addColumn<int>("render");
    QTest::addColumn<int>("planes");
    QTest::addColumn<int>("index");
    for (int render : {int(RenderMax), int(RenderMin), int(RenderAverage)}) {
        QTest::addRow("%s, 5 planes in the middle", ruleName(RenderType(render))) << render << 5 << 10;
        QTest::addRow("%s, 7 planes past the first slice", ruleName(RenderType(render))) << render << 7 << 1;
    }
}

// A slab of planes on the volume's grid is the slab cutter's, however it was reached.
void TestReformat::slabAcrossK()
{
    QFETCH(int, render);
    QFETCH(int, planes);
    QFETCH(int, index);
    Grid3 g = obliqueGrid();
    g.spacing[0] = 1.0, g.spacing[1] = 1.1, g.spacing[2] = 0.8; // k the finest, so slabs sample the k planes
    auto v = makeVolume(g, TiltedSlab);
    const Vec centre = add(add(add(g.origin, g.axes[0], (g.n[0] - 1) / 2.0 * g.spacing[0]), g.axes[1],
                               (g.n[1] - 1) / 2.0 * g.spacing[1]), g.axes[2], index * g.spacing[2]);
    NDicomImage slab, cut;
    QVERIFY(v->getDicomImage(slab, centre.data(), g.axes[0].data(), g.axes[1].data(), g.n[0], g.n[1], g.spacing[0],
                             g.spacing[1], planes * 0.8, RenderType(render)));
    QVERIFY(v->getDicomImagePlane(cut, index, planes, AxisK, RenderType(render)));
    int differ = 0;
    for (int y = 0; y < g.n[1]; ++y)
        for (int x = 0; x < g.n[0]; ++x)
            differ += slab.getValue16u(x, y) != cut.getValue16u(x, y);
    QCOMPARE(differ, 0);
}

void TestReformat::projection_data()
{
    QTest::addColumn<double>("azimuth");
    QTest::addColumn<double>("elevation");
    QTest::addColumn<int>("render");
    QTest::newRow("front, MIP") << 0.0 << 0.0 << int(RenderMax);
    QTest::newRow("30/20, MIP") << 30.0 << 20.0 << int(RenderMax);
    QTest::newRow("200/-60, MinIP") << 200.0 << -60.0 << int(RenderMin);
    QTest::newRow("90/45, average") << 90.0 << 45.0 << int(RenderAverage);
}

// Every ray of a projection against the oracle; the frame is that of every other direction; the
// shift of a pixel leads to a sample of its value.
void TestReformat::projection()
{
    QFETCH(double, azimuth);
    QFETCH(double, elevation);
    QFETCH(int, render);
    if (const QString skip = oracleSkip(); !skip.isEmpty())
        QSKIP(qPrintable(skip));
    const Grid3 g{{24, 20, 16}, {1.0, 1.2, 1.5}, turned(-12, 8, 25), {-10, -12, -8}};
    auto v = makeVolume(g, Sphere);
    NDicomImage image, front;
    QVERIFY(v->getDicomImage3D(image, azimuth, elevation, RenderType(render)));
    QVERIFY(v->getDicomImage3D(front, 0, 0, RenderMax));
    QCOMPARE(QSize(image.width(), image.height()), QSize(front.width(), front.height()));
    const int layers = int(image.getijkxyz()[0]);
    QCOMPARE(image.getijkxyz()[1], 1.0);
    QCOMPARE(layers, image.width());
    QTemporaryDir dir;
    const QString line = checkImage(*v, image, dir.path(), layers, 1.0, RenderType(render));
    qInfo().noquote() << line;
    QVERIFY2(!line.startsWith("FAILED"), qPrintable(line));

    // A click on the projection goes back to the sample that gave the pixel its value.
    const double* o = image.getOrientation();
    const Vec row{o[0], o[1], o[2]}, column{o[3], o[4], o[5]}, normal = unit(cross(row, column));
    int checked = 0;
    for (int y = 0; y < image.height(); y += 3)
        for (int x = 0; x < image.width(); x += 3) {
            const double shift = v->getProjectShift(image, x, y);
            if (std::isnan(shift))
                continue;
            Vec p;
            image.getXYZ(x, y, p[0], p[1], p[2]);
            p = add(p, normal, shift);
            NDicomImage there;
            QVERIFY(v->getDicomImage(there, p.data(), row.data(), column.data(), 1, 1, 1, 1, 0, RenderMax));
            const int want = short(image.getValue16u(x, y)), got = short(there.getValue16u(0, 0));
            if (render == RenderAverage)
                continue; // the middle of the ray, not a sample of the mean
            QVERIFY2(std::abs(want - got) <= 1, qPrintable(QString("pixel %1,%2: %3, at its shift %4").arg(x).arg(y).arg(want).arg(got)));
            ++checked;
        }
    QVERIFY(render == RenderAverage || checked > 20);
    QVERIFY(std::isnan(v->getProjectShift(image, 0, 0)));
}

void TestReformat::straightCurve_data()
{
    QTest::addColumn<bool>("straightened");
    QTest::newRow("stretched") << false;
    QTest::newRow("straightened") << true;
}

// A curve through points on a straight line is the oblique plane along it.
void TestReformat::straightCurve()
{
    QFETCH(bool, straightened);
    auto v = makeVolume(obliqueGrid(), Sphere);
    const auto axes = turned(30, -25, 15);
    const Vec middle = volumeMiddle(*v);
    const double step = 0.75, spacing = 0.6;
    const Vec a = add(middle, axes[0], -15), b = add(middle, axes[0], 15); // 30 mm: 40 steps
    QList<QVector3D> clicked;
    for (double t : {0.0, 0.2, 0.55, 1.0}) {
        const Vec p = add(a, add(b, a, -1), t);
        clicked << QVector3D(float(p[0]), float(p[1]), float(p[2]));
    }
    const QList<QVector3D> curve = NDicomVolume::getInterpolationPoints(clicked, step);
    QCOMPARE(curve.size(), 41);
    const QVector3D up = QVector3D(float(axes[1][0]), float(axes[1][1]), float(axes[1][2]));
    NDicomImage curved, plane;
    const int height = 31;
    QVERIFY(straightened ? v->getCurvedMPRImagePlaneMethodTwo(curved, curve, up, height, spacing)
                         : v->getCurvedMPRImagePlane(curved, curve, up, height, spacing));
    const Vec centre{(curve.first().x() + curve.last().x()) / 2.0, (curve.first().y() + curve.last().y()) / 2.0,
                     (curve.first().z() + curve.last().z()) / 2.0};
    QVERIFY(v->getDicomImage(plane, centre.data(), axes[0].data(), axes[1].data(), curve.size(), height, step, spacing, 0,
                             RenderMax));
    QCOMPARE(QSize(curved.width(), curved.height()), QSize(plane.width(), plane.height()));
    QVERIFY(std::fabs(curved.getPixelSpacing()[0] - step) < 1e-4);
    int off = 0;
    double place = 0;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < curve.size(); ++x) {
            off = std::max(off, std::abs(int(short(curved.getValue16u(x, y))) - short(plane.getValue16u(x, y))));
            Vec p, q;
            curved.getXYZ(x, y, p[0], p[1], p[2]);
            plane.getXYZ(x, y, q[0], q[1], q[2]);
            place = std::max(place, std::sqrt(dot(add(p, q, -1), add(p, q, -1))));
        }
    QVERIFY2(off <= 1 && place < 1e-3, qPrintable(QString("values off by %1, places by %2 mm").arg(off).arg(place)));
}

void TestReformat::arcCurve_data()
{
    QTest::addColumn<bool>("straightened");
    QTest::newRow("stretched") << false;
    QTest::newRow("straightened") << true;
}

// A curve along an arc: each pixel against the oracle at the point the image states for it.
void TestReformat::arcCurve()
{
    QFETCH(bool, straightened);
    if (const QString skip = oracleSkip(); !skip.isEmpty())
        QSKIP(qPrintable(skip));
    auto v = makeVolume(obliqueGrid(), Ramp);
    const auto axes = turned(-20, 30, 10);
    const Vec middle = volumeMiddle(*v);
    QList<QVector3D> clicked;
    for (int s = 0; s <= 6; ++s) {
        const double angle = s * M_PI / 8;
        const Vec p = add(add(middle, axes[0], 14 * std::cos(angle) - 7), axes[2], 14 * std::sin(angle) - 5);
        clicked << QVector3D(float(p[0]), float(p[1]), float(p[2]));
    }
    const QList<QVector3D> curve = NDicomVolume::getInterpolationPoints(clicked, 0.8);
    QVERIFY(curve.size() > 20);
    for (int c = 1; c + 1 < curve.size(); ++c)
        QVERIFY(std::fabs(curve[c].distanceToPoint(curve[c - 1]) - 0.8f) < 1e-3f);
    for (const QVector3D& p : clicked) {
        float nearest = 1e9f;
        for (const QVector3D& q : curve)
            nearest = std::min(nearest, p.distanceToPoint(q));
        QVERIFY(nearest <= 0.41f);
    }
    NDicomImage image;
    const QVector3D up(float(axes[1][0] + 0.3 * axes[2][0]), float(axes[1][1] + 0.3 * axes[2][1]),
                       float(axes[1][2] + 0.3 * axes[2][2]));
    QVERIFY(straightened ? v->getCurvedMPRImagePlaneMethodTwo(image, curve, up, 40, 0.7)
                         : v->getCurvedMPRImagePlane(image, curve, up, 40, 0.7));
    QCOMPARE(image.getColumnPoints().size(), 3 * curve.size());
    // Column c passes through curve sample c in its middle row... (40 rows: between rows 19 and 20)
    for (int c = 0; c < curve.size(); c += 7) {
        Vec p, q;
        image.getXYZ(c, 19, p[0], p[1], p[2]);
        image.getXYZ(c, 20, q[0], q[1], q[2]);
        const Vec mid = add(p, add(q, p, -1), 0.5);
        QVERIFY(std::fabs(mid[0] - curve[c].x()) < 1e-3 && std::fabs(mid[1] - curve[c].y()) < 1e-3
                && std::fabs(mid[2] - curve[c].z()) < 1e-3);
        if (straightened) { // perpendicular to the tangent
            const QVector3D tangent = (curve[std::min(c + 1, curve.size() - 1)] - curve[std::max(c - 1, 0)]).normalized();
            QVERIFY(std::fabs(dot(unit(add(q, p, -1)), {tangent.x(), tangent.y(), tangent.z()})) < 1e-4);
        }
    }
    QTemporaryDir dir;
    const QString line = checkImage(*v, image, dir.path(), 1, 0, RenderMax);
    qInfo().noquote() << line;
    QVERIFY2(!line.startsWith("FAILED"), qPrintable(line));
}

// What the reformats refuse.
void TestReformat::badParameters()
{
    auto v = makeVolume(obliqueGrid(), Ramp);
    const Vec centre = volumeMiddle(*v);
    const double x[3] = {1, 0, 0}, y[3] = {0, 1, 0}, tilted[3] = {0.6, 0.8, 0}, longer[3] = {2, 0, 0};
    NDicomImage image;
    QVERIFY(!v->getDicomImage(image, centre.data(), x, x, 10, 10, 1, 1, 0, RenderMax)); // parallel
    QVERIFY(!v->getDicomImage(image, centre.data(), x, tilted, 10, 10, 1, 1, 0, RenderMax)); // not square
    QVERIFY(!v->getDicomImage(image, centre.data(), longer, y, 10, 10, 1, 1, 0, RenderMax)); // not unit
    QVERIFY(!v->getDicomImage(image, centre.data(), x, y, 0, 10, 1, 1, 0, RenderMax));
    QCOMPARE(image.width(), 0);
    QVERIFY(NDicomVolume::getInterpolationPoints({QVector3D(1, 2, 3)}, 1).isEmpty());
    QVERIFY(NDicomVolume::getInterpolationPoints({QVector3D(1, 2, 3), QVector3D(1, 2, 3)}, 1).isEmpty());
    QVERIFY(NDicomVolume::getInterpolationPoints({QVector3D(1, 2, 3), QVector3D(4, 2, 3)}, 0).isEmpty());
    QVERIFY(!v->getCurvedMPRImagePlane(image, {QVector3D(1, 2, 3)}, QVector3D(0, 0, 1), 10, 1));
    QVERIFY(!v->getCurvedMPRImagePlane(image, {QVector3D(1, 2, 3), QVector3D(4, 2, 3)}, QVector3D(0, 0, 0), 10, 1));
    NDicomVolume empty;
    QVERIFY(!empty.getDicomImage(image, centre.data(), x, y, 10, 10, 1, 1, 0, RenderMax));
    QVERIFY(!empty.getDicomImage3D(image, 0, 0, RenderMax));
    // Changing voxels through the volume changes the background of what follows.
    NDicomImage outside;
    const double far[3] = {500, 500, 500};
    QVERIFY(v->getDicomImage(outside, far, x, y, 2, 2, 1, 1, 0, RenderMax));
    const short before = short(outside.getValue16u(0, 0));
    v->setVoxelValue16u(3, 3, 3, quint16(-30000));
    QVERIFY(v->getDicomImage(outside, far, x, y, 2, 2, 1, 1, 0, RenderMax));
    QCOMPARE(short(outside.getValue16u(1, 1)), short(-30000));
    QVERIFY(before != -30000);
}

void TestReformat::axisQueries_data()
{
    QTest::addColumn<QVector<double>>("orientation"); // i, j, k directions
    QTest::addColumn<QVector<int>>("views");          // getAxi, getCor, getSag
    QTest::addColumn<QVector<int>>("directions");     // their MainDirection
    QTest::addColumn<QVector<int>>("closest");        // getOrinentMaxIdex of i, j, k
    QTest::addColumn<QVector<int>>("signs");          // getMainDirection of i, j, k
    QTest::newRow("axial, head first") << QVector<double>{1, 0, 0, 0, 1, 0, 0, 0, 1} << QVector<int>{3, 2, 1}
                                       << QVector<int>{1, 1, 1} << QVector<int>{0, 1, 2} << QVector<int>{1, 1, 1};
    QTest::newRow("sagittal, left to right") << QVector<double>{0, 1, 0, 0, 0, -1, -1, 0, 0} << QVector<int>{2, 1, 3}
                                             << QVector<int>{-1, 1, -1} << QVector<int>{1, 2, 0} << QVector<int>{1, -1, -1};
    QTest::newRow("coronal, oblique") << QVector<double>{0.96, 0.28, 0, 0, 0.2, -0.98, -0.28, 0.94, 0.19}
                                      << QVector<int>{2, 3, 1} << QVector<int>{-1, 1, 1} << QVector<int>{0, 2, 1}
                                      << QVector<int>{1, -1, 1};
}

void TestReformat::axisQueries()
{
    QFETCH(QVector<double>, orientation);
    QFETCH(QVector<int>, views);
    QFETCH(QVector<int>, directions);
    QFETCH(QVector<int>, closest);
    QFETCH(QVector<int>, signs);
    Grid3 g{{12, 14, 16}, {1, 1, 1}, {}, {0, 0, 0}};
    for (int a = 0; a < 3; ++a)
        g.axes[size_t(a)] = unit({orientation[3 * a], orientation[3 * a + 1], orientation[3 * a + 2]});
    auto v = makeVolume(g, Ramp);
    QCOMPARE((QVector<int>{v->getAxi(), v->getCor(), v->getSag()}), views);
    QCOMPARE((QVector<int>{v->getAxiMainDirection(), v->getCorMainDirection(), v->getSagMainDirection()}), directions);
    QCOMPARE((QVector<int>{v->getOrinentMaxIdex(1), v->getOrinentMaxIdex(2), v->getOrinentMaxIdex(3)}), closest);
    QCOMPARE((QVector<int>{v->getMainDirection(1), v->getMainDirection(2), v->getMainDirection(3)}), signs);
    QCOMPARE(v->getOrinentMaxIdex(4), -1);
    QCOMPARE((QVector<int>{v->getAxiSliceNum(), v->getCorSliceNum(), v->getSagSliceNum()}),
             (QVector<int>{g.n[views[0] - 1], g.n[views[1] - 1], g.n[views[2] - 1]}));
    // The index of a voxel's point in each view is that voxel's index along the view's axis.
    const double* p = v->getPointXYZ(5, 7, 9);
    const int ijk[3] = {5, 7, 9};
    QCOMPARE((QVector<int>{v->getAxiIndex(p[0], p[1], p[2]), v->getCorIndex(p[0], p[1], p[2]), v->getSagIndex(p[0], p[1], p[2])}),
             (QVector<int>{ijk[views[0] - 1], ijk[views[1] - 1], ijk[views[2] - 1]}));
}

void TestReformat::locationLines_data()
{
    QTest::addColumn<QString>("folder"); // of the shared data; empty: the synthetic oblique volume
    QTest::newRow("synthetic double oblique") << QString();
    QTest::newRow("siemens_t1_sag") << "siemens_t1_sag";
    QTest::newRow("philips_fmri_oblique") << "philips_fmri_oblique";
}

// The reference lines of the three standard planes through one point meet at that point in each.
void TestReformat::locationLines()
{
    QFETCH(QString, folder);
    QObject owner;
    std::unique_ptr<NDicomVolume> v;
    if (folder.isEmpty()) {
        v = makeVolume(obliqueGrid(), Ramp);
    } else {
        const QString path = sharedDataPath(folder);
        if (path.isEmpty())
            QSKIP("the shared DICOM data is not present");
        v = std::make_unique<NDicomVolume>();
        v->loadSeries(seriesFromFiles(seriesFiles(path, folder.startsWith("philips") ? "*_0001_*.dcm" : "*"), 42, &owner));
        QVERIFY(v->isValid());
    }
    const int index[3] = {v->getAxiSliceNum() / 3, v->getCorSliceNum() / 2, 2 * v->getSagSliceNum() / 3};
    NDicomImage planes[3];
    QVERIFY(v->getDicomImagePlaneAxi(planes[0], index[0], 1, RenderMax));
    QVERIFY(v->getDicomImagePlaneCor(planes[1], index[1], 1, RenderMax));
    QVERIFY(v->getDicomImagePlaneSag(planes[2], index[2], 1, RenderMax));
    // The crosshair: the one point of all three planes (Cramer's rule on their equations).
    Vec n[3];
    double d[3];
    for (int a = 0; a < 3; ++a) {
        const double* o = planes[a].getOrientation();
        n[a] = unit(cross({o[0], o[1], o[2]}, {o[3], o[4], o[5]}));
        const double* p = planes[a].getPosition();
        d[a] = dot(n[a], {p[0], p[1], p[2]});
    }
    const double det = dot(n[0], cross(n[1], n[2]));
    Vec point = add(add(Vec{0, 0, 0}, cross(n[1], n[2]), d[0] / det), cross(n[2], n[0]), d[1] / det);
    point = add(point, cross(n[0], n[1]), d[2] / det);
    for (int a = 0; a < 3; ++a) {
        QLineF first, second;
        QVERIFY(planes[a].getLocationLine(planes[(a + 1) % 3], first));
        QVERIFY(planes[a].getLocationLine(planes[(a + 2) % 3], second));
        QPointF meet;
        QVERIFY(first.intersects(second, &meet) != QLineF::NoIntersection);
        double distance = 1;
        const QPointF at = planes[a].getLocationIJ(point[0], point[1], point[2], &distance);
        QVERIFY2(QLineF(meet, at).length() < 1e-6 && std::fabs(distance) < 1e-9,
                 qPrintable(QString("plane %1: lines meet at %2,%3, the crosshair is at %4,%5 (%6 mm off the plane)")
                                .arg(a).arg(meet.x()).arg(meet.y()).arg(at.x()).arg(at.y()).arg(distance)));
        // Both ends on the image's border.
        for (const QPointF& end : {first.p1(), first.p2()}) {
            const double e = std::min({std::fabs(end.x() + 0.5), std::fabs(end.x() - planes[a].width() + 0.5),
                                       std::fabs(end.y() + 0.5), std::fabs(end.y() - planes[a].height() + 0.5)});
            QVERIFY(e < 1e-9);
        }
    }
    QCOMPARE((QVector<int>{v->getAxiIndex(point[0], point[1], point[2]), v->getCorIndex(point[0], point[1], point[2]),
                          v->getSagIndex(point[0], point[1], point[2])}),
             (QVector<int>{index[0], index[1], index[2]}));
    NDicomImage next;
    QVERIFY(v->getDicomImagePlaneAxi(next, index[0] + 1, 1, RenderMax));
    QLineF none(1, 2, 3, 4);
    QVERIFY(!planes[0].getLocationLine(next, none));
    QCOMPARE(none, QLineF(1, 2, 3, 4));
}

void TestReformat::realPlanes_data()
{
    QTest::addColumn<QString>("folder");
    QTest::addColumn<QString>("pattern");
    QTest::newRow("siemens_t1_sag") << "siemens_t1_sag" << "*";
    QTest::newRow("philips_fmri_oblique") << "philips_fmri_oblique" << "*_0001_*.dcm";
    QTest::newRow("ge_b0map_signed") << "ge_b0map_signed" << "*";
}

// A double-oblique plane and slab through real volumes against the oracle.
void TestReformat::realPlanes()
{
    QFETCH(QString, folder);
    QFETCH(QString, pattern);
    const QString path = sharedDataPath(folder);
    if (path.isEmpty())
        QSKIP("the shared DICOM data is not present");
    if (const QString skip = oracleSkip(); !skip.isEmpty())
        QSKIP(qPrintable(skip));
    QObject owner;
    NDicomVolume v;
    v.loadSeries(seriesFromFiles(seriesFiles(path, pattern), 42, &owner));
    QVERIFY(v.isValid());
    const auto axes = turned(20, 30, -15);
    const Vec centre = volumeMiddle(v);
    const double smallest = *std::min_element(v.getVoxelSpace(), v.getVoxelSpace() + 3);
    for (double thickness : {0.0, 4 * smallest}) {
        NDicomImage image;
        QVERIFY(v.getDicomImage(image, centre.data(), axes[0].data(), axes[1].data(), 96, 80, 0, 0, thickness, RenderMax));
        QTemporaryDir dir;
        const QString line = checkImage(v, image, dir.path(), thickness > 0 ? 4 : 1, smallest, RenderMax);
        qInfo().noquote() << folder << line;
        QVERIFY2(!line.startsWith("FAILED"), qPrintable(line));
    }
}

QTEST_GUILESS_MAIN(TestReformat)
#include "tst_reformat.moc"
