#include "fileimage.h"
#include "image/imageio_p.h"
#include "ndicomimage.h"
#include "syntheticdicom.h"
#include "testcatalog.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>

#include <QRandomGenerator>
#include <QtTest>

#include <cmath>
#include <memory>
#include <thread>
#include <vector>

using namespace kestrel::internal;

namespace {

// A W x H image whose stored value of pixel (x, y) is f(x, y).
std::unique_ptr<NDicomImage> makeImage(int w, int h, const std::function<int(int, int)>& f)
{
    std::unique_ptr<NDicomImage> img(new NDicomImage(w, h, 2));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            img->setValue16u(x, y, quint16(f(x, y)));
    return img;
}

// A measurement as one comparable list: mean, size, max, min.
QList<double> stats(const markShowValue& v)
{
    return {v.mean, v.size, double(v.max), double(v.min)};
}

} // namespace

class TestImage : public QObject
{
    Q_OBJECT
private slots:
    void fieldsAndPixelAccess();
    void windowing();
    void standardOrientation_data();
    void standardOrientation();
    void expandAndNormal();
    void regionMeasurements();
    void lineMeasurements();
    void regionsOfAnySize();
    void pointsAndSectors();
    void readSigned_data();
    void readSigned();
    void badFiles();
    void saveRoundTrip();
    void exportedValues_data();
    void exportedValues();
    void storedValues_data();
    void storedValues();
    void saveInTemplateCharacterSet_data();
    void saveInTemplateCharacterSet();
    void realCtShift();
};

void TestImage::fieldsAndPixelAccess()
{
    NDicomImage img;
    QVERIFY(!img.data() && img.getPixStep() == 2);
    img.setSize(10, 4, 13); // type 13: four bytes a pixel
    QCOMPARE(QList<int>({img.getPixStep(), img.getSteps()[1], img.getSteps()[2]}), QList<int>({4, 40, 160}));
    img.setSize(10, 4, 4);
    QCOMPARE(QList<int>({img.getPixStep(), img.getSteps()[1], img.getSteps()[2]}), QList<int>({2, 20, 80}));
    QVERIFY(!img.getOrientation(2) && !img.getOrientation(-1) && img.getOrientation(1) == img.getOrientation() + 3);

    // Signed values: slope and intercept on the stored value read as signed; outside: the intercept.
    img.setSlopeAndIntercept(2, -1024);
    img.setValue16u(3, 2, 600);
    img.setValue16u(0, 0, 0xFFFF); // -1: 2 * -1 - 1024
    QCOMPARE(QList<int>({img.getValue16s(3, 2), img.getValue16s(0, 0), img.getValue16s(10, 2), img.getValue16s(-1, 0)}),
             QList<int>({176, -1026, -1024, -1024}));

    std::vector<char> bytes(80, 7);
    QVERIFY(!img.setPixData(bytes.data(), 79));
    QVERIFY(img.setPixData(bytes.data(), 80));
    NDicomImage fresh;
    fresh.setSize(4, 4);
    QVERIFY(!fresh.setPixData(nullptr, 32));
}

void TestImage::windowing()
{
    // Window 400 / 40 on stored values with intercept -1024: ends map to 0 and 255.
    auto img = makeImage(6, 1, [](int x, int) { return std::vector<int>{1024 - 160, 1024 + 240, 0x8000, 0x7FFF, 1024 + 40, 0}[size_t(x)]; });
    img->setSlopeAndIntercept(1, -1024);
    unsigned int out[6];
    QVERIFY(img->getGrayImage32(400, 40, out));
    QCOMPARE(QList<unsigned>(out, out + 6), QList<unsigned>({0, 0xFFFFFFFFu, 0, 0, 127u * 0x01010101u, 0}));

    // The table follows changes of the rescale pair and window between calls.
    img->setSlopeAndIntercept(1, 0);
    QVERIFY(img->getGrayImage32(400, 40, out));
    QCOMPARE(out[0], 255u * 0x01010101u);
    QVERIFY(img->getGrayImage32(4000, 2000, out));
    QCOMPARE(out[4], quint32((1064.0 / 4000 * 255)) * 0x01010101u);

    // Every table entry against the formula, with a fractional slope, and width 0 acting as 2.
    // The image holds every value four times over, large enough to be windowed in chunks shared
    // between threads; four callers at once each get their own image whole.
    const auto expected = [](double width, int v) {
        const double w = width < 2 ? 2 : width;
        const double g = (v * 1.29 - 7.5 - 500 + w / 2) / w * 255.0;
        return (v >= 32767 ? 0 : quint32(std::clamp(int(g), 0, 255))) * 0x01010101u;
    };
    const std::vector<double> widths{0.0, 1000.0, 33.3, 77.0};
    std::vector<int> wrong(widths.size(), 0);
    std::vector<std::thread> callers;
    for (size_t t = 0; t < widths.size(); ++t)
        callers.emplace_back([&, t] {
            auto ramp = makeImage(256, 1024, [](int x, int y) { return (x + 256 * y) & 0xFFFF; });
            ramp->setSlopeAndIntercept(1.29, -7.5);
            std::vector<unsigned int> grey(256 * 1024);
            for (int round = 0; round < 10; ++round) {
                const double width = widths[(t + size_t(round)) % widths.size()];
                std::fill(grey.begin(), grey.end(), 0xDEADBEEFu);
                if (!ramp->getGrayImage32(width, 500, grey.data()))
                    ++wrong[t];
                for (size_t i = 0; i < grey.size(); ++i)
                    if (grey[i] != expected(width, int(i & 0xFFFF))) {
                        ++wrong[t];
                        break;
                    }
            }
        });
    for (std::thread& c : callers)
        c.join();
    QCOMPARE(wrong, std::vector<int>(widths.size(), 0));

    // Colour images are copied as they are; other pixel steps write nothing.
    NDicomImage colour(2, 1, 4);
    const quint32 rgba[2] = {0x11223344u, 0x55667788u};
    QVERIFY(colour.setPixData(reinterpret_cast<const char*>(rgba), 8));
    unsigned int copied[2] = {0, 0};
    QVERIFY(!colour.getGrayImage32(400, 40, copied));
    QCOMPARE(copied[1], 0x55667788u);
    NDicomImage bytes(2, 1, 1);
    QVERIFY(!bytes.getGrayImage32(400, 40, copied));
}

