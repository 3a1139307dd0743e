#include "anonymize/deidentprofile_p.h"
#include "catalog/catalogupgrade_p.h"
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
#include <QSqlError>
#include <QSqlQuery>
#include <QtTest>

using namespace kestrel::internal;

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

// The element at PATH ("tag/index/tag/..." as DcmTagKeys and item numbers) of FILE as text,
// "<absent>" when there is none.
QString nested(const QString& path, const DcmTagKey& sequence, const DcmTagKey& tag, int item = 0)
{
    DcmFileFormat file;
    DcmItem* found = nullptr;
    OFString text;
    if (file.loadFile(QFile::encodeName(path).constData()).bad() ||
        file.getDataset()->findAndGetSequenceItem(sequence, found, item).bad() || found->findAndGetOFStringArray(tag, text).bad())
        return QStringLiteral("<absent>");
    return QString::fromLatin1(text.c_str());
}

// The de-identification codes the file names, in order.
QStringList methodCodes(const QString& path)
{
    QStringList codes;
    for (int i = 0; i < 8; ++i) {
        const QString code = nested(path, DCM_DeidentificationMethodCodeSequence, DCM_CodeValue, i);
        if (code == "<absent>")
            break;
        codes << code;
    }
    return codes;
}

void setValue(const QString& path, const DcmTagKey& tag, const char* value)
{
    DcmFileFormat file;
    file.loadFile(QFile::encodeName(path).constData());
    file.getDataset()->putAndInsertString(tag, value);
    file.saveFile(QFile::encodeName(path).constData(), EXS_LittleEndianExplicit, EET_ExplicitLength);
}

// One image with identifying values at the top and nested in sequences, Latin-1 text and an
// apostrophe in the name, a private block, a reference to OTHERSOP and device, institution and
// patient attributes for the options. Returns the values the basic profile must take out.
QStringList writeIdentifiedImage(const QString& path, SyntheticImage image = SyntheticImage(), const QString& otherSop = QString())
{
    image.specificCharacterSet = "ISO_IR 100";
    image.patientNameBytes = "O'Br\xe9nn^Zo\xeb";
    image.patientId = "PID'X-90210";
    image.accessionNumber = "ACC-55501";
    image.studyId = "STID-4711";
    image.studyDate = "20210315";
    image.rows = image.columns = 64; // pixel data beyond the 2,048-byte read limit
    if (image.studyUid.isEmpty())
        image.studyUid = newTestUid();
    if (image.seriesUid.isEmpty())
        image.seriesUid = newTestUid();
    image.sopUid = newTestUid();
    const QString frame = newTestUid();
    const std::vector<std::pair<DcmTagKey, QString>> texts{
            {DCM_PatientBirthDate, "19610203"},      {DCM_RETIRED_OtherPatientIDs, "OPID-1\\OPID-2"},
            {DCM_OtherPatientNames, "Alias^Ollie"},  {DCM_PatientAddress, "12 Elm Street"},
            {DCM_PatientComments, "Grumpy-Comment"}, {DCM_ReferringPhysicianName, "Ref^Rudi"},
            {DCM_PerformingPhysicianName, "Perf^Paula"}, {DCM_OperatorsName, "Oper^Otto"},
            {DCM_InstitutionName, "St. Identifiable Hospital"}, {DCM_InstitutionAddress, "1 Hospital Road"},
            {DCM_StationName, "SCANNER-7"},          {DCM_DeviceSerialNumber, "SN-99812"},
            {DCM_PatientSex, "F"},                   {DCM_PatientAge, "042Y"},
            {DCM_PatientWeight, "71.5"},             {DCM_FrameOfReferenceUID, frame},
            {DCM_TypeOfPatientID, "TEXTTYPE77"},     {DCM_ContentDate, "20210316"}};
    QStringList identifying{"PID'X-90210", "ACC-55501", "STID-4711", image.studyUid, image.seriesUid, image.sopUid,
                            "O'Br", "OPID-SEQ-33", "Nested^Ned", "REQ-ACC-1", "Nested Clinic", "Priv-Secret", "20210315"};
    for (const auto& [tag, text] : texts) {
        image.extra.emplace_back(tag, text);
        if (tag != DCM_PatientSex && tag != DCM_TypeOfPatientID) // "F"; a kind of ID, not listed
            identifying << text.split('\\');
    }
    if (!writeSyntheticImage(path, image))
        return {};
    DcmFileFormat file;
    file.loadFile(QFile::encodeName(path).constData());
    DcmDataset* ds = file.getDataset();
    DcmItem* item = nullptr;
    ds->findOrCreateSequenceItem(DCM_OtherPatientIDsSequence, item, -2);
    item->putAndInsertString(DCM_PatientID, "OPID-SEQ-33");
    ds->findOrCreateSequenceItem(DCM_RequestAttributesSequence, item, -2);
    item->putAndInsertString(DCM_AccessionNumber, "REQ-ACC-1");
    ds->findOrCreateSequenceItem(DCM_ReferencedStudySequence, item, -2);
    item->putAndInsertString(DCM_ReferencedSOPInstanceUID, image.studyUid.toLatin1().constData());
    if (!otherSop.isEmpty()) {
        ds->findOrCreateSequenceItem(DCM_ReferencedImageSequence, item, -2);
        item->putAndInsertString(DCM_ReferencedSOPClassUID, "1.2.840.10008.5.1.4.1.1.4");
        item->putAndInsertString(DCM_ReferencedSOPInstanceUID, otherSop.toLatin1().constData());
        item->putAndInsertString(DCM_ReferencedFrameNumber, "1");
        // Identifiers nested in a sequence the profile keeps.
        item->putAndInsertString(DCM_InstitutionName, "Nested Clinic");
        item->putAndInsertString(DCM_ReferringPhysicianName, "Nested^Ned");
        item->putAndInsertString(DcmTagKey(0x0029, 0x0010), "ACME PRIVATE");
        item->putAndInsertString(DcmTagKey(0x0029, 0x1001), "Priv-Secret");
    }
    // A private block, one of whose attributes the safe list names.
    ds->putAndInsertString(DcmTagKey(0x0019, 0x0010), "SIEMENS MR HEADER");
    ds->putAndInsertString(DcmTag(0x0019, 0x100c, EVR_IS), "1000");
    ds->putAndInsertString(DcmTag(0x0019, 0x1008, EVR_CS), "Priv-Secret");
    file.saveFile(QFile::encodeName(path).constData(), EXS_LittleEndianExplicit, EET_ExplicitLength);
    return identifying;
}

