#include "dicom/dcmvalues_p.h"
#include "volume/volumeheadtext_p.h"
#include "nbitvolume.h"
#include "ndicomimage.h"
#include "ndicomvolume.h"
#include "qinstance.h"
#include "qseries.h"
#include "seriesfromfiles.h"
#include "syntheticdicom.h"
#include "testcatalog.h"

#include <clocale>
#include <cstdio>

#include <QtTest>
#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>

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
    const int size[3] = {x, y, z};
    h.volumestep[0] = 2;
    for (int a = 0; a < 3; ++a) {
        h.volumesize[a] = size[a];
        h.volumestep[a + 1] = h.volumestep[a] * size[a];
    }
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

// Random voxels for every frame of HEAD.
QByteArray randomVoxels(const VolumeHead& head, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> dist(-32768, 32767);
    QByteArray data(int(head.totallen - 512), Qt::Uninitialized);
    for (int i = 0; i + 1 < data.size(); i += 2) {
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

// The slab rules written out plainly: the reference the cutters are checked against.
QVector<short> naivePlane(const VolumeHead& h, const QByteArray& voxels, int axis, int index, int thickness,
                          int render, int& width, int& height)
{
    const int* n = h.volumesize;
    auto at = [&](int i, int j, int k) {
        short v;
        std::memcpy(&v, voxels.constData() + (qint64(k) * n[1] + j) * n[0] * 2 + i * 2, 2);
        return v;
    };
    const int t = std::max(thickness, 1);
    const int first = std::max(index - (t - 1) / 2, 0);
    const int end = std::min(index + 1 + t / 2, n[axis - 1]);
    width = axis == 1 ? n[1] : n[0];
    height = axis == 3 ? n[1] : n[2];
    QVector<short> out;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            QVector<short> values;
            for (int s = first; s < end; ++s)
                values << (axis == 3 ? at(x, y, s) : axis == 2 ? at(x, s, y) : at(s, x, y));
            int v = values.first();
            long sum = 0;
            for (short value : values) {
                sum += value;
                v = render == 1 ? std::min<int>(v, value) : std::max<int>(v, value);
            }
            out << short(render == 2 ? sum / long(values.size()) : v);
        }
    return out;
}

QVector<short> pixels(NDicomImage& image)
{
    QVector<short> out;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            out << short(image.getValue16u(x, y));
    return out;
}

// The volume of the series made of FILES (series key 42); the series object stays with OWNER.
std::unique_ptr<NDicomVolume> volumeOf(const QStringList& files, QObject* owner)
{
    auto volume = std::make_unique<NDicomVolume>();
    volume->loadSeries(seriesFromFiles(files, 42, owner));
    return volume;
}

} // namespace

class TestVolume : public QObject
{
    Q_OBJECT

private slots:
    void headText();
    void volumeFiles();
    void bitMask();
    void voxelAccessAndFrames();
    void transforms();
    void histogramAndMask();
    void trilinearSample();
    void slabReductions();
    void displayTables();
    void axialCoronalSagittalChoice();
    void seriesToVolume();
    void germanDesktop();
    void signedAndOddSeries();
    void cacheCycle_data() { TestCatalog::addBackendRows(); }
    void cacheCycle();
};

void TestVolume::headText()
{
    VolumeHead h = makeHead(256, 256, 136);
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
                     "RescaleSlope:1;WindowCenter:0;WindowWidth:2000;isOrder:1;timeNum:1;format:2;"));
    QCOMPARE(QList<int>({photometricCode("YBR_RCT", 1), photometricCode("MONOCHROME1", 1), photometricCode("NOT ONE", 5)}),
             QList<int>({12, 0, 5}));

    // Back from the text.
    h = makeHead(17, 9, 3, 2);
    h.SEPK = 9007199254740993LL;
    // A full-length UID has no terminator in its field.
    const QByteArray uid64 = QByteArray("1.2.840.") + QByteArray(56, '7');
    std::memcpy(h.SEUID, uid64.constData(), 64);
    std::strcpy(h.STUID, "2.25.1");
    h.topxyz[0] = -123.456789;
    h.orientation[1] = 0.0044721;
    h.isOrder = -1;
    const QString text = v.volumeHeadtoString(h);
    v.stringToVolumeHead(text);
    VolumeHead r = *v.getHead();
    const VolumeHead parsed = r;
    QCOMPARE(r.topxyz[0], -123.457); // doubles keep 6 significant digits
    r.topxyz[0] = h.topxyz[0];
    QCOMPARE(std::memcmp(&r, &h, sizeof h), 0); // everything else exactly

    // The format item tells heads of the present rules from those of earlier builds.
    const QString older = QString(text).remove("format:2;");
    QVERIFY(isCurrentVolumeHeadText(text) && !isCurrentVolumeHeadText(older)
            && !isCurrentVolumeHeadText(older + "format:1;") && !isCurrentVolumeHeadText(QString()));
    v.stringToVolumeHead(older);
    QCOMPARE(std::memcmp(v.getHead(), &parsed, sizeof parsed), 0);
    // A shorter UID replaces only the bytes it covers.
    v.stringToVolumeHead(QString(text).replace(QString::fromLatin1(uid64), "9.9"));
    QCOMPARE(QByteArray(v.getHead()->SEUID, 4), QByteArray("9.9."));
    // Keys are ignored: swapped items swap their values.
    v.stringToVolumeHead(QString(text).replace("BitsAllocated:16;HighBit:11;", "HighBit:11;BitsAllocated:16;"));
    QCOMPARE(v.getHead()->BitsAllocated, 11);
    // Numbers that do not convert become 0; a short text leaves later fields alone.
    v.stringToVolumeHead("magic:DCVM;totallen:abc;SEPK:5");
    QVERIFY(v.getHead()->totallen == 0 && v.getHead()->SEPK == 5 && v.getHead()->BitsAllocated == 11);
}

