#include "qdcmanonymize.h"
#include "qdcmrecvfile.h"
#include "qdcmstoragescp.h"
#include "qdicomservice.h"
#include "qdcmfiles.h"
#include "dicompeers.h"
#include "syntheticdicom.h"
#include "testcatalog.h"

#include "catalog/catalogschema_p.h"
#include "dicom/dcmvalues_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcmetinf.h>

#include <QDir>
#include <QFile>
#include <QMap>
#include <QSettings>
#include <QSqlQuery>
#include <QtTest>


// Files whose identifying texts hold SQL, quotes, NUL bytes, huge values, broken or mislabelled
// character sets: imported (in place and copied), anonymized and restored, every statement must
// touch exactly the rows it should and the values must come back as they went in.
namespace {

using RowCounts = QMap<QString, int>;

RowCounts rowCounts()
{
    RowCounts counts;
    for (const QString& table : kestrel::internal::schema::tables())
        counts[table] = TestCatalog::count(table);
    return counts;
}

// COUNTS with the changes in DELTA applied.
RowCounts plus(RowCounts counts, const RowCounts& delta)
{
    for (auto it = delta.begin(); it != delta.end(); ++it)
        counts[it.key()] += it.value();
    return counts;
}

const DcmTagKey kTextTags[] = {DCM_PatientName, DCM_PatientID, DCM_StudyDescription, DCM_SeriesDescription};
constexpr int kImages = 2;

// Writes a series of kImages images into DIR whose texts all hold VALUE as raw bytes and whose
// UIDs are VALUE behind a distinct prefix (so that truncating at a NUL cannot merge them).
bool writeHostileSeries(const QString& dir, const QByteArray& value, const QString& charset)
{
    QDir().mkpath(dir);
    SyntheticImage base;
    base.specificCharacterSet = charset;
    for (int i = 0; i < kImages; ++i) {
        const QString path = dir + QString("/img%1.dcm").arg(i);
        if (!writeSyntheticImage(path, base))
            return false;
        DcmFileFormat file;
        if (file.loadFile(QFile::encodeName(path).constData()).bad())
            return false;
        DcmDataset* ds = file.getDataset();
        for (const DcmTagKey& tag : kTextTags)
            ds->putAndInsertString(tag, value.constData(), static_cast<Uint32>(value.size()));
        const std::pair<DcmTagKey, QByteArray> uids[] = {{DCM_StudyInstanceUID, "1.1."},
                                                         {DCM_SeriesInstanceUID, "1.2."},
                                                         {DCM_SOPInstanceUID, "1.3." + QByteArray::number(i) + "."}};
        for (const auto& [tag, prefix] : uids) {
            const QByteArray uid = prefix + value;
            ds->putAndInsertString(tag, uid.constData(), static_cast<Uint32>(uid.size()));
        }
        const QByteArray sop = "1.3." + QByteArray::number(i) + "." + value;
        file.getMetaInfo()->putAndInsertString(DCM_MediaStorageSOPInstanceUID, sop.constData(),
                                               static_cast<Uint32>(sop.size()));
        // Implicit VR: its 32-bit lengths hold the 64 KB values that explicit VR text elements cannot.
        if (file.saveFile(QFile::encodeName(path).constData(), EXS_LittleEndianImplicit).bad())
            return false;
    }
    return true;
}

// The raw bytes of TAG in FILE, "<absent>" when it has none.
QByteArray rawValue(const QString& path, const DcmTagKey& tag)
{
    DcmFileFormat file;
    if (file.loadFile(QFile::encodeName(path).constData()).bad())
        return "<unreadable>";
    DcmElement* element = nullptr;
    char* text = nullptr;
    Uint32 length = 0;
    if (file.getDataset()->findAndGetElement(tag, element).bad() || element->getString(text, length).bad())
        return "<absent>";
    return QByteArray(text, static_cast<int>(length));
}

QString decoded(const QString& path, const DcmTagKey& tag)
{
    DcmFileFormat file;
    if (file.loadFile(QFile::encodeName(path).constData()).bad())
        return "<unreadable>";
    return kestrel::internal::dcmDecodedString(file.getDataset(), tag);
}

DcmFileFormat dicomFile(const QString& path)
{
    DcmFileFormat file;
    file.loadFile(QFile::encodeName(path).constData());
    return file;
}

QString firstValue(const QString& path, const DcmTagKey& tag)
{
    DcmFileFormat file;
    if (file.loadFile(QFile::encodeName(path).constData()).bad())
        return "<unreadable>";
    return kestrel::internal::dcmString(file.getDataset(), tag, 0, "<absent>");
}

struct HostileCase {
    const char* name;
    QByteArray value;
    const char* charset;
    bool lossless; // valid in its character set: the catalogue holds the bytes exactly
};

QVector<HostileCase> hostileCases()
{
    const QByteArray big = QByteArray("x'\"; --x").repeated(8 * 1024); // 64 KB
    return {
            {"quotes", "O'Brien \"the\" `tick` 'a'' b\\c", "", true},
            {"statements", "a; SELECT 1; -- x /* y */ # z", "", true},
            {"drop", "'); DROP TABLE patient; --", "", true},
            {"drop-dq", "\"); DROP TABLE generalstudy; /*", "ISO_IR 100", true},
            {"64KB", big, "", true},
            {"nul", QByteArray("ab\0cd'\0ef", 9), "", false},
            {"bad-utf8", "\xff\xfe\xc3(\xa0\xa1'\xed\xa0\x80", "ISO_IR 192", false},
            {"latin1-as-utf8", "M\xfcller^J\xf6rg", "ISO_IR 192", false},
            {"bad-gb18030", "\x81\x30'\xff\x80;", "GB18030", false},
            // Ends in JIS X 0208 without returning to ASCII: restored with the escape that does.
            {"iso2022", "\x1b$B\x3b\x33\x45\x44\x1b(B^\x1b$B\x42\x40\x4f\x3a", "ISO 2022 IR 87", false},
            {"iso2022-closed", "\x1b$B$d$^$@\x1b(B^\x1b$B$?$m$&\x1b(B", "\\ISO 2022 IR 87", true},
            {"unknown-charset", "Z\xe9ro; --", "NOT_A_CHARSET", true},
            {"paths", "../../../tmp/x/..", "", true},
            {"control", "\t\r\n\x01\x7f%_", "", true},
    };
}

} // namespace

