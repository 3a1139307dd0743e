#include "anonymize/deidentprofile_p.h"

#include "dicom/dcmvalues_p.h"
#include "kestrelpaths.h"

#include <QFile>
#include <QMap>
#include <QMutex>
#include <QRegularExpression>
#include <QSettings>
#include <QTextStream>

#include <memory>

namespace kestrel::internal {

namespace {

QString privateKey(quint16 group, const QString& creator, quint8 element)
{
    return QStringLiteral("%1|%2|%3").arg(group, 4, 16, QLatin1Char('0')).arg(creator.trimmed()).arg(element, 2, 16, QLatin1Char('0'));
}

struct OptionKey {
    const char* key;
    bool DeidentOptions::*flag;
};
const OptionKey kOptionKeys[] = {
        {"RetainLongitudinalModifiedDates", &DeidentOptions::modifiedDates},
        {"RetainPatientCharacteristics", &DeidentOptions::patientCharacteristics},
        {"RetainDeviceIdentity", &DeidentOptions::deviceIdentity},
        {"RetainInstitutionIdentity", &DeidentOptions::institutionIdentity},
        {"RetainUIDs", &DeidentOptions::uids},
        {"RetainSafePrivate", &DeidentOptions::safePrivate},
};

} // namespace

DeidentOptions DeidentOptions::fromSettings(QSettings* settings)
{
    DeidentOptions options;
    if (!settings)
        return options;
    for (const OptionKey& option : kOptionKeys)
        options.*option.flag = settings->value(QStringLiteral("options/") + QLatin1String(option.key), false).toBool();
    return options;
}

const QStringList& DeidentOptions::settingsKeys()
{
    static const QStringList keys = [] {
        QStringList list;
        for (const OptionKey& option : kOptionKeys)
            list << QStringLiteral("options/") + QLatin1String(option.key);
        return list;
    }();
    return keys;
}

QString DeidentProfile::defaultPath()
{
    return Kestrel::applicationDir() + QStringLiteral("/../dicom/basic-profile.tsv");
}

const DeidentProfile* DeidentProfile::shared(const QString& path, Status* status)
{
    static QMutex mutex;
    static QMap<QString, std::shared_ptr<DeidentProfile>> loaded;
    QMutexLocker lock(&mutex);
    auto it = loaded.find(path);
    if (it == loaded.end()) {
        auto profile = std::make_shared<DeidentProfile>();
        const Status read = profile->load(path);
        if (!read) {
            if (status)
                *status = read;
            return nullptr;
        }
        it = loaded.insert(path, profile);
    }
    return it->get();
}

Status DeidentProfile::load(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return Status::failed(QStringLiteral("cannot read the de-identification table %1").arg(path));
    static const QRegularExpression publicTag(QStringLiteral("^\\(([0-9A-Fa-f]{4}),([0-9A-Fa-f]{4})\\)$"));
    static const QRegularExpression privateTag(QStringLiteral("^\\(([0-9A-Fa-f]{4}),\"([^\"]+)\",([0-9A-Fa-f]{2})\\)$"));
    static const QHash<QString, int> retainNames{{QStringLiteral("dates"), Dates},
                                                 {QStringLiteral("patient"), Patient},
                                                 {QStringLiteral("device"), Device},
                                                 {QStringLiteral("institution"), Institution},
                                                 {QStringLiteral("uids"), Uids},
                                                 {QStringLiteral("safeprivate"), 0}};
    m_rows.clear();
    m_safePrivate.clear();
    QTextStream in(&file);
    in.setCodec("UTF-8");
    int lineNumber = 0;
    while (!in.atEnd()) {
        const QString line = in.readLine();
        ++lineNumber;
        if (line.trimmed().isEmpty() || line.startsWith('#') || line.startsWith(QLatin1String("tag\t")))
            continue;
        const QStringList fields = line.split('\t');
        const auto bad = [&] { return Status(Status::InvalidInput, QStringLiteral("%1:%2: not a row of the table").arg(path).arg(lineNumber)); };
        if (fields.size() < 3)
            return bad();
        Row row;
        row.action = fields.at(2).trimmed();
        for (const QString& name : fields.value(3).split(',', Qt::SkipEmptyParts)) {
            if (!retainNames.contains(name.trimmed()))
                return bad();
            row.retain |= retainNames.value(name.trimmed());
        }
        if (const auto m = publicTag.match(fields.at(0)); m.hasMatch())
            m_rows.insert(dcmTagCode(DcmTagKey(quint16(m.captured(1).toUInt(nullptr, 16)), quint16(m.captured(2).toUInt(nullptr, 16)))), row);
        else if (const auto p = privateTag.match(fields.at(0)); p.hasMatch())
            m_safePrivate.insert(privateKey(quint16(p.captured(1).toUInt(nullptr, 16)), p.captured(2), quint8(p.captured(3).toUInt(nullptr, 16))));
        else
            return bad();
    }
    if (m_rows.isEmpty())
        return Status(Status::InvalidInput, QStringLiteral("the de-identification table %1 lists no attribute").arg(path));
    return Status::ok();
}

DeidentAction DeidentProfile::action(const DcmTagKey& tag, DcmEVR vr, const DeidentOptions& options) const
{
    const auto it = m_rows.constFind(dcmTagCode(tag));
    if (it == m_rows.constEnd())
        return DeidentAction::Keep;
    const int retain = it->retain;
    if (((retain & Patient) && options.patientCharacteristics) || ((retain & Device) && options.deviceIdentity) ||
        ((retain & Institution) && options.institutionIdentity) || ((retain & Uids) && options.uids))
        return DeidentAction::Keep;
    if ((retain & Dates) && options.modifiedDates) {
        if (vr == EVR_DA || vr == EVR_DT)
            return DeidentAction::ShiftDate;
        if (vr == EVR_TM)
            return DeidentAction::Keep; // whole days move, the time of day stays
    }

    const QString& basic = it->action;
    DeidentAction result = DeidentAction::Remove;
    if (basic == QLatin1String("U"))
        result = DeidentAction::Uid;
    else if (basic == QLatin1String("X/Z/U*"))
        // References: the sequence stays and the UIDs in its items are replaced.
        result = vr == EVR_SQ ? DeidentAction::Keep : DeidentAction::Uid;
    else if (basic == QLatin1String("D"))
        result = DeidentAction::Dummy;
    else if (basic.contains('Z'))
        // Z, X/Z, Z/D, X/Z/D: present and empty, which every attribute type allows but type 1.
        result = DeidentAction::Empty;
    // X and X/D: removed; a made-up date or label would only mislead.

    if (vr == EVR_UI && (result == DeidentAction::Dummy || result == DeidentAction::Empty))
        return DeidentAction::Uid; // a dummy UID is a pseudonym; never an empty reference
    if (vr == EVR_SQ && result == DeidentAction::Dummy)
        return DeidentAction::Empty; // no item can be made up; the items would identify
    return result;
}

QString DeidentProfile::basicAction(const DcmTagKey& tag) const
{
    return m_rows.value(dcmTagCode(tag)).action;
}

bool DeidentProfile::isSafePrivate(quint16 group, const QString& creator, quint8 element) const
{
    return m_safePrivate.contains(privateKey(group, creator, element));
}

QList<DcmTagKey> DeidentProfile::tags() const
{
    QList<DcmTagKey> list;
    for (auto it = m_rows.constBegin(); it != m_rows.constEnd(); ++it)
        list << DcmTagKey(quint16(it.key() >> 16), quint16(it.key() & 0xffff));
    return list;
}

} // namespace kestrel::internal
