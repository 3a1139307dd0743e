#include "network/dcmnetwork_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcuid.h>
#include <dcmtk/dcmnet/assoc.h>
#include <dcmtk/dcmnet/diutil.h>

#include "kestrelpaths.h"

#include <QByteArray>
#include <QSettings>
#include <QtGlobal>

#include <cstring>

namespace kestrel::internal {

void disableNagleForDcmtk()
{
    if (qEnvironmentVariableIsEmpty("TCP_NODELAY"))
        qputenv("TCP_NODELAY", "1");
}

int acceptRemainingStorageContexts(T_ASC_Parameters* params)
{
    static const char* const preferred[] = {UID_LittleEndianExplicitTransferSyntax, UID_LittleEndianImplicitTransferSyntax,
                                            UID_BigEndianExplicitTransferSyntax,
                                            UID_DeflatedExplicitVRLittleEndianTransferSyntax};
    int accepted = 0;
    const int count = ASC_countPresentationContexts(params);
    for (int i = 0; i < count; ++i) {
        T_ASC_PresentationContext context;
        if (ASC_getPresentationContext(params, i, &context).bad() || context.resultReason == ASC_P_ACCEPTANCE
            || !dcmIsaStorageSOPClassUID(context.abstractSyntax, ESSC_All))
            continue;
        for (const char* syntax : preferred) {
            bool offered = false;
            for (int t = 0; t < context.transferSyntaxCount && !offered; ++t)
                offered = std::strcmp(context.proposedTransferSyntaxes[t], syntax) == 0;
            if (offered) {
                if (ASC_acceptPresentationContext(params, context.presentationContextID, syntax).good())
                    ++accepted;
                break;
            }
        }
    }
    return accepted;
}

StoreAnswer storeAnswer(quint16 status)
{
    if (status == 0x0000)
        return StoreAnswer::Success;
    if (status == 0x0001 || status == 0x0107 || status == 0x0116 || (status & 0xf000) == 0xb000)
        return StoreAnswer::Warning;
    return StoreAnswer::Failure;
}

QString storeStatusText(quint16 status)
{
    return QStringLiteral("%1 (0x%2)").arg(QString::fromLatin1(DU_cstoreStatusString(status)))
        .arg(status, 4, 16, QLatin1Char('0'));
}

bool PeerRules::calledAccepted(const QString& title) const
{
    const QString called = title.trimmed();
    return !called.isEmpty() && (calledAETitle.isEmpty() || called == calledAETitle);
}

bool PeerRules::callingAccepted(const QString& title) const
{
    const QString calling = title.trimmed();
    return !calling.isEmpty() && (callingAETitles.isEmpty() || callingAETitles.contains(calling));
}

PeerRules readPeerRules()
{
    const QSettings settings(Kestrel::configFilePath(QStringLiteral("dicomservice.ini")), QSettings::IniFormat);
    PeerRules rules;
    rules.calledAETitle = settings.value(QStringLiteral("provider/CalledAETitle")).toString().trimmed();
    // QSettings splits an unquoted list at its commas; a single title comes as a string.
    for (const QString& entry : settings.value(QStringLiteral("provider/CallingAETitles")).toStringList()) {
        for (const QString& title : entry.split(QLatin1Char(','))) {
            if (!title.trimmed().isEmpty())
                rules.callingAETitles << title.trimmed();
        }
    }
    return rules;
}

} // namespace kestrel::internal
