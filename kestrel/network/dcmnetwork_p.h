#pragma once

#include "platform/testexport_p.h"

#include <QString>
#include <QStringList>
#include <QtGlobal>

struct T_ASC_Parameters;

namespace kestrel::internal {

// DCMTK leaves Nagle's algorithm on for its sockets unless the environment variable TCP_NODELAY
// is set when a socket is made; with it on, every C-STORE waits for the peer's delayed ACK
// (about 20 objects a second on loopback). Sets it to 1 for this process unless the user set it.
// Call from the main thread before the first association.
void disableNagleForDcmtk();

// Accepts every proposed presentation context of PARAMS that is still unanswered and names a
// storage SOP class DCMTK knows, in the first of explicit little endian, implicit little endian,
// explicit big endian and deflate that the sender offers. Returns how many it accepted.
KESTREL_TEST_EXPORT int acceptRemainingStorageContexts(T_ASC_Parameters* params);

// How a peer answered a C-STORE: success; a warning (0001, 0107, 0116, Bxxx: stored, with a
// remark); anything else is a failure (refused, error, cancelled).
enum class StoreAnswer { Success, Warning, Failure };
KESTREL_TEST_EXPORT StoreAnswer storeAnswer(quint16 status);
// The status as DCMTK names it, with its code: "Refused: Out of Resources (0xa700)".
KESTREL_TEST_EXPORT QString storeStatusText(quint16 status);

// Who may open an association with the storage provider, from the [provider] group of
// config/dicomservice.ini: CalledAETitle, the one title the provider answers to, and
// CallingAETitles, the senders it takes (comma separated). Either left empty takes any title;
// an empty title is never taken. Titles compare without their padding spaces.
struct PeerRules {
    QString calledAETitle;
    QStringList callingAETitles;
    bool calledAccepted(const QString& title) const;
    bool callingAccepted(const QString& title) const;
};
KESTREL_TEST_EXPORT PeerRules readPeerRules();

} // namespace kestrel::internal
