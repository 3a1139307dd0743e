#include "qdcmanonymize.h"
#include "syntheticdicom.h"
#include "testcatalog.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcsequen.h>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QProcess>
#include <QSettings>
#include <QSignalSpy>
#include <QtTest>

namespace {

const QStringList kMappingTables{"anonymouspatient", "anonymousstudy", "anonymousseries", "anonymousimage"};

QVector<int> mappingRows()
{
    QVector<int> rows;
    for (const QString& table : kMappingTables)
        rows << TestCatalog::count(table);
    return rows;
}

QString value(const QString& path, const DcmTagKey& tag)
{
    DcmFileFormat file;
    OFString text;
    if (file.loadFile(QFile::encodeName(path).constData()).bad() || file.getDataset()->findAndGetOFStringArray(tag, text).bad())
        return QStringLiteral("<absent>");
    return QString::fromLatin1(text.c_str());
}

// dcmdump's full text of a file (long values included).
QString dump(const QString& path)
{
    QProcess process;
    process.start("dcmdump", {"+L", path});
    process.waitForFinished(30000);
    return QString::fromLatin1(process.readAllStandardOutput());
}

// The dump as far as anonymization and restoring keep it: without comments and group lengths
// (lengths differ between explicit- and undefined-length sequences, which are written), without
// the delimitation items that only undefined lengths have, and of the meta header (written anew)
// only the SOP instance UID and the transfer syntax.
QStringList comparableDump(const QString& path)
{
    static const QRegularExpression groupLength("^\\([0-9a-f]{4},0000\\)");
    static const QRegularExpression lengthKind("(explicit|undefined) length");
    const QString text = dump(path);
    if (!text.contains("(7fe0,0010)"))
        return {"<no usable dump of " + path + ">"};
    QStringList lines;
    for (QString line : text.split('\n')) {
        const int comment = line.lastIndexOf(" #");
        if (comment >= 0)
            line.truncate(comment);
        line = line.trimmed().replace(lengthKind, "length");
        if (line.isEmpty() || line.startsWith('#') || line.startsWith("(fffe,e00d)") || line.startsWith("(fffe,e0dd)") ||
            groupLength.match(line).hasMatch())
            continue;
        if (line.startsWith("(0002,") && !line.startsWith("(0002,0003)") && !line.startsWith("(0002,0010)"))
            continue;
        lines << line;
    }
    return lines;
}

// One image holding every attribute of the emptying table, sequences with items, Latin-1 text,
// an apostrophe in the name. Returns the identifying values written.
QStringList writeIdentifiedImage(const QString& path, SyntheticImage image = SyntheticImage())
{
    image.specificCharacterSet = "ISO_IR 100";
    image.patientNameBytes = "O'Br\xe9nn^Zo\xeb";
    image.patientId = "PID'X-90210";
    image.accessionNumber = "ACC-55501";
    image.studyId = "STID-4711";
    image.rows = image.columns = 64; // pixel data beyond the 2,048-byte read limit
    if (image.studyUid.isEmpty())
        image.studyUid = newTestUid();
    if (image.seriesUid.isEmpty())
        image.seriesUid = newTestUid();
    image.sopUid = newTestUid();
    const std::vector<std::pair<DcmTagKey, QString>> texts{
            {DCM_PatientBirthTime, "071530"},         {DCM_TypeOfPatientID, "TEXTTYPE77"},
            {DCM_PatientBirthDate, "19610203"},      {DCM_RETIRED_OtherPatientIDs, "OPID-1\\OPID-2"},
            {DCM_OtherPatientNames, "Alias^Ollie"},  {DCM_EthnicGroup, "ETHNIC-Q"},
            {DCM_BreedRegistrationNumber, "BRN-8"},  {DCM_ResponsiblePerson, "Resp^Rita"},
            {DCM_ResponsiblePersonRole, "UNCLE"},    {DCM_ResponsibleOrganization, "RespOrg Ltd"},
            {DCM_ReferringPhysicianName, "Ref^Rudi"}, {DCM_PhysiciansOfRecord, "Rec^Rolf"},
            {DCM_PerformingPhysicianName, "Perf^Paula"}, {DCM_NameOfPhysiciansReadingStudy, "Read^Rhea"},
            {DCM_OperatorsName, "Oper^Otto"},        {DCM_InstitutionName, "St. Identifiable Hospital"}};
    QStringList identifying{"PID'X-90210", "ACC-55501", "STID-4711", image.studyUid, image.seriesUid, image.sopUid,
                            "O'Br", "OPID-SEQ-33", "Code^Carl"};
    for (const auto& [tag, text] : texts) {
        image.extra.emplace_back(tag, text);
        identifying << text.split('\\');
    }
    if (!writeSyntheticImage(path, image))
        return {};
    // Sequences with items that identify.
    DcmFileFormat file;
    file.loadFile(QFile::encodeName(path).constData());
    DcmItem* item = nullptr;
    file.getDataset()->findOrCreateSequenceItem(DCM_OtherPatientIDsSequence, item, -2);
    item->putAndInsertString(DCM_PatientID, "OPID-SEQ-33");
    item->putAndInsertString(DCM_TypeOfPatientID, "TEXT");
    file.getDataset()->findOrCreateSequenceItem(DCM_ReferringPhysicianIdentificationSequence, item, -2);
    item->putAndInsertString(DCM_PersonAddress, "Code^Carl");
    file.getDataset()->insertEmptyElement(DCM_OperatorIdentificationSequence); // present, no items
    file.saveFile(QFile::encodeName(path).constData(), EXS_LittleEndianExplicit, EET_ExplicitLength);
    return identifying;
}

} // namespace