void TestVolume::volumeFiles()
{
    QTemporaryDir dir;
    VolumeHead h = makeHead(64, 30, 20, 2);
    std::strcpy(h.SEUID, "1.2.3.4");
    QByteArray voxels = randomVoxels(h, 1);
    NDicomVolume v(&h, voxels.data(), voxels.size());
    QVERIFY(v.isValid());
    const QString path = dir.filePath("a.data");
    QVERIFY(v.getStrVolumeHead().isEmpty());
    QVERIFY(v.saveAs(path));
    QCOMPARE(v.getStrVolumeHead(), v.volumeHeadtoString(h));
    // The 368-byte head, zeros up to 512, then the voxels of every frame.
    QCOMPARE(readAll(path), QByteArray(reinterpret_cast<const char*>(&h), 368) + QByteArray(144, '\0') + voxels);

    NVolume loaded;
    QCOMPARE(loaded.loadVolume(path), 1);
    QCOMPARE(std::memcmp(loaded.getHead(), &h, sizeof h), 0);
    QCOMPARE(QByteArray(loaded.getData(), voxels.size()), voxels);

    // No buffer: true, no file, but the head string is set.
    NDicomVolume empty(nullptr, nullptr, 0);
    QVERIFY(!empty.isValid());
    QVERIFY(empty.saveAs(dir.filePath("none.data")));
    QVERIFY(!QFile::exists(dir.filePath("none.data")));
    QVERIFY(empty.getStrVolumeHead().startsWith("magic:DCVM;totallen:0;"));

    // Sizes: 255 x 256 x 1 voxels, 130560 bytes + 512 = 131072, is the largest size refused.
    VolumeHead small = makeHead(255, 256, 1);
    QByteArray file(int(small.totallen), '\0');
    auto put = [&](const VolumeHead& head) {
        std::memcpy(file.data(), &head, sizeof head);
        return writeFile(dir.filePath("size.data"), file) ? dir.filePath("size.data") : QString();
    };
    QCOMPARE(loaded.loadVolume(put(small)), -1);
    // One byte more, with a totallen of the file's size, loads.
    small.totallen = file.size() + 1;
    file.append('\x01');
    QCOMPARE(loaded.loadVolume(put(small)), 1);
    QCOMPARE(loaded.getWorkingSize()[0], 255);
    // Refused before allocating: totallen past the end, geometry past the buffer.
    VolumeHead longer = small, deeper = small;
    longer.totallen += 1;
    deeper.volumesize[2] += 1;
    QCOMPARE(loaded.loadVolume(put(longer)), -1);
    QCOMPARE(loaded.loadVolume(put(deeper)), -1);
    QCOMPARE(loaded.geSize()[2], 1); // the loaded volume is kept

    // Loading binds the rendering companion from the volume plugin; without one its calls fail.
    NDicomImage image;
    qputenv("KESTREL_VOLUME_PLUGIN", QFile::encodeName(dir.filePath("no-such-plugin.so")));
    NVolume plain;
    QCOMPARE(plain.loadVolume(path), 1);
    QVERIFY(!plain.getVelIVolume() && !plain.rotateX(30, image) && !plain.StandardImage(image, true));
    // Every call reaches the companion with its arguments (a call that fails ends the list early).
    qputenv("KESTREL_VOLUME_PLUGIN", KESTREL_TEST_VOLUME_PLUGIN);
    NVolume bound;
    QCOMPARE(bound.loadVolume(path), 1);
    QVERIFY(bound.getVelIVolume());
    QVERIFY(bound.rotateX(30, image) && bound.rotateY(-15, image) && bound.rotateZ(2.5, image)
            && bound.rotateWXYZ(45, 0, 0, 1, image) && bound.getRotateImage(10, 1, 0, 0, image)
            && bound.shake(5, image) && bound.StandardImage(image, true));
    QCOMPARE(bound.property("companionCalls").toStringList(),
             QStringList({"setVolume", "rotateX 30", "rotateY -15", "rotateZ 2.5", "rotateWXYZ 45 0 0 1",
                          "getRotateImage 10 1 0 0", "shake 5", "StandardImage 1"}));
    qunsetenv("KESTREL_VOLUME_PLUGIN");
}

