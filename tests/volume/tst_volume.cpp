#include "internal/volumeheadtext.h"
#include "nbitvolume.h"
#include "ndicomvolume.h"
#include "nvolume.h"
#include "velivolume.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <array>
#include <cmath>
#include <cstring>
#include <random>

using namespace kestrel::internal;

namespace {

// A single-frame head of X*Y*Z 16-bit voxels with the invariants of a volume built from a series.
VolumeHead makeHead(int x, int y, int z, int frames = 1)
{
    VolumeHead h;
    std::memset(&h, 0, sizeof h);
    std::memcpy(h.magic, "DCVM", 4);
    h.volumesize[0] = x;
    h.volumesize[1] = y;
    h.volumesize[2] = z;
    h.volumestep[0] = 2;
    h.volumestep[1] = 2 * x;
    h.volumestep[2] = 2 * x * y;
    h.volumestep[3] = 2 * x * y * z;
    h.timeNum = frames;
    h.totallen = qint64(h.volumestep[3]) * frames + 512;
    h.voxelspace[0] = h.voxelspace[1] = h.voxelspace[2] = 1;
    h.orientation[0] = h.orientation[4] = h.orientation[8] = 1;
    h.BitsAllocated = 16;
    h.HighBit = 11;
    h.SamplesPerPixel = 1;
    h.PhotometricInterpretation = 1;
    h.RescaleSlope = 1;
    h.isOrder = 1;
    return h;
}

QByteArray randomVoxels(qint64 bytes, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> dist(-32768, 32767);
    QByteArray data(int(bytes), Qt::Uninitialized);
    for (qint64 i = 0; i + 1 < bytes; i += 2) {
        const qint16 v = qint16(dist(rng));
        std::memcpy(data.data() + i, &v, 2);
    }
    return data;
}

QByteArray readAll(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(bytes) == bytes.size();
}

} // namespace

class TestVolume : public QObject
{
    Q_OBJECT

private slots:
    void headString();
    void headStringRoundTrip();
    void headStringByPosition();
    void fileSizeRefusal();
    void saveAndLoadIdentity();
    void bitMask();
    void bitMaskReaders();
    void voxelAccessAndFrames();
    void transforms();
    void axisQueries();
    void histogramAndMask();
    void companion();
};

void TestVolume::headString()
{
    VolumeHead h = makeHead(256, 256, 136);
    QCOMPARE(h.totallen, qint64(17826304));
    h.SEPK = -7;
    std::strcpy(h.SEUID, "1.2.3");
    h.voxelspace[0] = 0.9765625;
    h.voxelspace[1] = 1.015625; // printf rounds the tie to even: 1.01562
    h.topxyz[0] = -125.5;
    h.topxyz[1] = -0.0;
    h.thinkness = 1e-6;
    h.WindowWidth = 2000;
    NVolume v;
    QCOMPARE(v.volumeHeadtoString(h),
             QString("magic:DCVM;totallen:17826304;SEPK:-7;SEUID:1.2.3;STUID:;volumesize:256,256,136;"
                     "volumestep:2,512,131072,17825792;voxelspace:0.976562,1.01562,1;thinkness:1e-06;"
                     "topxyz:-125.5,-0,0;orientation:1,0,0,0,1,0,0,0,1;SamplesPerPixel:1;"
                     "PhotometricInterpretation:1;BitsAllocated:16;HighBit:11;RescaleIntercept:0;"
                     "RescaleSlope:1;WindowCenter:0;WindowWidth:2000;isOrder:1;timeNum:1;"));
    QCOMPARE(photometricCode("YBR_RCT", 1), 12);
    QCOMPARE(photometricCode("MONOCHROME1", 1), 0);
    QCOMPARE(photometricCode("NOT ONE", 5), 5);
}

