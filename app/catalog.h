#pragma once

#include <QString>

class NDicomImage;
class QTextStream;
class QImage;

// Pieces several subcommands share: the catalogue, the tree print-out and PNG pictures.
namespace app {

// Opens the default connection from database.ini; a MySQL schema made on the first call is
// connected to by a second one.
bool openCatalog();
// What to say when openCatalog failed: the configuration file read and the cause.
QString catalogOpenError();

// The catalogue as an indented tree: patients, studies, series (and images with ALL).
// Returns the number of patients printed.
int printCatalogTree(QTextStream& out, bool all);

} // namespace app
