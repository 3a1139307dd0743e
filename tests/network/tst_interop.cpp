// Kestrel among DCMTK's peers on the loopback: what storescu and dcmsend send to `kestrel listen`
// is stored byte for byte as dcmrecv stores it; what `kestrel send` sends arrives at storescp
// (uncompressed only: decoded without loss) and at dcmrecv (as sent); refusals are named.

#include "dicompeers.h"
#include "encodedpixels.h"
#include "programs.h"
#include "testcatalog.h"

#include "dicom/codecs_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcmetinf.h>
#include <dcmtk/dcmdata/dcuid.h>
#include <dcmtk/dcmdata/dcxfer.h>

#include <QImage>
#include <QStandardPaths>
#include <QtEndian>
#include <QtTest>

using kestrel::internal::loadPixelFile;

namespace {

struct TestObject {
    QString name;
    QString file;
    QStringList storescuOptions; // proposes the object in its own transfer syntax only
    QString sopInstanceUID;
};

QString readSop(const QString& file, DcmTagKey tag = DCM_SOPInstanceUID)
{
    DcmFileFormat format;
    OFString value;
    if (format.loadFile(QFile::encodeName(file).constData(), EXS_Unknown, EGL_noChange, 256).bad()
        || format.getDataset()->findAndGetOFString(tag, value).bad())
        return {};
    return QString::fromLatin1(value.c_str());
}

QString metaValue(const QString& file, const DcmTagKey& tag)
{
    DcmFileFormat format;
    OFString value;
    if (format.loadFile(QFile::encodeName(file).constData(), EXS_Unknown, EGL_noChange, 256).bad())
        return {};
    format.getMetaInfo()->findAndGetOFString(tag, value);
    return QString::fromLatin1(value.c_str());
}

// The received files below DIR by SOP Instance UID.
QMap<QString, QString> bySop(const QString& dir)
{
    QMap<QString, QString> files;
    for (const QString& file : filesBelow(dir))
        if (!QFileInfo(file).fileName().startsWith('.'))
            files.insert(readSop(file), file);
    return files;
}

QByteArray bytesOf(const QString& file)
{
    QFile f(file);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// The data set's bytes, without the preamble and meta header.
QByteArray datasetBytes(const QString& file)
{
    const QByteArray bytes = bytesOf(file);
    if (bytes.size() < 144 || bytes.mid(128, 4) != "DICM")
        return {};
    const quint32 metaLength = qFromLittleEndian<quint32>(bytes.constData() + 140);
    return bytes.mid(144 + int(metaLength));
}

// The data set decoded (every decoder registered) and written uncompressed, explicit little
// endian, explicit lengths, no group lengths: what the object says, whatever its encoding.
QByteArray canonical(const QString& file, const QString& scratch)
{
    DcmFileFormat format;
    if (loadPixelFile(format, file, DCM_MaxReadLength).bad())
        return {};
    DcmDataset* ds = format.getDataset();
    if (ds->chooseRepresentation(EXS_LittleEndianExplicit, nullptr).bad()
        || ds->saveFile(QFile::encodeName(scratch).constData(), EXS_LittleEndianExplicit, EET_ExplicitLength,
                        EGL_withoutGL).bad())
        return {};
    return bytesOf(scratch);
}

int run(const QString& program, const QStringList& args)
{
    return PeerProcess(program, args).finish(30000);
}

} // namespace

class TestInterop : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QList<TestObject> m_objects;
    // What storescu's transfer left at dcmrecv, data set bytes by SOP Instance UID.
    QMap<QString, QByteArray> m_dcmtkReceived;

    QStringList files() const
    {
        QStringList list;
        for (const TestObject& object : m_objects)
            list << object.file;
        return list;
    }
    QString scratch() const { return m_dir.filePath("scratch.dcm"); }
    // 1.dcm's pixels as HTJ2K, reversible (transfer syntax HTJ2K lossless) or not (HTJ2K), under a
    // SOP Instance UID of its own.
    QString htj2kFile(bool reversible);

