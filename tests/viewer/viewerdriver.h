#pragma once

#include <QPoint>
#include <QString>
#include <QStringList>

class NDicomImage;
class PlaneView;
class QWidget;

// What the viewer tests do to the widgets and read back from them.
namespace viewerdriver {

// Runs the kestrel host with ARGS in WORKDIR; its standard output, *CODE its exit status.
QString runKestrel(const QStringList& args, const QString& workDir, int* code);

// Widget point (for mouse events) at the centre of image pixel (column, row) of VIEW.
QPoint pixelCentre(PlaneView* view, int column, int row);
// Grey level on the screen at the centre of image pixel (column, row) of VIEW.
int greyOnScreen(PlaneView* view, int column, int row);
// The grey level pixel (column, row) of IMAGE should show at window WIDTH/CENTRE.
int expectedGrey(NDicomImage& image, int column, int row, double width, double centre);

// A drag with the left or right button held from A to B, in steps.
void drag(QWidget* widget, Qt::MouseButton button, const QPoint& a, const QPoint& b);
// STEPS notches of the mouse wheel over WIDGET (positive: away from the user).
void wheel(QWidget* widget, int steps, Qt::KeyboardModifiers modifiers = Qt::NoModifier);

// "mean 12.5  min 3  max 40 ..." and kestrel roi's "mean 12.5\nmin 3\n..." read as
// {mean, min, max}; empty when a value is missing.
QList<double> statistics(const QString& text);

} // namespace viewerdriver