void TestImage::standardOrientation_data()
{
    QTest::addColumn<QVector<double>>("cosines");
    QTest::addColumn<QVector<double>>("expected");
    QTest::addColumn<bool>("swapped");
    QTest::newRow("axial as is") << QVector<double>{1, 0, 0, 0, 1, 0} << QVector<double>{1, 0, 0, 0, 1, 0} << false;
    QTest::newRow("axial reversed") << QVector<double>{-1, 0, 0, 0, -1, 0} << QVector<double>{1, 0, 0, 0, 1, 0} << false;
    QTest::newRow("axial transposed") << QVector<double>{0, 1, 0, -1, 0, 0} << QVector<double>{1, 0, 0, 0, 1, 0} << true;
    QTest::newRow("axial oblique") << QVector<double>{0.2, 0.98, 0, 0.98, -0.2, 0} << QVector<double>{0.98, -0.2, 0, 0.2, 0.98, 0} << true;
    QTest::newRow("coronal as is") << QVector<double>{1, 0, 0, 0, 0, -1} << QVector<double>{1, 0, 0, 0, 0, -1} << false;
    QTest::newRow("coronal reversed") << QVector<double>{1, 0, 0, 0, 0, 1} << QVector<double>{1, 0, 0, 0, 0, -1} << false;
    QTest::newRow("coronal transposed") << QVector<double>{0, 0, 1, -1, 0, 0} << QVector<double>{1, 0, 0, 0, 0, -1} << true;
    QTest::newRow("sagittal as is") << QVector<double>{0, 1, 0, 0, 0, -1} << QVector<double>{0, 1, 0, 0, 0, -1} << false;
    QTest::newRow("sagittal reversed") << QVector<double>{0, -1, 0, 0, 0, -1} << QVector<double>{0, 1, 0, 0, 0, -1} << false;
    QTest::newRow("sagittal transposed") << QVector<double>{0, 0, 1, 0, -1, 0} << QVector<double>{0, 1, 0, 0, 0, -1} << true;
}

void TestImage::standardOrientation()
{
    QFETCH(QVector<double>, cosines);
    QFETCH(QVector<double>, expected);
    QFETCH(bool, swapped);
    // Odd sizes, so that whole 8 x 8 blocks and the edges beside them are both rearranged.
    const int w = 21, h = 13;
    auto img = makeImage(w, h, [w](int x, int y) { return x + w * y; });
    img->setPixelSpace(0.5, 2.0);
    img->setPosition(10, 20, 30);
    const double* c = cosines.constData();
    img->setOriention(c[0], c[1], c[2], c[3], c[4], c[5]);
    NDicomImage before;
    before.clone(img.get());

    QVERIFY(img->getStandardDicomImage(*img));
    QCOMPARE(QSize(img->width(), img->height()), swapped ? QSize(h, w) : QSize(w, h));
    QCOMPARE(img->getPixelSpacing()[0], swapped ? 2.0 : 0.5);
    for (int i = 0; i < 6; ++i)
        QCOMPARE(img->getOrientation()[i] + 1.0, expected[i] + 1.0);
    const double* n = img->getreorientationz();
    QVERIFY(std::fabs(n[0] * n[0] + n[1] * n[1] + n[2] * n[2] - 1.0) < 1e-9);
    // Every pixel keeps its patient point.
    for (int y = 0; y < img->height(); ++y)
        for (int x = 0; x < img->width(); ++x) {
            const int v = img->getValue16u(x, y);
            double a[3], b[3];
            img->getXYZ(x, y, a[0], a[1], a[2]);
            before.getXYZ(v % w, v / w, b[0], b[1], b[2]);
            for (int k = 0; k < 3; ++k)
                QVERIFY2(std::fabs(a[k] - b[k]) < 1e-9, qPrintable(QString("pixel %1,%2").arg(x).arg(y)));
        }
    if (QTest::currentDataTag() == QLatin1String("axial transposed")) // old pixel (0, h - 1) is the corner
        QCOMPARE(int(img->getValue16u(0, 0)), w * (h - 1));

    // Row and column sharing their dominant axis: refused, image unchanged.
    img->setOriention(1, 0, 0, 0.9, 0.1, 0.4);
    QVERIFY(!img->getStandardDicomImage(*img));
    QCOMPARE(img->getOrientation()[3], 0.9);
}

