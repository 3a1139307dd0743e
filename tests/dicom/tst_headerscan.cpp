// The header scan against DCMTK: what it reads must be what DCMTK reads, value by value and record
// by record, and what it cannot read so must be left to DCMTK.
#include "encodedpixels.h"
#include "syntheticdicom.h"
#include "testcatalog.h"

#include "dicom/dcmvalues_p.h"
#include "dicom/headerscan_p.h"
#include "import/headerread_p.h"
#include "import/imagerecordfill_p.h"
#include "import/importplan_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcitem.h>
#include <dcmtk/dcmdata/dcsequen.h>
#include <dcmtk/oflog/oflog.h>

#include <QDirIterator>
#include <QTemporaryDir>
#include <QtTest>

using kestrel::internal::HeaderScan;
using kestrel::internal::dcmTagCode;
namespace import = kestrel::internal::import;

namespace {

// Raw explicit VR little endian bytes, for files DCMTK's writer would not make.
struct Raw {
    QByteArray bytes;
    Raw& u16(quint16 v) { bytes.append(char(v & 0xFF)).append(char(v >> 8)); return *this; }
    Raw& u32(quint32 v) { return u16(quint16(v & 0xFFFF)).u16(quint16(v >> 16)); }
    Raw& element(quint16 group, quint16 element, const char* vr, const QByteArray& value, quint32 length = 0)
    {
        u16(group).u16(element);
        bytes.append(vr, 2);
        const QByteArray longVrs("OBODOFOLOVOWSQSVUCUNURUTUV");
        bool isLong = false;
        for (int i = 0; i < longVrs.size(); i += 2)
            isLong = isLong || (longVrs[i] == vr[0] && longVrs[i + 1] == vr[1]);
        const quint32 size = length ? length : quint32(value.size());
        if (isLong)
            u16(0).u32(size);
        else
            u16(quint16(size));
        bytes.append(value);
        return *this;
    }
    Raw& mark(quint16 element, quint32 length) { return u16(0xFFFE).u16(element).u32(length); }
};

const QByteArray kMrClass("1.2.840.10008.5.1.4.1.1.4");

// Preamble, meta header with transfer syntax TS, and the data set's SOP class.
Raw fileStart(const QByteArray& ts = "1.2.840.10008.1.2.1")
{
    QByteArray tsValue = ts;
    if (tsValue.size() % 2)
        tsValue.append('\0');
    Raw meta;
    meta.element(2, 1, "OB", QByteArray("\0\1", 2))
            .element(2, 2, "UI", kMrClass + '\0')
            .element(2, 3, "UI", QByteArray("1.2.3.40"))
            .element(2, 0x10, "UI", tsValue);
    Raw file;
    file.bytes = QByteArray(128, '\0') + "DICM";
    file.u16(2).u16(0).u16('U' | ('L' << 8)).u16(4).u32(quint32(meta.bytes.size()));
    file.bytes.append(meta.bytes);
    file.element(8, 0x16, "UI", kMrClass + '\0');
    return file;
}

bool save(const QString& path, const QByteArray& bytes)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(bytes) == bytes.size();
}

QByteArray encoded(const QString& path)
{
    return QFile::encodeName(path);
}

// Everything the import reads from one file, as text, through DCMTK or through the scan.
QStringList importView(const import::FileFacts& facts, const ImageFormat& format, const ImagePix& pix, const MRImageInfo& info)
{
    QStringList out{"sop " + facts.sopInstanceUID, "series " + facts.seriesUID, "study " + facts.studyUID,
                    "number " + QString::number(facts.instanceNumber), "record sop " + format.sopInstanceUID,
                    "thickness " + QString::number(pix.sliceThickness), "location " + QString::number(pix.sliceLocation)};
    const QList<QPair<QString, const ImageRecord*>> records{{"imageformat", &format}, {"imagepixel", &pix}, {"mrimageinfo", &info}};
    for (const auto& [table, record] : records)
        for (int i = 0; i < record->values.size(); ++i) {
            const QVariant& v = record->values.at(i);
            out << QString("%1[%2] %3 %4").arg(table).arg(i).arg(v.isNull() ? "null" : v.typeName(), v.toString());
        }
    return out;
}

