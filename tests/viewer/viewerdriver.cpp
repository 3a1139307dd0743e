#include "viewerdriver.h"

#include "planeview.h"
#include "programs.h"

#include <ndicomimage.h>

#include <QApplication>
#include <QMouseEvent>
#include <QRegularExpression>
#include <QTest>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>

namespace viewerdriver {

QString runKestrel(const QStringList& args, const QString& workDir, int* code)
{
    const HostRun run = runHost(args, workDir);
    *code = run.exitCode;
    return run.out;
}

QPoint pixelCentre(PlaneView* view, int column, int row)
{
    return view->imageToWidget(QPointF(column + 0.5, row + 0.5)).toPoint();
}

int greyOnScreen(PlaneView* view, int column, int row)
{
    // The screen pixel whose middle is nearest the image pixel's middle.
    const QPointF centre = view->imageToWidget(QPointF(column + 0.5, row + 0.5));
    const QImage shown = view->grab().toImage();
    return qGray(shown.pixel(int(std::floor(centre.x())), int(std::floor(centre.y()))));
}

int expectedGrey(NDicomImage& image, int column, int row, double width, double centre)
{
    const unsigned stored = image.getValue16u(column, row);
    if (stored >= 32767)
        return 0;
    width = std::max(width, 2.0);
    const double value = stored * image.getSlope() + image.getIntercept();
    return std::clamp(int((value - centre + width / 2) / width * 255.0), 0, 255);
}

void drag(QWidget* widget, Qt::MouseButton button, const QPoint& a, const QPoint& b)
{
    QTest::mousePress(widget, button, Qt::NoModifier, a);
    for (int i = 1; i <= 4; ++i) {
        const QPoint p = a + (b - a) * i / 4;
        QMouseEvent move(QEvent::MouseMove, p, widget->mapToGlobal(p), Qt::NoButton, button, Qt::NoModifier);
        QApplication::sendEvent(widget, &move);
    }
    QTest::mouseRelease(widget, button, Qt::NoModifier, b);
}

void wheel(QWidget* widget, int steps, Qt::KeyboardModifiers modifiers)
{
    const QPointF centre(widget->width() / 2.0, widget->height() / 2.0);
    QWheelEvent event(centre, widget->mapToGlobal(centre.toPoint()), QPoint(), QPoint(0, 120 * steps), Qt::NoButton,
                      modifiers, Qt::NoScrollPhase, false);
    QApplication::sendEvent(widget, &event);
}

QList<double> statistics(const QString& text)
{
    QList<double> values;
    for (const char* name : {"mean", "min", "max"}) {
        const QRegularExpression pattern(QString("\\b%1\\s+(-?[0-9.eE+-]+|nan|-nan)").arg(name));
        const QRegularExpressionMatch match = pattern.match(text);
        if (!match.hasMatch())
            return {};
        values << match.captured(1).toDouble();
    }
    return values;
}

} // namespace viewerdriver
