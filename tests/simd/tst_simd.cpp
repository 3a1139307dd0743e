#include "simd/kernels_p.h"

#include <QVector3D>
#include <QtTest>

#include <algorithm>
#include <random>
#include <utility>

using namespace kestrel::internal;

// Every vector kernel against its scalar twin: lengths below, at and past the vector width (the
// bodies and the tails), random and extreme values. Buffers carry a guard band past the end so
// that a kernel writing too far shows as a difference.
namespace {

enum Fill { Random, Extremes, EndsAtExtremes };

constexpr int kGuard = 16;
constexpr short kSentinel = 0x5a5a;

// N values (plus the guard band) of FILL: full-range random; only -32768, -1, 0, 1, 32767; or small
// random values whose last entry is 32767 and second last -32768 (extremes in the tails).
QVector<short> values16(int n, Fill fill, unsigned seed)
{
    std::mt19937 rng(seed);
    QVector<short> v(n + kGuard, kSentinel);
    const short extremes[] = {-32768, -1, 0, 1, 32767};
    for (int i = 0; i < n; ++i)
        v[i] = fill == Random ? short(rng()) : fill == Extremes ? extremes[rng() % 5] : short(int(rng() % 201) - 100);
    if (fill == EndsAtExtremes && n >= 1)
        v[n - 1] = 32767;
    if (fill == EndsAtExtremes && n >= 2)
        v[n - 2] = -32768;
    return v;
}

QVector<quint16> unsigned16(const QVector<short>& v)
{
    QVector<quint16> u(v.size());
    std::transform(v.begin(), v.end(), u.begin(), [](short s) { return quint16(s); });
    return u;
}

void addLengthRows()
{
    QTest::addColumn<int>("n");
    QTest::addColumn<int>("fill");
    const char* names[] = {"random", "extremes", "ends at extremes"};
    for (int n : {0, 1, 7, 8, 9, 15, 16, 17, 1003})
        for (int fill : {Random, Extremes, EndsAtExtremes})
            QTest::addRow("%d %s", n, names[fill]) << n << fill;
}

} // namespace

class TestSimd : public QObject
{
    Q_OBJECT

private slots:
    void reductions_data() { addLengthRows(); }
    void reductions();
    void runs_data();
    void runs();
    void lookup_data() { addLengthRows(); }
    void lookup();
    void reverse_data() { addLengthRows(); }
    void reverse();
    void transpose_data();
    void transpose();
    void sampler_data();
    void sampler();
};

void TestSimd::reductions()
{
    QFETCH(int, n);
    QFETCH(int, fill);
    const QVector<short> a = values16(n, Fill(fill), unsigned(n * 3 + fill));
    const QVector<short> b = values16(n, Fill(fill), unsigned(n * 3 + fill + 1000));

    QVector<short> simd = a, scalar = a;
    maxInPlaceS16(simd.data(), b.constData(), n);
    maxInPlaceS16Scalar(scalar.data(), b.constData(), n);
    QCOMPARE(simd, scalar);
    simd = scalar = a;
    minInPlaceS16(simd.data(), b.constData(), n);
    minInPlaceS16Scalar(scalar.data(), b.constData(), n);
    QCOMPARE(simd, scalar);

    // Sums start from large magnitudes of either sign, then are divided back to 16 bits.
    QVector<qint32> accSimd(n + kGuard, 7), accScalar;
    std::mt19937 rng(unsigned(n) + 1);
    for (int i = 0; i < n; ++i)
        accSimd[i] = qint32(rng() % (1u << 28)) - (1 << 27);
    accScalar = accSimd;
    accumulateS16(accSimd.data(), a.constData(), n);
    accumulateS16Scalar(accScalar.data(), a.constData(), n);
    QCOMPARE(accSimd, accScalar);
    for (int count : {1, 3, 250, 65536}) {
        simd = scalar = b;
        divideToS16(simd.data(), accSimd.constData(), n, count);
        divideToS16Scalar(scalar.data(), accScalar.constData(), n, count);
        QCOMPARE(simd, scalar);
    }

    if (n == 0)
        return; // the whole-run reductions take at least one value
    for (const QVector<short>* v : {&a, &b}) {
        QCOMPARE(reduceMaxS16(v->constData(), n), reduceMaxS16Scalar(v->constData(), n));
        QCOMPARE(reduceMinS16(v->constData(), n), reduceMinS16Scalar(v->constData(), n));
        QCOMPARE(reduceSumS16(v->constData(), n), reduceSumS16Scalar(v->constData(), n));
    }
    if (fill == EndsAtExtremes) {
        QCOMPARE(reduceMaxS16(a.constData(), n), short(32767));
        if (n >= 2)
            QCOMPARE(reduceMinS16(a.constData(), n), short(-32768));
    }
}

