// The series made from volumes: resampled onto another series (read back by dcm2niix on that
// series' grid, with scipy's values), stacks of oblique planes, masked and sliced volumes, each
// catalogued on both backends; and kestrel reformat on catalogued series.
#include "dicom/dcmvalues_p.h"
#include "fileimage.h"
#include "programs.h"
#include "nbitvolume.h"
#include "ndicomimage.h"
#include "ndicomvolume.h"
#include "qinstance.h"
#include "qseries.h"
#include "reformatsupport.h"
#include "seriesfromfiles.h"
#include "syntheticdicom.h"
#include "testcatalog.h"

#include <QImage>
#include <QProcess>
#include <QSqlDatabase>
#include <QtTest>
#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/oflog/oflog.h>

#include <cmath>

using namespace kestrel::internal;

class TestReformatSeries : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void ownSeries();
    void derivedSeries_data();
    void derivedSeries();
    void builtSeries_data();
    void builtSeries();
    void host_data();
    void host();
};

void TestReformatSeries::initTestCase()
{
    QVERIFY(openEmptyCatalogue());
}

// The volume resampled onto its own series gives that series' pixels back; a series of another
// Frame of Reference is refused.
void TestReformatSeries::ownSeries()
{
    const QString path = sharedDataPath("siemens_t1_sag"), other = sharedDataPath("ct_ge_3slice");
    if (path.isEmpty() || other.isEmpty())
        QSKIP("the shared DICOM data is not present");
    QObject owner;
    const QStringList files = seriesFiles(path);
    QSeries* series = seriesFromFiles(files, 42, &owner);
    NDicomVolume v;
    v.loadSeries(series);
    QVERIFY(v.isValid());
    QTemporaryDir dir;
    QStringList written;
    QString error;
    QVERIFY2(v.createNewSeriesbyReference(series, dir.path(), false, &written, &error), qPrintable(error));
    QCOMPARE(written.size(), files.size());
    for (int n = 0; n < files.size(); ++n) {
        FileImage source, made;
        QVERIFY(readFileImage(files[n], source));
        QVERIFY(readFileImage(written[n], made));
        for (int c = 0; c < 3; ++c)
            QVERIFY(std::fabs(made.position[size_t(c)] - source.position[size_t(c)]) < 1e-4);
        QCOMPARE(made.real, source.real);
    }
    QString refused;
    QVERIFY(!v.createNewSeriesbyReference(seriesFromFiles(seriesFiles(other), 43, &owner), dir.path() + "/ct", false,
                                          nullptr, &refused));
    QVERIFY2(refused.contains("Frame of Reference"), qPrintable(refused));
    QVERIFY(!QFileInfo::exists(dir.path() + "/ct/IMG0001.dcm"));
}

void TestReformatSeries::derivedSeries_data()
{
    TestCatalog::addBackendRows();
}


