#pragma once

#include "network/dcmnetwork_p.h"
#include "platform/testexport_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmnet/dstorscp.h>

#include <QObject>
#include <QString>

#include <atomic>
#include <vector>

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
    // The titles an association must carry to be taken; set before listen().
    void setPeerRules(const kestrel::internal::PeerRules& rules) { m_peerRules = rules; }

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
    // Refused with DCMTK's A-ASSOCIATE-RJ naming the title that is not taken.
    OFBool checkCalledAETitleAccepted(const OFString& calledAE) override;
    OFBool checkCallingAETitleAccepted(const OFString& callingAE) override;
    // Keeps the request's parameters for negotiateAssociation.
    void notifyAssociationRequest(const T_ASC_Parameters& params, DcmSCPActionType& desiredAction) override;
    // The association profile first; then the storage classes it cannot list (DCMTK holds at most
    // 128 presentation contexts in a profile) are accepted uncompressed or deflated.
    OFCondition negotiateAssociation() override;
    // Connections are accepted here and wait until their sender speaks; only then does DCMTK
    // read the request. A connection that stays silent never holds up the others.
    OFCondition waitForAssociationRQ(T_ASC_Network* network) override;
    // DCMTK declares this const; the series UID it keeps is therefore mutable.
    void notifyInstanceStored(const OFString& filename, const OFString& sopClassUID, const OFString& sopInstanceUID,
                              DcmDataset* dataset = nullptr) const override;

private:
    // Receives the data set of a C-STORE request into a file of its own, byte for byte as it
    // arrives (the meta header naming the sender's AE title), puts it in place and answers. Providers
    // sharing a receiving folder never leave a half-written or overwritten file; another object
    // under the same name gets a name of its own.
    OFCondition storeObject(T_DIMSE_C_StoreRQ& request, T_ASC_PresentationContextID presentationContext);
    // Where the received file PART belongs (DCMTK's directory and file naming), put there; the
    // C-STORE status. PLACED gets the final name.
    Uint16 placeReceived(const T_DIMSE_C_StoreRQ& request, const QString& part, DcmDataset* dataset, QString& placed);

    // Accepted connections whose sender has not spoken yet, with when they came.
    struct Waiting {
        int fd;
        qint64 since;
    };
    // Accepts what is pending on LISTENER and drops connections silent for too long or beyond
    // the bound; the first connection with something to read, or -1 after a second.
    int nextSpeakingConnection(int listener);
    std::vector<Waiting> m_waiting;
    T_ASC_Parameters* m_requestParameters = nullptr;
    kestrel::internal::PeerRules m_peerRules;
    mutable QString m_seriesUID;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_abortRequested{false};
};
