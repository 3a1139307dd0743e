#pragma once

#include <ndicomimage.h>

#include <QImage>
#include <QLineF>
#include <QRectF>
#include <QStringList>
#include <QTransform>
#include <QWidget>

#include <array>

// One plane of the open series: the windowed image at physical aspect (head up), the crosshair,
// the corner overlay and the measurement being drawn. The series view cuts the plane into
// image() and calls imageChanged(); the view reports what the user does by signals.
class PlaneView : public QWidget
{
    Q_OBJECT
public:
    enum Tool { Crosshair, Rectangle, Ellipse, Line };
    Q_ENUM(Tool)

    explicit PlaneView(QWidget* parent = nullptr);

    NDicomImage& image() { return m_image; }
    // The plane was cut again: windows it anew and repaints.
    void imageChanged();
    void setWindow(double width, double centre);
    void setTool(Tool tool) { m_tool = tool; }
    void setZoom(double zoom);
    double zoom() const { return m_zoom; }
    // Crosshair through the patient point (x, y, z); hidden while no point is set.
    void setCrossPoint(const std::array<double, 3>& point);
    // Corner texts, in the order top left, top right, bottom left, bottom right.
    void setCornerTexts(const QStringList& texts);
    QStringList cornerTexts() const { return m_corners; }
    // The patient directions at the middle of the left, right, top and bottom edges ("R", "L",
    // "A", "P" on an axial plane); empty before a plane is shown.
    QStringList edgeLetters() const;

    // Image pixel (column, row) to widget point and back.
    QPointF imageToWidget(const QPointF& pixel) const;
    QPointF widgetToImage(const QPointF& point) const;
    // Grey level shown for image pixel (column, row), as windowed; -1 outside the image.
    int shownGrey(int column, int row) const;
    // The last finished measurement: the shape in image pixels and its text.
    QString measurementText() const { return m_measureText; }
    QRectF measuredRect() const { return m_shape.normalized(); }
    // Measures SHAPE (for lines, its diagonal from top left to bottom right) with TOOL.
    QString measure(Tool tool, const QRectF& shape);

signals:
    void pointPicked(double x, double y, double z);
    void stepRequested(int delta);
    void windowDragged(int dx, int dy);
    void zoomChanged(double zoom);
    void measured(const QString& text);

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;

private:
    void updateTransform();
    void pick(const QPointF& point);
    void drawShape(QPainter& painter) const;
    void drawCorners(QPainter& painter) const;
    void drawEdgeLetters(QPainter& painter) const;
    // -1 where the plane is shown upside down (its columns run towards the head), else 1.
    double verticalFlip() const;

    NDicomImage m_image;
    QImage m_picture;
    double m_width = 400, m_centre = 200;
    double m_zoom = 1.0;
    QTransform m_toWidget, m_toImage;
    Tool m_tool = Crosshair;
    bool m_hasCross = false;
    std::array<double, 3> m_cross{};
    QStringList m_corners;
    QRectF m_shape;          // image pixels; for lines the two corners are the ends
    Tool m_shapeTool = Crosshair;
    bool m_drawing = false;
    QString m_measureText;
    QPoint m_lastDrag;
};
