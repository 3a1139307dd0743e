// Every real file of the shared data anonymized with the shipped settings (the basic profile),
// checked against the profile's table, against the source's identifying bytes and against GDCM's
// gdcmanon on the same file, then restored and compared with the source element for element.
#include "anonymize/deidentprofile_p.h"
#include "qdcmanonymize.h"
#include "testcatalog.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcmetinf.h>
#include <dcmtk/dcmdata/dcostrmb.h>
#include <dcmtk/dcmdata/dcsequen.h>
#include <dcmtk/dcmdata/dcvrui.h>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QHash>
#include <QProcess>
#include <QSet>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using namespace kestrel::internal;

namespace {

// UIDs that name a kind of object, an encoding or a coding scheme: no source is identified by them.
const DcmTagKey kClassUids[] = {DCM_SOPClassUID, DCM_ReferencedSOPClassUID, DCM_MediaStorageSOPClassUID, DCM_TransferSyntaxUID,
                                DCM_ImplementationClassUID, DCM_CodingSchemeUID, DCM_RelatedGeneralSOPClassUID,
                                DCM_OriginalSpecializedSOPClassUID, DCM_ReferencedSOPClassUIDInFile,
                                DCM_ReferencedTransferSyntaxUIDInFile, DCM_MappingResourceUID, DCM_PrivateInformationCreatorUID};

// Values of these attributes (and of every person name) identify the patient or the staff.
const DcmTagKey kIdentifying[] = {DCM_PatientID, DCM_RETIRED_OtherPatientIDs, DCM_AccessionNumber, DCM_PatientBirthDate,
                                  DCM_PatientAddress, DCM_PersonAddress, DCM_InstitutionAddress, DCM_PatientTelephoneNumbers,
                                  DCM_IssuerOfPatientID};

struct Element {
    DcmTagKey tag;
    DcmEVR vr = EVR_UNKNOWN;
    QByteArray value; // raw text of string values, "#items" of sequences, empty for long binary ones
    bool isPrivate = false;
};

// Every element of ITEM and its nested items by path ("0008,1140[0]/0008,1155").
void flatten(DcmItem* item, const QString& prefix, QHash<QString, Element>* out)
{
    for (unsigned long i = 0; i < item->card(); ++i) {
        DcmElement* element = item->getElement(i);
        const DcmTag& tag = element->getTag();
        const QString path = prefix + QString::asprintf("%04x,%04x", tag.getGroup(), tag.getElement());
        Element e{tag, element->ident(), {}, bool(tag.getGroup() & 1)};
        if (element->ident() == EVR_SQ) {
            auto* sequence = OFstatic_cast(DcmSequenceOfItems*, element);
            e.value = "#" + QByteArray::number(qulonglong(sequence->card()));
            for (unsigned long n = 0; n < sequence->card(); ++n)
                flatten(sequence->getItem(n), path + QString::asprintf("[%lu]/", n), out);
        } else if (element->isaString() || element->getLength() <= 4096) {
            OFString text;
            element->getOFStringArray(text, OFFalse);
            e.value = QByteArray(text.c_str(), int(text.length()));
        }
        out->insert(path, e);
    }
}

struct Loaded {
    std::unique_ptr<DcmFileFormat> file = std::make_unique<DcmFileFormat>();
    QHash<QString, Element> elements;
    bool ok = false;
};

Loaded load(const QString& path)
{
    Loaded loaded;
    loaded.ok = QFile::exists(path) && loaded.file->loadFile(QFile::encodeName(path).constData()).good();
    if (loaded.ok) {
        loaded.file->loadAllDataIntoMemory();
        flatten(loaded.file->getDataset(), QString(), &loaded.elements);
    }
    return loaded;
}

// The dataset in its own transfer syntax without group lengths, and the meta header's
// description of it: equal bytes, equal elements.
QByteArray canonical(DcmFileFormat& file)
{
    DcmDataset* dataset = file.getDataset();
    const E_TransferSyntax xfer = dataset->getOriginalXfer();
    dataset->computeGroupLengthAndPadding(EGL_withoutGL, EPD_noChange, xfer, EET_ExplicitLength);
    const Uint32 length = dataset->getLength(xfer, EET_ExplicitLength);
    QByteArray bytes(int(length), '\0');
    DcmOutputBufferStream out(bytes.data(), length);
    dataset->transferInit();
    const OFCondition status = dataset->write(out, xfer, EET_ExplicitLength, nullptr);
    dataset->transferEnd();
    OFString sopClass, transfer;
    file.getMetaInfo()->findAndGetOFString(DCM_MediaStorageSOPClassUID, sopClass);
    file.getMetaInfo()->findAndGetOFString(DCM_TransferSyntaxUID, transfer);
    return status.good() ? bytes + "|" + sopClass.c_str() + "|" + transfer.c_str() : QByteArray("<not encodable>");
}

bool isClassUid(const DcmTagKey& tag)
{
    for (const DcmTagKey& key : kClassUids)
        if (key == tag)
            return true;
    return false;
}

bool isIdentifying(const Element& e)
{
    if (e.vr == EVR_PN || e.vr == EVR_UI)
        return true;
    for (const DcmTagKey& key : kIdentifying)
        if (key == e.tag)
            return true;
    return false;
}

// The source's identifying values that must appear nowhere in the output: names (and their
// components), IDs, birth dates, addresses and every UID that is not a class or standard UID. A
// value the profile keeps in another attribute of the source is not one (a patient called "HFS"
// lying head first supine), nor are values too short to mean anything.
QSet<QByteArray> identifyingValues(const Loaded& source, const DeidentProfile& profile)
{
    QSet<QByteArray> kept, values;
    for (const Element& e : source.elements)
        if (!e.isPrivate && e.vr != EVR_SQ && profile.action(e.tag, e.vr, DeidentOptions()) == DeidentAction::Keep)
            for (const QByteArray& part : e.value.split('\\'))
                kept.insert(part.trimmed());
    for (const Element& e : source.elements) {
        if (e.isPrivate || !isIdentifying(e) || (e.vr == EVR_UI && isClassUid(e.tag)))
            continue;
        for (QByteArray part : e.value.split('\\')) {
            part = part.trimmed();
            QList<QByteArray> pieces{part};
            if (e.vr == EVR_PN)
                for (const QByteArray& group : part.split('='))
                    pieces << group.split('^');
            for (QByteArray piece : pieces) {
                piece = piece.trimmed();
                if (piece.size() >= 4 && !kept.contains(piece) && !piece.startsWith("1.2.840.10008."))
                    values.insert(piece);
            }
        }
    }
    return values;
}

// Whether the output no longer holds the source's value at PATH: removed, emptied or replaced.
bool changed(const QHash<QString, Element>& output, const QString& path, const Element& source)
{
    const auto it = output.constFind(path);
    return it == output.constEnd() || it->value != source.value || (source.vr == EVR_SQ && it->value == "#0");
}

QStringList realFiles(const QString& root)
{
    QStringList files;
    QDirIterator it(root, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext())
        files << it.next();
    files.sort();
    return files;
}

} // namespace