void TestImage::expandAndNormal()
{
    // The canvas grows to the diagonal, the corner moves back along row and column.
    NDicomImage img(512, 512, 2);
    img.setPixelSpace(0.5, 2.0);
    img.setPosition(1, 2, 3);
    img.setOriention(0, 1, 0, 0, 0, -1);
    img.expandImageSize();
    QCOMPARE(QList<int>({img.width(), img.height(), img.getSteps()[2]}), QList<int>({731, 731, 731 * 731 * 2}));
    QCOMPARE(QList<double>(img.getPosition(), img.getPosition() + 3), QList<double>({1.0, 2.0 - 110 * 0.5, 3.0 + 110 * 2.0}));
    NDicomImage wide(100, 50, 2);
    wide.expandImageSize(); // 142 x 71, corner moved by (-22, -11) pixels
    QCOMPARE(QList<double>({double(wide.width()), double(wide.height()), wide.getPosition()[0], wide.getPosition()[1]}),
             QList<double>({142, 71, -22, -11}));

    wide.setOriention(0, 2, 0, 0, 0, 3);
    QCOMPARE(wide.getreorientationz()[0], 1.0);
    wide.setOriention(1, 0, 0, 2, 0, 0);
    QVERIFY(std::isnan(wide.getreorientationz()[0]));
    wide.setOriention(1, 0, 0, 0, 1, 0);
    wide.caclulateImageMidPoint();
    QCOMPARE(wide.getImageMidPoint()[0], -22.0 + 71);
}

void TestImage::regionMeasurements()
{
    // Rectangles and ellipses of any place and size against a visit of every pixel:
    // regionsOfAnySize. Here what that visit does not check: a rectangle's size, values all below
    // -1 leaving max at -1, an ellipse without area, polygons.
    auto img = makeImage(8, 8, [](int x, int y) { return 10 * x + y; });
    // A rectangle's size is its nominal area (2 x 2 at (0.5, 0.5): nine pixels over 4).
    QCOMPARE(stats(img->getRect(QRectF(0.5, 0.5, 2, 2))), QList<double>({9 * 11 / 4.0, 4, 22, 0}));
    img->setSlopeAndIntercept(1, -500);
    QCOMPARE(img->getRect(QRectF(0, 0, 3, 3)).max, -1);
    img->setSlopeAndIntercept(1, 0);
    QVERIFY(std::isnan(img->getEllipse(QRectF(1, 1, 0, 0)).mean));

    const markShowValue triangle = img->getPolygon(QPolygonF({QPointF(0, 0), QPointF(4, 0), QPointF(0, 4)}));
    QCOMPARE(triangle.size, 10.0); // points with x + y < 4, plus the ones on the slanted edge per odd-even
    QCOMPARE(triangle.max, 30);
    const markShowValue none = img->getPolygon(QPolygonF());
    QVERIFY(std::isnan(none.mean) && none.size == 0);
}

void TestImage::lineMeasurements()
{
    auto img = makeImage(16, 16, [](int x, int y) { return x + 100 * y; });
    const int lowest = std::numeric_limits<int>::min();
    // Columns 0..9 summed, divided by 11; rows 2..5 of a vertical line, divided by 5.
    QCOMPARE(stats(img->getLine(QLineF(0, 0, 10, 0), 0.5, 2.0)).mid(0, 3), QList<double>({45.0 / 11, 5, 9}));
    QCOMPARE(stats(img->getLine(QLineF(3, 2, 3, 6), 0.5, 2.0)).mid(0, 2), QList<double>({(4 * 3 + 100.0 * (2 + 3 + 4 + 5)) / 5, 8}));
    QCOMPARE(stats(img->getLine(QLineF(2, 2, 2, 2), 1, 1)), QList<double>({0, 0, double(lowest), 2147483647}));
    // One sample per column: (0,0) (1,2) (2,4) (3,6).
    QCOMPARE(img->getLine(QLineF(0, 0, 4, 8), 1, 1).mean, (0 + 201 + 402 + 603) / 5.0);

    // The second segment is vertical: no sample, mean 0.
    const QPolygonF path({QPointF(0, 0), QPointF(10, 0), QPointF(10, 0.5)});
    QCOMPARE(stats(img->getPolygonLine(path, 1, 1)).mid(0, 3), QList<double>({(11 * (45.0 / 11) + 1 * 0.0) / 12, 10.5, 9}));
    const markShowValue point = img->getPolygonLine(QPolygonF({QPointF(1, 1)}), 1, 1);
    QVERIFY(point.max == -1 && point.mean == 0);
}

