// kestrel tree [--all]: the catalogue as the viewer browses it, patient > study > series (> image).
#include "command.h"

#include "kestrelpaths.h"
#include "qinstance.h"
#include "qpatient.h"
#include "qseries.h"
#include "qstudy.h"
#include "veldatabaseconnection.h"

#include <QCommandLineParser>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTextStream>
#include <QVariant>

#include <memory>

namespace {

bool openCatalog()
{
    // A MySQL schema made on the first call is connected to by the second.
    if (!createConnection())
        return false;
    return QSqlDatabase::database().isOpen() || (createConnection() && QSqlDatabase::database().isOpen());
}

QString triple(const double* v)
{
    return QString("(%1, %2, %3)").arg(v[0], 0, 'g', 6).arg(v[1], 0, 'g', 6).arg(v[2], 0, 'g', 6);
}

int runTree(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription("Prints the catalogue of config/database.ini as an indented tree of patients, "
                                     "studies and series with their keys (pk).");
    parser.addHelpOption();
    parser.addOption({"all", "Also list every image with its instance number, position and file."});
    if (!parser.parse(QStringList{"kestrel tree"} + args))
        return app::fail("tree", parser.errorText());
    if (parser.isSet("help")) {
        QTextStream(stdout) << parser.helpText();
        return 0;
    }
    if (!parser.positionalArguments().isEmpty())
        return app::fail("tree", "unexpected argument " + parser.positionalArguments().first());
    if (!openCatalog())
        return app::fail("tree", "cannot open the catalogue of " + Kestrel::configFilePath("database.ini"));

    QList<qint64> keys;
    {
        QSqlQuery query(QSqlDatabase::database());
        if (!query.exec("SELECT pk FROM patient ORDER BY pk"))
            return app::fail("tree", "the catalogue has no patient table");
        while (query.next())
            keys << query.value(0).toLongLong();
    }
    QTextStream out(stdout);
    if (keys.isEmpty()) {
        out << "(empty catalogue)\n";
        return 0;
    }
    const bool all = parser.isSet("all");
    for (qint64 key : keys) {
        std::unique_ptr<QPatient> patient(new QPatient(key));
        patient->searchPatientInfo();
        patient->searchPatientAllInfo();
        patient->searchStudys();
        out << "patient " << key << "  " << patient->patientName() << "  ID " << patient->getValue("PatientID") << '\n';
        for (QStudy* study : patient->getStudys()) {
            study->searchStudyAllInfo();
            out << "  study " << study->getStudyPK() << "  " << study->getValue("StudyDate") << "  "
                << study->getStudyDescription() << '\n';
            for (QSeries* series : study->getSeries()) {
                series->searchSeriesInfo();
                out << "    series " << series->getSeriesPK() << "  #" << series->getSeriesNumber() << "  "
                    << series->getSeriesDescription() << "  " << series->getSeriesModality() << "  "
                    << series->getInstances().size() << " images\n";
                if (!all)
                    continue;
                for (QInstance* instance : series->getInstances()) {
                    instance->searchInstanceInfo();
                    out << "      image " << instance->getInstancePK() << "  #" << instance->getInstanceNumber();
                    if (instance->isGeometryValid())
                        out << "  at " << triple(instance->getPosition()) << "  normal "
                            << triple(instance->getOrientation(2));
                    out << "  " << instance->getFilePath() << '\n';
                }
            }
        }
        out.flush();
    }
    return 0;
}

} // namespace

KESTREL_COMMAND("tree", "print the catalogue as a tree of patients, studies, series (--all: images)", runTree);