    // The objects of other kinds, made by DCMTK's own tools: CR and an RT structure set and a
    // basic text SR from dumps, US from a bitmap, an encapsulated PDF.
    bool makeObjects();

private slots:
    void initTestCase();
    void peersToKestrel_data();
    void peersToKestrel();
    void kestrelToStorescp();
    void kestrelToDcmrecv();
    void refusalsAreNamed();
    void echo();
};

bool TestInterop::makeObjects()
{
    const QString dir = m_dir.filePath("objects");
    QDir().mkpath(dir);
    auto path = [&](const QString& name) { return dir + "/" + name; };
    auto write = [&](const QString& name, const QByteArray& text) {
        QFile f(path(name));
        return f.open(QIODevice::WriteOnly) && f.write(text) == text.size();
    };
    QByteArray pixels;
    for (int y = 0; y < 32; ++y)
        for (int x = 0; x < 32; ++x) {
            const quint16 v = quint16((x * 37 + y * 11) % 4096);
            pixels.append(char(v & 0xff)).append(char(v >> 8));
        }
    const QByteArray header = "(0010,0010) PN [Interop^Test]\n(0010,0020) LO [IX-1]\n"
                              "(0020,000d) UI [1.2.826.0.1.3680043.10.543.9.1]\n";
    const QByteArray cr = header + "(0008,0016) UI =ComputedRadiographyImageStorage\n"
        "(0008,0018) UI [1.2.826.0.1.3680043.10.543.1.1]\n(0008,0060) CS [CR]\n"
        "(0020,000e) UI [1.2.826.0.1.3680043.10.543.1.3]\n(0020,0013) IS [1]\n(0028,0002) US 1\n"
        "(0028,0004) CS [MONOCHROME2]\n(0028,0010) US 32\n(0028,0011) US 32\n(0028,0100) US 16\n"
        "(0028,0101) US 12\n(0028,0102) US 11\n(0028,0103) US 0\n(7fe0,0010) OW =" + path("cr.raw").toUtf8() + "\n";
    const QByteArray rt = header + "(0008,0016) UI =RTStructureSetStorage\n"
        "(0008,0018) UI [1.2.826.0.1.3680043.10.543.2.1]\n(0008,0060) CS [RTSTRUCT]\n"
        "(0020,000e) UI [1.2.826.0.1.3680043.10.543.2.3]\n(3006,0002) SH [Interop]\n(3006,0008) DA [20240305]\n"
        "(3006,0020) SQ (Sequence with undefined length #=1)\n  (fffe,e000) na (Item with undefined length #=3)\n"
        "    (3006,0022) IS [1]\n    (3006,0026) LO [BODY]\n    (3006,0036) CS [MANUAL]\n"
        "  (fffe,e00d) na (ItemDelimitationItem)\n(fffe,e0dd) na (SequenceDelimitationItem)\n"
        "(3006,0039) SQ (Sequence with undefined length #=1)\n  (fffe,e000) na (Item with undefined length #=2)\n"
        "    (3006,0040) SQ (Sequence with undefined length #=1)\n      (fffe,e000) na (Item with undefined length #=3)\n"
        "        (3006,0042) CS [CLOSED_PLANAR]\n        (3006,0046) IS [3]\n        (3006,0050) DS [0\\0\\0\\10\\0\\0\\10\\10\\0]\n"
        "      (fffe,e00d) na (ItemDelimitationItem)\n    (fffe,e0dd) na (SequenceDelimitationItem)\n"
        "    (3006,0084) IS [1]\n  (fffe,e00d) na (ItemDelimitationItem)\n(fffe,e0dd) na (SequenceDelimitationItem)\n";
    const QByteArray sr = header + "(0008,0016) UI =BasicTextSRStorage\n"
        "(0008,0018) UI [1.2.826.0.1.3680043.10.543.3.1]\n(0008,0060) CS [SR]\n"
        "(0020,000e) UI [1.2.826.0.1.3680043.10.543.3.3]\n(0040,a040) CS [CONTAINER]\n"
        "(0040,a043) SQ (Sequence with undefined length #=1)\n  (fffe,e000) na (Item with undefined length #=3)\n"
        "    (0008,0100) SH [11528-7]\n    (0008,0102) SH [LN]\n    (0008,0104) LO [Radiology Report]\n"
        "  (fffe,e00d) na (ItemDelimitationItem)\n(fffe,e0dd) na (SequenceDelimitationItem)\n"
        "(0040,a050) CS [SEPARATE]\n(0040,a491) CS [COMPLETE]\n(0040,a493) CS [UNVERIFIED]\n"
        "(0040,a730) SQ (Sequence with undefined length #=1)\n  (fffe,e000) na (Item with undefined length #=3)\n"
        "    (0040,a010) CS [CONTAINS]\n    (0040,a040) CS [TEXT]\n    (0040,a160) UT [No findings.]\n"
        "  (fffe,e00d) na (ItemDelimitationItem)\n(fffe,e0dd) na (SequenceDelimitationItem)\n";
    const QByteArray pdf = "%PDF-1.4\n1 0 obj << /Type /Catalog /Pages 2 0 R >> endobj\n"
                           "2 0 obj << /Type /Pages /Kids [] /Count 0 >> endobj\ntrailer << /Root 1 0 R >>\n%%EOF\n";
    QImage bitmap(64, 48, QImage::Format_RGB888);
    for (int y = 0; y < 48; ++y)
        for (int x = 0; x < 64; ++x)
            bitmap.setPixel(x, y, qRgb(x * 4, y * 5, (x + y) % 256));
    if (!write("cr.raw", pixels) || !write("cr.txt", cr) || !write("rt.txt", rt) || !write("sr.txt", sr)
        || !write("doc.pdf", pdf) || !bitmap.save(path("us.bmp"), "BMP"))
        return false;
    if (run("dump2dcm", {"-q", path("cr.txt"), path("cr.dcm")}) != 0
        || run("dump2dcm", {"-q", path("rt.txt"), path("rt.dcm")}) != 0
        || run("dump2dcm", {"-q", path("sr.txt"), path("sr.dcm")}) != 0
        || run("img2dcm", {"-q", "-i", "BMP", "--no-checks", "-k", "SOPClassUID=1.2.840.10008.5.1.4.1.1.6.1", "-k",
                           "Modality=US", "-k", "PatientID=IX-1", "-k", "SeriesInstanceUID=1.2.826.0.1.3680043.10.543.4.3",
                           "-k", "SOPInstanceUID=1.2.826.0.1.3680043.10.543.4.1", path("us.bmp"), path("us.dcm")}) != 0
        || run("pdf2dcm", {"-q", "+pn", "Interop^Test", "+pi", "IX-1", "-k", "SeriesInstanceUID=1.2.826.0.1.3680043.10.543.5.3",
                           "-k", "SOPInstanceUID=1.2.826.0.1.3680043.10.543.5.1", path("doc.pdf"), path("pdf.dcm")}) != 0)
        return false;
    const QStringList explicitOnly{"-R", "-xe"};
    m_objects = {{"CR", path("cr.dcm"), explicitOnly, {}},
                 {"US", path("us.dcm"), explicitOnly, {}},
                 {"RT structure set", path("rt.dcm"), explicitOnly, {}},
                 {"basic text SR", path("sr.dcm"), explicitOnly, {}},
                 {"encapsulated PDF", path("pdf.dcm"), explicitOnly, {}},
                 {"enhanced MR", sharedDataPath("pydicom_data/emri_small.dcm"), explicitOnly, {}}};
    const char* const syntaxes[] = {"-xe", "-xi", "-xb", "-xr", "-xs", "-xs", "-xt", "-xt", "-xv"};
    const char* const names[] = {"explicit LE", "implicit LE", "explicit BE", "RLE", "JPEG lossless", "JPEG lossless SV1",
                                 "JPEG-LS lossless", "JPEG-LS lossless 2", "JPEG 2000 lossless"};
    for (int n = 1; n <= 9; ++n)
        m_objects.append({QString("%1.dcm (%2)").arg(n).arg(names[n - 1]),
                          sharedDataPath(QString("transfer_syntaxes/%1.dcm").arg(n)), {"-R", syntaxes[n - 1]}, {}});
    for (TestObject& object : m_objects) {
        object.sopInstanceUID = readSop(object.file);
        if (object.sopInstanceUID.isEmpty())
            return false;
    }
    return true;
}

