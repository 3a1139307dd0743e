#include "planeview.h"

#include "picture.h"

#include <QMouseEvent>
#include <QPainter>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>

namespace {

double usable(double spacing)
{
    return std::isfinite(spacing) && spacing > 0 ? spacing : 1.0;
}

QPointF snapped(const QPointF& p)
{
    return QPointF(std::round(p.x()), std::round(p.y()));
}

} // namespace

PlaneView::PlaneView(QWidget* parent)
    : QWidget(parent)
{
    setMinimumSize(160, 160);
    setAttribute(Qt::WA_OpaquePaintEvent);
    setMouseTracking(false);
    setFocusPolicy(Qt::WheelFocus);
}

void PlaneView::imageChanged()
{
    m_picture = hostkit::windowedImage(m_image, m_width, m_centre);
    updateTransform();
    update();
}

void PlaneView::setWindow(double width, double centre)
{
    m_width = width;
    m_centre = centre;
    imageChanged();
}

void PlaneView::setZoom(double zoom)
{
    m_zoom = std::clamp(zoom, 0.1, 20.0);
    updateTransform();
    update();
    emit zoomChanged(m_zoom);
}

void PlaneView::setCrossPoint(const std::array<double, 3>& point)
{
    m_cross = point;
    m_hasCross = true;
    update();
}

void PlaneView::setCornerTexts(const QStringList& texts)
{
    m_corners = texts;
    update();
}

void PlaneView::updateTransform()
{
    const int w = m_image.width(), h = m_image.height();
    m_toWidget.reset();
    if (w <= 0 || h <= 0) {
        m_toImage.reset();
        return;
    }
    const double sx = usable(m_image.getPixelSpacing()[0]), sy = usable(m_image.getPixelSpacing()[1]);
    const double fit = std::min(width() / (w * sx), height() / (h * sy)) * m_zoom;
    const double flip = verticalFlip();
    m_toWidget.translate(width() / 2.0, height() / 2.0);
    m_toWidget.scale(fit * sx, flip * fit * sy);
    m_toWidget.translate(-w / 2.0, -h / 2.0);
    m_toImage = m_toWidget.inverted();
}

double PlaneView::verticalFlip() const
{
    // Head up: a plane whose columns run towards the head is shown upside down. (The image's
    // accessors are not const; reading the orientation changes nothing.)
    const double* column = const_cast<NDicomImage&>(m_image).getOrientation(1);
    return column && column[2] > 0.5 ? -1.0 : 1.0;
}

QStringList PlaneView::edgeLetters() const
{
    NDicomImage& image = const_cast<NDicomImage&>(m_image);
    const double* row = image.getOrientation(0);
    const double* column = image.getOrientation(1);
    if (m_picture.isNull() || !row || !column)
        return {};
    const double flip = verticalFlip();
    const double left[3] = {-row[0], -row[1], -row[2]};
    const double down[3] = {flip * column[0], flip * column[1], flip * column[2]};
    const double up[3] = {-down[0], -down[1], -down[2]};
    return {hostkit::directionLetters(left), hostkit::directionLetters(row), hostkit::directionLetters(up),
            hostkit::directionLetters(down)};
}

QPointF PlaneView::imageToWidget(const QPointF& pixel) const
{
    return m_toWidget.map(pixel);
}

QPointF PlaneView::widgetToImage(const QPointF& point) const
{
    return m_toImage.map(point);
}

int PlaneView::shownGrey(int column, int row) const
{
    if (!m_picture.valid(column, row))
        return -1;
    return qBlue(m_picture.pixel(column, row));
}

void PlaneView::resizeEvent(QResizeEvent*)
{
    updateTransform();
}

void PlaneView::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.fillRect(rect(), Qt::black);
    if (m_picture.isNull())
        return;
    painter.save();
    painter.setTransform(m_toWidget);
    painter.drawImage(QRectF(0, 0, m_picture.width(), m_picture.height()), m_picture);
    painter.restore();
    if (m_hasCross) {
        const QPointF ij = m_image.getLocationIJ(m_cross[0], m_cross[1], m_cross[2]);
        const QPointF centre = imageToWidget(ij + QPointF(0.5, 0.5));
        painter.setPen(QPen(QColor(80, 200, 255, 180), 1));
        painter.drawLine(QPointF(0, centre.y()), QPointF(width(), centre.y()));
        painter.drawLine(QPointF(centre.x(), 0), QPointF(centre.x(), height()));
    }
    drawShape(painter);
    drawCorners(painter);
    drawEdgeLetters(painter);
}

void PlaneView::drawEdgeLetters(QPainter& painter) const
{
    const QStringList letters = edgeLetters();
    if (letters.size() != 4)
        return;
    QFont font("DejaVu Sans");
    font.setPixelSize(14);
    font.setBold(true);
    painter.setFont(font);
    const QRect area = rect().adjusted(6, 4, -6, -4);
    const int align[] = {Qt::AlignLeft | Qt::AlignVCenter, Qt::AlignRight | Qt::AlignVCenter,
                         Qt::AlignHCenter | Qt::AlignTop, Qt::AlignHCenter | Qt::AlignBottom};
    for (int i = 0; i < 4; ++i) {
        painter.setPen(Qt::black);
        painter.drawText(area.translated(1, 1), align[i], letters[i]);
        painter.setPen(QColor(255, 210, 80));
        painter.drawText(area, align[i], letters[i]);
    }
}

