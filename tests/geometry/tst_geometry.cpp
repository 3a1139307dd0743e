#include "geometry/slicestack_p.h"

#include <QtTest>

#include <cmath>

using namespace kestrel::internal::geometry;

namespace {

// Row and column directions of the usual planes.
const Vec3 x{1, 0, 0}, y{0, 1, 0}, negY{0, -1, 0}, negZ{0, 0, -1};
// Tilted 37° about x: normal (0, 0.6, 0.8).
const Vec3 tiltedColumn{0, 0.8, -0.6};

struct Case {
    const char* name;
    Vec3 row, column;
    QVector<Vec3> positions; // instance numbers 1, 2, ... in this order
    QString order;           // instance numbers of the slices; empty: no volume
    double spacing, step;
    QString dropped; // instance numbers
    QString gaps;    // slice:distance
    bool startsAtFirstImage;
    Vec3 normal;
};

QVector<Vec3> along(int axis, const QVector<double>& values, Vec3 origin = {0, 0, 0})
{
    QVector<Vec3> positions;
    for (double v : values) {
        positions << origin;
        positions.last()[size_t(axis)] = v;
    }
    return positions;
}

QVector<double> steps(double first, int count, double step)
{
    QVector<double> values;
    for (int i = 0; i < count; ++i)
        values << first + i * step;
    return values;
}

// Instance numbers of a stack numbered in acquisition order: every other slice first (odd
// slices 1, 3, 5, ... then 2, 4, ...), and the order its slices take along the normal.
QVector<double> interleaved(double first, int count, double step)
{
    QVector<double> values;
    for (int start : {0, 1})
        for (int i = start; i < count; i += 2)
            values << first + i * step;
    return values;
}

QString interleavedOrder(int count, bool descending)
{
    QStringList list;
    const int odd = (count + 1) / 2;
    for (int i = 0; i < count; ++i) {
        const int slice = descending ? count - 1 - i : i; // place along the patient axis
        list << QString::number(slice % 2 == 0 ? slice / 2 + 1 : odd + slice / 2 + 1);
    }
    return list.join(',');
}

QString reversedNumbers(int count)
{
    QStringList list;
    for (int i = count; i >= 1; --i)
        list << QString::number(i);
    return list.join(',');
}

const Case cases[] = {
    {"axial", x, y, along(2, {0, 5, 10, 15}), "1,2,3,4", 5, 5, "", "", true, {0, 0, 1}},
    {"axial, scrambled", x, y, along(2, {10, 0, 5, 15}), "2,3,1,4", 5, 5, "", "", false, {0, 0, 1}},
    {"axial, numbered head to feet", x, y, along(2, {15, 10, 5, 0}), "4,3,2,1", 5, 5, "", "", false, {0, 0, 1}},
    // Normal -z: numbered head to feet runs along the normal and stays; out of place is sorted.
    {"axial, normal -z", x, negY, along(2, {0, -3, -6}), "1,2,3", 3, 3, "", "", true, {0, 0, -1}},
    {"axial, normal -z, scrambled", x, negY, along(2, {0, -6, -3}), "1,3,2", 3, 3, "", "", true, {0, 0, -1}},
    // Sagittal, normal -x: numbered right to left, so the volume starts at the left.
    {"sagittal", y, negZ, along(0, steps(-50, 20, 5), {0, -130, 130}), reversedNumbers(20), 5, 5, "", "", false,
     {-1, 0, 0}},
    {"sagittal, scrambled", y, negZ, along(0, {0, 10, 5, 15}), "4,2,3,1", 5, 5, "", "", false, {-1, 0, 0}},
    {"sagittal, numbered in acquisition order", y, negZ, along(0, interleaved(-81.6, 35, 4.8), {0, -130, 130}),
     interleavedOrder(35, true), 4.8, 4.8, "", "", false, {-1, 0, 0}},
    {"axial, numbered in acquisition order", x, y, along(2, interleaved(-40, 16, 3)), interleavedOrder(16, false), 3,
     3, "", "", true, {0, 0, 1}},
    {"coronal", x, negZ, along(1, {45, 30, 15, 0}), "4,3,2,1", 15, 15, "", "", false, {0, 1, 0}},
    {"missing last slice", x, y, along(2, {0, 5, 10, 15, 25}), "1,2,3,4", 5, 5, "5", "", true, {0, 0, 1}},
    // The image after a missing one is left out; the one after that is a spacing from it and stays.
    {"missing middle slice", x, y, along(2, {0, 5, 10, 20, 25, 30}), "1,2,3,5,6", 5, 7.5, "4", "3:15", true, {0, 0, 1}},
    // Two images per position (echoes, time points): both are frames of one slice.
    {"two images per position", x, y, along(2, {0, 0, 5, 5, 10, 10}), "1+2,3+4,5+6", 5, 5, "", "", true, {0, 0, 1}},
    {"two images per position, numbered in blocks", x, y, along(2, {0, 5, 10, 0, 5, 10}), "1+4,2+5,3+6", 5, 5, "", "",
     true, {0, 0, 1}},
    // A repeated slice is a second frame of its position, not a slice of its own.
    {"one position repeated", x, y, along(2, {0, 5, 5, 10, 15}), "1,2+3,4,5", 5, 5, "", "", true, {0, 0, 1}},
    {"one position only", x, y, along(2, {4, 4}), "", 0, 0, "", "", false, {}},
    {"single image", x, y, along(2, {4}), "", 0, 0, "", "", false, {}},
    // Distances 2, 2.008, 2.016 chain into one cluster, represented by its smallest, and outnumber
    // the two of 1.5; the first image always stays.
    {"spacing, close distances", x, y, along(2, {0, 1.5, 3, 5, 7.008, 9.024}), "1,4,5,6", 2, 9.024 / 3, "2,3", "1:5",
     true, {0, 0, 1}},
    {"spacing, tie to the smaller", x, y, along(2, {0, 3, 6, 11, 16}), "1,2,3", 3, 3, "4,5", "", true, {0, 0, 1}},
    {"tilted, scrambled", x, tiltedColumn, {{0, 6, 8}, {0, 0, 0}, {0, 9, 12}, {0, 3, 4}}, "2,4,1,3", 5, 5, "", "",
     false, {0, 0.6, 0.8}},
    // Gantry tilt: the table moves along z; distances are measured between positions, not along the normal.
    {"gantry tilt", x, tiltedColumn, along(2, {0, 5, 10}), "1,2,3", 5, 5, "", "", true, {0, 0.6, 0.8}},
};

bool near(double a, double b)
{
    return std::fabs(a - b) < 1e-9;
}

} // namespace