void TestSimd::runs_data()
{
    QTest::addColumn<int>("count");
    QTest::addColumn<int>("runs");
    QTest::addColumn<int>("fill");
    const char* names[] = {"random", "extremes", "ends at extremes"};
    // Runs shorter than, equal to and past the vector width, with every remainder that matters;
    // run counts with and without a tail past the groups of eight.
    for (int count : {1, 7, 8, 9, 15, 16, 17, 20, 33, 300})
        for (int runs : {1, 8, 13, 67})
            for (int fill : {Random, Extremes, EndsAtExtremes})
                QTest::addRow("%d values x %d runs, %s", count, runs, names[fill]) << count << runs << fill;
}

void TestSimd::runs()
{
    QFETCH(int, count);
    QFETCH(int, runs);
    QFETCH(int, fill);
    // Runs an odd number of values apart, so that they start at every alignment; the gaps hold
    // the extremes, which a kernel reading past a run would pick up.
    const int gap = 3, stride = count + gap;
    QVector<short> voxels = values16(runs * stride, Fill(fill), unsigned(count * 131 + runs * 7 + fill));
    for (int r = 0; r < runs; ++r)
        for (int g = 0; g < gap; ++g)
            voxels[r * stride + count + g] = g % 2 ? short(-32768) : short(32767);
    const char* first = reinterpret_cast<const char*>(voxels.constData());
    for (SlabRule rule : {SlabMax, SlabMin, SlabAverage}) {
        QVector<short> simd(runs + kGuard, kSentinel), scalar(runs + kGuard, kSentinel);
        reduceRunsS16(simd.data(), first, 2 * stride, runs, count, rule);
        reduceRunsS16Scalar(scalar.data(), first, 2 * stride, runs, count, rule);
        QVERIFY2(simd == scalar, qPrintable(QString("rule %1").arg(int(rule))));
    }
}

void TestSimd::lookup()
{
    QFETCH(int, n);
    QFETCH(int, fill);
    // Indices across the whole table: 0, 65535 and the signed boundary 32767/32768 among them.
    const QVector<quint16> in = unsigned16(values16(n, Fill(fill), unsigned(n * 5 + fill)));
    std::mt19937 rng(99);
    QVector<quint32> table(65536);
    for (quint32& t : table)
        t = quint32(rng());
    QVector<quint32> simd(n + kGuard, 0xdeadbeef), scalar = simd;
    lookupU16(simd.data(), in.constData(), table.constData(), n);
    lookupU16Scalar(scalar.data(), in.constData(), table.constData(), n);
    QCOMPARE(simd, scalar);
}

void TestSimd::reverse()
{
    QFETCH(int, n);
    QFETCH(int, fill);
    // The range sits between two guard bands.
    QVector<quint16> simd = unsigned16(QVector<short>(kGuard, kSentinel) + values16(n, Fill(fill), unsigned(n * 7 + fill)));
    QVector<quint16> scalar = simd;
    reverseU16(simd.data() + kGuard, simd.data() + kGuard + n);
    reverseU16Scalar(scalar.data() + kGuard, scalar.data() + kGuard + n);
    QCOMPARE(simd, scalar);
}

void TestSimd::transpose_data()
{
    QTest::addColumn<int>("w");
    QTest::addColumn<int>("h");
    QTest::addColumn<int>("ex"); // direction of a destination row in the source: +-1 source line
    QTest::addColumn<int>("ey"); // direction of a destination column: +-1 value
    const std::pair<int, int> sizes[] = {{0, 0}, {1, 1}, {7, 9}, {8, 8}, {9, 8}, {8, 17}, {16, 15}, {17, 16}, {40, 33}};
    for (auto [w, h] : sizes)
        for (int ex : {1, -1})
            for (int ey : {1, -1})
                QTest::addRow("%dx%d ex%+d ey%+d", w, h, ex, ey) << w << h << ex << ey;
}

