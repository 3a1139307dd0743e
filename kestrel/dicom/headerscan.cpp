#include "dicom/headerscan_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdict.h>
#include <dcmtk/dcmdata/dcdicent.h>
#include <dcmtk/dcmdata/dcvr.h>
#include <dcmtk/dcmdata/dcxfer.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrel::internal {

namespace {

constexpr quint32 kUndefined = 0xFFFFFFFFu;
constexpr quint32 kItem = 0xFFFEE000u, kItemEnd = 0xFFFEE00Du, kSequenceEnd = 0xFFFEE0DDu;
constexpr quint32 kPixelData = 0x7FE00010u;
// The first read takes a header of a few elements whole; the later ones grow for long headers.
constexpr size_t kFirstBlock = 4096, kLargestBlock = 65536;
// Kept values are header text: a longer one is read by DCMTK.
constexpr quint32 kLongestKept = 1u << 20;
// Sequences nest a few levels in real files.
constexpr int kDeepest = 32;

quint16 u16(const unsigned char* p) { return quint16(p[0] | (p[1] << 8)); }
quint32 u32(const unsigned char* p) { return quint32(p[0]) | (quint32(p[1]) << 8) | (quint32(p[2]) << 16) | (quint32(p[3]) << 24); }

constexpr quint16 vrCode(char a, char b) { return quint16((quint8(a) << 8) | quint8(b)); }
quint16 vrCode(const char* vr) { return vrCode(vr[0], vr[1]); }

// What the scan knows of each VR of the standard: its length field, and how its values are kept.
enum class Text {
    No,       // not kept as text (binary, sequence)
    Whole,    // one value, as stored (LT, ST, UT, UR)
    Trimmed,  // values split at "\", leading and trailing spaces dropped (AE, CS, DS, IS, LO, SH)
    Trailing, // values split at "\", trailing spaces dropped (DA, DT, TM, PN, UC)
    Plain     // values split at "\", kept as stored (AS, UI)
};
struct VrKind {
    char name[3];
    bool longLength;  // a 32-bit length after two reserved bytes
    int integerSize;  // binary integers kept as text: 2 or 4 bytes a value
    Text text;        // DCMTK's normalisation of the values, as getOFString gives them
};
constexpr VrKind kVrs[] = {
    {"AE", false, 0, Text::Trimmed}, {"AS", false, 0, Text::Plain},    {"AT", false, 0, Text::No},
    {"CS", false, 0, Text::Trimmed}, {"DA", false, 0, Text::Trailing}, {"DS", false, 0, Text::Trimmed},
    {"DT", false, 0, Text::Trailing}, {"FD", false, 0, Text::No},      {"FL", false, 0, Text::No},
    {"IS", false, 0, Text::Trimmed}, {"LO", false, 0, Text::Trimmed},  {"LT", false, 0, Text::Whole},
    {"OB", true, 0, Text::No},       {"OD", true, 0, Text::No},        {"OF", true, 0, Text::No},
    {"OL", true, 0, Text::No},       {"OV", true, 0, Text::No},        {"OW", true, 0, Text::No},
    {"PN", false, 0, Text::Trailing}, {"SH", false, 0, Text::Trimmed}, {"SL", false, 4, Text::No},
    {"SQ", true, 0, Text::No},       {"SS", false, 2, Text::No},       {"ST", false, 0, Text::Whole},
    {"SV", true, 0, Text::No},       {"TM", false, 0, Text::Trailing}, {"UC", true, 0, Text::Trailing},
    {"UI", false, 0, Text::Plain},   {"UL", false, 4, Text::No},       {"UN", true, 0, Text::No},
    {"UR", true, 0, Text::Whole},    {"US", false, 2, Text::No},       {"UT", true, 0, Text::Whole},
    {"UV", true, 0, Text::No},
};

// The kind of VR, null for one the standard does not have (looked up for every element: an index
// by the two letters).
const VrKind* vrKind(quint16 vr)
{
    static const std::array<const VrKind*, 26 * 26> byLetters = [] {
        std::array<const VrKind*, 26 * 26> index{};
        for (const VrKind& kind : kVrs)
            index[size_t((kind.name[0] - 'A') * 26 + (kind.name[1] - 'A'))] = &kind;
        return index;
    }();
    const int a = (vr >> 8) - 'A', b = (vr & 0xFF) - 'A';
    return a >= 0 && a < 26 && b >= 0 && b < 26 ? byLetters[size_t(a * 26 + b)] : nullptr;
}

using Creators = HeaderScan::Creators;

struct Header {
    quint32 tag = 0;
    quint16 vr = 0;
    quint32 length = 0;
    quint64 value = 0; // offset of the value
};

} // namespace