class TestHostile : public QObject
{
    Q_OBJECT

private slots:
    void importAnonymizeRestore_data()
    {
        QTest::addColumn<QString>("backend");
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<QString>("charset");
        QTest::addColumn<bool>("lossless");
        for (const QString backend : {"sqlite", "mariadb"})
            for (const HostileCase& c : hostileCases())
                QTest::newRow(qPrintable(backend + "/" + c.name)) << backend << c.value << QString(c.charset) << c.lossless;
    }

    void importAnonymizeRestore()
    {
        QFETCH(QString, backend);
        QFETCH(QByteArray, value);
        QFETCH(QString, charset);
        QFETCH(bool, lossless);
        KESTREL_OPEN_CATALOG(catalog, backend);
        const QString in = catalog.path("in");
        QVERIFY(writeHostileSeries(in, value, charset));
        const QStringList sources = filesBelow(in);
        QCOMPARE(sources.size(), kImages);
        QCOMPARE(rawValue(sources.first(), DCM_PatientID), value);

        const RowCounts empty = rowCounts();
        for (auto it = empty.begin(); it != empty.end(); ++it)
            QVERIFY2(it.value() >= 0, qPrintable(it.key()));
        const RowCounts imported = plus(empty, {{"patient", 1}, {"generalstudy", 1}, {"generalseries", 1},
                                                {"imageformat", kImages}, {"imagepixel", kImages},
                                                {"mrimageinfo", kImages}});
        {
            QDcmFiles importer;
            QSignalSpy errors(&importer, &QDcmFiles::errorInfo);
            importer.loadLocalFolderToDB(in, 0, true);
            QVERIFY2(errors.isEmpty(), qPrintable(errors.value(0).value(0).toString()));
            QCOMPARE(importer.lastRunCounts().imagesAdded, kImages);
            QCOMPARE(rowCounts(), imported);
        }
        {
            // Again, by another importer: everything is known, nothing is written.
            QDcmFiles importer;
            importer.loadLocalFolderToDB(in, 0, true);
            QCOMPARE(importer.lastRunCounts().duplicates, kImages);
            QCOMPARE(rowCounts(), imported);
        }
        // What the catalogue holds is what the reader decodes, not something shortened or altered.
        QCOMPARE(TestCatalog::value("SELECT PatientID FROM patient"), decoded(sources.first(), DCM_PatientID));
        QCOMPARE(TestCatalog::value("SELECT PatientName FROM patient"), decoded(sources.first(), DCM_PatientName));
        QCOMPARE(TestCatalog::value("SELECT StudyDescription FROM generalstudy"), decoded(sources.first(), DCM_StudyDescription));
        QCOMPARE(TestCatalog::value("SELECT SeriesDescription FROM generalseries"),
                 decoded(sources.first(), DCM_SeriesDescription));

        // Copy mode into a storage root of the test's own: the files land below the root.
        {
            const QString root = catalog.path("store");
            QDir().mkpath(root);
            QSettings ini(catalog.configDir() + "/datasavepath.ini", QSettings::IniFormat);
            ini.setValue("save/savepath", root);
            ini.sync();
            QDcmFiles importer;
            QSignalSpy errors(&importer, &QDcmFiles::errorInfo);
            importer.loadLocalFolderToDB(in, 1, true);
            QVERIFY2(errors.isEmpty(), qPrintable(errors.value(0).value(0).toString()));
            QCOMPARE(rowCounts(), imported);
            const QStringList copies = filesBelow(root);
            QCOMPARE(copies.size(), kImages);
            for (const QString& copy : copies)
                QVERIFY2(QFileInfo(copy).canonicalFilePath().startsWith(QDir(root).canonicalPath() + "/"),
                         qPrintable(copy));
            const QStringList paths = [] {
                QStringList out;
                QSqlQuery query(QSqlDatabase::database());
                query.exec("SELECT FilePath FROM imageformat");
                while (query.next())
                    out << query.value(0).toString();
                return out;
            }();
            for (const QString& path : paths)
                QVERIFY2(QFile::exists(path), qPrintable(path));
        }

        // Anonymize both files, then restore them: one mapping row per patient, study, series and
        // image and one pseudonym per distinct UID value, no other table touched, and the restored
        // values are the original bytes.
        QSet<QString> uids;
        for (const QString& source : sources)
            for (const DcmTagKey& tag : {DCM_StudyInstanceUID, DCM_SeriesInstanceUID, DCM_SOPInstanceUID})
                for (const QString& part : kestrel::internal::dcmStringAll(dicomFile(source).getDataset(), tag).split('\\'))
                    if (!part.trimmed().isEmpty())
                        uids.insert(part.trimmed());
        const RowCounts mapped = plus(imported, {{"anonymouspatient", 1}, {"anonymousstudy", 1}, {"anonymousseries", 1},
                                                 {"anonymousimage", kImages}, {"anonymousuid", uids.size()}});
        QSettings all(catalog.path("all.ini"), QSettings::IniFormat);
        QDcmAnonymize anonymizer;
        anonymizer.setAnonymizeSetting(&all);
        QDir().mkpath(catalog.path("anon"));
        QDir().mkpath(catalog.path("restored"));
        for (int i = 0; i < kImages; ++i) {
            const QString anon = catalog.path(QString("anon/%1.dcm").arg(i));
            QCOMPARE(anonymizer.anonymize(sources[i], anon), 0);
            QVERIFY2(anonymizer.lastFailure().isEmpty(), qPrintable(anonymizer.lastFailure()));
            QVERIFY(rawValue(anon, DCM_PatientID) != value);
            QVERIFY(!rawValue(anon, DCM_SOPInstanceUID).contains(value));
        }
        QCOMPARE(rowCounts(), mapped);
        for (int i = 0; i < kImages; ++i) {
            const QString restored = catalog.path(QString("restored/%1.dcm").arg(i));
            QCOMPARE(anonymizer.de_anonymize(catalog.path(QString("anon/%1.dcm").arg(i)), restored), 0);
            // A UID has one value: its first is what is mapped and restored.
            for (const DcmTagKey& tag : {DCM_StudyInstanceUID, DCM_SeriesInstanceUID, DCM_SOPInstanceUID})
                QCOMPARE(firstValue(restored, tag), firstValue(sources[i], tag));
            for (const DcmTagKey& tag : {DCM_PatientID, DCM_PatientName})
                if (lossless)
                    QCOMPARE(rawValue(restored, tag), rawValue(sources[i], tag));
                else
                    QCOMPARE(decoded(restored, tag), decoded(sources[i], tag));
        }
        QCOMPARE(rowCounts(), mapped);
    }

