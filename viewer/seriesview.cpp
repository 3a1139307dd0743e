#include "seriesview.h"

#include "picture.h"

#include <qdcmfile.h>
#include <qinstance.h>
#include <qseries.h>
#include <volumehead.h>

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcuid.h>

#include <QComboBox>
#include <QEventLoop>
#include <QFile>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QSlider>
#include <QSpinBox>
#include <QThread>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>
#include <thread>

namespace {

const char* const kPlaneNames[3] = {"axial", "coronal", "sagittal"};

// Position of IMAGE's plane along its normal, in mm.
double planeLocation(NDicomImage& image)
{
    const double* r = image.getOrientation(0);
    const double* c = image.getOrientation(1);
    const double n[3] = {r[1] * c[2] - r[2] * c[1], r[2] * c[0] - r[0] * c[2], r[0] * c[1] - r[1] * c[0]};
    const double* p = image.getPosition();
    return p[0] * n[0] + p[1] * n[1] + p[2] * n[2];
}

void putText(DcmItem* item, const DcmTagKey& tag, const QString& value)
{
    item->putAndInsertString(tag, value.toLatin1().constData());
}

} // namespace

SeriesView::SeriesView(QWidget* parent)
    : QWidget(parent)
{
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(makeToolBar());
    auto* grid = new QGridLayout;
    grid->setSpacing(2);
    for (int plane = 0; plane < 3; ++plane) {
        auto* view = new PlaneView(this);
        view->setObjectName(kPlaneNames[plane]);
        m_views[plane] = view;
        connect(view, &PlaneView::stepRequested, this, [this, plane](int delta) { step(plane, delta); });
        connect(view, &PlaneView::pointPicked, this,
                [this, plane](double x, double y, double z) { crossAt(plane, x, y, z); });
        connect(view, &PlaneView::windowDragged, this, [this](int dx, int dy) {
            const double scale = std::max(1.0, m_width / 256.0);
            setWindow(std::max(1.0, m_width + dx * scale), m_centre + dy * scale);
        });
        connect(view, &PlaneView::zoomChanged, this, [this, plane] { updateCorners(plane); });
        connect(view, &PlaneView::measured, this, [this, plane](const QString& text) {
            m_active = plane;
            m_measureText->setText(text);
        });
    }
    grid->addWidget(m_views[Axial], 0, 0, 2, 1);
    grid->addWidget(m_views[Coronal], 0, 1);
    grid->addWidget(m_views[Sagittal], 1, 1);
    grid->setColumnStretch(0, 2);
    grid->setColumnStretch(1, 1);
    layout->addLayout(grid, 1);
    m_measureText = new QLabel(this);
    m_measureText->setObjectName("measurement");
    m_measureText->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(m_measureText);
}

SeriesView::~SeriesView() = default;

QWidget* SeriesView::makeToolBar()
{
    auto* bar = new QWidget(this);
    auto* row = new QHBoxLayout(bar);
    row->setContentsMargins(4, 2, 4, 2);
    m_presets = new QComboBox(bar);
    m_presets->setObjectName("presets");
    connect(m_presets, QOverload<int>::of(&QComboBox::activated), this, &SeriesView::applyPreset);
    m_slab = new QSpinBox(bar);
    m_slab->setObjectName("slab");
    m_slab->setRange(1, 200);
    m_slab->setSuffix(" slices");
    m_renderBox = new QComboBox(bar);
    m_renderBox->setObjectName("render");
    m_renderBox->addItem("MIP", RenderMax);
    m_renderBox->addItem("MinIP", RenderMin);
    m_renderBox->addItem("Average", RenderAverage);
    auto slabChanged = [this] { setSlab(m_slab->value(), RenderType(m_renderBox->currentData().toInt())); };
    connect(m_slab, QOverload<int>::of(&QSpinBox::valueChanged), this, slabChanged);
    connect(m_renderBox, QOverload<int>::of(&QComboBox::currentIndexChanged), this, slabChanged);
    m_tool = new QComboBox(bar);
    m_tool->setObjectName("tool");
    m_tool->addItem("Crosshair", PlaneView::Crosshair);
    m_tool->addItem("Rectangle", PlaneView::Rectangle);
    m_tool->addItem("Ellipse", PlaneView::Ellipse);
    m_tool->addItem("Line", PlaneView::Line);
    connect(m_tool, QOverload<int>::of(&QComboBox::currentIndexChanged), this,
            [this] { setTool(PlaneView::Tool(m_tool->currentData().toInt())); });
    m_frameSlider = new QSlider(Qt::Horizontal, bar);
    m_frameSlider->setObjectName("frame");
    m_frameSlider->setEnabled(false);
    connect(m_frameSlider, &QSlider::valueChanged, this, &SeriesView::setFrame);
    m_frameText = new QLabel(bar);
    m_frameText->setObjectName("frameLabel");
    row->addWidget(new QLabel("Window", bar));
    row->addWidget(m_presets);
    row->addWidget(new QLabel("Slab", bar));
    row->addWidget(m_slab);
    row->addWidget(m_renderBox);
    row->addWidget(new QLabel("Tool", bar));
    row->addWidget(m_tool);
    row->addWidget(new QLabel("Frame", bar));
    row->addWidget(m_frameSlider, 1);
    row->addWidget(m_frameText);
    return bar;
}

