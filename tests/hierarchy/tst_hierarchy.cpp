#include "testcatalog.h"

#include "catalog/catalogschema_p.h"
#include "dicom/dcmvalues_p.h"
#include "programs.h"
#include "ndicomimage.h"
#include "qinstance.h"
#include "qpatient.h"
#include "qpatients.h"
#include "qseries.h"
#include "qstudy.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dctk.h>

#include <QtSql>
#include <QtTest>

#include <algorithm>
#include <cmath>
#include <memory>

namespace {

const QString axial = "1\\0\\0\\0\\1\\0", sagittal = "0\\1\\0\\0\\0\\-1";

// The stored text of a position.
QString pos(double x, double y, double z)
{
    return QString("%1\\%2\\%3").arg(x).arg(y).arg(z);
}

// Catalogue rows are written directly, so that each case states its own input: an INSERT of the
// given columns (bound values) into TABLE; the new pk, or -1 on failure.
qint64 insert(const QString& table, const QVariantMap& values)
{
    using namespace kestrel::internal::schema;
    QSqlQuery query(QSqlDatabase::database());
    query.prepare(QString("INSERT INTO %1 (%2) VALUES %3").arg(table, quotedColumns(values.keys()), placeholders(values.size())));
    for (const QVariant& value : values)
        query.addBindValue(value);
    if (!query.exec())
        qWarning() << "insert into" << table << query.lastError().text();
    return query.lastInsertId().toLongLong();
}

QString uid()
{
    return "2.25." + QString::number(QUuid::createUuid().toString(QUuid::Id128).left(15).toULongLong(nullptr, 16));
}

qint64 addPatient(const QString& name, const QString& id)
{
    return insert("patient", {{"PatientName", name}, {"PatientID", id}});
}

qint64 addStudy(qint64 patientPk, const QString& description, const QString& studyId = "1")
{
    return insert("generalstudy", {{"StudyInstanceUID", uid()}, {"StudyDescription", description}, {"StudyID", studyId},
                                   {"StudyDate", "20240131"}, {"patient_fk", patientPk}});
}

// One image: imageformat always, imagepixel and mrimageinfo unless switched off.
struct Image {
    Image(int number, const QString& position, const QString& orientation = axial)
        : number(number), position(position), orientation(orientation)
    {
    }
    int number;
    QString position, orientation, spacing = "1\\1", acquisitionTime, filePath;
    int rows = 32, columns = 32, bitsAllocated = 16, samplesPerPixel = 1;
    QString photometric = "MONOCHROME2";
    bool pixelRow = true, mrRow = true;
};

// A series of IMAGES (rows in list order) in the study STUDYPK.
qint64 addSeries(qint64 studyPk, const QList<Image>& images, int number = 1)
{
    const QString seriesUid = uid();
    const qint64 series = insert("generalseries", {{"SeriesInstanceUID", seriesUid}, {"SeriesNumber", QString::number(number)},
                                                   {"SeriesDescription", "case"}, {"Modality", "MR"},
                                                   {"SeriesBase", seriesUid + "#0"}, {"study_fk", studyPk}});
    for (const Image& image : images) {
        const QString sop = uid();
        insert("imageformat", {{"InstanceNumber", image.number}, {"ImageType", "ORIGINAL\\PRIMARY"}, {"SOPInstanceUID", sop},
                               {"AcquisitionTime", image.acquisitionTime}, {"series_fk", series}, {"FilePath", image.filePath}});
        if (image.pixelRow)
            insert("imagepixel", {{"SamplesPerPixel", QString::number(image.samplesPerPixel)},
                                  {"PhotometricInterpretation", image.photometric}, {"Rows", QString::number(image.rows)},
                                  {"Columns", QString::number(image.columns)}, {"BitsAllocated", QString::number(image.bitsAllocated)},
                                  {"PixelSpacing", image.spacing}, {"ImageOrientationPatient", image.orientation},
                                  {"ImagePositionPatient", image.position}, {"series_fk", series}, {"SOPInstanceUID", sop}});
        if (image.mrRow)
            insert("mrimageinfo", {{"EchoTime", "5"}, {"RepetitionTime", "500"}, {"FlipAngle", "90"}, {"MagneticFieldStrength", "3"},
                                   {"EchoNumbers", "1"}, {"series_fk", series}, {"SOPInstanceUID", sop}});
    }
    return series;
}

// The instance numbers of a series in its order, "1,2,3".
QString instanceNumbers(QSeries* series)
{
    QStringList numbers;
    for (QInstance* instance : series->getInstances())
        numbers << QString::number(instance->getInstanceNumber());
    return numbers.join(',');
}

double distance(const double* a, const double* b)
{
    return std::sqrt((a[0] - b[0]) * (a[0] - b[0]) + (a[1] - b[1]) * (a[1] - b[1]) + (a[2] - b[2]) * (a[2] - b[2]));
}

// Image rows of one folder's files from their own headers, in instance-number order as the
// importer leaves them.
QList<Image> readFolder(const QString& dir)
{
    using namespace kestrel::internal;
    QList<Image> rows;
    for (const QFileInfo& info : QDir(dir).entryInfoList(QDir::Files, QDir::Name)) {
        DcmFileFormat file;
        if (file.loadFile(info.absoluteFilePath().toLocal8Bit().constData()).bad())
            continue;
        DcmDataset* ds = file.getDataset();
        Image row(dcmInt(ds, DCM_InstanceNumber), dcmStringAll(ds, DCM_ImagePositionPatient),
                          dcmStringAll(ds, DCM_ImageOrientationPatient));
        row.spacing = dcmStringAll(ds, DCM_PixelSpacing);
        row.rows = dcmInt(ds, DCM_Rows);
        row.columns = dcmInt(ds, DCM_Columns);
        row.bitsAllocated = dcmInt(ds, DCM_BitsAllocated);
        row.samplesPerPixel = dcmInt(ds, DCM_SamplesPerPixel);
        row.photometric = dcmString(ds, DCM_PhotometricInterpretation);
        row.filePath = info.absoluteFilePath();
        rows << row;
    }
    std::stable_sort(rows.begin(), rows.end(), [](const Image& a, const Image& b) { return a.number < b.number; });
    return rows;
}

// Stores the search NAME: one andvancequiry row per entry of ROWS (table, column, operator,
// value, connector, match kind).
void storeSearch(const QString& name, const QList<QStringList>& rows)
{
    for (const QStringList& c : rows)
        insert("andvancequiry", {{"InquiryName", name}, {"TableName", c[0]}, {"ColumnName", c[1]}, {"Operator", c[2]},
                                 {"Value", c[3]}, {"Connector", c[4]}, {"MatchKind", c[5]}});
}

// The result view's column choices: patient key hidden, name and ID; study key and description;
// series key and number; image key and number.
bool showColumns()
{
    for (const auto& [table, shown] : {std::pair{"querypatientuser", QStringList{"PatientName", "PatientID"}},
                                       {"querygeneralstudyuser", {"pk", "StudyDescription"}},
                                       {"querygeneralseriesuser", {"pk", "SeriesNumber"}},
                                       {"queryimageformatuser", {"pk", "InstanceNumber"}}}) {
        const QSqlRecord record = QSqlDatabase::database().record(table);
        QStringList sets;
        for (int i = 0; i < record.count() - 1; ++i)
            sets << QString("`%1`=%2").arg(record.fieldName(i)).arg(shown.contains(record.fieldName(i)) ? 1 : 0);
        if (!QSqlQuery().exec(QString("UPDATE %1 SET %2").arg(table, sets.join(','))))
            return false;
    }
    return true;
}

// A result tree as "name{study:series,series;study:series} name{...}" (study descriptions,
// series numbers, "/n" images when the image level is in use). Flat lists that do not hold
// exactly the objects of the tree give "<flat lists differ>".
QString describe(const QPatients& result)
{
    QStringList patients;
    int studies = 0, series = 0, instances = 0;
    for (QPatient* patient : result.getAllPatient()) {
        QStringList studyTexts;
        for (QStudy* study : patient->getStudys()) {
            QStringList seriesTexts;
            for (QSeries* s : study->getSeries()) {
                seriesTexts << s->property("SeriesNumber").toString();
                if (!result.getImageTitleList().isEmpty())
                    seriesTexts.last() += "/" + QString::number(s->getInstances().size());
                instances += s->getInstances().size();
                series += !result.getAllSeries().contains(s) ? 1000 : 1;
            }
            studyTexts << study->property("StudyDescription").toString() + ":" + seriesTexts.join(',');
            studies += !result.getAllStudy().contains(study) ? 1000 : 1;
        }
        patients << patient->patientName() + "{" + studyTexts.join(';') + "}";
    }
    if (studies != result.getAllStudy().size() || series != result.getAllSeries().size() ||
        instances != result.getAllInstance().size())
        return "<flat lists differ>: " + patients.join(' ');
    return patients.join(' ');
}

} // namespace

