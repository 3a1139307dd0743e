#pragma once

#include "platform/testexport_p.h"

#include <QString>

// The storage tree of the import's copy mode: <root>/<yyyy-MM-dd>/<PatientID>/<study>/<series>/<file>.
namespace kestrel::internal::storage {

// The storage root: "save/savepath" of "datasavepath.ini" (config lookup) when that file exists (a
// relative value is taken from the application's folder, an empty one leaves the tree in the
// working directory); else <app>/saveDataPath, or <app>/../saveDataPath when the first is missing.
KESTREL_TEST_EXPORT QString storageRoot();

// NAME made safe as one folder name: characters other than letters, digits, ".", "-" and "_"
// become "_"; "", "." and ".." become "_"; names over 100 characters are cut and end in a
// digest of NAME.
KESTREL_TEST_EXPORT QString safeFolderName(const QString& name);

// PARENT/NAME (NAME made safe), created when missing (one level).
KESTREL_TEST_EXPORT QString subFolder(const QString& parent, const QString& name);

// Copies FROM over TO: the same path succeeds without copying, a missing source fails. The copy is
// written beside TO and renamed over it, so a failed copy keeps an existing destination.
KESTREL_TEST_EXPORT bool copyOverwrite(const QString& from, const QString& to);

// The name of the stored copy of the image SOPINSTANCEUID in SERIESDIR: its UID (made safe) and
// ".dcm". Equal file names of two exports cannot meet there.
KESTREL_TEST_EXPORT QString storedFileName(const QString& seriesDir, const QString& sopInstanceUID);

enum class CopyResult {
    Copied,       // TO holds a new copy of FROM
    AlreadyThere, // TO already held the same bytes: stored once
    OtherContent, // TO holds another file: left as it is
    Failed,       // FROM missing or the copy could not be written
};

// Stores FROM as TO without ever replacing a different file: the copy is written under a name of
// its own beside TO and moved into place in one step, so two processes storing the same image at
// once end with one whole file.
KESTREL_TEST_EXPORT CopyResult storeCopy(const QString& from, const QString& to);

// Removes DIR, then its parent, then the grandparent, each only while empty.
KESTREL_TEST_EXPORT void removeEmptyFolders(const QString& dir, int levels = 3);

} // namespace kestrel::internal::storage