QString TestInterop::htj2kFile(bool reversible)
{
    const QString source = sharedDataPath("transfer_syntaxes/1.dcm");
    DcmFileFormat format;
    const Uint16* words = nullptr;
    unsigned long count = 0;
    if (format.loadFile(QFile::encodeName(source).constData()).bad()
        || format.getDataset()->findAndGetUint16Array(DCM_PixelData, words, &count).bad() || count != 384 * 384)
        return {};
    Encapsulated layout;
    layout.frames << encodeOpenJph(QVector<quint16>(words, words + count), 384, 384, reversible);
    layout.xfer = reversible ? EXS_JPEG2000LosslessOnly : EXS_JPEG2000;
    layout.tsUid = reversible ? kestrel::internal::kHtj2kLosslessUid : kestrel::internal::kHtj2kUid;
    layout.changes.insert(DCM_SOPInstanceUID, QString("1.2.826.0.1.3680043.10.543.6.%1").arg(reversible));
    const QString target = m_dir.filePath(QString("htj2k-%1.dcm").arg(reversible));
    return writeEncapsulated(source, target, layout) ? target : QString();
}

void TestInterop::initTestCase()
{
    for (const char* tool : {"storescu", "storescp", "dcmsend", "dcmrecv", "dump2dcm", "img2dcm", "pdf2dcm"})
        if (QStandardPaths::findExecutable(tool).isEmpty())
            QSKIP(qPrintable(QString("DCMTK's %1 is not installed").arg(tool)));
    if (sharedDataPath("transfer_syntaxes").isEmpty() || sharedDataPath("pydicom_data").isEmpty())
        QSKIP("the shared data is not there");
    KESTREL_REQUIRE_HOST();
    QVERIFY(makeObjects());
    QCOMPARE(m_objects.size(), 15);
}