class TestHierarchy : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase_data() { TestCatalog::addBackendRows(); }
    void instanceValues();
    void treeAndOwnership();
    void ordering();
    void timeSeries();
    void advancedQuery();
    void storedSearches();
    void queryCommand();
    void realSeries();
};

void TestHierarchy::instanceValues()
{
    QInstance instance;
    QCOMPARE(instance.getMainZ(), 2);
    // Texts applied one after the other: a lone spacing serves both axes, empty text changes
    // nothing, "\\" separates like "\"; surplus values are ignored and non-numbers read as 0.
    const struct {
        const char* text;
        double first, second;
    } spacings[] = {{"0.5\\0.7", 0.5, 0.7}, {"0.8", 0.8, 0.8}, {"0.5\\\\0.7", 0.5, 0.7}, {"", 0.5, 0.7}};
    for (const auto& s : spacings) {
        instance.setPixelSpacing(s.text);
        QCOMPARE(instance.getPixelSpacing()[0], s.first);
        QCOMPARE(instance.getPixelSpacing()[1], s.second);
    }
    instance.setPosition("1\\2\\3\\4\\5");
    instance.setPosition("x\\7");
    QCOMPARE(QVector<double>(instance.getPosition(), instance.getPosition() + 3), (QVector<double>{0, 7, 3}));
    instance.setOrientation("");
    QVERIFY(!instance.isGeometryValid());

    const struct {
        QString text;
        double n[3];
        int axis;
    } orientations[] = {
        // The normal and its axis follow the geometry rules (tst_geometry); here the texts reach them.
        {axial, {0, 0, 1}, 2},
        {sagittal, {-1, 0, 0}, 2},
        {"1\\0\\0\\0\\1\\0\\9\\9\\9", {0, 0, 1}, 2}, // surplus ignored
    };
    for (const auto& c : orientations) {
        QInstance item(qint64(5));
        QCOMPARE(item.getMainZ(), -1);
        item.setOrientation(c.text);
        QVERIFY2(item.isGeometryValid(), qPrintable(c.text));
        for (int i = 0; i < 3; ++i)
            QVERIFY2(std::fabs(item.getOrientation(2)[i] - c.n[i]) < 1e-9, qPrintable(c.text));
        QCOMPARE(item.getMainZ(), c.axis);
    }

    // Slots are reachable by name with their recorded parameter names.
    QVERIFY(QMetaObject::invokeMethod(&instance, "setImageSize", Q_ARG(int, 256), Q_ARG(int, 192)));
    QCOMPARE(instance.getImageSize()[1], 192);
    const QMetaObject* mo = &QSeries::staticMetaObject;
    QCOMPARE(mo->method(mo->indexOfSlot("setSeriesNumber(int)")).parameterNames().value(0), QByteArray("seriesNumbe"));

    for (const auto& [marker, id] : {std::pair{"RectMarker#x#1#MarkerID#7", "7"}, {"RectMarker#MarkerID", "notfound"},
                                     {"Arrow#a#b#12", "12"}, {"Arrow#a", "notfound"}, {"plain", "notfound"}})
        QCOMPARE(QInstance::getMarkerIdFromString(marker), QString(id));
    QVERIFY(instance.addMarker("7", "first"));
    QVERIFY(!instance.addMarker("7", "second"));
    QCOMPARE(instance.getAllMarkers().value("7"), QString("first"));
    QVERIFY(instance.addMarker("7", "third", true));
    instance.addMarkers("EllipseMarker#MarkerID#1##PolygonMarker#MarkerID#2##EllipseMarker#MarkerID#7", false);
    QCOMPARE(instance.getAllMarkers().size(), 3);
    QCOMPARE(instance.getAllMarkers().value("7"), QString("third"));

    // The image is made once per instance, also when reading failed (no retry).
    instance.setFilePath("/nonexistent.dcm");
    const std::shared_ptr<NDicomImage> first = instance.getDicomImage();
    QVERIFY(first);
    QCOMPARE(instance.getDicomImage().get(), first.get());
}