class TestGeometry : public QObject
{
    Q_OBJECT
private slots:
    void stacks_data();
    void stacks();
    void mixedAxes();
    void axes();
    void frames_data();
    void frames();
    void grids();
};

void TestGeometry::stacks_data()
{
    QTest::addColumn<int>("index");
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i)
        QTest::newRow(cases[i].name) << int(i);
}

void TestGeometry::stacks()
{
    QFETCH(int, index);
    const Case& c = cases[index];
    std::vector<StackImage> images;
    for (int i = 0; i < c.positions.size(); ++i)
        images.push_back({c.positions[i], c.row, c.column, true, i + 1, 100 + i});
    const SliceStack stack = buildSliceStack(images);

    QStringList order, dropped, gaps;
    for (const StackSlice& slice : stack.slices) {
        QStringList frames;
        for (const StackFrame& frame : slice.frames) {
            QCOMPARE(qint64(frame.key), qint64(100 + frame.instanceNumber - 1));
            QVERIFY(slice.position == c.positions[frame.instanceNumber - 1]);
            frames << QString::number(frame.instanceNumber);
        }
        order << frames.join('+');
    }
    for (std::int64_t key : stack.dropped)
        dropped << QString::number(key - 99);
    for (const StackGap& gap : stack.gaps)
        gaps << QString("%1:%2").arg(gap.slice).arg(gap.distance);
    QCOMPARE(order.join(','), c.order);
    QCOMPARE(dropped.join(','), c.dropped);
    QCOMPARE(gaps.join(','), c.gaps);
    QCOMPARE(stack.startsAtFirstImage, c.startsAtFirstImage);
    if (stack.slices.empty())
        return;
    // Images per position: the same at every slice, or 0 when a position is repeated.
    QSet<int> counts;
    for (const QString& slice : c.order.split(','))
        counts << slice.count('+') + 1;
    QCOMPARE(stack.framesPerSlice, counts.size() == 1 ? *counts.begin() : 0);
    QVERIFY2(near(stack.spacing, c.spacing), qPrintable(QString::number(stack.spacing)));
    QVERIFY2(near(stack.step, c.step), qPrintable(QString::number(stack.step)));
    for (int a = 0; a < 3; ++a)
        QVERIFY2(near(stack.normal[size_t(a)], c.normal[size_t(a)]), qPrintable(QString("normal %1").arg(a)));
    // The axis runs from the first slice to the last, a step per slice.
    const Vec3 first = stack.slices.front().position, last = stack.slices.back().position;
    const double extent = stack.step * double(stack.slices.size() - 1);
    for (size_t a = 0; a < 3; ++a)
        QVERIFY(near(first[a] + stack.axis[a] * extent, last[a]));
}