bool readByDcmtk(const QString& path, QStringList* view)
{
    DcmFileFormat file;
    if (file.loadFile(encoded(path).constData(), EXS_Unknown, EGL_noChange, 1024).bad())
        return false;
    import::FileFacts facts;
    import::readFacts(file.getDataset(), facts);
    ImageFormat format;
    ImagePix pix;
    MRImageInfo info;
    format.filePath = path;
    kestrel::internal::readImageRecords(&format, &pix, &info, file.getDataset());
    *view = importView(facts, format, pix, info);
    return true;
}

HeaderScan importScan()
{
    return import::makeScans(1).front();
}

bool readByScan(HeaderScan& scan, const QString& path, QStringList* view)
{
    import::FileFacts facts;
    if (!scan.scan(encoded(path)) || !import::readFacts(scan, facts))
        return false;
    ImageFormat format;
    ImagePix pix;
    MRImageInfo info;
    format.filePath = path;
    kestrel::internal::readImageRecords(&format, &pix, &info, scan);
    *view = importView(facts, format, pix, info);
    return true;
}

// Every file the scan reads reads the same through DCMTK; returns how many it read.
int compareFiles(const QStringList& files)
{
    HeaderScan scan = importScan();
    int scanned = 0;
    for (const QString& path : files) {
        QStringList fast, slow;
        if (!readByScan(scan, path, &fast))
            continue;
        ++scanned;
        if (!readByDcmtk(path, &slow)) {
            qWarning() << "the scan reads a file DCMTK does not:" << path;
            return -1;
        }
        if (fast != slow) {
            for (int i = 0; i < qMin(fast.size(), slow.size()); ++i)
                if (fast[i] != slow[i])
                    qWarning() << path << "scan:" << fast[i] << "DCMTK:" << slow[i];
            return -1;
        }
    }
    return scanned;
}

} // namespace

