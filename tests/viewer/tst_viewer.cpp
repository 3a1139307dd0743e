// The viewer's real widgets driven through QTest: what the browser lists, what the planes show
// (grey levels on the screen at chosen pixels), stepping, windowing, slabs, measurements against
// the host's roi command, import, frames and receiving from storescu.
#include "browser.h"
#include "dicompeers.h"
#include "importjob.h"
#include "mainwindow.h"
#include "planeview.h"
#include "receiver.h"
#include "seriesview.h"
#include "testcatalog.h"
#include "viewerdriver.h"

#include <syntheticdicom.h>

#include <ndicomvolume.h>
#include <veldatabaseconnection.h>
#include <volumehead.h>

#include <QAction>
#include <QComboBox>
#include <QDir>
#include <QDropEvent>
#include <QLabel>
#include <QMimeData>
#include <QLineEdit>
#include <QListWidget>
#include <QScopeGuard>
#include <QSlider>
#include <QSqlError>
#include <QSqlQuery>
#include <QProgressBar>
#include <QSpinBox>
#include <QTest>
#include <QTreeWidget>

#include <algorithm>
#include <cmath>
#include <memory>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace viewerdriver;

namespace {

QTreeWidgetItem* seriesNamed(Browser* browser, const QString& description)
{
    for (QTreeWidgetItemIterator it(browser->tree()); *it; ++it)
        if ((*it)->text(Browser::Description) == description && (*it)->text(Browser::Images) != QString())
            return *it;
    return nullptr;
}

// The window over an open catalogue, shown and exposed.
struct Session {
    std::unique_ptr<MainWindow> window;
    Browser* browser() const { return window->browser(); }
    SeriesView* series() const { return window->seriesView(); }
    bool show()
    {
        window = std::make_unique<MainWindow>();
        window->resize(1400, 860);
        window->show();
        return QTest::qWaitForWindowExposed(window.get());
    }
};

// The demo's phantom study written and catalogued by `kestrel demo`.
bool writeDemo(TestCatalog& catalog)
{
    int code = -1;
    runKestrel({"--config", catalog.configDir(), "demo", "--out", catalog.path("demo")}, catalog.path("work"), &code);
    return code == 0;
}

// The demo study catalogued, the window shown and its series DESCRIPTION open.
bool openDemoSeries(TestCatalog& catalog, Session& s, const QString& description)
{
    if (!catalog.setVolumeCache(catalog.path("cache")) || !writeDemo(catalog) || !s.show())
        return false;
    QTreeWidgetItem* item = seriesNamed(s.browser(), description);
    return item && s.window->openSeries(item->data(0, Qt::UserRole).toLongLong());
}

// Screen greys of VIEW at POINTS equal what its image and the window make of them.
void checkShownGreys(SeriesView* series, PlaneView* view, const QList<QPoint>& points)
{
    for (const QPoint& p : points) {
        const int expected = expectedGrey(view->image(), p.x(), p.y(), series->windowWidth(), series->windowCentre());
        QCOMPARE(view->shownGrey(p.x(), p.y()), expected);
        QVERIFY2(greyOnScreen(view, p.x(), p.y()) == expected,
                 qPrintable(QString("%1 at (%2, %3): %4 on the screen, %5 expected")
                                .arg(view->objectName()).arg(p.x()).arg(p.y())
                                .arg(greyOnScreen(view, p.x(), p.y())).arg(expected)));
    }
}

QList<QPoint> samplePoints(PlaneView* view)
{
    const int w = view->image().width(), h = view->image().height();
    // Inside the corner texts, off the crosshair at the middle.
    return {QPoint(w * 2 / 5, h * 2 / 5), QPoint(w * 3 / 5, h * 7 / 20), QPoint(w * 7 / 20, h * 3 / 5),
            QPoint(w * 3 / 5, h * 3 / 5)};
}

// The demo's rows and columns in the browser, its search box and a stored search.
void checkBrowser(Session& s)
{
    // The browser's rows and columns.
    QTreeWidget* tree = s.browser()->tree();
    QCOMPARE(tree->topLevelItemCount(), 1);
    QTreeWidgetItem* patient = tree->topLevelItem(0);
    QCOMPARE(patient->text(Browser::Name), QString("Phantom^Kestrel"));
    QCOMPARE(patient->text(Browser::PatientId), QString("KESTREL-DEMO"));
    QCOMPARE(patient->child(0)->text(Browser::StudyDate), QString("2024-01-31"));
    QCOMPARE(patient->child(0)->text(Browser::Description), QString("Head phantom"));
    const struct { const char* description; const char* number; const char* images; } rows[] = {
        {"T1 axial", "2", "60"}, {"T1 sagittal", "3", "31"}};
    for (const auto& row : rows) {
        QTreeWidgetItem* item = seriesNamed(s.browser(), row.description);
        QVERIFY2(item, row.description);
        QCOMPARE(item->text(Browser::SeriesNumber), QString(row.number));
        QCOMPARE(item->text(Browser::Modality), QString("MR"));
        QCOMPARE(item->text(Browser::Images), QString(row.images));
    }
    // The search box narrows by name or ID, in any case.
    auto* search = s.browser()->findChild<QLineEdit*>("search");
    const struct { const char* text; int series; } searches[] = {{"nobody", 0}, {"kestrel-demo", 2}, {"phantom^", 2}, {"", 2}};
    for (const auto& row : searches) {
        search->setText(row.text);
        QCOMPARE(s.browser()->seriesCount(), row.series);
    }

    // A stored search of the catalogue fills the browser with what it finds.
    QSqlQuery store;
    QVERIFY(store.prepare("INSERT INTO andvancequiry (InquiryName, TableName, ColumnName, Operator, Value, Connector, "
                          "MatchKind) VALUES ('Sagittal only', 'generalseries', 'SeriesDescription', '=', "
                          "'T1 sagittal', 'and', 'Precise')"));
    QVERIFY2(store.exec(), qPrintable(store.lastError().text()));
    s.browser()->refresh();
    QListWidget* stored = s.browser()->storedSearches();
    const QList<QListWidgetItem*> named = stored->findItems("Sagittal only", Qt::MatchExactly);
    QCOMPARE(named.size(), 1);
    QTest::mouseClick(stored->viewport(), Qt::LeftButton, Qt::NoModifier, stored->visualItemRect(named.first()).center());
    QCOMPARE(s.browser()->seriesCount(), 1);
    QVERIFY(seriesNamed(s.browser(), "T1 sagittal"));
    QTest::mouseClick(stored->viewport(), Qt::LeftButton, Qt::NoModifier, stored->visualItemRect(stored->item(0)).center());
    QCOMPARE(s.browser()->seriesCount(), 2);
}

} // namespace