// The file read through a window of one block, moved with pread where the walk goes next: the
// values skipped (private blobs, pixel data) are never read.
class HeaderScan::Reader
{
public:
    // BUFFER is kept from file to file by the scanner (one allocation, not one a file).
    Reader(const QByteArray& name, std::vector<unsigned char>& buffer) : m_buffer(buffer)
    {
        m_fd = ::open(name.constData(), O_RDONLY | O_CLOEXEC);
        struct stat info;
        if (m_fd >= 0 && ::fstat(m_fd, &info) == 0 && S_ISREG(info.st_mode))
            m_size = quint64(info.st_size);
    }
    ~Reader()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    quint64 size() const { return m_size; }

    // N bytes at OFFSET; null when the file ends before.
    const unsigned char* at(quint64 offset, size_t n)
    {
        if (offset + n > m_size || offset + n < offset)
            return nullptr;
        if (offset >= m_start && offset + n <= m_start + m_filled)
            return m_buffer.data() + (offset - m_start);
        const size_t want = size_t(std::min<quint64>(std::max(n, m_block), m_size - offset));
        m_block = std::min(m_block * 2, kLargestBlock);
        if (m_buffer.size() < want)
            m_buffer.resize(want);
        size_t got = 0;
        while (got < want) {
            const ssize_t r = ::pread(m_fd, m_buffer.data() + got, want - got, off_t(offset + got));
            if (r <= 0)
                break;
            got += size_t(r);
        }
        m_start = offset;
        m_filled = got;
        return got >= n ? m_buffer.data() : nullptr;
    }

    // Implicit VR little endian: each element's VR is the dictionary's (VRS caches it).
    bool implicit = false;
    HeaderScan::Dictionary* vrs = nullptr;

    // The element header at POS; items and delimiters have no VR. CREATORS are the private
    // creators of the item or data set the element is in (implicit VR only).
    bool header(quint64 pos, Header* h, Creators* creators)
    {
        const unsigned char* p = at(pos, 8);
        if (!p)
            return false;
        h->tag = (quint32(u16(p)) << 16) | u16(p + 2);
        if ((h->tag >> 16) == 0xFFFEu) {
            h->vr = 0;
            h->length = u32(p + 4);
            h->value = pos + 8;
            return true;
        }
        if (implicit) {
            if (!creators)
                return false;
            h->length = u32(p + 4);
            h->value = pos + 8;
            h->vr = vrs->vr(h->tag, *creators);
            if ((h->tag >> 16) & 1u && (h->tag & 0xFFFFu) >= 0x10u && (h->tag & 0xFFFFu) <= 0xFFu) {
                // A private creator: the VR of its block's elements depends on it.
                const unsigned char* v = h->length <= 256 ? at(h->value, h->length) : nullptr;
                if (!v)
                    return false;
                std::string name(reinterpret_cast<const char*>(v), h->length);
                const size_t first = name.find_first_not_of(' '), last = name.find_last_not_of(' ');
                name = first == std::string::npos ? std::string() : name.substr(first, last - first + 1);
                const quint32 block = (h->tag & 0xFFFF0000u) | (h->tag & 0xFFu);
                creators->emplace_back(block, std::move(name));
            }
            return h->length == kUndefined || (h->length & 1u) == 0;
        }
        h->vr = vrCode(char(p[4]), char(p[5]));
        const VrKind* kind = vrKind(h->vr);
        if (!kind)
            return false;
        if (!kind->longLength) {
            h->length = u16(p + 6);
            h->value = pos + 8;
        } else {
            p = at(pos, 12);
            if (!p || u16(p + 6) != 0)
                return false;
            h->length = u32(p + 8);
            h->value = pos + 12;
        }
        // Odd lengths are read by DCMTK, which has its own way with them.
        return h->length == kUndefined || (h->length & 1u) == 0;
    }

private:
    int m_fd = -1;
    quint64 m_size = 0;
    std::vector<unsigned char>& m_buffer;
    quint64 m_start = 0;
    size_t m_filled = 0;
    size_t m_block = kFirstBlock;
};

