#pragma once

#include <QString>

// Opening the catalogue the way every host program does.
namespace hostkit {

// Opens the default connection from database.ini; a MySQL schema made on the first call is
// connected to by a second one.
bool openCatalog();
// What to say when openCatalog failed: the configuration file read and the cause.
QString catalogOpenError();

} // namespace hostkit
