#pragma once

#include "kestrel_global.h"

#include <QString>

// Where the library finds the files it reads beside the application.
namespace Kestrel {

// The application's directory (QCoreApplication::applicationDirPath()).
KESTREL_EXPORT QString applicationDir();

// The configuration-directory lookup used for every INI file of the library:
// <app>/config/NAME when it exists, else <app>/../config/NAME when that exists, else the first
// path (QSettings then yields its defaults). When an override directory is set, NAME is taken
// from it instead.
KESTREL_EXPORT QString configFilePath(const QString& name);

// Makes configFilePath() read from DIR (the host's --config, and the tests). An empty DIR
// restores the lookup beside the application.
KESTREL_EXPORT void setConfigDirectory(const QString& dir);
KESTREL_EXPORT QString configDirectory();

} // namespace Kestrel
