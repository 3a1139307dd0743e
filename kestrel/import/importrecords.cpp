#include "import/importrecords_p.h"

#include "catalog/catalogschema_p.h"
#include "dicom/dcmvalues_p.h"
#include "dicom/dicomtext_p.h"
#include "dicom/headerscan_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcdicent.h>
#include <dcmtk/dcmdata/dcdict.h>
#include <dcmtk/dcmdata/dcelem.h>
#include <dcmtk/dcmdata/dchashdi.h>
#include <dcmtk/dcmdata/dcitem.h>
#include <dcmtk/dcmdata/dctag.h>

#include <QDebug>
#include <QHash>
#include <QTextCodec>
#include <QTime>

#include <memory>

namespace kestrel::internal::records {

namespace {

// How one column gets its value.
struct ColumnSource {
    enum Kind { Text, Integer, Component, Caller };
    Kind kind = Caller;
    DcmTagKey tag;
    int component = -1;
    bool hasTag = false;
};

struct TablePlan {
    QStringList columns;
    QVector<ColumnSource> sources;
    // Attribute tag -> the columns it fills (text, integer or component).
    QHash<quint32, QVector<int>> byTag;
};

// Every keyword of DCMTK's dictionary with its tag (one walk; findTagFromName scans the whole
// dictionary on each call).
QHash<QString, DcmTagKey> dictionaryKeywords()
{
    QHash<QString, DcmTagKey> keywords;
    DcmDataDictionary& dictionary = dcmDataDict.wrlock();
    for (DcmHashDictIterator it = dictionary.normalBegin(); it != dictionary.normalEnd(); ++it) {
        const DcmDictEntry* entry = *it;
        if (!entry || !entry->getTagName())
            continue;
        // Case-insensitive (the catalogue writes "InplanePhaseEncodingDirection"); retired
        // attributes count as well (OtherPatientIDs).
        QString name = QString::fromLatin1(entry->getTagName()).toLower();
        const bool retired = name.startsWith(QLatin1String("retired_"));
        if (retired)
            name = name.mid(8);
        if (entry->getPrivateCreator() || (retired && keywords.contains(name)))
            continue;
        keywords.insert(name, entry->getKey());
    }
    dcmDataDict.wrunlock();
    return keywords;
}

// The attribute of a column: column names are DICOM keywords with the catalogue's own capitals
// ("NumberofAverages").
DcmTagKey tagForColumn(const QHash<QString, DcmTagKey>& keywords, const QString& column, bool* found)
{
    const auto hit = keywords.constFind(column.toLower());
    *found = hit != keywords.constEnd();
    return *found ? *hit : DcmTagKey();
}

bool isBinary(const DcmTagKey& key)
{
    switch (DcmTag(key).getEVR()) {
    case EVR_OB: case EVR_OW: case EVR_OF: case EVR_OD: case EVR_OL: case EVR_OV:
    case EVR_UN: case EVR_SQ: case EVR_ox: case EVR_px: case EVR_lt:
        return true;
    default:
        return false;
    }
}

const QHash<QString, QPair<DcmTagKey, int>>& componentColumns()
{
    static const QHash<QString, QPair<DcmTagKey, int>> map{
            {"SpacingX", {DCM_PixelSpacing, 0}},           {"SpacingY", {DCM_PixelSpacing, 1}},
            {"OrientationXX", {DCM_ImageOrientationPatient, 0}}, {"OrientationXY", {DCM_ImageOrientationPatient, 1}},
            {"OrientationXZ", {DCM_ImageOrientationPatient, 2}}, {"OrientationYX", {DCM_ImageOrientationPatient, 3}},
            {"OrientationYY", {DCM_ImageOrientationPatient, 4}}, {"OrientationYZ", {DCM_ImageOrientationPatient, 5}},
            {"PositionX", {DCM_ImagePositionPatient, 0}},  {"PositionY", {DCM_ImagePositionPatient, 1}},
            {"PositionZ", {DCM_ImagePositionPatient, 2}}};
    return map;
}

std::unique_ptr<TablePlan> buildPlan(const QHash<QString, DcmTagKey>& keywords, const QString& table)
{
    static const QStringList callerColumns{"patient_fk", "study_fk", "series_fk", "SeriesBase", "FilePath", "Status"};
    auto plan = std::make_unique<TablePlan>();
    plan->columns = schema::columns(table);
    for (int i = 0; i < plan->columns.size(); ++i) {
        const QString& name = plan->columns.at(i);
        ColumnSource source;
        if (componentColumns().contains(name)) {
            source.kind = ColumnSource::Component;
            source.tag = componentColumns().value(name).first;
            source.component = componentColumns().value(name).second;
            source.hasTag = true;
        } else if (!callerColumns.contains(name)) {
            bool found = false;
            const DcmTagKey tag = tagForColumn(keywords, name, &found);
            if (!found)
                qWarning() << "importrecords: no attribute for column" << table << name;
            source.kind = name == QLatin1String("InstanceNumber") ? ColumnSource::Integer : ColumnSource::Text;
            // Binary values (pixel data, profiles, lookup data) and sequences are stored as "":
            // they are never loaded by the header reads.
            source.hasTag = found && !isBinary(tag);
            source.tag = tag;
        }
        plan->sources.append(source);
        if (source.hasTag)
            plan->byTag[dcmTagCode(source.tag)].append(i);
    }
    return plan;
}

const TablePlan& planFor(const QString& table)
{
    // Built once for every table (thread-safe static initialisation); the pipeline reads records
    // from several OpenMP workers.
    static const QHash<QString, std::shared_ptr<const TablePlan>> plans = [] {
        const QHash<QString, DcmTagKey> keywords = dictionaryKeywords();
        QHash<QString, std::shared_ptr<const TablePlan>> all;
        for (const char* name : {"patient", "generalstudy", "generalseries", "imageformat", "imagepixel", "mrimageinfo"})
            all.insert(QString::fromLatin1(name), buildPlan(keywords, QString::fromLatin1(name)));
        return all;
    }();
    static const TablePlan none;
    const auto plan = plans.constFind(table.toLower());
    return plan == plans.constEnd() ? none : **plan;
}

// Decoding by SpecificCharacterSet, decided once per dataset.
class TextDecoder
{
public:
    explicit TextDecoder(const QString& charset) : m_charset(charset) {}
    // CHARSETTEXT: a VR whose text is in the character set (PN, SH, LO, ST, LT, UT, UC); UIDs,
    // codes, dates and numbers are in the default repertoire and kept byte for byte, as the
    // lookups read them.
    QString operator()(const char* data, int length, bool charsetText, bool personName) const
    {
        // A value ends at a NUL byte (padding, never text), as dcmBytes() reads it.
        const int size = int(qstrnlen(data, uint(length)));
        if (!charsetText)
            return QString::fromLatin1(data, size);
        return m_charset.decode(data, size, personName);
    }

private:
    DicomCharset m_charset;
};

bool charsetText(DcmEVR vr)
{
    return vr == EVR_PN || vr == EVR_SH || vr == EVR_LO || vr == EVR_ST || vr == EVR_LT || vr == EVR_UT || vr == EVR_UC;
}

bool charsetText(const char* vr)
{
    static const char* const kinds[] = {"PN", "SH", "LO", "ST", "LT", "UT", "UC"};
    for (const char* kind : kinds)
        if (vr[0] == kind[0] && vr[1] == kind[1])
            return true;
    return false;
}

} // namespace

namespace {

QVector<QVariant> emptyValues(const TablePlan& plan)
{
    QVector<QVariant> values(plan.columns.size());
    const QString empty = QStringLiteral("");
    for (int i = 0; i < plan.sources.size(); ++i) {
        switch (plan.sources.at(i).kind) {
        case ColumnSource::Text: values[i] = empty; break;
        case ColumnSource::Integer: values[i] = QVariant(QVariant::LongLong); break;
        case ColumnSource::Component: values[i] = QVariant(QVariant::Double); break;
        case ColumnSource::Caller: break;
        }
    }
    return values;
}

void store(const TablePlan& plan, const QVector<int>& columns, const QString& text, QVector<QVariant>& values)
{
    QVector<double> parts;
    bool split = false;
    for (int column : columns) {
        const ColumnSource& source = plan.sources.at(column);
        if (source.kind == ColumnSource::Text) {
            values[column] = text;
        } else if (source.kind == ColumnSource::Integer) {
            bool ok = false;
            const qint64 number = text.trimmed().toLongLong(&ok);
            if (ok)
                values[column] = number;
        } else if (source.kind == ColumnSource::Component) {
            if (!split) {
                parts = splitDoubles(text);
                split = true;
            }
            if (source.component < parts.size())
                values[column] = parts.at(source.component);
        }
    }
}

} // namespace

namespace {

// The columns of several tables filled attribute by attribute, in one walk over a header.
class ColumnFill
{
public:
    explicit ColumnFill(const QStringList& tables)
    {
        for (const QString& table : tables) {
            m_plans.append(&planFor(table));
            m_values.append(emptyValues(*m_plans.last()));
        }
    }
    // The attribute CODE: TEXT(&decoded) gives its text when a column wants it (false: none).
    template <typename Text>
    void put(quint32 code, const Text& text)
    {
        QString decoded;
        bool done = false;
        for (int t = 0; t < m_plans.size(); ++t) {
            const auto hit = m_plans[t]->byTag.constFind(code);
            if (hit == m_plans[t]->byTag.constEnd())
                continue;
            if (!done && !text(&decoded))
                return;
            done = true;
            store(*m_plans[t], *hit, decoded, m_values[t]);
        }
    }
    QVector<QVector<QVariant>> values() { return std::move(m_values); }

private:
    QVector<const TablePlan*> m_plans;
    QVector<QVector<QVariant>> m_values;
};

} // namespace

QVector<QVector<QVariant>> readColumns(const QStringList& tables, DcmItem* item)
{
    ColumnFill fill(tables);
    if (!item)
        return fill.values();
    const TextDecoder decode(dcmCharacterSet(item));
    // One walk over the item's elements for all tables instead of one search per column.
    for (DcmObject* object = item->nextInContainer(nullptr); object; object = item->nextInContainer(object)) {
        auto* element = static_cast<DcmElement*>(object);
        if (element->ident() == EVR_SQ)
            continue;
        fill.put(dcmTagCode(element->getTag()), [&](QString* text) {
            OFString raw;
            // A UID has one value: stored as the lookups read it, the first one.
            if ((element->ident() == EVR_UI ? element->getOFString(raw, 0) : element->getOFStringArray(raw)).bad())
                return false;
            *text = decode(raw.c_str(), int(raw.length()), charsetText(element->ident()), element->ident() == EVR_PN);
            return true;
        });
    }
    return fill.values();
}

QVector<QVector<QVariant>> readColumns(const QStringList& tables, const HeaderScan& scan)
{
    ColumnFill fill(tables);
    QString charset;
    if (const HeaderScan::Value* value = scan.find(dcmTagCode(DCM_SpecificCharacterSet))) {
        QStringList sets = scan.string(value->tag, -1).split(QLatin1Char('\\'));
        for (QString& set : sets)
            set = set.trimmed();
        charset = sets.join(QLatin1Char('\\'));
    }
    const TextDecoder decode(charset);
    std::string raw;
    for (const HeaderScan::Value& value : scan.values()) {
        fill.put(value.tag, [&](QString* text) {
            const bool uid = value.vr[0] == 'U' && value.vr[1] == 'I';
            if (!HeaderScan::text(value, uid ? 0 : -1, &raw))
                return false;
            *text = decode(raw.data(), int(raw.size()), charsetText(value.vr), value.vr[0] == 'P' && value.vr[1] == 'N');
            return true;
        });
    }
    return fill.values();
}

std::vector<quint32> columnTags(const QStringList& tables)
{
    std::vector<quint32> tags{dcmTagCode(DCM_SpecificCharacterSet)};
    for (const QString& table : tables) {
        const TablePlan& plan = planFor(table);
        for (auto it = plan.byTag.cbegin(); it != plan.byTag.cend(); ++it)
            tags.push_back(it.key());
    }
    return tags;
}

QVector<QVariant> readColumns(const QString& table, DcmItem* item)
{
    return readColumns(QStringList{table}, item).value(0);
}

int columnIndex(const QString& table, const QString& column)
{
    // The import asks for a few columns of every image: answered from one table of positions.
    static const QHash<QString, QHash<QString, int>> positions = [] {
        QHash<QString, QHash<QString, int>> all;
        for (const QString& name : schema::tables()) {
            const QStringList columns = schema::columns(name);
            QHash<QString, int>& table = all[name.toLower()];
            for (int i = columns.size() - 1; i >= 0; --i)
                table.insert(columns.at(i), i);
        }
        return all;
    }();
    auto known = positions.constFind(table);
    if (known == positions.constEnd())
        known = positions.constFind(table.toLower());
    return known == positions.constEnd() ? -1 : known->value(column, -1);
}

QString timeOfDay(const QString& dicomTime)
{
    // Every form of a DICOM time: HH, HHMM, HHMMSS, HHMMSS.FFFFFF, and the old HH:MM:SS.
    QString digits = dicomTime.trimmed().section(QLatin1Char('.'), 0, 0);
    digits.remove(QLatin1Char(':'));
    if (digits.isEmpty() || digits.size() > 6 || digits.size() % 2 != 0)
        return QStringLiteral("");
    for (const QChar c : qAsConst(digits))
        if (!c.isDigit())
            return QStringLiteral("");
    digits = digits.leftJustified(6, QLatin1Char('0'));
    const QTime time = QTime::fromString(digits, QStringLiteral("hhmmss"));
    return time.isValid() ? time.toString(QStringLiteral("hh:mm:ss")) : QStringLiteral("");
}

QString notUploadedStatus()
{
    // "未上传" as the application has always stored it: six GBK bytes, decoded by GBK itself so the
    // text does not depend on the locale.
    static const QString status = [] {
        const char bytes[] = "\xCE\xB4\xC9\xCF\xB4\xAB";
        QTextCodec* gbk = QTextCodec::codecForName("GBK");
        return gbk ? gbk->toUnicode(bytes) : QString::fromUtf8("\xE6\x9C\xAA\xE4\xB8\x8A\xE4\xBC\xA0");
    }();
    return status;
}

} // namespace kestrel::internal::records
