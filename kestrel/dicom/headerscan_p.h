#pragma once

#include "platform/testexport_p.h"

#include <QByteArray>
#include <QString>

#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

// A header reader for the files most folders are made of, beside DCMTK's: little endian data sets,
// explicit VR (the encapsulated transfer syntaxes included) or implicit, behind a file meta header. It walks
// the elements once without building them and keeps the values of the attributes asked for, as
// DCMTK would give them. Everything it does not read exactly as DCMTK does (other encodings, odd
// lengths, elements out of order, unknown VRs, UIDs with NUL bytes inside, text in binary VRs, a file
// that ends early or with bytes that are no element, ...) makes it decline: the caller then reads the
// file with DCMTK, which also decides whether the file is readable at all. Importing a folder reads
// most of its headers here, at several times DCMTK's pace.
namespace kestrel::internal {

class KESTREL_TEST_EXPORT HeaderScan
{
public:
    struct Value {
        quint32 tag = 0;  // group << 16 | element
        char vr[2] = {0, 0};
        std::string bytes; // as stored, trailing spaces removed (and a UID's padding)
    };

    // The attributes whose values are kept (tags as above, any order).
    void setWanted(std::vector<quint32> tags);

    // Reads the file NAME (encoded). False when it declines; values() is then empty.
    bool scan(const QByteArray& name);

    // The kept values of the last scan, by tag.
    const std::vector<Value>& values() const { return m_values; }
    const Value* find(quint32 tag) const;

    // Value number POS of V (-1: the whole value, multiple values with their "\"), as DCMTK's
    // getOFString / getOFStringArray give it. False when V has no value POS.
    static bool text(const Value& v, int pos, std::string* out);
    // Value POS of the attribute TAG as text up to a NUL, Latin-1 (empty when absent); dcmString's twin.
    QString string(quint32 tag, int pos = 0) const;

    class Reader; // the file, read in blocks

    // Private creators of one data set or item: (group << 16 | block, creator).
    using Creators = std::vector<std::pair<quint32, std::string>>;
    // VRs of DCMTK's data dictionary (private ones by creator) for implicit VR files, each looked
    // up once: the lookups take the dictionary's lock.
    class Dictionary
    {
    public:
        quint16 vr(quint32 tag, const Creators& creators); // two characters, "UN" when unknown
    private:
        std::unordered_map<quint32, quint16> m_public;
        std::map<std::pair<quint32, std::string>, quint16> m_private;
    };

private:
    bool walk(Reader& in);
    bool wanted(quint32 tag) const;

    std::vector<quint32> m_wanted; // sorted
    std::vector<Value> m_values;
    Dictionary m_dictionary;
    std::vector<unsigned char> m_buffer; // the reader's window
};

} // namespace kestrel::internal
