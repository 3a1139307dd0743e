#include "network/qdcmstoragescp_p.h"

#include "dicom/dcmvalues_p.h"
#include "dicom/filestream_p.h"
#include "dicom/headerscan_p.h"
#include "network/dcmnetwork_p.h"
#include "platform/fileplacement_p.h"

#include <dcmtk/dcmdata/dcdatset.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmnet/dul.h>

#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QFile>

#include <algorithm>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

QDcmStorageSCPPrivate::QDcmStorageSCPPrivate(QObject* parent) : QObject(parent) {}

QDcmStorageSCPPrivate::~QDcmStorageSCPPrivate()
{
    requestAbort();
    reapAssociations(true);
    for (const Waiting& waiting : m_waiting)
        ::close(waiting.fd);
}

OFCondition QDcmStorageSCPPrivate::abortAssociation()
{
    return DcmStorageSCP::abortAssociation();
}

OFCondition QDcmStorageSCPPrivate::listen()
{
    const OFCondition cond = DcmStorageSCP::listen();
    // A stop aborts the open associations; an ended loop waits for the rest to finish.
    if (m_stop)
        requestAbort();
    reapAssociations(true);
    return cond;
}

bool QDcmStorageSCPPrivate::associationOpen() const
{
    if (isConnected())
        return true;
    std::lock_guard<std::mutex> locker(m_associationsLock);
    return std::any_of(m_associations.begin(), m_associations.end(),
                       [](const std::unique_ptr<Association>& association) { return !association->done; });
}

void QDcmStorageSCPPrivate::setReceivingFolder(const QString& folder)
{
    std::lock_guard<std::mutex> locker(m_folderLock);
    m_folder = folder;
    setOutputDirectory(OFString(QFile::encodeName(folder).constData()));
}

void QDcmStorageSCPPrivate::requestAbort()
{
    m_abortRequested = true;
    {
        // The sender may be silent: shutting the connection down ends the wait for its next message.
        std::lock_guard<std::mutex> locker(m_connectionLock);
        if (m_connection >= 0)
            ::shutdown(m_connection, SHUT_RDWR);
    }
    std::lock_guard<std::mutex> locker(m_associationsLock);
    for (const std::unique_ptr<Association>& association : m_associations)
        if (!association->done)
            association->scp->requestAbort();
}

void QDcmStorageSCPPrivate::startAssociation(int fd, T_ASC_Network* network)
{
    auto association = std::make_unique<Association>();
    association->scp = std::make_unique<QDcmStorageSCPPrivate>();
    QDcmStorageSCPPrivate* scp = association->scp.get();
    scp->setConfig(getConfig());
    // DCMTK's copy of the configuration leaves its transport layer undefined; ours is plain TCP.
    scp->getConfig().setTransportLayer(getConfig().getTransportLayer());
    scp->setDirectoryGenerationMode(getDirectoryGenerationMode());
    scp->setFilenameGenerationMode(getFilenameGenerationMode());
    scp->setFilenameExtension(getFilenameExtension());
    scp->setPeerRules(m_peerRules);
    {
        std::lock_guard<std::mutex> locker(m_folderLock);
        scp->setReceivingFolder(m_folder);
    }
    // The association's signals become this provider's, one at a time.
    connect(scp, &QDcmStorageSCPPrivate::notifyInstanceSaved, this,
            [this](const QString& file, const QString& sopClass, const QString& sopInstance, const QString& series) {
                std::lock_guard<std::mutex> locker(m_emitLock);
                emit notifyInstanceSaved(file, sopClass, sopInstance, series);
            }, Qt::DirectConnection);
    connect(scp, &QDcmStorageSCPPrivate::notifyStartReceveSeriesFiles, this, [this] {
        std::lock_guard<std::mutex> locker(m_emitLock);
        emit notifyStartReceveSeriesFiles();
    }, Qt::DirectConnection);
    connect(scp, &QDcmStorageSCPPrivate::notifyRecvedSeriesFiles, this, [this](const QString& series) {
        std::lock_guard<std::mutex> locker(m_emitLock);
        emit notifyRecvedSeriesFiles(series);
    }, Qt::DirectConnection);
    Association* started = association.get();
    {
        std::lock_guard<std::mutex> locker(m_associationsLock);
        m_associations.push_back(std::move(association));
    }
    started->thread = std::thread([started, fd, network] {
        started->scp->serveConnection(fd, network);
        started->done = true;
    });
}