void TestHierarchy::treeAndOwnership()
{
    QFETCH_GLOBAL(QString, backend);
    KESTREL_OPEN_CATALOG(catalog, backend);
    const qint64 patientPk = addPatient("Doe^Jane", "AB12");
    const qint64 studyPk = addStudy(patientPk, "Head", "42");
    const qint64 seriesA = addSeries(studyPk, {Image(2, pos(0, 0, 5)), Image(1, pos(0, 0, 0)), Image(3, pos(0, 0, 10))}, 3);
    addSeries(studyPk, {Image(1, pos(0, 0, 0))}, 4);

    // Column lists pair with SELECT * column by column.
    for (const auto& [names, from] : {std::pair{QPatient::getColumnName(), QString("patient")},
                                      std::pair{QStudy::getColumnName(), QString("generalstudy")},
                                      std::pair{QSeries::getColumnName(), QString("generalseries")},
                                      std::pair{QInstance::getColumnName(), QString("imageformat,imagepixel,mrimageinfo")}}) {
        const QSqlRecord record = QSqlQuery(QString("SELECT * FROM %1").arg(from)).record();
        QStringList fields;
        for (int i = 0; i < record.count(); ++i)
            fields << record.fieldName(i);
        QCOMPARE(names, fields);
    }

    QPointer<QPatient> patient = new QPatient(patientPk);
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
    QCOMPARE(instanceNumbers(series), QString("1,2,3"));
    QVERIFY(!series->getInstances().first()->isGeometryValid());

    patient->searchAllInfo();
    QCOMPARE(patient->getValue("PatientID"), QString("AB12"));
    QCOMPARE(study->getValue("StudyDescription"), QString("Head"));
    QCOMPARE(series->getValue("SeriesNumber"), QString("3"));
    QCOMPARE(series->getInstances().first()->getValue("ImagePositionPatient"), QString()); // not filled by the chain
    series->searchAllInfo();
    QVERIFY(series->isInstanceInfoLoaded());
    QCOMPARE(series->getInstances().first()->getValue("ImagePositionPatient"), pos(0, 0, 0));
    QInstance single(series->getInstances().first()->getInstancePK());
    single.searchInstanceAllInfo();
    QCOMPARE(single.getValue("PixelSpacing"), QString("1\\1"));
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
    QFETCH_GLOBAL(QString, backend);
    KESTREL_OPEN_CATALOG(catalog, backend);
    const qint64 studyPk = addStudy(addPatient("Order^Test", "7"), "Order");
    // COUNT images numbered from FIRST, positions from (x, y, z) in steps of D.
    auto line = [](int first, int count, QVector<double> p, const QVector<double>& d, const QString& orientation = axial) {
        QList<Image> images;
        for (int i = 0; i < count; ++i, p = {p[0] + d[0], p[1] + d[1], p[2] + d[2]})
            images << Image(first + i, pos(p[0], p[1], p[2]), orientation);
        return images;
    };
    auto numbers = [](int first, int last) {
        QStringList list;
        for (int i = first; first <= last ? i <= last : i >= last; i += first <= last ? 1 : -1)
            list << QString::number(i);
        return list.join(',');
    };
    auto z = [](int number, double z, const QString& orientation = axial) { return Image(number, pos(0, 0, z), orientation); };

    struct Case {
        const char* name;
        QList<Image> images;
        QString volume; // expected instance numbers; empty = no volume series
        int isOrder;
        int subSeries;
    };
    QList<Case> cases;
    // The order along the normal is the geometry's (tst_geometry's stacks, all orientations):
    // here the catalogue rows reach it and its result comes back as the volume series.
    cases << Case{"axial, database order scrambled", {z(1, 10), z(2, 0), z(3, 5), z(4, 15)}, "2,3,1,4", -1, 1};
    cases << Case{"sagittal, numbered right to left", line(1, 35, {-81.6, -130, 130}, {4.8, 0, 0}, sagittal), numbers(35, 1),
                  -1, 1};
    cases << Case{"missing slice", line(1, 4, {0, 0, 0}, {0, 0, 5}) << z(5, 25), "1,2,3,4", 1, 1};
    // Two images per position: the volume takes the first at each.
    cases << Case{"duplicated positions", {z(1, 0), z(2, 0), z(3, 5), z(4, 5), z(5, 10), z(6, 10)}, "1,3,5", 1, 1};
    cases << Case{"one position only", {z(1, 0), z(2, 0)}, {}, -1, 1};
    cases << Case{"single image", {z(1, 0)}, {}, -1, 1};
    cases << Case{"mixed orientations", line(1, 10, {0, 0, 0}, {2, 0, 0}, sagittal) + line(11, 20, {0, 0, 0}, {0, 0, 3}),
                  numbers(11, 30), 1, 2};
    QList<Image> rgb = {z(1, 0), z(2, 1)}, bare = rgb;
    for (Image& image : rgb) {
        image.samplesPerPixel = 3;
        image.photometric = "RGB";
    }
    cases << Case{"RGB", rgb, {}, -1, 0};
    for (Image& image : bare)
        image.pixelRow = image.mrRow = false;
    cases << Case{"no imagepixel rows", bare, {}, -1, 1};
    // Too few values leave the rest 0, non-numbers read as 0, surplus values are ignored: the
    // all-zero orientations of 2 and 3 form the larger sub-series.
    cases << Case{"bad orientation texts", {z(1, 0, "1\\0"), z(2, 2, "a\\b\\c\\d\\e\\f\\g\\h"), z(3, 4, "")}, "2,3", 1, 2};

    for (const Case& c : cases) {
        QSeries series(addSeries(studyPk, c.images));
        series.searchInstance();
        QCOMPARE(series.getInstances().size(), c.images.size());
        QList<QSeries*> subs = series.subSeries();
        QVERIFY2(subs.size() == c.subSeries, c.name);
        qDeleteAll(subs);
        std::unique_ptr<QSeries> volume(series.getVolumeSE());
        QVERIFY2(bool(volume) == !c.volume.isEmpty(), c.name);
        if (!volume)
            continue;
        QVERIFY2(instanceNumbers(volume.get()) == c.volume, qPrintable(c.name + QString(": got ") + instanceNumbers(volume.get())));
        QVERIFY2(series.getIsOrder() == c.isOrder, c.name);
        QCOMPARE(volume->getSeriesPK(), series.getSeriesPK());
        QVERIFY(!volume->parent());
        for (QInstance* instance : volume->getInstances())
            QCOMPARE(instance->parent(), &series); // the split series keeps its images
    }
}