    // Every hostile series in one association to the storage provider with the receive
    // bookkeeping and the importer behind it: each file on disk below the receiving folder, one
    // bookkeeping row per image and series, each image catalogued once.
    void receive_data() { TestCatalog::addBackendRows(); }
    void receive()
    {
        QFETCH(QString, backend);
        if (QStandardPaths::findExecutable("storescu").isEmpty())
            QSKIP("DCMTK's storescu is not installed");
        KESTREL_OPEN_CATALOG(catalog, backend);
        QStringList files;
        for (const HostileCase& c : hostileCases()) {
            const QString dir = catalog.path(QString("send/%1").arg(c.name));
            QVERIFY(writeHostileSeries(dir, c.value, c.charset));
            files << filesBelow(dir);
        }
        const int series = hostileCases().size();
        const RowCounts before = rowCounts();

        ReceivingChain chain;
        QVERIFY(chain.start(catalog.path("recv")));
        QSignalSpy saved(chain.provider.scp, &QDcmStorageSCP::notifyInstanceSaved);
        QSignalSpy uploaded(chain.recv(), &QDcmRecvFile::notifyUploadDB);

        QCOMPARE(storescu(chain.provider.port, files), 0);
        QTRY_COMPARE_WITH_TIMEOUT(saved.count(), files.size(), 10000);
        // The last series is handed over after ten seconds without objects.
        QTRY_COMPARE_WITH_TIMEOUT(uploaded.count(), series, 20000);

        const QString root = QDir(catalog.path("recv")).canonicalPath() + "/";
        for (const QList<QVariant>& args : qAsConst(saved)) {
            const QString file = args.at(0).toString();
            QVERIFY2(QFileInfo(file).isFile() && QFileInfo(file).canonicalFilePath().startsWith(root), qPrintable(file));
        }
        QCOMPARE(TestCatalog::count("images"), files.size());
        QCOMPARE(TestCatalog::count("series"), series);
        const RowCounts after = rowCounts();
        for (const char* table : {"imageformat", "imagepixel", "mrimageinfo"})
            QCOMPARE(after.value(table) - before.value(table), files.size());
        QCOMPARE(after.value("generalseries") - before.value("generalseries"), series);
        QCOMPARE(after.value("patient") - before.value("patient"), series);
    }
};

QTEST_GUILESS_MAIN(TestHostile)
#include "tst_hostile.moc"