void TestVolume::bitMask()
{
    NBitVolume m(33, 4, 3);
    QCOMPARE(m.GetElementRow(), 2);
    m.SetAll();
    QCOMPARE(m.CountVoxNum(true), 33 * 4 * 3); // padding bits are not counted
    m.ClearAll();
    m.setBit(32, 3, 2);
    m.SetVoxel(0, 1, 1, true);
    QCOMPARE(m.GetBuffer()[2][3 * 2 + 1], 1u); // bit 0 of the row's second word
    QVERIFY(!m.SafeGetVoxel(33, 0, 0) && !m.CheckVox(-1, 0, 0) && m.CheckVox(32, 3, 2));
    m.CalcBoundingBox();
    QCOMPARE(QList<int>({m.GetDataTopX(), m.GetDataTopY(), m.GetDataBottomX(), m.GetDataBottomZ()}), QList<int>({0, 1, 32, 2}));
    NBitVolume other(m);
    other.unsetBit(32, 3, 2);
    other.XOR(m);
    QCOMPARE(other.CountVoxNum(true), 1);
    ~other;
    QCOMPARE(other.CountVoxNum(true), 33 * 4 * 3 - 1);

    NBitVolume fresh(8, 8, 8);
    fresh.RecalcDataTopXYZ(-5, 2, 3);
    QCOMPARE(fresh.GetDataTopX() + fresh.GetDataTopY(), 0);
    fresh.ClearAll();
    fresh.setBit(5 * 64 + 3 * 8 + 6); // the linear index matches (i, j, k) on square slices
    QVERIFY(fresh.GetVoxel(6, 3, 5) && fresh.CountVoxNum(true) == 1);

    // Readers: "X Y Z" text beside a .dat of one byte per voxel, or the raw file with a size.
    QTemporaryDir dir;
    QByteArray bytes(30, '\0');
    bytes[(1 * 3 + 2) * 5 + 4] = 7; // voxel (4, 2, 1)
    bytes[1] = 1;                   // voxel (1, 0, 0)
    QVERIFY(writeFile(dir.filePath("mask.dat"), bytes) && writeFile(dir.filePath("mask.txt"), "5 3 2"));
    auto name = [&](const char* file) { return QFile::encodeName(dir.filePath(file)); };
    NBitVolume r(5, 3, 2), wrongSize(4, 3, 2), raw;
    QVERIFY(r.ReadFromFile(name("mask.txt").constData()));
    QVERIFY(r.GetVoxel(4, 2, 1) && r.GetVoxel(1, 0, 0) && r.CountVoxNum(true) == 2);
    QVERIFY(!wrongSize.ReadFromFile(name("mask.txt").constData()));
    int size[3] = {5, 3, 2};
    QVERIFY(raw.ReadFromRawFile(name("mask.dat").constData(), size));
    QCOMPARE(raw.CountVoxNum(true), 2);
    QVERIFY(!raw.WriteToFile(name("out.dat").constData()));
    QVERIFY(!QFile::exists(dir.filePath("out.dat")));
}

void TestVolume::voxelAccessAndFrames()
{
    VolumeHead h = makeHead(6, 5, 4, 2);
    QByteArray voxels = randomVoxels(h, 2);
    NDicomVolume v(&h, voxels.data(), voxels.size());
    auto naive = [&](int t, int i, int j, int k) {
        quint16 value;
        std::memcpy(&value, voxels.constData() + t * h.volumestep[3] + k * 60 + j * 12 + i * 2, 2);
        return value;
    };
    QCOMPARE(v.getVoxel(5, 4, 3), naive(0, 5, 4, 3));
    // Slice layers start every 60 bytes of the current frame and follow it.
    QVERIFY(reinterpret_cast<char*>(v.getLayers()[2]) == v.getData() + 120);
    const char* frame0 = v.getData();
    v.setTimeIndex(2); // timeNum: no change
    QVERIFY(v.getData() == frame0);
    v.setTimeIndex(1);
    QCOMPARE(v.getTimeIndex(), 1);
    QVERIFY(v.getData() == frame0 + h.volumestep[3]);
    QVERIFY(reinterpret_cast<char*>(v.getLayers()[3]) == v.getData() + 180);
    QCOMPARE(v.getVoxel(1, 2, 3), naive(1, 1, 2, 3));
    v.setVoxelValue16u(1, 2, 3, 40000);
    QCOMPARE(v.getVoxel(1, 2, 3), quint16(40000));

    // A head claiming more frames than the buffer holds never moves past it.
    VolumeHead lying = h;
    lying.timeNum = 5;
    NDicomVolume short_(&lying, voxels.data(), voxels.size());
    short_.setTimeIndex(2);
    QCOMPARE(short_.getTimeIndex(), 0);

    // clone copies the source's current frame; like every volume it saves to a file that loads.
    NVolume copy;
    copy.clone(&v);
    QVERIFY(copy.getHead()->totallen == h.volumestep[3] + 512 && copy.getHead()->timeNum == 2);
    QCOMPARE(QByteArray(copy.getData(), h.volumestep[3]), QByteArray(v.getData(), h.volumestep[3]));
    QTemporaryDir dir;
    NVolume made, wide;
    made.initVolume16u(300, 250, 2);
    for (int k = 0; k < 2; ++k)
        made.setVoxelValue16u(299, 249, k, quint16(7 + k));
    wide.clone(&made);
    for (NVolume* volume : {&made, &wide}) {
        const QString file = dir.filePath("made.data");
        QVERIFY(volume->saveAs(file));
        NVolume back;
        QCOMPARE(back.loadVolume(file), 1);
        QCOMPARE(QList<int>({back.getVoxel(299, 249, 0), back.getVoxel(299, 249, 1)}), QList<int>({7, 8}));
    }

    // A head string with impossible sizes: cloning it gives an empty volume, not an overflow.
    NVolume bogus;
    bogus.stringToVolumeHead(v.volumeHeadtoString(h).replace("volumesize:6,5,4", "volumesize:100000,100000,9"));
    NVolume fromBogus;
    fromBogus.clone(&bogus);
    QVERIFY(!fromBogus.isValid());
    NDicomImage none;
    QVERIFY(!bogus.getDicomImagePlane(none, 0, 1, AxisK, RenderMax));
}