class TestAnonymizeData : public QObject
{
    Q_OBJECT

    QString m_data;
    QTemporaryDir m_gdcm;
    int m_gdcmFiles = 0;

private slots:
    // gdcmanon on every file, each on its own (it stops a folder at the first file it refuses).
    void initTestCase()
    {
        m_data = sharedDataPath();
        if (m_data.isEmpty() || QStandardPaths::findExecutable("gdcmanon").isEmpty() ||
            QStandardPaths::findExecutable("openssl").isEmpty())
            return;
        QProcess openssl;
        openssl.start("openssl", {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=kestrel test", "-days", "1",
                                  "-keyout", m_gdcm.filePath("key.pem"), "-out", m_gdcm.filePath("cert.pem")});
        QVERIFY(openssl.waitForFinished(60000) && openssl.exitCode() == 0);
        // Two at a time, one per core.
        const QDir root(m_data);
        const QStringList files = realFiles(m_data);
        for (int i = 0; i < files.size(); i += 2) {
            QProcess gdcm[2];
            QString out[2];
            for (int k = 0; k < 2 && i + k < files.size(); ++k) {
                out[k] = m_gdcm.filePath("out/" + root.relativeFilePath(files.at(i + k)));
                QDir().mkpath(QFileInfo(out[k]).absolutePath());
                gdcm[k].start("gdcmanon", {"-c", m_gdcm.filePath("cert.pem"), "-i", files.at(i + k), "-o", out[k]});
            }
            for (int k = 0; k < 2 && i + k < files.size(); ++k) {
                gdcm[k].waitForFinished(30000);
                m_gdcmFiles += QFile::exists(out[k]) ? 1 : 0;
            }
        }
    }

