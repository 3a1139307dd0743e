#include "catalogrows.h"
#include "testcatalog.h"

#include "internal/dcmvalues.h"
#include "internal/hierarchy.h"
#include "qinstance.h"
#include "qpatient.h"
#include "qpatients.h"
#include "qseries.h"
#include "qstudy.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dctk.h>

#include <QDir>
#include <QPointer>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QtTest>

#include <algorithm>
#include <cmath>
#include <memory>

using catalogrows::Image;

namespace {

// The stored text of a position.
QString pos(double x, double y, double z)
{
    return QString("%1\\%2\\%3").arg(x).arg(y).arg(z);
}

qint64 addSeriesOf(qint64 studyPk, const QList<Image>& images, int number = 1)
{
    const qint64 series = catalogrows::addSeries(studyPk, number, "case");
    for (const Image& image : images)
        catalogrows::addImage(series, image);
    return series;
}

QList<int> instanceNumbers(QSeries* series)
{
    QList<int> numbers;
    for (QInstance* instance : series->getInstances())
        numbers << instance->getInstanceNumber();
    return numbers;
}

double distance(const double* a, const double* b)
{
    return std::sqrt((a[0] - b[0]) * (a[0] - b[0]) + (a[1] - b[1]) * (a[1] - b[1]) + (a[2] - b[2]) * (a[2] - b[2]));
}

// Image rows of one folder's files, from their own headers.
struct FileImage {
    Image row;
    QVector<double> position;
};
QList<FileImage> readFolder(const QString& dir)
{
    using namespace kestrel::internal;
    QList<FileImage> images;
    for (const QFileInfo& info : QDir(dir).entryInfoList(QDir::Files, QDir::Name)) {
        DcmFileFormat file;
        if (file.loadFile(info.absoluteFilePath().toLocal8Bit().constData()).bad())
            continue;
        DcmDataset* ds = file.getDataset();
        FileImage image;
        image.row.instanceNumber = dcmInt(ds, DCM_InstanceNumber);
        image.row.position = dcmStringAll(ds, DCM_ImagePositionPatient);
        image.row.orientation = dcmStringAll(ds, DCM_ImageOrientationPatient);
        image.row.spacing = dcmStringAll(ds, DCM_PixelSpacing);
        image.row.rows = dcmInt(ds, DCM_Rows);
        image.row.columns = dcmInt(ds, DCM_Columns);
        image.row.bitsAllocated = dcmInt(ds, DCM_BitsAllocated);
        image.row.samplesPerPixel = dcmInt(ds, DCM_SamplesPerPixel);
        image.row.photometric = dcmString(ds, DCM_PhotometricInterpretation);
        image.row.filePath = info.absoluteFilePath();
        image.position = dcmDoubles(ds, DCM_ImagePositionPatient);
        images << image;
    }
    // Rows go into the catalogue in instance-number order, as the importer leaves them.
    std::stable_sort(images.begin(), images.end(),
                     [](const FileImage& a, const FileImage& b) { return a.row.instanceNumber < b.row.instanceNumber; });
    return images;
}

} // namespace

class TestHierarchy : public QObject
{
    Q_OBJECT
private slots:
    void geometryParsing();
    void markersAndImageCache();
    void treeAndOwnership_data() { TestCatalog::addBackendRows(); }
    void treeAndOwnership();
    void ordering_data() { TestCatalog::addBackendRows(); }
    void ordering();
    void timeSeries_data() { TestCatalog::addBackendRows(); }
    void timeSeries();
    void advancedQuery_data() { TestCatalog::addBackendRows(); }
    void advancedQuery();
    void realSeries_data() { TestCatalog::addBackendRows(); }
    void realSeries();
};