void TestVolume::headStringRoundTrip()
{
    VolumeHead h = makeHead(17, 9, 3, 2);
    h.SEPK = 9007199254740993LL;
    // A full-length UID has no terminator in its field.
    const QByteArray uid64 = QByteArray("1.2.840.") + QByteArray(56, '7');
    std::memcpy(h.SEUID, uid64.constData(), 64);
    std::strcpy(h.STUID, "2.25.1");
    h.topxyz[0] = -123.456789;
    h.orientation[0] = 0.99999;
    h.orientation[1] = 0.0044721;
    h.RescaleIntercept = -1024;
    h.HighBit = 15;
    h.isOrder = -1;
    h.padding = 0;

    NVolume v;
    const QString text = v.volumeHeadtoString(h);
    v.stringToVolumeHead(text);
    const VolumeHead& r = *v.getHead();
    QCOMPARE(QByteArray(r.magic, 8), QByteArray("DCVM\0\0\0\0", 8));
    QCOMPARE(r.totallen, h.totallen);
    QCOMPARE(r.SEPK, h.SEPK);
    QCOMPARE(QByteArray(r.SEUID, 64), uid64);
    QCOMPARE(QByteArray(r.STUID), QByteArray("2.25.1"));
    QCOMPARE(std::memcmp(r.volumesize, h.volumesize, sizeof h.volumesize), 0);
    QCOMPARE(std::memcmp(r.volumestep, h.volumestep, sizeof h.volumestep), 0);
    QCOMPARE(r.topxyz[0], -123.457);
    QCOMPARE(r.orientation[0], 0.99999);
    QCOMPARE(r.orientation[1], 0.0044721);
    QCOMPARE(r.RescaleIntercept, -1024.0);
    QCOMPARE(r.HighBit, 15);
    QCOMPARE(r.isOrder, -1);
    QCOMPARE(r.timeNum, 2);
    QCOMPARE(v.volumeHeadtoString(*v.getHead()), text);

    // A shorter UID replaces only the bytes it covers.
    v.stringToVolumeHead(QString(text).replace(QString::fromLatin1(uid64), "9.9"));
    QCOMPARE(QByteArray(v.getHead()->SEUID, 4), QByteArray("9.9."));
}

void TestVolume::headStringByPosition()
{
    VolumeHead h = makeHead(4, 5, 6);
    h.HighBit = 11;
    h.BitsAllocated = 16;
    NVolume v;
    QString text = v.volumeHeadtoString(h);
    // Keys are ignored: swapping two items swaps the values between the fields.
    text.replace("BitsAllocated:16;HighBit:11;", "HighBit:11;BitsAllocated:16;");
    v.stringToVolumeHead(text);
    QCOMPARE(v.getHead()->BitsAllocated, 11);
    QCOMPARE(v.getHead()->HighBit, 16);
    // Numbers that do not convert become 0; a short text leaves later fields alone.
    v.stringToVolumeHead("magic:DCVM;totallen:abc;SEPK:5");
    QCOMPARE(v.getHead()->totallen, qint64(0));
    QCOMPARE(v.getHead()->SEPK, qint64(5));
    QCOMPARE(v.getHead()->HighBit, 16);
}

void TestVolume::fileSizeRefusal()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    // 255 x 256 x 1 voxels: 130560 bytes + 512 = 131072, the largest size refused.
    VolumeHead h = makeHead(255, 256, 1);
    QByteArray file(int(h.totallen), '\0');
    std::memcpy(file.data(), &h, sizeof h);
    const QString exact = dir.filePath("exact.data");
    QVERIFY(writeFile(exact, file));
    NVolume v;
    QCOMPARE(v.loadVolume(exact), -1);
    QVERIFY(!v.isValid());

    // One byte more, with a totallen of the file's size, loads.
    h.totallen = file.size() + 1;
    std::memcpy(file.data(), &h, sizeof h);
    file.append('\x01');
    const QString bigger = dir.filePath("bigger.data");
    QVERIFY(writeFile(bigger, file));
    QCOMPARE(v.loadVolume(bigger), 1);
    QCOMPARE(v.geSize()[0], 255);
    QCOMPARE(v.getWorkingSize()[1], 256);

    // Refused without allocating: totallen past the end, below the header block, geometry past
    // the buffer; a missing file.
    auto refused = [&](VolumeHead bad, const char* name) {
        QByteArray bytes = file;
        std::memcpy(bytes.data(), &bad, sizeof bad);
        const QString path = dir.filePath(name);
        return writeFile(path, bytes) && NVolume().loadVolume(path) == -1;
    };
    VolumeHead bad = h;
    bad.totallen = file.size() + 1;
    QVERIFY(refused(bad, "long.data"));
    bad.totallen = 100;
    QVERIFY(refused(bad, "short.data"));
    bad = h;
    bad.volumesize[2] = 2;
    QVERIFY(refused(bad, "geometry.data"));
    bad = h;
    bad.volumestep[1] = -4;
    QVERIFY(refused(bad, "negative.data"));
    QCOMPARE(v.loadVolume(dir.filePath("missing.data")), -1);
    QCOMPARE(v.geSize()[0], 255); // the loaded volume is kept
}

