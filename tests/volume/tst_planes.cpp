// Planes in patient space: every pixel of every axial, coronal and sagittal plane of a volume
// must state the position of the voxel it shows, and the volume must hold each file's pixels at
// the place and with the real value the DICOM rules give them. Real series where the shared data
// has them, synthetic oblique ones (non-square pixels, signed values, odd numbering) otherwise.
#include "dicom/dcmvalues_p.h"
#include "fileimage.h"
#include "ndicomimage.h"
#include "programs.h"
#include "ndicomvolume.h"
#include "qinstance.h"
#include "qseries.h"
#include "seriesfromfiles.h"
#include "syntheticdicom.h"
#include "testcatalog.h"

#include <QProcess>
#include <QSqlDatabase>
#include <QtTest>
#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/oflog/oflog.h>

#include <array>
#include <cmath>
#include <memory>

using namespace kestrel::internal;

namespace {

double realValue(NDicomVolume& v, int i, int j, int k)
{
    return double(short(v.getVoxel(i, j, k))) * v.getHead()->RescaleSlope + v.getHead()->RescaleIntercept;
}

// Every voxel of V lies where its file puts its pixel and holds its real value.
void checkAgainstFiles(NDicomVolume& v)
{
    const QList<QInstance*>& slices = v.getVolumeSeries()->getInstances();
    const int* n = v.geSize();
    QCOMPARE(slices.size(), n[2]);
    double worstPlace = 0, worstValue = 0;
    for (int k = 0; k < n[2]; ++k) {
        FileImage file;
        QVERIFY2(readFileImage(slices[k]->getFilePath(), file), qPrintable(slices[k]->getFilePath()));
        QCOMPARE(QSize(file.columns, file.rows), QSize(n[0], n[1]));
        for (int r = 0; r < n[1]; ++r)
            for (int c = 0; c < n[0]; ++c) {
                if ((r == 0 || r == n[1] - 1) && (c == 0 || c == n[0] - 1)) {
                    const Point p = file.at(c, r);
                    const double* q = v.getPointXYZ(c, r, k);
                    for (int a = 0; a < 3; ++a)
                        worstPlace = std::max(worstPlace, std::fabs(p[a] - q[a]));
                }
                const double real = file.real[r * n[0] + c];
                worstValue = std::max(worstValue, std::fabs(realValue(v, c, r, k) - real) / std::max(1.0, std::fabs(real)));
            }
    }
    QVERIFY2(worstPlace <= 0.01, qPrintable(QString("a voxel lies %1 mm from its pixel").arg(worstPlace)));
    QVERIFY2(worstValue <= 1e-9, qPrintable(QString("a voxel's real value is off by %1").arg(worstValue)));
}

// A volume of V's geometry whose every voxel holds its index along AXIS.
std::unique_ptr<NDicomVolume> indexVolume(NDicomVolume& v, int axis)
{
    VolumeHead head = *v.getHead();
    head.timeNum = 1;
    const int* n = head.volumesize;
    QVector<quint16> voxels(n[0] * n[1] * n[2]);
    for (int k = 0; k < n[2]; ++k)
        for (int j = 0; j < n[1]; ++j)
            for (int i = 0; i < n[0]; ++i)
                voxels[(k * n[1] + j) * n[0] + i] = quint16(axis == 0 ? i : axis == 1 ? j : k);
    return std::make_unique<NDicomVolume>(&head, reinterpret_cast<char*>(voxels.data()), qint64(voxels.size()) * 2);
}

struct PlaneError {
    double place = 0; // mm between a pixel's stated position and its voxel
    int values = 0;   // pixels whose value is not their voxel's
    int planes = 0;
};

// IMAGE's pixels against the voxels that the index images name.
void comparePlane(NDicomVolume& v, NDicomImage& image, NDicomImage* index[3], PlaneError& error)
{
    ++error.planes;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x) {
            const int i = index[0]->getValue16u(x, y), j = index[1]->getValue16u(x, y), k = index[2]->getValue16u(x, y);
            double stated[3];
            image.getXYZ(x, y, stated[0], stated[1], stated[2]);
            const double* p = v.getPointXYZ(i, j, k);
            for (int a = 0; a < 3; ++a)
                error.place = std::max(error.place, std::fabs(stated[a] - p[a]));
            if (image.getValue16u(x, y) != v.getVoxel(i, j, k))
                ++error.values;
        }
}