void TestHierarchy::geometryParsing()
{
    QInstance instance;
    QCOMPARE(instance.getMainZ(), 2);
    QVERIFY(!instance.isGeometryValid());
    instance.setPixelSpacing("0.5\\0.7");
    QCOMPARE(instance.getPixelSpacing()[0], 0.5);
    QCOMPARE(instance.getPixelSpacing()[1], 0.7);
    instance.setPixelSpacing("0.8");
    QCOMPARE(instance.getPixelSpacing()[1], 0.8);
    instance.setPixelSpacing("0.5\\\\0.7");
    QCOMPARE(instance.getPixelSpacing()[0], 0.5);
    QCOMPARE(instance.getPixelSpacing()[1], 0.7);
    instance.setPixelSpacing("");
    QCOMPARE(instance.getPixelSpacing()[1], 0.7);

    // Surplus values are ignored; non-numbers read as 0.
    instance.setPosition("1\\2\\3\\4\\5");
    QCOMPARE(instance.getPosition()[2], 3.0);
    instance.setPosition("x\\7");
    QCOMPARE(instance.getPosition()[0], 0.0);
    QCOMPARE(instance.getPosition()[1], 7.0);
    QCOMPARE(instance.getPosition()[2], 3.0);

    struct Case {
        QString text;
        double n[3];
        int axis;
    };
    const Case cases[] = {
        {"1\\0\\0\\0\\1\\0", {0, 0, 1}, 2},
        {"1\\0\\0\\0\\0\\-1", {0, 1, 0}, 1},     // coronal: the length rule gives 0, left unscaled
        {"0\\1\\0\\0\\0\\-1", {-1, 0, 0}, 2},    // sagittal: signed comparison picks z
        {"1\\0\\0\\0\\-1\\0", {0, 0, -1}, 1},
        {"0.8\\0.6\\0\\0\\0\\-1", {-1, 0.8 / 0.6, 0}, 1},
        {"1\\0\\0\\0\\1\\0\\9\\9\\9", {0, 0, 1}, 2}, // surplus ignored
    };
    for (const Case& c : cases) {
        QInstance item(qint64(5));
        QCOMPARE(item.getMainZ(), -1);
        item.setOrientation(c.text);
        QVERIFY2(item.isGeometryValid(), qPrintable(c.text));
        for (int i = 0; i < 3; ++i)
            QVERIFY2(std::fabs(item.getOrientation(2)[i] - c.n[i]) < 1e-9, qPrintable(c.text));
        QCOMPARE(item.getMainZ(), c.axis);
    }
    QInstance empty;
    empty.setOrientation("");
    QVERIFY(!empty.isGeometryValid());

    // Slots are reachable by name with their recorded parameter names.
    QVERIFY(QMetaObject::invokeMethod(&instance, "setImageSize", Q_ARG(int, 256), Q_ARG(int, 192)));
    QCOMPARE(instance.getImageSize()[1], 192);
    const QMetaObject* mo = &QSeries::staticMetaObject;
    const int index = mo->indexOfSlot("setSeriesNumber(int)");
    QVERIFY(index >= 0);
    QCOMPARE(mo->method(index).parameterNames().value(0), QByteArray("seriesNumbe"));
}

void TestHierarchy::markersAndImageCache()
{
    QCOMPARE(QInstance::getMarkerIdFromString("RectMarker#x#1#MarkerID#7"), QString("7"));
    QCOMPARE(QInstance::getMarkerIdFromString("RectMarker#MarkerID"), QString("notfound"));
    QCOMPARE(QInstance::getMarkerIdFromString("Arrow#a#b#12"), QString("12"));
    QCOMPARE(QInstance::getMarkerIdFromString("Arrow#a"), QString("notfound"));
    QCOMPARE(QInstance::getMarkerIdFromString("plain"), QString("notfound"));

    QInstance instance;
    QVERIFY(instance.addMarker("7", "first"));
    QVERIFY(!instance.addMarker("7", "second"));
    QCOMPARE(instance.getAllMarkers().value("7"), QString("first"));
    QVERIFY(instance.addMarker("7", "third", true));
    instance.addMarkers("EllipseMarker#MarkerID#1##PolygonMarker#MarkerID#2##EllipseMarker#MarkerID#7", false);
    QCOMPARE(instance.getAllMarkers().size(), 3);
    QCOMPARE(instance.getAllMarkers().value("7"), QString("third"));

    // The image is made once per instance, also when reading failed (no retry).
    int made = 0;
    kestrel::internal::setDicomImageFactory([&made](const QString&) {
        ++made;
        return std::shared_ptr<NDicomImage>();
    });
    instance.setFilePath("/nonexistent.dcm");
    instance.getDicomImage();
    instance.getDicomImage();
    QCOMPARE(made, 1);
    kestrel::internal::setDicomImageFactory({});
}