void QDcmStorageSCPPrivate::reapAssociations(bool all)
{
    for (;;) {
        std::unique_ptr<Association> ended;
        {
            std::lock_guard<std::mutex> locker(m_associationsLock);
            auto it = std::find_if(m_associations.begin(), m_associations.end(),
                                   [all](const std::unique_ptr<Association>& association) {
                                       return all || association->done;
                                   });
            if (it == m_associations.end())
                return;
            ended = std::move(*it);
            m_associations.erase(it);
        }
        if (ended->thread.joinable())
            ended->thread.join();
    }
}

void QDcmStorageSCPPrivate::serveConnection(int fd, T_ASC_Network* network)
{
    {
        std::lock_guard<std::mutex> locker(m_connectionLock);
        m_connection = ::dup(fd);
    }
    if (m_abortRequested)
        ::shutdown(fd, SHUT_RDWR);
    // DCMTK reads the request from this connection instead of accepting one and owns it from
    // here. The handle is process-wide: associations take turns until their request is read.
    static std::mutex handover;
    m_handover = std::unique_lock<std::mutex>(handover);
    dcmExternalSocketHandle.set(fd);
    // An object that makes DCMTK's parser throw ends this association, not the program.
    const OFCondition cond = kestrel::internal::guardedRead([&] { return DcmStorageSCP::waitForAssociationRQ(network); });
    releaseHandover();
    if (cond.bad() && cond != DUL_NOASSOCIATIONREQUEST)
        qWarning() << "QDcmStorageSCPPrivate: association ended:" << cond.text();
    std::lock_guard<std::mutex> locker(m_connectionLock);
    ::close(m_connection);
    m_connection = -1;
}

void QDcmStorageSCPPrivate::releaseHandover()
{
    if (!m_handover.owns_lock())
        return;
    dcmExternalSocketHandle.set(DCMNET_INVALID_SOCKET);
    m_handover.unlock();
}

QString QDcmStorageSCPPrivate::normalizedFileName(const OFString& filename)
{
    QString name = QString::fromUtf8(filename.c_str(), int(filename.length()));
    name.replace(QLatin1String("\\\\"), QLatin1String("\\"));
    return name;
}

OFCondition QDcmStorageSCPPrivate::openListenPort()
{
    const OFCondition cond = DcmStorageSCP::openListenPort();
    if (cond.good())
        emit notifyListening();
    return cond;
}

OFCondition QDcmStorageSCPPrivate::handleIncomingCommand(T_DIMSE_Message* incomingMsg,
                                                         const DcmPresentationContextInfo& presInfo)
{
    if (m_abortRequested.exchange(false)) {
        // An error ends DCMTK's association loop, which then aborts the association itself.
        return makeOFCondition(OFM_dcmnet, 0x3ff, OF_error, "association aborted: the provider is stopping");
    }
    if (incomingMsg && incomingMsg->CommandField == DIMSE_C_STORE_RQ)
        return storeObject(incomingMsg->msg.CStoreRQ, presInfo.presentationContextID);
    return DcmStorageSCP::handleIncomingCommand(incomingMsg, presInfo);
}

void QDcmStorageSCPPrivate::notifyAssociationAcknowledge()
{
    DcmStorageSCP::notifyAssociationAcknowledge();
    emit notifyStartReceveSeriesFiles();
}