// The measurements read only the part of a region inside the image: they must agree with a
// visit of every pixel on regions around the image's edges, and finish at once on regions of any
// size or position (a viewer measures on every mouse move).
void TestImage::regionsOfAnySize()
{
    auto img = makeImage(8, 6, [](int x, int y) { return 10 * x + y; });
    img->setSlopeAndIntercept(2, 5);
    const int outside = 5;
    auto value = [&](qint64 x, qint64 y) { return x >= 0 && x < 8 && y >= 0 && y < 6 ? 2 * (10 * int(x) + int(y)) + 5 : outside; };
    // The written scans, pixel by pixel.
    auto visit = [&](const QRectF& r, const std::function<bool(qint64, qint64)>& counts) {
        double sum = 0;
        qint64 n = 0;
        int max = -1, min = 2147483647;
        for (qint64 x = qint64(r.x()); double(x) < r.x() + r.width(); ++x)
            for (qint64 y = qint64(r.y()); double(y) < r.y() + r.height(); ++y)
                if (counts(x, y)) {
                    sum += value(x, y);
                    ++n;
                    max = std::max(max, value(x, y));
                    min = std::min(min, value(x, y));
                }
        return QList<double>{sum, double(n), double(max), double(min)};
    };
    QRandomGenerator random(20261124);
    for (int i = 0; i < 400; ++i) {
        const QRectF r(random.bounded(-60, 140) / 10.0, random.bounded(-60, 120) / 10.0, random.bounded(-20, 120) / 10.0,
                       random.bounded(-20, 120) / 10.0);
        const QList<double> all = visit(r, [](qint64, qint64) { return true; });
        const markShowValue rect = img->getRect(r);
        QCOMPARE(QList<double>({double(rect.max), double(rect.min)}), all.mid(2));
        if (r.width() * r.height() != 0)
            QCOMPARE(rect.mean, all[0] / (r.width() * r.height()));
        const QList<double> in = visit(r, [&](qint64 x, qint64 y) {
            const double dx = x + 0.5 - r.x() - r.width() / 2, dy = y + 0.5 - r.y() - r.height() / 2;
            return 4 * dx * dx / (r.width() * r.width()) + 4 * dy * dy / (r.height() * r.height()) < 1.0;
        });
        const markShowValue ellipse = img->getEllipse(r);
        QCOMPARE(QList<double>({ellipse.size, double(ellipse.max), double(ellipse.min)}), in.mid(1));
        if (in[1] > 0)
            QCOMPARE(ellipse.mean, in[0] / in[1]);
        const QLineF line(r.topLeft(), r.bottomRight());
        const markShowValue measured = img->getLine(line, 1, 1);
        double sum = 0;
        if (line.x1() == line.x2()) {
            for (qint64 y = qint64(std::min(line.y1(), line.y2())); y < qint64(std::max(line.y1(), line.y2())); ++y)
                sum += value(qint64(line.x1()), y);
        } else {
            const double k = (line.y1() - line.y2()) / (line.x1() - line.x2()), c = line.y1() - line.x1() * k;
            for (qint64 x = qint64(std::min(line.x1(), line.x2())); x < qint64(std::max(line.x1(), line.x2())); ++x)
                sum += value(x, qint64(double(x) * k + c));
        }
        if (line.length() != 0) {
            const double to = line.x1() == line.x2() ? std::max(line.y1(), line.y2()) : std::max(line.x1(), line.x2());
            const double from = line.x1() == line.x2() ? std::min(line.y1(), line.y2()) : std::min(line.x1(), line.x2());
            QCOMPARE(measured.mean, sum / double(qint64(to) - qint64(from) + 1));
        }
    }

    // Far away, huge, or not finite: answered at once. Everything outside reads the intercept.
    const markShowValue far = img->getRect(QRectF(2147483647, 0, 1, 1));
    QCOMPARE(stats(far), QList<double>({5, 1, 5, 5}));
    const markShowValue straddling = img->getRect(QRectF(2147483640, 0, 10, 2));
    QCOMPARE(stats(straddling), QList<double>({5, 20, 5, 5}));
    const markShowValue huge = img->getRect(QRectF(0, 0, 30000, 30000));
    const double inside = 2.0 * (6 * (10 * 28) + 8 * 15) + 5 * 48;
    QCOMPARE(huge.mean, (inside + 5.0 * (9e8 - 48)) / 9e8);
    QCOMPARE(stats(img->getEllipse(QRectF(2147483647, 0, 2, 2))), QList<double>({5, 4, 5, 5}));
    QCOMPARE(img->getEllipse(QRectF(-1e6, -1e6, 2e6 + 8, 2e6 + 6)).max, 2 * 75 + 5);
    QCOMPARE(img->getLine(QLineF(-1e9, 3, 1e9, 3), 1, 1).mean, (2.0 * (10 * 28 + 8 * 3) + 5 * 8 + 5 * (2e9 - 8)) / (2e9 + 1));
    const double inf = std::numeric_limits<double>::infinity();
    QCOMPARE(stats(img->getRect(QRectF(10, 10, inf, inf))), QList<double>({0, 0, -1, 2147483647}));
    QCOMPARE(img->getLine(QLineF(0, 0, inf, 1), 1, 1).size, 0.0);
}

