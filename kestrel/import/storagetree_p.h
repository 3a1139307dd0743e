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

// Removes DIR, then its parent, then the grandparent, each only while empty.
KESTREL_TEST_EXPORT void removeEmptyFolders(const QString& dir, int levels = 3);

} // namespace kestrel::internal::storage