QString writeOptions(const QString& path, const QString& option)
{
    QSettings settings(path, QSettings::IniFormat);
    for (const QString& key : DeidentOptions::settingsKeys())
        settings.setValue(key, key == "options/" + option);
    settings.sync();
    return path;
}

} // namespace

class TestAnonymize : public QObject
{
    Q_OBJECT

private slots:
    // The shipped table: each kind of action, and options that change an action (what each option
    // keeps in a written file: options()).
    void profileActions_data()
    {
        QTest::addColumn<int>("group");
        QTest::addColumn<int>("element");
        QTest::addColumn<int>("vr");
        QTest::addColumn<QString>("option");
        QTest::addColumn<int>("action");
        const auto row = [](const char* name, int g, int e, DcmEVR vr, const char* option, DeidentAction action) {
            QTest::newRow(name) << g << e << int(vr) << QString(option) << int(action);
        };
        row("Z name", 0x0010, 0x0010, EVR_PN, "", DeidentAction::Empty);
        row("X/Z/D institution", 0x0008, 0x0080, EVR_LO, "", DeidentAction::Empty);
        row("X/D series date", 0x0008, 0x0021, EVR_DA, "", DeidentAction::Remove);
        row("series date shifted", 0x0008, 0x0021, EVR_DA, "RetainLongitudinalModifiedDates", DeidentAction::ShiftDate);
        row("DT shifted", 0x0008, 0x002a, EVR_DT, "RetainLongitudinalModifiedDates", DeidentAction::ShiftDate);
        row("X/Z/U* references walked", 0x0008, 0x1140, EVR_SQ, "", DeidentAction::Keep);
        row("U reference", 0x0008, 0x1155, EVR_UI, "", DeidentAction::Uid);
        row("D on a UID", 0x006a, 0x0003, EVR_UI, "", DeidentAction::Uid);
        row("D on a sequence", 0x0040, 0xa730, EVR_SQ, "", DeidentAction::Empty);
        row("D on text", 0x0040, 0xa075, EVR_PN, "", DeidentAction::Dummy);
        row("sex", 0x0010, 0x0040, EVR_CS, "", DeidentAction::Empty);
        row("serial number", 0x0018, 0x1000, EVR_LO, "", DeidentAction::Empty);
        row("not listed", 0x0008, 0x0060, EVR_CS, "", DeidentAction::Keep);
        row("other option", 0x0010, 0x1010, EVR_AS, "RetainDeviceIdentity", DeidentAction::Remove);
    }
    void profileActions()
    {
        QFETCH(int, group);
        QFETCH(int, element);
        QFETCH(int, vr);
        QFETCH(QString, option);
        QFETCH(int, action);
        Status status;
        const DeidentProfile* profile = DeidentProfile::shared(DeidentProfile::defaultPath(), &status);
        QVERIFY2(profile, qPrintable(status.text()));
        QTemporaryDir dir;
        QSettings settings(writeOptions(dir.filePath("o.ini"), option), QSettings::IniFormat);
        QCOMPARE(int(profile->action(DcmTagKey(quint16(group), quint16(element)), DcmEVR(vr), DeidentOptions::fromSettings(&settings))),
                 action);
    }