void TestGeometry::mixedAxes()
{
    // Images of another plane are not sorted against the first; the result is turned to run
    // along the first image's normal.
    const SliceStack stack = buildSliceStack({{{0, 0, 10}, x, y, true, 1, 1}, {{0, 0, 0}, x, negZ, true, 2, 2}});
    QCOMPARE(int(stack.slices.size()), 2);
    QCOMPARE(QList<int>({stack.slices[0].frames[0].instanceNumber, stack.slices[1].frames[0].instanceNumber}),
             QList<int>({2, 1}));
    QVERIFY(!stack.startsAtFirstImage);
}

void TestGeometry::axes()
{
    // Image normals and their sort axis: scaled by the stored rule, ties to the higher axis.
    const struct {
        Vec3 row, column, normal;
        int sortAxis;
    } images[] = {
        {x, y, {0, 0, 1}, 2},
        {x, negZ, {0, 1, 0}, 1},  // the scale is 0 here, left unscaled
        {y, negZ, {-1, 0, 0}, 2}, // negative components never win
        {x, negY, {0, 0, -1}, 1},
        {x, tiltedColumn, {0, 0.6 / std::sqrt(0.48 + 0.64), 0.8 / std::sqrt(0.48 + 0.64)}, 2},
    };
    for (const auto& i : images) {
        const Vec3 n = imageNormal(i.row, i.column);
        QVERIFY(near(n[0], i.normal[0]) && near(n[1], i.normal[1]) && near(n[2], i.normal[2]));
        QCOMPARE(signedMainAxis(n), i.sortAxis);
    }

    // Voxel axis closest to each patient axis; at 45° the later patient axis takes the direction.
    const double s = std::sqrt(0.5);
    const struct {
        double orientation[9];
        int alongX, alongY, alongZ;
    } volumes[] = {
        {{0, 1, 0, 0, 0, -1, 1, 0, 0}, 2, 0, 1},
        {{s, s, 0, -s, s, 0, 0, 0, 1}, -1, 1, 2},
        {{1, 0, 0, 0, 1, 0, 0, 0, 1}, 0, 1, 2},
    };
    for (const auto& v : volumes)
        QCOMPARE(QList<int>({voxelAxisAlong(v.orientation, 0), voxelAxisAlong(v.orientation, 1),
                             voxelAxisAlong(v.orientation, 2)}),
                 QList<int>({v.alongX, v.alongY, v.alongZ}));
    QCOMPARE(QList<int>({strictMainAxis({0.2, 0.9, 0.1}), strictMainAxis({-0.2, 0.1, -0.95}),
                         strictMainAxis({1, -1, 0.5})}),
             QList<int>({1, 2, -1}));
}