void TestHierarchy::timeSeries()
{
    QFETCH_GLOBAL(QString, backend);
    KESTREL_OPEN_CATALOG(catalog, backend);
    const qint64 studyPk = addStudy(addPatient("Time^Test", "8"), "Dynamic");
    auto phase = [&](const QString& time, const QString& spacing, int count, int number) {
        QList<Image> images;
        for (int i = 0; i < count; ++i) {
            images << Image(i + 1, pos(0, 0, i));
            images.last().spacing = spacing;
            images.last().acquisitionTime = time;
        }
        return addSeries(studyPk, images, number);
    };
    const qint64 reference = phase("100000.00", "0.5\\0.5", 3, 1);
    const qint64 earlierText = phase("93000.00", "0.5\\0.5", 3, 2);
    phase("090000.00", "0.5\\0.50000001", 3, 3); // not exactly the same spacing
    phase("080000.00", "0.5\\0.5", 4, 4);          // another image count

    QStudy study(studyPk);
    study.searchSeries();
    QCOMPARE(study.getSeries().size(), 4);
    QList<QSeries*> points = study.get4DSeries(study.getSeries().first());
    // Times compare as text: "100000.00" sorts before "93000.00".
    QCOMPARE(points.size(), 2);
    QCOMPARE(points[0]->getSeriesPK(), reference);
    QCOMPARE(points[1]->getSeriesPK(), earlierText);
}