void TestVolume::transforms()
{
    // Oblique geometry: axes rotated about two axes, anisotropic spacing.
    VolumeHead h = makeHead(20, 30, 10);
    const double a = 0.3, b = -0.7;
    const double r[9] = {std::cos(a), std::sin(a), 0, -std::sin(a) * std::cos(b), std::cos(a) * std::cos(b),
                         std::sin(b), std::sin(a) * std::sin(b), -std::cos(a) * std::sin(b), std::cos(b)};
    std::memcpy(h.orientation, r, sizeof r);
    const double s[3] = {0.7, 0.9, 3.5}, t[3] = {-120.25, 35.5, 60};
    std::memcpy(h.voxelspace, s, sizeof s);
    std::memcpy(h.topxyz, t, sizeof t);
    QByteArray voxels(int(h.totallen - 512), '\0');
    NDicomVolume v(&h, voxels.data(), voxels.size());
    for (const auto& ijk : {std::array<int, 3>{0, 0, 0}, {19, 29, 9}, {7, 3, 5}, {0, 29, 2}}) {
        const double* p = v.getPointXYZ(ijk[0], ijk[1], ijk[2]);
        for (int c = 0; c < 3; ++c)
            QVERIFY(std::fabs(p[c] - (t[c] + ijk[0] * s[0] * r[c] + ijk[1] * s[1] * r[3 + c] + ijk[2] * s[2] * r[6 + c])) < 1e-9);
        const float* f = v.getPointFIJK(p[0], p[1], p[2]);
        for (int c = 0; c < 3; ++c)
            QVERIFY2(std::fabs(f[c] - ijk[c]) < 1e-3, qPrintable(QString("axis %1: %2").arg(c).arg(f[c])));
    }
    v.getCubeEightTopPosition();
    QCOMPARE(v.getTopPointFirstLeftandUp()[7 * 3 + 2], v.getPointXYZ(19, 29, 0)[2]);
    // A raw plane states where its pixels lie: pixel (x, y) is voxel (x, y, 3), (x, 3, y) or (3, x, y).
    for (int axis = 1; axis <= 3; ++axis) {
        NDicomImage plane;
        QVERIFY(v.getDicomImagePlane(plane, 3, 1, EMainAxis(axis), RenderMax));
        for (const auto& xy : {std::array<int, 2>{0, 0}, {plane.width() - 1, 0}, {2, plane.height() - 1}}) {
            double p[3];
            plane.getXYZ(xy[0], xy[1], p[0], p[1], p[2]);
            const int ijk[3] = {axis == 1 ? 3 : xy[0], axis == 1 ? xy[0] : axis == 2 ? 3 : xy[1], axis == 3 ? 3 : xy[1]};
            const double* q = v.getPointXYZ(ijk[0], ijk[1], ijk[2]);
            for (int c = 0; c < 3; ++c)
                QVERIFY2(std::fabs(p[c] - q[c]) < 1e-9, qPrintable(QString("axis %1 pixel %2,%3").arg(axis).arg(xy[0]).arg(xy[1])));
        }
    }

    VolumeHead id = makeHead(10, 20, 30);
    QByteArray none(int(id.totallen - 512), '\0');
    NDicomVolume plain(&id, none.data(), none.size());
    double x, y, z;
    plain.getCenterPoint(x, y, z);
    QVERIFY(x == -5 && y == -10 && z == -15);

    const double* rev = v.getReverse(1, -2, 2); // a tie: unchanged
    QCOMPARE(QList<double>({rev[0], rev[1], rev[2]}), QList<double>({1, -2, 2}));
    rev = v.getReverse(0.1, 0.2, -0.9);
    QCOMPARE(QList<double>({rev[0], rev[1], rev[2]}), QList<double>({0.1, 0.2, 0.9}));
    QVERIFY(v.getPosiOrNegativeOrien(0, 0, -1) == -1 && v.getPosiOrNegativeOrien(0.9, 0.1, 0) == 1);
    QVERIFY(v.getmainz(0.2, 0.9, 0.1) == 2 && v.getmainz(-0.2, 0.1, -0.95) == 3);
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

    // A full mask keeps everything; a single bit keeps one voxel and zeroes the rest.
    VolumeHead small = makeHead(35, 3, 2);
    QByteArray data = randomVoxels(small, 3);
    NDicomVolume m(&small, data.data(), data.size());
    NBitVolume mask(35, 3, 2);
    mask.SetAll();
    NVolume::maskVolume(&m, &mask);
    QCOMPARE(QByteArray(m.getData(), data.size()), data);
    mask.ClearAll();
    mask.setBit(33, 2, 1);
    NVolume::maskVolume(&m, &mask);
    const int kept = (1 * 3 + 2) * 70 + 33 * 2;
    QCOMPARE(QByteArray(m.getData(), data.size()), QByteArray(kept, '\0') + data.mid(kept, 2) + QByteArray(data.size() - kept - 2, '\0'));
}

void TestVolume::trilinearSample()
{
    // 4 x 3 x 3 voxels; strides 2, 8, 24.
    QVector<short> v(36);
    std::mt19937 rng(11);
    std::uniform_int_distribution<int> dist(-3000, 3000);
    for (short& x : v)
        x = short(dist(rng));
    v[0] = -10;
    v[1] = 10;
    v[5] = 1234;
    int steps[3] = {2, 8, 24};
    char* data = reinterpret_cast<char*>(v.data());
    QCOMPARE(voxel_valued_sse4_s16(data, steps, 1, 1, 0), short(1234));
    QCOMPARE(voxel_valued_sse4_s16(data, steps, 0.5f, 0, 0), short(0));
    QCOMPARE(voxel_valued_sse4_s16(data, steps, 0.25f, 0, 0), short(32767));
    const short near10 = voxel_valued_sse4_s16(data, steps, 0.75f, 0, 0);
    QVERIFY(near10 > 0 && near10 <= 10);
}

