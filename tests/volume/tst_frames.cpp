// Frames of series with several images per slice position: which images make a frame and what it
// is called, the 4-D volume of the frames with every frame's real values, incomplete frames left
// out and said, the cache, the NIfTI files, and the host's volumes against dcm2niix's.
#include "fileimage.h"
#include "ndicomvolume.h"
#include "programs.h"
#include "qinstance.h"
#include "qseries.h"
#include "seriesfromfiles.h"
#include "syntheticdicom.h"
#include "testcatalog.h"
#include "volume/niftiwriter_p.h"

#include <nifti1_io.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSignalSpy>
#include <QSqlDatabase>
#include <QtTest>
#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/oflog/oflog.h>

#include <cmath>
#include <memory>

namespace {

// One acquisition of a synthetic series: what its images say besides their pixels.
struct Acquisition {
    QString imageType;
    std::vector<std::pair<DcmTagKey, QString>> extra;
    double slope = 1, intercept = 0;
};

// Instance numbers: frame after frame, starting again for each frame (as Siemens numbers echoes),
// or position after position (the frames of a position one after the other).
enum Numbering { ByFrame, RestartingPerFrame, ByPosition };

struct SyntheticCase {
    const char* name;
    QVector<Acquisition> acquisitions;
    Numbering numbering;
    bool isSigned;
    bool timePerSlice; // an AcquisitionTime of its own on every image
    QString labels;    // the frames', "|" between them
    bool ownRescales;  // no one rescale keeps every frame's real values
};

const QString M = "ORIGINAL\\PRIMARY\\M\\ND", P = "ORIGINAL\\PRIMARY\\P\\ND";
const DcmTagKey echo = DCM_EchoNumbers, te = DCM_EchoTime;

const SyntheticCase cases[] = {
    {"echoes, numbers restarting", {{M, {{echo, "1"}, {te, "5"}}}, {M, {{echo, "2"}, {te, "10"}}}}, RestartingPerFrame,
     false, true, "echo 1 TE 5 ms|echo 2 TE 10 ms", false},
    {"magnitude and phase, rescaled", {{M, {}}, {P, {}, 2, -4096}}, ByFrame, false, false, "magnitude|phase", false},
    {"magnitude and phase, slopes of no common step", {{M, {}, 1.3}, {P, {}, 0.7, -100}}, ByFrame, false, false,
     "magnitude|phase", true},
    {"echoes of magnitude and phase",
     {{M, {{echo, "1"}, {te, "5"}}}, {M, {{echo, "2"}, {te, "10"}}}, {P, {{echo, "1"}, {te, "5"}}, 2, -4096},
      {P, {{echo, "2"}, {te, "10"}}, 2, -4096}},
     ByPosition, false, false,
     "magnitude, echo 1 TE 5 ms|magnitude, echo 2 TE 10 ms|phase, echo 1 TE 5 ms|phase, echo 2 TE 10 ms", false},
    {"time points, numbered by position",
     {{M, {{DCM_TemporalPositionIdentifier, "1"}}}, {M, {{DCM_TemporalPositionIdentifier, "2"}}},
      {M, {{DCM_TemporalPositionIdentifier, "3"}}}},
     ByPosition, false, true, "time 1|time 2|time 3", false},
    {"diffusion",
     {{M, {{DCM_DiffusionBValue, "0"}, {DCM_DiffusionGradientOrientation, "0\\0\\0"}}},
      {M, {{DCM_DiffusionBValue, "1000"}, {DCM_DiffusionGradientOrientation, "1\\0\\0"}}},
      {M, {{DCM_DiffusionBValue, "1000"}, {DCM_DiffusionGradientOrientation, "0\\0.6\\0.8"}}}},
     ByFrame, false, false, "b 0|b 1000 dir 1|b 1000 dir 2", false},
    {"acquisition numbers, times per slice",
     {{M, {{DCM_AcquisitionNumber, "1"}}}, {M, {{DCM_AcquisitionNumber, "2"}}}}, RestartingPerFrame, false, true,
     "acquisition 1|acquisition 2", false},
    {"trigger times", {{M, {{DCM_TriggerTime, "0"}}}, {M, {{DCM_TriggerTime, "400"}}}}, ByPosition, false, false,
     "trigger 0 ms|trigger 400 ms", false},
    {"repeats told apart by nothing, signed", {{M, {}}, {M, {}}}, ByFrame, true, false,
     "repeat 1 (instances 1-5)|repeat 2 (instances 6-10)", false},
    {"one image per position", {{M, {}}}, ByFrame, false, true, "all images", false},
};

const int kSlices = 5;

// Stored value of pixel (x, y) of slice K of frame F: unsigned 12-bit values with other bits set
// above them (not part of the value), or signed values whose minimum differs from slice to slice.
int storedValue(int f, int k, int x, int y, bool isSigned)
{
    if (isSigned)
        return -900 + 250 * f - 60 * k + 13 * y + x;
    return ((100 * f + 37 * k + 13 * y + x) & 0xfff) | 0xa000;
}

// The files of CASE in DIR (images of COLUMNS x ROWS), in instance-number order.
QStringList writeFrameSeries(const QString& dir, const SyntheticCase& c, int columns = 7, int rows = 6)
{
    SyntheticImage base;
    base.rows = rows;
    base.columns = columns;
    base.rowSpacing = 0.9;
    base.columnSpacing = 1.1;
    base.orientation = {1, 0, 0, 0, 0.8, -0.6};
    base.position = {-20, 10, 30};
    base.studyUid = newTestUid();
    base.seriesUid = newTestUid();
    base.bitsStored = c.isSigned ? 16 : 12;
    base.pixelRepresentation = c.isSigned ? 1 : 0;
    const QVector<double> step = normalStep(base, 3.5);
    const int frames = c.acquisitions.size();
    QMultiMap<int, QString> byNumber;
    for (int f = 0; f < frames; ++f)
        for (int k = 0; k < kSlices; ++k) {
            const Acquisition& a = c.acquisitions[f];
            SyntheticImage image = base;
            image.sopUid = newTestUid();
            image.imageType = a.imageType;
            image.extra = a.extra;
            image.hasRescale = a.slope != 1 || a.intercept != 0;
            image.rescaleSlope = a.slope;
            image.rescaleIntercept = a.intercept;
            image.instanceNumber = c.numbering == ByFrame ? f * kSlices + k + 1
                : c.numbering == RestartingPerFrame      ? k + 1
                                                         : k * frames + f + 1;
            if (c.timePerSlice)
                image.acquisitionTime = QString("1015%1.%2").arg(10 + 3 * k + f).arg(f);
            for (int a = 0; a < 3; ++a)
                image.position[a] = base.position[a] + k * step[a];
            const bool isSigned = c.isSigned;
            image.pixel = [=](int x, int y, int) { return storedValue(f, k, x, y, isSigned); };
            const QString path = QDir(dir).filePath(QString("f%1_s%2.dcm").arg(f).arg(k));
            if (!writeSyntheticImage(path, image))
                return {};
            byNumber.insert(image.instanceNumber, path);
        }
    QStringList files;
    for (auto it = byNumber.begin(); it != byNumber.end(); ++it)
        files << it.value();
    return files;
}

// A series object listing FILES as the catalogue would (geometry comes from the files).
QSeries* listedSeries(const QStringList& files, QObject* owner)
{
    auto* series = new QSeries(owner);
    series->setSeriesPK(42);
    series->setSeriesBase(newTestUid() + "#0");
    for (int n = 0; n < files.size(); ++n) {
        auto* instance = new QInstance(series);
        instance->setFilePath(files[n]);
        instance->setInstanceNumber(n + 1);
        series->addInstance(instance);
    }
    return series;
}

double worstRelative(double a, double b)
{
    return std::fabs(a - b) / std::max(1.0, std::fabs(b));
}

// Every voxel of every time frame of V sits where the file of its slice puts its pixel and holds
// its real value; the time frames are the frames FRAMES of GROUP.
void checkFrames(NDicomVolume& v, const SeriesFrameGroup& group, const QList<int>& frames)
{
    QCOMPARE(getVolumeFrames(v), frames);
    QCOMPARE(v.getHead()->timeNum, frames.size());
    const int* n = v.geSize();
    double worstPlace = 0, worstValue = 0;
    for (int t = 0; t < frames.size(); ++t) {
        double slope = 0, intercept = 0;
        QVERIFY(getFrameRescale(v, t, slope, intercept));
        v.setTimeIndex(t);
        const QStringList& files = group.frames[frames[t]].files;
        QCOMPARE(files.size(), n[2]);
        for (int k = 0; k < n[2]; ++k) {
            FileImage file;
            QVERIFY2(readFileImage(files[k], file), qPrintable(files[k]));
            for (int c : {0, n[0] - 1})
                for (int r : {0, n[1] - 1}) {
                    const Point p = file.at(c, r);
                    const double* q = v.getPointXYZ(c, r, k);
                    for (int a = 0; a < 3; ++a)
                        worstPlace = std::max(worstPlace, std::fabs(p[a] - q[a]));
                }
            for (int r = 0; r < n[1]; ++r)
                for (int c = 0; c < n[0]; ++c)
                    worstValue = std::max(worstValue, worstRelative(v.getVoxel(c, r, k) * slope + intercept,
                                                                    file.real[r * n[0] + c]));
        }
    }
    v.setTimeIndex(0);
    QVERIFY2(worstPlace <= 0.01, qPrintable(QString("a voxel lies %1 mm from its pixel").arg(worstPlace)));
    QVERIFY2(worstValue <= 1e-12, qPrintable(QString("a voxel's real value is off by %1").arg(worstValue)));
}

// FILE as the NIfTI library reads it back holds V's geometry and every voxel's real value.
void checkNifti(NDicomVolume& v, const QString& file, bool floats)
{
    std::unique_ptr<nifti_image, void (*)(nifti_image*)> nim(nifti_image_read(QFile::encodeName(file).constData(), 1),
                                                             nifti_image_free);
    QVERIFY2(nim, qPrintable(file));
    const VolumeHead& h = *v.getHead();
    const int frames = std::max(1, int(h.timeNum));
    QCOMPARE(QList<int>({nim->nx, nim->ny, nim->nz, nim->nt}),
             QList<int>({h.volumesize[0], h.volumesize[1], h.volumesize[2], frames}));
    QCOMPARE(nim->datatype, floats ? int(DT_FLOAT32) : int(DT_INT16));
    const std::array<double, 16> affine = kestrel::internal::nifti::rasAffine(h);
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c) {
            QVERIFY(std::fabs(nim->sto_xyz.m[r][c] - affine[size_t(4 * r + c)]) < 1e-4);
            QVERIFY(std::fabs(nim->qto_xyz.m[r][c] - affine[size_t(4 * r + c)]) < 1e-4);
        }
    // DICOM's first voxel at x, y, z is the scanner's -x, -y, z.
    QVERIFY(std::fabs(nim->sto_xyz.m[0][3] + h.topxyz[0]) < 1e-4 && std::fabs(nim->sto_xyz.m[2][3] - h.topxyz[2]) < 1e-4);
    const qint64 perFrame = qint64(h.volumesize[0]) * h.volumesize[1] * h.volumesize[2];
    double worst = 0;
    for (int t = 0; t < frames; ++t) {
        double slope = 0, intercept = 0;
        getFrameRescale(v, t, slope, intercept);
        v.setTimeIndex(t);
        const quint16* voxels = reinterpret_cast<const quint16*>(v.getData());
        for (qint64 i = 0; i < perFrame; ++i) {
            const qint64 at = t * perFrame + i;
            const double stored = floats ? double(static_cast<const float*>(nim->data)[at])
                                         : double(static_cast<const qint16*>(nim->data)[at]);
            const double real = floats ? stored : stored * nim->scl_slope + nim->scl_inter;
            worst = std::max(worst, worstRelative(real, voxels[i] * slope + intercept));
        }
    }
    v.setTimeIndex(0);
    // Single-precision floats: the NIfTI slope, or the real values themselves.
    QVERIFY2(worst <= 1e-6, qPrintable(QString("a NIfTI voxel's real value is off by %1").arg(worst)));
}

