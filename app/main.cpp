#include "command.h"

#include "kestrelpaths.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QGuiApplication>
#include <QTextStream>

#include <cstdio>

namespace app {

std::map<QString, Command>& commands()
{
    static std::map<QString, Command> table;
    return table;
}

CommandRegistration::CommandRegistration(const char* name, const char* summary, CommandFunction run)
{
    commands()[QString::fromLatin1(name)] = Command{QString::fromUtf8(summary), std::move(run)};
}

int fail(const QString& command, const QString& reason, int status)
{
    QTextStream err(stderr);
    err << "kestrel " << command << ": " << reason << '\n';
    return status;
}

} // namespace app

namespace {

bool verboseDiagnostics = false;

} // namespace

namespace app {

std::optional<int> parseArguments(QCommandLineParser& parser, const QString& name, const QStringList& args)
{
    if (!parser.parse(QStringList{"kestrel " + name} + args))
        return fail(name, parser.errorText(), 2);
    if (parser.isSet("help")) {
        // Qt names the program by its path; the usage line reads as the user types it.
        QString help = parser.helpText();
        const int end = help.indexOf(" [options]");
        if (help.startsWith("Usage: ") && end > 0)
            help.replace(7, end - 7, "kestrel " + name);
        QTextStream(stdout) << help;
        return 0;
    }
    return std::nullopt;
}

void setVerbose(bool on)
{
    verboseDiagnostics = on;
}

} // namespace app

namespace {

// The library reports through Qt's logger; the host shows its warnings and debug lines only with
// --verbose, and critical messages always.
void filterDiagnostics(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    if (!verboseDiagnostics && (type == QtDebugMsg || type == QtInfoMsg || type == QtWarningMsg))
        return;
    QTextStream(stderr) << message << '\n';
}

void printUsage(QTextStream& out)
{
    out << "Usage: kestrel [--config DIR] COMMAND [options] [arguments]\n\n"
        << "The imaging base of the MR viewer: catalogue, volumes, images and DICOM services.\n\n"
        << "Commands:\n";
    for (const auto& [name, command] : app::commands())
        out << "  " << name.leftJustified(13) << command.summary << '\n';
    out << "\nGlobal options:\n"
        << "  --config DIR  read the configuration files from DIR instead of the folders beside the program\n"
        << "  --verbose     show the library's diagnostics (warnings and debug lines) on stderr\n"
        << "  -h, --help    show this help; 'kestrel COMMAND --help' for a command's options\n";
}

} // namespace

int main(int argc, char* argv[])
{
    // Qt's GUI module is needed for images (PNG writing, text on images); run without a display.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    if (qEnvironmentVariableIsEmpty("XDG_RUNTIME_DIR"))
        qputenv("XDG_RUNTIME_DIR", QByteArray("/tmp/runtime-") + qgetenv("USER"));
    qInstallMessageHandler(filterDiagnostics);
    QGuiApplication application(argc, argv);
    QCoreApplication::setApplicationName("kestrel");

    QStringList args = QCoreApplication::arguments().mid(1);
    while (!args.isEmpty() && (args.first().startsWith("--config") || args.first() == "--verbose")) {
        if (args.first() == "--verbose") {
            verboseDiagnostics = true;
            args.takeFirst();
            continue;
        }
        QString dir;
        if (args.first().startsWith("--config=")) {
            dir = args.takeFirst().mid(9);
        } else {
            args.takeFirst();
            if (args.isEmpty())
                return app::fail("", "--config needs a directory");
            dir = args.takeFirst();
        }
        Kestrel::setConfigDirectory(dir);
    }

    QTextStream out(stdout);
    if (args.isEmpty() || args.first() == "--help" || args.first() == "-h" || args.first() == "help") {
        printUsage(out);
        return args.isEmpty() ? 2 : 0;
    }
    const QString name = args.takeFirst();
    const auto it = app::commands().find(name);
    if (it == app::commands().end())
        return app::fail(name, "unknown command (see 'kestrel --help')", 2);
    return it->second.run(args);
}