void TestHierarchy::advancedQuery()
{
    QFETCH_GLOBAL(QString, backend);
    KESTREL_OPEN_CATALOG(catalog, backend);
    const qint64 p1 = addPatient("Smith^Anna", "1001");
    const qint64 s1 = addStudy(p1, "Brain");
    addSeries(s1, {Image(1, pos(0, 0, 0)), Image(2, pos(0, 0, 1))}, 1);
    addSeries(s1, {Image(1, pos(0, 0, 0))}, 2);
    addSeries(addStudy(addPatient("Jones^Bob", "1002"), "Knee"), {Image(1, pos(0, 0, 0))}, 1);
    QVERIFY(showColumns());
    storeSearch("smiths", {{"patient", "PatientName", "=", "Smith", "", "Fuzzy"}});
    storeSearch("images", {{"patient", "PatientID", "=", "1001", "or", "Precise"},
                           {"imageformat", "InstanceNumber", "=", "2", "", "Precise"}});

    QPatients smiths;
    smiths.advanceQueryByName("smiths");
    QCOMPARE(smiths.lastError(), QString());
    QCOMPARE(smiths.getQueryString(),
             QString("SELECT patient.pk,patient.PatientName,patient.PatientID,generalstudy.pk,generalstudy.StudyDescription,"
                     "generalseries.pk,generalseries.SeriesNumber FROM patient inner join generalstudy inner join generalseries "
                     "WHERE patient.pk=generalstudy.patient_fk and generalstudy.pk=generalseries.study_fk and "
                     "(patient.PatientName like '%Smith%') ORDER BY patient.pk,generalstudy.pk,generalseries.pk"));
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
    QVERIFY2(images.getQueryString().endsWith(" and generalseries.pk=imageformat.series_fk and "
                                              "(patient.PatientID = '1001' or imageformat.InstanceNumber = '2') "
                                              "ORDER BY patient.pk,generalstudy.pk,generalseries.pk,imageformat.pk"),
             qPrintable(images.getQueryString()));
    QCOMPARE(images.getImageTitleList(), (QStringList{"pk", "InstanceNumber"}));
    QCOMPARE(images.getAllPatient().size(), 1);
    QCOMPARE(images.getAllSeries().size(), 2);
    QCOMPARE(images.getAllInstance().size(), 3);
    QCOMPARE(images.getSeries(0)->getInstances().size(), 2);
    QCOMPARE(images.getSeries(0)->getInstances().at(1)->parent(), images.getSeries(0));

    // Nothing stored under the name: nothing runs, and the result says so.
    QPatients none;
    none.advanceQueryByName("no such query");
    QVERIFY2(none.lastError().contains("no such query"), qPrintable(none.lastError()));
    QVERIFY(none.getAllPatient().isEmpty());

    // A caller's own statement that fails is reported with the driver's text.
    QPatients own;
    own.advanceQuery("SELECT pk FROM nosuchtable");
    QVERIFY2(own.lastError().contains("nosuchtable"), qPrintable(own.lastError()));
    QVERIFY(own.getAllPatient().isEmpty());
}