// A double-oblique 3-D series resampled onto an axial series of the same Frame of Reference,
// catalogued; its files on the reference's grid as dcm2niix reads them, with the source's values
// as scipy resamples them; a series of another Frame of Reference refused.
void TestReformatSeries::derivedSeries()
{
    QFETCH(QString, backend);
    QSqlDatabase::removeDatabase(QSqlDatabase::defaultConnection);
    KESTREL_OPEN_CATALOG(catalog, backend);
    const QString study = newTestUid(), frame = newTestUid();
    QDir().mkpath(catalog.path("source"));
    QDir().mkpath(catalog.path("reference"));
    const QStringList sourceFiles = writeSeries(catalog.path("source"), turned(15, -20, 10), QSize(44, 40), QPointF(0.9, 1.0),
                                                1.1, 30, {-20, -19, -16}, study, frame, 5);
    const QStringList referenceFiles = writeSeries(catalog.path("reference"), turned(0, 0, 0), QSize(30, 26),
                                                   QPointF(1.3, 1.25), 2.5, 9, {-17, -15, -12}, study, frame, 6);
    QVERIFY(!sourceFiles.isEmpty() && !referenceFiles.isEmpty());
    const qint64 sourcePk = catalogue(sourceFiles), referencePk = catalogue(referenceFiles);
    QVERIFY(sourcePk > 0 && referencePk > 0);

    QSeries source(sourcePk);
    NDicomVolume v;
    loadCatalogued(source, v);
    QVERIFY(v.isValid());
    QSeries reference(referencePk);
    QStringList written;
    QString error;
    QVERIFY2(v.createNewSeriesbyReference(&reference, catalog.path("resampled"), true, &written, &error), qPrintable(error));
    QCOMPARE(written.size(), 9);
    QCOMPARE(TestCatalog::count("generalseries"), 3);
    const QString newPk = TestCatalog::value("SELECT pk FROM generalseries WHERE pk NOT IN (?, ?)", {sourcePk, referencePk});
    QCOMPARE(TestCatalog::count("imageformat", "series_fk=" + newPk), 9);
    QStringList uids;
    for (int n = 0; n < written.size(); ++n) {
        DcmFileFormat made, like;
        QVERIFY(made.loadFile(QFile::encodeName(written[n]).constData()).good());
        QVERIFY(like.loadFile(QFile::encodeName(referenceFiles[n]).constData()).good());
        DcmDataset* m = made.getDataset();
        DcmDataset* l = like.getDataset();
        uids << dcmString(m, DCM_SeriesInstanceUID);
        QCOMPARE(dcmInt(m, DCM_InstanceNumber), n + 1);
        QCOMPARE(dcmString(m, DCM_StudyInstanceUID), study);
        QCOMPARE(dcmString(m, DCM_FrameOfReferenceUID), frame);
        QCOMPARE(dcmInt(m, DCM_SeriesNumber), 1005);
        for (const DcmTagKey& tag : {DCM_Rows, DCM_Columns})
            QCOMPARE(dcmInt(m, tag), dcmInt(l, tag));
        FileImage a, b;
        QVERIFY(readFileImage(written[n], a) && readFileImage(referenceFiles[n], b));
        for (int c = 0; c < 3; ++c)
            QVERIFY(std::fabs(a.position[size_t(c)] - b.position[size_t(c)]) < 1e-4 && std::fabs(a.row[size_t(c)] - b.row[size_t(c)]) < 1e-6
                    && std::fabs(a.column[size_t(c)] - b.column[size_t(c)]) < 1e-6);
        QCOMPARE(a.betweenRows, b.betweenRows);
        QCOMPARE(a.betweenColumns, b.betweenColumns);
    }
    QCOMPARE(uids.removeDuplicates(), 8);
    QVERIFY(uids.first() != source.getSeriesUID());

    // Another Frame of Reference is refused.
    QDir().mkpath(catalog.path("elsewhere"));
    const QStringList elsewhere = writeSeries(catalog.path("elsewhere"), turned(0, 0, 0), QSize(8, 8), QPointF(1, 1), 1, 3,
                                              {0, 0, 0}, study, newTestUid(), 7);
    QObject owner;
    QVERIFY(!v.createNewSeriesbyReference(seriesFromFiles(elsewhere, 9, &owner), catalog.path("no"), true, nullptr, &error));
    QVERIFY2(error.contains("Frame of Reference"), qPrintable(error));

    // Read back by dcm2niix: the resampled series on the reference's grid, with scipy's values.
    if (const QString skip = dcm2niixSkip(); !skip.isEmpty())
        QSKIP(qPrintable(skip));
    if (const QString skip = oracleSkip(); !skip.isEmpty())
        QSKIP(qPrintable(skip));
    QString failure = dcm2niix(catalog.path("resampled"), catalog.path("nii-new"));
    QVERIFY2(failure.isEmpty(), qPrintable(failure));
    failure = dcm2niix(catalog.path("reference"), catalog.path("nii-reference"));
    QVERIFY2(failure.isEmpty(), qPrintable(failure));
    QProcess oracle;
    oracle.setProcessChannelMode(QProcess::MergedChannels);
    oracle.start("/usr/bin/python3", {script("reference_oracle.py"), writeVolume(v, catalog.dir()), catalog.path("nii-new"),
                                      catalog.path("nii-reference")});
    QVERIFY(oracle.waitForFinished(120000));
    const QString line = QString::fromLocal8Bit(oracle.readAll()).trimmed();
    qInfo().noquote() << line;
    QVERIFY2(oracle.exitCode() == 0, qPrintable(line));
}

void TestReformatSeries::builtSeries_data()
{
    TestCatalog::addBackendRows();
}

