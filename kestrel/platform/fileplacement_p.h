#pragma once

#include "platform/testexport_p.h"

#include <QString>

// Files that several processes may write at once (stored copies, received objects): written
// under a name of their own, then put in place in one step, never over a different file.
namespace kestrel::internal {

// True when the two files hold the same bytes.
KESTREL_TEST_EXPORT bool sameContent(const QString& a, const QString& b);

// A name beside TARGET for writing it first: unique to this process and call.
KESTREL_TEST_EXPORT QString partName(const QString& target);

enum class Placement {
    Placed,       // PART is now TARGET
    AlreadyThere, // TARGET held the same bytes already; PART is gone
    OtherContent, // TARGET holds another file, left as it is; PART is gone
    Failed,       // PART could not be put in place; PART is gone
};

// Puts the finished file PART in place as TARGET where nothing is. Two processes placing the same
// file end with one whole file; a different file at TARGET is never replaced. PART is gone
// afterwards when placed, and otherwise unless KEEPPART (then it stays for another name to be
// tried).
KESTREL_TEST_EXPORT Placement placeFile(const QString& part, const QString& target, bool keepPart = false);

} // namespace kestrel::internal