QStringList jsonLabels(const QString& niftiFile)
{
    QFile side(kestrel::internal::nifti::sideFileName(niftiFile));
    if (!side.open(QIODevice::ReadOnly))
        return {"<no side file>"};
    QStringList labels;
    for (const QJsonValue& frame : QJsonDocument::fromJson(side.readAll()).object().value("Frames").toArray())
        labels << frame.toObject().value("label").toString();
    return labels;
}

} // namespace

class TestFrames : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void syntheticFrames_data();
    void syntheticFrames();
    void oneFrameAsLoadSeries_data();
    void oneFrameAsLoadSeries();
    void incompleteFrames_data();
    void incompleteFrames();
    void cachedFrames_data();
    void cachedFrames();
    void hostAgainstDcm2niix_data();
    void hostAgainstDcm2niix();
    void hostIncompleteFrame_data();
    void hostIncompleteFrame();
};

void TestFrames::initTestCase()
{
    QVERIFY(openEmptyCatalogue());
}

void TestFrames::syntheticFrames_data()
{
    QTest::addColumn<int>("index");
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i)
        QTest::newRow(cases[i].name) << int(i);
}

void TestFrames::syntheticFrames()
{
    QFETCH(int, index);
    const SyntheticCase& c = cases[index];
    QTemporaryDir dir;
    const QStringList files = writeFrameSeries(dir.path(), c);
    QCOMPARE(files.size(), kSlices * c.acquisitions.size());
    QObject owner;
    const SeriesFrames frames = getSeriesFrames(listedSeries(files, &owner));
    QCOMPARE(frames.skipped, QStringList());
    QCOMPARE(frames.groups.size(), 1);
    const SeriesFrameGroup& group = frames.groups.first();
    QStringList labels;
    for (const SeriesFrame& frame : group.frames) {
        QVERIFY(frame.isComplete());
        labels << frame.label;
    }
    QCOMPARE(labels.join('|'), c.labels);
    QCOMPARE(group.sliceCount(), kSlices);
    QVERIFY(std::fabs(group.spacing - 3.5) < 1e-9 && group.gaps.isEmpty());
    QCOMPARE(frames.severalPerPosition(), c.acquisitions.size() > 1);

    NDicomVolume v;
    QStringList problems;
    QVERIFY(loadSeriesFrames(v, frames, 0, &problems));
    QCOMPARE(problems, QStringList());
    QCOMPARE(v.getStrVolumeHead().contains(";rescale:"), c.ownRescales);
    checkFrames(v, group, group.completeFrames());
    // Compressed or not, every frame with its real values in the NIfTI file, named in its side file.
    const QString nifti = dir.filePath(index % 2 ? "v.nii" : "v.nii.gz");
    QString error;
    QVERIFY2(saveVolumeAsNifti(v, nifti, labels, &error), qPrintable(error));
    checkNifti(v, nifti, c.ownRescales);
    QCOMPARE(jsonLabels(nifti), labels);
}

