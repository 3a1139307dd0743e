#pragma once

#include "platform/testexport_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmnet/dstorscp.h>

#include <QObject>
#include <QString>

#include <atomic>

// DCMTK's storage provider turned into Qt signals. Lives in the provider's worker thread, where
// DcmSCP::listen() runs; every signal is emitted from that thread.
class KESTREL_TEST_EXPORT QDcmStorageSCPPrivate : public QObject, public DcmStorageSCP
{
    Q_OBJECT

public:
    explicit QDcmStorageSCPPrivate(QObject* parent = nullptr);
    ~QDcmStorageSCPPrivate() override;

    // DcmSCP keeps this protected; the provider aborts an open association when it is stopped.
    OFCondition abortAssociation() override;

    // Ends the listen loop after the current association (or within a second when idle).
    void setStop(bool stop) { m_stop = stop; }
    // Aborts the open association from the worker thread at its next message; DCMTK's
    // association object must not be torn down under the thread that is reading from it.
    void requestAbort() { m_abortRequested = true; }
    bool stopRequested() const { return m_stop; }

    QString seriesUID() const { return m_seriesUID; }

    // File name as DCMTK reports it, with doubled separators folded to one.
    static QString normalizedFileName(const OFString& filename);

signals:
    void notifyInstanceSaved(const QString& filename, const QString& sopClassUID, const QString& sopInstanceUID,
                             const QString& seriesUID);
    void notifyStartReceveSeriesFiles();
    void notifyRecvedSeriesFiles(QString seriesUID);
    void notifyStop();
    // The port is open and associations are accepted from now on.
    void notifyListening();

protected:
    OFCondition openListenPort() override;
    OFCondition handleIncomingCommand(T_DIMSE_Message* incomingMsg, const DcmPresentationContextInfo& presInfo) override;
    void notifyAssociationAcknowledge() override;
    void notifyReleaseRequest() override;
    void notifyAbortRequest() override;
    void notifyAssociationTermination() override;
    void notifyDIMSEError(const OFCondition& cond) override;
    OFBool stopAfterCurrentAssociation() override;
    OFBool stopAfterConnectionTimeout() override;
    // Stores a received object: written under a name of its own, then put in place in one step,
    // so that providers sharing a receiving folder never leave a half-written or overwritten
    // file; another object under the same name gets a name of its own. The sender's AE title goes
    // into the file's meta header.
    Uint16 checkAndProcessSTORERequest(const T_DIMSE_C_StoreRQ& reqMessage, DcmFileFormat& fileformat) override;
    // DCMTK declares this const; the series UID it keeps is therefore mutable.
    void notifyInstanceStored(const OFString& filename, const OFString& sopClassUID, const OFString& sopInstanceUID,
                              DcmDataset* dataset = nullptr) const override;

private:
    mutable QString m_seriesUID;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_abortRequested{false};
};
