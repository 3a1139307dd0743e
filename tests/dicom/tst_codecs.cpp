#include "encodedpixels.h"
#include "seriesfromfiles.h"
#include "testcatalog.h"

#include "dicom/codecs_p.h"
#include "dicom/jpeg2000codec_p.h"
#include "dicom/jpeg2000stream_p.h"
#include "ndicomimage.h"
#include "ndicomvolume.h"
#include "qseries.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcmetinf.h>
#include <dcmtk/dcmdata/dcpixel.h>
#include <dcmtk/dcmdata/dcpixseq.h>
#include <dcmtk/dcmdata/dcpxitem.h>
#include <dcmtk/dcmdata/dcuid.h>
#include <dcmtk/dcmimgle/dcmimage.h>


#include <QtEndian>
#include <QtTest>

#include <cmath>
#include <cstring>

using namespace kestrel::internal;

namespace {

QString transferSyntaxFile(int n)
{
    const QString dir = sharedDataPath("transfer_syntaxes");
    return dir.isEmpty() ? QString() : QString("%1/%2.dcm").arg(dir).arg(n);
}

// Stored values as a viewer gets them: NDicomImage read from the file.
QVector<quint16> imagePixels(const QString& file, QString* note = nullptr)
{
    NDicomImage image;
    if (!image.readReferenceFileInfo(file, true) || !image.data())
        return {};
    if (note)
        *note = image.getLossyNote();
    const quint16* words = reinterpret_cast<const quint16*>(image.data());
    return QVector<quint16>(words, words + image.width() * image.height());
}

// The raw uncompressed pixel data of FILE, decoded by DCMTK's own chooseRepresentation.
QByteArray decodedPixelData(const QString& file, QString* photometric = nullptr)
{
    DcmFileFormat format;
    if (loadPixelFile(format, file).bad())
        return {};
    DcmDataset* ds = format.getDataset();
    if (ds->chooseRepresentation(EXS_LittleEndianExplicit, nullptr).bad())
        return {};
    DcmElement* element = nullptr;
    Uint8* bytes = nullptr;
    if (ds->findAndGetElement(DCM_PixelData, element).bad() || element->getUint8Array(bytes).bad() || !bytes)
        return {};
    if (photometric) {
        OFString value;
        ds->findAndGetOFString(DCM_PhotometricInterpretation, value);
        *photometric = value.c_str();
    }
    return QByteArray(reinterpret_cast<const char*>(bytes), int(element->getLength()));
}

QByteArray firstFragment(const QString& file)
{
    DcmFileFormat format;
    DcmPixelData* pixelData = nullptr;
    DcmElement* element = nullptr;
    if (loadPixelFile(format, file, DCM_MaxReadLength).bad()
        || format.getDataset()->findAndGetElement(DCM_PixelData, element).bad())
        return {};
    pixelData = static_cast<DcmPixelData*>(element);
    DcmPixelSequence* sequence = nullptr;
    E_TransferSyntax xfer = EXS_Unknown;
    const DcmRepresentationParameter* parameter = nullptr;
    pixelData->getOriginalRepresentationKey(xfer, parameter);
    DcmPixelItem* item = nullptr;
    Uint8* bytes = nullptr;
    if (pixelData->getEncapsulatedRepresentation(xfer, parameter, sequence).bad() || sequence->getItem(item, 1).bad()
        || item->getUint8Array(bytes).bad())
        return {};
    return QByteArray(reinterpret_cast<const char*>(bytes), int(item->getLength()));
}

QVector<quint16> wordsOf(const QByteArray& bytes)
{
    const quint16* words = reinterpret_cast<const quint16*>(bytes.constData());
    return QVector<quint16>(words, words + bytes.size() / 2);
}

} // namespace

class TestCodecs : public QObject
{
    Q_OBJECT

    QVector<quint16> m_reference; // 1.dcm as NDicomImage reads it
    QTemporaryDir m_dir;

private slots:
    void initTestCase()
    {
        if (transferSyntaxFile(1).isEmpty())
            QSKIP("the shared transfer_syntaxes files are not there");
        m_reference = imagePixels(transferSyntaxFile(1));
        QCOMPARE(m_reference.size(), 384 * 384);
        // The reference is the file's pixel data itself.
        QCOMPARE(wordsOf(decodedPixelData(transferSyntaxFile(1))), m_reference);
    }