class TestViewer : public QObject
{
    Q_OBJECT

private slots:
    void demoStudy_data() { TestCatalog::addBackendRows(); }
    void demoStudy();
    void measurements_data();
    void measurements();
    void slab_data();
    void slab();
    void realSeries_data() { TestCatalog::addBackendRows(); }
    void realSeries();
    void frames();
    void receive_data() { TestCatalog::addBackendRows(); }
    void receive();
    void errors_data();
    void errors();
};

void TestViewer::demoStudy()
{
    QFETCH(QString, backend);
    KESTREL_OPEN_CATALOG(catalog, backend);
    QVERIFY(catalog.setVolumeCache(catalog.path("cache")));
    QVERIFY(writeDemo(catalog));
    Session s;
    QVERIFY(s.show());

    checkBrowser(s);
    if (QTest::currentTestFailed())
        return;

    // Double-click opens the series in three planes.
    QTreeWidgetItem* axialItem = seriesNamed(s.browser(), "T1 axial");
    QTreeWidget* tree = s.browser()->tree();
    tree->scrollToItem(axialItem);
    // A double click is a press and release followed by the double-click press (QTest sends the
    // last part only).
    const QPoint onRow(tree->columnViewportPosition(Browser::Description) + 4, tree->visualItemRect(axialItem).center().y());
    QTest::mouseClick(tree->viewport(), Qt::LeftButton, Qt::NoModifier, onRow);
    QTest::mouseDClick(tree->viewport(), Qt::LeftButton, Qt::NoModifier, onRow);
    QVERIFY2(s.series()->isOpen(), qPrintable(s.window->statusText()));
    QCOMPARE(s.window->statusText(), QString("opened series #2 T1 axial"));
    SeriesView* series = s.series();
    const VolumeHead& head = *series->volume()->getHead();
    QCOMPARE(series->sliceCount(SeriesView::Axial), 60);
    for (int plane = 0; plane < 3; ++plane)
        checkShownGreys(series, series->view(plane), samplePoints(series->view(plane)));
    // Direction letters at the edges (left, right, top, bottom), head up where the head is in view.
    QCOMPARE(series->view(SeriesView::Axial)->edgeLetters(), QStringList({"R", "L", "A", "P"}));
    QCOMPARE(series->view(SeriesView::Coronal)->edgeLetters(), QStringList({"R", "L", "H", "F"}));
    QCOMPARE(series->view(SeriesView::Sagittal)->edgeLetters(), QStringList({"A", "P", "H", "F"}));

    // Physical aspect: the coronal plane (x across, z down) is as tall and wide on the screen as
    // the volume is in millimetres.
    PlaneView* coronal = series->view(SeriesView::Coronal);
    const QPointF c0 = coronal->imageToWidget({0, 0});
    const QPointF c1 = coronal->imageToWidget({double(coronal->image().width()), double(coronal->image().height())});
    const double screenRatio = std::abs(c1.y() - c0.y()) / std::abs(c1.x() - c0.x());
    const double mmRatio = (series->sliceCount(SeriesView::Axial) * head.voxelspace[2]) /
                           (series->sliceCount(SeriesView::Sagittal) * head.voxelspace[0]);
    QVERIFY2(std::abs(screenRatio / mmRatio - 1) < 0.02, qPrintable(QString("%1 vs %2").arg(screenRatio).arg(mmRatio)));

    // Wheel steps: one slice each, the overlay follows, the ends hold.
    PlaneView* axial = series->view(SeriesView::Axial);
    const int start = series->index(SeriesView::Axial);
    auto location = [axial] { return axial->cornerTexts().value(2).section("Pos: ", 1).section(' ', 0, 0).toDouble(); };
    const double before = location();
    wheel(axial, 1);
    const int next = series->index(SeriesView::Axial);
    QCOMPARE(std::abs(next - start), 1);
    QVERIFY(axial->cornerTexts().value(2).contains(QString("axial %1/60").arg(next + 1)));
    QVERIFY2(std::abs(std::abs(location() - before) - head.voxelspace[2]) < 0.01,
             qPrintable(QString("%1 -> %2").arg(before).arg(location())));
    checkShownGreys(series, axial, samplePoints(axial));
    wheel(axial, -1);
    QCOMPARE(series->index(SeriesView::Axial), start);
    wheel(axial, 200);
    QVERIFY(series->index(SeriesView::Axial) == 0 || series->index(SeriesView::Axial) == 59);
    wheel(axial, -200);
    QVERIFY(series->index(SeriesView::Axial) == 0 || series->index(SeriesView::Axial) == 59);
    series->setIndex(SeriesView::Axial, start);

    // A drag with the right button widens the window and lowers its centre; the overlay and the
    // shown greys follow.
    const double width0 = series->windowWidth(), centre0 = series->windowCentre();
    const QPoint middle(axial->width() / 2, axial->height() / 2);
    drag(axial, Qt::RightButton, middle, middle + QPoint(80, -40));
    QVERIFY(series->windowWidth() > width0 + 79);
    QVERIFY(series->windowCentre() < centre0 - 39);
    QVERIFY(axial->cornerTexts().value(3).contains(QString("W: %1").arg(series->windowWidth(), 0, 'g', 6)));
    checkShownGreys(series, axial, samplePoints(axial));
    // Presets: the narrow one halves the series' width.
    auto* presets = series->findChild<QComboBox*>("presets");
    const int narrow = presets->findText("Narrow");
    QVERIFY(narrow >= 0);
    presets->setCurrentIndex(narrow);
    emit presets->activated(narrow);
    QCOMPARE(series->windowWidth(), head.WindowWidth / 2);
    checkShownGreys(series, series->view(SeriesView::Sagittal), samplePoints(series->view(SeriesView::Sagittal)));
}