void TestFrames::oneFrameAsLoadSeries_data()
{
    QTest::addColumn<QString>("folder");
    QTest::addColumn<QString>("pattern");
    QTest::newRow("siemens_t1_sag") << "siemens_t1_sag" << "*";
    QTest::newRow("ct_ge_3slice, signed") << "ct_ge_3slice" << "*.dcm";
    QTest::newRow("philips_fmri_oblique, first dynamic") << "philips_fmri_oblique" << "*_0001_*.dcm";
    QTest::newRow("ge_localizer_3plane, axial") << "ge_localizer_3plane" << "*";
}

// A series of one image per position (or the first of its grids) gives one frame, with the voxels
// and head of the volume loadSeries builds.
void TestFrames::oneFrameAsLoadSeries()
{
    QFETCH(QString, folder);
    QFETCH(QString, pattern);
    const QString path = sharedDataPath(folder);
    if (path.isEmpty())
        QSKIP("the shared DICOM data is not present");
    QObject owner;
    QSeries* series = seriesFromFiles(seriesFiles(path, pattern), 42, &owner);
    const SeriesFrames frames = getSeriesFrames(series);
    QVERIFY(!frames.groups.isEmpty());
    QCOMPARE(frames.groups.first().frames.size(), 1);
    NDicomVolume framed, plain;
    QVERIFY(loadSeriesFrames(framed, frames, 0));
    plain.loadSeries(series);
    QVERIFY(plain.isValid());
    VolumeHead a = *framed.getHead(), b = *plain.getHead();
    a.SEPK = b.SEPK; // the frames' series key is that of the series, the plain one's of its sub-series
    QCOMPARE(QByteArray(reinterpret_cast<const char*>(&a), sizeof a), QByteArray(reinterpret_cast<const char*>(&b), sizeof b));
    QCOMPARE(QByteArray(framed.getData(), b.volumestep[3]), QByteArray(plain.getData(), b.volumestep[3]));
}

