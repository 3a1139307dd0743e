#include "anonymize/deidentifier_p.h"

#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcistrmb.h>
#include <dcmtk/dcmdata/dcmetinf.h>
#include <dcmtk/dcmdata/dcostrmb.h>
#include <dcmtk/dcmdata/dcsequen.h>

#include <QCryptographicHash>
#include <QDate>
#include <QHash>
#include <QRegularExpression>
#include <QSet>

namespace kestrel::internal {

namespace {

const char* const kDicomRoot = "1.2.840.10008.";

QString elementText(DcmElement* element)
{
    OFString text;
    element->getOFStringArray(text);
    return QString::fromLatin1(text.c_str());
}

void putText(DcmElement* element, const QString& text)
{
    element->putString(text.toLatin1().constData());
}

// A value of VR that identifies nothing; empty for binary values.
const char* dummyValue(DcmEVR vr)
{
    switch (vr) {
    case EVR_PN: return "Anonymous";
    case EVR_DA: return "19000101";
    case EVR_TM: return "000000";
    case EVR_DT: return "19000101000000";
    case EVR_AS: return "000Y";
    case EVR_DS: case EVR_IS: case EVR_US: case EVR_SS: case EVR_UL: case EVR_SL: case EVR_FL: case EVR_FD:
        return "0";
    case EVR_AE: case EVR_CS: return "ANONYMIZED";
    case EVR_LO: case EVR_SH: case EVR_LT: case EVR_ST: case EVR_UT: case EVR_UC: return "Anonymized";
    default: return nullptr;
    }
}

// YYYYMMDD (or the old YYYY.MM.DD) moved by DAYS; empty when it is no date.
QString shiftedDate(const QString& text, int days)
{
    QString digits = text.trimmed();
    if (digits.size() == 10 && digits.at(4) == '.' && digits.at(7) == '.')
        digits.remove('.');
    const QDate date = QDate::fromString(digits.left(8), QStringLiteral("yyyyMMdd"));
    if (digits.size() < 8 || !date.isValid())
        return QString();
    return date.addDays(days).toString(QStringLiteral("yyyyMMdd")) + digits.mid(8);
}

} // namespace

Deidentifier::Deidentifier(const DeidentProfile& profile, const DeidentOptions& options, DeidentPseudonyms pseudonyms)
    : m_profile(profile), m_options(options), m_pseudonyms(std::move(pseudonyms))
{
}

QList<QPair<QString, QString>> Deidentifier::methodCodes(const DeidentOptions& options)
{
    // Each option kept names its code after the profile's own.
    const struct {
        bool DeidentOptions::*option;
        const char* code;
        const char* meaning;
    } kept[] = {
        {&DeidentOptions::modifiedDates, "113107", "Retain Longitudinal Temporal Information Modified Dates Option"},
        {&DeidentOptions::patientCharacteristics, "113108", "Retain Patient Characteristics Option"},
        {&DeidentOptions::deviceIdentity, "113109", "Retain Device Identity Option"},
        {&DeidentOptions::uids, "113110", "Retain UIDs Option"},
        {&DeidentOptions::safePrivate, "113111", "Retain Safe Private Option"},
        {&DeidentOptions::institutionIdentity, "113112", "Retain Institution Identity Option"},
    };
    QList<QPair<QString, QString>> codes{{"113100", "Basic Application Confidentiality Profile"}};
    for (const auto& option : kept)
        if (options.*option.option)
            codes.append({QLatin1String(option.code), QLatin1String(option.meaning)});
    return codes;
}

Status Deidentifier::apply(DcmFileFormat& file)
{
    m_status = Status::ok();
    m_record.sourceDigest = DeidentRecord::digestOf(file);
    DcmDataset* dataset = file.getDataset();
    walkItem(dataset, true);
    if (!m_status)
        return m_status;
    markDeidentified(dataset);
    stripMetaHeader(file);
    return m_status;
}

void Deidentifier::keepOriginal(DcmElement* element)
{
    if (!m_record.elements.tagExists(element->getTag()))
        m_record.elements.insert(OFstatic_cast(DcmElement*, element->clone()), true);
}

bool Deidentifier::walkItem(DcmItem* item, bool top)
{
    // The private creators of this item, by group and block.
    QHash<quint32, QString> creators;
    for (unsigned long i = 0; i < item->card(); ++i) {
        DcmElement* element = item->getElement(i);
        const DcmTag& tag = element->getTag();
        if ((tag.getGroup() & 1) && tag.getElement() >= 0x10 && tag.getElement() <= 0xff)
            creators.insert((quint32(tag.getGroup()) << 8) | tag.getElement(), elementText(element));
    }

    bool changed = false;
    QSet<quint32> keptBlocks;
    for (unsigned long i = 0; i < item->card() && m_status;) {
        DcmElement* element = item->getElement(i);
        const DcmTag tag = element->getTag();
        if (tag.getGroup() & 1) {
            const quint32 block = (quint32(tag.getGroup()) << 8) | (tag.getElement() >> 8);
            const bool creator = tag.getElement() >= 0x10 && tag.getElement() <= 0xff;
            const bool safe = !creator && tag.getElement() >= 0x1000 && m_options.safePrivate &&
                              m_profile.isSafePrivate(tag.getGroup(), creators.value(block), quint8(tag.getElement() & 0xff));
            if (safe)
                keptBlocks.insert(block);
            if (safe || creator) {
                ++i; // creators are decided once their blocks are known
                continue;
            }
        } else {
            const DeidentAction action =
                    tag.getElement() == 0 ? DeidentAction::Keep : m_profile.action(tag, element->ident(), m_options);
            if (action != DeidentAction::Remove) {
                changed |= applyAction(item, element, action, top);
                ++i;
                continue;
            }
        }
        DcmElement* gone = item->remove(i);
        if (top && !m_record.elements.tagExists(gone->getTag()))
            m_record.elements.insert(gone, true);
        else
            delete gone;
        changed = true;
    }
    for (unsigned long i = 0; i < item->card();) {
        const DcmTag tag = item->getElement(i)->getTag();
        const quint32 block = (quint32(tag.getGroup()) << 8) | tag.getElement();
        if ((tag.getGroup() & 1) && tag.getElement() >= 0x10 && tag.getElement() <= 0xff && !keptBlocks.contains(block)) {
            DcmElement* gone = item->remove(i);
            if (top && !m_record.elements.tagExists(gone->getTag()))
                m_record.elements.insert(gone, true);
            else
                delete gone;
            changed = true;
        } else {
            ++i;
        }
    }
    return changed;
}

// Applies ACTION (anything but removal) to ELEMENT of ITEM; true when its value changed.
bool Deidentifier::applyAction(DcmItem* item, DcmElement* element, DeidentAction action, bool top)
{
    Q_UNUSED(item);
    const DcmEVR vr = element->ident();
    if (action == DeidentAction::Keep && vr != EVR_SQ)
        return false;
    DcmElement* before = top ? OFstatic_cast(DcmElement*, element->clone()) : nullptr;
    bool changed = false;
    const DcmTagKey tag = element->getTag();
    if (top && action != DeidentAction::Keep && (tag == DCM_PatientID || tag == DCM_PatientName)) {
        // The patient's pseudonyms, so that the files of one patient stay together.
        const QString pseudonym = tag == DCM_PatientID ? m_pseudonyms.patientId : m_pseudonyms.patientName;
        changed = elementText(element) != pseudonym;
        putText(element, pseudonym);
    } else {
        switch (action) {
        case DeidentAction::Keep: {
            auto* sequence = OFstatic_cast(DcmSequenceOfItems*, element);
            for (unsigned long i = 0; i < sequence->card() && m_status; ++i)
                changed |= walkItem(sequence->getItem(i), false);
            break;
        }
        case DeidentAction::Empty:
            changed = element->getLength() > 0 || (vr == EVR_SQ && OFstatic_cast(DcmSequenceOfItems*, element)->card() > 0);
            element->clear();
            break;
        case DeidentAction::Dummy:
            if (const char* dummy = dummyValue(vr))
                element->putString(dummy);
            else
                element->clear();
            changed = true;
            break;
        case DeidentAction::Uid:
            changed = replaceUids(element);
            break;
        case DeidentAction::ShiftDate:
            changed = shiftDates(element);
            break;
        case DeidentAction::Remove:
            break;
        }
    }
    if (before) {
        if (changed && !m_record.elements.tagExists(tag))
            m_record.elements.insert(before, true);
        else
            delete before;
    }
    return changed;
}

bool Deidentifier::replaceUids(DcmElement* element)
{
    const QString text = elementText(element);
    QStringList values = text.split('\\');
    for (QString& value : values) {
        value = value.trimmed();
        if (value.isEmpty() || value.startsWith(QLatin1String(kDicomRoot)))
            continue; // no value, or one the standard defines: identifies nothing
        const QString pseudonym = m_pseudonyms.uid ? m_pseudonyms.uid(value) : QString();
        if (pseudonym.isEmpty()) {
            m_status = Status::failed(QStringLiteral("no pseudonym could be had for the UID %1").arg(value));
            return false;
        }
        value = pseudonym;
    }
    const QString replaced = values.join('\\');
    if (replaced == text)
        return false;
    putText(element, replaced);
    return true;
}

bool Deidentifier::shiftDates(DcmElement* element)
{
    const QString text = elementText(element);
    if (text.isEmpty())
        return false;
    QStringList values = text.split('\\');
    for (QString& value : values)
        value = shiftedDate(value, m_pseudonyms.dateShiftDays); // a value that is no date goes
    putText(element, values.join('\\'));
    return true;
}

void Deidentifier::markDeidentified(DcmDataset* dataset)
{
    const QList<QPair<QString, QString>> codes = methodCodes(m_options);
    const auto prepare = [&](const DcmTagKey& tag) {
        DcmElement* present = nullptr;
        if (dataset->findAndGetElement(tag, present).good() && present)
            keepOriginal(present);
        else if (!m_record.added.contains(tag))
            m_record.added << tag;
    };
    prepare(DCM_PatientIdentityRemoved);
    dataset->putAndInsertString(DCM_PatientIdentityRemoved, "YES");
    QStringList meanings;
    for (const auto& code : codes)
        meanings << code.second;
    prepare(DCM_DeidentificationMethod);
    dataset->putAndInsertString(DCM_DeidentificationMethod, meanings.join('\\').toLatin1().constData());
    prepare(DCM_DeidentificationMethodCodeSequence);
    dataset->insertEmptyElement(DCM_DeidentificationMethodCodeSequence, true);
    for (const auto& code : codes) {
        DcmItem* item = nullptr;
        if (dataset->findOrCreateSequenceItem(DCM_DeidentificationMethodCodeSequence, item, -2).bad() || !item)
            continue;
        item->putAndInsertString(DCM_CodeValue, code.first.toLatin1().constData());
        item->putAndInsertString(DCM_CodingSchemeDesignator, "DCM");
        item->putAndInsertString(DCM_CodeMeaning, code.second.toLatin1().constData());
    }
    if (m_options.modifiedDates) {
        prepare(DCM_LongitudinalTemporalInformationModified);
        dataset->putAndInsertString(DCM_LongitudinalTemporalInformationModified, "MODIFIED");
    }
}

// The meta header keeps only what describes the encoding; the writer adds its own name and the
// new SOP instance UID.
void Deidentifier::stripMetaHeader(DcmFileFormat& file)
{
    DcmMetaInfo* meta = file.getMetaInfo();
    if (!meta)
        return;
    for (unsigned long i = 0; i < meta->card();) {
        const Uint16 element = meta->getElement(i)->getTag().getElement();
        if (element == 0x0000 || element == 0x0001 || element == 0x0002 || element == 0x0010) {
            ++i;
            continue;
        }
        DcmElement* gone = meta->remove(i);
        if (!m_record.meta.tagExists(gone->getTag()))
            m_record.meta.insert(gone, true);
        else
            delete gone;
    }
}

namespace {

QString encodeElements(DcmItem& holder)
{
    if (holder.card() == 0)
        return QString();
    holder.loadAllDataIntoMemory();
    // The meta header adds its preamble.
    const Uint32 room = holder.getLength(EXS_LittleEndianExplicit, EET_ExplicitLength) + DCM_PreambleLen + DCM_MagicLen;
    QByteArray bytes(int(room), '\0');
    DcmOutputBufferStream out(bytes.data(), room);
    holder.transferInit();
    const OFCondition status = holder.write(out, EXS_LittleEndianExplicit, EET_ExplicitLength, nullptr);
    holder.transferEnd();
    void* written = nullptr;
    offile_off_t length = 0;
    out.flushBuffer(written, length);
    if (status.bad())
        return QString();
    bytes.truncate(int(length));
    return QString::fromLatin1(bytes.toBase64());
}

bool decodeElements(const QString& text, DcmItem* into, bool isMeta = false)
{
    into->clear();
    if (text.isEmpty())
        return true;
    const QByteArray bytes = QByteArray::fromBase64(text.toLatin1());
    DcmInputBufferStream in;
    in.setBuffer(bytes.constData(), bytes.size());
    in.setEos();
    // The meta header finds its own encoding behind the preamble.
    if (isMeta)
        return into->read(in, EXS_Unknown).good();
    into->transferInit();
    const OFCondition status = into->read(in, EXS_LittleEndianExplicit);
    into->transferEnd();
    return status.good();
}

void takeMissing(DcmItem& into, DcmItem& from)
{
    for (unsigned long i = 0; i < from.card(); ++i) {
        DcmElement* element = from.getElement(i);
        if (!into.tagExists(element->getTag()))
            into.insert(OFstatic_cast(DcmElement*, element->clone()), true);
    }
}

void putBack(DcmItem& into, DcmItem& from)
{
    for (unsigned long i = 0; i < from.card(); ++i)
        if (from.getElement(i)->getTag().getElement() != 0) // group lengths are written anew
            into.insert(OFstatic_cast(DcmElement*, from.getElement(i)->clone()), true);
}

} // namespace

// The dataset's elements, then (when the meta header lost any) a blank and the meta header's.
QString DeidentRecord::elementsText()
{
    // The meta header is read back by its group length.
    if (meta.card() > 0)
        meta.computeGroupLengthAndPadding(EGL_withGL, EPD_noChange, EXS_LittleEndianExplicit, EET_ExplicitLength);
    const QString metaText = encodeElements(meta);
    return metaText.isEmpty() ? encodeElements(elements) : encodeElements(elements) + ' ' + metaText;
}

QString DeidentRecord::addedText() const
{
    QStringList parts;
    for (const DcmTagKey& tag : added)
        parts << QStringLiteral("%1,%2").arg(tag.getGroup(), 4, 16, QLatin1Char('0')).arg(tag.getElement(), 4, 16, QLatin1Char('0'));
    return parts.join(' ');
}

bool DeidentRecord::read(const QString& elementsText, const QString& addedText)
{
    added.clear();
    for (const QString& part : addedText.split(' ', Qt::SkipEmptyParts)) {
        const QStringList numbers = part.split(',');
        if (numbers.size() != 2)
            return false;
        added << DcmTagKey(quint16(numbers.at(0).toUInt(nullptr, 16)), quint16(numbers.at(1).toUInt(nullptr, 16)));
    }
    return decodeElements(elementsText.section(' ', 0, 0), &elements) && decodeElements(elementsText.section(' ', 1, 1), &meta, true);
}

QString DeidentRecord::digestOf(DcmFileFormat& file)
{
    DcmDataset header;
    DcmMetaInfo meta;
    const auto copy = [](DcmItem* from, DcmItem& into, bool isMeta) {
        for (unsigned long i = 0; from && i < from->card(); ++i) {
            DcmElement* element = from->getElement(i);
            const DcmTagKey tag = element->getTag();
            if (tag.getElement() == 0 || tag == DCM_PixelData || (isMeta && tag.getElement() <= 0x0002) ||
                tag == DCM_TransferSyntaxUID)
                continue;
            into.insert(OFstatic_cast(DcmElement*, element->clone()), true);
        }
    };
    copy(file.getDataset(), header, false);
    copy(file.getMetaInfo(), meta, true);
    QCryptographicHash hash(QCryptographicHash::Sha1);
    hash.addData(encodeElements(header).toLatin1());
    hash.addData(encodeElements(meta).toLatin1());
    return QString::fromLatin1(hash.result().toHex());
}

void DeidentRecord::merge(DcmItem& otherElements, DcmItem& otherMeta, const QList<DcmTagKey>& otherAdded)
{
    takeMissing(elements, otherElements);
    takeMissing(meta, otherMeta);
    for (const DcmTagKey& tag : otherAdded)
        if (!added.contains(tag))
            added << tag;
    // A tag the original had is never one that was added.
    for (int i = added.size() - 1; i >= 0; --i)
        if (elements.tagExists(added.at(i)))
            added.removeAt(i);
}

void DeidentRecord::restore(DcmFileFormat& file)
{
    DcmDataset* dataset = file.getDataset();
    for (const DcmTagKey& tag : added)
        delete dataset->remove(tag);
    putBack(*dataset, elements);
    putBack(*file.getMetaInfo(), meta);
}

} // namespace kestrel::internal