void TestImage::pointsAndSectors()
{
    NDicomImage img;
    const QRectF r(0, 0, 10, 4);
    QVERIFY(img.contains(r, QPointF(5, 2)) && !img.contains(r, QPointF(0, 0)));
    QVERIFY(!img.contains(r, QPointF(10, 2))); // on the ellipse
    QVERIFY(img.ellipseContains(r, QPointF(100, 100), QPointF(104.9, 100)));
    QVERIFY(!img.ellipseContains(r, QPointF(100, 100), QPointF(100, 102)));

    auto peak = makeImage(10, 10, [](int x, int y) { return (x == 6 && y == 3) ? 900 : (x >= 5 ? 100 : 0); });
    const QPolygonF box({QPointF(0, 0), QPointF(9, 0), QPointF(9, 9), QPointF(0, 9)});
    QCOMPARE(peak->pointbetween1(box), QPointF(6, 3));
    auto step = makeImage(10, 10, [](int x, int) { return x >= 5 ? 100 : 0; });
    QCOMPARE(step->pointbetween(box), QPointF(4, 1)); // first pixel of the strongest edge
    QCOMPARE(makeImage(4, 4, [](int, int) { return 0; })->pointbetween1(box), QPointF(1, 1));

    // Sectors of two crossing lines; vessel slots add up to the ellipse.
    const QLineF l1(0, 5, 10, 5), l2(5, 0, 5, 10);
    QCOMPARE(QList<int>({img.getSectorRegion(l1, l2, 2, 2), img.getSectorRegion(l1, l2, 8, 8),
                         img.getSectorRegion(l1, l2, 2, 8), img.getSectorRegion(l1, l2, 8, 2)}),
             QList<int>({2, 1, 3, 0}));
    auto field = makeImage(10, 10, [](int x, int y) { return x + y; });
    QPolygonF inner({QPointF(2, 2), QPointF(8, 2), QPointF(8, 8), QPointF(2, 8)});
    const QList<markShowValue> vessel = field->getVesselInfo(QRectF(0, 0, 10, 10), {inner}, l1, l2);
    QCOMPARE(vessel.size(), 8);
    double total = 0, insideTotal = 0;
    for (int i = 0; i < 4; ++i) {
        total += vessel[i].size;
        insideTotal += vessel[4 + i].size;
    }
    QCOMPARE(total, field->getEllipse(QRectF(0, 0, 10, 10)).size);
    QCOMPARE(insideTotal, field->getPolygon(inner).size);
}

void TestImage::readSigned_data()
{
    QTest::addColumn<int>("low");
    QTest::addColumn<int>("high");
    QTest::addColumn<double>("intercept");
    QTest::newRow("negative values") << -1000 << 3000 << -1000.0;
    QTest::newRow("all at least 0") << 0 << 200 << -1.0;
}

void TestImage::readSigned()
{
    QFETCH(int, low);
    QFETCH(int, high);
    QFETCH(double, intercept);
    QTemporaryDir dir;
    SyntheticImage s;
    s.rows = 20;
    s.columns = 30;
    s.bitsStored = 16;
    s.pixelRepresentation = 1;
    s.pixel = [&](int x, int y, int) { return (x == 0 && y == 0) ? low : (x == 1 && y == 0) ? high : (low + high) / 2 + x - y; };
    const QString file = dir.filePath("signed.dcm");
    QVERIFY(writeSyntheticImage(file, s));
    NDicomImage img;
    QVERIFY(img.readReferenceFileInfo(file, true));
    QCOMPARE(img.getReferenceFile(), file);
    // Shifted by the smallest value; no window in the file: width 2000.
    QCOMPARE(QList<double>({img.getIntercept(), img.getSlope(), img.getWindowWidth(), double(img.width())}),
             QList<double>({intercept, 1, 2000, 30}));
    QCOMPARE(QList<int>({img.getValue16u(0, 0), img.getValue16u(1, 0), img.getValue16s(1, 0), img.getValue16s(5, 7)}),
             QList<int>({int(low - intercept), int(high - intercept), high, (low + high) / 2 + 5 - 7}));
}

void TestImage::badFiles()
{
    QTemporaryDir dir;
    NDicomImage img;
    QFile text(dir.filePath("notdicom.txt"));
    QVERIFY(text.open(QIODevice::WriteOnly) && text.write("this is not a DICOM file at all, just text\n") > 0);
    text.close();
    QVERIFY(!img.readReferenceFileInfo(text.fileName(), true));
    QVERIFY(!img.readReferenceFileInfo(dir.filePath("missing.dcm"), true));
    QVERIFY(img.InitImageInfo(dir.filePath("missing.dcm"))); // always true

    // Only single 16-bit or 8-bit grey samples are read.
    const std::vector<std::pair<QString, std::function<void(SyntheticImage&)>>> cases{
        {"rgb", [](SyntheticImage& s) { s.bitsAllocated = s.bitsStored = 8; s.samplesPerPixel = 3; s.photometric = "RGB"; }},
        {"wide", [](SyntheticImage& s) { s.bitsAllocated = s.bitsStored = 32; s.pixelRepresentation = 1; }}};
    for (const auto& [name, change] : cases) {
        SyntheticImage s;
        change(s);
        const QString file = dir.filePath(name + ".dcm");
        QVERIFY(writeSyntheticImage(file, s));
        QVERIFY2(!img.readReferenceFileInfo(file, true), qPrintable(name));
        std::vector<unsigned int> out(size_t(img.width()) * img.height() + 1);
        img.getGrayImage32(400, 40, out.data()); // still consistent: no overrun
    }
    // Pixel data of the wrong size, and none at all.
    const QString good = dir.filePath("good.dcm");
    QVERIFY(writeSyntheticImage(good, SyntheticImage()));
    DcmFileFormat ff;
    QVERIFY(ff.loadFile(QFile::encodeName(good).constData()).good());
    ff.getDataset()->putAndInsertUint16(DCM_Rows, 40);
    QVERIFY(ff.saveFile(QFile::encodeName(dir.filePath("short.dcm")).constData()).good());
    QVERIFY(!img.readReferenceFileInfo(dir.filePath("short.dcm"), true));
    delete ff.getDataset()->remove(DCM_PixelData);
    QVERIFY(ff.saveFile(QFile::encodeName(dir.filePath("nopixels.dcm")).constData()).good());
    QVERIFY(!img.readReferenceFileInfo(dir.filePath("nopixels.dcm"), true));
}