void TestFrames::incompleteFrames_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<bool>("listed"); // the header is read, so the frame looks complete until built
    QTest::newRow("file missing") << "missing" << false;
    QTest::newRow("not a DICOM file") << "garbage" << false;
    QTest::newRow("pixel data too short") << "short" << true;
}

// Three echoes, one image of the second unusable: the other two build, the second is said, and no
// time frame of the volume holds zeros in its place.
void TestFrames::incompleteFrames()
{
    QFETCH(QString, fault);
    QFETCH(bool, listed);
    QTemporaryDir dir;
    const SyntheticCase c = {"echoes", {{M, {{echo, "1"}, {te, "5"}}}, {M, {{echo, "2"}, {te, "10"}}}, {M, {{echo, "3"}, {te, "15"}}}},
                             ByFrame, false, false, "", false};
    const QStringList files = writeFrameSeries(dir.path(), c);
    const QString broken = files[kSlices + 2];
    QFile file(broken);
    if (fault == "missing")
        QVERIFY(file.remove());
    else if (fault == "garbage")
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(QByteArray(3000, 'x')) == 3000);
    else {
        // A readable file whose Pixel Data holds 10 of the image's 42 values.
        DcmFileFormat format;
        QVERIFY(format.loadFile(QFile::encodeName(broken).constData()).good());
        const Uint16 words[10] = {};
        QVERIFY(format.getDataset()->putAndInsertUint16Array(DCM_PixelData, words, 10).good());
        QVERIFY(format.saveFile(QFile::encodeName(broken).constData(), EXS_LittleEndianExplicit).good());
    }
    file.close();
    QObject owner;
    const SeriesFrames frames = getSeriesFrames(listedSeries(files, &owner));
    QCOMPARE(frames.groups.size(), 1);
    const SeriesFrameGroup& group = frames.groups.first();
    QCOMPARE(group.frames.size(), 3);
    QCOMPARE(group.frames[1].isComplete(), listed);
    if (!listed) {
        QCOMPARE(group.frames[1].missing, QList<int>({2}));
        QCOMPARE(group.frames[1].files[2], QString());
        QCOMPARE(frames.skipped.size(), 1);
        QVERIFY2(frames.skipped.first().startsWith(broken + ": "), qPrintable(frames.skipped.first()));
    }
    NDicomVolume v;
    QStringList problems;
    QVERIFY(loadSeriesFrames(v, frames, 0, &problems));
    QCOMPARE(problems.size(), 1);
    QVERIFY2(problems.first().startsWith("frame 1 (echo 2 TE 10 ms)") && problems.first().endsWith("left out"),
             qPrintable(problems.first()));
    checkFrames(v, group, {0, 2});
    QCOMPARE(v.getHead()->totallen, 2 * qint64(v.getHead()->volumestep[3]) + kVolumeHeaderBlock);
}

