// Viewer benchmark: the time from a wheel step to the repainted plane on a 512 x 512 x 300 volume
// (goal one display frame, 16 ms), and the longest stall of the UI thread while a 10,000-file
// import runs beside the window (goal 50 ms).
//   bench_viewer [--steps N] [--files N]
#include "browser.h"
#include "importjob.h"
#include "mainwindow.h"
#include "planeview.h"
#include "seriesview.h"
#include "syntheticdicom.h"

#include "../timing.h"

#include <kestrelpaths.h>
#include <qdcmfiles.h>
#include <veldatabaseconnection.h>

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QSettings>
#include <QSqlDatabase>
#include <QTemporaryDir>
#include <QTextStream>
#include <QTimer>
#include <QTreeWidget>
#include <QWheelEvent>

#include <algorithm>
#include <cstdio>

namespace {

QTextStream out(stdout);

void quiet(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    if (type == QtCriticalMsg || type == QtFatalMsg)
        QTextStream(stderr) << message << '\n';
}

// A SQLite catalogue and a volume cache of their own under TMP, the working directory there.
bool openCatalogue(const QString& tmp)
{
    const QString config = tmp + "/config";
    QDir().mkpath(config);
    QDir().mkpath(tmp + "/work");
    QFile ini(config + "/database.ini");
    if (!ini.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    ini.write(("[currentdatabase]\ndbname=bench\n\n[bench]\ndatabaseType=QSQLITE\ndatabaseName=" +
               QDir(Kestrel::applicationDir()).relativeFilePath(tmp + "/catalogue.sqlite") + "\n")
                  .toUtf8());
    ini.close();
    QFile::copy(Kestrel::applicationDir() + "/../config/main.ini", config + "/main.ini");
    QSettings cache(config + "/cache.ini", QSettings::IniFormat);
    cache.setValue("registration/cachepath", tmp + "/cache");
    cache.sync();
    Kestrel::setConfigDirectory(config);
    QDir::setCurrent(tmp + "/work");
    return (createConnection() || createConnection()) && QSqlDatabase::database().isOpen();
}

// Series of synthetic images written once into DIR (kept for the next run, marked complete by a
// file beside it, not in it, so that the import finds only images); the folder.
QString corpus(const QString& dir, int series, int perSeries, int size)
{
    if (QFile::exists(dir + ".complete"))
        return dir;
    QDir(dir).removeRecursively();
    out << "writing " << series * perSeries << " files of " << size << " x " << size << " into " << dir << " ..."
        << Qt::endl;
    for (int s = 0; s < series; ++s) {
        SyntheticImage base;
        base.rows = base.columns = size;
        base.patientName = QString("Bench^%1").arg(s / 5);
        base.patientId = QString("B%1").arg(s / 5);
        base.seriesNumber = s + 1;
        base.seriesDescription = QString("Bench %1").arg(s + 1);
        base.rowSpacing = base.columnSpacing = 0.5;
        base.pixel = [](int x, int y, int) { return (x * 7 + y * 13) % 4096; };
        writeSyntheticSeries(QString("%1/s%2").arg(dir).arg(s), base, perSeries, {0, 0, 0.6});
    }
    QFile(dir + ".complete").open(QIODevice::WriteOnly);
    return dir;
}

void print(const char* what, double ms, double goal)
{
    std::printf("  %-58s %8.2f ms   goal <= %5.1f ms   %s\n", what, ms, goal, ms <= goal ? "met" : "MISSED");
}

// Wheel steps on each plane of the open series, each timed to the end of the repaint.
void wheelSteps(MainWindow& window, int steps)
{
    SeriesView* series = window.seriesView();
    const char* names[] = {"axial", "coronal", "sagittal"};
    for (int plane = 0; plane < 3; ++plane) {
        PlaneView* view = series->view(plane);
        int direction = 1;
        const std::vector<double> ms = sortedRunTimes(steps, [&] {
            if (series->index(plane) + direction >= series->sliceCount(plane) || series->index(plane) + direction < 0)
                direction = -direction;
            const QPointF centre(view->width() / 2.0, view->height() / 2.0);
            QWheelEvent wheel(centre, view->mapToGlobal(centre.toPoint()), QPoint(), QPoint(0, 120 * direction),
                              Qt::NoButton, Qt::NoModifier, Qt::NoScrollPhase, false);
            QApplication::sendEvent(view, &wheel);
            view->repaint();
        });
        char what[96];
        std::snprintf(what, sizeof what, "wheel step to repainted %s plane, median", names[plane]);
        print(what, ms[ms.size() / 2], 16);
        std::snprintf(what, sizeof what, "wheel step to repainted %s plane, slowest", names[plane]);
        print(what, ms.back(), 16);
    }
}

// Longest gap between the ticks of a 1 ms timer on the UI thread while it runs.
class StallMeter
{
public:
    StallMeter()
    {
        m_tick.setTimerType(Qt::PreciseTimer);
        QObject::connect(&m_tick, &QTimer::timeout, [this] {
            const qint64 now = m_clock.nsecsElapsed();
            m_longest = std::max(m_longest, (now - m_last) / 1e6);
            m_last = now;
        });
        m_clock.start();
        m_tick.start(1);
    }
    double longestMs()
    {
        // The gap up to now counts too.
        m_longest = std::max(m_longest, (m_clock.nsecsElapsed() - m_last) / 1e6);
        m_tick.stop();
        return m_longest;
    }

private:
    QTimer m_tick;
    QElapsedTimer m_clock;
    qint64 m_last = 0;
    double m_longest = 0;
};

// The longest UI stall while an import runs.
void importStall(MainWindow& window, const QString& folder, int files)
{
    QElapsedTimer run;
    bool ended = false;
    QObject::connect(window.importJob(), &ImportJob::finished, [&] { ended = true; });
    run.start();
    StallMeter meter;
    window.importPaths({folder});
    while (!ended)
        QApplication::processEvents(QEventLoop::WaitForMoreEvents);
    // The browser's refresh after the import is part of what the user waits through.
    QApplication::processEvents();
    const double seconds = run.elapsed() / 1000.0;
    const double longest = meter.longestMs();
    char what[96];
    std::snprintf(what, sizeof what, "longest UI stall, import of %d files (%.1f s)", files, seconds);
    print(what, longest, 50);
    out << "    " << window.statusText() << "; browser: " << window.browser()->seriesCount() << " series" << Qt::endl;
}

} // namespace

int main(int argc, char* argv[])
{
    QApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addHelpOption();
    parser.addOption({"steps", "Wheel steps timed per plane (default 60).", "N", "60"});
    parser.addOption({"files", "Files of the import (default 10000).", "N", "10000"});
    parser.process(app);
    qInstallMessageHandler(quiet);
    const int steps = std::max(5, parser.value("steps").toInt());
    const int files = std::max(100, parser.value("files").toInt() / 20 * 20);

    QTemporaryDir tmp;
    if (!openCatalogue(tmp.path())) {
        std::fprintf(stderr, "bench_viewer: cannot open a catalogue under %s\n", qPrintable(tmp.path()));
        return 1;
    }
    const QString volume = corpus(QDir::tempPath() + "/kestrel-bench-viewer-512x300", 1, 300, 512);
    QDcmFiles importer;
    importer.loadLocalFilesToDB(QDcmFiles::filesBelow({volume}), 0);

    MainWindow window;
    window.resize(1400, 860);
    window.show();
    QApplication::processEvents();
    QElapsedTimer opening;
    opening.start();
    QTreeWidgetItem* patient = window.browser()->tree()->topLevelItem(0);
    StallMeter meter;
    if (!patient || !window.openSeries(patient->child(0)->child(0)->data(0, Qt::UserRole).toLongLong())) {
        std::fprintf(stderr, "bench_viewer: %s\n", qPrintable(window.statusText()));
        return 1;
    }
    const double stall = meter.longestMs();
    out << "512 x 512 x 300 volume built and opened in " << opening.elapsed() << " ms" << Qt::endl;
    print("longest UI stall, first opening of that series (volume built)", stall, 50);
    QApplication::processEvents();
    wheelSteps(window, steps);

    const QString many = corpus(QDir::tempPath() + QString("/kestrel-bench-viewer-%1").arg(files), 20, files / 20, 64);
    importStall(window, many, files);
    return 0;
}
