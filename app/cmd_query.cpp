// kestrel query NAME: runs a stored advanced search and prints its result tree.
#include "catalog.h"
#include "command.h"

#include "kestrelpaths.h"
#include "qinstance.h"
#include "qpatient.h"
#include "qpatients.h"
#include "qseries.h"
#include "qstudy.h"
#include "veldatabaseconnection.h"

#include <QCommandLineParser>
#include <QTextStream>
#include <QVariant>

namespace {


QString columns(const QObject* object, const QStringList& titles)
{
    QStringList parts;
    for (const QString& title : titles) {
        const QString value = object->property(title.toUtf8().constData()).toString();
        if (!value.isEmpty()) // most catalogue columns are empty; show the filled ones
            parts << title + "=" + value;
    }
    return parts.join("  ");
}

int runQuery(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription("Runs the stored advanced search NAME (table andvancequiry) with the column "
                                     "choices of the query*user tables and prints the result tree.");
    parser.addHelpOption();
    parser.addOption({"sql", "Also print the SELECT statement, its values written in quotes (they run bound)."});
    parser.addPositionalArgument("NAME", "The stored search (InquiryName).");
    if (const auto status = app::parseArguments(parser, "query", args))
        return *status;
    if (parser.positionalArguments().size() != 1)
        return app::fail("query", "needs exactly one stored search NAME");
    const QString name = parser.positionalArguments().first();
    if (!app::openCatalog())
        return app::fail("query", app::catalogOpenError());
    const int stored = getStoredSearchCount(name);
    if (stored < 0)
        return app::fail("query", "the catalogue has no stored searches");
    if (stored == 0)
        return app::fail("query", "no stored search named " + name);

    QPatients result;
    result.advanceQueryByName(name);
    QTextStream out(stdout);
    if (parser.isSet("sql") && !result.getQueryString().isEmpty())
        out << result.getQueryString() << '\n';
    out.flush();
    if (!result.lastError().isEmpty())
        return app::fail("query", result.lastError().simplified());
    if (result.getAllPatient().isEmpty()) {
        out << "(no matches)\n";
        return 0;
    }
    for (QPatient* patient : result.getAllPatient()) {
        out << "patient  " << columns(patient, result.getPatientTitleList()) << '\n';
        for (QStudy* study : patient->getStudys()) {
            out << "  study  " << columns(study, result.getStudyTitleList()) << '\n';
            for (QSeries* series : study->getSeries()) {
                out << "    series  " << columns(series, result.getSeriesTitleList()) << '\n';
                for (QInstance* instance : series->getInstances())
                    out << "      image  " << columns(instance, result.getImageTitleList()) << '\n';
            }
        }
    }
    out << result.getAllPatient().size() << " patients, " << result.getAllStudy().size() << " studies, "
        << result.getAllSeries().size() << " series, " << result.getAllInstance().size() << " images\n";
    return 0;
}

} // namespace

KESTREL_COMMAND("query", "run a stored advanced search NAME and print its result tree", runQuery);