void QDcmStorageSCPPrivate::notifyReleaseRequest()
{
    DcmStorageSCP::notifyReleaseRequest();
    emit notifyRecvedSeriesFiles(m_seriesUID);
}

void QDcmStorageSCPPrivate::notifyAbortRequest()
{
    DcmStorageSCP::notifyAbortRequest();
}

void QDcmStorageSCPPrivate::notifyAssociationTermination()
{
    DcmStorageSCP::notifyAssociationTermination();
}

void QDcmStorageSCPPrivate::notifyDIMSEError(const OFCondition& cond)
{
    DcmStorageSCP::notifyDIMSEError(cond);
    qDebug() << "Error store dicom File:" << cond.text();
}

OFBool QDcmStorageSCPPrivate::stopAfterCurrentAssociation()
{
    return m_stop;
}

OFBool QDcmStorageSCPPrivate::stopAfterConnectionTimeout()
{
    // The loop waits for connections one second at a time so that a stop is seen while idle.
    return m_stop;
}

OFBool QDcmStorageSCPPrivate::checkCalledAETitleAccepted(const OFString& calledAE)
{
    return m_peerRules.calledAccepted(QString::fromLatin1(calledAE.c_str()));
}

OFBool QDcmStorageSCPPrivate::checkCallingAETitleAccepted(const OFString& callingAE)
{
    if (m_peerRules.callingAccepted(QString::fromLatin1(callingAE.c_str())))
        return OFTrue;
    qWarning() << "QDcmStorageSCPPrivate: association from" << callingAE.c_str() << "refused";
    return OFFalse;
}

void QDcmStorageSCPPrivate::notifyAssociationRequest(const T_ASC_Parameters& params, DcmSCPActionType& desiredAction)
{
    // The request has been read from the connection: the next association may be handed over.
    releaseHandover();
    DcmStorageSCP::notifyAssociationRequest(params, desiredAction);
    // DCMTK hands the association's own parameters, which negotiation fills in.
    m_requestParameters = const_cast<T_ASC_Parameters*>(&params);
}

OFCondition QDcmStorageSCPPrivate::negotiateAssociation()
{
    const OFCondition cond = DcmStorageSCP::negotiateAssociation();
    if (cond.good() && m_requestParameters)
        kestrel::internal::acceptRemainingStorageContexts(m_requestParameters);
    m_requestParameters = nullptr;
    return cond;
}

int QDcmStorageSCPPrivate::nextSpeakingConnection(int listener, bool take)
{
    // As many silent connections as a busy sender site opens at once; the oldest goes first.
    constexpr size_t maxWaiting = 32;
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    const qint64 patience = qint64(getACSETimeout()) * 1000;
    for (auto it = m_waiting.begin(); it != m_waiting.end();) {
        if (now - it->since > patience) {
            ::close(it->fd);
            it = m_waiting.erase(it);
        } else {
            ++it;
        }
    }
    std::vector<pollfd> watched{{listener, POLLIN, 0}};
    if (take)
        for (const Waiting& waiting : m_waiting)
            watched.push_back({waiting.fd, POLLIN, 0});
    if (::poll(watched.data(), nfds_t(watched.size()), take ? 1000 : 50) <= 0)
        return -1;
    if (watched.front().revents & POLLIN) {
        const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            if (m_waiting.size() >= maxWaiting) {
                ::close(m_waiting.front().fd);
                m_waiting.erase(m_waiting.begin());
            }
            m_waiting.push_back({fd, now});
        }
    }
    for (size_t i = 1; i < watched.size(); ++i) {
        if (!watched[i].revents)
            continue;
        const int fd = watched[i].fd;
        m_waiting.erase(std::find_if(m_waiting.begin(), m_waiting.end(),
                                     [fd](const Waiting& waiting) { return waiting.fd == fd; }));
        // A connection closed before it said anything is not a request.
        char first = 0;
        if (::recv(fd, &first, 1, MSG_PEEK | MSG_DONTWAIT) == 1)
            return fd;
        ::close(fd);
        return -1;
    }
    return -1;
}

