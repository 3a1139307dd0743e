#include "catalog/identity_p.h"

#include <QCryptographicHash>
#include <QStringList>

namespace kestrel::internal {

QString normalizedPersonName(const QString& name)
{
    QString text = name.trimmed();
    while (text.endsWith(QLatin1Char('^')) || text.endsWith(QLatin1Char(' ')))
        text.chop(1);
    return text.toCaseFolded();
}

QString patientIdentityKey(const QString& patientId, const QString& issuer, const QString& birthDate, const QString& name)
{
    // The unit separator cannot occur in DICOM text values, so the parts cannot run into each other.
    const QString identity = QStringList{patientId.trimmed(), issuer.trimmed(), birthDate.trimmed(), normalizedPersonName(name)}
                                 .join(QChar(0x1f));
    return QString::fromLatin1(QCryptographicHash::hash(identity.toUtf8(), QCryptographicHash::Sha1).toHex());
}

} // namespace kestrel::internal