void TestHierarchy::treeAndOwnership()
{
    QFETCH(QString, backend);
    KESTREL_OPEN_CATALOG(catalog, backend);

    const qint64 patientPk = catalogrows::addPatient("Doe^Jane", "AB12");
    const qint64 studyPk = catalogrows::addStudy(patientPk, "Head", "42");
    const qint64 seriesA = addSeriesOf(studyPk, {catalogrows::image(2, pos(0, 0, 5)), catalogrows::image(1, pos(0, 0, 0)), catalogrows::image(3, pos(0, 0, 10))}, 3);
    addSeriesOf(studyPk, {catalogrows::image(1, pos(0, 0, 0))}, 4);

    // Column lists pair with SELECT * column by column.
    for (const auto& [names, from] : {std::pair{QPatient::getColumnName(), QString("patient")},
                                      std::pair{QStudy::getColumnName(), QString("generalstudy")},
                                      std::pair{QSeries::getColumnName(), QString("generalseries")},
                                      std::pair{QInstance::getColumnName(), QString("imageformat,imagepixel,mrimageinfo")}}) {
        const QSqlRecord record = QSqlQuery(QString("SELECT * FROM %1").arg(from)).record();
        QCOMPARE(names.size(), record.count());
        for (int i = 0; i < record.count(); ++i)
            QCOMPARE(names[i], record.fieldName(i));
    }

    QPointer<QPatient> patient = new QPatient(patientPk);
    QCOMPARE(patient->getValue("PatientName"), QString());
    patient->searchPatientInfo();
    QCOMPARE(patient->patientName(), QString("Doe^Jane"));
    QCOMPARE(patient->getPatientID(), 0); // a non-numeric ID reads as 0
    QVERIFY(QMetaObject::invokeMethod(patient, "searchStudys"));
    QCOMPARE(patient->getStudys().size(), 1);
    QStudy* study = patient->getStudys().first();
    QCOMPARE(study->getStudyID(), 42);
    QCOMPARE(study->getPatient(), patient.data());
    QCOMPARE(patient->getSeries().size(), 2);
    QSeries* series = patient->getSeries().first();
    QCOMPARE(series->getSeriesPK(), seriesA);
    QCOMPARE(series->getStudy(), study);
    QCOMPARE(instanceNumbers(series), (QList<int>{1, 2, 3}));
    QVERIFY(!series->getInstances().first()->isGeometryValid());

    patient->searchAllInfo();
    QCOMPARE(patient->getValue("PatientID"), QString("AB12"));
    QCOMPARE(study->getValue("StudyDescription"), QString("Head"));
    QCOMPARE(series->getValue("SeriesNumber"), QString("3"));
    QCOMPARE(series->getInstances().first()->getValue("ImagePositionPatient"), QString()); // not filled by the chain
    series->searchAllInfo();
    QVERIFY(series->isInstanceInfoLoaded());
    QCOMPARE(series->getInstances().first()->getValue("ImagePositionPatient"), pos(0, 0, 0));
    QInstance* single = new QInstance(series->getInstances().first()->getInstancePK());
    single->searchInstanceAllInfo();
    QCOMPARE(single->getValue("PixelSpacing"), QString("1\\1"));
    delete single;
    QSeries empty;
    empty.searchAllInfo();
    QVERIFY(!empty.isInstanceInfoLoaded());

    // The one-query path pairs rows by series only: 3 images give 9 objects.
    QSeries joined(seriesA);
    joined.searchInstanceInfos();
    QCOMPARE(joined.getInstances().size(), 9);

    // Searching twice appends the studies again.
    patient->searchStudys();
    QCOMPARE(patient->getStudys().size(), 2);

    // Ownership: children of searches die with the patient; an instance only added does not.
    QPointer<QInstance> own = series->getInstances().first();
    QPointer<QSeries> ownSeries = series;
    QPointer<QInstance> foreign = new QInstance(&joined);
    series->addInstance(foreign);
    delete patient;
    QVERIFY(!own && !ownSeries);
    QVERIFY(foreign);
}

