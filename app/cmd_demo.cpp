// kestrel demo: the main job on the embedded catalogue. Writes a phantom study, catalogues it,
// and shows what the library makes of it.
#include "command.h"
#include "phantom.h"

#include "kestrelpaths.h"
#include "veldatabaseconnection.h"

#include <QCommandLineParser>
#include <QDir>
#include <QElapsedTimer>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTextStream>
#include <QVariant>

namespace {

int runDemo(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription("Writes a phantom MR study, imports it into the catalogue of "
                                     "config/database.ini, builds a volume and writes PNG planes.");
    parser.addHelpOption();
    parser.addOption({"out", "Folder for the phantom files and the pictures.", "DIR", "kestrel-demo"});
    if (!parser.parse(QStringList{"kestrel demo"} + args))
        return app::fail("demo", parser.errorText());
    if (parser.isSet("help")) {
        QTextStream(stdout) << parser.helpText();
        return 0;
    }

    QTextStream out(stdout);
    QElapsedTimer timer;
    timer.start();
    const QString outDir = QDir(parser.value("out")).absolutePath();
    QDir().mkpath(outDir);

    out << "== Phantom study\n";
    const app::PhantomStudy study = app::writePhantomStudy(outDir + "/phantom");
    out << "  " << study.axialFiles.size() << " axial and " << study.sagittalFiles.size()
        << " sagittal images in " << outDir + "/phantom" << '\n';

    out << "== Catalogue\n";
    if (!createConnection() || !QSqlDatabase::database().isOpen())
        return app::fail("demo", "cannot open the catalogue of " + Kestrel::configFilePath("database.ini"));
    out << "  " << QSqlDatabase::database().driverName() << ' ' << QSqlDatabase::database().databaseName() << '\n';

    out << "== Done in " << timer.elapsed() << " ms; files under " << outDir << '\n';
    return 0;
}

} // namespace

KESTREL_COMMAND("demo", "the main job: phantom study, import, tree, volume, PNG planes and MIP", runDemo);