void TestImage::saveRoundTrip()
{
    QTemporaryDir dir;
    const QString templ = dir.filePath("template.dcm");
    SyntheticImage source; // unsigned 32 x 32, with attributes of its own pixels and plane
    source.extra = {{DCM_SmallestImagePixelValue, "0"}, {DCM_PixelPaddingValue, "0"}, {DCM_SliceLocation, "12.5"},
                    {DCM_PatientPosition, "HFS"}, {DCM_WindowCenterWidthExplanation, "A\\B"}};
    QVERIFY(writeSyntheticImage(templ, source));

    auto img = makeImage(40, 24, [](int x, int y) { return 7 * x + 300 * y; });
    img->setPixelSpace(0.75, 1.5); // along a row, down a column
    img->setPosition(-113.43630543791551, 30.25, 7.000000000123);
    img->setOriention(0, 1, 0, 0, 0, -1);
    img->setThickness(2.5);
    img->setInstanceNumber(12);
    img->setSeriesNumber(601);
    img->setSeriesDescription("MPR sag");
    img->setWindowWidth(800);
    img->setWindowCenter(-100);
    const QString out = dir.filePath("derived.dcm");
    const QDate before = QDate::currentDate();
    QVERIFY(img->saveAs(out, templ, "1.2.3.4.5"));
    QCOMPARE(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden).size(), 2); // no temporary left

    NDicomImage back;
    QVERIFY(back.readReferenceFileInfo(out, true));
    QCOMPARE(QSize(back.width(), back.height()), QSize(40, 24));
    QCOMPARE(QByteArray(back.data(), back.getSteps()[2]), QByteArray(img->data(), img->getSteps()[2]));
    QCOMPARE(QList<double>(back.getOrientation(), back.getOrientation() + 6), QList<double>({0, 1, 0, 0, 0, -1}));
    QCOMPARE(QList<double>({back.getPixelSpacing()[0], back.getPixelSpacing()[1], back.getThickness(),
                            double(back.getInstanceNumber()), back.getWindowCenter()}),
             QList<double>({0.75, 1.5, 2.5, 12, -100}));
    // Positions with all the digits a decimal string holds.
    QCOMPARE(fileText(out, DCM_ImagePositionPatient), QString("-113.43630543792\\30.25\\7.000000000123"));
    QCOMPARE(fileText(out, DCM_PixelSpacing), QString("1.5\\0.75")); // between rows, between columns
    QCOMPARE(QStringList({fileText(out, DCM_SeriesInstanceUID), fileText(out, DCM_ImageType),
                          fileText(out, DCM_SoftwareVersions), fileText(out, DCM_PatientName),
                          fileText(out, DCM_PatientOrientation), fileText(out, DCM_PatientPosition)}),
             QStringList({"1.2.3.4.5", "DERIVED\\SECONDARY\\MPR", "Orvena_V1.0", "Test^Patient", "P\\F", "HFS"}));
    QVERIFY(fileText(out, DCM_SOPInstanceUID).startsWith("1.2.276.0.7230010.3.1.4."));
    // The study keeps its date and time; the new instance has its own, as valid DA and TM.
    QCOMPARE(QStringList({fileText(out, DCM_StudyDate), fileText(out, DCM_StudyTime)}), QStringList({"20240131", "101500"}));
    for (const DcmTagKey& tag : {DCM_SeriesDate, DCM_ContentDate, DCM_InstanceCreationDate}) {
        const QDate date = QDate::fromString(fileText(out, tag), "yyyyMMdd");
        QVERIFY2(date >= before && date <= QDate::currentDate(), qPrintable(fileText(out, tag)));
    }
    for (const DcmTagKey& tag : {DCM_SeriesTime, DCM_ContentTime, DCM_InstanceCreationTime})
        QVERIFY2(QTime::fromString(fileText(out, tag), "HHmmss").isValid(), qPrintable(fileText(out, tag)));
    // What described the template's pixels and plane is gone; an identity rescale is not added.
    for (const DcmTagKey& tag : {DCM_SmallestImagePixelValue, DCM_PixelPaddingValue, DCM_SliceLocation,
                                 DCM_WindowCenterWidthExplanation, DCM_RescaleSlope})
        QCOMPARE(fileText(out, tag), QString());
    QCOMPARE(QStringList({fileText(out, DCM_BitsStored), fileText(out, DCM_HighBit), fileText(out, DCM_PixelRepresentation)}),
             QStringList({"16", "15", "0"}));

    // Valid DA and TM on any day, under any locale; letters of oblique directions strongest first.
    QCOMPARE(QStringList({dicomDate(QDate(2024, 3, 5)), dicomTime(QTime(9, 3, 5)), dicomTime(QTime(23, 59, 29))}),
             QStringList({"20240305", "090305", "235929"}));
    const double row[3] = {0.97332, 0, 0.22945}, column[3] = {0, 1, 0}, tilted[3] = {0, -0.6, -0.8};
    QCOMPARE(QStringList({patientOrientation(row, column), patientOrientation(column, tilted)}),
             QStringList({"LH\\P", "P\\FA"}));

    // Onto its own template, and the failures that leave nothing behind.
    QVERIFY(img->saveAs(out, out, "1.2.3.4.6"));
    QVERIFY(back.readReferenceFileInfo(out, true));
    QCOMPARE(back.getValue16u(39, 23), img->getValue16u(39, 23));
    QVERIFY(!img->saveAs(dir.filePath("x.dcm"), dir.filePath("missing.dcm"), "1.2"));
    QVERIFY(!img->saveAs(dir.filePath("no/such/dir/x.dcm"), templ, "1.2"));
    QVERIFY(!NDicomImage().saveAs(dir.filePath("empty.dcm"), templ, "1.2"));
    QCOMPARE(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden).size(), 2);
}