void TestHierarchy::ordering()
{
    QFETCH(QString, backend);
    KESTREL_OPEN_CATALOG(catalog, backend);
    const qint64 studyPk = catalogrows::addStudy(catalogrows::addPatient("Order^Test", "7"), "Order");
    const QString axial = "1\\0\\0\\0\\1\\0", sagittal = "0\\1\\0\\0\\0\\-1", coronal = "1\\0\\0\\0\\0\\-1";
    auto at = [](int number, double x, double y, double z, const QString& orientation) {
        return catalogrows::image(number, pos(x, y, z), orientation);
    };

    struct Case {
        const char* name;
        QList<Image> images;
        QList<int> volume; // expected instance numbers; empty = no volume series
        int isOrder;
        int subSeries;
    };
    QList<Case> cases;
    cases << Case{"axial, database order scrambled", {at(1, 0, 0, 10, axial), at(2, 0, 0, 0, axial), at(3, 0, 0, 5, axial), at(4, 0, 0, 15, axial)}, {2, 3, 1, 4}, -1, 1};
    // Normal (0, 0, -1): the signed rule picks y, constant here, so database order stands.
    cases << Case{"axial, normal -z", {at(1, 0, 0, 0, "1\\0\\0\\0\\-1\\0"), at(2, 0, 0, -3, "1\\0\\0\\0\\-1\\0"), at(3, 0, 0, -6, "1\\0\\0\\0\\-1\\0")}, {1, 2, 3}, 1, 1};
    // Sagittal: main axis z is constant, the stable sort keeps the scanner's numbering.
    QList<Image> sag;
    for (int i = 0; i < 35; ++i)
        sag << at(i + 1, -81.6 + 4.8 * i, -130, 130, sagittal);
    QList<int> sagOrder;
    for (int i = 1; i <= 35; ++i)
        sagOrder << i;
    cases << Case{"sagittal, 35 slices", sag, sagOrder, 1, 1};
    cases << Case{"coronal", {at(1, 0, 45, 0, coronal), at(2, 0, 30, 0, coronal), at(3, 0, 15, 0, coronal), at(4, 0, 0, 0, coronal)}, {4, 3, 2, 1}, -1, 1};
    cases << Case{"missing slice", {at(1, 0, 0, 0, axial), at(2, 0, 0, 5, axial), at(3, 0, 0, 10, axial), at(4, 0, 0, 15, axial), at(5, 0, 0, 25, axial)}, {1, 2, 3, 4}, 1, 1};
    // Two images per position: the most common distance is 0; the first image and every image
    // at its predecessor's position stay.
    cases << Case{"duplicated positions", {at(1, 0, 0, 0, axial), at(2, 0, 0, 0, axial), at(3, 0, 0, 5, axial), at(4, 0, 0, 5, axial), at(5, 0, 0, 10, axial), at(6, 0, 0, 10, axial)}, {1, 2, 4, 6}, 1, 1};
    cases << Case{"one position only", {at(1, 0, 0, 0, axial), at(2, 0, 0, 0, axial)}, {}, -1, 1};
    cases << Case{"single image", {at(1, 0, 0, 0, axial)}, {}, -1, 1};
    QList<Image> mixed;
    QList<int> mixedAxial;
    for (int i = 0; i < 10; ++i)
        mixed << at(i + 1, 2.0 * i, 0, 0, sagittal);
    for (int i = 0; i < 20; ++i) {
        mixed << at(11 + i, 0, 0, 3.0 * i, axial);
        mixedAxial << 11 + i;
    }
    cases << Case{"mixed orientations", mixed, mixedAxial, 1, 2};
    Image rgb = at(1, 0, 0, 0, axial), rgb2 = at(2, 0, 0, 1, axial);
    rgb.samplesPerPixel = rgb2.samplesPerPixel = 3;
    rgb.photometric = rgb2.photometric = "RGB";
    cases << Case{"RGB", {rgb, rgb2}, {}, -1, 0};
    Image bare1 = at(1, 0, 0, 0, axial), bare2 = at(2, 0, 0, 1, axial);
    bare1.pixelRow = bare2.pixelRow = bare1.mrRow = bare2.mrRow = false;
    cases << Case{"no imagepixel rows", {bare1, bare2}, {}, -1, 1};
    // Too few values leave the rest 0, non-numbers read as 0, surplus values are ignored: the
    // all-zero orientations of 2 and 3 form the larger sub-series.
    cases << Case{"bad orientation texts", {at(1, 0, 0, 0, "1\\0"), at(2, 0, 0, 2, "a\\b\\c\\d\\e\\f\\g\\h"), at(3, 0, 0, 4, "")}, {2, 3}, 1, 2};

    for (const Case& c : cases) {
        QSeries series(addSeriesOf(studyPk, c.images));
        series.searchInstance();
        QCOMPARE(series.getInstances().size(), c.images.size());
        QList<QSeries*> subs = series.subSeries();
        QVERIFY2(subs.size() == c.subSeries, c.name);
        qDeleteAll(subs);
        std::unique_ptr<QSeries> volume(series.getVolumeSE());
        if (c.volume.isEmpty()) {
            QVERIFY2(!volume, c.name);
            continue;
        }
        QVERIFY2(volume, c.name);
        QVERIFY2(instanceNumbers(volume.get()) == c.volume,
                 qPrintable(QString("%1: got %2").arg(c.name).arg(QVariant::fromValue(instanceNumbers(volume.get())).toStringList().join(','))));
        QVERIFY2(series.getIsOrder() == c.isOrder, c.name);
        QCOMPARE(volume->getSeriesPK(), series.getSeriesPK());
        QVERIFY(!volume->parent());
        for (QInstance* instance : volume->getInstances())
            QCOMPARE(instance->parent(), &series); // the split series keeps its images
    }
}