void TestFrames::cachedFrames_data()
{
    TestCatalog::addBackendRows();
}

// The volume of frames through the cache: built and registered under its own key, then read back
// with its frames and rescales; built again when the complete frames change.
void TestFrames::cachedFrames()
{
    QFETCH(QString, backend);
    if (QSqlDatabase::contains(QSqlDatabase::defaultConnection))
        QSqlDatabase::removeDatabase(QSqlDatabase::defaultConnection);
    KESTREL_OPEN_CATALOG(catalog, backend);
    QVERIFY(catalog.setVolumeCache(catalog.path("cache")));
    // Rescales of their own; images large enough for a volume file (over 128 KiB).
    const QStringList files = writeFrameSeries(catalog.path("source"), cases[2], 96, 96);
    QObject owner;
    QSeries* series = listedSeries(files, &owner);
    SeriesFrames frames = getSeriesFrames(series);

    NDicomVolume built;
    QSignalSpy builtInfo(&built, &NDicomVolume::registrationInfo);
    QVERIFY(getVolumeFromSeriesFrames(built, frames, 0));
    QCOMPARE(builtInfo.takeFirst().value(0).toInt(), 0);
    const QString key = series->getSeriesBase() + "#frames0";
    QCOMPARE(getCachedVolumePath(key), built.getCurVolumeDataPath());
    QVERIFY(QFileInfo::exists(built.getCurVolumeDataPath()));
    QCOMPARE(getCachedVolumePath(series->getSeriesBase()), QString());

    NDicomVolume cached;
    QSignalSpy cachedInfo(&cached, &NDicomVolume::registrationInfo);
    QVERIFY(getVolumeFromSeriesFrames(cached, frames, 0));
    QCOMPARE(cachedInfo.takeFirst().value(0).toInt(), 1);
    QCOMPARE(cached.getStrVolumeHead(), built.getStrVolumeHead());
    QCOMPARE(QByteArray(cached.getData(), int(cached.getHead()->totallen - kVolumeHeaderBlock)),
             QByteArray(built.getData(), int(built.getHead()->totallen - kVolumeHeaderBlock)));
    checkFrames(cached, frames.groups.first(), {0, 1});

    // The phase frame loses an image: the cached volume no longer holds the complete frames.
    QVERIFY(QFile::remove(files.last()));
    frames = getSeriesFrames(series);
    NDicomVolume rebuilt;
    QSignalSpy rebuiltInfo(&rebuilt, &NDicomVolume::registrationInfo);
    QStringList problems;
    QVERIFY(getVolumeFromSeriesFrames(rebuilt, frames, 0, &problems));
    QCOMPARE(rebuiltInfo.takeFirst().value(0).toInt(), 0);
    QCOMPARE(problems.size(), 1);
    checkFrames(rebuilt, frames.groups.first(), {0});
    QCOMPARE(TestCatalog::count("registration"), 1);
}

