#pragma once

#include "platform/testexport_p.h"

#include <QByteArray>
#include <QString>
#include <QVector>

#include <functional>

class DcmItem;
class DcmTagKey;
class OFCondition;

// Small readers over DCMTK's findAndGet* calls, used by every class that reads attributes.
// A missing attribute gives the fallback; nothing throws.
namespace kestrel::internal {

// A tag as one number, group in the high half ("(0020,000E)" is 0x0020000E).
KESTREL_TEST_EXPORT quint32 dcmTagCode(const DcmTagKey& tag);

// True when the item holds the attribute (empty or not).
KESTREL_TEST_EXPORT bool dcmHas(DcmItem* item, const DcmTagKey& tag);

// Value number POS of the attribute as DCMTK renders it (Latin-1 bytes as they are).
KESTREL_TEST_EXPORT QString dcmString(DcmItem* item, const DcmTagKey& tag, unsigned long pos = 0,
                                 const QString& fallback = QString());

// The whole value, multi-valued attributes with their "\" separators.
KESTREL_TEST_EXPORT QString dcmStringAll(DcmItem* item, const DcmTagKey& tag, const QString& fallback = QString());

// The raw bytes of the whole value, for text that still has to be decoded.
KESTREL_TEST_EXPORT QByteArray dcmBytes(DcmItem* item, const DcmTagKey& tag);

// Numbers: value number POS converted the DICOM way (IS/DS as text, US/SS/UL/SL/FL/FD as binary).
KESTREL_TEST_EXPORT int dcmInt(DcmItem* item, const DcmTagKey& tag, int fallback = 0, unsigned long pos = 0);
KESTREL_TEST_EXPORT double dcmDouble(DcmItem* item, const DcmTagKey& tag, double fallback = 0.0, unsigned long pos = 0);

// A multi-valued numeric text ("1\0\0\0\1\0") split at "\" and parsed; an unparsable value is 0.
KESTREL_TEST_EXPORT QVector<double> splitDoubles(const QString& text);
KESTREL_TEST_EXPORT QVector<double> dcmDoubles(DcmItem* item, const DcmTagKey& tag);

// True when the attribute is a person name (PN), whose components reset the character set.
KESTREL_TEST_EXPORT bool dcmIsPersonName(const DcmTagKey& tag);

// Text decoded by a SpecificCharacterSet value, all its values with their "\" separators
// (DicomCharset; an unknown set or invalid bytes give Latin-1).
KESTREL_TEST_EXPORT QString decodeDicomText(const QByteArray& bytes, const QString& specificCharacterSet,
                                            bool personName = false);

// The SpecificCharacterSet (0008,0005) that applies to the item, all its values trimmed and
// joined by "\": the item's own, else that of the nearest item around it (an item of a sequence
// inherits its data set's).
KESTREL_TEST_EXPORT QString dcmCharacterSet(DcmItem* item);

// A person name (or any text attribute) decoded by the item's SpecificCharacterSet.
KESTREL_TEST_EXPORT QString dcmDecodedString(DcmItem* item, const DcmTagKey& tag);

// Runs READ (a DCMTK load of outside data) and returns its condition. Some crafted files make
// DCMTK's parser throw (std::out_of_range from its directory record checks, for one) instead of
// failing: the exception is caught and reported as EC_CorruptedData, so a bad file is one
// unreadable file and never ends the program.
KESTREL_TEST_EXPORT OFCondition guardedRead(const std::function<OFCondition()>& read);

} // namespace kestrel::internal