// Images as "z/acquisition" in instance-number order (instance numbers 1, 2, ...); frames as
// "acquisition/repeat:" and the instance number at each slice ("-" where none), frame after frame.
void TestGeometry::frames_data()
{
    QTest::addColumn<QString>("images");
    QTest::addColumn<QString>("frames");
    QTest::addColumn<QString>("missing");
    QTest::newRow("two acquisitions") << "0/0 5/0 10/0 0/1 5/1 10/1" << "0/0:1,2,3 1/0:4,5,6" << "0,0";
    QTest::newRow("repeats in instance order") << "0/0 5/0 10/0 0/0 5/0 10/0" << "0/0:1,2,3 0/1:4,5,6" << "0,0";
    QTest::newRow("interleaved time points") << "0/0 0/1 5/0 5/1 10/0 10/1" << "0/0:1,3,5 1/0:2,4,6" << "0,0";
    QTest::newRow("acquisition ranks, not first appearance") << "0/1 5/1 10/1 0/0 5/0 10/0" << "0/0:4,5,6 1/0:1,2,3" << "0,0";
    QTest::newRow("one image missing") << "0/0 5/0 10/0 0/1 10/1" << "0/0:1,2,3 1/0:4,-,5" << "0,1";
    QTest::newRow("numbered against the normal") << "10/0 5/0 0/0 10/1 5/1 0/1" << "0/0:3,2,1 1/0:6,5,4" << "0,0";
    QTest::newRow("one position repeated") << "0/0 5/0 10/0 5/0" << "0/0:1,2,3 0/1:-,4,-" << "0,2";
    QTest::newRow("off the spacing: in no frame") << "0/0 5/0 10/0 13/0 18/0" << "0/0:1,2,3,5" << "0";
    QTest::newRow("one position only") << "0/0 0/1" << "" << "";
}

void TestGeometry::frames()
{
    QFETCH(QString, images);
    QFETCH(QString, frames);
    QFETCH(QString, missing);
    std::vector<StackImage> given;
    for (const QString& image : images.split(' ')) {
        StackImage i{{0, 0, image.section('/', 0, 0).toDouble()}, x, y, true, int(given.size()) + 1, 100 + qint64(given.size())};
        i.acquisition = image.section('/', 1, 1).toInt();
        given.push_back(i);
    }
    const FrameStack stack = buildFrameStack(given);
    QStringList found, lacking;
    for (const StackFrameSeries& frame : stack.frames) {
        QStringList slices;
        for (size_t k = 0; k < frame.keys.size(); ++k) {
            const bool none = frame.keys[k] == kNoImage;
            QCOMPARE(none, frame.instanceNumbers[k] == 0);
            QVERIFY(none || frame.keys[k] == 99 + frame.instanceNumbers[k]);
            slices << (none ? "-" : QString::number(frame.instanceNumbers[k]));
        }
        found << QString("%1/%2:%3").arg(frame.acquisition).arg(frame.repeat).arg(slices.join(','));
        lacking << QString::number(frame.missing);
    }
    QCOMPARE(found.join(' '), frames);
    QCOMPARE(lacking.join(','), missing);
    // Images at the slice positions, along the normal: the frames share the stack's slices.
    for (const StackFrameSeries& frame : stack.frames)
        QCOMPARE(frame.keys.size(), stack.stack.slices.size());
}

void TestGeometry::grids()
{
    // Images of one grid share row and column directions (within 0.8°), matrix and pixel spacing;
    // images without orientation are in none.
    auto image = [](Vec3 row, Vec3 column, int rows, double spacing) {
        StackImage i{{0, 0, 0}, row, column, true, 1, 0};
        i.rows = rows;
        i.columns = 64;
        i.pixelSpacing = {spacing, spacing};
        return i;
    };
    const double tiny = std::sin(0.5 * M_PI / 180); // 0.5°: still one plane
    std::vector<StackImage> images = {
        image(x, y, 64, 1),
        image(x, negZ, 64, 1),                    // coronal
        image(normalized({1, tiny, 0}), y, 64, 1), // a hair off the first: same grid
        image(x, y, 32, 1),                       // another matrix
        image(x, y, 64, 1.00001),                 // spacing within 1e-4
        image(x, y, 64, 1.1),                     // another spacing
        image(y, x, 64, 1),                       // rows and columns swapped
    };
    images.push_back(image(x, y, 64, 1));
    images.back().oriented = false;
    QStringList groups;
    for (const std::vector<int>& group : gridGroups(images)) {
        QStringList members;
        for (int i : group)
            members << QString::number(i);
        groups << members.join(',');
    }
    QCOMPARE(groups.join(' '), QString("0,2,4 1 3 5 6"));
    int positions = 0;
    QCOMPARE(mostAtOnePosition(images, &positions), 8);
    QCOMPARE(positions, 1);
}

QTEST_GUILESS_MAIN(TestGeometry)
#include "tst_geometry.moc"