// A stack of oblique planes, the volume masked and slice by slice, as series of their own.
void TestReformatSeries::builtSeries()
{
    QFETCH(QString, backend);
    QSqlDatabase::removeDatabase(QSqlDatabase::defaultConnection);
    KESTREL_OPEN_CATALOG(catalog, backend);
    QDir().mkpath(catalog.path("source"));
    const QStringList sourceFiles = writeSeries(catalog.path("source"), turned(15, -20, 10), QSize(44, 40), QPointF(0.9, 1.0),
                                                1.1, 30, {-20, -19, -16}, newTestUid(), newTestUid(), 5);
    QVERIFY(!sourceFiles.isEmpty());
    QSeries source(catalogue(sourceFiles));
    NDicomVolume v;
    loadCatalogued(source, v);
    QVERIFY(v.isValid());
    QStringList written;
    QString error;
    // A stack of five oblique planes: positions 2 mm apart along the normal, numbered from 1.
    const auto axes = turned(30, 10, -20);
    const Vec centre = volumeMiddle(v);
    QVERIFY2(v.createNewSeriesbyManual(catalog.path("manual"), centre.data(), axes[0].data(), axes[1].data(), 32, 30, 1, 1,
                                       2, 5, 0, RenderMax, false, &written, &error),
             qPrintable(error));
    QCOMPARE(written.size(), 5);
    for (int n = 0; n < 5; ++n) {
        FileImage made;
        QVERIFY(readFileImage(written[n], made));
        // The source's stack spacing is not the new series' (its positions say what it is).
        DcmFileFormat file;
        QVERIFY(file.loadFile(QFile::encodeName(written[n]).constData()).good());
        QVERIFY(!file.getDataset()->tagExists(DCM_SpacingBetweenSlices));
        NDicomImage plane;
        const Vec at = add(centre, axes[2], 2 * n);
        QVERIFY(v.getDicomImage(plane, at.data(), axes[0].data(), axes[1].data(), 32, 30, 1, 1, 0, RenderMax));
        for (int c = 0; c < 3; ++c)
            QVERIFY(std::fabs(made.position[size_t(c)] - plane.getPosition()[c]) < 1e-4);
        for (int p = 0; p < 32 * 30; ++p)
            QCOMPARE(made.real[p], short(plane.getValue16u(p % 32, p / 32)) * v.getHead()->RescaleSlope + v.getHead()->RescaleIntercept);
    }
    QVERIFY(!v.createNewSeriesbyManual(catalog.path("bad"), centre.data(), axes[0].data(), axes[0].data(), 8, 8, 1, 1, 1, 2,
                                       0, RenderMax, false, nullptr, &error));
    QVERIFY2(error.contains("parallel"), qPrintable(error));

    // The volume masked to its first half along i: the rest is its smallest voxel; a mask of
    // another size is refused.
    const int* n = v.geSize();
    NBitVolume mask(n[0], n[1], n[2]);
    mask.ClearAll();
    for (int k = 0; k < n[2]; ++k)
        for (int j = 0; j < n[1]; ++j)
            for (int i = 0; i < n[0] / 2; ++i)
                mask.setBit(i, j, k);
    QVERIFY2(v.maskDicomVolume(&mask, catalog.path("masked"), false, &written, &error), qPrintable(error));
    QCOMPARE(written.size(), n[2]);
    short smallest = 32767;
    for (int k = 0; k < n[2]; ++k)
        for (int j = 0; j < n[1]; ++j)
            for (int i = 0; i < n[0]; ++i)
                smallest = std::min(smallest, short(v.getVoxel(i, j, k)));
    FileImage masked;
    QVERIFY(readFileImage(written[7], masked));
    const double* p7 = v.getPointXYZ(0, 0, 7);
    QVERIFY(std::fabs(masked.position[0] - p7[0]) < 1e-4 && std::fabs(masked.position[2] - p7[2]) < 1e-4);
    for (int j = 0; j < n[1]; ++j)
        for (int i = 0; i < n[0]; ++i) {
            const short stored = i < n[0] / 2 ? short(v.getVoxel(i, j, 7)) : smallest;
            QCOMPARE(masked.real[j * n[0] + i], stored * v.getHead()->RescaleSlope + v.getHead()->RescaleIntercept);
        }
    // The volume slice by slice, catalogued: each file on its slice with the voxels' real values.
    QVERIFY2(v.saveVolumeToImage(catalog.path("slices"), true, &written, &error), qPrintable(error));
    QCOMPARE(written.size(), n[2]);
    QCOMPARE(TestCatalog::count("generalseries"), 2);
    for (int k : {0, n[2] / 2, n[2] - 1}) {
        FileImage slice;
        QVERIFY(readFileImage(written[k], slice));
        const double* at = v.getPointXYZ(0, 0, k);
        for (int c = 0; c < 3; ++c)
            QVERIFY(std::fabs(slice.position[size_t(c)] - at[c]) < 1e-4);
        for (int j = 0; j < n[1]; ++j)
            for (int i = 0; i < n[0]; ++i)
                QCOMPARE(slice.real[j * n[0] + i], short(v.getVoxel(i, j, k)) * v.getHead()->RescaleSlope + v.getHead()->RescaleIntercept);
    }
    NBitVolume wrong(n[0], n[1], n[2] + 1);
    QVERIFY(!v.maskDicomVolume(&wrong, catalog.path("wrong"), false, nullptr, &error));
    QVERIFY2(error.contains("mask"), qPrintable(error));

}

void TestReformatSeries::host_data()
{
    TestCatalog::addBackendRows();
}