void TestInterop::peersToKestrel_data()
{
    QTest::addColumn<QString>("sender");
    QTest::newRow("storescu, each object in its own transfer syntax") << "storescu";
    QTest::newRow("dcmsend, its own syntax beside uncompressed") << "dcmsend";
}

// Both senders to `kestrel listen` and to dcmrecv storing bit for bit: every object is stored,
// byte for byte as dcmrecv stores it from the same input, meta header and the sender's AE title
// included, and the bookkeeping records each of them. storescu offers each object in its own
// syntax alone (dcmrecv with DCMTK's own profile); dcmsend offers it beside uncompressed in one
// presentation context, where the receiver's preference decides (dcmrecv with the profile Kestrel
// ships): uncompressed, decoded by dcmsend without loss.
void TestInterop::peersToKestrel()
{
    QFETCH(QString, sender);
    KESTREL_OPEN_CATALOG(catalog, "sqlite");
    const QString ours = m_dir.filePath(sender + "-kestrel"), theirs = m_dir.filePath(sender + "-dcmrecv");
    QVERIFY(QDir().mkpath(ours) && QDir().mkpath(theirs));
    const int port = freePort();
    HostProcess listen({"--config", catalog.configDir(), "listen", "--port", QString::number(port), "--aet", "KESTREL",
                        "--out", ours, "--import"});
    QVERIFY2(listen.readUntil("listening on port"), qPrintable(listen.out));
    const bool own = sender == "storescu";
    Dcmrecv dcmrecv;
    QVERIFY(dcmrecv.start(theirs, own ? QString("/etc/dcmtk/storescp.cfg") : QCoreApplication::applicationDirPath() + "/../dicom/storscp.cfg",
                          "Default", {"+B"}));
    for (int target : {port, dcmrecv.port}) {
        if (own) {
            for (const TestObject& object : qAsConst(m_objects))
                QCOMPARE(run("storescu", object.storescuOptions + QStringList{"-aec", "KESTREL", "127.0.0.1",
                                                                               QString::number(target), object.file}), 0);
        } else {
            QCOMPARE(run("dcmsend", QStringList{"-aec", "KESTREL", "127.0.0.1", QString::number(target)} + files()), 0);
        }
    }
    QVERIFY2(listen.readUntil("stored ", m_objects.size()), qPrintable(listen.out));
    const QMap<QString, QString> received = bySop(ours), reference = bySop(theirs);
    for (const TestObject& object : qAsConst(m_objects)) {
        const QString file = received.value(object.sopInstanceUID);
        QVERIFY2(!file.isEmpty(), qPrintable(object.name + " was not stored"));
        QVERIFY2(bytesOf(file) == bytesOf(reference.value(object.sopInstanceUID)),
                 qPrintable(object.name + ": not the bytes dcmrecv stored"));
        QCOMPARE(metaValue(file, DCM_SourceApplicationEntityTitle), own ? QString("STORESCU") : QString("DCMSEND"));
        // Whatever the syntax on the way, the object is the one sent.
        QVERIFY2(canonical(file, scratch()) == canonical(object.file, scratch()), qPrintable(object.name));
        if (own)
            m_dcmtkReceived.insert(object.sopInstanceUID, datasetBytes(reference.value(object.sopInstanceUID)));
        else if (!object.file.endsWith("/9.dcm")) // dcmsend has no JPEG 2000 decoder
            QCOMPARE(metaValue(file, DCM_TransferSyntaxUID), QString(UID_LittleEndianExplicitTransferSyntax));
    }
    QCOMPARE(received.size(), m_objects.size());
    // Every object is in the bookkeeping, those the catalogue cannot show (no pixels, other
    // modalities, multi-frame) included, and the importer went through all of them.
    QCOMPARE(listen.stop(), 0);
    QVERIFY2(listen.out.endsWith("stopped\n"), qPrintable(listen.out));
    QCOMPARE(TestCatalog::count("images"), m_objects.size());
    QCOMPARE(TestCatalog::count("images", "DBflag = 0"), TestCatalog::count("images") - TestCatalog::count("imagepixel"));
    QVERIFY(TestCatalog::count("imagepixel") >= 10);
}