void TestVolume::slabReductions()
{
    // Odd sizes exercise the vector tails; whole-volume slabs of the largest take the threaded path,
    // its 20-plane sagittal slabs the path shared with the helper thread.
    for (const auto& size : {std::array<int, 3>{37, 29, 23}, std::array<int, 3>{128, 96, 48},
                             std::array<int, 3>{512, 256, 256}}) {
        const bool large = size[2] == 256;
        VolumeHead h = makeHead(size[0], size[1], size[2]);
        QByteArray voxels = randomVoxels(h, unsigned(size[0]));
        NDicomVolume v(&h, voxels.data(), voxels.size());
        for (int axis = 1; axis <= 3; ++axis) {
            const int n = size[axis - 1];
            // Slabs under, at and past a vector of voxels (8, 9, 17, 20), which the runs across
            // the contiguous axis fold differently.
            const std::array<int, 2> cases[] = {{0, 1}, {0, 4}, {n - 1, 4}, {n / 2, 1}, {n / 2, 7}, {n / 2, 8},
                                                {n / 2, 9}, {n / 2, 17}, {n / 2, 20}, {n - 2, 0}, {1, n}, {n / 2, 2 * n}};
            for (const auto& c : cases)
                for (int render : {0, 1, 2}) {
                    if (large && c[1] != 2 * n && !(axis == 1 && c[1] == 20))
                        continue;
                    NDicomImage image;
                    QVERIFY(v.getDicomImagePlane(image, c[0], c[1], EMainAxis(axis), RenderType(render)));
                    int w, hgt;
                    const QVector<short> expected = naivePlane(h, voxels, axis, c[0], c[1], render, w, hgt);
                    QCOMPARE(QSize(image.width(), image.height()), QSize(w, hgt));
                    QVERIFY2(pixels(image) == expected,
                             qPrintable(QString("axis %1 index %2 thickness %3 render %4")
                                            .arg(axis).arg(c[0]).arg(c[1]).arg(render)));
                }
            NDicomImage image;
            QVERIFY(!v.getDicomImagePlane(image, n, 1, EMainAxis(axis), RenderMax));
            QVERIFY(!v.getDicomImagePlane(image, -1, 3, EMainAxis(axis), RenderAverage));
        }
    }

    // All values negative: every axis shows the true maximum, and a one-plane slab is its plane.
    VolumeHead h = makeHead(9, 8, 7);
    QByteArray voxels(int(h.totallen - 512), '\0');
    for (int i = 0; i < voxels.size(); i += 2) {
        const qint16 value = qint16(-5 - (i / 2) % 11);
        std::memcpy(voxels.data() + i, &value, 2);
    }
    NDicomVolume v(&h, voxels.data(), voxels.size());
    NDicomImage image;
    for (int axis = 1; axis <= 3; ++axis) {
        QVERIFY(v.getDicomImagePlane(image, 3, 100, EMainAxis(axis), RenderMax));
        const QVector<short> slab = pixels(image);
        QCOMPARE(*std::max_element(slab.cbegin(), slab.cend()), short(-5));
        for (int render : {0, 1, 2}) {
            int w, hgt;
            QVERIFY(v.getDicomImagePlane(image, 2, 1, EMainAxis(axis), RenderType(render)));
            const QVector<short> plane = pixels(image);
            QCOMPARE(plane, naivePlane(h, voxels, axis, 2, 1, render, w, hgt));
            QVERIFY(*std::max_element(plane.cbegin(), plane.cend()) < 0);
        }
    }
    QVERIFY(v.getDicomImagePlane(image, 3, 100, AxisK, RenderMax));
    QVERIFY(v.getDicomImagePlane(image, 3, 2, EMainAxis(4), RenderMax)); // no such axis: untouched
    QCOMPARE(image.width(), 9);
    QCOMPARE(image.getThickness(), 100.0);
}