void TestHierarchy::timeSeries()
{
    QFETCH(QString, backend);
    KESTREL_OPEN_CATALOG(catalog, backend);
    const qint64 studyPk = catalogrows::addStudy(catalogrows::addPatient("Time^Test", "8"), "Dynamic");
    auto phase = [&](const QString& time, const QString& spacing, int count, int number) {
        QList<Image> images;
        for (int i = 0; i < count; ++i) {
            Image image = catalogrows::image(i + 1, pos(0, 0, i));
            image.spacing = spacing;
            image.acquisitionTime = time;
            images << image;
        }
        return addSeriesOf(studyPk, images, number);
    };
    const qint64 reference = phase("100000.00", "0.5\\0.5", 3, 1);
    const qint64 earlierText = phase("93000.00", "0.5\\0.5", 3, 2);
    phase("090000.00", "0.5\\0.50000001", 3, 3); // not exactly the same spacing
    phase("080000.00", "0.5\\0.5", 4, 4);          // another image count

    QStudy study(studyPk);
    study.searchSeries();
    QCOMPARE(study.getSeries().size(), 4);
    QList<QSeries*> points = study.get4DSeries(study.getSeries().first());
    QCOMPARE(points.size(), 2);
    // Times compare as text: "100000.00" sorts before "93000.00".
    QCOMPARE(points[0]->getSeriesPK(), reference);
    QCOMPARE(points[1]->getSeriesPK(), earlierText);
}