void PlaneView::drawShape(QPainter& painter) const
{
    if (m_shapeTool == Crosshair || m_shape.isNull())
        return;
    painter.setPen(QPen(QColor(255, 120, 60), 1.5));
    painter.setBrush(Qt::NoBrush);
    const QPointF a = imageToWidget(m_shape.topLeft()), b = imageToWidget(m_shape.bottomRight());
    const QRectF onScreen = QRectF(a, b).normalized();
    if (m_shapeTool == Rectangle)
        painter.drawRect(onScreen);
    else if (m_shapeTool == Ellipse)
        painter.drawEllipse(onScreen);
    else
        painter.drawLine(a, b);
    if (!m_measureText.isEmpty() && !m_drawing)
        painter.drawText(onScreen.bottomLeft() + QPointF(2, 14), m_measureText);
}

void PlaneView::drawCorners(QPainter& painter) const
{
    QFont font("DejaVu Sans");
    font.setPixelSize(11);
    painter.setFont(font);
    const QRect area = rect().adjusted(6, 4, -6, -4);
    const int align[] = {Qt::AlignLeft | Qt::AlignTop, Qt::AlignRight | Qt::AlignTop, Qt::AlignLeft | Qt::AlignBottom,
                         Qt::AlignRight | Qt::AlignBottom};
    for (int i = 0; i < 4 && i < m_corners.size(); ++i) {
        painter.setPen(Qt::black);
        painter.drawText(area.translated(1, 1), align[i], m_corners[i]);
        painter.setPen(QColor(255, 220, 120));
        painter.drawText(area, align[i], m_corners[i]);
    }
}

QString PlaneView::measure(Tool tool, const QRectF& shape)
{
    m_shapeTool = tool;
    m_shape = shape;
    const double sx = usable(m_image.getPixelSpacing()[0]), sy = usable(m_image.getPixelSpacing()[1]);
    const QRectF r = shape.normalized();
    markShowValue v;
    QString size;
    if (tool == Rectangle) {
        v = m_image.getRect(r);
        size = QString("area %1 mm² (%2 px)").arg(v.size * sx * sy, 0, 'g', 6).arg(v.size, 0, 'g', 6);
    } else if (tool == Ellipse) {
        v = m_image.getEllipse(r);
        size = QString("area %1 mm² (%2 px)").arg(v.size * sx * sy, 0, 'g', 6).arg(v.size, 0, 'g', 6);
    } else if (tool == Line) {
        v = m_image.getLine(QLineF(shape.topLeft(), shape.bottomRight()), sx, sy);
        size = QString("length %1 mm").arg(v.size, 0, 'g', 6);
    } else {
        return QString();
    }
    m_measureText = QString("mean %1  min %2  max %3  %4").arg(v.mean, 0, 'g', 6).arg(v.min).arg(v.max).arg(size);
    update();
    emit measured(m_measureText);
    return m_measureText;
}

void PlaneView::pick(const QPointF& point)
{
    const QPointF p = widgetToImage(point);
    const int i = int(std::floor(p.x())), j = int(std::floor(p.y()));
    if (i < 0 || j < 0 || i >= m_image.width() || j >= m_image.height())
        return;
    double x, y, z;
    m_image.getXYZ(i, j, x, y, z);
    emit pointPicked(x, y, z);
}

void PlaneView::mousePressEvent(QMouseEvent* event)
{
    m_lastDrag = event->pos();
    if (event->button() != Qt::LeftButton)
        return;
    if (m_tool == Crosshair) {
        pick(event->localPos());
        return;
    }
    m_drawing = true;
    m_shapeTool = m_tool;
    const QPointF start = snapped(widgetToImage(event->localPos()));
    m_shape = QRectF(start, start);
    m_measureText.clear();
    update();
}

void PlaneView::mouseMoveEvent(QMouseEvent* event)
{
    if (event->buttons() & Qt::RightButton) {
        const QPoint delta = event->pos() - m_lastDrag;
        m_lastDrag = event->pos();
        emit windowDragged(delta.x(), delta.y());
    } else if (event->buttons() & Qt::LeftButton) {
        if (m_drawing) {
            m_shape.setBottomRight(snapped(widgetToImage(event->localPos())));
            update();
        } else if (m_tool == Crosshair) {
            pick(event->localPos());
        }
    }
}

void PlaneView::mouseReleaseEvent(QMouseEvent* event)
{
    if (event->button() != Qt::LeftButton || !m_drawing)
        return;
    m_drawing = false;
    m_shape.setBottomRight(snapped(widgetToImage(event->localPos())));
    measure(m_shapeTool, m_shape);
}

void PlaneView::wheelEvent(QWheelEvent* event)
{
    const int steps = event->angleDelta().y() / 120;
    if (steps == 0)
        return;
    if (event->modifiers() & Qt::ControlModifier)
        setZoom(m_zoom * std::pow(1.25, steps));
    else
        emit stepRequested(steps);
    event->accept();
}