void TestVolume::displayTables()
{
    // Every axis-aligned orientation (signed permutations), each plane: pixel (x, y) must be the
    // voxel found at position + x * spacing * row + y * spacing * column.
    VolumeHead h = makeHead(7, 6, 5);
    const double spacing[3] = {0.5, 0.75, 2}, top[3] = {10, -20, 30};
    std::memcpy(h.voxelspace, spacing, sizeof spacing);
    std::memcpy(h.topxyz, top, sizeof top);
    h.RescaleIntercept = -1024;
    QByteArray voxels = randomVoxels(h, 5);
    const int perms[6][3] = {{0, 1, 2}, {0, 2, 1}, {1, 0, 2}, {1, 2, 0}, {2, 0, 1}, {2, 1, 0}};
    const auto cutters = {&NDicomVolume::getDicomImagePlaneI, &NDicomVolume::getDicomImagePlaneJ,
                          &NDicomVolume::getDicomImagePlaneK};
    int checked = 0;
    for (const auto& perm : perms)
        for (int signs = 0; signs < 8; ++signs) {
            std::memset(h.orientation, 0, sizeof h.orientation);
            int view[3];
            for (int a = 0; a < 3; ++a) {
                h.orientation[3 * a + perm[a]] = (signs >> a) & 1 ? -1 : 1;
                view[a] = perm[a];
            }
            NDicomVolume v(&h, voxels.data(), voxels.size());
            int fixed = 0;
            for (auto cut : cutters) {
                NDicomImage image;
                const int index = 2;
                // The minimum rule on one plane gives the voxels themselves on every axis.
                QVERIFY((v.*cut)(image, index, 1, view, RenderMin));
                QCOMPARE(image.getIntercept(), -1024.0);
                const double* pos = image.getPosition();
                const double* row = image.getOrientation(0);
                const double* col = image.getOrientation(1);
                const double* sp = image.getPixelSpacing();
                for (int y = 0; y < image.height(); ++y)
                    for (int x = 0; x < image.width(); ++x) {
                        double p[3];
                        for (int c = 0; c < 3; ++c)
                            p[c] = pos[c] + x * sp[0] * row[c] + y * sp[1] * col[c];
                        const float* f = v.getPointFIJK(p[0], p[1], p[2]);
                        const int ijk[3] = {int(std::lround(f[0])), int(std::lround(f[1])), int(std::lround(f[2]))};
                        QCOMPARE(ijk[fixed], index);
                        QVERIFY2(image.getValue16u(x, y) == v.getVoxel(ijk[0], ijk[1], ijk[2]),
                                 qPrintable(QString("fixed %1 view %2 %3 %4 signs %5 pixel %6,%7")
                                                .arg(fixed).arg(view[0]).arg(view[1]).arg(view[2]).arg(signs).arg(x).arg(y)));
                    }
                ++fixed;
                ++checked;
            }
        }
    QCOMPARE(checked, 144);

    // Identity geometry: the axial image is the raw slice, with the slab's thickness.
    std::memset(h.orientation, 0, sizeof h.orientation);
    h.orientation[0] = h.orientation[4] = h.orientation[8] = 1;
    NDicomVolume v(&h, voxels.data(), voxels.size());
    int view[3] = {0, 1, 2};
    NDicomImage image, raw;
    QVERIFY(v.getDicomImagePlaneK(image, 4, 3, view, RenderAverage));
    QVERIFY(v.getDicomImagePlane(raw, 4, 3, AxisK, RenderAverage));
    QCOMPARE(pixels(image), pixels(raw));
    QVERIFY(image.getThickness() == 6 && image.getOriThickness() == 2);
    QVERIFY(!v.getDicomImagePlaneK(image, 5, 1, view, RenderMax) && !v.getDicomImagePlaneI(image, 7, 1, nullptr, RenderMax));
}

void TestVolume::axialCoronalSagittalChoice()
{
    VolumeHead h = makeHead(8, 7, 6);
    // Slices along x (sagittal acquisition): i = +y, j = -z, k = +x.
    std::memset(h.orientation, 0, sizeof h.orientation);
    h.orientation[1] = 1;
    h.orientation[5] = -1;
    h.orientation[6] = 1;
    QByteArray voxels = randomVoxels(h, 9);
    NDicomVolume v(&h, voxels.data(), voxels.size());
    NDicomImage image;
    // Axial: across j (dominated by z); its width runs along i (y) or k (x).
    QVERIFY(v.getDicomImagePlaneAxi(image, 3, 1, RenderMax));
    QCOMPARE(image.width() * image.height(), 8 * 6);
    QCOMPARE(std::fabs(image.getOrientation(0)[2]) + std::fabs(image.getOrientation(1)[2]), 0.0);
    QVERIFY(!v.getDicomImagePlaneAxi(image, 7, 1, RenderMax)); // j has 7 planes
    // Sagittal: the raw k plane.
    QVERIFY(v.getDicomImagePlaneSag(image, 5, 1, RenderMin));
    QCOMPARE(std::fabs(image.getOrientation(0)[0]) + std::fabs(image.getOrientation(1)[0]), 0.0);
    // Coronal: across i (dominated by y).
    QVERIFY(v.getDicomImagePlaneCor(image, 0, 1, RenderAverage));
    QCOMPARE(image.width() * image.height(), 7 * 6);
    QCOMPARE(QList<int>({v.getAxiSliceNum(), v.getCorSliceNum(), v.getSagSliceNum()}), QList<int>({7, 8, 6}));

    QVERIFY(!v.getDicomImagePlaneByIndex(image, 0));
    QCOMPARE(QSize(image.width(), image.height()), QSize(8, 7));
}