void TestViewer::measurements_data()
{
    QTest::addColumn<QString>("backend");
    QTest::addColumn<int>("tool");
    QTest::addColumn<int>("plane");
    QTest::addColumn<QString>("shape");
    QTest::addColumn<QRect>("pixels");
    for (const char* backend : {"sqlite", "mariadb"}) {
        QTest::addRow("%s rectangle on the axial plane", backend)
            << backend << int(PlaneView::Rectangle) << int(SeriesView::Axial) << "rect" << QRect(40, 50, 25, 18);
        QTest::addRow("%s rectangle on the coronal plane", backend)
            << backend << int(PlaneView::Rectangle) << int(SeriesView::Coronal) << "rect" << QRect(30, 20, 40, 12);
        QTest::addRow("%s ellipse on the sagittal plane", backend)
            << backend << int(PlaneView::Ellipse) << int(SeriesView::Sagittal) << "ellipse" << QRect(35, 15, 50, 30);
        QTest::addRow("%s line on the axial plane", backend)
            << backend << int(PlaneView::Line) << int(SeriesView::Axial) << "line" << QRect(20, 30, 70, 40);
    }
}

// A shape drawn with the mouse gives the statistics kestrel roi finds on the same plane written
// out as a derived DICOM image.
void TestViewer::measurements()
{
    QFETCH(QString, backend);
    QFETCH(int, tool);
    QFETCH(int, plane);
    QFETCH(QString, shape);
    QFETCH(QRect, pixels);
    KESTREL_OPEN_CATALOG(catalog, backend);
    Session s;
    QVERIFY(openDemoSeries(catalog, s, "T1 axial"));

    auto* tools = s.series()->findChild<QComboBox*>("tool");
    tools->setCurrentIndex(tools->findData(tool));
    PlaneView* view = s.series()->view(plane);
    const QPoint a = view->imageToWidget(pixels.topLeft()).toPoint();
    const QPoint b = view->imageToWidget(QPointF(pixels.x() + pixels.width(), pixels.y() + pixels.height())).toPoint();
    drag(view, Qt::LeftButton, a, b);
    const QString shown = view->measurementText();
    QVERIFY2(!shown.isEmpty(), "no measurement");
    QCOMPARE(s.series()->findChild<QLabel*>("measurement")->text(), shown);
    if (tool != PlaneView::Line)
        QCOMPARE(view->measuredRect(), QRectF(pixels));

    const QString file = catalog.path("plane.dcm");
    QString error;
    QVERIFY2(s.series()->exportDicom(file, &error), qPrintable(error));
    const QStringList roiArgs = tool == PlaneView::Line
                                    ? QStringList{QString::number(pixels.x()), QString::number(pixels.y()),
                                                  QString::number(pixels.x() + pixels.width()),
                                                  QString::number(pixels.y() + pixels.height())}
                                    : QStringList{QString::number(pixels.x()), QString::number(pixels.y()),
                                                  QString::number(pixels.width()), QString::number(pixels.height())};
    int code = -1;
    const QString roi = runKestrel(QStringList{"roi", file, shape} + roiArgs, catalog.path("work"), &code);
    QCOMPARE(code, 0);
    const QList<double> mine = statistics(shown), theirs = statistics(roi);
    QCOMPARE(mine.size(), 3);
    QCOMPARE(theirs.size(), 3);
    QVERIFY2(std::abs(mine[0] - theirs[0]) <= 1e-4 * std::max(1.0, std::abs(theirs[0])), qPrintable(shown + " / " + roi));
    QCOMPARE(mine[1], theirs[1]);
    QCOMPARE(mine[2], theirs[2]);
    // The size in real units: pixels times the pixel area, or the length in mm.
    const double sx = view->image().getPixelSpacing()[0], sy = view->image().getPixelSpacing()[1];
    const double roiSize = roi.section("size ", 1).section(' ', 0, 0).toDouble();
    const double mineSize = tool == PlaneView::Line ? shown.section("length ", 1).section(' ', 0, 0).toDouble()
                                                    : shown.section("area ", 1).section(' ', 0, 0).toDouble();
    const double expectedSize = tool == PlaneView::Line ? roiSize : roiSize * sx * sy;
    QVERIFY2(std::abs(mineSize - expectedSize) <= 1e-4 * expectedSize, qPrintable(shown + " / " + roi));
}

