#pragma once

#include "platform/testexport_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmnet/dstorscu.h>

#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>

// DCMTK's storage user; every object it tried to send is answered by a Qt signal: sent (a
// warning as well), or refused with the reason.
class KESTREL_TEST_EXPORT QDcmStorageSCUPrivate : public QObject, public DcmStorageSCU
{
    Q_OBJECT

public:
    explicit QDcmStorageSCUPrivate(QObject* parent = nullptr);
    ~QDcmStorageSCUPrivate() override;

    using DcmSCU::clearPresentationContexts;

    // Files DCMTK reported on since the last clearAnswered().
    const QSet<QString>& answered() const { return m_answered; }
    void clearAnswered()
    {
        m_answered.clear();
        m_datasetFiles.clear();
    }
    // Queues the data set of FILE, decoded already (DCMTK cannot read the file's transfer syntax);
    // the data set is deleted once sent.
    OFCondition addDecodedFile(const QString& file, DcmDataset* dataset);

signals:
    void notifyInstanceSent();
    void notifyInstanceWarning(const QString& file, const QString& reason);
    void notifyInstanceRefused(const QString& file, const QString& reason);

protected:
    void notifySOPInstanceSent(const TransferEntry& transferEntry) override;
    OFBool shouldStopAfterCurrentSOPInstance() override;

private:
    QSet<QString> m_answered;
    QHash<QString, QString> m_datasetFiles; // SOP Instance UID -> file of the data sets queued
};