void TestVolume::seriesToVolume()
{
    QTemporaryDir dir;
    QObject owner;
    SyntheticImage base;
    base.rows = 12;
    base.columns = 16;
    base.rowSpacing = 0.8;
    base.columnSpacing = 0.6;
    base.position = {-10, 20, 30};
    base.studyUid = "1.2.3";
    base.seriesUid = "1.2.3.4";
    base.pixel = [](int x, int y, int) { return 100 * y + x; };
    const QStringList files = writeSyntheticSeries(dir.path(), base, 5, {0, 0, 5});
    QCOMPARE(files.size(), 5);

    NDicomVolume v;
    QSignalSpy progress(&v, &NDicomVolume::processBar);
    v.loadSeries(seriesFromFiles(files, 42, &owner));
    QVERIFY(v.isValid());
    QCOMPARE(progress.count(), 5);
    QCOMPARE(progress.last().at(0).toInt(), 100);
    // The head from the first file: the spacing along i is Pixel Spacing's second value (between
    // columns), along j its first (between rows), along k from the positions.
    QCOMPARE(v.volumeHeadtoString(*v.getHead()),
             QString("magic:DCVM;totallen:2432;SEPK:42;SEUID:1.2.3.4;STUID:1.2.3;volumesize:16,12,5;"
                     "volumestep:2,32,384,1920;voxelspace:0.6,0.8,5;thinkness:1;topxyz:-10,20,30;"
                     "orientation:1,0,0,0,1,0,0,0,1;SamplesPerPixel:1;PhotometricInterpretation:1;BitsAllocated:16;"
                     "HighBit:11;RescaleIntercept:0;RescaleSlope:1;WindowCenter:0;WindowWidth:2000;isOrder:1;timeNum:1;"
                     "format:2;"));
    QCOMPARE(std::memcmp(v.getHead()->orientation, v.getWorkingOrientation(), 9 * sizeof(double)), 0);
    QCOMPARE(std::memcmp(v.getData() - 512, v.getHead(), sizeof(VolumeHead)), 0);
    for (int k = 0; k < 5; ++k)
        QCOMPARE(v.getVoxel(15, 11, k), quint16(1115));
    QCOMPARE(v.getSliceIndexByPosition(-10, 20, 30 + 5 * 3), 3);
    QCOMPARE(v.getSliceIndexByPosition(500, 20, 40), 0);

    // A series of one image builds nothing.
    QVERIFY(!volumeOf(files.mid(0, 1), &owner)->isValid());

    // Reversed slices are put back in increasing order by the standard form.
    // Column direction -y: the slice normal, and so the k direction, is -z.
    SyntheticImage flipped = base;
    flipped.orientation = {1, 0, 0, 0, -1, 0};
    auto down = volumeOf(writeSyntheticSeries(dir.filePath("down"), flipped, 3, normalStep(flipped, 5)), &owner);
    QVERIFY(down->isValid());
    QCOMPARE(down->getHead()->orientation[8], -1.0);
    const int order = down->getHead()->isOrder;
    const double lowest = down->getPointXYZ(0, 0, 2)[2];
    down->getStandardDicomVolume();
    QCOMPARE(down->getHead()->orientation[8], 1.0);
    QCOMPARE(down->getHead()->isOrder, -order);
    QCOMPARE(down->getPointXYZ(0, 0, 0)[2], lowest);

    // Three series of one geometry are the frames of a 4-D volume.
    QList<QSeries*> frames;
    for (int t = 0; t < 3; ++t) {
        SyntheticImage frame;
        frame.rows = frame.columns = 8;
        frame.pixel = [t](int x, int y, int) { return 1000 * t + 10 * y + x; };
        frames << seriesFromFiles(writeSyntheticSeries(dir.filePath(QString::number(t)), frame, 4), 42, &owner);
    }
    NDicomVolume timed;
    timed.loadSeries(frames);
    QVERIFY(timed.isValid());
    const VolumeHead& th = *timed.getHead();
    QCOMPARE(QList<qint64>({th.timeNum, th.volumestep[3], th.totallen}), QList<qint64>({3, 512, 512 * 3 + 512}));
    for (int t = 0; t < 3; ++t) {
        timed.setTimeIndex(t);
        QVERIFY(timed.getData() == reinterpret_cast<char*>(timed.getLayers()[0]));
        QCOMPARE(timed.getVoxel(7, 6, 3), quint16(1000 * t + 67));
    }
}

// A desktop set to German: numbers in the head text keep their decimal point, and the head read
// back from the text equals the volume's.
void TestVolume::germanDesktop()
{
    const QByteArray previous = setlocale(LC_ALL, nullptr);
    QVERIFY2(setlocale(LC_ALL, "de_DE.UTF-8"), "the de_DE.UTF-8 locale is missing (scripts/setup.sh installs it)");
    char check[16];
    std::snprintf(check, sizeof check, "%g", 0.5);
    QCOMPARE(QByteArray(check), QByteArray("0,5")); // the C library now writes German numbers

    QTemporaryDir dir;
    QObject owner;
    SyntheticImage base;
    base.rows = 8;
    base.columns = 8;
    base.rowSpacing = 0.9375;
    base.columnSpacing = 0.9375;
    base.position = {-0.5, 20.25, 30};
    const QStringList files = writeSyntheticSeries(dir.path(), base, 3, {0, 0, 1.2});
    const std::unique_ptr<NDicomVolume> v = volumeOf(files, &owner);
    const QString text = v->volumeHeadtoString(*v->getHead());
    setlocale(LC_ALL, previous.constData());
    QVERIFY2(text.contains(";voxelspace:0.9375,0.9375,1.2;") && text.contains(";topxyz:-0.5,20.25,30;"),
             qPrintable(text));

    QVERIFY(setlocale(LC_ALL, "de_DE.UTF-8"));
    VolumeHead back = makeHead(1, 1, 1);
    kestrel::internal::parseVolumeHeadText(text, back);
    setlocale(LC_ALL, previous.constData());
    QCOMPARE(back.voxelspace[0], 0.9375);
    QCOMPARE(back.voxelspace[2], 1.2);
    QCOMPARE(back.topxyz[1], 20.25);
}

