#include "syntheticdicom.h"
#include "testcatalog.h"

#include "dicom/dcmvalues_p.h"
#include "dicom/dicomtext_p.h"
#include "qdcmfile.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcsequen.h>

#include <QtTest>

using kestrel::internal::DicomCharset;

namespace {

// Names in forms the shared files lack, written by the synthetic writer.
struct SyntheticName {
    const char* row;
    const char* charset;
    QByteArray bytes;
    const char* text;
};

const SyntheticName kSyntheticNames[] = {
    {"cyrillic", "ISO_IR 144", "\xb8\xd2\xd0\xdd\xde\xd2^\xbf\xf1\xe2\xe0", "Иванов^Пётр"},
    {"greek", "ISO_IR 126", "\xcd\xdf\xea\xef\xf2^\xd0\xe1\xf0\xe1\xe4\xfc\xf0\xef\xf5\xeb\xef\xf2", "Νίκος^Παπαδόπουλος"},
    {"japanese, IR 6 named", "ISO 2022 IR 6\\ISO 2022 IR 87", "Yamada^Tarou=\x1b$B;3ED\x1b(B^\x1b$BB@O:\x1b(B",
     "Yamada^Tarou=山田^太郎"},
    {"latin-2", "ISO_IR 101", "\xa3\xf3" "d\xbc^Zofia", "Łódź^Zofia"},
    {"thai", "ISO_IR 166", "\xe4\xb7\xc2", "ไทย"},
    {"katakana", "ISO_IR 13", "\xd4\xcf\xc0\xde^\xc0\xdb\xb3", "ﾔﾏﾀﾞ^ﾀﾛｳ"},
    {"jis x 0212", "\\ISO 2022 IR 87\\ISO 2022 IR 159", "\x1b$(D0!\x1b(B^\x1b$B;3\x1b(B", "丂^山"},
};

// pydicom, an independent reader: every PN, LO and SH value of each file (sequence items
// included; private ones left out, their VR depends on each reader's private dictionary) as
// "path" -> text, the path being "ggggeeee" and "ggggeeee/item/" before it.
const char* const kPydicomScript = R"(
import json, sys
import pydicom
from pydicom.multival import MultiValue
out = {}
for path in sys.argv[1:]:
    values = {}
    def walk(d, prefix):
        for elem in d:
            if elem.VR == 'SQ':
                for i, item in enumerate(elem.value):
                    walk(item, prefix + '%08x/%d/' % (elem.tag, i))
            elif elem.VR in ('PN', 'LO', 'SH') and not elem.tag.is_private:
                v = elem.value
                vals = list(v) if isinstance(v, MultiValue) else [v]
                values[prefix + '%08x' % elem.tag] = '\\'.join('' if x is None else str(x) for x in vals)
    walk(pydicom.dcmread(path, force=True), '')
    out[path] = values
print(json.dumps(out))
)";

// "path: text" lines in path order.
using TextValues = QMap<QString, QString>;

QStringList lines(const TextValues& values)
{
    QStringList out;
    for (auto it = values.begin(); it != values.end(); ++it)
        out << it.key() + ": " + it.value();
    return out;
}

// The same values as this library decodes them. pydicom leaves out empty trailing component
// groups of a name ("Wang^XiaoDong=王^小東=" is "Wang^XiaoDong=王^小東"): so does this.
void collect(DcmItem* item, const QString& prefix, TextValues& values)
{
    for (DcmObject* object = item->nextInContainer(nullptr); object; object = item->nextInContainer(object)) {
        const DcmTagKey tag = object->getTag();
        const QString key = prefix + QString("%1").arg((uint(tag.getGroup()) << 16) | tag.getElement(), 8, 16, QChar('0'));
        if (object->ident() == EVR_SQ) {
            auto* sequence = static_cast<DcmSequenceOfItems*>(object);
            for (unsigned long i = 0; i < sequence->card(); ++i)
                collect(sequence->getItem(i), key + QString("/%1/").arg(i), values);
        } else if ((object->ident() == EVR_PN || object->ident() == EVR_LO || object->ident() == EVR_SH)
                   && !tag.isPrivate()) {
            QStringList parts = kestrel::internal::dcmDecodedString(item, tag).split('\\');
            if (object->ident() == EVR_PN)
                for (QString& part : parts)
                    while (part.endsWith('='))
                        part.chop(1);
            values.insert(key, parts.join('\\'));
        }
    }
}

} // namespace