// `kestrel send` to storescp, which takes uncompressed data only: every object arrives,
// compressed ones decoded without loss on the way (JPEG 2000 by our decoder), and an HTJ2K file,
// which DCMTK cannot carry at all, too.
void TestInterop::kestrelToStorescp()
{
    const QString out = m_dir.filePath("storescp");
    QVERIFY(QDir().mkpath(out));
    Storescp storescp;
    QVERIFY(storescp.start(out));
    QList<TestObject> objects = m_objects;
    objects.append({"HTJ2K lossless", htj2kFile(true), {}, "1.2.826.0.1.3680043.10.543.6.1"});
    QVERIFY(!objects.last().file.isEmpty());
    QStringList all = files();
    all << objects.last().file;
    const HostRun send = runHost(QStringList{"send", "--port", QString::number(storescp.port), "--aet", "PEER"} + all, QString(),
                                 peerEnvironment(), 60000);
    QCOMPARE(send.exitCode, 0);
    QVERIFY2(send.out.endsWith(QString("sent %1, refused 0\n").arg(objects.size())), qPrintable(send.out));
    QTRY_COMPARE_WITH_TIMEOUT(bySop(out).size(), objects.size(), 10000);
    const QMap<QString, QString> received = bySop(out);
    for (const TestObject& object : qAsConst(objects)) {
        const QString file = received.value(object.sopInstanceUID);
        QVERIFY2(!file.isEmpty(), qPrintable(object.name + " did not arrive"));
        QVERIFY2(DcmXfer(metaValue(file, DCM_TransferSyntaxUID).toLatin1().constData()).isNotEncapsulated(),
                 qPrintable(object.name));
        QVERIFY2(canonical(file, scratch()) == canonical(object.file, scratch()),
                 qPrintable(object.name + " did not arrive as it was"));
    }
}

