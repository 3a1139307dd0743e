#include "dicom/dicomtext_p.h"

#include <QMutex>
#include <QSet>
#include <QStringList>
#include <QTextCodec>
#include <QtDebug>

namespace kestrel::internal {

// One character set of ISO 2022: where it is designated, by which escape sequence, and the codec
// that reads its bytes (the high half of a single-byte set; pairs of a double-byte set in their
// EUC form).
struct DicomCharset::Set {
    enum Kind { Ascii, Romaji, SingleByte, Katakana, Jis0208, Jis0212, Ksx1001, Gb2312 };
    const char* ir; // registration number of the defined terms "ISO_IR n" / "ISO 2022 IR n"
    Kind kind;
    Slot slot;
    QByteArray escape; // what follows ESC
    QTextCodec* codec = nullptr;
    QString high; // SingleByte: the characters of 0x80..0xFF, U+FFFD where the set has none

    bool multiByte() const { return kind >= Jis0208; }
    bool inPair(uchar b) const { return slot == Slot::G0 ? b >= 0x21 && b <= 0x7e : b >= 0xa1 && b <= 0xfe; }

    // The pair as the codec reads it.
    void appendEuc(QByteArray& run, uchar first, uchar second) const
    {
        if (kind == Jis0212)
            run += char(0x8f);
        run += char(first | 0x80);
        run += char(second | 0x80);
    }

