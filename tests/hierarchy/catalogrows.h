#pragma once

#include <QString>
#include <QVariantMap>

// Catalogue rows written directly by a test, so that each case states its own input.
namespace catalogrows {

// INSERT of the given columns (bound values) into TABLE; the new pk, or -1 on failure.
qint64 insert(const QString& table, const QVariantMap& values);

qint64 addPatient(const QString& name, const QString& id);
qint64 addStudy(qint64 patientPk, const QString& description, const QString& studyId = "1");
qint64 addSeries(qint64 studyPk, int number, const QString& description, const QString& modality = "MR");

// One image: imageformat always, imagepixel and mrimageinfo unless switched off.
struct Image {
    int instanceNumber = 1;
    QString position = "0\\0\\0";
    QString orientation = "1\\0\\0\\0\\1\\0";
    QString spacing = "1\\1";
    int rows = 32, columns = 32;
    int bitsAllocated = 16;
    int samplesPerPixel = 1;
    QString photometric = "MONOCHROME2";
    QString acquisitionTime;
    QString filePath;
    bool pixelRow = true;
    bool mrRow = true;
};
qint64 addImage(qint64 seriesPk, const Image& image);

} // namespace catalogrows

namespace catalogrows {
inline Image image(int number, const QString& position, const QString& orientation = "1\\0\\0\\0\\1\\0")
{
    Image row;
    row.instanceNumber = number;
    row.position = position;
    row.orientation = orientation;
    return row;
}
} // namespace catalogrows
