#include "syntheticdicom.h"
#include "testcatalog.h"

#include "dicom/dicomtext_p.h"
#include "dicom/filestream_p.h"
#include "dicom/qdcmdump.h"
#include "kestrelpaths.h"
#include "programs.h"
#include "qdcmfile.h"
#include "viewfourcornerinfoconfig.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>

#include <QtTest>

#include <sstream>
#include <vector>

namespace {

struct Result {
    int status = -1;
    QByteArray out;
    QByteArray err;
};

// DCMTK's own dcmdump: the oracle.
Result runDcmdump(const QStringList& args)
{
    QProcess process;
    process.start(QStringLiteral("dcmdump"), args);
    process.waitForFinished(60000);
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1, process.readAllStandardOutput(),
            process.readAllStandardError()};
}

// The library's dump, in this process.
Result runDump(const QStringList& args)
{
    std::vector<QByteArray> encoded{QByteArray("dcmdump")};
    for (const QString& arg : args)
        encoded.push_back(QFile::encodeName(arg));
    std::vector<char*> argv;
    for (QByteArray& arg : encoded)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    std::ostringstream out;
    Result result;
    result.status = dumfile_main(int(encoded.size()), argv.data(), out);
    result.out = QByteArray::fromStdString(out.str());
    return result;
}

QStringList sharedDataFiles()
{
    QStringList files;
    if (const QString root = sharedDataPath(); !root.isEmpty())
        for (QDirIterator it(root, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories); it.hasNext();)
            files << it.next();
    files.sort();
    return files;
}

} // namespace

