#pragma once

#include <QString>

class NDicomImage;
class QSeries;
struct VolumeHead;

// Images a subcommand writes as a new derived series of a catalogued one.
namespace app {

// The series one run writes into: a new UID, the source's number plus 1000, PREFIX before its
// description, its first file as the template.
struct DerivedSeries {
    QString uid, templateFile, description;
    int number = 0;
};

DerivedSeries derivedSeries(QSeries& series, const QString& prefix = "MPR");

// Writes IMAGE as image NUMBER of SERIES into FILE, with HEAD's window.
bool writeDerivedImage(NDicomImage& image, const VolumeHead& head, const DerivedSeries& series, int number,
                       const QString& file);

} // namespace app