// `kestrel send` to dcmrecv (DCMTK's profile, which takes the compressed syntaxes): every object
// arrives as sent, compressed ones in their own transfer syntax, the data set the bytes storescu
// delivers from the same file.
void TestInterop::kestrelToDcmrecv()
{
    const QString out = m_dir.filePath("dcmrecv");
    QVERIFY(QDir().mkpath(out));
    Dcmrecv dcmrecv;
    QVERIFY(dcmrecv.start(out, "/etc/dcmtk/storescp.cfg", "Default", {"+B"}));
    const HostRun send = runHost(QStringList{"send", "--port", QString::number(dcmrecv.port), "--aet", "KESTREL"} + files(),
                                 QString(), peerEnvironment(), 60000);
    QCOMPARE(send.exitCode, 0);
    QVERIFY2(send.out.endsWith(QString("sent %1, refused 0\n").arg(m_objects.size())), qPrintable(send.out));
    QTRY_COMPARE_WITH_TIMEOUT(bySop(out).size(), m_objects.size(), 10000);
    const QMap<QString, QString> received = bySop(out);
    for (const TestObject& object : qAsConst(m_objects)) {
        const QString file = received.value(object.sopInstanceUID);
        QVERIFY2(!file.isEmpty(), qPrintable(object.name + " did not arrive"));
        // Compressed objects keep their syntax. An uncompressed one is offered in all three
        // uncompressed syntaxes at once, and dcmrecv picks explicit little endian.
        const QString sent = metaValue(object.file, DCM_TransferSyntaxUID), arrived = metaValue(file, DCM_TransferSyntaxUID);
        if (DcmXfer(sent.toLatin1().constData()).isEncapsulated())
            QCOMPARE(arrived, sent);
        else
            QVERIFY(DcmXfer(arrived.toLatin1().constData()).isNotEncapsulated());
        QCOMPARE(metaValue(file, DCM_SourceApplicationEntityTitle), QString("KESTREL"));
        if (arrived == sent && m_dcmtkReceived.contains(object.sopInstanceUID))
            QVERIFY2(datasetBytes(file) == m_dcmtkReceived.value(object.sopInstanceUID),
                     qPrintable(object.name + ": not the data set storescu delivers"));
        QVERIFY2(canonical(file, scratch()) == canonical(object.file, scratch()), qPrintable(object.name));
    }
    QCOMPARE(m_dcmtkReceived.size(), m_objects.size());
}