void TestSimd::transpose()
{
    QFETCH(int, w);
    QFETCH(int, h);
    QFETCH(int, ex);
    QFETCH(int, ey);
    // The source: W lines of H values (plus 3 of padding); destination rows of W values plus 5.
    const int sourceLine = h + 3, line = w + 5;
    const QVector<quint16> source = unsigned16(values16(w * sourceLine, Random, unsigned(w * 100 + h)));
    const quint16* s0 = source.constData() + (ex < 0 ? std::max(w - 1, 0) * sourceLine : 0) + (ey < 0 ? std::max(h - 1, 0) : 0);
    QVector<quint16> simd(h * line + kGuard, quint16(kSentinel)), scalar = simd;
    transposeU16(s0, qptrdiff(ex) * sourceLine, ey, simd.data(), line, w, h);
    transposeU16Scalar(s0, qptrdiff(ex) * sourceLine, ey, scalar.data(), line, w, h);
    QCOMPARE(simd, scalar);
    if (w > 0 && h > 0) // the far corner of the destination is the far corner of the source
        QCOMPARE(scalar[(h - 1) * line + w - 1], s0[qptrdiff(h - 1) * ey + qptrdiff(w - 1) * ex * sourceLine]);
}

void TestSimd::sampler_data()
{
    // A volume of 11 x 6 x 5 voxels; its rows and slices are padded (steps 2, 26, 160 bytes).
    QTest::addColumn<int>("fill");
    QTest::addColumn<QVector<QVector3D>>("points");
    const QVector<QPair<QByteArray, QVector<QVector3D>>> sets = {
        {"origin", {{0, 0, 0}}},
        {"on voxels", {{3, 2, 1}, {1, 4, 3}, {9, 0, 2}, {5, 3, 0}}},
        {"halfway", {{0.5f, 0.5f, 0.5f}, {2.5f, 1, 3}, {4, 3.5f, 1}, {7, 2, 2.5f}}},
        {"quarters", {{0.25f, 1.75f, 2.25f}, {6.75f, 0.25f, 3.75f}}},
        {"just past a voxel", {{3.001f, 2.001f, 1.001f}, {0.002f, 0, 0}}},
        {"just short of the next", {{3.999f, 2.999f, 1.999f}, {0.999f, 0, 0}}},
        {"far edges", {{9, 4, 3}, {9.999f, 4.999f, 3.999f}, {9.999f, 0, 0}, {0, 4.999f, 0}, {0, 0, 3.999f}}},
    };
    const char* fills[] = {"random", "extremes"};
    for (int fill : {Random, Extremes}) {
        for (const auto& set : sets)
            QTest::addRow("%s, %s", set.first.constData(), fills[fill]) << fill << set.second;
        std::mt19937 rng(unsigned(fill) + 5);
        std::uniform_real_distribution<float> x(0, 9.999f), y(0, 4.999f), z(0, 3.999f);
        QVector<QVector3D> random(300);
        for (QVector3D& p : random)
            p = QVector3D(x(rng), y(rng), z(rng));
        QTest::addRow("random, %s", fills[fill]) << fill << random;
    }
}

void TestSimd::sampler()
{
    QFETCH(int, fill);
    QFETCH(QVector<QVector3D>, points);
    const int steps[3] = {2, 26, 160};
    const QVector<short> voxels = values16(steps[2] / 2 * 5, Fill(fill), unsigned(fill) + 17);
    const char* data = reinterpret_cast<const char*>(voxels.constData());
    for (const QVector3D& p : points) {
        const short simd = sampleTrilinearS16(data, steps, p.x(), p.y(), p.z());
        const short scalar = sampleTrilinearS16Scalar(data, steps, p.x(), p.y(), p.z());
        if (simd != scalar)
            QFAIL(qPrintable(QString("at (%1, %2, %3): %4, twin %5").arg(p.x()).arg(p.y()).arg(p.z()).arg(simd).arg(scalar)));
    }
}

QTEST_GUILESS_MAIN(TestSimd)
#include "tst_simd.moc"