void TestViewer::slab_data()
{
    QTest::addColumn<QString>("backend");
    QTest::addColumn<int>("render");
    for (const char* backend : {"sqlite", "mariadb"}) {
        QTest::addRow("%s MIP", backend) << backend << int(RenderMax);
        QTest::addRow("%s MinIP", backend) << backend << int(RenderMin);
        QTest::addRow("%s average", backend) << backend << int(RenderAverage);
    }
}

// A slab of nine slices shows, at every pixel of a row, a value within the extremes of the
// slices around it and on the right side of the middle slice's own; thickness 1 shows the slice.
void TestViewer::slab()
{
    QFETCH(QString, backend);
    QFETCH(int, render);
    KESTREL_OPEN_CATALOG(catalog, backend);
    Session s;
    QVERIFY(openDemoSeries(catalog, s, "T1 sagittal"));
    SeriesView* series = s.series();
    PlaneView* view = series->view(SeriesView::Axial);
    // Off the phantom's middle, where the slices around differ on both sides.
    const int middle = series->index(SeriesView::Axial) * 2 / 3;
    series->setIndex(SeriesView::Axial, middle);
    const int row = view->image().height() / 2, width = view->image().width();
    auto rowValues = [&] {
        QVector<int> values;
        for (int x = 0; x < width; ++x)
            values << view->image().getValue16u(x, row);
        return values;
    };
    const QVector<int> single = rowValues();
    QVector<int> low = single, high = single;
    for (int k = middle - 10; k <= middle + 10; ++k) {
        series->setIndex(SeriesView::Axial, k);
        const QVector<int> values = rowValues();
        for (int x = 0; x < width; ++x) {
            low[x] = std::min(low[x], values[x]);
            high[x] = std::max(high[x], values[x]);
        }
    }
    series->setIndex(SeriesView::Axial, middle);
    QCOMPARE(rowValues(), single);

    auto* renders = series->findChild<QComboBox*>("render");
    renders->setCurrentIndex(renders->findData(render));
    series->findChild<QSpinBox*>("slab")->setValue(9);
    QVERIFY(view->cornerTexts().value(2).contains("slab 9 " + renders->currentText()));
    const QVector<int> slab = rowValues();
    int differing = 0;
    for (int x = 0; x < width; ++x) {
        QVERIFY2(slab[x] >= low[x] && slab[x] <= high[x], qPrintable(QString("pixel %1").arg(x)));
        if (render == RenderMax)
            QVERIFY(slab[x] >= single[x]);
        if (render == RenderMin)
            QVERIFY(slab[x] <= single[x]);
        differing += slab[x] != single[x];
    }
    QVERIFY2(differing > 0, "the slab shows the single slice");
    checkShownGreys(series, view, samplePoints(view));
    series->findChild<QSpinBox*>("slab")->setValue(1);
    QCOMPARE(rowValues(), single);
}

