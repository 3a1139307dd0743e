// kestrel-viewer: the catalogue, its series in three linked planes, measurements, import and
// receive, on the library's public interface.
#include "mainwindow.h"
#include "opencatalog.h"
#include "receiver.h"

#include <kestrelpaths.h>

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QTextStream>
#include <QTimer>

namespace {

bool verbose = false;

// The library reports through Qt's logger; warnings and debug lines only with --verbose.
void filterDiagnostics(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    if (!verbose && (type == QtDebugMsg || type == QtInfoMsg || type == QtWarningMsg))
        return;
    QTextStream(stderr) << message << '\n';
}

} // namespace

int main(int argc, char* argv[])
{
    if (qEnvironmentVariableIsEmpty("XDG_RUNTIME_DIR"))
        qputenv("XDG_RUNTIME_DIR", QByteArray("/tmp/runtime-") + qgetenv("USER"));
    qInstallMessageHandler(filterDiagnostics);
    QApplication application(argc, argv);
    QCoreApplication::setApplicationName("kestrel-viewer");

    QCommandLineParser parser;
    parser.setApplicationDescription("Views the series of the Kestrel catalogue.");
    parser.addHelpOption();
    parser.addOption({"config", "Read the configuration files from DIR.", "DIR"});
    parser.addOption({"verbose", "Show the library's diagnostics on stderr."});
    parser.addOption({"port", "Port of the Receive toggle.", "P", "11112"});
    parser.addOption({"aet", "Own AE title when receiving.", "AET", "KESTREL"});
    parser.addOption({"receive-dir", "Folder for received objects.", "DIR",
                      QDir::home().filePath("kestrel-received")});
    parser.addOption({"series", "Open the catalogued series with this key at start.", "PK"});
    parser.addOption({"screenshot", "Write the window to FILE once shown and quit.", "FILE"});
    parser.process(application);
    verbose = parser.isSet("verbose");
    if (parser.isSet("config"))
        Kestrel::setConfigDirectory(parser.value("config"));

    const bool catalogue = hostkit::openCatalog();
    MainWindow window;
    window.receiver()->setPort(parser.value("port").toInt());
    window.receiver()->setAETitle(parser.value("aet"));
    window.receiver()->setFolder(parser.value("receive-dir"));
    if (!catalogue)
        window.showStatus(hostkit::catalogOpenError());
    else if (parser.isSet("series"))
        window.openSeries(parser.value("series").toLongLong());
    window.resize(1400, 860);
    window.show();
    if (parser.isSet("screenshot")) {
        const QString file = parser.value("screenshot");
        QTimer::singleShot(500, &window, [&window, file] {
            const bool ok = window.grab().save(file, "PNG");
            QCoreApplication::exit(ok ? 0 : 1);
        });
    }
    return application.exec();
}
