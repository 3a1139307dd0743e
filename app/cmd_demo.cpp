// kestrel demo: the main job on the embedded catalogue. Writes a phantom MR study, catalogues
// it, prints the tree, builds the axial volume through the cache and writes PNG planes, a MIP
// slab and an overview with the MR overlay text.
#include "catalog.h"
#include "command.h"
#include "phantom.h"
#include "picture.h"

#include "kestrelpaths.h"
#include "ndicomimage.h"
#include "ndicomvolume.h"
#include "veldatabaseconnection.h"
#include "qdcmfile.h"
#include "qdcmfiles.h"
#include "qinstance.h"
#include "qseries.h"
#include "viewfourcornerinfoconfig.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcfilefo.h>

#include <QCommandLineParser>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QImage>
#include <QPainter>
#include <QSqlDatabase>
#include <QTextStream>
#include <QVariant>

namespace {

struct Panel {
    QString label;
    QImage image; // at physical aspect
};

bool isCached(const QString& seriesBase)
{
    const QString file = getCachedVolumePath(seriesBase);
    return !file.isEmpty() && QFileInfo::exists(file);
}

QImage overview(const QList<Panel>& panels, const QString& firstFile)
{
    const int height = 320, margin = 12, labelHeight = 28;
    QList<QImage> scaled;
    int width = margin;
    for (const Panel& panel : panels) {
        const int w = int(height * double(panel.image.width()) / panel.image.height() + 0.5);
        scaled << panel.image.scaled(w, height, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
        width += w + margin;
    }
    QImage canvas(width, height + labelHeight + 2 * margin, QImage::Format_RGB32);
    canvas.fill(QColor(24, 24, 28));
    QPainter painter(&canvas);
    painter.setRenderHint(QPainter::TextAntialiasing);
    QFont font("DejaVu Sans");
    font.setPixelSize(14);
    painter.setFont(font);
    int x = margin;
    for (int i = 0; i < panels.size(); ++i) {
        painter.drawImage(x, margin, scaled[i]);
        painter.setPen(QColor(230, 230, 230));
        painter.drawText(QRect(x, margin + height + 4, scaled[i].width(), labelHeight), Qt::AlignHCenter | Qt::AlignTop,
                         panels[i].label);
        x += scaled[i].width() + margin;
    }

    // The overlay text of the MR view in the corners of the first panel.
    DcmFileFormat file;
    if (file.loadFile(QFile::encodeName(firstFile).constData()).good()) {
        font.setPixelSize(10);
        painter.setFont(font);
        painter.setPen(QColor(255, 220, 120));
        const QRect area(margin + 4, margin + 2, scaled[0].width() - 8, height - 4);
        hostkit::drawCornerOverlay(painter, area, "MR", file.getDataset());
    }
    return canvas;
}

int runDemo(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription("Writes a phantom MR study, imports it into the catalogue of "
                                     "config/database.ini, builds a volume and writes PNG planes.");
    parser.addHelpOption();
    parser.addOption({"out", "Folder for the phantom files and the pictures.", "DIR", "kestrel-demo"});
    if (const auto status = app::parseArguments(parser, "demo", args))
        return *status;

    QTextStream out(stdout);
    QElapsedTimer timer;
    timer.start();
    const QString outDir = QDir(parser.value("out")).absolutePath();
    if (!QDir().mkpath(outDir))
        return app::fail("demo", "cannot create " + outDir);

    out << "== Phantom study\n";
    const app::PhantomStudy study = app::writePhantomStudy(outDir + "/phantom");
    out << "  " << study.axialFiles.size() << " axial and " << study.sagittalFiles.size() << " sagittal images in "
        << outDir + "/phantom\n";

    out << "== Catalogue\n" << Qt::flush;
    if (!app::openCatalog())
        return app::fail("demo", app::catalogOpenError());
    out << "  " << QSqlDatabase::database().driverName() << "  " << QDir::cleanPath(QSqlDatabase::database().databaseName())
        << '\n';
    {
        QDcmFiles importer;
        importer.loadLocalFilesToDB(study.axialFiles + study.sagittalFiles, 0);
        const QDcmFiles::RunCounts c = importer.lastRunCounts();
        out << "  imported: " << c.patientsAdded << " patient, " << c.studiesAdded << " study, " << c.seriesAdded
            << " series, " << c.imagesAdded << " images added; " << c.duplicates << " already catalogued\n";
        if (!importer.lastImportSucceeded())
            return app::fail("demo", "import failed: " + importer.lastError());
    }
    out << "== Tree\n";
    app::printCatalogTree(out, false);

    out << "== Volume of the axial series\n" << Qt::flush;
    const qint64 pk = getSeriesKey(app::phantomAxialSeriesUid());
    if (pk < 0)
        return app::fail("demo", "the axial series is not in the catalogue");
    QSeries series(pk);
    series.searchSeriesInfo();
    series.searchInstance();
    for (QInstance* instance : series.getInstances())
        instance->searchInstanceInfo();
    const bool cached = isCached(series.getSeriesBase());
    NDicomVolume volume;
    QElapsedTimer volumeTimer;
    volumeTimer.start();
    volume.getVolumeFromSeriesUID(&series);
    if (!volume.isValid())
        return app::fail("demo", "no volume could be built from the axial series");
    const VolumeHead& head = *volume.getHead();
    out << "  " << head.volumesize[0] << " x " << head.volumesize[1] << " x " << head.volumesize[2] << " voxels of "
        << head.voxelspace[0] << " x " << head.voxelspace[1] << " x " << head.voxelspace[2] << " mm, "
        << (cached ? "loaded from the volume cache" : "built from the files and cached") << " in "
        << QString::number(volumeTimer.nsecsElapsed() / 1e6, 'f', 1) << " ms\n"
        << "  cache file: " << volume.getCurVolumeDataPath() << '\n';

    out << "== Pictures\n";
    struct Cut {
        const char* file;
        QString label;
        bool (NDicomVolume::*cut)(NDicomImage&, int, int, RenderType);
        int (NDicomVolume::*planes)();
        int thickness;
        RenderType render;
    };
    const Cut cuts[] = {
        {"axial.png", "Axial", &NDicomVolume::getDicomImagePlaneAxi, &NDicomVolume::getAxiSliceNum, 1, RenderMax},
        {"coronal.png", "Coronal", &NDicomVolume::getDicomImagePlaneCor, &NDicomVolume::getCorSliceNum, 1, RenderMax},
        {"sagittal.png", "Sagittal", &NDicomVolume::getDicomImagePlaneSag, &NDicomVolume::getSagSliceNum, 1, RenderMax},
        {"axial-mip.png", "Axial MIP, 20 slices", &NDicomVolume::getDicomImagePlaneAxi, &NDicomVolume::getAxiSliceNum,
         20, RenderMax},
    };
    QList<Panel> panels;
    for (const Cut& cut : cuts) {
        NDicomImage image;
        const int middle = (volume.*cut.planes)() / 2;
        if (!(volume.*cut.cut)(image, middle, cut.thickness, cut.render))
            return app::fail("demo", QString("cannot cut the %1 plane").arg(cut.label));
        const QImage picture = hostkit::physicalImage(image, head.WindowWidth, head.WindowCenter);
        const QString file = outDir + "/" + cut.file;
        if (!picture.save(file, "PNG"))
            return app::fail("demo", "cannot write " + file);
        panels << Panel{QString("%1 (%2)").arg(cut.label).arg(middle), picture};
        out << "  " << file << '\n';
    }
    const QString overviewFile = outDir + "/overview.png";
    if (!overview(panels, study.axialFiles.value(study.axialFiles.size() / 2)).save(overviewFile, "PNG"))
        return app::fail("demo", "cannot write " + overviewFile);
    out << "  " << overviewFile << " (the four pictures side by side with the MR overlay)\n";

    out << "== Done in " << QString::number(timer.elapsed() / 1000.0, 'f', 1) << " s\n"
        << "  phantom files: " << outDir + "/phantom\n"
        << "  pictures:      " << outDir << '\n'
        << "  catalogue:     " << QDir::cleanPath(QSqlDatabase::database().databaseName()) << '\n'
        << "  volume cache:  " << volume.getCurVolumeDataPath() << '\n';
    return 0;
}

} // namespace

KESTREL_COMMAND("demo", "the main job: phantom study, import, tree, volume, PNG planes and MIP", runDemo);