void TestViewer::realSeries()
{
    QFETCH(QString, backend);
    const QString folder = sharedDataPath("siemens_t1_sag");
    if (folder.isEmpty())
        QSKIP("the shared DICOM data is not here (KESTREL_SHARED_DATA)");
    KESTREL_OPEN_CATALOG(catalog, backend);
    QVERIFY(catalog.setVolumeCache(catalog.path("cache")));
    Session s;
    QVERIFY(s.show());
    QCOMPARE(s.browser()->seriesCount(), 0);

    // The folder dropped on the window is imported beside it, with progress, and the browser shows
    // the series after it.
    QMimeData dropped;
    dropped.setUrls({QUrl::fromLocalFile(folder)});
    QDragEnterEvent enter(QPoint(300, 300), Qt::CopyAction, &dropped, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(s.window.get(), &enter);
    QVERIFY(enter.isAccepted());
    QDropEvent drop(QPointF(300, 300), Qt::CopyAction, &dropped, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(s.window.get(), &drop);
    QVERIFY(drop.isAccepted());
    QVERIFY(s.window->importJob()->isRunning());
    QVERIFY(s.window->findChild<QProgressBar*>("progress")->isVisible());
    QVERIFY(!s.window->importPaths({folder}));
    QCOMPARE(s.window->statusText(), QString("an import is still running"));
    QTRY_VERIFY_WITH_TIMEOUT(!s.window->importJob()->isRunning(), 60000);
    QVERIFY2(s.window->statusText().startsWith("imported 35 images in 1 series"), qPrintable(s.window->statusText()));
    QCOMPARE(s.browser()->seriesCount(), 1);
    QTreeWidgetItem* item = s.browser()->seriesItem(s.browser()->tree()->topLevelItem(0)->child(0)->child(0)->data(0, Qt::UserRole).toLongLong());
    QVERIFY(item);
    QCOMPARE(item->text(Browser::Images), QString("35"));
    QCOMPARE(item->text(Browser::Modality), QString("MR"));

    QVERIFY(s.window->openSeries(item->data(0, Qt::UserRole).toLongLong()));
    SeriesView* series = s.series();
    QList<int> counts{series->sliceCount(0), series->sliceCount(1), series->sliceCount(2)};
    std::sort(counts.begin(), counts.end());
    QCOMPARE(counts, (QList<int>{35, 256, 256}));
    for (int plane = 0; plane < 3; ++plane)
        checkShownGreys(series, series->view(plane), samplePoints(series->view(plane)));

    // A click on one plane moves the other two through the point clicked.
    const double spacing = *std::max_element(series->volume()->getHead()->voxelspace,
                                             series->volume()->getHead()->voxelspace + 3);
    for (int plane = 0; plane < 3; ++plane) {
        PlaneView* view = series->view(plane);
        const QPoint pixel(view->image().width() * (plane + 1) / 5, view->image().height() * 2 / 3);
        QTest::mouseClick(view, Qt::LeftButton, Qt::NoModifier, pixelCentre(view, pixel.x(), pixel.y()));
        double x, y, z;
        view->image().getXYZ(pixel.x(), pixel.y(), x, y, z);
        for (int other = 0; other < 3; ++other) {
            double distance = 1e9;
            series->view(other)->image().getLocationIJ(x, y, z, &distance);
            QVERIFY2(std::abs(distance) <= spacing, qPrintable(QString("plane %1 from %2: %3 mm").arg(other).arg(plane).arg(distance)));
        }
    }
}

// A series with two images per position opens as its frames, one at a time on the slider.
void TestViewer::frames()
{
    const QString folder = sharedDataPath("ge_b0map_signed");
    if (folder.isEmpty())
        QSKIP("the shared DICOM data is not here (KESTREL_SHARED_DATA)");
    KESTREL_OPEN_CATALOG(catalog, "sqlite");
    QVERIFY(catalog.setVolumeCache(catalog.path("cache")));
    Session s;
    QVERIFY(s.show());
    QVERIFY(s.window->importPaths({folder}));
    QTRY_VERIFY_WITH_TIMEOUT(!s.window->importJob()->isRunning(), 60000);
    QCOMPARE(s.browser()->seriesCount(), 1);
    QTreeWidgetItem* item = s.browser()->tree()->topLevelItem(0)->child(0)->child(0);
    QVERIFY2(s.window->openSeries(item->data(0, Qt::UserRole).toLongLong()), qPrintable(s.window->statusText()));
    SeriesView* series = s.series();
    QCOMPARE(series->frameCount(), 2);
    QVERIFY(series->frameLabel().startsWith("1/2"));
    PlaneView* view = series->view(SeriesView::Axial);
    const QImage first = view->grab().toImage();
    auto* slider = series->findChild<QSlider*>("frame");
    QVERIFY(slider->isEnabled());
    slider->setValue(1);
    QVERIFY(series->frameLabel().startsWith("2/2"));
    QVERIFY(view->grab().toImage() != first);
    checkShownGreys(series, view, samplePoints(view));
}

// Receive on: a series sent by storescu while the window is open appears in the browser.
void TestViewer::receive()
{
    QFETCH(QString, backend);
    KESTREL_OPEN_CATALOG(catalog, backend);
    QVERIFY(catalog.setVolumeCache(catalog.path("cache")));
    Session s;
    QVERIFY(s.show());
    const int port = freePort();
    s.window->receiver()->setPort(port);
    s.window->receiver()->setFolder(catalog.path("received"));
    s.window->receiveAction()->trigger();
    QVERIFY(s.window->receiver()->isRunning());
    QVERIFY(s.window->statusText().startsWith(QString("receiving on port %1").arg(port)));

    SyntheticImage base;
    base.patientName = "Sent^Patient";
    base.patientId = "SENT1";
    base.seriesDescription = "Received T2";
    base.rows = base.columns = 48;
    const QStringList files = writeSyntheticSeries(catalog.path("send"), base, 6);
    QCOMPARE(files.size(), 6);
    QCOMPARE(storescu(port, files), 0);
    QTRY_VERIFY_WITH_TIMEOUT(seriesNamed(s.browser(), "Received T2"), 45000);
    QTreeWidgetItem* item = seriesNamed(s.browser(), "Received T2");
    QCOMPARE(item->text(Browser::Images), QString("6"));
    QCOMPARE(item->parent()->parent()->text(Browser::Name), QString("Sent^Patient"));
    QVERIFY(s.window->openSeries(item->data(0, Qt::UserRole).toLongLong()));
    QCOMPARE(s.series()->sliceCount(SeriesView::Axial), 6);

    s.window->receiveAction()->trigger();
    QVERIFY(!s.window->receiver()->isRunning());
}

void TestViewer::errors_data()
{
    QTest::addColumn<QString>("what");
    QTest::newRow("a file that is not DICOM") << "unreadable";
    QTest::newRow("a series whose files and cache are gone") << "gone";
    QTest::newRow("a port another program holds") << "port";
}

// Failures end in the status line; the window stays usable.
void TestViewer::errors()
{
    QFETCH(QString, what);
    KESTREL_OPEN_CATALOG(catalog, "sqlite");
    QVERIFY(catalog.setVolumeCache(catalog.path("cache")));
    if (what == "gone")
        QVERIFY(writeDemo(catalog));
    Session s;
    QVERIFY(s.show());
    if (what == "unreadable") {
        QFile text(catalog.path("notes.txt"));
        QVERIFY(text.open(QIODevice::WriteOnly));
        text.write("not an image\n");
        text.close();
        QVERIFY(s.window->importPaths({text.fileName()}));
        QTRY_VERIFY_WITH_TIMEOUT(!s.window->importJob()->isRunning(), 30000);
        QVERIFY2(s.window->statusText().contains("1 unreadable"), qPrintable(s.window->statusText()));
        QCOMPARE(s.browser()->seriesCount(), 0);
    } else if (what == "gone") {
        QTreeWidgetItem* item = seriesNamed(s.browser(), "T1 axial");
        QVERIFY(item);
        const qint64 axialPk = item->data(0, Qt::UserRole).toLongLong();
        QVERIFY(s.window->openSeries(seriesNamed(s.browser(), "T1 sagittal")->data(0, Qt::UserRole).toLongLong()));
        QVERIFY(QDir(catalog.path("demo/phantom")).removeRecursively());
        QVERIFY(QDir(catalog.path("cache")).removeRecursively());
        QVERIFY(!s.window->openSeries(axialPk));
        QVERIFY2(s.window->statusText().startsWith("cannot open the series"), qPrintable(s.window->statusText()));
        // The series shown before stays open and answers.
        QVERIFY(s.series()->isOpen());
        QCOMPARE(s.series()->title(), QString("#3 T1 sagittal"));
        PlaneView* view = s.series()->view(SeriesView::Coronal);
        QTest::mouseClick(view, Qt::LeftButton, Qt::NoModifier, pixelCentre(view, 1, 1));
        wheel(view, 1);
        checkShownGreys(s.series(), view, samplePoints(view));
    } else {
        const int port = freePort();
        const int holder = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(quint16(port));
        QVERIFY(::bind(holder, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 && ::listen(holder, 1) == 0);
        const auto closeHolder = qScopeGuard([holder] { ::close(holder); });
        s.window->receiver()->setPort(port);
        s.window->receiver()->setFolder(catalog.path("received"));
        s.window->receiveAction()->trigger();
        QTRY_VERIFY_WITH_TIMEOUT(!s.window->receiveAction()->isChecked(), 10000);
        QVERIFY(!s.window->receiver()->isRunning());
        QVERIFY2(s.window->statusText().contains("stopped"), qPrintable(s.window->statusText()));
    }
    // Still answering: the browser reads the catalogue again.
    QListWidget* stored = s.browser()->storedSearches();
    QTest::mouseClick(stored->viewport(), Qt::LeftButton, Qt::NoModifier, stored->visualItemRect(stored->item(0)).center());
    QCOMPARE(s.browser()->seriesCount(), what == "gone" ? 2 : 0);
}

int main(int argc, char* argv[])
{
    // Real windows under xvfb-run; without a display the same widgets offscreen.
    if (!qEnvironmentVariableIsEmpty("DISPLAY"))
        qputenv("QT_QPA_PLATFORM", "xcb");
    QApplication app(argc, argv);
    TestViewer test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_viewer.moc"