class TestAnonymize : public QObject
{
    Q_OBJECT

private slots:
    void pseudonymsPerPatientStudySeries_data() { TestCatalog::addBackendRows(); }
    void pseudonymsPerPatientStudySeries()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        SyntheticImage one;
        one.studyUid = newTestUid();
        one.seriesUid = newTestUid();
        const QString a = catalog.path("in/a.dcm"), b = catalog.path("in/sub/b.dcm"), c = catalog.path("in/c.dcm");
        QVERIFY(!writeIdentifiedImage(a, one).isEmpty());
        one.seriesUid = newTestUid();
        QVERIFY(!writeIdentifiedImage(b, one).isEmpty());
        // Same PatientID, name differing only in case: another patient, another pseudonym.
        SyntheticImage other;
        other.patientNameBytes = "O'BR\xc9NN^ZO\xcb";
        other.patientId = "PID'X-90210";
        QVERIFY(writeSyntheticImage(c, other));
        QFile(catalog.path("in/readme.txt")).open(QIODevice::WriteOnly);

        QDcmAnonymize anonymizer;
        QSettings all(catalog.path("all.ini"), QSettings::IniFormat);
        anonymizer.setAnonymizeSetting(&all);
        QSignalSpy progress(&anonymizer, qOverload<int, int>(&QDcmAnonymize::sendAnonymizeProgressInfo));
        // Relative paths, as the command line gets them.
        const QString cwd = QDir::currentPath();
        QDir::setCurrent(catalog.dir());
        const QDcmAnonymize::BatchCounts counts = anonymizer.processPath("in", "out", false);
        QDir::setCurrent(cwd);
        QCOMPARE(counts.files, 4);
        QCOMPARE(counts.written, 3);
        QCOMPARE(counts.unreadable, 1);
        QCOMPARE(progress.last().at(0).toInt(), 4);

        const QString oa = catalog.path("out/a.dcm"), ob = catalog.path("out/sub/b.dcm"), oc = catalog.path("out/c.dcm");
        const QString pid = value(oa, DCM_PatientID);
        QVERIFY2(QRegularExpression("^1\\d{5}$").match(pid).hasMatch() && pid.toInt() <= 199998, qPrintable(pid));
        QCOMPARE(value(ob, DCM_PatientID), pid);
        QCOMPARE(value(ob, DCM_StudyInstanceUID), value(oa, DCM_StudyInstanceUID));
        QVERIFY(value(oa, DCM_StudyInstanceUID).startsWith("1.2.276.0.7230010.3.1.2."));
        QVERIFY(value(oa, DCM_SeriesInstanceUID).startsWith("1.2.276.0.7230010.3.1.3."));
        QVERIFY(value(oa, DCM_SOPInstanceUID).startsWith("1.2.276.0.7230010.3.1.4."));
        QVERIFY(value(ob, DCM_SeriesInstanceUID) != value(oa, DCM_SeriesInstanceUID));
        QVERIFY(value(oc, DCM_PatientID) != pid);
        QCOMPARE(mappingRows(), (QVector<int>{2, 2, 3, 3}));

        // Again from the sources: the stored pseudonyms, no new row.
        QCOMPARE(anonymizer.anonymize(a, catalog.path("again.dcm")), 0);
        QVERIFY(anonymizer.lastFailure().isEmpty());
        QCOMPARE(value(catalog.path("again.dcm"), DCM_SOPInstanceUID), value(oa, DCM_SOPInstanceUID));
        QCOMPARE(value(catalog.path("again.dcm"), DCM_PatientID), pid);
        QCOMPARE(mappingRows(), (QVector<int>{2, 2, 3, 3}));

