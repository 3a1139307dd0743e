// kestrel check [--repair]: checks the catalogue against the disk and, when asked, mends it.
#include "catalog.h"
#include "command.h"

#include "kestrelpaths.h"
#include "veldatabaseconnection.h"

#include <QCommandLineParser>
#include <QTextStream>

namespace {

void print(const QStringList& lines)
{
    QTextStream out(stdout);
    for (const QString& line : lines)
        out << line << '\n';
}

int runCheck(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Checks the catalogue against the disk: image files that are gone or hold another image, rows that "
        "share a file or an image, images without all their rows, rows without their series, study or "
        "patient, receive queue rows without their file, volume cache registrations without a usable cache "
        "file. Prints one line per problem (kind, table, key, path, what is wrong) and a summary. Exits 0 "
        "only when the catalogue is clean.");
    parser.addHelpOption();
    parser.addOption({"repair", "Mend what was found (rows removed, files catalogued again, broken cache files "
                                "dropped; a user's file is never deleted), then check again."});
    if (const auto status = app::parseArguments(parser, "check", args))
        return *status;
    if (!parser.positionalArguments().isEmpty())
        return app::fail("check", "takes no arguments", 2);
    if (!app::openCatalog())
        return app::fail("check", app::catalogOpenError());

    QStringList report;
    const int found = checkCatalog(parser.isSet("repair"), &report);
    if (found < 0)
        return app::fail("check", report.value(0));
    print(report);
    if (found == 0 || !parser.isSet("repair"))
        return found == 0 ? 0 : 1;

    QStringList after;
    const int left = checkCatalog(false, &after);
    if (left < 0)
        return app::fail("check", after.value(0));
    for (QString& line : after)
        line.prepend("after repair: ");
    print(after);
    return left == 0 ? 0 : 1;
}

} // namespace

KESTREL_COMMAND("check", "check the catalogue against the disk; --repair mends what it finds", runCheck);