// kestrel reformat on catalogued series: each kind writes its pictures (and series, catalogued on
// request); bad parameters get one line of error and a failing status.
void TestReformatSeries::host()
{
    QFETCH(QString, backend);
    KESTREL_REQUIRE_HOST();
    QSqlDatabase::removeDatabase(QSqlDatabase::defaultConnection);
    KESTREL_OPEN_CATALOG(catalog, backend);
    const QString study = newTestUid(), frame = newTestUid();
    for (const char* folder : {"source", "reference", "elsewhere"})
        QDir().mkpath(catalog.path(folder));
    QVERIFY(!writeSeries(catalog.path("source"), turned(0, 0, 0), QSize(40, 36), QPointF(1, 1), 1.5, 20, {-20, -18, -15},
                         study, frame, 3).isEmpty());
    QVERIFY(!writeSeries(catalog.path("reference"), turned(90, 0, 90), QSize(24, 20), QPointF(1.2, 1.4), 3, 6, {-10, -12, -10},
                         study, frame, 4).isEmpty());
    QVERIFY(!writeSeries(catalog.path("elsewhere"), turned(0, 0, 0), QSize(8, 8), QPointF(1, 1), 1, 3, {0, 0, 0}, study,
                         newTestUid(), 5).isEmpty());
    auto run = [&](const QStringList& args, QString* output) {
        const HostRun host = runHost(QStringList{"--config", catalog.configDir()} + args);
        *output = host.said();
        return host.exitCode;
    };
    QString said;
    QCOMPARE(run({"import", catalog.path("source"), catalog.path("reference"), catalog.path("elsewhere")}, &said), 0);
    auto pkOf = [](int number) {
        return TestCatalog::value("SELECT pk FROM generalseries WHERE SeriesNumber=?", {number});
    };
    const QString source = pkOf(3), reference = pkOf(4), elsewhere = pkOf(5);
    const QString pictures = catalog.path("pictures");

    QVERIFY2(run({"reformat", "--series", source, "--out", pictures, "--plane", "0,0,0,0.8,0.6,0,0,0,-1", "--size", "64,48",
                  "--count", "3", "--step", "2", "--thickness", "3", "--dicom", catalog.path("stack"), "--import"}, &said) == 0,
             qPrintable(said));
    QCOMPARE(QDir(catalog.path("stack")).entryList({"*.dcm"}).size(), 3);
    QVERIFY(QFileInfo::exists(pictures + "/plane_003.png"));
    QCOMPARE(TestCatalog::count("generalseries"), 4);
    QVERIFY2(run({"reformat", "--series", source, "--out", pictures, "--like", reference, "--dicom", catalog.path("like")}, &said) == 0,
             qPrintable(said));
    QCOMPARE(QDir(catalog.path("like")).entryList({"*.dcm"}).size(), 6);
    QVERIFY(QFileInfo::exists(pictures + "/like.png"));
    QVERIFY2(run({"reformat", "--series", source, "--out", pictures, "--curve", "-15,-10,0;0,-2,1;12,5,0", "--height", "30"}, &said) == 0,
             qPrintable(said));
    QImage curved(pictures + "/curved.png");
    QVERIFY(!curved.isNull());
    QVERIFY2(run({"reformat", "--series", source, "--out", pictures, "--project", "0,10", "--turns", "4"}, &said) == 0, qPrintable(said));
    QImage first(pictures + "/project_000.png"), third(pictures + "/project_002.png");
    QVERIFY(!first.isNull() && first.size() == third.size());
    QFile mask(catalog.path("mask.raw"));
    QVERIFY(mask.open(QIODevice::WriteOnly));
    mask.write(QByteArray(40 * 36 * 20, 1));
    mask.close();
    QVERIFY2(run({"reformat", "--series", source, "--out", pictures, "--mask", mask.fileName()}, &said) == 0, qPrintable(said));
    QVERIFY(QFileInfo::exists(pictures + "/masked.png"));

    // Refusals: one line each, naming the fault.
    QFile small(catalog.path("small.raw"));
    QVERIFY(small.open(QIODevice::WriteOnly));
    small.write(QByteArray(100, 1));
    small.close();
    const struct {
        QStringList args;
        QString says;
    } refusals[] = {
        {{"--plane", "0,0,0,1,0,0,2,0,0"}, "parallel"},
        {{"--curve", "1,2,3"}, "two different points"},
        {{"--like", elsewhere}, "Frame of Reference"},
        {{"--mask", small.fileName()}, "100 bytes"},
        {{"--plane", "0,0,0"}, "nine numbers"},
        {{"--project", "0,0", "--import"}, "--dicom"},
    };
    for (const auto& refusal : refusals) {
        const HostRun host = runHost(QStringList{"--config", catalog.configDir(), "reformat", "--series", source, "--out", pictures}
                                     + refusal.args);
        const QString error = host.err.trimmed();
        QVERIFY2(host.exitCode > 0 && error.contains(refusal.says) && !error.contains('\n'),
                 qPrintable(refusal.args.join(' ') + ": " + error));
    }
}

QTEST_GUILESS_MAIN(TestReformatSeries)
#include "tst_reformatseries.moc"