class TestDump : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_mr, m_ct, m_noName, m_gb, m_bigEndian, m_truncated, m_text, m_empty;
    bool m_haveOracle = false;

    QString path(const QString& name) const { return m_dir.filePath(name); }

    QString writeImage(const QString& name, const SyntheticImage& image)
    {
        QString error;
        if (!writeSyntheticImage(path(name), image, &error))
            qFatal("cannot write %s: %s", qPrintable(path(name)), qPrintable(error));
        return path(name);
    }

    QString writeBytes(const QString& name, const QByteArray& bytes)
    {
        QFile file(path(name));
        if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
            qFatal("cannot write %s", qPrintable(path(name)));
        return path(name);
    }

    // Runs ARGS through the dump and through dcmdump and compares exit status and output.
    // Returns a description of the first difference, empty when equal; dcmdump's output in *OUT.
    QString compareWithOracle(const QStringList& args, QByteArray* out = nullptr)
    {
        const Result expected = runDcmdump(args);
        const Result actual = runDump(args);
        if (out)
            *out = expected.out;
        if (expected.status != actual.status)
            return QString("exit status %1, dcmdump %2").arg(actual.status).arg(expected.status);
        int at = 0;
        while (at < expected.out.size() && at < actual.out.size() && expected.out[at] == actual.out[at])
            ++at;
        if (expected.out == actual.out)
            return QString();
        return QString("output differs at byte %1: ...%2 / dcmdump ...%3")
            .arg(at)
            .arg(QString::fromLatin1(actual.out.mid(at, 40)))
            .arg(QString::fromLatin1(expected.out.mid(at, 40)));
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        m_haveOracle = !QStandardPaths::findExecutable(QStringLiteral("dcmdump")).isEmpty();

        SyntheticImage mr;
        mr.patientName = "Doe^Jane";
        mr.instanceNumber = 7;
        mr.windowCenter = 300;
        mr.windowWidth = 600;
        mr.rows = mr.columns = 80; // pixel data over the 4 kB read limit
        m_mr = writeImage("mr.dcm", mr);

        SyntheticImage ct;
        ct.modality = "CT";
        ct.sopClassUid = "1.2.840.10008.5.1.4.1.1.2";
        ct.pixelRepresentation = 1;
        ct.bitsStored = 16;
        ct.hasRescale = true;
        ct.rescaleIntercept = -1024;
        ct.transferSyntax = EXS_LittleEndianImplicit;
        ct.pixel = [](int x, int y, int) { return (x - y) * 37; };
        m_ct = writeImage("ct_implicit.dcm", ct);

        SyntheticImage noName;
        noName.patientName.clear();
        noName.instanceNumber = 3;
        m_noName = writeImage("no_name.dcm", noName);

        SyntheticImage gb;
        gb.specificCharacterSet = "GB18030";
        gb.patientNameBytes = QByteArray("Wang^XiaoDong=\xcd\xf5^\xd0\xa1\xb6\xab=");
        m_gb = writeImage("gb18030.dcm", gb);

        SyntheticImage big = mr;
        big.transferSyntax = EXS_BigEndianExplicit;
        m_bigEndian = writeImage("big_endian.dcm", big);

        QFile whole(m_mr);
        QVERIFY(whole.open(QIODevice::ReadOnly));
        m_truncated = writeBytes("truncated.dcm", whole.readAll().chopped(1000)); // cut inside the pixel data
        m_text = writeBytes("notes.txt", "This is not a DICOM file.\nJust some words.\n");
        m_empty = writeBytes("empty.dcm", QByteArray());
    }

    // The dump (and QDcmFile::dumpFile) equals dcmdump's output byte for byte, with its exit
    // status, on the files written here (broken ones included) and on every shared file.
    void filesMatchDcmdump_data()
    {
        QTest::addColumn<QStringList>("files");
        QTest::newRow("synthetic") << QStringList{m_mr, m_ct, m_noName, m_gb, m_bigEndian, m_truncated, m_text, m_empty};
        QTest::newRow("shared") << sharedDataFiles();
    }

    void filesMatchDcmdump()
    {
        QFETCH(QStringList, files);
        if (!m_haveOracle)
            QSKIP("dcmdump is not installed");
        if (files.isEmpty())
            QSKIP("no shared DICOM data (KESTREL_SHARED_DATA)");
        QStringList failures;
        QDcmFile dcm;
        for (const QString& file : files) {
            QByteArray expected;
            const QString difference = compareWithOracle({file}, &expected);
            if (!difference.isEmpty())
                failures << file + ": " + difference;
            // QDcmFile's text carries the same bytes: as UTF-8 where they are, else one Latin-1
            // character each (a file's own character set, ISO 2022 escapes included).
            QString text;
            dcm.dumpFile(file, text);
            const bool utf8 = kestrel::internal::isValidUtf8(expected.constData(), expected.size());
            if ((utf8 ? text.toUtf8() : text.toLatin1()) != expected || (!utf8 && text.size() != expected.size()))
                failures << file + ": QDcmFile::dumpFile text differs";
        }
        QVERIFY2(failures.isEmpty(), qPrintable(QString("%1 of %2 files differ:\n").arg(failures.size()).arg(files.size())
                                                + failures.mid(0, 10).join('\n')));
    }

    // The library's block stream reads every file as DCMTK's own file stream does: the same outcome,
    // and the same data set (values left unread included) when it is read, for whole, cut, empty and
    // non-DICOM files, a folder and a missing file, at three read lengths.
    void blockStreamReadsAsDcmtk()
    {
        QFile whole(m_mr);
        QVERIFY(whole.open(QIODevice::ReadOnly));
        const QByteArray bytes = whole.readAll();
        QStringList files{m_mr, m_ct, m_noName, m_gb, m_bigEndian, m_truncated, m_text, m_empty, m_dir.path(),
                          path("does-not-exist.dcm")};
        for (int length : {1, 100, 131, 132, 140, 300, 700, bytes.size() / 2, bytes.size() - 1})
            files << writeBytes(QString("cut%1.dcm").arg(length), bytes.left(length));
        files += sharedDataFiles();
        auto read = [](DcmFileFormat& format, const QString& file, Uint32 length, bool ours) {
            const QByteArray name = QFile::encodeName(file);
            const OFCondition status = ours ? kestrel::internal::loadDicomFile(format, name, length)
                                            : format.loadFile(name.constData(), EXS_Unknown, EGL_noChange, length);
            // A failed read leaves a value half read: only the outcome is compared then.
            if (status.bad())
                return QByteArray("bad");
            std::ostringstream text;
            format.print(text, DCMTypes::PF_shortenLongTagValues);
            return QByteArray::fromStdString(text.str());
        };
        QStringList failures;
        for (const QString& file : qAsConst(files)) {
            for (Uint32 length : {Uint32(1024), Uint32(4096), Uint32(0xffffffff)}) {
                DcmFileFormat theirs, ours;
                if (read(theirs, file, length, false) != read(ours, file, length, true))
                    failures << QString("%1 (read length %2)").arg(file).arg(length);
            }
        }
        QVERIFY2(failures.isEmpty(), qPrintable(failures.mid(0, 10).join('\n')));
    }

    // Options, bad command lines, help: same output and exit status as dcmdump, and the process
    // goes on.
    void optionsMatchDcmdump_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::newRow("search") << QStringList{"+P", "PatientName", "+P", "0028,0010", m_mr};
        QTest::newRow("search first, prepend, two files")
            << QStringList{"-s", "+p", "+P", "InstanceNumber", "+P", "WindowCenter", m_mr, m_ct};
        QTest::newRow("search, unknown file in between") << QStringList{"+Fs", "+P", "PatientName", m_noName, m_text, m_mr};
        QTest::newRow("print short") << QStringList{"--print-short", m_mr};
        QTest::newRow("print all") << QStringList{"+L", m_mr};
        QTest::newRow("load short") << QStringList{"--load-short", m_mr, m_ct};
        QTest::newRow("load short, 8 kB") << QStringList{"-M", "+R", "8", m_mr};
        QTest::newRow("tree, no UID names") << QStringList{"+T", "-Un", m_ct};
        QTest::newRow("file names") << QStringList{"+F", m_mr, m_truncated, m_gb};
        QTest::newRow("ignore errors") << QStringList{"+E", m_truncated};
        QTest::newRow("octal quoting") << QStringList{"+Qo", m_gb};
        QTest::newRow("data set, implicit") << QStringList{"-f", "-ti", m_ct};
        QTest::newRow("data set, wrong syntax") << QStringList{"-f", "-te", m_ct};
        QTest::newRow("stop after element") << QStringList{"+st", "SeriesInstanceUID", m_mr};
        QTest::newRow("stop, parse errors ignored") << QStringList{"--ignore-parse-errors", "+st", "PatientName", m_mr};
        QTest::newRow("unreadable files first") << QStringList{m_text, m_empty, m_mr};
        QTest::newRow("directory without scan") << QStringList{m_dir.path()};
        QTest::newRow("bad value") << QStringList{"+R", "2", m_mr};
        QTest::newRow("missing value") << QStringList{"+R"};
        QTest::newRow("bad log level") << QStringList{"--log-level", "loud", m_mr};
        QTest::newRow("dependent option") << QStringList{"--prepend", m_mr};
        QTest::newRow("unknown option") << QStringList{"--no-such-option", m_mr};
        QTest::newRow("help") << QStringList{"--help"};
        QTest::newRow("version") << QStringList{"--version"};
        QTest::newRow("no arguments") << QStringList{};
        // Values in their character sets: printed as stored, quoted, or converted by DCMTK (which
        // cannot convert ISO 2022 IR 87 here: the same error, the same exit status).
        const QString charsets = sharedDataPath("pydicom/charset_files");
        if (!charsets.isEmpty()) {
            QStringList files;
            for (const QFileInfo& info : QDir(charsets).entryInfoList({"*.dcm"}, QDir::Files, QDir::Name))
                files << info.filePath();
            QTest::newRow("charsets: names") << QStringList{"+P", "PatientName", "+P", "OtherPatientNames"} + files;
            QTest::newRow("charsets: octal") << QStringList{"+Qo", "+P", "PatientName"} + files;
            QTest::newRow("charsets: markup, tree") << QStringList{"+Qn", "+T", "+F"} + files;
            for (const QString& file : files)
                QTest::newRow(qPrintable("charsets: to UTF-8, " + QFileInfo(file).fileName()))
                    << QStringList{"+U8", file};
        }
        const QString tests = sharedDataPath("pydicom/test_files");
        if (!tests.isEmpty()) {
            QTest::newRow("shared: search with sequences")
                << QStringList{"+p", "+P", "ReferencedSOPInstanceUID", "+P", "CodeValue", tests + "/SC_rgb_jpeg_dcmtk.dcm"};
            QTest::newRow("shared: load short, scan") << QStringList{"-M", "+sd", "+r", "+F", tests + "/dicomdirtests/98892003"};
        }
    }

    void optionsMatchDcmdump()
    {
        if (!m_haveOracle)
            QSKIP("dcmdump is not installed");
        QFETCH(QStringList, args);
        const QString difference = compareWithOracle(args);
        QVERIFY2(difference.isEmpty(), qPrintable(difference));
    }

    // The parser switches of one run do not leak into the next.
    void runsStayApart()
    {
        const QByteArray before = runDump({m_mr}).out;
        QCOMPARE(runDump({"-f", "-te", m_ct}).status, 1);
        QCOMPARE(runDump({"--ignore-parse-errors", "+st", "PatientName", m_mr}).status, 0);
        QCOMPARE(runDump({"--version"}).status, 0);
        QCOMPARE(runDump({m_mr}).out, before);
    }

    void searchHoldsAtMost1024Tags()
    {
        QStringList args;
        for (int i = 0; i < 1024; ++i)
            args << "+P" << "0010,0010";
        const Result full = runDump(args + QStringList{m_mr});
        QCOMPARE(full.status, 0);
        QCOMPARE(full.out.count('\n'), 1024);

        // The 1025th is refused; the host prints DCMTK's warning and ends with status 1.
        args << "+P" << "PatientName";
        QCOMPARE(runDump(args + QStringList{m_mr}).status, 1);
        const HostRun host = runHost(QStringList{"dump"} + args + QStringList{m_mr});
        QCOMPARE(host.exitCode, 1);
        QVERIFY(host.out.isEmpty());
        QVERIFY2(host.err.contains("too many print tag options (max: 1024)"), "warning missing");
        QCOMPARE(parseTagKey("Nonsense"), DcmTagKey(0xffff, 0xffff));
        QCOMPARE(parseTagKey("7fe0,0010"), DCM_PixelData);
    }

    void fileAttributesAndSignals()
    {
        QDcmFile file;
        QSignalSpy nameChanged(&file, &QDcmFile::patientNameChanged);
        QSignalSpy errors(&file, &QDcmFile::fileError);
        // Released after reading: the attributes stay.
        QVERIFY(file.dcmFileFormat() != nullptr);
        QVERIFY(file.loadhead(m_mr, true));
        QVERIFY(file.dcmFileFormat() == nullptr);
        QCOMPARE(file.fileName(), m_mr);
        QCOMPARE(file.property("patientName").toString(), QString("Doe^Jane"));
        QCOMPARE(file.imageNum(), 7);
        const QString study = file.studyUID();
        QVERIFY(!study.isEmpty());

        // Kept: pixel data beyond the header read limit is still reachable on demand.
        QVERIFY(file.loadhead(m_mr, false));
        DcmDataset* parsed = file.dcmFileFormat()->getDataset();
        OFString uid;
        QVERIFY(parsed->findAndGetOFString(DCM_SeriesInstanceUID, uid).good());
        QCOMPARE(QString(uid.c_str()), file.seriesUID());
        const Uint16* pixels = nullptr;
        QVERIFY(parsed->findAndGetUint16Array(DCM_PixelData, pixels).good() && pixels != nullptr);

        // No PatientName: the previous name stays and nothing is announced; the rest is read.
        QVERIFY(file.loadhead(m_noName, false));
        QCOMPARE(file.patientName(), QString("Doe^Jane"));
        QCOMPARE(file.imageNum(), 3);
        QVERIFY(file.studyUID() != study);
        // The name is announced whenever it is present or set, changed or not.
        file.setPatientName(file.patientName());
        QCOMPARE(nameChanged.count(), 3);
        QCOMPARE(errors.count(), 0);

        // The const char* form reads without storing the name.
        file.SetFileName(QString("elsewhere.dcm"));
        QVERIFY(file.loadhead(QFile::encodeName(m_noName).constData(), false));
        QCOMPARE(file.fileName(), QString("elsewhere.dcm"));
        QVERIFY(file.loadhead(QUrl::fromLocalFile(m_ct), false));
        QCOMPARE(file.fileName(), m_ct);
    }

    // Each unreadable file gives one error, the previous attributes stay and the dump still
    // says something.
    void unreadableFiles()
    {
        QDcmFile dcm;
        QVERIFY(dcm.loadhead(m_mr, true));
        QSignalSpy errors(&dcm, &QDcmFile::fileError);
        QSignalSpy nameChanged(&dcm, &QDcmFile::patientNameChanged);
        for (const QString& file : {m_text, m_truncated, m_empty, path("does-not-exist.dcm"), m_dir.path()}) {
            QVERIFY2(!dcm.loadhead(file, false), qPrintable(file));
            QCOMPARE(errors.count(), 1);
            QCOMPARE(errors.takeFirst().first().toString(), "can't open " + file);
            QString text = "previous";
            dcm.dumpFile(file, text);
            QVERIFY2(text != "previous", qPrintable(file));
        }
        QCOMPARE(nameChanged.count(), 0);
        QCOMPARE(dcm.patientName(), QString("Doe^Jane"));
        QCOMPARE(dcm.imageNum(), 7);
    }

    void overlayTemplates_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("overlay line") << "TR: {RepetitionTime} ms  TE: {EchoTime} ms"
                                      << QStringList{"TR: %1 ms  TE: %2 ms", "RepetitionTime", "EchoTime"};
        QTest::newRow("field used twice") << "{A}/{A}" << QStringList{"%1/%1", "A", "A"};
        QTest::newRow("no braces") << "plain text" << QStringList{"plain text"};
        QTest::newRow("empty") << "" << QStringList{""};
        QTest::newRow("open brace only") << "{A" << QStringList{"{A"};
        // A "}" before the first "{": the name runs to the end of the text, and the empty
        // stretch replaced marks every position, so the second field is not found any more.
        QTest::newRow("closing first") << "a}{B}" << QStringList{"%1a%1}%1{%1B%1}%1", "B}", "B"};
    }

    void overlayTemplates()
    {
        QFETCH(QString, text);
        QFETCH(QStringList, expected);
        QCOMPARE(ViewFourCornerInfoConfig::parse(text), expected);
    }

    void overlaySettings()
    {
        Kestrel::setConfigDirectory(QString());
        const auto mr = ViewFourCornerInfoConfig::getSetting("MR", false);
        QVERIFY(mr);
        QCOMPARE(ViewFourCornerInfoConfig::getSetting("MR", false).get(), mr.get());
        QCOMPARE(mr->value("TopLeft/line1").toString(), QString("{PatientName}"));
        QCOMPARE(ViewFourCornerInfoConfig::parse(mr->value("BottomLeft/line1").toString()).mid(1),
                 (QStringList{"RepetitionTime", "EchoTime"}));
        const auto none = ViewFourCornerInfoConfig::getSetting("XA-none", false);
        QVERIFY(none && none->allKeys().isEmpty());

        // Reloading gives a fresh object that later calls share.
        const auto again = ViewFourCornerInfoConfig::getSetting("MR", true);
        QVERIFY(again.get() != mr.get());
        QCOMPARE(ViewFourCornerInfoConfig::getSetting("MR", false).get(), again.get());
    }
};

QTEST_GUILESS_MAIN(TestDump)
#include "tst_dump.moc"
