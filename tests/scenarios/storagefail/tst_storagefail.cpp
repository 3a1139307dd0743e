#include "ndicomvolume.h"
#include "qdcmfiles.h"
#include "qinstance.h"
#include "qseries.h"
#include "syntheticdicom.h"
#include "seriesfromfiles.h"
#include "testcatalog.h"

#include "dicom/dcmvalues_p.h"
#include "platform/fileplacement_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>

#include <QDir>
#include <QFile>
#include <QSettings>
#include <QSignalSpy>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

// Storage that cannot be written (a folder below a regular file, a file that is /dev/full) while
// the importer copies and while a volume is cached: the failure is reported and the catalogue
// never names a file that is not there, before or after a run on working storage.
namespace {

using namespace kestrel::internal;

// Every FilePath and cache Savepath of the catalogue that names no file.
QStringList missingFiles()
{
    QStringList missing;
    for (const QString& path : TestCatalog::values("SELECT FilePath FROM imageformat") + TestCatalog::values("SELECT Savepath FROM registration"))
        if (!QFileInfo(path).isFile() || QFileInfo(path).size() == 0)
            missing << path;
    return missing;
}

void setStorageRoot(const TestCatalog& catalog, const QString& root)
{
    QSettings ini(catalog.configDir() + "/datasavepath.ini", QSettings::IniFormat);
    ini.setValue("save/savepath", root);
}

} // namespace

class TestStorageFail : public QObject
{
    Q_OBJECT

private slots:
    void copyModeUnwritable_data() { TestCatalog::addBackendRows(); }
    void copyModeUnwritable()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        const QStringList files = writeSyntheticSeries(catalog.path("in"), SyntheticImage(), 4);
        QFile blocker(catalog.path("plainfile"));
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();

        // The storage root lies below a regular file, then is a link to /dev/full.
        for (const QString& root : {catalog.path("plainfile/store"), catalog.path("full")}) {
            if (root.endsWith("full"))
                QVERIFY(QFile::link("/dev/full", root));
            setStorageRoot(catalog, root);
            QDcmFiles importer;
            QSignalSpy errors(&importer, &QDcmFiles::errorInfo);
            importer.loadLocalFolderToDB(catalog.path("in"), 1, true);
            QVERIFY2(!errors.isEmpty(), qPrintable(root));
            QVERIFY(errors.first().first().toString().contains("cannot copy"));
            QCOMPARE(TestCatalog::count("imageformat"), files.size());
            QCOMPARE(missingFiles(), QStringList());
        }

        // Working storage: the re-run copies and the rows name the copies.
        setStorageRoot(catalog, catalog.path("store"));
        QDcmFiles importer;
        QSignalSpy errors(&importer, &QDcmFiles::errorInfo);
        importer.loadLocalFolderToDB(catalog.path("in"), 1, true);
        QVERIFY2(errors.isEmpty(), qPrintable(errors.value(0).value(0).toString()));
        QCOMPARE(TestCatalog::count("imageformat"), files.size());
        QCOMPARE(missingFiles(), QStringList());
        for (const QString& path : TestCatalog::values("SELECT FilePath FROM imageformat"))
            QVERIFY2(path.startsWith(catalog.path("store")), qPrintable(path));

