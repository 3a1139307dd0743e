#include "dicom/dcmvalues_p.h"

#include "dicom/dicomtext_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcerror.h>
#include <dcmtk/dcmdata/dcitem.h>
#include <dcmtk/dcmdata/dctag.h>

#include <QStringList>

namespace kestrel::internal {

bool dcmHas(DcmItem* item, const DcmTagKey& tag)
{
    return item && item->tagExists(tag);
}

namespace {
// A value ends at a NUL byte (padding, never text), whichever of DCMTK's paths read it.
int valueLength(const OFString& value)
{
    return static_cast<int>(qstrnlen(value.c_str(), uint(value.length())));
}
} // namespace

quint32 dcmTagCode(const DcmTagKey& tag)
{
    return (quint32(tag.getGroup()) << 16) | tag.getElement();
}

QString dcmString(DcmItem* item, const DcmTagKey& tag, unsigned long pos, const QString& fallback)
{
    OFString value;
    if (!item || item->findAndGetOFString(tag, value, pos).bad())
        return fallback;
    return QString::fromLatin1(value.c_str(), valueLength(value));
}

QString dcmStringAll(DcmItem* item, const DcmTagKey& tag, const QString& fallback)
{
    OFString value;
    if (!item || item->findAndGetOFStringArray(tag, value).bad())
        return fallback;
    return QString::fromLatin1(value.c_str(), valueLength(value));
}

QByteArray dcmBytes(DcmItem* item, const DcmTagKey& tag)
{
    OFString value;
    if (!item || item->findAndGetOFStringArray(tag, value).bad())
        return QByteArray();
    return QByteArray(value.c_str(), valueLength(value));
}

int dcmInt(DcmItem* item, const DcmTagKey& tag, int fallback, unsigned long pos)
{
    Sint32 value = 0;
    if (item && item->findAndGetSint32(tag, value, pos).good())
        return value;
    bool ok = false;
    const int parsed = dcmString(item, tag, pos).trimmed().toInt(&ok);
    return ok ? parsed : fallback;
}

double dcmDouble(DcmItem* item, const DcmTagKey& tag, double fallback, unsigned long pos)
{
    Float64 value = 0;
    if (item && item->findAndGetFloat64(tag, value, pos).good())
        return value;
    bool ok = false;
    const double parsed = dcmString(item, tag, pos).trimmed().toDouble(&ok);
    return ok ? parsed : fallback;
}

QVector<double> splitDoubles(const QString& text)
{
    QVector<double> values;
    if (text.trimmed().isEmpty())
        return values;
    const QStringList parts = text.split('\\');
    values.reserve(parts.size());
    for (const QString& part : parts)
        values.append(part.trimmed().toDouble());
    return values;
}

QVector<double> dcmDoubles(DcmItem* item, const DcmTagKey& tag)
{
    return splitDoubles(dcmStringAll(item, tag));
}

bool dcmIsPersonName(const DcmTagKey& tag)
{
    return DcmTag(tag).getEVR() == EVR_PN;
}

QString decodeDicomText(const QByteArray& bytes, const QString& specificCharacterSet, bool personName)
{
    return DicomCharset(specificCharacterSet).decode(bytes, personName);
}

QString dcmCharacterSet(DcmItem* item)
{
    for (DcmItem* at = item; at; at = at->getParentItem()) {
        if (!at->tagExists(DCM_SpecificCharacterSet))
            continue;
        QStringList values = dcmStringAll(at, DCM_SpecificCharacterSet).split('\\');
        for (QString& value : values)
            value = value.trimmed();
        return values.join('\\');
    }
    return QString();
}

QString dcmDecodedString(DcmItem* item, const DcmTagKey& tag)
{
    const QByteArray bytes = dcmBytes(item, tag);
    // Most values of most files are plain ASCII: read without looking the character set up.
    if (DicomCharset::isPlainAscii(bytes.constData(), bytes.size()))
        return QString::fromLatin1(bytes);
    return decodeDicomText(bytes, dcmCharacterSet(item), dcmIsPersonName(tag));
}

OFCondition guardedRead(const std::function<OFCondition()>& read)
{
    try {
        return read();
    } catch (...) {
        return EC_CorruptedData;
    }
}

} // namespace kestrel::internal