void TestFrames::hostAgainstDcm2niix_data()
{
    TestCatalog::addBackendRows();
}

// Every series of the shared data that kestrel volume builds a volume of, written with --nifti
// (every group of several grids), holds dcm2niix's real value at every voxel centre, frame by frame.
void TestFrames::hostAgainstDcm2niix()
{
    QFETCH(QString, backend);
    const QString data = sharedDataPath();
    const QString script = qEnvironmentVariable("KESTREL_SOURCE_DIR") + "/tests/volume/compare_nifti.py";
    KESTREL_REQUIRE_HOST();
    if (data.isEmpty())
        QSKIP("the shared DICOM data is not present");
    if (const QString skip = dcm2niixSkip(); !skip.isEmpty())
        QSKIP(qPrintable(skip));
    QProcess probe;
    probe.start("/usr/bin/python3", {"-c", "import numpy"});
    if (!probe.waitForFinished(30000) || probe.exitCode() != 0)
        QSKIP("python3 with numpy is missing");
    if (QSqlDatabase::contains(QSqlDatabase::defaultConnection))
        QSqlDatabase::removeDatabase(QSqlDatabase::defaultConnection);
    KESTREL_OPEN_CATALOG(catalog, backend);
    QVERIFY(catalog.setVolumeCache(catalog.path("cache")));
    auto run = [&](const QStringList& args) {
        return runHost(QStringList{"--config", catalog.configDir()} + args, catalog.path("work"));
    };
    HostRun host = run({"import", data});
    QVERIFY2(host.exitCode == 0, qPrintable(host.said()));

    QStringList built;
    for (const QString& pk : TestCatalog::values("SELECT pk FROM generalseries ORDER BY pk")) {
        QSeries series(pk.toLongLong());
        series.searchInstance();
        const SeriesFrames frames = getSeriesFrames(&series);
        if (series.getInstances().size() < 2 || frames.groups.isEmpty())
            continue; // no volume: nothing to compare
        const QString source = catalog.path("dicom/" + pk);
        QDir().mkpath(source);
        for (QInstance* instance : series.getInstances())
            QFile::link(instance->getFilePath(), source + "/" + QString::number(instance->getInstancePK()));
        const QString peer = catalog.path("dcm2niix/" + pk);
        const QString failure = dcm2niix(source, peer);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        const QString folder = QFileInfo(series.getInstances().first()->getFilePath()).dir().dirName();
        for (int g = 0; g < frames.groups.size(); ++g) {
            const QString nifti = catalog.path(QString("nifti/%1_%2.nii%3").arg(pk).arg(g).arg(g % 2 ? ".gz" : ""));
            QStringList args{"volume", "--series", pk, "--nifti", nifti};
            if (g != frames.largestGroup())
                args << "--group" << QString::number(g);
            host = run(args);
            const QString said = host.said();
            QVERIFY2(host.exitCode == 0, qPrintable(folder + ": " + said));
            const QStringList labels = jsonLabels(nifti);
            if (!frames.groups[g].gaps.isEmpty()) {
                // Unevenly spaced slices are on no grid of either tool: said, not compared.
                QVERIFY2(said.contains("  gap: slice "), qPrintable(said));
                qInfo().noquote() << folder << "group" << g << "has gaps, not compared";
                continue;
            }
            QProcess compare;
            compare.setProcessChannelMode(QProcess::MergedChannels);
            compare.start("/usr/bin/python3", {script, nifti, peer});
            QVERIFY(compare.waitForFinished(300000));
            const QStringList lines = QString::fromLocal8Bit(compare.readAll()).trimmed().split('\n');
            QVERIFY2(compare.exitCode() == 0, qPrintable(folder + ": " + lines.join(" | ")));
            const QStringList f = lines.last().split(' ');
            QVERIFY2(f.size() == 8 && f[5].toDouble() <= 0.01 && f[7].toDouble() == 0, qPrintable(folder + ": " + lines.last()));
            qInfo().noquote() << folder << "group" << g << "frames:" << labels.join(" / ") << "|" << lines.join(" | ");
            built << QString("%1:%2").arg(folder, f[1]);
        }
    }
    // The series with several images per position, frame by frame; the others as one.
    for (const char* expected : {"siemens_gre_2echo:2", "ge_b0map_signed:2", "philips_fmri_oblique:3", "siemens_t1_sag:1",
                                 "ct_ge_3slice:1", "ge_localizer_3plane:1"})
        QVERIFY2(built.contains(expected), qPrintable(built.join(", ")));
}