OFCondition QDcmStorageSCPPrivate::waitForAssociationRQ(T_ASC_Network* network)
{
    reapAssociations(false);
    bool free = false;
    {
        std::lock_guard<std::mutex> locker(m_associationsLock);
        free = m_associations.size() < maxAssociations;
    }
    const int fd = nextSpeakingConnection(int(DUL_networkSocket(network->network)), free);
    if (fd < 0)
        return DUL_NOASSOCIATIONREQUEST;
    startAssociation(fd, network);
    // Served elsewhere; to DCMTK's loop this turn ended without a request.
    return DUL_NOASSOCIATIONREQUEST;
}

OFCondition QDcmStorageSCPPrivate::storeObject(T_DIMSE_C_StoreRQ& request, T_ASC_PresentationContextID presentationContext)
{
    QString folder;
    {
        std::lock_guard<std::mutex> locker(m_folderLock);
        folder = m_folder;
    }
    const QString part = kestrel::internal::partName(QDir(folder).filePath(QStringLiteral(".received")));
    OFCondition cond = receiveSTORERequest(request, presentationContext, OFString(QFile::encodeName(part).constData()));
    if (cond.bad()) {
        // The association cannot go on; DCMTK's loop ends it.
        QFile::remove(part);
        return cond;
    }
    DcmFileFormat received;
    const bool readable = scanReceived(part, received.getDataset()) || kestrel::internal::guardedRead([&] {
        const OFCondition loaded = kestrel::internal::loadDicomFile(received, QFile::encodeName(part), 4096);
        // What the naming and the announcement read, in memory before the part file is gone.
        for (const DcmTagKey& tag : {DCM_SeriesInstanceUID, DCM_SeriesDate, DCM_SOPClassUID, DCM_SOPInstanceUID}) {
            DcmElement* element = nullptr;
            if (loaded.good() && received.getDataset()->findAndGetElement(tag, element).good() && element)
                element->loadAllDataIntoMemory();
        }
        return loaded;
    }).good();
    QString placed;
    const Uint16 status = readable ? placeReceived(request, part, received.getDataset(), placed)
                                   : Uint16(STATUS_STORE_Error_CannotUnderstand);
    if (status != STATUS_Success) {
        QFile::remove(part);
        qWarning() << "QDcmStorageSCPPrivate: object" << request.AffectedSOPInstanceUID << "from"
                   << getPeerAETitle().c_str() << "not stored, status" << Qt::hex << status;
    }
    cond = sendSTOREResponse(presentationContext, request, status);
    if (status == STATUS_Success)
        notifyInstanceStored(OFString(QFile::encodeName(placed).constData()), request.AffectedSOPClassUID,
                             request.AffectedSOPInstanceUID, received.getDataset());
    return cond;
}

namespace {

// What naming and announcing a received object read of it, with the VR each is read as.
const std::pair<DcmTagKey, const char*> kReadBack[] = {{DCM_SeriesInstanceUID, "UI"}, {DCM_SeriesDate, "DA"},
                                                       {DCM_SOPClassUID, "UI"}, {DCM_SOPInstanceUID, "UI"}};

} // namespace