void TestHierarchy::storedSearches()
{
    QFETCH_GLOBAL(QString, backend);
    KESTREL_OPEN_CATALOG(catalog, backend);
    // Series rows of different patients and studies interleave, so that a result read in key
    // order of any one table is not grouped by patient.
    const qint64 smith = addPatient("Smith^Anna", "1001"), obrien = addPatient("O'Brien^Liam", "2001");
    const qint64 jones = addPatient("Jones^Bob", "1002"), blank = addPatient("Blank^Id", "");
    const qint64 nullId = insert("patient", {{"PatientName", "Null^Id"}});
    const qint64 brain = addStudy(smith, "Brain"), head = addStudy(obrien, "Head"), knee = addStudy(smith, "Knee");
    const qint64 jonesKnee = addStudy(jones, "Knee");
    addSeries(brain, {Image(1, pos(0, 0, 0)), Image(2, pos(0, 0, 1))}, 1);
    addSeries(head, {Image(1, pos(0, 0, 0))}, 1);
    addSeries(knee, {Image(1, pos(0, 0, 0))}, 1);
    addSeries(brain, {Image(1, pos(0, 0, 0))}, 2);
    addSeries(jonesKnee, {Image(1, pos(0, 0, 0))}, 1);
    addSeries(knee, {Image(1, pos(0, 0, 0))}, 2);
    addSeries(head, {Image(1, pos(0, 0, 0))}, 2);
    addSeries(addStudy(blank, "Chest"), {Image(1, pos(0, 0, 0))}, 1);
    addSeries(addStudy(nullId, "Chest"), {Image(1, pos(0, 0, 0))}, 1);
    QVERIFY(showColumns());

    const QString everyone = "Smith^Anna{Brain:1,2;Knee:1,2} O'Brien^Liam{Head:1,2} Jones^Bob{Knee:1} Blank^Id{Chest:1} "
                             "Null^Id{Chest:1}";
    struct Case {
        const char* name;
        QList<QStringList> rows; // table, column, operator, value, connector, match kind
        QString tree;            // the expected result, or the text the failure must name
        QString text;            // a part of the readable statement
        bool fails = false;
    };
    const Case cases[] = {
        {"quote, precise", {{"patient", "PatientName", "=", "O'Brien^Liam", "", "Precise"}}, "O'Brien^Liam{Head:1,2}",
         "(patient.PatientName = 'O''Brien^Liam')"},
        {"quote, substring", {{"patient", "PatientName", "", "O'Brien", "", "Fuzzy"}}, "O'Brien^Liam{Head:1,2}",
         "(patient.PatientName like '%O''Brien%')"},
        {"operator in capitals", {{"patient", "PatientName", "LIKE", "%'Brien%", "", "Precise"}}, "O'Brien^Liam{Head:1,2}",
         "(patient.PatientName like '%''Brien%')"},
        {"value that closes the quote, precise", {{"patient", "PatientID", "=", "nobody' OR '1'='1", "", "Precise"}}, "",
         "(patient.PatientID = 'nobody'' OR ''1''=''1')"},
        {"value that closes the quote, substring", {{"patient", "PatientName", "", "nobody' OR '1'='1", "", "Fuzzy"}}, "",
         "like '%nobody'' OR ''1''=''1%'"},
        // An empty value asks for an empty (or absent) value and leaves the next value in place.
        {"empty value between two others",
         {{"patient", "PatientName", "=", "Smith^Anna", "or", "Precise"},
          {"patient", "PatientID", "=", "", "or", "Precise"},
          {"patient", "PatientID", "=", "1002", "", "Precise"}},
         "Smith^Anna{Brain:1,2;Knee:1,2} Jones^Bob{Knee:1} Blank^Id{Chest:1} Null^Id{Chest:1}",
         "(patient.PatientName = 'Smith^Anna' or (patient.PatientID = '' or patient.PatientID is null) or "
         "patient.PatientID = '1002')"},
        {"empty value, not equal",
         {{"patient", "PatientID", "<>", "", "and", "Precise"}, {"generalstudy", "StudyDescription", "=", "Knee", "", "Precise"}},
         "Smith^Anna{Knee:1,2} Jones^Bob{Knee:1}", "(patient.PatientID <> '' and generalstudy.StudyDescription = 'Knee')"},
        {"every series", {{"generalseries", "SeriesDescription", "", "case", "", "Fuzzy"}}, everyone, "like '%case%'"},
        {"image level",
         {{"imageformat", "InstanceNumber", "<=", "2", "and", "Precise"}, {"patient", "PatientID", "=", "1001", "", "Precise"}},
         "Smith^Anna{Brain:1/2,2/1;Knee:1/1,2/1}", "(imageformat.InstanceNumber <= '2' and patient.PatientID = '1001')"},
        {"unknown column", {{"patient", "PatientNmae", "=", "x", "", "Precise"}}, "PatientNmae", {}, true},
        {"unknown table", {{"patients", "PatientName", "=", "x", "", "Precise"}}, "patients", {}, true},
        {"unknown operator", {{"patient", "PatientID", "= '' or 1=1 --", "x", "", "Precise"}}, "= '' or 1=1 --", {}, true},
        {"unknown connector",
         {{"patient", "PatientID", "=", "1", "or 1=1 or", "Precise"}, {"patient", "PatientID", "=", "2", "", "Precise"}},
         "or 1=1 or", {}, true},
    };
    for (const Case& c : cases) {
        storeSearch(c.name, c.rows);
        QPatients result;
        result.advanceQueryByName(c.name);
        if (c.fails) {
            QVERIFY2(result.lastError().contains(c.tree), qPrintable(c.name + QString(": ") + result.lastError()));
            QVERIFY2(result.getAllPatient().isEmpty(), c.name);
            continue;
        }
        QVERIFY2(result.lastError().isEmpty(), qPrintable(c.name + QString(": ") + result.lastError()));
        QVERIFY2(result.getQueryString().contains(c.text), qPrintable(c.name + QString(": ") + result.getQueryString()));
        QVERIFY2(describe(result) == c.tree, qPrintable(c.name + QString(": got ") + describe(result)));
    }
}