int SeriesView::sliceCount(int plane) const
{
    if (!m_volume)
        return 0;
    switch (plane) {
    case Axial: return m_volume->getAxiSliceNum();
    case Coronal: return m_volume->getCorSliceNum();
    default: return m_volume->getSagSliceNum();
    }
}

// What opening a series reads from the catalogue and the disk.
struct SeriesView::Opened {
    std::unique_ptr<QSeries> series;
    std::unique_ptr<NDicomVolume> volume;
    QList<int> frames;
    QStringList labels;
    QString error;
};

SeriesView::Opened SeriesView::readSeries(qint64 seriesPk)
{
    Opened opened;
    opened.series = std::make_unique<QSeries>(seriesPk);
    QSeries& series = *opened.series;
    series.searchSeriesInfo();
    series.searchInstance();
    if (series.getInstances().isEmpty()) {
        opened.error = QString("series %1 has no images in the catalogue").arg(seriesPk);
        return opened;
    }
    for (QInstance* instance : series.getInstances())
        instance->searchInstanceInfo();
    auto volume = std::make_unique<NDicomVolume>();
    const SeriesFrames frames = getSeriesFrames(&series);
    if (frames.severalPerPosition()) {
        const int group = frames.largestGroup();
        QStringList problems;
        if (!getVolumeFromSeriesFrames(*volume, frames, group, &problems)) {
            opened.error = "its frames give no volume: " + problems.join("; ");
            return opened;
        }
        opened.frames = getVolumeFrames(*volume);
        for (int frame : qAsConst(opened.frames)) {
            QString label = QString::number(frame + 1);
            for (const SeriesFrame& f : frames.groups[group].frames)
                if (f.index == frame)
                    label = f.label;
            opened.labels << label;
        }
    } else if (!volume->getVolumeFromSeriesUID(&series)) {
        opened.error = "no volume could be built from its images (see the volume cache in config/cache.ini)";
        return opened;
    }
    if (!volume->isValid()) {
        opened.error = "no volume could be built from its images";
        return opened;
    }
    opened.volume = std::move(volume);
    return opened;
}

bool SeriesView::openSeries(qint64 seriesPk, QString* error)
{
    if (m_opening) {
        *error = "another series is being opened";
        return false;
    }
    // The catalogue rows and the volume are read on a thread of their own (the library gives it a
    // connection of its own) while the window goes on painting; the series shown stays open when
    // this one fails.
    m_opening = true;
    Opened opened;
    QEventLoop wait;
    QThread* home = thread();
    std::thread reader([&] {
        opened = readSeries(seriesPk);
        if (opened.series)
            opened.series->moveToThread(home);
        if (opened.volume)
            opened.volume->moveToThread(home);
        QMetaObject::invokeMethod(&wait, "quit", Qt::QueuedConnection);
    });
    wait.exec(QEventLoop::ExcludeUserInputEvents);
    reader.join();
    m_opening = false;
    if (!opened.volume) {
        *error = opened.error;
        return false;
    }
    m_volume = std::move(opened.volume);
    m_frames = opened.frames;
    m_frameLabels = opened.labels;
    m_series = std::move(opened.series);
    m_modality = m_series->getSeriesModality();
    m_title = QString("#%1 %2").arg(m_series->getSeriesNumber()).arg(m_series->getSeriesDescription());
    m_templateFile = m_series->getInstances().first()->getFilePath();
    m_derivedUid.clear();
    m_overlayFile = std::make_unique<DcmFileFormat>();
    if (m_overlayFile->loadFile(QFile::encodeName(m_templateFile).constData()).bad())
        m_overlayFile.reset();
    const VolumeHead& head = *m_volume->getHead();
    readPresets(m_templateFile);
    m_width = head.WindowWidth > 0 ? head.WindowWidth : 400;
    m_centre = head.WindowCenter;
    m_frameSlider->blockSignals(true);
    m_frameSlider->setRange(0, std::max(0, int(m_frames.size()) - 1));
    m_frameSlider->setValue(0);
    m_frameSlider->setEnabled(m_frames.size() > 1);
    m_frameSlider->blockSignals(false);
    m_frameText->setText(frameLabel());
    for (int plane = 0; plane < 3; ++plane)
        m_index[plane] = sliceCount(plane) / 2;
    for (int plane = 0; plane < 3; ++plane)
        m_views[plane]->setWindow(m_width, m_centre);
    cutAll();
    // The crosshair starts at the middle of the axial plane.
    NDicomImage& axial = m_views[Axial]->image();
    double x, y, z;
    axial.getXYZ(axial.width() / 2, axial.height() / 2, x, y, z);
    crossAt(Axial, x, y, z);
    return true;
}