void TestImage::exportedValues_data()
{
    QTest::addColumn<double>("slope");
    QTest::addColumn<double>("intercept");
    QTest::addColumn<int>("low"); // stored values low .. low + 999, read as signed
    QTest::addColumn<QString>("representation");
    QTest::newRow("shifted signed data") << 1.0 << -3024.0 << 0 << "0";
    QTest::newRow("stored below zero") << 1.0 << 0.0 << -500 << "1";
    QTest::newRow("fractional slope") << 1.29035409035409 << 0.0 << 0 << "0";
    QTest::newRow("all three") << 0.5 << -1.25 << -20000 << "1";
}

// Exported images read back to the image's real values, whatever the template's rescale and
// pixel representation (an unsigned MR template here, a signed CT one with intercept -1024 below).
void TestImage::exportedValues()
{
    QFETCH(double, slope);
    QFETCH(double, intercept);
    QFETCH(int, low);
    QFETCH(QString, representation);
    QTemporaryDir dir;
    SyntheticImage mr, ct;
    ct.modality = "CT";
    ct.bitsStored = 16;
    ct.pixelRepresentation = 1;
    ct.hasRescale = true;
    ct.rescaleIntercept = -1024;
    ct.extra = {{DCM_PixelPaddingValue, "-2000"}};
    auto img = makeImage(40, 25, [low](int x, int y) { return low + x + 40 * y; });
    img->setSlopeAndIntercept(slope, intercept);
    for (const auto& templ : {mr, ct}) {
        const QString templFile = dir.filePath("template.dcm"), out = dir.filePath("out.dcm");
        QVERIFY(writeSyntheticImage(templFile, templ));
        QVERIFY(img->saveAs(out, templFile, "1.2.3"));
        QCOMPARE(fileText(out, DCM_PixelRepresentation), representation);
        DcmFileFormat file;
        QVERIFY(file.loadFile(QFile::encodeName(out).constData()).good());
        DcmDataset* ds = file.getDataset();
        const Uint16* words = nullptr;
        unsigned long count = 0;
        QVERIFY(ds->findAndGetUint16Array(DCM_PixelData, words, &count).good() && count == 1000);
        Float64 fileSlope = 1, fileIntercept = 0; // DCMTK zeroes them when the attribute is missing
        if (ds->tagExists(DCM_RescaleSlope))
            ds->findAndGetFloat64(DCM_RescaleSlope, fileSlope);
        if (ds->tagExists(DCM_RescaleIntercept))
            ds->findAndGetFloat64(DCM_RescaleIntercept, fileIntercept);
        for (int n = 0; n < 1000; ++n) {
            const double stored = representation == "1" ? double(Sint16(words[n])) : double(words[n]);
            const double expected = double(low + n) * slope + intercept;
            QVERIFY2(std::fabs(stored * fileSlope + fileIntercept - expected) <= 1e-9 * std::max(1.0, std::fabs(expected)),
                     qPrintable(QString("%4 pixel %1: %2 for %3").arg(n).arg(stored * fileSlope + fileIntercept).arg(expected).arg(templ.modality)));
        }
        QCOMPARE(fileText(out, DCM_PixelPaddingValue), QString());
    }
}

void TestImage::storedValues_data()
{
    QTest::addColumn<int>("allocated");
    QTest::addColumn<int>("stored");
    QTest::addColumn<int>("high");
    QTest::addColumn<int>("representation");
    QTest::addColumn<QList<int>>("words"); // as written
    QTest::addColumn<QList<int>>("values"); // as read
    QTest::newRow("8-bit grey") << 8 << 8 << 7 << 0 << QList<int>{0, 17, 255} << QList<int>{0, 17, 255};
    QTest::newRow("8-bit signed") << 8 << 8 << 7 << 1 << QList<int>{0x80, 0xFF, 0x7F} << QList<int>{-128, -1, 127};
    QTest::newRow("12 bits, bits set above") << 16 << 12 << 11 << 0 << QList<int>{0xFFFF, 0xF123, 0x0FFF}
                                             << QList<int>{4095, 0x123, 4095};
    QTest::newRow("12 bits at the top") << 16 << 12 << 15 << 0 << QList<int>{0xFFF0, 0x1230, 0x0007} << QList<int>{4095, 0x123, 0};
    QTest::newRow("12 bits signed, bits set above") << 16 << 12 << 11 << 1 << QList<int>{0xFFFF, 0xF800, 0x07FF}
                                                    << QList<int>{-1, -2048, 2047};
}