void TestVolume::saveAndLoadIdentity()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    VolumeHead h = makeHead(64, 30, 20, 2);
    std::strcpy(h.SEUID, "1.2.3.4");
    const QByteArray voxels = randomVoxels(h.totallen - 512, 1);
    NDicomVolume v(&h, const_cast<char*>(voxels.constData()), voxels.size());
    QVERIFY(v.isValid());
    QCOMPARE(v.getHead()->totallen, h.totallen);
    const QString path = dir.filePath("a.data");
    QVERIFY(v.getStrVolumeHead().isEmpty());
    QVERIFY(v.saveAs(path));
    QCOMPARE(v.getStrVolumeHead(), v.volumeHeadtoString(h));

    const QByteArray written = readAll(path);
    QCOMPARE(written.size(), int(h.totallen));
    QCOMPARE(written.left(368), QByteArray(reinterpret_cast<const char*>(&h), 368));
    QCOMPARE(written.mid(368, 144), QByteArray(144, '\0'));
    QCOMPARE(written.mid(512), voxels);

    NVolume loaded;
    QCOMPARE(loaded.loadVolume(path), 1);
    QCOMPARE(std::memcmp(loaded.getHead(), &h, sizeof h), 0);
    QCOMPARE(QByteArray(loaded.getData(), voxels.size()), voxels);
    const QString again = dir.filePath("b.data");
    QVERIFY(loaded.saveAs(again));
    QCOMPARE(readAll(again), written);

    // No buffer: true, no file, but the head string is set.
    NDicomVolume empty(nullptr, nullptr, 0);
    QVERIFY(!empty.isValid());
    QVERIFY(empty.saveAs(dir.filePath("none.data")));
    QVERIFY(!QFile::exists(dir.filePath("none.data")));
    QVERIFY(empty.getStrVolumeHead().startsWith("magic:DCVM;totallen:0;"));
}

void TestVolume::bitMask()
{
    NBitVolume m(33, 4, 3);
    QCOMPARE(m.GetElementRow(), 2);
    m.SetAll();
    QCOMPARE(m.CountVoxNum(true), 33 * 4 * 3);
    QCOMPARE(m.CountVoxNum(false), 0);
    QCOMPARE(m.GetDataBottomX(), 32);
    m.ClearAll();
    m.setBit(32, 3, 2);
    m.SetVoxel(0, 1, 1, true);
    QVERIFY(m.GetVoxel(32, 3, 2) && m.getBit(0, 1, 1) && !m.GetVoxel(31, 3, 2));
    QCOMPARE(m.GetBuffer()[2][3 * 2 + 1], 1u); // bit 0 of the row's second word
    QCOMPARE(m.CalcVoxNumSlice(2), 1);
    QVERIFY(!m.SafeGetVoxel(33, 0, 0) && !m.CheckVox(-1, 0, 0) && m.CheckVox(32, 3, 2));
    m.CalcBoundingBox();
    QCOMPARE(m.GetDataTopX(), 0);
    QCOMPARE(m.GetDataTopY(), 1);
    QCOMPARE(m.GetDataBottomX(), 32);
    QCOMPARE(m.GetDataBottomZ(), 2);

    NBitVolume other(m);
    other.unsetBit(32, 3, 2);
    NBitVolume both(m);
    both.XOR(other);
    QCOMPARE(both.CountVoxNum(true), 1);
    both.AND(other);
    QCOMPARE(both.CountVoxNum(true), 0);
    both.OR(m);
    QCOMPARE(both.CountVoxNum(true), 2);
    ~both;
    QCOMPARE(both.CountVoxNum(true), 33 * 4 * 3 - 2);

    NBitVolume fresh(8, 8, 8);
    fresh.RecalcDataTopXYZ(-5, 2, 3);
    QCOMPARE(fresh.GetDataTopX(), 0);
    QCOMPARE(fresh.GetDataTopY(), 0);
    fresh.RecalcDataBottomXYZ(20, 2, 3);
    QCOMPARE(fresh.GetDataBottomX(), 7);

    // The linear index matches (i, j, k) on square slices.
    fresh.ClearAll();
    fresh.setBit(5 * 64 + 3 * 8 + 6);
    QVERIFY(fresh.GetVoxel(6, 3, 5));
    QVERIFY(fresh.getBit(5 * 64 + 3 * 8 + 6));
    QCOMPARE(fresh.CountVoxNum(true), 1);
}