class TestHeaderScan : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { OFLog::configure(OFLogger::FATAL_LOG_LEVEL); }

    // One value of each kind through both readers: every value, and the first and second alone.
    void valuesAsDcmtk_data()
    {
        QTest::addColumn<QByteArray>("vr");
        QTest::addColumn<quint32>("tag");
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<bool>("scanned"); // the scan must read it (else it may leave it to DCMTK)
        const struct {
            const char* vr;
            DcmTagKey tag;
        } kinds[] = {{"AE", DCM_RetrieveAETitle}, {"AS", DCM_PatientAge}, {"CS", DCM_Modality}, {"DA", DCM_StudyDate},
                     {"DS", DCM_PixelSpacing}, {"DT", DCM_AcquisitionDateTime}, {"IS", DCM_SeriesNumber},
                     {"LO", DCM_InstitutionName}, {"LT", DCM_ImageComments}, {"PN", DCM_PatientName},
                     {"SH", DCM_StationName}, {"ST", DCM_InstitutionAddress}, {"TM", DCM_StudyTime},
                     {"UC", DCM_StrainAdditionalInformation}, {"UI", DCM_SeriesInstanceUID}, {"UT", DCM_TextValue},
                     {"UR", DCM_RetrieveURL}};
        const struct {
            const char* name;
            QByteArray value;
            bool clean;
        } values[] = {{"plain", "ab", true},
                      {"trailing spaces", "ab  ", true},
                      {"spaces around values", " a \\  b  \\c ", true},
                      {"empty values", "\\\\x ", true},
                      {"only spaces", "    ", true},
                      {"tab", "ab\t ", true},
                      {"inner NUL", QByteArray("a\0b ", 4), true},
                      {"NUL padding", QByteArray("ab\0\0", 4), true},
                      {"space then NUL", QByteArray("ab \0", 4), true},
                      {"NUL then space", QByteArray("a \0\\b ", 6), true},
                      {"empty", "", true}};
        for (const auto& kind : kinds)
            for (const auto& value : values) {
                const bool uid = qstrcmp(kind.vr, "UI") == 0;
                // White space and NULs inside a UID are DCMTK's to drop (with a warning).
                QByteArray inside = value.value;
                while (inside.endsWith(' ') || inside.endsWith('\0'))
                    inside.chop(1);
                const bool clean = value.clean && !(uid && (inside.contains(' ') || inside.contains('\t') || inside.contains('\0')));
                QTest::addRow("%s %s", kind.vr, value.name) << QByteArray(kind.vr) << dcmTagCode(kind.tag) << value.value << clean;
            }
        QTest::addRow("UI NUL padding") << QByteArray("UI") << dcmTagCode(DCM_SeriesInstanceUID) << QByteArray("1.2.3\0", 6) << true;
        const auto le16 = [](std::initializer_list<int> values) {
            QByteArray out;
            for (int v : values)
                out.append(char(v & 0xFF)).append(char((v >> 8) & 0xFF));
            return out;
        };
        QTest::addRow("US") << QByteArray("US") << dcmTagCode(DCM_Rows) << le16({512, 65535}) << true;
        QTest::addRow("SS") << QByteArray("SS") << dcmTagCode(DCM_SmallestImagePixelValue) << le16({-1, -32768}) << true;
        QTest::addRow("UL") << QByteArray("UL") << dcmTagCode(DCM_SimpleFrameList) << le16({0xFFFF, 0xFFFF, 7, 0}) << true;
        QTest::addRow("SL") << QByteArray("SL") << dcmTagCode(DCM_ReferencePixelX0) << le16({0xFFFE, 0xFFFF}) << true;
        QTest::addRow("US odd length") << QByteArray("US") << dcmTagCode(DCM_Rows) << QByteArray("\1\2\3", 3) << false;
        QTest::addRow("FD (left to DCMTK)") << QByteArray("FD") << dcmTagCode(DCM_ImagingFrequency) << QByteArray(8, '\1') << false;
        QTest::addRow("text as OB") << QByteArray("OB") << dcmTagCode(DCM_InstitutionName) << QByteArray("ab") << false;
    }
    void valuesAsDcmtk()
    {
        QFETCH(QByteArray, vr);
        QFETCH(quint32, tag);
        QFETCH(QByteArray, value);
        QFETCH(bool, scanned);
        QTemporaryDir dir;
        const QString path = dir.filePath("v.dcm");
        Raw file = fileStart();
        file.element(quint16(tag >> 16), quint16(tag & 0xFFFF), vr.constData(), value + (value.size() % 2 ? QByteArray(" ") : QByteArray()));
        QVERIFY(save(path, file.bytes));

        HeaderScan scan;
        scan.setWanted({tag});
        const bool read = scan.scan(encoded(path));
        if (scanned)
            QVERIFY(read);
        if (!read)
            return;
        DcmFileFormat dcm;
        QVERIFY(dcm.loadFile(encoded(path).constData(), EXS_Unknown, EGL_noChange, 1024).good());
        DcmElement* element = nullptr;
        QVERIFY(dcm.getDataset()->findAndGetElement(DcmTagKey(quint16(tag >> 16), quint16(tag & 0xFFFF)), element).good());
        const HeaderScan::Value* kept = scan.find(tag);
        QVERIFY(kept);
        for (int pos = -1; pos < 3; ++pos) {
            OFString theirs;
            const bool theyHave = (pos < 0 ? element->getOFStringArray(theirs) : element->getOFString(theirs, pos)).good();
            std::string ours;
            const bool weHave = HeaderScan::text(*kept, pos, &ours);
            if (theyHave != weHave)
                qWarning() << pos << theyHave << theirs.c_str();
            if (theyHave || weHave) {
                QCOMPARE(weHave, theyHave || (pos == 0 && theirs.empty()));
                QCOMPARE(QByteArray::fromStdString(ours), QByteArray(theirs.c_str(), int(theirs.length())));
            }
        }
    }

    // Files the scan must leave to DCMTK: other encodings, and structures DCMTK reads its own way.
    void declines_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        const QByteArray pixels(64, '\7');
        auto withPixels = [&](Raw r) { return r.element(0x7FE0, 0x10, "OW", pixels).bytes; };
        QTest::addRow("no preamble") << fileStart().bytes.mid(132);
        QTest::addRow("explicit VR data set under an implicit VR header") << withPixels(fileStart("1.2.840.10008.1.2"));
        QTest::addRow("big endian") << withPixels(fileStart("1.2.840.10008.1.2.2"));
        QTest::addRow("deflated") << withPixels(fileStart("1.2.840.10008.1.2.1.99"));
        QTest::addRow("odd length") << withPixels(fileStart().element(0x10, 0x10, "PN", "abc"));
        QTest::addRow("out of order") << withPixels(fileStart().element(0x20, 0x0e, "UI", "1.2").element(0x10, 0x10, "PN", "ab"));
        QTest::addRow("twice") << withPixels(fileStart().element(0x10, 0x10, "PN", "ab").element(0x10, 0x10, "PN", "cd"));
        QTest::addRow("unknown VR") << withPixels(fileStart().element(0x10, 0x10, "ZZ", "ab"));
        QTest::addRow("UN of undefined length")
                << withPixels(fileStart().element(0x29, 0x10, "UN", QByteArray(), 0xFFFFFFFF).mark(0xE0DD, 0));
        QTest::addRow("item at the top") << withPixels(fileStart().mark(0xE000, 0));
        QTest::addRow("cut in a header") << fileStart().element(0x10, 0x10, "PN", "ab").bytes.chopped(3);
        QTest::addRow("cut in the pixel data") << withPixels(fileStart()).chopped(2);
        QTest::addRow("bytes after the pixel data") << withPixels(fileStart()) + QByteArray(8, '\0');
        QTest::addRow("element out of order after the pixel data")
                << Raw{withPixels(fileStart())}.element(0x10, 0x10, "PN", "ab").bytes;
        QTest::addRow("sequence longer than its items")
                << withPixels(fileStart().element(0x08, 0x1140, "SQ", QByteArray(), 16).mark(0xE000, 0));
        QTest::addRow("sequence without its end")
                << fileStart().element(0x08, 0x1140, "SQ", QByteArray(), 0xFFFFFFFF).mark(0xE000, 0xFFFFFFFF).bytes;
        QTest::addRow("fragments in an uncompressed file")
                << fileStart().element(0x7FE0, 0x10, "OB", QByteArray(), 0xFFFFFFFF).mark(0xE000, 0).mark(0xE0DD, 0).bytes;
    }
    void declines()
    {
        QFETCH(QByteArray, bytes);
        QTemporaryDir dir;
        const QString path = dir.filePath("d.dcm");
        QVERIFY(save(path, bytes));
        HeaderScan scan = importScan();
        QVERIFY(!scan.scan(encoded(path)));
        QVERIFY(scan.values().empty());
        QVERIFY(!scan.scan(encoded(dir.filePath("missing.dcm"))));
    }

    // Sequences nested both ways (a private one too) in explicit and implicit VR, compressed pixel
    // data, padding after the pixel data and NUL-padded text are read, not left to DCMTK; the
    // records are DCMTK's.
    void structures()
    {
        QTemporaryDir dir;
        SyntheticImage image;
        image.specificCharacterSet = "ISO_IR 100";
        image.patientNameBytes = "M\xfcller^J\xfcrgen";
        image.extra = {{DCM_InstitutionName, "Klinik \xc4rzte"}, {DCM_EchoTime, " 12.5 "}, {DCM_InstanceNumber, " 7 "}};
        const QString plain = dir.filePath("plain.dcm");
        QVERIFY(writeSyntheticImage(plain, image));
        QStringList files{plain};
        for (const E_TransferSyntax xfer : {EXS_LittleEndianExplicit, EXS_LittleEndianImplicit})
        for (const E_EncodingType lengths : {EET_ExplicitLength, EET_UndefinedLength}) {
            DcmFileFormat file;
            QVERIFY(file.loadFile(encoded(plain).constData()).good());
            DcmItem* outer = nullptr;
            QVERIFY(file.getDataset()->findOrCreateSequenceItem(DCM_ReferencedImageSequence, outer, -2).good());
            outer->putAndInsertString(DCM_ReferencedSOPInstanceUID, "1.2.3.4.5");
            DcmItem* inner = nullptr;
            QVERIFY(outer->findOrCreateSequenceItem(DCM_PurposeOfReferenceCodeSequence, inner, -2).good());
            inner->putAndInsertString(DCM_CodeMeaning, "x");
            DcmItem* empty = nullptr;
            QVERIFY(file.getDataset()->findOrCreateSequenceItem(DCM_SourceImageSequence, empty, -2).good());
            if (xfer == EXS_LittleEndianImplicit) {
                // A private sequence, known to DCMTK's dictionary under its creator only.
                file.getDataset()->putAndInsertString(DcmTagKey(0x0009, 0x0010), "DCMTK_ANONYMIZER");
                DcmItem* map = nullptr;
                QVERIFY(file.getDataset()->findOrCreateSequenceItem(DcmTagKey(0x0009, 0x1000), map, -2).good());
                map->putAndInsertString(DCM_ReferencedSOPInstanceUID, "1.2.3.4.6");
            }
            const QString path = dir.filePath(QString("%1-%2.dcm").arg(xfer).arg(lengths));
            QVERIFY(file.saveFile(encoded(path).constData(), xfer, lengths).good());
            files << path;
        }
        QFile plainFile(plain);
        QVERIFY(plainFile.open(QIODevice::ReadOnly));
        const QString padded = dir.filePath("padded.dcm");
        QVERIFY(save(padded, Raw{plainFile.readAll()}.element(0xFFFC, 0xFFFC, "OB", QByteArray(16, '\0')).bytes));
        files << padded;
        // Text padded with NULs, as some writers pad it: the records still read as DCMTK's.
        const QString nulPadded = dir.filePath("nulpadded.dcm");
        QVERIFY(save(nulPadded, fileStart()
                                        .element(0x08, 0x18, "UI", QByteArray("1.2.3.4.7\0", 10))
                                        .element(0x08, 0x60, "CS", QByteArray("MR", 2))
                                        .element(0x08, 0x80, "LO", QByteArray("Klinik\0\0", 8))
                                        .element(0x10, 0x10, "PN", QByteArray("A^B \0 ", 6))
                                        .element(0x10, 0x20, "LO", QByteArray("ID7\0", 4))
                                        .element(0x18, 0x50, "DS", QByteArray("1.5\0\0\0", 6))
                                        .element(0x20, 0x0d, "UI", QByteArray("1.2.3.5\0", 8))
                                        .element(0x20, 0x0e, "UI", QByteArray("1.2.3.6\0", 8))
                                        .element(0x20, 0x13, "IS", QByteArray("3\0", 2))
                                        .element(0x20, 0x32, "DS", QByteArray("1\\2\0\\3\0", 8))
                                        .element(0x7FE0, 0x10, "OW", QByteArray(32, '\1'))
                                        .bytes));
        files << nulPadded;
        Encapsulated layout;
        layout.frames << encodeOpenJpeg(QVector<quint16>(32 * 32, 100), 32, 32, 1, false);
        layout.pieces = 3;
        layout.offsetTable = true;
        const QString compressed = dir.filePath("compressed.dcm");
        QVERIFY(writeEncapsulated(plain, compressed, layout));
        files << compressed;
        QCOMPARE(compareFiles(files), files.size());
    }

    // Real files of several makers and synthetic series in several character sets: whatever the
    // scan reads, it reads as DCMTK does, and it reads the common ones.
    void filesAsDcmtk()
    {
        QTemporaryDir dir;
        QStringList synthetic;
        const QList<QPair<QString, QByteArray>> names{
                {"ISO_IR 100", "D\xe9j\xe0^Zo\xeb"}, {"ISO_IR 192", "\xe7\x8e\x8b^\xe5\xb0\x8f\xe6\x98\x8e"},
                {"GB18030", "\xcd\xf5^\xd0\xa1\xc3\xf7"}, {"", "O'Brien^Ann"}};
        for (int i = 0; i < names.size(); ++i) {
            SyntheticImage image;
            image.specificCharacterSet = names[i].first;
            image.patientNameBytes = names[i].second;
            image.extra = {{DCM_StudyDescription, "Kopf \\ Hals "}, {DCM_SliceLocation, "-12.50"}};
            synthetic << writeSyntheticSeries(dir.filePath(QString::number(i)), image, 3);
        }
        QCOMPARE(compareFiles(synthetic), synthetic.size());

        const QString shared = sharedDataPath();
        if (shared.isEmpty())
            QSKIP("no shared data: synthetic files only");
        QStringList real;
        for (QDirIterator it(shared, QDir::Files, QDirIterator::Subdirectories); it.hasNext();)
            real << it.next();
        const int scanned = compareFiles(real);
        QVERIFY2(scanned >= 0, "a file read differently (see the warnings)");
        qInfo() << scanned << "of" << real.size() << "shared files read by the scan, the rest by DCMTK";
        QVERIFY(scanned > 0);
    }
};

QTEST_GUILESS_MAIN(TestHeaderScan)
#include "tst_headerscan.moc"