void SeriesView::readPresets(const QString& file)
{
    m_presets->clear();
    const VolumeHead& head = *m_volume->getHead();
    m_presets->addItem(QString("Series %1/%2").arg(head.WindowWidth).arg(head.WindowCenter),
                       QPointF(head.WindowWidth, head.WindowCenter));
    DcmFileFormat dicom;
    if (dicom.loadFile(QFile::encodeName(file).constData()).good()) {
        const QStringList widths = getDcmAttributeText(dicom.getDataset(), "WindowWidth").split('\\');
        const QStringList centres = getDcmAttributeText(dicom.getDataset(), "WindowCenter").split('\\');
        for (int i = 0; i < std::min(widths.size(), centres.size()); ++i) {
            bool okW = false, okC = false;
            const double w = widths[i].toDouble(&okW), c = centres[i].toDouble(&okC);
            if (okW && okC && w > 0)
                m_presets->addItem(QString("Image %1/%2").arg(w).arg(c), QPointF(w, c));
        }
    }
    const double lo = head.WindowCenter - head.WindowWidth, hi = head.WindowCenter + head.WindowWidth;
    m_presets->addItem("Wide", QPointF(hi - lo, (hi + lo) / 2));
    m_presets->addItem("Narrow", QPointF(head.WindowWidth / 2, head.WindowCenter));
}

void SeriesView::applyPreset(int row)
{
    const QPointF preset = m_presets->itemData(row).toPointF();
    if (preset.x() > 0)
        setWindow(preset.x(), preset.y());
}

void SeriesView::cut(int plane)
{
    if (!m_volume)
        return;
    PlaneView* view = m_views[plane];
    NDicomVolume& v = *m_volume;
    const bool ok = plane == Axial     ? v.getDicomImagePlaneAxi(view->image(), m_index[plane], m_thickness, m_render)
                    : plane == Coronal ? v.getDicomImagePlaneCor(view->image(), m_index[plane], m_thickness, m_render)
                                       : v.getDicomImagePlaneSag(view->image(), m_index[plane], m_thickness, m_render);
    if (!ok)
        emit message(QString("cannot cut the %1 plane %2").arg(kPlaneNames[plane]).arg(m_index[plane]));
    view->imageChanged();
    updateCorners(plane);
}

void SeriesView::cutAll()
{
    for (int plane = 0; plane < 3; ++plane)
        cut(plane);
}

void SeriesView::updateCorners(int plane)
{
    PlaneView* view = m_views[plane];
    NDicomImage& image = view->image();
    QStringList corners[4];
    if (m_overlayFile) {
        DcmDataset* data = m_overlayFile->getDataset();
        putText(data, DCM_WindowWidth, QString::number(m_width, 'g', 6));
        putText(data, DCM_WindowCenter, QString::number(m_centre, 'g', 6));
        putText(data, DCM_SliceLocation, QString::number(planeLocation(image), 'f', 2));
        putText(data, DCM_InstanceNumber, QString::number(m_index[plane] + 1));
        putText(data, DCM_Rows, QString::number(image.height()));
        putText(data, DCM_Columns, QString::number(image.width()));
        const char* groups[] = {"TopLeft", "TopRight", "BottomLeft", "BottomRight"};
        for (int i = 0; i < 4; ++i)
            corners[i] = hostkit::cornerLines(m_modality, groups[i], data);
    }
    corners[2] << QString("%1 %2/%3%4")
                      .arg(QString(kPlaneNames[plane]))
                      .arg(m_index[plane] + 1)
                      .arg(sliceCount(plane))
                      .arg(m_thickness > 1 ? QString("  slab %1 %2").arg(m_thickness).arg(m_renderBox->currentText())
                                           : QString());
    corners[3] << QString("Zoom: %1").arg(view->zoom(), 0, 'f', 2);
    QStringList texts;
    for (const QStringList& lines : corners)
        texts << lines.join('\n');
    view->setCornerTexts(texts);
}