class TestCharset : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QStringList m_sharedFiles;
    QHash<QString, QString> m_syntheticFiles; // row -> file
    QHash<QString, TextValues> m_pydicom;     // file -> values
    QString m_noPydicom;                      // why pydicom gives nothing, empty when it does

    void readWithPydicom(const QStringList& files)
    {
        QProcess python;
        python.start(QStringLiteral("/usr/bin/python3"), QStringList{"-c", kPydicomScript} + files);
        if (!python.waitForFinished(120000) || python.exitStatus() != QProcess::NormalExit) {
            m_noPydicom = "/usr/bin/python3 did not run";
            return;
        }
        const QByteArray err = python.readAllStandardError();
        if (python.exitCode() != 0) {
            m_noPydicom = err.contains("No module named 'pydicom'") ? "pydicom is not installed (python3-pydicom)"
                                                                     : "pydicom failed: " + QString::fromUtf8(err.right(300));
            return;
        }
        const QJsonObject all = QJsonDocument::fromJson(python.readAllStandardOutput()).object();
        for (auto file = all.begin(); file != all.end(); ++file) {
            const QJsonObject values = file.value().toObject();
            for (auto value = values.begin(); value != values.end(); ++value)
                m_pydicom[file.key()].insert(value.key(), value.value().toString());
        }
    }

    void addFileRows()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QString>("expected"); // the name when it is known here, else empty
        for (const SyntheticName& name : kSyntheticNames)
            QTest::newRow(name.row) << m_syntheticFiles.value(name.row) << QString::fromUtf8(name.text);
        for (const QString& file : m_sharedFiles)
            QTest::newRow(qPrintable(QFileInfo(file).fileName())) << file << QString();
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        for (const SyntheticName& name : kSyntheticNames) {
            SyntheticImage image;
            image.specificCharacterSet = name.charset;
            image.patientNameBytes = name.bytes;
            const QString path = m_dir.filePath(QString(name.row).replace(' ', '_') + ".dcm");
            QString error;
            QVERIFY2(writeSyntheticImage(path, image, &error), qPrintable(error));
            m_syntheticFiles.insert(name.row, path);
        }
        if (const QString folder = sharedDataPath("pydicom/charset_files"); !folder.isEmpty())
            for (const QFileInfo& info : QDir(folder).entryInfoList({"*.dcm"}, QDir::Files, QDir::Name))
                m_sharedFiles << info.filePath();
        // One run of pydicom for all files.
        readWithPydicom(m_syntheticFiles.values() + m_sharedFiles);
    }

    // QDcmFile's patient name: the text written, and what pydicom reads.
    void patientNames_data() { addFileRows(); }
    void patientNames()
    {
        QFETCH(QString, file);
        QFETCH(QString, expected);
        QDcmFile dcm;
        QVERIFY(dcm.loadhead(file, true));
        QString name = dcm.patientName();
        if (!expected.isEmpty())
            QCOMPARE(name, expected);
        if (!m_noPydicom.isEmpty())
            QSKIP(qPrintable("no comparison with an independent reader: " + m_noPydicom));
        while (name.endsWith('='))
            name.chop(1);
        QCOMPARE(name, m_pydicom.value(file).value("00100010"));
    }

    // Every name and text value, sequence items (with their own or their data set's character
    // set) included, as pydicom reads it.
    void textValues_data() { addFileRows(); }
    void textValues()
    {
        QFETCH(QString, file);
        if (!m_noPydicom.isEmpty())
            QSKIP(qPrintable("no comparison with an independent reader: " + m_noPydicom));
        DcmFileFormat format;
        QVERIFY(format.loadFile(QFile::encodeName(file).constData()).good());
        TextValues ours;
        collect(format.getDataset(), QString(), ours);
        QCOMPARE(lines(ours), lines(m_pydicom.value(file)));
    }

    // Decoding and encoding by the character set value: each set, code extensions, the resets
    // of person names, and the Latin-1 fallback of unknown sets and invalid bytes.
    void decodeAndEncode_data()
    {
        QTest::addColumn<QString>("charset");
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<bool>("personName");
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("canonical"); // encoding the text gives the bytes back
        auto row = [](const char* name, const char* charset, const QByteArray& bytes, bool personName, const char* text,
                      bool canonical) {
            QTest::newRow(name) << QString(charset) << bytes << personName << QString::fromUtf8(text) << canonical;
        };
        for (const SyntheticName& name : kSyntheticNames)
            row(name.row, name.charset, name.bytes, true, name.text, true);
        row("latin-1", "ISO_IR 100", "Buc^J\xe9r\xf4me", true, "Buc^Jérôme", true);
        row("latin-3", "ISO_IR 109", "\xa1" "a\xf5" "ar", false, "Ħaġar", true);
        row("latin-4", "ISO_IR 110", "\xd3\xe0rlis", false, "Ķārlis", true);
        row("latin-5", "ISO_IR 148", "Do\xf0" "an \xde\xfdk", false, "Doğan Şık", true);
        row("latin-9", "ISO_IR 203", "\xa4 \xbcuvre", false, "€ Œuvre", true);
        row("arabic", "ISO_IR 127", "\xe2\xc8\xc7\xe6\xea", true, "قباني", true);
        row("hebrew", "ISO_IR 138", "\xf9\xf8\xe5\xef", true, "שרון", true);
        row("utf-8", "ISO_IR 192", "Wang^XiaoDong=\xe7\x8e\x8b", true, "Wang^XiaoDong=王", true);
        row("gb18030", "GB18030", "\xcd\xf5^\xd0\xa1\xb6\xab", true, "王^小东", true);
        row("gbk", "GBK", "\xcd\xf5", true, "王", true);
        row("latin-1 by escape", "ISO 2022 IR 6\\ISO 2022 IR 100", "J\x1b-A\xe9r\xf4me", true, "Jérôme", true);
        row("latin-1 and cyrillic", "ISO 2022 IR 100\\ISO 2022 IR 144", "M\xfcller=\x1b-L\xbc\xee\xdb\xdb\xd5\xe0", true,
            "Müller=Мюллер", true);
        row("katakana and kanji", "ISO 2022 IR 13\\ISO 2022 IR 87", "\xd4\xcf\xc0\xde=\x1b$B;3ED\x1b(J", true, "ﾔﾏﾀﾞ=山田",
            true);
        // pydicom 2.3 keeps the escape sequences of this one in the text: checked here only.
        row("gb2312 by escape", "\\ISO 2022 IR 58", "Wang^XiaoDong=\x1b$)A\xcd\xf5^\x1b$)A\xd0\xa1\xb6\xab", true,
            "Wang^XiaoDong=王^小东", true);
        row("korean", "\\ISO 2022 IR 149", "Hong=\x1b$)C\xc8\xab^\x1b$)C\xb1\xe6\xb5\xbf", true, "Hong=홍^길동", true);
        // Delimiters: in a name the G1 set ends at "^"; in other text it goes on.
        row("korean name, no escape after ^", "\\ISO 2022 IR 149", "\x1b$)C\xc8\xab^\xb1\xe6", true,
            "\x1b$)C\xc3\x88\xc2\xab^\xc2\xb1\xc3\xa6", false);
        row("korean text, one escape", "\\ISO 2022 IR 149", "\x1b$)C\xc8\xab^\xb1\xe6", false, "홍^길", true);
        row("kanji holding ^ and = bytes", "\\ISO 2022 IR 87", "\x1b$B^!=!\x1b(B", true, "沺宗", true);
        row("value delimiter resets", "\\ISO 2022 IR 149", "\x1b$)C\xc8\xab\\\x1b$)C\xb1\xe6", false, "홍\\길", true);
        // Nothing is lost: Latin-1 for what cannot be read.
        row("unknown set", "NOT_A_CHARSET", "Z\xe9ro", false, "Zéro", true);
        row("no set", "", "M\xfcller", true, "Müller", true);
        row("invalid utf-8", "ISO_IR 192", "M\xfcller", true, "Müller", false);
        row("half a kanji", "\\ISO 2022 IR 87", "\x1b$B;3E", true, "\x1b$B;3E", false);
        row("undefined arabic byte", "ISO_IR 127", "\xe2\xa1", false, "\xc3\xa2\xc2\xa1", false);
        row("unknown escape", "\\ISO 2022 IR 149", "\x1b$)Z\xb1\xe6", false, "\x1b$)Z\xc2\xb1\xc3\xa6", false);
        row("high byte without a G1 set", "\\ISO 2022 IR 87", "\xe9t\xe9", false, "été", false);
        row("invalid gb18030", "GB18030", "\x81\x30'", false, "\xc2\x81" "0'", false);
    }

    void decodeAndEncode()
    {
        QFETCH(QString, charset);
        QFETCH(QByteArray, bytes);
        QFETCH(bool, personName);
        QFETCH(QString, text);
        QFETCH(bool, canonical);
        const DicomCharset set(charset);
        QCOMPARE(set.decode(bytes, personName), text);
        QCOMPARE(kestrel::internal::decodeDicomText(bytes, charset, personName), text);
        if (canonical)
            QCOMPARE(set.encode(text, personName), bytes);
    }

    // A character set whose values fall back to Latin-1 is named in the log once, not per value.
    void fallbackLoggedOnce()
    {
        static QStringList messages;
        messages.clear();
        const QtMessageHandler previous = qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString& text) {
            if (text.startsWith("DICOM text:"))
                messages << text;
        });
        const DicomCharset hebrew("ISO_IR 138");
        for (const char* bytes : {"\xa1", "\xf9\xa1", "\xa1\xa1"})
            QCOMPARE(hebrew.decode(QByteArray(bytes)), QString::fromLatin1(bytes));
        QCOMPARE(DicomCharset("ISO_IR 138").decode(QByteArray("\xf9")), QString::fromUtf8("ש"));
        qInstallMessageHandler(previous);
        QCOMPARE(messages.size(), 1);
        QVERIFY2(messages.first().contains("ISO_IR 138"), qPrintable(messages.first()));
    }

    // Characters none of the sets holds become "?", and the value still ends in its first set.
    void encodeUnknownCharacters()
    {
        QCOMPARE(DicomCharset("\\ISO 2022 IR 87").encode(QString::fromUtf8("山é山")), QByteArray("\x1b$B;3\x1b(B?\x1b$B;3\x1b(B"));
        QCOMPARE(DicomCharset("ISO_IR 144").encode(QString::fromUtf8("Жé")), QByteArray("\xb6?"));
        QVERIFY(!DicomCharset("ISO_IR 999").isKnown());
        QVERIFY(DicomCharset("\\ISO 2022 IR 999\\ISO 2022 IR 87").isKnown()); // a later unknown value is left out
    }
};

QTEST_GUILESS_MAIN(TestCharset)
#include "tst_charset.moc"
