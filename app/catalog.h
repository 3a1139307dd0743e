#pragma once

#include "opencatalog.h"

#include <QString>

class NDicomImage;
class QTextStream;
class QImage;

// Pieces several subcommands share: the catalogue, the tree print-out and PNG pictures.
namespace app {

using hostkit::catalogOpenError;
using hostkit::openCatalog;

// The catalogue as an indented tree: patients, studies, series (and images with ALL).
// Returns the number of patients printed.
int printCatalogTree(QTextStream& out, bool all);

} // namespace app