struct Views {
    const char* name;
    bool (NDicomVolume::*cut)(NDicomImage&, int, int, RenderType);
    int (NDicomVolume::*planes)();
};
const Views kViews[] = {{"axial", &NDicomVolume::getDicomImagePlaneAxi, &NDicomVolume::getAxiSliceNum},
                        {"coronal", &NDicomVolume::getDicomImagePlaneCor, &NDicomVolume::getCorSliceNum},
                        {"sagittal", &NDicomVolume::getDicomImagePlaneSag, &NDicomVolume::getSagSliceNum}};

// Every plane of every view, as cut and in its standard display orientation.
void checkPlanes(NDicomVolume& v)
{
    std::unique_ptr<NDicomVolume> index[3] = {indexVolume(v, 0), indexVolume(v, 1), indexVolume(v, 2)};
    for (const auto& view : kViews) {
        PlaneError cut, standard;
        const int count = (v.*view.planes)();
        QVERIFY(count > 0);
        for (int plane = 0; plane < count; ++plane) {
            NDicomImage image, ii, ij, ik;
            NDicomImage* indices[3] = {&ii, &ij, &ik};
            QVERIFY((v.*view.cut)(image, plane, 1, RenderMax));
            for (int a = 0; a < 3; ++a)
                QVERIFY(((index[a].get())->*view.cut)(*indices[a], plane, 1, RenderMax));
            comparePlane(v, image, indices, cut);
            if (!image.getStandardDicomImage(image))
                continue;
            for (NDicomImage* other : indices)
                QVERIFY(other->getStandardDicomImage(*other));
            comparePlane(v, image, indices, standard);
        }
        for (const PlaneError& e : {cut, standard})
            QVERIFY2(e.place <= 0.01 && e.values == 0,
                     qPrintable(QString("%1 (%2 of %3 planes standardised): a pixel stated %4 mm from its voxel, "
                                        "%5 pixels not their voxel's value")
                                    .arg(view.name).arg(standard.planes).arg(count).arg(e.place).arg(e.values)));
    }
}

// Planes of every view of V exported into DIR on TEMPLATEFILE, one series: every plane, or the
// first, middle and last. The file names; empty when one cannot be cut or written.
QStringList exportPlanes(NDicomVolume& v, const QString& templateFile, const QString& dir, bool every)
{
    QStringList files;
    int number = 0;
    for (const Views& view : kViews) {
        const int count = (v.*view.planes)();
        QVector<int> planes = {0, count / 2, count - 1};
        if (every)
            for (int plane = 1; plane < count - 1; ++plane)
                if (plane != count / 2)
                    planes << plane;
        for (int plane : planes) {
            NDicomImage image;
            if (!(v.*view.cut)(image, plane, 1, RenderMax))
                return {};
            image.setInstanceNumber(++number);
            files << QDir(dir).filePath(QString("%1_%2.dcm").arg(view.name).arg(plane, 4, 10, QChar('0')));
            if (!image.saveAs(files.last(), templateFile, "1.2.826.0.1.3680043.10.1234.77"))
                return {};
        }
    }
    return files;
}

// FILES read back by DCMTK with the DICOM rules: each pixel on a voxel centre of V and with that
// voxel's real value.
void checkExportedFiles(NDicomVolume& v, const QStringList& files)
{
    double worstPlace = 0, worstValue = 0;
    const int* n = v.geSize();
    for (const QString& path : files) {
        FileImage file;
        QVERIFY2(readFileImage(path, file), qPrintable(path));
        for (int r = 0; r < file.rows; ++r)
            for (int c = 0; c < file.columns; ++c) {
                const Point p = file.at(c, r);
                const float* f = v.getPointFIJK(p[0], p[1], p[2]);
                const int ijk[3] = {int(std::lround(f[0])), int(std::lround(f[1])), int(std::lround(f[2]))};
                QVERIFY2(ijk[0] >= 0 && ijk[0] < n[0] && ijk[1] >= 0 && ijk[1] < n[1] && ijk[2] >= 0 && ijk[2] < n[2],
                         qPrintable(QString("%1 pixel %2,%3 outside the volume").arg(path).arg(c).arg(r)));
                const double* q = v.getPointXYZ(ijk[0], ijk[1], ijk[2]);
                for (int a = 0; a < 3; ++a)
                    worstPlace = std::max(worstPlace, std::fabs(p[a] - q[a]));
                const double real = realValue(v, ijk[0], ijk[1], ijk[2]);
                worstValue = std::max(worstValue, std::fabs(file.real[r * file.columns + c] - real) / std::max(1.0, std::fabs(real)));
            }
    }
    QVERIFY2(worstPlace <= 0.01, qPrintable(QString("an exported pixel lies %1 mm from its voxel").arg(worstPlace)));
    QVERIFY2(worstValue <= 1e-12, qPrintable(QString("an exported pixel's real value is off by %1").arg(worstValue)));
}

