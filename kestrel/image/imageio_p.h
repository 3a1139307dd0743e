#pragma once

#include "platform/status_p.h"
#include "platform/testexport_p.h"

#include <QByteArray>
#include <QDateTime>
#include <QString>

class DcmDataset;

// The two-dimensional image's pixels read from a DICOM data set, and the image written as a
// derived instance on a copy of a template file: the template keeps patient, study and
// equipment; geometry, pixels and the values that give them meaning are the image's own, so that
// any reader places and scales every pixel as the image does.
namespace kestrel::internal {

// The PIXELS grey values of DS (uncompressed) into OUT as 16-bit stored values with their
// SLOPE and INTERCEPT. Unsigned data: the Bits Stored bits ending at High Bit of each word or
// byte, with the file's rescale left as it is. Signed data: the modality-transformed values
// shifted to be non-negative by their minimum (at most -1), which becomes the intercept (slope 1).
// FILE names the source in the status text.
KESTREL_TEST_EXPORT Status readGreyPixels(DcmDataset* ds, qint64 pixels, quint16* out, double& slope,
                                          double& intercept, const QString& file);

// What a derived image states about itself.
struct DerivedImage {
    int columns = 0, rows = 0;
    const quint16* pixels = nullptr; // rows top to bottom; read as signed 16-bit values
    double alongRow = 1, downColumn = 1; // spacing between columns, between rows (mm)
    double position[3] = {0, 0, 0};      // centre of the first pixel
    double row[3] = {1, 0, 0}, column[3] = {0, 1, 0};
    double thickness = 0;
    double slope = 1, intercept = 0; // real value = signed pixel * slope + intercept
    double windowCentre = 0, windowWidth = 0;
    int instanceNumber = 0, seriesNumber = 0;
    QString seriesDescription;
    QString softwareVersions;
};

// Puts IMAGE into DS as a new instance of series SERIESUID with SOP Instance UID SOPUID, created
// at NOW (Series, Content and Instance Creation Date and Time; the template's Study Date and Time
// stay). Attributes of the template that describe its own pixels or plane are removed.
KESTREL_TEST_EXPORT Status putDerivedImage(DcmDataset* ds, const DerivedImage& image, const QString& seriesUid,
                                           const QByteArray& sopUid, const QDateTime& now);

// Patient Orientation of a plane: the letters of the row direction, then of the column
// direction, strongest component first ("P\F", "LH\A").
KESTREL_TEST_EXPORT QString patientOrientation(const double* row, const double* column);

// A date as DICOM DA ("20240305") and a time as TM ("093005").
KESTREL_TEST_EXPORT QString dicomDate(const QDate& date);
KESTREL_TEST_EXPORT QString dicomTime(const QTime& time);

} // namespace kestrel::internal
