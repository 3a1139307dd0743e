#include "mainwindow.h"

#include "browser.h"
#include "importjob.h"
#include "receiver.h"
#include "seriesview.h"

#include <QAction>
#include <QApplication>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileDialog>
#include <QLabel>
#include <QMenuBar>
#include <QMimeData>
#include <QProgressBar>
#include <QSplitter>
#include <QStatusBar>

MainWindow::MainWindow(QWidget* parent)
    : QMainWindow(parent)
{
    setWindowTitle("Kestrel viewer");
    setAcceptDrops(true);
    auto* split = new QSplitter(this);
    m_browser = new Browser(split);
    m_series = new SeriesView(split);
    split->setStretchFactor(0, 1);
    split->setStretchFactor(1, 3);
    split->setSizes({440, 960});
    setCentralWidget(split);

    m_status = new QLabel(this);
    m_status->setObjectName("status");
    m_progress = new QProgressBar(this);
    m_progress->setObjectName("progress");
    m_progress->setMaximumWidth(200);
    m_progress->setVisible(false);
    statusBar()->addWidget(m_status, 1);
    statusBar()->addPermanentWidget(m_progress);

    m_import = new ImportJob(this);
    m_receiver = new Receiver(this);
    connect(m_browser, &Browser::seriesActivated, this, &MainWindow::openSeries);
    connect(m_browser, &Browser::message, this, &MainWindow::showStatus);
    connect(m_series, &SeriesView::message, this, &MainWindow::showStatus);
    connect(m_import, &ImportJob::text, this, &MainWindow::showStatus);
    connect(m_import, &ImportJob::progress, this, [this](int value, int maximum) {
        m_progress->setMaximum(maximum);
        m_progress->setValue(value);
    });
    connect(m_import, &ImportJob::finished, this, [this](bool, const QString& summary) {
        m_progress->setVisible(false);
        m_browser->refresh();
        showStatus(summary);
    });
    connect(m_receiver, &Receiver::message, this, &MainWindow::showStatus);
    connect(m_receiver, &Receiver::seriesImported, m_browser, &Browser::refresh);
    connect(m_receiver, &Receiver::stopped, this, [this](int code, const QString& text) {
        m_receive->setChecked(false);
        if (code != 0)
            showStatus("receiving stopped: " + text);
    });
    makeMenus();
    m_browser->refresh();
}

MainWindow::~MainWindow()
{
    m_receiver->stop();
}

void MainWindow::makeMenus()
{
    QMenu* file = menuBar()->addMenu("&File");
    file->addAction("Import &files...", this, [this] {
        const QStringList files = QFileDialog::getOpenFileNames(this, "Import files");
        if (!files.isEmpty())
            importPaths(files);
    });
    file->addAction("Import f&older...", this, [this] {
        const QString dir = QFileDialog::getExistingDirectory(this, "Import folder");
        if (!dir.isEmpty())
            importPaths({dir});
    });
    file->addSeparator();
    file->addAction("Export plane as &PNG...", this, [this] { exportPlane(false); });
    file->addAction("Export plane as &DICOM...", this, [this] { exportPlane(true); });
    file->addSeparator();
    file->addAction("&Quit", this, &QWidget::close, QKeySequence::Quit);
    QMenu* network = menuBar()->addMenu("&Network");
    m_receive = network->addAction("&Receive");
    m_receive->setObjectName("receive");
    m_receive->setCheckable(true);
    connect(m_receive, &QAction::toggled, this, &MainWindow::setReceiving);
}

QString MainWindow::statusText() const
{
    return m_status->text();
}

void MainWindow::showStatus(const QString& text)
{
    m_status->setText(text);
}

bool MainWindow::openSeries(qint64 seriesPk)
{
    // The first opening of a large series builds its volume, on a thread of its own: the window
    // says so and keeps painting meanwhile.
    showStatus(QString("opening series %1 ...").arg(seriesPk));
    QApplication::setOverrideCursor(Qt::WaitCursor);
    m_status->repaint();
    QString error;
    const bool opened = m_series->openSeries(seriesPk, &error);
    QApplication::restoreOverrideCursor();
    if (!opened) {
        showStatus("cannot open the series: " + error);
        return false;
    }
    showStatus("opened series " + m_series->title());
    return true;
}

bool MainWindow::importPaths(const QStringList& paths)
{
    if (!m_import->start(paths)) {
        showStatus("an import is still running");
        return false;
    }
    m_progress->setValue(0);
    m_progress->setVisible(true);
    showStatus(QString("importing %1").arg(paths.join(", ")));
    return true;
}

void MainWindow::setReceiving(bool on)
{
    if (!on) {
        if (m_receiver->isRunning()) {
            m_receiver->stop();
            showStatus("receiving stopped");
        }
        return;
    }
    QString error;
    if (!m_receiver->start(&error)) {
        showStatus(error);
        m_receive->setChecked(false);
    }
}

void MainWindow::exportPlane(bool dicom)
{
    const QString file = QFileDialog::getSaveFileName(this, dicom ? "Export DICOM" : "Export PNG", QString(),
                                                      dicom ? "DICOM (*.dcm)" : "PNG (*.png)");
    if (file.isEmpty())
        return;
    QString error;
    const bool ok = dicom ? m_series->exportDicom(file, &error) : m_series->exportPng(file, &error);
    showStatus(ok ? "wrote " + file : error);
}

void MainWindow::dragEnterEvent(QDragEnterEvent* event)
{
    if (event->mimeData()->hasUrls())
        event->acceptProposedAction();
}

void MainWindow::dropEvent(QDropEvent* event)
{
    QStringList paths;
    for (const QUrl& url : event->mimeData()->urls())
        if (url.isLocalFile())
            paths << url.toLocalFile();
    if (!paths.isEmpty()) {
        importPaths(paths);
        event->acceptProposedAction();
    }
}