    // Each of the nine encodings, read by the image a viewer shows and by the volume builder, holds
    // the stored values of 1.dcm, pixel for pixel; none of them is called lossy.
    void transferSyntaxes_data()
    {
        QTest::addColumn<int>("number");
        const char* names[] = {"explicit little endian", "implicit little endian", "explicit big endian", "RLE",
                               "JPEG lossless SV1", "JPEG lossless SV1 (second)", "JPEG-LS lossless",
                               "JPEG-LS lossless (second)", "JPEG 2000 lossless"};
        for (int n = 1; n <= 9; ++n)
            QTest::newRow(names[n - 1]) << n;
    }
    void transferSyntaxes()
    {
        QFETCH(int, number);
        const QString file = transferSyntaxFile(number);
        QString note = "unset";
        QCOMPARE(imagePixels(file, &note), m_reference);
        QCOMPARE(note, QString());

        // The volume path: two slices made from this file (positions 4 mm apart, the pixel data
        // kept as it is encoded).
        QStringList slices;
        for (int k = 0; k < 2; ++k) {
            DcmFileFormat format;
            QVERIFY(loadPixelFile(format, file, DCM_MaxReadLength).good());
            DcmDataset* ds = format.getDataset();
            ds->putAndInsertString(DCM_ImagePositionPatient, QString("0\\0\\%1").arg(4 * k).toLatin1().constData());
            ds->putAndInsertString(DCM_SOPInstanceUID, QString("1.2.826.0.1.3680043.10.1%1.%2").arg(number).arg(k).toLatin1().constData());
            ds->putAndInsertString(DCM_InstanceNumber, QByteArray::number(k + 1).constData());
            slices << m_dir.filePath(QString("volume-%1-%2.dcm").arg(number).arg(k));
            QVERIFY(format.saveFile(QFile::encodeName(slices.last()).constData()).good());
        }
        QObject owner;
        NDicomVolume volume;
        volume.loadSeries(seriesFromFiles(slices, 7, &owner));
        QVERIFY(volume.isValid());
        QCOMPARE(volume.geSize()[2], 2);
        for (int k = 0; k < 2; ++k) {
            int differing = 0;
            for (int y = 0; y < 384; ++y)
                for (int x = 0; x < 384; ++x)
                    differing += volume.getVoxel(x, y, k) != m_reference[y * 384 + x] ? 1 : 0;
            QCOMPARE(differing, 0);
        }
    }

    // DCMTK's own viewer class and its frame-by-frame access reach the JPEG 2000 decoder too.
    void dcmtkPaths()
    {
        registerDecoders();
        DicomImage reference(QFile::encodeName(transferSyntaxFile(1)).constData());
        DicomImage j2k(QFile::encodeName(transferSyntaxFile(9)).constData());
        QCOMPARE(j2k.getStatus(), EIS_Normal);
        QCOMPARE(j2k.getOutputDataSize(16), reference.getOutputDataSize(16));
        QCOMPARE(std::memcmp(j2k.getOutputData(16), reference.getOutputData(16), reference.getOutputDataSize(16)), 0);

        DcmFileFormat format;
        QVERIFY(loadPixelFile(format, transferSyntaxFile(9)).good());
        DcmElement* element = nullptr;
        QVERIFY(format.getDataset()->findAndGetElement(DCM_PixelData, element).good());
        QByteArray frame(384 * 384 * 2, '\0');
        Uint32 start = 0;
        OFString colour;
        QVERIFY(element->getUncompressedFrame(format.getDataset(), 0, start, frame.data(), Uint32(frame.size()), colour).good());
        QCOMPARE(wordsOf(frame), m_reference);
        QCOMPARE(QString(colour.c_str()), QString("MONOCHROME2"));
    }

    // Frames in several fragments, found by the offset table or by where a codestream starts;
    // fragments that cannot be told apart are an error, not a wrong image.
    void framesAndFragments_data()
    {
        QTest::addColumn<int>("frames");
        QTest::addColumn<int>("pieces");
        QTest::addColumn<bool>("offsetTable");
        QTest::addColumn<bool>("decodes");
        QTest::newRow("one frame, three fragments") << 1 << 3 << false << true;
        QTest::newRow("two frames, one fragment each") << 2 << 1 << false << true;
        QTest::newRow("two frames, three fragments each, offset table") << 2 << 3 << true << true;
        QTest::newRow("three frames, two fragments each, by codestream starts") << 3 << 2 << false << true;
        QTest::newRow("two frames, one fragment short") << 2 << 1 << false << false;
    }
    void framesAndFragments()
    {
        QFETCH(int, frames);
        QFETCH(int, pieces);
        QFETCH(bool, offsetTable);
        QFETCH(bool, decodes);
        const QByteArray codestream = firstFragment(transferSyntaxFile(9));
        QVERIFY(codestream.startsWith("\xff\x4f\xff\x51"));
        Encapsulated layout;
        for (int f = 0; f < frames; ++f)
            layout.frames << codestream;
        layout.pieces = pieces;
        layout.offsetTable = offsetTable;
        if (!decodes)
            layout.frames.removeLast(); // NumberOfFrames stays as written below
        if (!decodes)
            layout.changes.insert(DCM_NumberOfFrames, QString::number(frames));
        const QString file = m_dir.filePath(QString("frames-%1-%2-%3.dcm").arg(frames).arg(pieces).arg(offsetTable));
        QVERIFY(writeEncapsulated(transferSyntaxFile(1), file, layout));
        const QByteArray pixels = decodedPixelData(file);
        if (!decodes) {
            QVERIFY(pixels.isEmpty());
            return;
        }
        QCOMPARE(pixels.size(), frames * 384 * 384 * 2);
        for (int f = 0; f < frames; ++f)
            QCOMPARE(wordsOf(pixels.mid(f * 384 * 384 * 2, 384 * 384 * 2)), m_reference);
    }