bool QDcmStorageSCPPrivate::scanReceived(const QString& part, DcmDataset* dataset)
{
    // Most objects come as the header scan reads them: their few values go into a data set of
    // their own instead of DCMTK parsing the whole object again. Others are parsed by DCMTK.
    thread_local kestrel::internal::HeaderScan scan = [] {
        kestrel::internal::HeaderScan made;
        std::vector<quint32> tags;
        for (const auto& [tag, vr] : kReadBack)
            tags.push_back(kestrel::internal::dcmTagCode(tag));
        made.setWanted(tags);
        return made;
    }();
    if (!scan.scan(QFile::encodeName(part)))
        return false;
    for (const auto& [tag, vr] : kReadBack) {
        const kestrel::internal::HeaderScan::Value* value = scan.find(kestrel::internal::dcmTagCode(tag));
        if (value && (value->vr[0] != vr[0] || value->vr[1] != vr[1]))
            return false;
    }
    std::string text;
    for (const auto& [tag, vr] : kReadBack) {
        const kestrel::internal::HeaderScan::Value* value = scan.find(kestrel::internal::dcmTagCode(tag));
        // A value with a NUL would not go into the data set whole: DCMTK reads that object.
        if (value && (!kestrel::internal::HeaderScan::text(*value, -1, &text) || text.find('\0') != std::string::npos ||
                      dataset->putAndInsertString(tag, text.c_str()).bad()))
            return false;
    }
    return true;
}

Uint16 QDcmStorageSCPPrivate::placeReceived(const T_DIMSE_C_StoreRQ& request, const QString& part, DcmDataset* dataset,
                                            QString& placed)
{
    OFString filename, directory;
    OFString sopClassUID = request.AffectedSOPClassUID;
    OFString sopInstanceUID = request.AffectedSOPInstanceUID;
    if (!dataset || generateDirAndFilename(filename, directory, sopClassUID, sopInstanceUID, dataset).bad())
        return STATUS_STORE_Error_CannotUnderstand;
    // Another provider may be making the same folder at this moment: what counts is that it is there.
    const QString folder = QFile::decodeName(directory.c_str());
    if (folder != m_madeFolder && !QDir().mkpath(folder)) {
        qWarning() << "QDcmStorageSCPPrivate: cannot create" << folder;
        return STATUS_STORE_Refused_OutOfResources;
    }
    m_madeFolder = folder;
    const QString target = normalizedFileName(filename);
    placed = target;
    for (int attempt = 1;; ++attempt) {
        // The received file stays until it is in place.
        const kestrel::internal::Placement result = kestrel::internal::placeFile(part, placed, true);
        if (result == kestrel::internal::Placement::Placed)
            return STATUS_Success;
        if (result == kestrel::internal::Placement::AlreadyThere)
            break;
        if (result == kestrel::internal::Placement::Failed && attempt == 1 && !QDir(folder).exists()) {
            // The folder went away since the last object: made again.
            if (!QDir().mkpath(folder))
                return STATUS_STORE_Refused_OutOfResources;
            continue;
        }
        if (result == kestrel::internal::Placement::Failed || attempt >= 100)
            return STATUS_STORE_Refused_OutOfResources;
        // Another object holds the name (UIDs that differ only past what a file name keeps):
        // this one gets a name of its own.
        placed = QStringLiteral("%1-%2").arg(target).arg(attempt + 1);
    }
    QFile::remove(part);
    return STATUS_Success;
}

void QDcmStorageSCPPrivate::notifyInstanceStored(const OFString& filename, const OFString& sopClassUID,
                                                 const OFString& sopInstanceUID, DcmDataset* dataset) const
{
    DcmStorageSCP::notifyInstanceStored(filename, sopClassUID, sopInstanceUID, dataset);
    const QString name = normalizedFileName(filename);
    // An object without a Series Instance UID is announced under the previous object's series.
    if (dataset && kestrel::internal::dcmHas(dataset, DCM_SeriesInstanceUID)) {
        const QString uid = kestrel::internal::dcmString(dataset, DCM_SeriesInstanceUID);
        if (!uid.isEmpty())
            m_seriesUID = uid;
    }
    auto* self = const_cast<QDcmStorageSCPPrivate*>(this);
    emit self->notifyInstanceSaved(name, QString::fromLatin1(sopClassUID.c_str()),
                                   QString::fromLatin1(sopInstanceUID.c_str()), m_seriesUID);
}