void TestHierarchy::queryCommand()
{
    QFETCH_GLOBAL(QString, backend);
    KESTREL_OPEN_CATALOG(catalog, backend);
    KESTREL_REQUIRE_HOST();
    addSeries(addStudy(addPatient("O'Brien^Liam", "2001"), "Head"), {Image(1, pos(0, 0, 0))}, 1);
    storeSearch("obrien", {{"patient", "PatientName", "=", "O'Brien^Liam", "", "Precise"}});
    storeSearch("typo", {{"patient", "PatientNmae", "=", "x", "", "Precise"}});
    storeSearch("images", {{"imageformat", "InstanceNumber", "=", "1", "", "Precise"}});
    const HostRun found = runHost({"--config", catalog.configDir(), "query", "--sql", "obrien"});
    QCOMPARE(found.exitCode, 0);
    QVERIFY2(found.out.contains("patient.PatientName = 'O''Brien^Liam'") && found.out.contains("PatientName=O'Brien^Liam") &&
                     found.out.contains("1 patients, 1 studies, 1 series"),
             qPrintable(found.out));

    // A search that cannot be built and one whose statement fails: status 1, the cause in one line.
    QVERIFY(TestCatalog::values("DROP TABLE imageformat").isEmpty());
    for (const auto& [name, cause] : {std::pair{"typo", "PatientNmae"}, {"images", "imageformat"}}) {
        const HostRun run = runHost({"--config", catalog.configDir(), "query", name});
        const QString err = run.err.trimmed();
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(err.startsWith("kestrel query: ") && err.contains(cause) && !err.contains('\n'), qPrintable(err));
        QVERIFY2(!run.out.contains("no matches"), qPrintable(run.out));
    }
}