void checkExports(NDicomVolume& v, const QString& templateFile)
{
    QTemporaryDir dir;
    const QStringList files = exportPlanes(v, templateFile, dir.path(), false);
    QCOMPARE(files.size(), 9);
    checkExportedFiles(v, files);
}

// The last line of compare_dcm2niix.py over FILES against dcm2niix's conversion of FOLDER, or a
// reason to skip when the readers are not installed.
QString compareWithDcm2niix(const QString& folder, const QStringList& files, QString& skip)
{
    const QString script = qEnvironmentVariable("KESTREL_SOURCE_DIR") + "/tests/volume/compare_dcm2niix.py";
    if (!(skip = dcm2niixSkip()).isEmpty())
        return {};
    QProcess probe;
    probe.start("/usr/bin/python3", {"-c", "import numpy, pydicom"});
    if (!QFileInfo::exists(script) || !probe.waitForFinished(30000) || probe.exitCode() != 0) {
        skip = "python3 with numpy and pydicom, or " + script + ", is missing";
        return {};
    }
    QTemporaryDir out;
    if (const QString failure = dcm2niix(folder, out.path()); !failure.isEmpty())
        return failure;
    QProcess compare;
    compare.setProcessChannelMode(QProcess::MergedChannels);
    compare.start("/usr/bin/python3", QStringList{script, out.path()} + files);
    if (!compare.waitForFinished(600000))
        return "the comparison does not finish";
    const QStringList lines = QString::fromLocal8Bit(compare.readAll()).trimmed().split('\n');
    return compare.exitCode() == 0 ? lines.last() : "the comparison failed: " + lines.join(" | ");
}

// Figures of compare_dcm2niix.py's last line ("planes N pixels M position P value V") within
// 0.01 mm and VALUETOLERANCE.
void checkComparison(const QString& line, double valueTolerance)
{
    const QStringList f = line.split(' ');
    QVERIFY2(f.size() == 8 && f[0] == "planes" && f[1].toInt() > 0, qPrintable(line));
    QVERIFY2(f[5].toDouble() <= 0.01 && f[7].toDouble() <= valueTolerance, qPrintable(line));
}

// Rotation of (x, y) by A about z, then B about x, then C about y: a double-oblique plane.
QVector<double> obliqueCosines(const QVector<double>& row, const QVector<double>& column, double a, double b, double c)
{
    auto turn = [&](QVector<double> v) {
        v = {v[0] * std::cos(a) - v[1] * std::sin(a), v[0] * std::sin(a) + v[1] * std::cos(a), v[2]};
        v = {v[0], v[1] * std::cos(b) - v[2] * std::sin(b), v[1] * std::sin(b) + v[2] * std::cos(b)};
        return QVector<double>{v[0] * std::cos(c) + v[2] * std::sin(c), v[1], -v[0] * std::sin(c) + v[2] * std::cos(c)};
    };
    return turn(row) + turn(column);
}

// A double-oblique series of 11 slices 2.5 mm apart along the normal of COSINES in DIR: 17
// columns 1.3 mm apart, 23 rows 0.7 mm apart, signed values from -1500 with intercept -1024,
// numbered along the normal, against it (REVERSED) or odd slices first (INTERLEAVED). The files in
// instance-number order.
QStringList writeObliqueSeries(const QString& dir, const QVector<double>& cosines, bool reversed, bool interleaved)
{
    SyntheticImage base;
    base.rows = 23;
    base.columns = 17;
    base.rowSpacing = 0.7;    // between rows
    base.columnSpacing = 1.3; // between columns
    base.orientation = cosines;
    base.position = {-40.25, 12.5, 33.125};
    base.bitsStored = 16;
    base.pixelRepresentation = 1;
    base.hasRescale = true;
    base.rescaleIntercept = -1024;
    base.modality = "CT";
    base.sopClassUid = "1.2.840.10008.5.1.4.1.1.2";
    base.studyUid = newTestUid();
    base.seriesUid = newTestUid();
    const int count = 11;
    const QVector<double> step = normalStep(base, 2.5);
    QVector<int> order; // slice places in instance-number order
    for (int start = 0; start < (interleaved ? 2 : 1); ++start)
        for (int k = start; k < count; k += interleaved ? 2 : 1)
            order << k;
    if (reversed)
        std::reverse(order.begin(), order.end());
    QStringList files;
    for (int n = 0; n < count; ++n) {
        const int k = order[n];
        SyntheticImage slice = base;
        slice.sopUid = newTestUid();
        slice.instanceNumber = n + 1;
        slice.position = {base.position[0] + k * step[0], base.position[1] + k * step[1], base.position[2] + k * step[2]};
        slice.pixel = [k](int x, int y, int) { return -1500 + 97 * k + 13 * y + x; };
        files << QDir(dir).filePath(QString("i%1.dcm").arg(n + 1, 3, 10, QChar('0')));
        if (!writeSyntheticImage(files.last(), slice))
            return {};
    }
    return files;
}

} // namespace