void TestVolume::bitMaskReaders()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    int size[3] = {5, 3, 2};
    QByteArray bytes(30, '\0');
    bytes[(1 * 3 + 2) * 5 + 4] = 7; // voxel (4, 2, 1)
    bytes[1] = 1;                   // voxel (1, 0, 0)
    NBitVolume m;
    m.ReadFromMemory(reinterpret_cast<const unsigned char*>(bytes.constData()), size);
    QVERIFY(m.GetVoxel(4, 2, 1) && m.GetVoxel(1, 0, 0));
    QCOMPARE(m.CountVoxNum(true), 2);
    QVector<unsigned short> words(30, 0);
    words[29] = 300;
    m.ReadFromMemory(words.constData(), size);
    QVERIFY(m.GetVoxel(4, 2, 1) && !m.GetVoxel(1, 0, 0));

    QVERIFY(writeFile(dir.filePath("mask.dat"), bytes));
    QVERIFY(writeFile(dir.filePath("mask.txt"), "5 3 2"));
    NBitVolume r(5, 3, 2);
    QVERIFY(r.ReadFromFile(QFile::encodeName(dir.filePath("mask.txt")).constData()));
    QCOMPARE(r.CountVoxNum(true), 2);
    NBitVolume wrongSize(4, 3, 2);
    QVERIFY(!wrongSize.ReadFromFile(QFile::encodeName(dir.filePath("mask.txt")).constData()));
    QVERIFY(!r.ReadFromFile(QFile::encodeName(dir.filePath("none.txt")).constData()));
    NBitVolume raw;
    QVERIFY(raw.ReadFromRawFile(QFile::encodeName(dir.filePath("mask.dat")).constData(), size));
    QVERIFY(raw.GetVoxel(1, 0, 0) && raw.GetVoxel(4, 2, 1));
    QCOMPARE(raw.CountVoxNum(true), 2);

    const QByteArray out = QFile::encodeName(dir.filePath("out.dat"));
    QVERIFY(!raw.WriteToFile(out.constData()));
    QVERIFY(!QFile::exists(dir.filePath("out.dat")));
}

