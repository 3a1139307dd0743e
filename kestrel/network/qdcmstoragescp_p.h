#pragma once

#include "network/dcmnetwork_p.h"
#include "platform/testexport_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmnet/dstorscp.h>

#include <QObject>
#include <QString>

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

// DCMTK's storage provider turned into Qt signals. The listening object lives in the provider's
// thread, where DcmSCP::listen() runs; each association is served by an object of its own in a
// thread of its own (at most maxAssociations at once), so one slow or silent peer holds up nobody.
// Signals come from the thread serving the association, one at a time; those of one association
// keep their order.
class KESTREL_TEST_EXPORT QDcmStorageSCPPrivate : public QObject, public DcmStorageSCP
{
    Q_OBJECT

public:
    explicit QDcmStorageSCPPrivate(QObject* parent = nullptr);
    ~QDcmStorageSCPPrivate() override;

    // DcmSCP keeps this protected; the provider aborts an open association when it is stopped.
    OFCondition abortAssociation() override;

    // Listens until stopped; returns once every association it took has ended.
    OFCondition listen() override;

    // Associations served at once; further senders wait for a free one.
    static constexpr size_t maxAssociations = 8;
    // An association open on this provider.
    bool associationOpen() const;
    // The receiving folder, also for the associations that begin from now on.
    void setReceivingFolder(const QString& folder);

    // Ends the listen loop after the current association (or within a second when idle).
    void setStop(bool stop) { m_stop = stop; }
    // Aborts the open association from the worker thread at its next message; DCMTK's
    // association object must not be torn down under the thread that is reading from it.
    void requestAbort();
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
    // The values naming and announcing need, read by the header scan into DATASET; false when the
    // scan leaves the file to DCMTK.
    static bool scanReceived(const QString& part, DcmDataset* dataset);
    // Where the received file PART belongs (DCMTK's directory and file naming), put there; the
    // C-STORE status. PLACED gets the final name.
    Uint16 placeReceived(const T_DIMSE_C_StoreRQ& request, const QString& part, DcmDataset* dataset, QString& placed);

    // Accepted connections whose sender has not spoken yet, with when they came.
    struct Waiting {
        int fd;
        qint64 since;
    };
    // Accepts what is pending on LISTENER and drops connections silent for too long or beyond
    // the bound; the first connection with something to read (when TAKE), or -1 after a while.
    int nextSpeakingConnection(int listener, bool take);
    std::vector<Waiting> m_waiting;

    // One association's server and its thread.
    struct Association {
        std::unique_ptr<QDcmStorageSCPPrivate> scp;
        std::thread thread;
        std::atomic<bool> done{false};
    };
    // Hands the speaking connection FD to an association object of its own.
    void startAssociation(int fd, T_ASC_Network* network);
    // Joins the associations that have ended (all of them when ALL, waiting for each).
    void reapAssociations(bool all);
    // In the association's thread: receives the request on FD and serves it to the end.
    void serveConnection(int fd, T_ASC_Network* network);
    // DCMTK takes the connection through a process-wide handle; it is held from the hand-over
    // until the request has been read.
    void releaseHandover();
    std::list<std::unique_ptr<Association>> m_associations;
    mutable std::mutex m_associationsLock;
    std::unique_lock<std::mutex> m_handover;
    // A second handle on the association's connection, so that a stop can shut it down at once.
    std::mutex m_connectionLock;
    int m_connection = -1;
    // Keeps the signals of concurrent associations apart.
    std::mutex m_emitLock;
    mutable std::mutex m_folderLock;
    QString m_folder;
    // The last folder received files went to, known to be there.
    QString m_madeFolder;
    T_ASC_Parameters* m_requestParameters = nullptr;
    kestrel::internal::PeerRules m_peerRules;
    mutable QString m_seriesUID;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_abortRequested{false};
};