void SeriesView::crossAt(int plane, double x, double y, double z)
{
    if (!m_volume)
        return;
    m_active = plane;
    m_cross = {x, y, z};
    for (int other = 0; other < 3; ++other) {
        if (other != plane) {
            const int index = other == Axial ? m_volume->getAxiIndex(x, y, z)
                              : other == Coronal ? m_volume->getCorIndex(x, y, z)
                                                 : m_volume->getSagIndex(x, y, z);
            const int clamped = std::clamp(index, 0, std::max(0, sliceCount(other) - 1));
            if (clamped != m_index[other]) {
                m_index[other] = clamped;
                cut(other);
            }
        }
        m_views[other]->setCrossPoint(m_cross);
    }
}

void SeriesView::setIndex(int plane, int index)
{
    if (!m_volume)
        return;
    index = std::clamp(index, 0, std::max(0, sliceCount(plane) - 1));
    m_active = plane;
    if (index == m_index[plane])
        return;
    m_index[plane] = index;
    cut(plane);
    // The crosshair point moves onto the new plane.
    NDicomImage& image = m_views[plane]->image();
    const QPointF ij = image.getLocationIJ(m_cross[0], m_cross[1], m_cross[2]);
    const int i = std::clamp(int(std::lround(ij.x())), 0, std::max(0, image.width() - 1));
    const int j = std::clamp(int(std::lround(ij.y())), 0, std::max(0, image.height() - 1));
    image.getXYZ(i, j, m_cross[0], m_cross[1], m_cross[2]);
    for (PlaneView* view : m_views)
        view->setCrossPoint(m_cross);
}

void SeriesView::step(int plane, int delta)
{
    setIndex(plane, m_index[plane] + delta);
}

void SeriesView::setWindow(double width, double centre)
{
    m_width = width;
    m_centre = centre;
    for (int plane = 0; plane < 3; ++plane) {
        m_views[plane]->setWindow(width, centre);
        updateCorners(plane);
    }
}

void SeriesView::setSlab(int thickness, RenderType render)
{
    m_thickness = std::max(1, thickness);
    m_render = render;
    if (m_slab->value() != m_thickness)
        m_slab->setValue(m_thickness);
    const int row = m_renderBox->findData(int(render));
    if (row >= 0 && row != m_renderBox->currentIndex())
        m_renderBox->setCurrentIndex(row);
    cutAll();
}

void SeriesView::setTool(PlaneView::Tool tool)
{
    for (PlaneView* view : m_views)
        view->setTool(tool);
    const int row = m_tool->findData(int(tool));
    if (row >= 0 && row != m_tool->currentIndex())
        m_tool->setCurrentIndex(row);
}

void SeriesView::setFrame(int frame)
{
    if (!m_volume || frame < 0 || frame >= m_frames.size())
        return;
    // The frame's own rescale goes into the head, so that its planes carry its real values.
    double slope = 1, intercept = 0;
    if (getFrameRescale(*m_volume, frame, slope, intercept)) {
        m_volume->getHead()->RescaleSlope = slope;
        m_volume->getHead()->RescaleIntercept = intercept;
    }
    m_volume->setTimeIndex(frame);
    if (m_frameSlider->value() != frame)
        m_frameSlider->setValue(frame);
    m_frameText->setText(frameLabel());
    cutAll();
}

QString SeriesView::frameLabel() const
{
    if (m_frames.size() < 2)
        return QString();
    const int t = m_frameSlider->value();
    return QString("%1/%2 %3").arg(t + 1).arg(m_frames.size()).arg(m_frameLabels.value(t));
}

bool SeriesView::exportPng(const QString& file, QString* error)
{
    if (!m_volume) {
        *error = "no series is open";
        return false;
    }
    const QImage picture = hostkit::physicalImage(m_views[m_active]->image(), m_width, m_centre);
    if (picture.isNull() || !picture.save(file, "PNG")) {
        *error = "cannot write " + file;
        return false;
    }
    return true;
}

bool SeriesView::exportDicom(const QString& file, QString* error)
{
    if (!m_volume) {
        *error = "no series is open";
        return false;
    }
    if (m_derivedUid.isEmpty()) {
        char uid[100];
        m_derivedUid = QString::fromLatin1(dcmGenerateUniqueIdentifier(uid, SITE_SERIES_UID_ROOT));
    }
    NDicomImage& image = m_views[m_active]->image();
    image.setInstanceNumber(m_index[m_active] + 1);
    image.setSeriesNumber(1000 + m_series->getSeriesNumber());
    image.setSeriesDescription(QString("Viewer %1").arg(m_series->getSeriesDescription()).left(64));
    image.setWindowWidth(m_width);
    image.setWindowCenter(m_centre);
    if (!image.saveAs(file, m_templateFile, m_derivedUid)) {
        *error = "cannot write a DICOM image to " + file;
        return false;
    }
    return true;
}