void TestVolume::voxelAccessAndFrames()
{
    VolumeHead h = makeHead(6, 5, 4, 2);
    const QByteArray voxels = randomVoxels(h.totallen - 512, 2);
    NDicomVolume v(&h, const_cast<char*>(voxels.constData()), voxels.size());
    auto naive = [&](int t, int i, int j, int k) {
        quint16 value;
        std::memcpy(&value, voxels.constData() + t * h.volumestep[3] + k * 60 + j * 12 + i * 2, 2);
        return value;
    };
    QCOMPARE(v.getVoxel(5, 4, 3), naive(0, 5, 4, 3));
    unsigned char** layers = v.getLayers();
    QCOMPARE(reinterpret_cast<char*>(layers[2]), v.getData() + 120);
    const char* frame0 = v.getData();
    const QVector<unsigned char*> before(layers, layers + 4);

    v.setTimeIndex(2); // timeNum: no change
    QCOMPARE(v.getData(), frame0);
    v.setTimeIndex(1);
    QCOMPARE(v.getTimeIndex(), 1);
    QCOMPARE(v.getData(), frame0 + h.volumestep[3]);
    layers = v.getLayers();
    for (int k = 0; k < 4; ++k)
        QCOMPARE(layers[k], before[k] + h.volumestep[3]);
    QCOMPARE(v.getVoxel(1, 2, 3), naive(1, 1, 2, 3));
    v.setVoxelValue16u(1, 2, 3, 40000);
    QCOMPARE(v.getVoxel(1, 2, 3), quint16(40000));

    // A head claiming more frames than the buffer holds never moves past it.
    VolumeHead lying = h;
    lying.timeNum = 5;
    NDicomVolume short_(&lying, const_cast<char*>(voxels.constData()), voxels.size());
    short_.setTimeIndex(2);
    QCOMPARE(short_.getTimeIndex(), 0);

    // clone copies the source's current frame into a 368-byte-header volume.
    NVolume copy;
    copy.clone(&v);
    QCOMPARE(copy.getHead()->totallen, qint64(h.volumestep[3]) + 368);
    QCOMPARE(copy.getHead()->timeNum, 2);
    QCOMPARE(QByteArray(copy.getData(), h.volumestep[3]), QByteArray(v.getData(), h.volumestep[3]));
    QCOMPARE(copy.getVoxel(1, 2, 3), quint16(40000));

    NVolume init;
    QVERIFY(!init.isValid());
    QCOMPARE(init.initVolume16u(3, 4, 5), 1);
    QVERIFY(init.isValid());
    QCOMPARE(init.getHead()->volumestep[2], 24);
    QCOMPARE(init.getHead()->totallen, qint64(120 + 368));
}

void TestVolume::transforms()
{
    // Oblique geometry: axes rotated about two axes, anisotropic spacing.
    VolumeHead h = makeHead(20, 30, 10);
    const double a = 0.3, b = -0.7;
    const double r[9] = {std::cos(a), std::sin(a), 0, -std::sin(a) * std::cos(b), std::cos(a) * std::cos(b),
                         std::sin(b), std::sin(a) * std::sin(b), -std::cos(a) * std::sin(b), std::cos(b)};
    std::memcpy(h.orientation, r, sizeof r);
    h.voxelspace[0] = 0.7;
    h.voxelspace[1] = 0.9;
    h.voxelspace[2] = 3.5;
    h.topxyz[0] = -120.25;
    h.topxyz[1] = 35.5;
    h.topxyz[2] = 60;
    const QByteArray voxels(int(h.totallen - 512), '\0');
    NDicomVolume v(&h, const_cast<char*>(voxels.constData()), voxels.size());
    for (const auto& ijk : {std::array<int, 3>{0, 0, 0}, {19, 29, 9}, {7, 3, 5}, {0, 29, 2}}) {
        const double* p = v.getPointXYZ(ijk[0], ijk[1], ijk[2]);
        for (int c = 0; c < 3; ++c) {
            const double expected = h.topxyz[c] + ijk[0] * 0.7 * r[c] + ijk[1] * 0.9 * r[3 + c] + ijk[2] * 3.5 * r[6 + c];
            QVERIFY(std::fabs(p[c] - expected) < 1e-9);
        }
        const float* f = v.getPointFIJK(p[0], p[1], p[2]);
        for (int c = 0; c < 3; ++c)
            QVERIFY2(std::fabs(f[c] - ijk[c]) < 1e-3, qPrintable(QString("axis %1: %2").arg(c).arg(f[c])));
    }

    v.getCubeEightTopPosition();
    const double* cube = v.getTopPointFirstLeftandUp();
    const double* last = v.getPointXYZ(19, 29, 0);
    QCOMPARE(cube[7 * 3 + 2], last[2]);
    const double* first = v.getPointXYZ(0, 0, 9);
    QCOMPARE(cube[0], first[0]);

    VolumeHead id = makeHead(10, 20, 30);
    const QByteArray none(int(id.totallen - 512), '\0');
    NDicomVolume plain(&id, const_cast<char*>(none.constData()), none.size());
    double x, y, z;
    plain.getCenterPoint(x, y, z);
    QCOMPARE(x, -5.0);
    QCOMPARE(y, -10.0);
    QCOMPARE(z, -15.0);

    // Working copies follow updateCal and the setters, never the head.
    plain.updateCal();
    plain.settopxyz(1, 2, 3);
    plain.setvolumeorientation(0, 1, 0, 1, 0, 0, 0, 0, -1);
    QCOMPARE(plain.getWorkingOrigin()[2], 3.0);
    QCOMPARE(plain.getWorkingOrientation()[8], -1.0);
    QCOMPARE(plain.getTopLeft()[2], 0.0);
    QCOMPARE(plain.getWorkingSize()[2], 30);
}