    void brokenTable()
    {
        QTemporaryDir dir;
        DeidentProfile profile;
        QVERIFY(profile.load(dir.filePath("none.tsv")).text().contains("cannot read the de-identification table"));
        QFile bad(dir.filePath("bad.tsv"));
        QVERIFY(bad.open(QIODevice::WriteOnly));
        bad.write("# comment\n(0010,0010)\tPatient's Name\tZ\n(0010,0020)\tPatient ID\tZ\tfriends\n");
        bad.close();
        QCOMPARE(profile.load(bad.fileName()).text(), bad.fileName() + ":3: not a row of the table");
    }

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
        QCOMPARE(value(oa, DCM_PatientName), "Anonymous^" + pid);
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
        QCOMPARE(comparableDump(catalog.path("back/a.dcm")), comparableDump(a));
        QCOMPARE(comparableDump(catalog.path("back/sub/b.dcm")), comparableDump(b));
        QCOMPARE(comparableDump(catalog.path("back/c.dcm")), comparableDump(c));
    }

    // Identifiers at the top and nested, references between two files of a study, private
    // attributes: nothing identifying is left, references stay consistent, restoring is exact.
    void nestedIdentifiersAndReferences_data() { TestCatalog::addBackendRows(); }
    void nestedIdentifiersAndReferences()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        SyntheticImage study;
        study.studyUid = newTestUid();
        const QString first = catalog.path("first.dcm"), second = catalog.path("second.dcm");
        QVERIFY(!writeIdentifiedImage(second, study).isEmpty());
        // The first file refers to the second, and is anonymized before it.
        QStringList identifying = writeIdentifiedImage(first, study, value(second, DCM_SOPInstanceUID));
        QVERIFY(!identifying.isEmpty());
        setValue(second, DCM_FrameOfReferenceUID, value(first, DCM_FrameOfReferenceUID).toLatin1().constData());
        QDcmAnonymize anonymizer;
        for (const char* name : {"first.dcm", "second.dcm"}) {
            QCOMPARE(anonymizer.anonymize(catalog.path(name), catalog.path(QString("anon-") + name)), 0);
            QVERIFY2(anonymizer.lastFailure().isEmpty(), qPrintable(anonymizer.lastFailure()));
        }
        const QString a = catalog.path("anon-first.dcm"), b = catalog.path("anon-second.dcm");
        QFile bytes(a);
        QVERIFY(bytes.open(QIODevice::ReadOnly));
        const QByteArray written = bytes.readAll();
        QVERIFY(written.contains("PixelData") || value(a, DCM_Rows) == "64");
        for (const QString& original : identifying)
            QVERIFY2(!written.contains(original.toLatin1()), qPrintable(original + " left in the anonymized file"));

        QCOMPARE(nested(a, DCM_ReferencedImageSequence, DCM_ReferencedSOPInstanceUID), value(b, DCM_SOPInstanceUID));
        QCOMPARE(nested(a, DCM_ReferencedImageSequence, DCM_ReferencedSOPClassUID), QString("1.2.840.10008.5.1.4.1.1.4"));
        QCOMPARE(nested(a, DCM_ReferencedImageSequence, DcmTagKey(0x0029, 0x1001)), QString("<absent>"));
        QCOMPARE(value(a, DCM_FrameOfReferenceUID), value(b, DCM_FrameOfReferenceUID));
        QCOMPARE(nested(a, DCM_ReferencedImageSequence, DCM_ReferencedFrameNumber), QString("1"));
        QCOMPARE(nested(a, DCM_ReferencedImageSequence, DCM_InstitutionName), QString());
        QCOMPARE(nested(a, DCM_ReferencedImageSequence, DCM_ReferringPhysicianName), QString());
        QCOMPARE(value(a, DCM_RequestAttributesSequence), QString("<absent>"));
        QCOMPARE(nested(a, DCM_ReferencedStudySequence, DCM_ReferencedSOPInstanceUID), QString("<absent>")); // emptied
        // Only present attributes are touched: the kind of ID stays, nothing absent is added.
        QCOMPARE(value(a, DCM_TypeOfPatientID), QString("TEXTTYPE77"));
        QCOMPARE(value(a, DCM_EthnicGroup), QString("<absent>"));
        QCOMPARE(value(a, DCM_PatientBirthDate), QString());
        QCOMPARE(value(a, DCM_PatientAddress), QString("<absent>"));
        QCOMPARE(value(a, DCM_PatientIdentityRemoved), QString("YES"));
        QCOMPARE(value(a, DCM_DeidentificationMethod), QString("Basic Application Confidentiality Profile"));
        QCOMPARE(methodCodes(a), QStringList{"113100"});
        QCOMPARE(value(a, DCM_LongitudinalTemporalInformationModified), QString("<absent>"));
        // The study, the two series, the two instances and the shared frame of reference.
        QCOMPARE(TestCatalog::count("anonymousuid"), 6);

        // Restored in place and beside: every attribute, the pixels and the meta header as they were.
        QCOMPARE(anonymizer.de_anonymize(a, a), 0);
        QCOMPARE(comparableDump(a), comparableDump(first));
        QCOMPARE(anonymizer.de_anonymize(b, catalog.path("back.dcm")), 0);
        QCOMPARE(comparableDump(catalog.path("back.dcm")), comparableDump(second));
    }

    // Each option keeps its attributes, names its code, and still restores exactly.
    void options_data()
    {
        QTest::addColumn<QString>("backend");
        QTest::addColumn<QString>("option");
        QTest::addColumn<QString>("code");
        QTest::addColumn<QStringList>("kept"); // keywords whose values stay
        const QList<QStringList> rows{
                {"basic profile", "", "", ""},
                {"patient", "RetainPatientCharacteristics", "113108", "PatientSex PatientAge PatientWeight"},
                {"device", "RetainDeviceIdentity", "113109", "StationName DeviceSerialNumber"},
                {"institution", "RetainInstitutionIdentity", "113112", "InstitutionName InstitutionAddress"},
                {"uids", "RetainUIDs", "113110", "StudyInstanceUID SeriesInstanceUID SOPInstanceUID FrameOfReferenceUID"},
                {"safe private", "RetainSafePrivate", "113111", ""},
                {"dates", "RetainLongitudinalModifiedDates", "113107", "StudyTime"},
        };
        for (const char* backend : {"sqlite", "mariadb"})
            for (const QStringList& row : rows)
                QTest::newRow(qPrintable(QString(backend) + ": " + row.at(0)))
                        << QString(backend) << row.at(1) << row.at(2) << row.at(3).split(' ', Qt::SkipEmptyParts);
    }
    void options()
    {
        QFETCH(QString, backend);
        QFETCH(QString, option);
        QFETCH(QString, code);
        QFETCH(QStringList, kept);
        KESTREL_OPEN_CATALOG(catalog, backend);
        const QString source = catalog.path("source.dcm"), out = catalog.path("out.dcm");
        QVERIFY(!writeIdentifiedImage(source).isEmpty());
        QSettings settings(writeOptions(catalog.path("options.ini"), option), QSettings::IniFormat);
        QDcmAnonymize anonymizer;
        anonymizer.setAnonymizeSetting(&settings);
        anonymizer.anonymize(source, out);
        QVERIFY2(anonymizer.lastFailure().isEmpty(), qPrintable(anonymizer.lastFailure()));

        QStringList codes{"113100"};
        if (!code.isEmpty())
            codes << code;
        QCOMPARE(methodCodes(out), codes);
        for (const char* keyword : {"PatientSex", "PatientAge", "PatientWeight", "StationName", "DeviceSerialNumber",
                                    "InstitutionName", "InstitutionAddress", "StudyInstanceUID", "SeriesInstanceUID",
                                    "SOPInstanceUID", "FrameOfReferenceUID", "StudyTime"}) {
            DcmTag tag;
            QVERIFY(DcmTag::findTagFromName(keyword, tag).good());
            QVERIFY2(kept.contains(keyword) == (value(out, tag) == value(source, tag)), keyword);
        }
        const bool safe = option == "RetainSafePrivate";
        QCOMPARE(value(out, DcmTagKey(0x0019, 0x100c)), safe ? QString("1000") : QString("<absent>"));
        QCOMPARE(value(out, DcmTagKey(0x0019, 0x0010)), safe ? QString("SIEMENS MR HEADER") : QString("<absent>"));
        QCOMPARE(value(out, DcmTagKey(0x0019, 0x1008)), QString("<absent>"));

        const bool dates = option == "RetainLongitudinalModifiedDates";
        QCOMPARE(value(out, DCM_LongitudinalTemporalInformationModified), dates ? QString("MODIFIED") : QString("<absent>"));
        if (dates) {
            // One offset for every date of the patient, in this file and the next.
            const int shift = QDate::fromString("20210315", "yyyyMMdd").daysTo(QDate::fromString(value(out, DCM_StudyDate), "yyyyMMdd"));
            QVERIFY2(shift < 0 && shift > -3653, qPrintable(value(out, DCM_StudyDate)));
            QCOMPARE(value(out, DCM_ContentDate), QDate(2021, 3, 16).addDays(shift).toString("yyyyMMdd"));
            SyntheticImage later;
            later.studyDate = "20230101";
            writeIdentifiedImage(catalog.path("later.dcm"), later);
            setValue(catalog.path("later.dcm"), DCM_StudyDate, "20230101");
            anonymizer.anonymize(catalog.path("later.dcm"), catalog.path("later-out.dcm"));
            QCOMPARE(value(catalog.path("later-out.dcm"), DCM_StudyDate), QDate(2023, 1, 1).addDays(shift).toString("yyyyMMdd"));
            QCOMPARE(value(out, DCM_PatientBirthDate), QString());
        } else {
            QCOMPARE(value(out, DCM_StudyDate), QString());
        }
        QCOMPARE(anonymizer.de_anonymize(out, catalog.path("back.dcm")), 0);
        QCOMPARE(comparableDump(catalog.path("back.dcm")), comparableDump(source));

        // The same source again with the basic profile: one record restores both copies. A file
        // whose UIDs were kept cannot be given pseudonyms afterwards (its rows hold the UIDs).
        anonymizer.setAnonymizeSetting(nullptr);
        anonymizer.anonymize(source, catalog.path("basic.dcm"));
        if (option == "RetainUIDs") {
            QVERIFY2(anonymizer.lastFailure().contains("has another pseudonym"), qPrintable(anonymizer.lastFailure()));
            return;
        }
        QVERIFY2(anonymizer.lastFailure().isEmpty(), qPrintable(anonymizer.lastFailure()));
        QCOMPARE(anonymizer.de_anonymize(catalog.path("basic.dcm"), catalog.path("back2.dcm")), 0);
        QCOMPARE(comparableDump(catalog.path("back2.dcm")), comparableDump(source));
        QCOMPARE(anonymizer.de_anonymize(out, catalog.path("back3.dcm")), 0);
        QCOMPARE(comparableDump(catalog.path("back3.dcm")), comparableDump(source));
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
        QVERIFY(writeSyntheticImage(catalog.path("nouid.dcm"), SyntheticImage()));
        {
            DcmFileFormat file;
            file.loadFile(QFile::encodeName(catalog.path("nouid.dcm")).constData());
            delete file.getDataset()->remove(DCM_SeriesInstanceUID);
            file.saveFile(QFile::encodeName(catalog.path("nouid.dcm")).constData(), EXS_LittleEndianExplicit);
        }
        QVERIFY(writeSyntheticImage(catalog.path("plain.dcm"), SyntheticImage()));
        QFile whole(catalog.path("plain.dcm"));
        whole.open(QIODevice::ReadOnly);
        QFile cut(catalog.path("cut.dcm"));
        cut.open(QIODevice::WriteOnly);
        cut.write(whole.read(300));
        cut.close();

        for (const char* name : {"text.dcm", "cut.dcm", "nouid.dcm", "missing.dcm"}) {
            QCOMPARE(anonymizer.anonymize(catalog.path(name), catalog.path("out.dcm")), 0);
            QVERIFY2(!anonymizer.lastFailure().isEmpty(), name);
            QVERIFY2(!QFile::exists(catalog.path("out.dcm")), name);
        }
        QVERIFY(anonymizer.lastFailure().contains("missing.dcm"));
        QCOMPARE(mappingRows(), (QVector<int>{0, 0, 0, 0}));

        // Another file with the SOP instance of one anonymized before: refused, as one record
        // could not restore both.
        QVERIFY(writeSyntheticImage(catalog.path("twin.dcm"), SyntheticImage()));
        setValue(catalog.path("twin.dcm"), DCM_SOPInstanceUID, value(catalog.path("plain.dcm"), DCM_SOPInstanceUID).toLatin1().constData());
        setValue(catalog.path("twin.dcm"), DCM_PatientComments, "another content");
        anonymizer.anonymize(catalog.path("plain.dcm"), catalog.path("plain-out.dcm"));
        QVERIFY(anonymizer.lastFailure().isEmpty());
        anonymizer.anonymize(catalog.path("twin.dcm"), catalog.path("out.dcm"));
        QVERIFY2(anonymizer.lastFailure().contains("from a file with other content"), qPrintable(anonymizer.lastFailure()));
        QVERIFY(!QFile::exists(catalog.path("out.dcm")));

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

    // A catalogue from before the UID mapping and the record: the table and the columns are
    // added, the mapping starts with the pseudonyms handed out, and its rows still restore.
    void olderCatalogueGainsTheUidMapping_data() { TestCatalog::addBackendRows(); }
    void olderCatalogueGainsTheUidMapping()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        const QString source = catalog.path("source.dcm");
        QVERIFY(!writeIdentifiedImage(source).isEmpty());
        QDcmAnonymize anonymizer;
        anonymizer.anonymize(source, catalog.path("anon.dcm"));
        QSqlDatabase db = QSqlDatabase::database();
        QSqlQuery sql(db);
        QVERIFY(sql.exec("DROP TABLE anonymousuid"));
        QVERIFY(sql.exec("UPDATE anonymousimage SET OriginalElements = NULL"));
        for (const char* column : {"anonymousimage DROP COLUMN SourceDigest", "anonymouspatient DROP COLUMN DateShift"})
            QVERIFY2(sql.exec(QString("ALTER TABLE ") + column), qPrintable(sql.lastError().text()));

        QStringList report;
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^catalogue upgrade: .*"));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^catalogue upgrade: .*"));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^catalogue upgrade: .*"));
        QVERIFY(upgradeCatalog(db, &report));
        QVERIFY2(report.contains("added the table anonymousuid") && report.contains("added the column anonymouspatient.DateShift") &&
                         report.contains("added the column anonymousimage.SourceDigest"),
                 qPrintable(report.join('\n')));
        QCOMPARE(TestCatalog::value("SELECT AnonymousUID FROM anonymousuid WHERE UID = ?", {value(source, DCM_StudyInstanceUID)}),
                 value(catalog.path("anon.dcm"), DCM_StudyInstanceUID));
        QCOMPARE(TestCatalog::count("anonymousuid"), 3);
        // The row without a record restores its identifiers and columns.
        QCOMPARE(anonymizer.de_anonymize(catalog.path("anon.dcm"), catalog.path("back.dcm")), 0);
        QCOMPARE(value(catalog.path("back.dcm"), DCM_PatientID), value(source, DCM_PatientID));
        QCOMPARE(value(catalog.path("back.dcm"), DCM_SOPInstanceUID), value(source, DCM_SOPInstanceUID));
        QCOMPARE(value(catalog.path("back.dcm"), DCM_OperatorsName), value(source, DCM_OperatorsName));
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
};

QTEST_GUILESS_MAIN(TestAnonymize)
#include "tst_anonymize.moc"
