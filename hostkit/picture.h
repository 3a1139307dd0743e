#pragma once

#include <QImage>
#include <QString>
#include <QStringList>

class DcmItem;
class NDicomImage;
class QPainter;
class QRect;

// What the command line and the viewer share when they show an image to a person: windowing to
// grey levels, pictures at physical aspect with the anatomical direction letters, and the overlay
// text of the four corners.
namespace hostkit {

// The image windowed to grey levels, one picture pixel per image pixel. Null for an empty image.
QImage windowedImage(NDicomImage& image, double width, double centre);

// The windowed image as a person reads it: resampled so that a picture pixel is the same number of
// millimetres across and down, turned head up where the plane's columns run towards the head, and
// with the direction letters (R/L, A/P, H/F) at the middle of each edge when LETTERS is set.
QImage physicalImage(NDicomImage& image, double width, double centre, bool letters = true);

// The letters of a patient direction (x to the left, y to the back, z to the head): each axis
// whose share is at least 0.3, the largest first ("L", "AH", "RPF"). Empty for a null vector.
QString directionLetters(const double* direction);

// The overlay lines of one corner ("TopLeft", "TopRight", "BottomLeft", "BottomRight") of the
// view of MODALITY, filled from DATASET's attributes.
QStringList cornerLines(const QString& modality, const QString& corner, DcmItem* dataset);

// Draws the four corners' overlay of MODALITY into AREA.
void drawCornerOverlay(QPainter& painter, const QRect& area, const QString& modality, DcmItem* dataset);

// Why FILE gives no 16-bit grey image ("no pixel data", "8 bits allocated", "3 samples per pixel
// (colour)", "12 frames", "not a DICOM file"), for messages to people; the whole reason in one line.
QString whyNoGreyImage(const QString& file);

} // namespace hostkit
