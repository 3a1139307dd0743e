#pragma once

#include "platform/testexport_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmnet/dstorscu.h>

#include <QObject>

// DCMTK's storage user with a Qt signal per object sent.
class KESTREL_TEST_EXPORT QDcmStorageSCUPrivate : public QObject, public DcmStorageSCU
{
    Q_OBJECT

public:
    explicit QDcmStorageSCUPrivate(QObject* parent = nullptr);
    ~QDcmStorageSCUPrivate() override;

signals:
    void notifyInstanceSent();

protected:
    void notifySOPInstanceSent(const TransferEntry& transferEntry) override;
    OFBool shouldStopAfterCurrentSOPInstance() override;
};
