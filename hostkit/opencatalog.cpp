#include "opencatalog.h"

#include <kestrelpaths.h>
#include <veldatabaseconnection.h>

#include <QSqlDatabase>

namespace hostkit {

bool openCatalog()
{
    if (!createConnection())
        return false;
    // Asked without opening: a connection opened behind createConnection's back would miss its
    // session settings (utf8mb4 above all).
    const auto isOpen = [] { return QSqlDatabase::database(QLatin1String(QSqlDatabase::defaultConnection), false).isOpen(); };
    return isOpen() || (createConnection() && isOpen());
}

QString catalogOpenError()
{
    const QString cause = getConnectionError();
    return "cannot open the catalogue of " + Kestrel::configFilePath("database.ini") + (cause.isEmpty() ? QString() : ": " + cause);
}

} // namespace hostkit
