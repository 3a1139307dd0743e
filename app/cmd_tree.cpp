// kestrel tree [--all]: the catalogue as the viewer browses it, patient > study > series (> image).
#include "catalog.h"
#include "command.h"

#include "kestrelpaths.h"

#include <QCommandLineParser>
#include <QTextStream>


namespace {

int runTree(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription("Prints the catalogue of config/database.ini as an indented tree of patients, "
                                     "studies and series with their keys (pk).");
    parser.addHelpOption();
    parser.addOption({"all", "Also list every image with its instance number, position and file."});
    if (const auto status = app::parseArguments(parser, "tree", args))
        return *status;
    if (!parser.positionalArguments().isEmpty())
        return app::fail("tree", "unexpected argument " + parser.positionalArguments().first());
    if (!app::openCatalog())
        return app::fail("tree", app::catalogOpenError());

    QTextStream out(stdout);
    app::printCatalogTree(out, parser.isSet("all"));
    return 0;
}

} // namespace

KESTREL_COMMAND("tree", "print the catalogue as a tree of patients, studies, series (--all: images)", runTree);