namespace {

using Reader = HeaderScan::Reader;

bool sequenceBody(Reader& in, quint64 pos, quint32 length, quint64* after, int depth);

// Whether the element H holds items. An undefined length elsewhere is DCMTK's to read.
bool isSequence(const Header& h)
{
    return h.vr == vrCode('S', 'Q');
}

// The elements of one item, from POS up to END (or up to the item's end mark when the length is
// undefined).
bool itemBody(Reader& in, quint64 pos, quint32 length, quint64* after, int depth)
{
    const bool bounded = length != kUndefined;
    const quint64 end = bounded ? pos + length : 0;
    Creators creators;
    for (;;) {
        if (bounded && pos == end) {
            *after = end;
            return true;
        }
        Header h;
        if (!in.header(pos, &h, &creators))
            return false;
        if (!bounded && h.tag == kItemEnd) {
            *after = h.value;
            return h.length == 0;
        }
        if ((h.tag >> 16) == 0xFFFEu)
            return false;
        if (isSequence(h)) {
            if (!sequenceBody(in, h.value, h.length, &pos, depth + 1))
                return false;
        } else {
            if (h.length == kUndefined)
                return false;
            pos = h.value + h.length;
        }
        if (bounded && pos > end)
            return false;
    }
}

// The items of a sequence whose value starts at POS.
bool sequenceBody(Reader& in, quint64 pos, quint32 length, quint64* after, int depth)
{
    if (depth > kDeepest)
        return false;
    const bool bounded = length != kUndefined;
    const quint64 end = bounded ? pos + length : 0;
    for (;;) {
        if (bounded && pos == end) {
            *after = end;
            return true;
        }
        Header h;
        if (!in.header(pos, &h, nullptr))
            return false;
        if (!bounded && h.tag == kSequenceEnd) {
            *after = h.value;
            return h.length == 0;
        }
        if (h.tag != kItem || !itemBody(in, h.value, h.length, &pos, depth))
            return false;
        if (bounded && pos > end)
            return false;
    }
}

// The pixel data's fragments up to the sequence's end mark.
bool fragments(Reader& in, quint64 pos, quint64* after)
{
    for (;;) {
        Header h;
        if (!in.header(pos, &h, nullptr))
            return false;
        if (h.tag == kSequenceEnd) {
            *after = h.value;
            return h.length == 0;
        }
        if (h.tag != kItem || h.length == kUndefined)
            return false;
        pos = h.value + h.length;
    }
}

void trimTrailing(std::string& s, bool nulToo)
{
    size_t n = s.size();
    while (n > 0 && (s[n - 1] == ' ' || (nulToo && s[n - 1] == '\0')))
        --n;
    s.resize(n);
}

// A value as DCMTK holds it after reading, or false where DCMTK would read it otherwise.
bool keptValue(quint16 vr, const unsigned char* p, quint32 length, std::string* out)
{
    const VrKind* kind = vrKind(vr);
    if (kind && kind->integerSize) {
        if (length % quint32(kind->integerSize) != 0)
            return false;
        out->assign(reinterpret_cast<const char*>(p), length);
        return true;
    }
    if (!kind || kind->text == Text::No)
        return false;
    out->assign(reinterpret_cast<const char*>(p), length);
    if (vr == vrCode('U', 'I')) {
        // A UID is digits and dots, padded with one NUL; DCMTK drops white space inside one.
        trimTrailing(*out, true);
        for (const char c : *out)
            if (quint8(c) <= 0x20 || quint8(c) >= 0x7F)
                return false;
        return true;
    }
    // DCMTK drops the trailing spaces of every text value as it reads it (NULs stay, and stop the
    // trimming of the values they end).
    trimTrailing(*out, false);
    return true;
}

} // namespace