    // Codestreams made here: high throughput through OpenJPH (lossless, and irreversible which
    // is noted as lossy), classic irreversible JPEG 2000, and colour with the component transform.
    void otherCodestreams()
    {
        // HTJ2K lossless, in a file with its own transfer syntax UID.
        const QByteArray ht = encodeOpenJph(m_reference, 384, 384, true);
        QVERIFY(isHighThroughputCodestream(reinterpret_cast<const unsigned char*>(ht.constData()), std::size_t(ht.size())));
        QVERIFY(!isHighThroughputCodestream(reinterpret_cast<const unsigned char*>(firstFragment(transferSyntaxFile(9)).constData()), 64));
        Encapsulated layout;
        layout.frames << ht;
        layout.tsUid = kHtj2kLosslessUid;
        const QString htFile = m_dir.filePath("htj2k.dcm");
        QVERIFY(writeEncapsulated(transferSyntaxFile(1), htFile, layout));
        QString note = "unset";
        QCOMPARE(imagePixels(htFile, &note), m_reference);
        QCOMPARE(note, QString());

        // Irreversible: close to the original, and called lossy.
        const auto closeTo = [&](const QVector<quint16>& pixels) {
            if (pixels.size() != m_reference.size())
                return false;
            double error = 0;
            for (int i = 0; i < pixels.size(); ++i)
                error += std::fabs(double(pixels[i]) - m_reference[i]);
            return error / pixels.size() < 8.0 && pixels != m_reference;
        };
        layout.frames = {encodeOpenJph(m_reference, 384, 384, false)};
        layout.tsUid = kHtj2kUid;
        layout.xfer = EXS_JPEG2000;
        QVERIFY(writeEncapsulated(transferSyntaxFile(1), htFile, layout));
        QVERIFY(closeTo(imagePixels(htFile, &note)));
        QCOMPARE(note, QString("lossy compressed"));
        layout.frames = {encodeOpenJpeg(m_reference, 384, 384, 1, true)};
        layout.tsUid.clear();
        const QString j2kFile = m_dir.filePath("j2k-lossy.dcm");
        QVERIFY(writeEncapsulated(transferSyntaxFile(1), j2kFile, layout));
        QVERIFY(closeTo(imagePixels(j2kFile, &note)));
        QCOMPARE(note, QString("lossy compressed"));
        layout.frames = {encodeOpenJpeg(m_reference, 384, 384, 1, false)};
        QVERIFY(writeEncapsulated(transferSyntaxFile(1), j2kFile, layout));
        QCOMPARE(imagePixels(j2kFile, &note), m_reference);
        QCOMPARE(note, QString());

        // Colour: three planes through the reversible component transform come back as RGB.
        QVector<quint16> rgb;
        for (quint16 v : qAsConst(m_reference))
            rgb << v << quint16(4095 - (v & 4095)) << quint16(v / 2);
        layout.frames = {encodeOpenJpeg(rgb, 384, 384, 3, false)};
        layout.changes = {{DCM_SamplesPerPixel, "3"}, {DCM_PhotometricInterpretation, "YBR_RCT"},
                        {DCM_PlanarConfiguration, "0"}};
        const QString colourFile = m_dir.filePath("j2k-colour.dcm");
        QVERIFY(writeEncapsulated(transferSyntaxFile(1), colourFile, layout));
        QString photometric;
        QCOMPARE(wordsOf(decodedPixelData(colourFile, &photometric)), rgb);
        QCOMPARE(photometric, QString("RGB"));
    }

    // Files of the shared set in other encodings: JPEG 2000 of signed data (against its
    // uncompressed twin), a J2K stream that disagrees with the data set's Pixel Representation,
    // and lossy JPEG, which is noted.
    void sharedFiles()
    {
        const QString dir = sharedDataPath("pydicom/test_files");
        if (dir.isEmpty())
            QSKIP("the shared pydicom files are not there");
        QCOMPARE(imagePixels(dir + "/MR_small_jp2klossless.dcm"), imagePixels(dir + "/MR_small.dcm"));
        QVERIFY(!imagePixels(dir + "/MR_small.dcm").isEmpty());
        QCOMPARE(decodedPixelData(dir + "/J2K_pixelrep_mismatch.dcm").size(), 512 * 512 * 2);
        QString note;
        QCOMPARE(imagePixels(dir + "/JPGExtended.dcm", &note).size(), 1024 * 256);
        QCOMPARE(note, QString("lossy compressed (JPEG Extended, Process 2+4)"));
    }
};

QTEST_GUILESS_MAIN(TestCodecs)
#include "tst_codecs.moc"
