#pragma once

#include "platform/testexport_p.h"

#include <QByteArray>
#include <QString>
#include <QVector>

// Text values of DICOM files in the character sets named by Specific Character Set (0008,0005):
// the single-byte sets (ISO_IR 100 ... 203, 166 Thai, 13 Japanese katakana), ISO 2022 with code
// extensions (escape sequences switching to JIS X 0208/0212, KS X 1001, GB2312 or a single-byte
// set), UTF-8 (ISO_IR 192), GB18030 and GBK. The one place where such bytes become text and back.
namespace kestrel::internal {

class KESTREL_TEST_EXPORT DicomCharset
{
public:
    // VALUE is the attribute's whole value with "\" between its values ("ISO 2022 IR 6\ISO 2022
    // IR 87"). The first value is the character set a value starts in (empty: the default
    // repertoire, ASCII); later values are the sets escape sequences may switch to.
    explicit DicomCharset(const QString& value = QString());

    // False when the first value names no character set known here: non-ASCII text is then
    // read as Latin-1, one character per byte.
    bool isKnown() const { return m_mode != Mode::Unknown; }

    // The text of BYTES. A person name (PERSONNAME) returns to the first character set at "^"
    // and "=", every value at "\" and at CR, LF, FF and TAB. Bytes that are not valid in the
    // character set give the whole value as Latin-1, so nothing is lost (logged once per
    // character set); so do non-ASCII bytes where no character set is named.
    QString decode(const char* data, int size, bool personName = false) const;
    QString decode(const QByteArray& bytes, bool personName = false) const;

    // True when DATA is plain ASCII without escape sequences: the same text in every set here
    // (decode() gives it as Latin-1 whatever the set), so the set need not be looked up.
    static bool isPlainAscii(const char* data, int size);

    // TEXT in the character set, escape sequences where needed: decode() of the result gives
    // TEXT back. Characters none of the sets holds become "?"; where decode() reads Latin-1
    // (unknown set, no set), so does this.
    QByteArray encode(const QString& text, bool personName = false) const;

    // Where a set of the value stands.
    enum class Slot { G0, G1 };
    struct Set;

private:
    enum class Mode { Default, Iso2022, Utf8, Gb18030, Gbk, Unknown };

    QString decodeIso2022(const char* data, int size, bool personName, bool* valid) const;
    QString fallback(const char* data, int size, const char* why) const;

    Mode m_mode = Mode::Iso2022;
    QString m_value;
    // ISO 2022: the sets in use at the start of a value (and after each reset), null for none.
    const Set* m_initialG0 = nullptr;
    const Set* m_initialG1 = nullptr;
    // Every known set the value names, in order: the candidates when encoding.
    QVector<const Set*> m_sets;
};

// True when BYTES are valid UTF-8.
KESTREL_TEST_EXPORT bool isValidUtf8(const char* data, int size);

} // namespace kestrel::internal