void TestVolume::axisQueries()
{
    NVolume v;
    const double* r = v.getReverse(1, -2, 2);
    QCOMPARE(QVector<double>(r, r + 3), QVector<double>({1, -2, 2}));
    r = v.getReverse(0.1, 0.2, -0.9);
    QCOMPARE(QVector<double>(r, r + 3), QVector<double>({0.1, 0.2, 0.9}));
    QCOMPARE(v.getPosiOrNegativeOrien(0, 0, -1), -1);
    QCOMPARE(v.getPosiOrNegativeOrien(0.9, 0.1, 0), 1);
    QCOMPARE(v.getmainz(0.2, 0.9, 0.1), 2);
    QCOMPARE(v.getmainz(-0.2, 0.1, -0.95), 3);
    QCOMPARE(v.getmainz(-0.8, 0.1, 0.5), 1);
}

void TestVolume::histogramAndMask()
{
    // 64 x 64 x 16 zero voxels: counter 0 wraps back to 0.
    VolumeHead h = makeHead(64, 64, 16);
    QByteArray voxels(int(h.totallen - 512), '\0');
    const qint16 minusOne = -1;
    std::memcpy(voxels.data() + 2 * 7, &minusOne, 2);
    NDicomVolume v(&h, voxels.data(), voxels.size());
    QVector<unsigned short> counters(65536, 0);
    v.getpixels(counters.data());
    QCOMPARE(int(counters[0]), 65535);
    QCOMPARE(int(counters[65535]), 1);

    VolumeHead small = makeHead(35, 3, 2);
    const QByteArray data = randomVoxels(small.totallen - 512, 3);
    NDicomVolume m(&small, const_cast<char*>(data.constData()), data.size());
    NBitVolume mask(35, 3, 2);
    mask.SetAll();
    NVolume::maskVolume(&m, &mask);
    QCOMPARE(QByteArray(m.getData(), data.size()), data);
    mask.ClearAll();
    mask.setBit(33, 2, 1);
    NVolume::maskVolume(&m, &mask);
    for (int k = 0; k < 2; ++k)
        for (int j = 0; j < 3; ++j)
            for (int i = 0; i < 35; ++i) {
                quint16 expected = 0;
                if (i == 33 && j == 2 && k == 1)
                    std::memcpy(&expected, data.constData() + (k * 3 + j) * 70 + i * 2, 2);
                QCOMPARE(m.getVoxel(i, j, k), expected);
            }
}

void TestVolume::companion()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    VolumeHead h = makeHead(256, 256, 2);
    const QByteArray voxels = randomVoxels(h.totallen - 512, 4);
    NDicomVolume source(&h, const_cast<char*>(voxels.constData()), voxels.size());
    const QString path = dir.filePath("c.data");
    QVERIFY(source.saveAs(path));

    qputenv("KESTREL_VOLUME_PLUGIN", QFile::encodeName(dir.filePath("no-such-plugin.so")));
    NVolume plain;
    QCOMPARE(plain.loadVolume(path), 1);
    QVERIFY(!plain.getVelIVolume());

    qputenv("KESTREL_VOLUME_PLUGIN", KESTREL_TEST_VOLUME_PLUGIN);
    NVolume bound;
    QCOMPARE(bound.loadVolume(path), 1);
    QVERIFY(bound.getVelIVolume());
    QCOMPARE(bound.property("companionCalls").toStringList(), QStringList{"setVolume"});
    qunsetenv("KESTREL_VOLUME_PLUGIN");
}

QTEST_GUILESS_MAIN(TestVolume)
#include "tst_volume.moc"
