#include "network/qdcmstoragescu_p.h"

QDcmStorageSCUPrivate::QDcmStorageSCUPrivate(QObject* parent) : QObject(parent) {}

QDcmStorageSCUPrivate::~QDcmStorageSCUPrivate() = default;

void QDcmStorageSCUPrivate::notifySOPInstanceSent(const TransferEntry& transferEntry)
{
    DcmStorageSCU::notifySOPInstanceSent(transferEntry);
    emit notifyInstanceSent();
}

OFBool QDcmStorageSCUPrivate::shouldStopAfterCurrentSOPInstance()
{
    return DcmStorageSCU::shouldStopAfterCurrentSOPInstance();
}