void TestHierarchy::realSeries()
{
    QFETCH_GLOBAL(QString, backend);
    const QString root = sharedDataPath();
    if (root.isEmpty())
        QSKIP("the shared real DICOM data is absent");
    KESTREL_OPEN_CATALOG(catalog, backend);
    const qint64 studyPk = addStudy(addPatient("Real^Data", "1"), "Real");

    // The volume is the first plane's positions, one image each (the first of the echoes, time
    // points or field map and magnitude taken there), a step apart that the files' own positions give.
    const struct {
        const char* name;
        int planes, perPosition, volume;
    } folders[] = {{"siemens_t1_sag", 1, 1, 35},    {"ct_ge_3slice", 1, 1, 3},         {"ge_localizer_3plane", 3, 1, 7},
                   {"siemens_gre_2echo", 1, 2, 36}, {"ge_b0map_signed", 1, 2, 16}, {"philips_fmri_oblique", 1, 3, 9}};
    for (const auto& folder : folders) {
        const QList<Image> rows = readFolder(root + "/" + folder.name);
        QVERIFY2(!rows.isEmpty(), folder.name);
        QSeries series(addSeries(studyPk, rows));
        series.searchInstance();
        QList<QSeries*> subs = series.subSeries();
        QCOMPARE(subs.size(), folder.planes);
        for (QSeries* sub : subs)
            QCOMPARE(sub->getInstances().size(), rows.size() / folder.planes);
        qDeleteAll(subs);
        std::unique_ptr<QSeries> volume(series.getVolumeSE());
        QVERIFY2(volume, folder.name);
        const QList<QInstance*>& slices = volume->getInstances();
        QCOMPARE(slices.size(), folder.volume);
        QCOMPARE(slices.size() * folder.perPosition * folder.planes, rows.size());
        // The expected step, from the files' own positions of the first plane's images (the
        // planes move along one coordinate).
        QList<QVector<double>> positions;
        for (int i = 0; i < folder.volume * folder.perPosition; ++i) {
            positions << QVector<double>();
            for (const QString& value : rows[i].position.split('\\'))
                positions.last() << value.toDouble();
        }
        std::sort(positions.begin(), positions.end());
        positions.erase(std::unique(positions.begin(), positions.end()), positions.end());
        QCOMPARE(positions.size(), folder.volume);
        const double step = distance(positions[1].constData(), positions[0].constData());
        QVERIFY2(step > 0.5, folder.name);
        for (int i = 1; i < slices.size(); ++i)
            QVERIFY2(std::fabs(distance(slices[i]->getPosition(), slices[i - 1]->getPosition()) - step) < 1e-3,
                     qPrintable(QString("%1 slice %2").arg(folder.name).arg(i)));
    }
}

QTEST_GUILESS_MAIN(TestHierarchy)
#include "tst_hierarchy.moc"
