#include "nbitvolume.h"
#include "ndicomimage.h"
#include "nvolume.h"
#include "qdcmfile.h"
#include "qdcmfiles.h"
#include "testcatalog.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

// Inputs the fuzz targets (tests/fuzz) reported, kept in tests/fuzz/regressions: every entry point
// that reads outside data takes each of them without crashing and refuses what is not valid.
class TestFuzzFindings : public QObject
{
    Q_OBJECT

private slots:
    void entryPoints_data()
    {
        QTest::addColumn<QString>("path");
        const QString dir = qEnvironmentVariable("KESTREL_SOURCE_DIR") + "/tests/fuzz/regressions";
        const QStringList names = QDir(dir).entryList(QDir::Files, QDir::Name);
        if (names.isEmpty())
            QTest::newRow("none") << QString();
        for (const QString& name : names)
            QTest::newRow(qPrintable(name)) << QDir(dir).filePath(name);
    }

    void entryPoints()
    {
        QFETCH(QString, path);
        if (path.isEmpty())
            QSKIP("no findings: KESTREL_SOURCE_DIR unset (run through CTest) or none kept");
        KESTREL_OPEN_CATALOG(catalog, "sqlite");
        QTemporaryDir dir;
        const QString file = dir.filePath("input.dcm");
        QVERIFY(QFile::copy(path, file));

        QDcmFiles importer;
        importer.loadLocalFilesToDB({file}, 0);
        QCOMPARE(importer.lastRunCounts().filesRead + importer.lastRunCounts().unreadable, 1);
        QVERIFY(TestCatalog::count("imageformat") <= 1);

        QDcmFile header;
        header.loadhead(file, false);
        NDicomImage image;
        image.readReferenceFileInfo(file, true);
        NVolume volume;
        QFile bytes(path);
        QVERIFY(bytes.open(QIODevice::ReadOnly));
        volume.stringToVolumeHead(QString::fromLatin1(bytes.readAll()));
        volume.loadVolume(file);
        NBitVolume mask(16, 12, 5);
        QVERIFY(QFile::copy(path, dir.filePath("mask.txt")));
        mask.ReadFromFile(QFile::encodeName(dir.filePath("mask.txt")).constData());
    }
};

QTEST_MAIN(TestFuzzFindings)
#include "tst_fuzzfindings.moc"