void TestFrames::hostIncompleteFrame_data()
{
    TestCatalog::addBackendRows();
}

// kestrel volume on a catalogued multi-echo series that lost an image: it lists the frames, says
// which is incomplete, builds the others and writes the planes of a complete one only.
void TestFrames::hostIncompleteFrame()
{
    QFETCH(QString, backend);
    KESTREL_REQUIRE_HOST();
    if (QSqlDatabase::contains(QSqlDatabase::defaultConnection))
        QSqlDatabase::removeDatabase(QSqlDatabase::defaultConnection);
    KESTREL_OPEN_CATALOG(catalog, backend);
    const SyntheticCase c = {"echoes", {{M, {{echo, "1"}, {te, "5"}}}, {M, {{echo, "2"}, {te, "10"}}}, {M, {{echo, "3"}, {te, "15"}}}},
                             RestartingPerFrame, false, false, "", false};
    const QStringList files = writeFrameSeries(catalog.path("source"), c);
    QVERIFY(catalog.setVolumeCache(catalog.path("cache")));
    auto run = [&](const QStringList& args) {
        return runHost(QStringList{"--config", catalog.configDir()} + args, catalog.path("work"));
    };
    HostRun host = run({"import", catalog.path("source")});
    QVERIFY2(host.exitCode == 0, qPrintable(host.said()));
    const QString pk = TestCatalog::value("SELECT pk FROM generalseries");
    QVERIFY(QFile::remove(QDir(catalog.path("source")).filePath("f1_s3.dcm")));

    host = run({"volume", "--series", pk, "--frames"});
    QCOMPARE(host.exitCode, 0);
    const QString listed = host.said();
    for (const QString& line : {QString("series %1 holds several images per slice position: 3 frames of 5 slices").arg(pk),
                                QString("  frame 0: echo 1 TE 5 ms, 5 images"),
                                QString("  frame 1: echo 2 TE 10 ms, 4 images, incomplete: no image at slice 3"),
                                QString("  frame 2: echo 3 TE 15 ms, 5 images")})
        QVERIFY2(listed.contains(line + "\n"), qPrintable(listed));
    QVERIFY2(!QDir(catalog.path("cache")).exists() || QDir(catalog.path("cache")).isEmpty(), "--frames builds nothing");

    host = run({"volume", "--series", pk, "--out", catalog.path("planes"), "--frame", "2"});
    QCOMPARE(host.exitCode, 0);
    const QString said = host.said();
    QVERIFY2(said.contains("  frame 1 (echo 2 TE 10 ms) has no image at slice 3 of 5: left out\n"), qPrintable(said));
    QVERIFY2(said.contains("timeNum:2;"), qPrintable(said));
    QVERIFY(QFileInfo::exists(catalog.path("planes/axial.png")));
    host = run({"volume", "--series", pk, "--out", catalog.path("planes"), "--frame", "1"});
    QCOMPARE(host.exitCode, 1);
    QVERIFY(host.err.contains("frame 1 is not in the volume"));
}

QTEST_GUILESS_MAIN(TestFrames)
#include "tst_frames.moc"