void TestHierarchy::advancedQuery()
{
    QFETCH(QString, backend);
    KESTREL_OPEN_CATALOG(catalog, backend);
    const qint64 p1 = catalogrows::addPatient("Smith^Anna", "1001");
    const qint64 p2 = catalogrows::addPatient("Jones^Bob", "1002");
    const qint64 s1 = catalogrows::addStudy(p1, "Brain");
    addSeriesOf(s1, {catalogrows::image(1, pos(0, 0, 0)), catalogrows::image(2, pos(0, 0, 1))}, 1);
    addSeriesOf(s1, {catalogrows::image(1, pos(0, 0, 0))}, 2);
    addSeriesOf(catalogrows::addStudy(p2, "Knee"), {catalogrows::image(1, pos(0, 0, 0))}, 1);

    // Display choices: key hidden for patients, a few columns per level.
    auto show = [](const QString& table, const QStringList& shown) {
        const QSqlRecord record = QSqlDatabase::database().record(table);
        QStringList sets;
        for (int i = 0; i < record.count() - 1; ++i)
            sets << QString("`%1`=%2").arg(record.fieldName(i)).arg(shown.contains(record.fieldName(i)) ? 1 : 0);
        QVERIFY(QSqlQuery().exec(QString("UPDATE %1 SET %2").arg(table, sets.join(','))));
    };
    show("querypatientuser", {"PatientName", "PatientID"});
    show("querygeneralstudyuser", {"pk", "StudyDescription"});
    show("querygeneralseriesuser", {"pk", "SeriesNumber"});
    show("queryimageformatuser", {"pk", "InstanceNumber"});
    auto condition = [](const QString& name, const QString& table, const QString& column, const QString& op,
                        const QString& value, const QString& connector, const QString& kind) {
        catalogrows::insert("andvancequiry", {{"InquiryName", name}, {"TableName", table}, {"ColumnName", column},
                                              {"Operator", op}, {"Value", value}, {"Connector", connector}, {"MatchKind", kind}});
    };
    condition("smiths", "patient", "PatientName", "=", "Smith", "", "Fuzzy");
    condition("images", "patient", "PatientID", "=", "1001", "or", "Precise");
    condition("images", "imageformat", "InstanceNumber", "=", "2", "", "Precise");
    condition("empty", "patient", "PatientID", "=", "", "and", "Precise");
    condition("empty", "patient", "PatientName", "like", "x", "", "Precise");

    QPatients smiths;
    smiths.advanceQueryByName("smiths");
    QCOMPARE(smiths.getQueryString(),
             QString("SELECT patient.pk,patient.PatientName,patient.PatientID,generalstudy.pk,generalstudy.StudyDescription,"
                     "generalseries.pk,generalseries.SeriesNumber FROM patient inner join generalstudy inner join generalseries "
                     "WHERE patient.pk=generalstudy.patient_fk and generalstudy.pk=generalseries.study_fk and "
                     "(patient.PatientName like '%Smith%')"));
    QVERIFY(smiths.getPaPK());
    QVERIFY(!smiths.getStPK());
    QVERIFY(smiths.getImageTitleList().isEmpty());
    QCOMPARE(smiths.getAllPatient().size(), 1);
    QCOMPARE(smiths.getPatient(0)->getPatientPK(), p1);
    QCOMPARE(smiths.getPatient(0)->property("PatientID").toString(), QString("1001"));
    QCOMPARE(smiths.getAllStudy().size(), 1);
    QCOMPARE(smiths.getAllSeries().size(), 2);
    QCOMPARE(smiths.getSeries(1)->property("SeriesNumber").toString(), QString("2"));
    QCOMPARE(smiths.getStudy(0)->getSeries().size(), 2);

    QPatients images;
    images.advanceQueryByName("images");
    QVERIFY(images.getQueryString().endsWith(" and generalseries.pk=imageformat.series_fk and "
                                             "(patient.PatientID = '1001' or imageformat.InstanceNumber = '2')"));
    QCOMPARE(images.getImageTitleList(), (QStringList{"pk", "InstanceNumber"}));
    QCOMPARE(images.getAllPatient().size(), 1);
    QCOMPARE(images.getAllSeries().size(), 2);
    QCOMPARE(images.getAllInstance().size(), 3);
    QCOMPARE(images.getSeries(0)->getInstances().size(), 2);
    QCOMPARE(images.getSeries(0)->getInstances().at(1)->parent(), images.getSeries(0));

    // An empty stored value pushes "NULL" into the next condition.
    QPatients shifted;
    shifted.advanceQueryByName("empty");
    QVERIFY(shifted.getQueryString().endsWith("(patient.PatientID = '' and patient.PatientName like 'NULL')"));

    QPatients none;
    none.advanceQueryByName("no such query");
    QVERIFY(none.getQueryString().endsWith("and ("));
    QVERIFY(none.getAllPatient().isEmpty());
}