// A peer that refuses objects: one by its C-STORE status (storescp cannot write it: Out of
// Resources), one for want of a presentation context (a profile without SR); lossy HTJ2K is not
// decompressed to be sent; two files cannot be read at all. `kestrel send` delivers the rest,
// names each of the five and exits 1.
void TestInterop::refusalsAreNamed()
{
    const QString out = m_dir.filePath("refusing");
    QVERIFY(QDir().mkpath(out));
    const TestObject& cr = m_objects.at(0);
    QCOMPARE(cr.name, QString("CR"));
    // storescp names its files <modality>.<SOP Instance UID>: a folder there refuses the CR.
    QVERIFY(QDir().mkpath(out + "/CR." + cr.sopInstanceUID));
    const QString profile = m_dir.filePath("no-sr.cfg");
    QFile cfg(profile);
    QVERIFY(cfg.open(QIODevice::WriteOnly));
    cfg.write("[[TransferSyntaxes]]\n[Uncompressed]\nTransferSyntax1 = LittleEndianExplicit\n"
              "TransferSyntax2 = LittleEndianImplicit\n[[PresentationContexts]]\n[Contexts]\n"
              "PresentationContext1 = ComputedRadiographyImageStorage\\Uncompressed\n"
              "PresentationContext2 = MRImageStorage\\Uncompressed\n[[Profiles]]\n[NoSR]\nPresentationContexts = Contexts\n");
    cfg.close();
    Storescp storescp;
    QVERIFY(storescp.start(out, {"-xf", profile, "NoSR"}));
    const QString junk = m_dir.filePath("junk.dcm");
    QFile(junk).open(QIODevice::WriteOnly);
    const QString noSop = m_dir.filePath("no-sop.dcm");
    {
        DcmFileFormat format;
        QVERIFY(format.loadFile(QFile::encodeName(m_objects.at(6).file).constData()).good());
        delete format.getDataset()->remove(DCM_SOPInstanceUID);
        QVERIFY(format.saveFile(QFile::encodeName(noSop).constData(), EXS_Unknown, EET_ExplicitLength, EGL_recalcGL,
                                EPD_noChange, 0, 0, EWM_dontUpdateMeta).good());
    }
    const TestObject& sr = m_objects.at(3);
    const TestObject& mr = m_objects.at(6);
    const QString lossy = htj2kFile(false);
    QVERIFY(!lossy.isEmpty());
    const HostRun send = runHost({"send", "--port", QString::number(storescp.port), "--aet", "PEER", cr.file, noSop, sr.file,
                                  junk, mr.file, lossy},
                                 QString(), peerEnvironment(), 60000);
    const QString &printed = send.out, &errors = send.err;
    QCOMPARE(send.exitCode, 1);
    const QString lossyReason = "HTJ2K cannot be sent over this network, and its lossy pixels are not decompressed for it";
    QVERIFY2(printed.endsWith("sent 1, refused 3 (" + lossyReason + "; Refused: OutOfResources (0xa700); the peer "
                              "takes no BasicTextSRStorage in Little Endian Explicit), skipped 2 unreadable\n"),
             qPrintable(printed));
    for (const QString& expected : {"refused " + cr.file + ": Refused: OutOfResources (0xa700)",
                                    "refused " + sr.file + ": the peer takes no BasicTextSRStorage",
                                    "refused " + lossy + ": " + lossyReason,
                                    "skipped " + junk + ": not a readable DICOM file",
                                    "skipped " + noSop + ": no SOP Instance UID in its data set"})
        QVERIFY2(errors.contains(expected), qPrintable(errors));
    QVERIFY2(errors.contains("kestrel send: 5 of 6 files did not arrive"), qPrintable(errors));
    QTRY_COMPARE_WITH_TIMEOUT(bySop(out).keys(), QStringList{mr.sopInstanceUID}, 10000);
}

// C-ECHO from the host: a node that answers, one that is not there.
void TestInterop::echo()
{
    Storescp storescp;
    QVERIFY(storescp.start(m_dir.path()));
    HostRun echo = runHost({"echo", "--port", QString::number(storescp.port), "--aet", "PEER"});
    QCOMPARE(echo.exitCode, 0);
    QVERIFY(echo.out.startsWith(QString("PEER at 127.0.0.1:%1 answers (").arg(storescp.port)));
    echo = runHost({"echo", "--port", QString::number(freePort()), "--aet", "PEER"});
    QCOMPARE(echo.exitCode, 1);
    QVERIFY(echo.err.contains("does not answer"));
}

QTEST_GUILESS_MAIN(TestInterop)
#include "tst_interop.moc"