void HeaderScan::setWanted(std::vector<quint32> tags)
{
    std::sort(tags.begin(), tags.end());
    tags.erase(std::unique(tags.begin(), tags.end()), tags.end());
    m_wanted = std::move(tags);
}

bool HeaderScan::wanted(quint32 tag) const
{
    return std::binary_search(m_wanted.begin(), m_wanted.end(), tag);
}

bool HeaderScan::scan(const QByteArray& name)
{
    m_values.clear();
    Reader in(name, m_buffer);
    if (walk(in))
        return true;
    m_values.clear();
    return false;
}

bool HeaderScan::walk(Reader& in)
{
    const unsigned char* magic = in.at(128, 4);
    if (!magic || std::memcmp(magic, "DICM", 4) != 0)
        return false;

    // The file meta header: the transfer syntax, and where the data set starts.
    quint64 pos = 132, metaEnd = 0;
    std::string transferSyntax;
    quint32 last = 0;
    for (;;) {
        const unsigned char* p = in.at(pos, 2);
        if (!p)
            return false;
        if (u16(p) != 0x0002)
            break;
        Header h;
        if (!in.header(pos, &h, nullptr) || h.length == kUndefined || (last && h.tag <= last))
            return false;
        last = h.tag;
        if (h.tag == 0x00020000u) {
            const unsigned char* v = in.at(h.value, 4);
            if (h.vr != vrCode('U', 'L') || h.length != 4 || !v)
                return false;
            metaEnd = h.value + 4 + u32(v);
        } else if (h.tag == 0x00020010u) {
            const unsigned char* v = in.at(h.value, h.length);
            if (h.vr != vrCode('U', 'I') || !v)
                return false;
            transferSyntax.assign(reinterpret_cast<const char*>(v), h.length);
            trimTrailing(transferSyntax, true);
        }
        pos = h.value + h.length;
    }
    if (metaEnd && metaEnd != pos)
        return false;
    const DcmXfer xfer(transferSyntax.c_str());
    const bool implicit = xfer.getXfer() == EXS_LittleEndianImplicit;
    if (xfer.getXfer() == EXS_Unknown || (!xfer.isExplicitVR() && !implicit) || !xfer.isLittleEndian() ||
        xfer.getStreamCompression() != ESC_none)
        return false;
    in.implicit = implicit;
    in.vrs = &m_dictionary;
    Creators creators;

    // The data set, in ascending tag order, each element once.
    last = 0;
    while (pos < in.size()) {
        Header h;
        if (!in.header(pos, &h, &creators) || h.tag <= last || (h.tag >> 16) < 0x0008u || (h.tag >> 16) == 0xFFFEu)
            return false;
        last = h.tag;
        if (h.tag == kPixelData) {
            // Skipped (fragment by fragment when compressed); what follows (padding) is walked on.
            if (h.length != kUndefined)
                pos = h.value + h.length;
            else if (!xfer.isEncapsulated() || h.vr != vrCode('O', 'B') || !fragments(in, h.value, &pos))
                return false;
            continue;
        }
        if (isSequence(h)) {
            if (!sequenceBody(in, h.value, h.length, &pos, 0))
                return false;
            continue;
        }
        if (h.length == kUndefined)
            return false;
        if (wanted(h.tag)) {
            const unsigned char* v = h.length <= kLongestKept ? in.at(h.value, h.length) : nullptr;
            Value value;
            value.tag = h.tag;
            value.vr[0] = char(h.vr >> 8);
            value.vr[1] = char(h.vr & 0xFF);
            if (!v || !keptValue(h.vr, v, h.length, &value.bytes))
                return false;
            m_values.push_back(std::move(value));
        }
        pos = h.value + h.length;
    }
    return pos == in.size();
}