void TestHierarchy::realSeries()
{
    QFETCH(QString, backend);
    const QString root = sharedDataPath();
    if (root.isEmpty())
        QSKIP("the shared real DICOM data is absent");
    KESTREL_OPEN_CATALOG(catalog, backend);
    const qint64 studyPk = catalogrows::addStudy(catalogrows::addPatient("Real^Data", "1"), "Real");

    struct Folder {
        const char* name;
        int planes;
        int volumeSlices;
    };
    for (const Folder& folder : {Folder{"siemens_t1_sag", 1, 35}, Folder{"ct_ge_3slice", 1, 3}, Folder{"ge_localizer_3plane", 3, 7}}) {
        const QList<FileImage> files = readFolder(root + "/" + folder.name);
        QVERIFY2(!files.isEmpty(), folder.name);
        QList<Image> rows;
        for (const FileImage& file : files)
            rows << file.row;
        QSeries series(addSeriesOf(studyPk, rows));
        series.searchInstance();
        QList<QSeries*> subs = series.subSeries();
        QCOMPARE(subs.size(), folder.planes);
        for (QSeries* sub : subs)
            QCOMPARE(sub->getInstances().size(), files.size() / folder.planes);
        qDeleteAll(subs);

        // The expected step, from the files' own positions of the first plane's images.
        QList<QVector<double>> positions;
        for (int i = 0; i < folder.volumeSlices; ++i)
            positions << files[i].position;
        std::sort(positions.begin(), positions.end()); // the planes move along one coordinate
        const double step = distance(positions[1].constData(), positions[0].constData());
        QVERIFY2(step > 0.5, folder.name);

        std::unique_ptr<QSeries> volume(series.getVolumeSE());
        QVERIFY2(volume, folder.name);
        QCOMPARE(volume->getInstances().size(), folder.volumeSlices);
        const QList<QInstance*>& slices = volume->getInstances();
        for (int i = 1; i < slices.size(); ++i)
            QVERIFY2(std::fabs(distance(slices[i]->getPosition(), slices[i - 1]->getPosition()) - step) < 1e-3,
                     qPrintable(QString("%1 slice %2").arg(folder.name).arg(i)));
    }

    // Several images per position (two echoes, field map + magnitude, three dynamics): the most
    // common distance is 0, so the volume series is the first image plus every image that shares
    // its predecessor's position, 1 + positions × (images per position − 1) in all, its first
    // two at one position. Pinned here: this is what the viewer gets for such series.
    struct Repeated {
        const char* name;
        int positions, perPosition;
    };
    for (const Repeated& folder : {Repeated{"siemens_gre_2echo", 36, 2}, Repeated{"ge_b0map_signed", 16, 2},
                                   Repeated{"philips_fmri_oblique", 9, 3}}) {
        QList<Image> rows;
        for (const FileImage& file : readFolder(root + "/" + folder.name))
            rows << file.row;
        QCOMPARE(rows.size(), folder.positions * folder.perPosition);
        QSeries series(addSeriesOf(studyPk, rows));
        series.searchInstance();
        std::unique_ptr<QSeries> volume(series.getVolumeSE());
        QVERIFY2(volume, folder.name);
        QCOMPARE(volume->getInstances().size(), 1 + folder.positions * (folder.perPosition - 1));
        QCOMPARE(distance(volume->getInstances()[0]->getPosition(), volume->getInstances()[1]->getPosition()), 0.0);
    }
}

QTEST_GUILESS_MAIN(TestHierarchy)
#include "tst_hierarchy.moc"