class TestPlanes : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void realSeries_data();
    void realSeries();
    void syntheticSeries_data();
    void syntheticSeries();
    void againstDcm2niix_data();
    void againstDcm2niix();
    void hostExports_data();
    void hostExports();
};

void TestPlanes::initTestCase()
{
    QVERIFY(openEmptyCatalogue());
}

void TestPlanes::realSeries_data()
{
    QTest::addColumn<QString>("folder");
    QTest::addColumn<QString>("pattern");
    // All three dynamics of the oblique fMRI: the volume is the first.
    QTest::newRow("philips_fmri_oblique, three dynamics") << "philips_fmri_oblique" << "*.dcm";
    QTest::newRow("siemens_t1_sag") << "siemens_t1_sag" << "*";
    QTest::newRow("ct_ge_3slice") << "ct_ge_3slice" << "*.dcm";
    QTest::newRow("ge_b0map_signed") << "ge_b0map_signed" << "*";
    QTest::newRow("siemens_gre_2echo") << "siemens_gre_2echo" << "*";
    QTest::newRow("ge_localizer_3plane") << "ge_localizer_3plane" << "*";
}

void TestPlanes::realSeries()
{
    QFETCH(QString, folder);
    QFETCH(QString, pattern);
    const QString path = sharedDataPath(folder);
    if (path.isEmpty())
        QSKIP("the shared DICOM data is not present");
    const QStringList files = seriesFiles(path, pattern);
    QObject owner;
    NDicomVolume v;
    v.loadSeries(seriesFromFiles(files, 42, &owner));
    QVERIFY(v.isValid());
    checkAgainstFiles(v);
    checkPlanes(v);
    checkExports(v, files.first());
}

void TestPlanes::syntheticSeries_data()
{
    QTest::addColumn<QVector<double>>("cosines");
    QTest::addColumn<bool>("reversed");   // numbered against the normal
    QTest::addColumn<bool>("interleaved"); // numbered odd slices first
    const double d = M_PI / 180;
    QTest::newRow("axial, double oblique") << obliqueCosines({1, 0, 0}, {0, 1, 0}, 17 * d, 21 * d, -13 * d) << false << false;
    QTest::newRow("coronal, double oblique, reversed")
        << obliqueCosines({1, 0, 0}, {0, 0, -1}, -19 * d, 12 * d, 24 * d) << true << false;
    QTest::newRow("sagittal, double oblique, interleaved")
        << obliqueCosines({0, 1, 0}, {0, 0, -1}, 14 * d, -22 * d, 9 * d) << false << true;
    QTest::newRow("sagittal, interleaved") << QVector<double>{0, 1, 0, 0, 0, -1} << false << true;
    QTest::newRow("axial from below, transposed") << QVector<double>{0, 1, 0, 1, 0, 0} << true << false;
}

void TestPlanes::syntheticSeries()
{
    QFETCH(QVector<double>, cosines);
    QFETCH(bool, reversed);
    QFETCH(bool, interleaved);
    QTemporaryDir dir;
    const QStringList files = writeObliqueSeries(dir.path(), cosines, reversed, interleaved);
    QCOMPARE(files.size(), 11);
    QObject owner;
    NDicomVolume v;
    v.loadSeries(seriesFromFiles(files, 42, &owner));
    QVERIFY(v.isValid());
    QCOMPARE(v.geSize()[2], 11);
    // The stack runs along the normal, its spacing along i the distance between columns.
    const double* o = v.getHead()->orientation;
    const double normal[3] = {o[1] * o[5] - o[2] * o[4], o[2] * o[3] - o[0] * o[5], o[0] * o[4] - o[1] * o[3]};
    QVERIFY(normal[0] * o[6] + normal[1] * o[7] + normal[2] * o[8] > 0.9999);
    QCOMPARE(QList<double>(v.getVoxelSpace(), v.getVoxelSpace() + 2), QList<double>({1.3, 0.7}));
    checkAgainstFiles(v);
    checkPlanes(v);
    checkExports(v, files.first());
}

void TestPlanes::hostExports_data()
{
    TestCatalog::addBackendRows();
}

