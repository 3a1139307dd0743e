#pragma once

#include "kestrel_global.h"

#include <QSqlDatabase>
#include <QString>

namespace kestrel::internal {

// Clones the application's default connection under a fresh QUuid name and opens it. Works from
// any thread (the clone is made by name). The caller owns the name and removes it with
// removeClonedConnection() once every QSqlDatabase/QSqlQuery copy of it is gone.
KESTREL_EXPORT QSqlDatabase cloneDefaultConnection();
KESTREL_EXPORT void removeClonedConnection(const QString& name);

} // namespace kestrel::internal