void TestVolume::signedAndOddSeries()
{
    QTemporaryDir dir;
    QObject owner;
    // CT-like signed data: -1024..3071 in every slice becomes 0..4095 with intercept -1024.
    SyntheticImage ct;
    ct.modality = "CT";
    ct.rows = ct.columns = 64;
    ct.bitsStored = 16;
    ct.pixelRepresentation = 1;
    ct.pixel = [](int x, int y, int) { return -1024 + (y * 64 + x); };
    auto v = volumeOf(writeSyntheticSeries(dir.filePath("ct"), ct, 3), &owner);
    QVERIFY(v->isValid());
    QCOMPARE(QList<double>({v->getHead()->RescaleIntercept, v->getHead()->RescaleSlope}), QList<double>({-1024, 1}));
    QCOMPARE(v->getVoxel(0, 0, 2), quint16(0));
    QCOMPARE(v->getVoxel(63, 63, 2), quint16(4095));

    // Signed declared, minimum 0: the shift starts from -1.
    SyntheticImage positive = ct;
    positive.pixel = [](int x, int, int) { return x; };
    v = volumeOf(writeSyntheticSeries(dir.filePath("pos"), positive, 2), &owner);
    QCOMPARE(v->getHead()->RescaleIntercept, -1.0);
    QCOMPARE(v->getVoxel(0, 0, 0), quint16(1));

    // Missing and mismatched slice files are skipped: later slices move up, the last stays black.
    SyntheticImage plain;
    plain.pixel = [](int x, int, int) { return x + 1; };
    QStringList files = writeSyntheticSeries(dir.filePath("gaps"), plain, 4);
    SyntheticImage bigger = plain;
    bigger.rows = 40;
    bigger.position = {0, 0, 2};
    QVERIFY(writeSyntheticImage(files[2], bigger));
    QSeries* gaps = seriesFromFiles(files, 42, &owner);
    gaps->getInstances()[2]->setImageSize(32, 32); // the catalogue still says 32 x 32
    QVERIFY(QFile::remove(files[1])); // gone after it was catalogued
    NDicomVolume g;
    g.loadSeries(gaps);
    QCOMPARE(g.geSize()[2], 4);
    // Slice 1 holds slice 3's pixels.
    QCOMPARE(QList<int>({g.getVoxel(5, 5, 0), g.getVoxel(5, 5, 1), g.getVoxel(5, 5, 2), g.getVoxel(5, 5, 3)}),
             QList<int>({6, 6, 0, 0}));

    // 8-bit data is widened to 16-bit voxels.
    SyntheticImage bytes = plain;
    bytes.bitsAllocated = bytes.bitsStored = 8;
    bytes.pixel = [](int x, int y, int) { return (x * 8 + y) & 0xff; };
    v = volumeOf(writeSyntheticSeries(dir.filePath("u8"), bytes, 2), &owner);
    QVERIFY(v->isValid());
    QCOMPARE(v->getHead()->volumestep[0], 2);
    QCOMPARE(v->getVoxel(31, 7, 1), quint16((31 * 8 + 7) & 0xff));
    NDicomImage axial;
    QVERIFY(v->getDicomImagePlaneAxi(axial, 1, 1, RenderMax));
    QCOMPARE(axial.getValue16u(31, 7), quint16((31 * 8 + 7) & 0xff));
}

void TestVolume::cacheCycle()
{
    QFETCH(QString, backend);
    KESTREL_OPEN_CATALOG(catalog, backend);
    QVERIFY(catalog.setVolumeCache(catalog.path("cache")));

    SyntheticImage base;
    base.rows = 64;
    base.columns = 128;
    std::unique_ptr<QSeries> series(seriesFromFiles(writeSyntheticSeries(catalog.path("dicom"), base, 10), 42));
    const QString key = series->getSeriesBase();
    const QString file = catalog.path("cache") + "/" + key + ".data";
    QByteArray built; // head and voxels of the first build
    // Rewrites the cache file's bytes at OFFSET.
    auto damage = [&](qint64 offset, const QByteArray& bytes) {
        QFile f(file);
        QVERIFY(f.open(QIODevice::ReadWrite) && f.seek(offset) && f.write(bytes) == bytes.size());
    };
    // Built and registered (info 0); loaded from the cache (info 1); its file gone: unregistered,
    // rebuilt and registered again (info 0); registered by an earlier build (a head without the
    // format item): rebuilt, not read (info 0); voxels flipped in the file, or a head whose row
    // stride no longer follows from its sizes: rebuilt, never shown (info 0). One registration row
    // and the same volume every time.
    for (int round = 0; round < 6; ++round) {
        if (round == 2)
            QVERIFY(QFile::remove(file));
        if (round == 4)
            damage(512 + 1000, QByteArray(8, '\x7f'));
        if (round == 5) {
            qint32 stride = 128 * 2 + 2;
            damage(offsetof(VolumeHead, volumestep) + 4, QByteArray(reinterpret_cast<const char*>(&stride), 4));
        }
        if (round == 3) {
            const QString older = TestCatalog::value("SELECT VolumeHead FROM registration").remove("format:2;");
            TestCatalog::values("UPDATE registration SET VolumeHead = ?", {older});
            QCOMPARE(TestCatalog::value("SELECT VolumeHead FROM registration"), older);
        }
        NDicomVolume v;
        QSignalSpy info(&v, &NDicomVolume::registrationInfo);
        QVERIFY(v.getVolumeFromSeriesUID(series.get()));
        QCOMPARE(info.size() == 1 ? info[0][0].toInt() : -1, round == 1 ? 1 : 0);
        QCOMPARE(v.getCurVolumeDataPath(), file);
        QCOMPARE(TestCatalog::value("SELECT VoxelChecksum FROM registration").size(), 8);
        QVERIFY(QFile::exists(file));
        QCOMPARE(TestCatalog::values("SELECT SeriesInstanceUID, VolumeHead, ServerAddress FROM registration"),
                 QStringList({key, v.volumeHeadtoString(*v.getHead()), ""}));
        const QByteArray volume = QByteArray(reinterpret_cast<const char*>(v.getHead()), sizeof(VolumeHead))
            + QByteArray(v.getData(), v.getHead()->volumestep[3]);
        if (round == 0)
            built = volume;
        QCOMPARE(volume, built);
    }
}

QTEST_GUILESS_MAIN(TestVolume)
#include "tst_volume.moc"