        // The folder restored as a mirrored tree.
        const QDcmAnonymize::BatchCounts back = anonymizer.processPath(catalog.path("out"), catalog.path("back"), true);
        QCOMPARE(back.written, 3);
        QCOMPARE(comparableDump(catalog.path("back/sub/b.dcm")), comparableDump(b));
        QCOMPARE(comparableDump(catalog.path("back/c.dcm")), comparableDump(c));
    }

    void roundTripAndNothingLeaks_data() { TestCatalog::addBackendRows(); }
    void roundTripAndNothingLeaks()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        const QString source = catalog.path("source.dcm");
        const QStringList identifying = writeIdentifiedImage(source);
        QVERIFY(!identifying.isEmpty());
        QDcmAnonymize anonymizer;
        QSettings all(catalog.path("all.ini"), QSettings::IniFormat);
        anonymizer.setAnonymizeSetting(&all);

        QCOMPARE(anonymizer.anonymize(source, catalog.path("anon.dcm")), 0);
        QVERIFY2(anonymizer.lastFailure().isEmpty(), qPrintable(anonymizer.lastFailure()));
        const QString anonymized = dump(catalog.path("anon.dcm"));
        QVERIFY(anonymized.contains("PixelData"));
        for (const QString& original : identifying)
            QVERIFY2(!anonymized.contains(original), qPrintable(original + " left in the anonymized file"));
        QCOMPARE(value(catalog.path("anon.dcm"), DCM_PatientName), QString("Anonymized"));
        QCOMPARE(value(catalog.path("anon.dcm"), DCM_StudyID), QString("1"));
        // Emptied sequences are sequences without items, not removed.
        DcmFileFormat file;
        file.loadFile(QFile::encodeName(catalog.path("anon.dcm")).constData());
        DcmSequenceOfItems* sequence = nullptr;
        QVERIFY(file.getDataset()->findAndGetSequence(DCM_OtherPatientIDsSequence, sequence).good());
        QCOMPARE(sequence->card(), 0UL);
        QVERIFY(file.getDataset()->tagExists(DCM_EthnicGroup));

        // Restored in place: every attribute, the pixels and the meta header as they were; the
        // attributes the source lacked are gone again.
        QCOMPARE(anonymizer.de_anonymize(catalog.path("anon.dcm"), catalog.path("anon.dcm")), 0);
        QCOMPARE(comparableDump(catalog.path("anon.dcm")), comparableDump(source));
    }

    void settingsSwitchSingleAttributes_data() { TestCatalog::addBackendRows(); }
    void settingsSwitchSingleAttributes()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        const QString source = catalog.path("source.dcm");
        QVERIFY(!writeIdentifiedImage(source).isEmpty());
        QSettings some(catalog.path("some.ini"), QSettings::IniFormat);
        some.setValue("PatientName", false);
        some.setValue("InstitutionName", false);
        some.setValue("OtherPatientIDsSequence", false);
        some.sync();

        QDcmAnonymize anonymizer;
        anonymizer.setAnonymizeSetting(&some);
        anonymizer.anonymize(source, catalog.path("some.dcm"));
        QCOMPARE(value(catalog.path("some.dcm"), DCM_PatientName), value(source, DCM_PatientName));
        QCOMPARE(value(catalog.path("some.dcm"), DCM_InstitutionName), QString("St. Identifiable Hospital"));
        QCOMPARE(value(catalog.path("some.dcm"), DCM_OperatorsName), QString());
        QVERIFY(dump(catalog.path("some.dcm")).contains("OPID-SEQ-33"));
        QVERIFY(value(catalog.path("some.dcm"), DCM_PatientID) != value(source, DCM_PatientID));

        // No settings object: the table untouched, the identifiers still replaced.
        anonymizer.setAnonymizeSetting(nullptr);
        anonymizer.anonymize(source, catalog.path("none.dcm"));
        QCOMPARE(value(catalog.path("none.dcm"), DCM_OperatorsName), QString("Oper^Otto"));
        QCOMPARE(value(catalog.path("none.dcm"), DCM_StudyID), QString("STID-4711"));
        QCOMPARE(value(catalog.path("none.dcm"), DCM_PatientID), value(catalog.path("some.dcm"), DCM_PatientID));
        QVERIFY(value(catalog.path("none.dcm"), DCM_SOPInstanceUID) != value(source, DCM_SOPInstanceUID));
    }

    void badInputWritesNothing_data() { TestCatalog::addBackendRows(); }
    void badInputWritesNothing()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        QDcmAnonymize anonymizer;
        QSignalSpy info(&anonymizer, qOverload<const QString&>(&QDcmAnonymize::readInfo));
        QFile text(catalog.path("text.dcm"));
        text.open(QIODevice::WriteOnly);
        text.write("not DICOM at all");
        text.close();
        SyntheticImage noId;
        noId.patientId.clear();
        QVERIFY(writeSyntheticImage(catalog.path("noid.dcm"), noId));
        QVERIFY(writeSyntheticImage(catalog.path("plain.dcm"), SyntheticImage()));
        QFile whole(catalog.path("plain.dcm"));
        whole.open(QIODevice::ReadOnly);
        QFile cut(catalog.path("cut.dcm"));
        cut.open(QIODevice::WriteOnly);
        cut.write(whole.read(300));
        cut.close();

        for (const char* name : {"text.dcm", "cut.dcm", "noid.dcm", "missing.dcm"}) {
            QCOMPARE(anonymizer.anonymize(catalog.path(name), catalog.path("out.dcm")), 0);
            QVERIFY2(!anonymizer.lastFailure().isEmpty(), name);
            QVERIFY2(!QFile::exists(catalog.path("out.dcm")), name);
        }
        QVERIFY(anonymizer.lastFailure().contains("missing.dcm"));
        QCOMPARE(mappingRows(), (QVector<int>{0, 0, 0, 0}));

        // A destination that cannot be written: the mapping is kept, no file, no leftover.
        anonymizer.anonymize(catalog.path("plain.dcm"), catalog.path("text.dcm/inside.dcm"));
        QVERIFY(anonymizer.lastFailure().startsWith("cannot write"));
        QCOMPARE(QDir(catalog.dir()).entryList({"*.part-*"}).size(), 0);

        // Not a pseudonym of this catalogue.
        QCOMPARE(anonymizer.de_anonymize(catalog.path("plain.dcm"), catalog.path("out.dcm")), -1);
        QCOMPARE(info.last().at(0).toString(), "Orvena database does not include : " + catalog.path("plain.dcm") + "!");
        QCOMPARE(anonymizer.de_anonymize(catalog.path("text.dcm"), catalog.path("out.dcm")), -1);
        QVERIFY(!QFile::exists(catalog.path("out.dcm")));
    }

    void logicalPath_data() { TestCatalog::addBackendRows(); }
    void logicalPath()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        SyntheticImage image;
        image.patientId = "P7";
        image.studyId = "12";
        image.seriesNumber = 3;
        image.instanceNumber = 14;
        QVERIFY(writeSyntheticImage(catalog.path("x.ima"), image));
        QDcmAnonymize anonymizer;
        QCOMPARE(anonymizer.getAnonymousLogicalPath(catalog.path("x.ima")), QString("PAP7/ST012/SE03/14.ima"));
        QCOMPARE(anonymizer.getAnonymousLogicalPath(catalog.path("none")), QString());
    }

    void realFileRoundTrip_data() { TestCatalog::addBackendRows(); }
    void realFileRoundTrip()
    {
        QFETCH(QString, backend);
        const QString folder = sharedDataPath("siemens_t1_sag");
        if (folder.isEmpty())
            QSKIP("the shared data folder siemens_t1_sag is absent");
        KESTREL_OPEN_CATALOG(catalog, backend);
        const QStringList files = QDir(folder).entryList({"*.dcm"}, QDir::Files, QDir::Name);
        QVERIFY(!files.isEmpty());
        const QString source = catalog.path("real.dcm");
        QVERIFY(QFile::copy(folder + "/" + files.first(), source));

        QDcmAnonymize anonymizer;
        QSettings all(catalog.path("all.ini"), QSettings::IniFormat);
        anonymizer.setAnonymizeSetting(&all);
        anonymizer.anonymize(source, source); // in place
        QVERIFY2(anonymizer.lastFailure().isEmpty(), qPrintable(anonymizer.lastFailure()));
        QVERIFY(value(source, DCM_PatientID) != "crlab");
        QCOMPARE(value(source, DCM_PatientName), QString("Anonymized"));
        QCOMPARE(anonymizer.de_anonymize(source, catalog.path("restored.dcm")), 0);
        QCOMPARE(comparableDump(catalog.path("restored.dcm")), comparableDump(folder + "/" + files.first()));
    }
};

QTEST_GUILESS_MAIN(TestAnonymize)
#include "tst_anonymize.moc"