void TestImage::storedValues()
{
    QFETCH(int, allocated);
    QFETCH(int, stored);
    QFETCH(int, high);
    QFETCH(int, representation);
    QFETCH(QList<int>, words);
    QFETCH(QList<int>, values);
    QTemporaryDir dir;
    SyntheticImage s;
    s.rows = 1;
    s.columns = words.size();
    s.bitsAllocated = allocated;
    s.bitsStored = stored;
    s.pixelRepresentation = representation;
    s.pixel = [&](int x, int, int) { return words[x]; };
    const QString file = dir.filePath("stored.dcm");
    QVERIFY(writeSyntheticImage(file, s));
    if (high != stored - 1) {
        DcmFileFormat ff;
        QVERIFY(ff.loadFile(QFile::encodeName(file).constData()).good());
        QVERIFY(ff.getDataset()->putAndInsertUint16(DCM_HighBit, Uint16(high)).good());
        QVERIFY(ff.saveFile(QFile::encodeName(file).constData()).good());
    }
    NDicomImage img;
    QVERIFY(img.readReferenceFileInfo(file, true));
    QCOMPARE(img.getPixStep(), 2);
    QList<int> read;
    for (int x = 0; x < words.size(); ++x)
        read << img.getValue16s(x, 0);
    QCOMPARE(read, values);
}

// The series description is written in the template's character set, escape sequences included.
void TestImage::saveInTemplateCharacterSet_data()
{
    QTest::addColumn<QString>("charset");
    QTest::addColumn<QString>("description");
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("latin-1") << "ISO_IR 100" << QString::fromUtf8("Coupe sagittale réformée")
                             << QByteArray("Coupe sagittale r\xe9" "form\xe9" "e");
    QTest::newRow("cyrillic") << "ISO_IR 144" << QString::fromUtf8("МПР сагиттальная")
                              << QByteArray("\xbc\xbf\xc0 \xe1\xd0\xd3\xd8\xe2\xe2\xd0\xdb\xec\xdd\xd0\xef");
    QTest::newRow("japanese") << "ISO 2022 IR 6\\ISO 2022 IR 87" << QString::fromUtf8("再構成 sag")
                              << QByteArray("\x1b$B:F9=@.\x1b(B sag");
    QTest::newRow("utf-8") << "ISO_IR 192" << QString::fromUtf8("再構成 sag") << QString::fromUtf8("再構成 sag").toUtf8();
}

void TestImage::saveInTemplateCharacterSet()
{
    QFETCH(QString, charset);
    QFETCH(QString, description);
    QFETCH(QByteArray, bytes);
    QTemporaryDir dir;
    SyntheticImage templateImage;
    templateImage.specificCharacterSet = charset;
    const QString templ = dir.filePath("template.dcm");
    QVERIFY(writeSyntheticImage(templ, templateImage));
    auto img = makeImage(8, 8, [](int x, int y) { return x + y; });
    img->setSeriesDescription(description);
    const QString out = dir.filePath("derived.dcm");
    QVERIFY(img->saveAs(out, templ, "1.2.3.4.7"));
    QCOMPARE(fileText(out, DCM_SeriesDescription).toLatin1(), bytes);
}

void TestImage::realCtShift()
{
    const QString ct = sharedDataPath("ct_ge_3slice");
    if (ct.isEmpty())
        QSKIP("the real CT series is not present");
    // Stored -2000..2405, intercept -1024: shifted by the smallest rescaled value -3024.
    NDicomImage img;
    QVERIFY(img.readReferenceFileInfo(ct + "/01.dcm", true));
    QCOMPARE(img.getIntercept(), -3024.0);
    QCOMPARE(img.getWindowWidth(), 400.0);
    DcmFileFormat ff;
    QVERIFY(ff.loadFile(QFile::encodeName(ct + "/01.dcm").constData()).good());
    const Uint16* raw = nullptr;
    unsigned long count = 0;
    QVERIFY(ff.getDataset()->findAndGetUint16Array(DCM_PixelData, raw, &count).good());
    QCOMPARE(count, 512ul * 512ul);
    int lowest = 65535;
    for (int y = 0; y < 512; ++y)
        for (int x = 0; x < 512; ++x) {
            QCOMPARE(int(img.getValue16s(x, y)), Sint16(raw[y * 512 + x]) - 1024);
            lowest = std::min(lowest, int(img.getValue16u(x, y)));
        }
    QCOMPARE(lowest, 0);

    const QString loc = sharedDataPath("ge_localizer_3plane");
    if (!loc.isEmpty()) { // signed but all >= 0: shifted by one
        const QStringList files = QDir(loc).entryList({"*.MRDC.1"}, QDir::Files);
        QVERIFY(!files.isEmpty());
        QVERIFY(img.readReferenceFileInfo(loc + '/' + files.first(), true));
        QCOMPARE(img.getIntercept(), -1.0);
    }
}

QTEST_GUILESS_MAIN(TestImage)
#include "tst_image.moc"