    // The bytes of U in this set (no escape sequence); false when the set has no such character.
    bool encode(ushort u, QByteArray* bytes) const
    {
        switch (kind) {
        case Ascii:
        case Romaji:
            if (u >= 0x80)
                return false;
            *bytes = QByteArray(1, char(u));
            return true;
        case SingleByte: {
            const int at = high.indexOf(QChar(u));
            if (at < 0 || u == 0xfffd)
                return false;
            *bytes = QByteArray(1, char(0x80 + at));
            return true;
        }
        case Katakana:
            if (u < 0xff61 || u > 0xff9f)
                return false;
            *bytes = QByteArray(1, char(0xa1 + (u - 0xff61)));
            return true;
        default:
            break;
        }
        if (!codec)
            return false;
        const QString one(QChar{u});
        QByteArray euc = codec->fromUnicode(one);
        if (kind == Jis0212) {
            if (euc.size() != 3 || uchar(euc[0]) != 0x8f)
                return false;
            euc = euc.mid(1);
        }
        if (euc.size() != 2 || uchar(euc[0]) < 0xa1 || uchar(euc[1]) < 0xa1 || uchar(euc[0]) > 0xfe
            || uchar(euc[1]) > 0xfe)
            return false;
        QByteArray back;
        appendEuc(back, uchar(euc[0]), uchar(euc[1]));
        if (codec->toUnicode(back) != one) // a substitute, not the character
            return false;
        if (slot == Slot::G0) {
            euc[0] = char(euc[0] & 0x7f);
            euc[1] = char(euc[1] & 0x7f);
        }
        *bytes = euc;
        return true;
    }
};

namespace {

using Set = DicomCharset::Set;
using Slot = DicomCharset::Slot;

QVector<Set> makeSets()
{
    struct Row {
        const char* ir;
        Set::Kind kind;
        Slot slot;
        const char* escape;
        const char* codec;
    };
    const Row rows[] = {
        {"6", Set::Ascii, Slot::G0, "(B", nullptr},
        {nullptr, Set::Romaji, Slot::G0, "(J", nullptr}, // JIS X 0201 romaji, part of "13"
        {"13", Set::Katakana, Slot::G1, ")I", nullptr},
        {"100", Set::SingleByte, Slot::G1, "-A", "ISO-8859-1"},
        {"101", Set::SingleByte, Slot::G1, "-B", "ISO-8859-2"},
        {"109", Set::SingleByte, Slot::G1, "-C", "ISO-8859-3"},
        {"110", Set::SingleByte, Slot::G1, "-D", "ISO-8859-4"},
        {"144", Set::SingleByte, Slot::G1, "-L", "ISO-8859-5"},
        {"127", Set::SingleByte, Slot::G1, "-G", "ISO-8859-6"},
        {"126", Set::SingleByte, Slot::G1, "-F", "ISO-8859-7"},
        {"138", Set::SingleByte, Slot::G1, "-H", "ISO-8859-8"},
        {"148", Set::SingleByte, Slot::G1, "-M", "ISO-8859-9"},
        {"203", Set::SingleByte, Slot::G1, "-b", "ISO-8859-15"},
        {"166", Set::SingleByte, Slot::G1, "-T", "TIS-620"},
        {"87", Set::Jis0208, Slot::G0, "$B", "EUC-JP"},
        {nullptr, Set::Jis0208, Slot::G0, "$@", "EUC-JP"}, // the 1978 edition's escape sequence
        {"159", Set::Jis0212, Slot::G0, "$(D", "EUC-JP"},
        {"149", Set::Ksx1001, Slot::G1, "$)C", "EUC-KR"},
        {"58", Set::Gb2312, Slot::G1, "$)A", "GB2312"},
    };
    QVector<Set> sets;
    for (const Row& row : rows) {
        Set set{row.ir, row.kind, row.slot, QByteArray(row.escape), nullptr, QString()};
        set.codec = row.codec ? QTextCodec::codecForName(row.codec) : nullptr;
        if (row.codec && !set.codec)
            qWarning("DICOM text: no codec %s here, its text is read as Latin-1", row.codec);
        if (row.kind == Set::SingleByte) {
            // 0x80..0x9F are control characters in every set.
            for (int b = 0x80; b < 0xa0; ++b)
                set.high += QChar(b);
            for (int b = 0xa0; b <= 0xff; ++b) {
                const QString c = set.codec ? set.codec->toUnicode(QByteArray(1, char(b))) : QString();
                set.high += c.size() == 1 && c[0] != QChar(0x1a) ? c[0] : QChar(0xfffd);
            }
        }
        sets.append(set);
    }
    return sets;
}

const QVector<Set>& knownSets()
{
    static const QVector<Set> sets = makeSets();
    return sets;
}

const Set* setOfIr(const QString& ir)
{
    for (const Set& set : knownSets())
        if (set.ir && ir == QLatin1String(set.ir))
            return &set;
    return nullptr;
}

const Set* setOfEscape(const QByteArray& escape)
{
    for (const Set& set : knownSets())
        if (set.escape == escape)
            return &set;
    return nullptr;
}

// Where the sets return to their initial state: the value delimiter, the control characters
// (ESC aside) and, in person names, the component and group delimiters.
bool isReset(uint c, bool personName)
{
    return c == '\\' || (c < 0x20 && c != 0x1b) || (personName && (c == '^' || c == '='));
}

bool isSubstitute(const QString& text)
{
    return text.contains(QChar(0xfffd)) || text.contains(QChar(0x1a));
}

QTextCodec* codecNamed(const char* name)
{
    return QTextCodec::codecForName(name);
}

void logOnce(const QString& message)
{
    static QMutex mutex;
    static QSet<QString> logged;
    QMutexLocker lock(&mutex);
    if (logged.contains(message))
        return;
    logged.insert(message);
    qWarning().noquote() << "DICOM text:" << message;
}

} // namespace

DicomCharset::DicomCharset(const QString& value) : m_value(value.trimmed())
{
    m_initialG0 = &knownSets().first();
    const QStringList terms = value.split('\\');
    for (int i = 0; i < terms.size(); ++i) {
        // "ISO_IR 100", "ISO 2022 IR 100", also written without blanks or with "-".
        QString key = terms.at(i).toUpper();
        key.remove(' ').remove('_').remove('-');
        if (key.isEmpty())
            continue;
        if (i == 0 && key == QLatin1String("ISOIR192")) {
            m_mode = Mode::Utf8;
            return;
        }
        if (i == 0 && key == QLatin1String("GB18030")) {
            m_mode = Mode::Gb18030;
            return;
        }
        if (i == 0 && key == QLatin1String("GBK")) {
            m_mode = Mode::Gbk;
            return;
        }
        const Set* set = nullptr;
        if (key.startsWith(QLatin1String("ISO2022IR")))
            set = setOfIr(key.mid(9));
        else if (key.startsWith(QLatin1String("ISOIR")))
            set = setOfIr(key.mid(5));
        if (!set && i == 0) {
            m_mode = Mode::Unknown; // logged when a value needs it
            return;
        }
        if (!set) {
            logOnce(QString("unknown character set \"%1\" in \"%2\" left out").arg(terms.at(i).trimmed(), m_value));
            continue;
        }
        if (set->kind != Set::Ascii)
            m_sets.append(set);
        // The first value sets where text starts; a double-byte set cannot be that, text then
        // starts in ASCII and switches to it.
        if (i == 0 && set->kind == Set::Katakana) {
            m_initialG0 = setOfEscape("(J");
            m_initialG1 = set;
        } else if (i == 0 && set->kind == Set::SingleByte) {
            m_initialG1 = set;
        }
    }
    if (m_sets.isEmpty())
        m_mode = Mode::Default;
}

QString DicomCharset::decode(const QByteArray& bytes, bool personName) const
{
    return decode(bytes.constData(), bytes.size(), personName);
}

bool DicomCharset::isPlainAscii(const char* data, int size)
{
    for (int i = 0; i < size; ++i)
        if (uchar(data[i]) >= 0x80 || data[i] == 0x1b)
            return false;
    return true;
}

QString DicomCharset::decode(const char* data, int size, bool personName) const
{
    // Plain ASCII reads the same in every set here.
    if (isPlainAscii(data, size))
        return QString::fromLatin1(data, size);

    switch (m_mode) {
    case Mode::Utf8:
        return isValidUtf8(data, size) ? QString::fromUtf8(data, size) : fallback(data, size, "invalid UTF-8");
    case Mode::Gb18030:
    case Mode::Gbk: {
        static QTextCodec* const gb18030 = codecNamed("GB18030");
        static QTextCodec* const gbk = codecNamed("GBK");
        QTextCodec* codec = m_mode == Mode::Gbk ? gbk : gb18030;
        const QString text = codec ? codec->toUnicode(data, size) : QString();
        return codec && !isSubstitute(text) ? text : fallback(data, size, "bytes invalid in the character set");
    }
    case Mode::Unknown:
        return fallback(data, size, "unknown character set");
    case Mode::Default:
        return fallback(data, size, "non-ASCII bytes without a character set");
    case Mode::Iso2022:
        break;
    }
    bool valid = true;
    const QString text = decodeIso2022(data, size, personName, &valid);
    return valid ? text : fallback(data, size, "bytes invalid in the character set");
}

QString DicomCharset::decodeIso2022(const char* data, int size, bool personName, bool* valid) const
{
    const Set* g0 = m_initialG0;
    const Set* g1 = m_initialG1;
    QString out;
    out.reserve(size);
    int i = 0;
    while (i < size) {
        const uchar b = uchar(data[i]);
        if (b == 0x1b) {
            // ESC, intermediate bytes 0x20..0x2F, one final byte.
            int end = i + 1;
            while (end < size && uchar(data[end]) >= 0x20 && uchar(data[end]) <= 0x2f)
                ++end;
            const Set* set = end < size ? setOfEscape(QByteArray(data + i + 1, end - i)) : nullptr;
            if (!set)
                return *valid = false, QString();
            (set->slot == Slot::G0 ? g0 : g1) = set;
            i = end + 1;
            continue;
        }
        const Set* pairs = g0->multiByte() && g0->inPair(b) ? g0 : g1 && g1->multiByte() && g1->inPair(b) ? g1 : nullptr;
        if (pairs) {
            // A run of pairs in one call of the codec.
            QByteArray run;
            int count = 0;
            for (; i < size && pairs->inPair(uchar(data[i])); i += 2, ++count) {
                if (i + 1 >= size || !pairs->inPair(uchar(data[i + 1])))
                    return *valid = false, QString();
                pairs->appendEuc(run, uchar(data[i]), uchar(data[i + 1]));
            }
            const QString text = pairs->codec ? pairs->codec->toUnicode(run) : QString();
            if (text.size() != count || isSubstitute(text))
                return *valid = false, QString();
            out += text;
            continue;
        }
        ++i;
        if (b < 0x80) {
            // ASCII; JIS X 0201 romaji is read as ASCII too (its yen sign and overline stand
            // where DICOM needs the backslash and tilde).
            out += QChar(b);
            if (isReset(b, personName)) {
                g0 = m_initialG0;
                g1 = m_initialG1;
            }
        } else if (g1 && g1->kind == Set::Katakana && b >= 0xa1 && b <= 0xdf) {
            out += QChar(0xff61 + (b - 0xa1));
        } else if (g1 && g1->kind == Set::SingleByte && g1->high.at(b - 0x80) != QChar(0xfffd)) {
            out += g1->high.at(b - 0x80);
        } else {
            return *valid = false, QString();
        }
    }
    return out;
}

QString DicomCharset::fallback(const char* data, int size, const char* why) const
{
    logOnce(QString("%1 (\"%2\"): such values are read as Latin-1").arg(why, m_value));
    return QString::fromLatin1(data, size);
}

QByteArray DicomCharset::encode(const QString& text, bool personName) const
{
    switch (m_mode) {
    case Mode::Utf8:
        return text.toUtf8();
    case Mode::Gb18030:
    case Mode::Gbk: {
        QTextCodec* codec = codecNamed(m_mode == Mode::Gbk ? "GBK" : "GB18030");
        return codec ? codec->fromUnicode(text) : text.toUtf8();
    }
    case Mode::Unknown:
    case Mode::Default:
        return text.toLatin1();
    case Mode::Iso2022:
        break;
    }
    QByteArray out;
    out.reserve(text.size());
    const Set* g0 = m_initialG0;
    const Set* g1 = m_initialG1;
    auto designate = [&](const Set* set) {
        out += '\x1b';
        out += set->escape;
        (set->slot == Slot::G0 ? g0 : g1) = set;
    };
    for (const QChar ch : text) {
        const ushort u = ch.unicode();
        QByteArray bytes;
        const Set* chosen = nullptr;
        if (u < 0x80) {
            chosen = m_initialG0;
        } else if (g1 && g1->encode(u, &bytes)) {
            chosen = g1;
        } else if (g0->multiByte() && g0->encode(u, &bytes)) {
            chosen = g0;
        } else {
            for (const Set* set : m_sets)
                if (set->encode(u, &bytes)) {
                    chosen = set;
                    break;
                }
        }
        if (!chosen || chosen == m_initialG0) {
            if (g0 != m_initialG0)
                designate(m_initialG0);
            out += chosen ? char(u) : '?';
            if (chosen && isReset(u, personName)) {
                g0 = m_initialG0;
                g1 = m_initialG1;
            }
            continue;
        }
        if (chosen != (chosen->slot == Slot::G0 ? g0 : g1))
            designate(chosen);
        out += bytes;
    }
    if (g0 != m_initialG0)
        designate(m_initialG0);
    return out;
}

bool isValidUtf8(const char* data, int size)
{
    const auto* p = reinterpret_cast<const uchar*>(data);
    for (int i = 0; i < size;) {
        const uchar b = p[i];
        int extra = 0;
        uint min = 0, code = 0;
        if (b < 0x80) {
            ++i;
            continue;
        } else if ((b & 0xe0) == 0xc0) {
            extra = 1, min = 0x80, code = b & 0x1f;
        } else if ((b & 0xf0) == 0xe0) {
            extra = 2, min = 0x800, code = b & 0x0f;
        } else if ((b & 0xf8) == 0xf0) {
            extra = 3, min = 0x10000, code = b & 0x07;
        } else {
            return false;
        }
        if (i + extra >= size)
            return false;
        for (int k = 1; k <= extra; ++k) {
            if ((p[i + k] & 0xc0) != 0x80)
                return false;
            code = (code << 6) | (p[i + k] & 0x3f);
        }
        // No overlong forms, no surrogates, nothing past U+10FFFF.
        if (code < min || (code >= 0xd800 && code <= 0xdfff) || code > 0x10ffff)
            return false;
        i += extra + 1;
    }
    return true;
}

} // namespace kestrel::internal