        // Once more over the stored copies: they are replaced through a file beside them.
        QDcmFiles again;
        again.loadLocalFolderToDB(catalog.path("in"), 1, true);
        QCOMPARE(TestCatalog::count("imageformat"), files.size());
        QCOMPARE(missingFiles(), QStringList());
        const QString stored = TestCatalog::values("SELECT FilePath FROM imageformat").value(0);
        QVERIFY(QDir(QFileInfo(stored).path()).entryList({"*.part"}, QDir::Files).isEmpty());
    }

    // A finished file goes in place only where nothing is; what was there stays, and the part file
    // is gone once placed, kept on request otherwise.
    void placement()
    {
        using kestrel::internal::Placement;
        QTemporaryDir dir;
        const auto write = [](const QString& path, const QByteArray& bytes) {
            QFile f(path);
            return f.open(QIODevice::WriteOnly) && f.write(bytes) == bytes.size();
        };
        const auto read = [](const QString& path) {
            QFile f(path);
            return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("(missing)");
        };
        const QString target = dir.filePath("MR.1"), part = kestrel::internal::partName(target);
        QVERIFY(write(part, "first"));
        QCOMPARE(kestrel::internal::placeFile(part, target, true), Placement::Placed);
        QVERIFY(!QFile::exists(part));
        QCOMPARE(read(target), QByteArray("first"));
        for (const bool keep : {false, true}) {
            QVERIFY(write(part, "first"));
            QCOMPARE(kestrel::internal::placeFile(part, target, keep), Placement::AlreadyThere);
            QCOMPARE(QFile::exists(part), keep);
            QVERIFY(write(part, "second"));
            QCOMPARE(kestrel::internal::placeFile(part, target, keep), Placement::OtherContent);
            QCOMPARE(QFile::exists(part), keep);
            QCOMPARE(read(target), QByteArray("first"));
        }
        // No folder to go into: the part stays when asked to, for another try.
        QVERIFY(write(part, "third"));
        QCOMPARE(kestrel::internal::placeFile(part, dir.filePath("gone/MR.2"), true), Placement::Failed);
        QCOMPARE(read(part), QByteArray("third"));
        QCOMPARE(kestrel::internal::placeFile(part, dir.filePath("gone/MR.2"), false), Placement::Failed);
        QVERIFY(!QFile::exists(part));
    }

    void volumeCacheUnwritable()
    {
        KESTREL_OPEN_CATALOG(catalog, "sqlite");
        SyntheticImage base;
        base.rows = 64;
        base.columns = 128;
        std::unique_ptr<QSeries> series(seriesFromFiles(writeSyntheticSeries(catalog.path("dicom"), base, 10), 1));
        const QString key = series->getSeriesBase();

        // A cache folder below a regular file: nothing registered, the volume is still built.
        QFile blocker(catalog.path("plainfile"));
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        QVERIFY(catalog.setVolumeCache(catalog.path("plainfile/cache")));
        {
            NDicomVolume volume;
            QVERIFY(volume.getVolumeFromSeriesUID(series.get()));
            QVERIFY(volume.isValid());
            QCOMPARE(volume.getCurVolumeDataPath(), QString());
            QCOMPARE(TestCatalog::count("registration"), 0);
        }

        // The cache file is a link to /dev/full: the volume is written beside it and put in its
        // place in one step, so the link gives way to a whole file that is registered once.
        QVERIFY(QDir().mkpath(catalog.path("cache")));
        QVERIFY(catalog.setVolumeCache(catalog.path("cache")));
        const QString file = catalog.path("cache") + "/" + key + ".data";
        QVERIFY(QFile::link("/dev/full", file));
        {
            NDicomVolume volume;
            QVERIFY(volume.getVolumeFromSeriesUID(series.get()));
            QVERIFY(volume.isValid());
            QCOMPARE(volume.getCurVolumeDataPath(), file);
            QVERIFY(!QFileInfo(file).isSymLink() && QFileInfo(file).size() > 64 * 128 * 10 * 2);
            QCOMPARE(TestCatalog::count("registration"), 1);
            QCOMPARE(missingFiles(), QStringList());
            QCOMPARE(QDir(catalog.path("cache")).entryList(QDir::Files).size(), 1); // no part file left
        }

        // Built again: the same file replaced, still one registration.
        {
            NDicomVolume volume;
            volume.loadSeries(series.get());
            QVERIFY(volume.isValid());
            QCOMPARE(volume.saveVolumeToDefaultPath(), 0);
            QCOMPARE(volume.getCurVolumeDataPath(), file);
            QCOMPARE(TestCatalog::count("registration"), 1);
        }
    }
};

QTEST_GUILESS_MAIN(TestStorageFail)
#include "tst_storagefail.moc"