    void everyRealFile_data() { TestCatalog::addBackendRows(); }
    void everyRealFile()
    {
        QFETCH(QString, backend);
        if (m_data.isEmpty())
            QSKIP("the shared data folder is absent");
        if (m_gdcmFiles == 0)
            QSKIP("gdcmanon or openssl is missing (scripts/setup.sh installs them)");
        KESTREL_OPEN_CATALOG(catalog, backend);
        Status status;
        const DeidentProfile* profile = DeidentProfile::shared(DeidentProfile::defaultPath(), &status);
        QVERIFY2(profile, qPrintable(status.text()));

        QDcmAnonymize anonymizer; // the shipped settings: the basic profile without options
        const QDcmAnonymize::BatchCounts counts = anonymizer.processPath(m_data, catalog.path("out"), false);
        QVERIFY2(counts.failed + counts.unreadable + counts.written == counts.files, qPrintable(counts.failures.join('\n')));
        // Refused: files without a UID to key the mapping on (DICOMDIRs, fragments), and a second
        // file of one SOP instance with other content (pydicom's copies in other encodings).
        for (const QString& line : counts.failures)
            QVERIFY2(line.startsWith("cannot read") || line.contains(QRegularExpression(" has no [A-Za-z]+UID: not anonymized$")) ||
                             line.contains("from a file with other content"),
                     qPrintable(line));
        QVERIFY(counts.written > 250);
        const QDcmAnonymize::BatchCounts back = anonymizer.processPath(catalog.path("out"), catalog.path("back"), true);
        QCOMPARE(back.written, counts.written);

        const QDir root(m_data);
        int compared = 0, withGdcm = 0;
        QStringList faults;
        for (const QString& file : realFiles(m_data)) {
            const QString relative = root.relativeFilePath(file);
            Loaded source = load(file);
            Loaded output = load(catalog.path("out/" + relative));
            if (!source.ok || !output.ok) {
                // Unreadable, or refused for want of a UID: nothing written, so nothing leaks.
                if (output.ok || QFile::exists(catalog.path("out/" + relative)))
                    faults << relative + ": written although " + (source.ok ? "refused" : "unreadable");
                continue;
            }
            ++compared;
            // 1. Nothing the profile removes or replaces keeps its value, at any depth.
            for (auto it = source.elements.constBegin(); it != source.elements.constEnd(); ++it) {
                const Element& e = it.value();
                if (e.value.isEmpty() || e.tag.getElement() == 0 || e.value.startsWith("1.2.840.10008."))
                    continue;
                const bool listed = e.isPrivate || profile->action(e.tag, e.vr, DeidentOptions()) != DeidentAction::Keep;
                if (listed && !changed(output.elements, it.key(), e))
                    faults << relative + ": " + it.key() + " kept " + QString::fromLatin1(e.value.left(40));
            }
            // 2. No identifying value of the source anywhere in the output's bytes.
            QFile bytes(catalog.path("out/" + relative));
            QVERIFY(bytes.open(QIODevice::ReadOnly));
            const QByteArray written = bytes.readAll();
            for (const QByteArray& value : identifyingValues(source, *profile))
                if (written.contains(value))
                    faults << relative + ": the bytes still hold " + QString::fromLatin1(value);
            // 3. What gdcmanon removes or replaces, Kestrel does too.
            const Loaded gdcm = load(m_gdcm.filePath("out/" + relative));
            if (gdcm.ok) {
                ++withGdcm;
                for (auto it = source.elements.constBegin(); it != source.elements.constEnd(); ++it) {
                    const Element& e = it.value();
                    if (e.value.isEmpty() || e.vr == EVR_SQ || e.tag.getElement() == 0)
                        continue;
                    if (changed(gdcm.elements, it.key(), e) && !changed(output.elements, it.key(), e))
                        faults << relative + ": gdcmanon changes " + it.key() + ", Kestrel keeps it";
                }
            }
            // 4. Restored: the source, element for element.
            Loaded restored = load(catalog.path("back/" + relative));
            if (!restored.ok || canonical(*restored.file) != canonical(*source.file))
                faults << relative + ": restored differs from the source";
        }
        QVERIFY2(faults.isEmpty(), qPrintable(faults.mid(0, 40).join('\n')));
        QCOMPARE(compared, counts.written);
        QVERIFY(withGdcm > 250);
    }
};

QTEST_GUILESS_MAIN(TestAnonymizeData)
#include "tst_anonymizedata.moc"