quint16 HeaderScan::Dictionary::vr(quint32 tag, const Creators& creators)
{
    const quint16 group = quint16(tag >> 16), element = quint16(tag & 0xFFFFu);
    const std::string* creator = nullptr;
    if ((group & 1u) && element >= 0x1000u) {
        const quint32 block = (tag & 0xFFFF0000u) | (element >> 8);
        for (const auto& [reserved, name] : creators)
            if (reserved == block) {
                creator = &name;
                break;
            }
    }
    quint16* known = nullptr;
    if (creator) {
        const auto at = m_private.find({tag, *creator});
        if (at != m_private.end())
            return at->second;
        known = &m_private[{tag, *creator}];
    } else {
        const auto at = m_public.find(tag);
        if (at != m_public.end())
            return at->second;
        known = &m_public[tag];
    }
    const DcmDataDictionary& dictionary = dcmDataDict.rdlock();
    const DcmDictEntry* entry = dictionary.findEntry(DcmTagKey(group, element), creator ? creator->c_str() : nullptr);
    const DcmEVR evr = entry ? entry->getEVR() : EVR_UN;
    dcmDataDict.rdunlock();
    const char* name = DcmVR(evr).getVRName();
    *known = name && name[0] && name[1] ? vrCode(name[0], name[1]) : vrCode('U', 'N');
    return *known;
}

const HeaderScan::Value* HeaderScan::find(quint32 tag) const
{
    const auto at = std::lower_bound(m_values.begin(), m_values.end(), tag,
                                     [](const Value& v, quint32 t) { return v.tag < t; });
    return at != m_values.end() && at->tag == tag ? &*at : nullptr;
}

bool HeaderScan::text(const Value& v, int pos, std::string* out)
{
    out->clear();
    const quint16 vr = vrCode(v.vr);
    const VrKind* kind = vrKind(vr);
    if (!kind)
        return false;
    if (const int size = kind->integerSize) {
        const int count = int(v.bytes.size()) / size;
        if (pos >= count)
            return false;
        const auto* p = reinterpret_cast<const unsigned char*>(v.bytes.data());
        char number[16];
        const int first = pos < 0 ? 0 : pos, end = pos < 0 ? count : pos + 1;
        for (int i = first; i < end; ++i) {
            const unsigned char* at = p + i * size;
            switch (vr) {
            case vrCode('U', 'S'): std::snprintf(number, sizeof number, "%hu", u16(at)); break;
            case vrCode('S', 'S'): std::snprintf(number, sizeof number, "%hd", qint16(u16(at))); break;
            case vrCode('U', 'L'): std::snprintf(number, sizeof number, "%lu", (unsigned long)u32(at)); break;
            default: std::snprintf(number, sizeof number, "%ld", (long)qint32(u32(at))); break;
            }
            if (i > first)
                out->push_back('\\');
            out->append(number);
        }
        return true;
    }
    if (kind->text == Text::Whole) {
        // One value: DCMTK gives it whatever the position asked for.
        *out = v.bytes;
        return true;
    }
    // The others split at "\", each value trimmed the way DCMTK normalises the VR.
    const bool leading = kind->text == Text::Trimmed;
    const bool trailing = leading || kind->text == Text::Trailing;
    size_t start = 0;
    for (int index = 0;; ++index) {
        const size_t stop = std::min(v.bytes.find('\\', start), v.bytes.size());
        if (pos < 0 || index == pos) {
            size_t from = start, to = stop;
            while (leading && from < to && v.bytes[from] == ' ')
                ++from;
            while (trailing && to > from && v.bytes[to - 1] == ' ')
                --to;
            if (pos < 0 && index > 0)
                out->push_back('\\');
            out->append(v.bytes, from, to - from);
            if (index == pos)
                return true;
        }
        if (stop == v.bytes.size())
            return pos < 0 || (pos == 0 && v.bytes.empty());
        start = stop + 1;
    }
}

QString HeaderScan::string(quint32 tag, int pos) const
{
    const Value* v = find(tag);
    std::string text;
    if (!v || !HeaderScan::text(*v, pos, &text))
        return QString();
    // Up to a NUL, as dcmString reads it.
    return QString::fromLatin1(text.data(), int(qstrnlen(text.data(), uint(text.size()))));
}

} // namespace kestrel::internal