// kestrel volume --dicom on a catalogued double-oblique, non-square, signed series numbered in
// acquisition order: three derived images of one new series, every pixel on its voxel with its
// real value (and on dcm2niix's voxels when it is installed).
void TestPlanes::hostExports()
{
    QFETCH(QString, backend);
    KESTREL_REQUIRE_HOST();
    if (QSqlDatabase::contains(QSqlDatabase::defaultConnection)) // the empty one of initTestCase
        QSqlDatabase::removeDatabase(QSqlDatabase::defaultConnection);
    KESTREL_OPEN_CATALOG(catalog, backend);
    const double d = M_PI / 180;
    const QStringList files = writeObliqueSeries(catalog.path("source"), obliqueCosines({0, 1, 0}, {0, 0, -1}, 14 * d, -22 * d, 9 * d), false, true);
    HostRun host = runHost({"--config", catalog.configDir(), "import", catalog.path("source")});
    QVERIFY2(host.exitCode == 0, qPrintable(host.said()));
    const QString seriesPk = TestCatalog::value("SELECT pk FROM generalseries");
    QVERIFY(catalog.setVolumeCache(catalog.path("cache")));
    host = runHost({"--config", catalog.configDir(), "volume", "--series", seriesPk, "--out", catalog.path("planes"), "--dicom"},
                   catalog.path("work"));
    QVERIFY2(host.exitCode == 0, qPrintable(host.said()));

    QStringList planes, series, images, numbers;
    for (const char* name : {"axial.dcm", "coronal.dcm", "sagittal.dcm"}) {
        planes << catalog.path("planes/") + name;
        DcmFileFormat file;
        QVERIFY2(file.loadFile(QFile::encodeName(planes.last()).constData()).good(), name);
        DcmDataset* ds = file.getDataset();
        series << dcmString(ds, DCM_SeriesInstanceUID);
        images << dcmString(ds, DCM_SOPInstanceUID);
        numbers << dcmString(ds, DCM_InstanceNumber) + "/" + dcmString(ds, DCM_SeriesNumber);
    }
    QCOMPARE(numbers, QStringList({"1/1001", "2/1001", "3/1001"}));
    QVERIFY(series[0] == series[1] && series[1] == series[2] && !series[0].isEmpty());
    DcmFileFormat source;
    QVERIFY(source.loadFile(QFile::encodeName(files.first()).constData()).good());
    QVERIFY(series[0] != dcmString(source.getDataset(), DCM_SeriesInstanceUID));
    QVERIFY(images[0] != images[1] && images[1] != images[2] && images[0] != images[2]);

    QObject owner;
    NDicomVolume v;
    v.loadSeries(seriesFromFiles(files, 42, &owner));
    QVERIFY(v.isValid());
    checkExportedFiles(v, planes);
    QString skip;
    const QString line = compareWithDcm2niix(catalog.path("source"), planes, skip);
    if (!skip.isEmpty())
        QSKIP(qPrintable(skip));
    checkComparison(line, 0.0);
}

void TestPlanes::againstDcm2niix_data()
{
    QTest::addColumn<QString>("folder");
    QTest::addColumn<double>("valueTolerance");
    // Real values of the fMRI through NIfTI's single-precision slope: 1.29035409035409 is stored
    // as 1.2903541, a few hundred-thousandths at the brightest voxel.
    for (const char* folder : {"siemens_t1_sag", "ct_ge_3slice", "philips_fmri_oblique", "ge_b0map_signed",
                               "siemens_gre_2echo", "ge_localizer_3plane"})
        QTest::newRow(folder) << folder << (QByteArray(folder).startsWith("philips") ? 1e-4 : 0.0);
}

// Independent readers: every plane of every view of a real series, exported on its first file,
// read with pydicom by the DICOM rules, sits on dcm2niix's voxel centres with its real values.
void TestPlanes::againstDcm2niix()
{
    QFETCH(QString, folder);
    QFETCH(double, valueTolerance);
    const QString path = sharedDataPath(folder);
    if (path.isEmpty())
        QSKIP("the shared DICOM data is not present");
    const QStringList files = seriesFiles(path);
    QObject owner;
    NDicomVolume v;
    v.loadSeries(seriesFromFiles(files, 42, &owner));
    QVERIFY(v.isValid());
    QTemporaryDir dir;
    const QStringList planes = exportPlanes(v, files.first(), dir.path(), true);
    QVERIFY(!planes.isEmpty());
    QString skip;
    const QString line = compareWithDcm2niix(path, planes, skip);
    if (!skip.isEmpty())
        QSKIP(qPrintable(skip));
    qInfo().noquote() << folder << line;
    checkComparison(line, valueTolerance);
}

QTEST_GUILESS_MAIN(TestPlanes)
#include "tst_planes.moc"
