#include "catalog.h"

#include "ndicomimage.h"
#include "qinstance.h"
#include "qpatient.h"
#include "qseries.h"
#include "qstudy.h"
#include "veldatabaseconnection.h"

#include <QImage>
#include <QTextStream>
#include <QVariant>

#include <cstring>
#include <memory>
#include <vector>

namespace app {

namespace {

QString triple(const double* v)
{
    return QString("(%1, %2, %3)").arg(v[0], 0, 'g', 6).arg(v[1], 0, 'g', 6).arg(v[2], 0, 'g', 6);
}

void printSeries(QTextStream& out, QSeries* series, bool all)
{
    series->searchSeriesInfo();
    out << "    series " << series->getSeriesPK() << "  #" << series->getSeriesNumber() << "  "
        << series->getSeriesDescription() << "  " << series->getSeriesModality() << "  "
        << series->getInstances().size() << " images\n";
    if (!all)
        return;
    for (QInstance* instance : series->getInstances()) {
        instance->searchInstanceInfo();
        out << "      image " << instance->getInstancePK() << "  #" << instance->getInstanceNumber();
        if (instance->isGeometryValid())
            out << "  at " << triple(instance->getPosition()) << "  normal " << triple(instance->getOrientation(2));
        out << "  " << instance->getFilePath() << '\n';
    }
}

} // namespace

int printCatalogTree(QTextStream& out, bool all)
{
    const QList<qint64> keys = getPatientKeys();
    if (keys.isEmpty())
        out << "(empty catalogue)\n";
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
            for (QSeries* series : study->getSeries())
                printSeries(out, series, all);
        }
        out.flush();
    }
    return keys.size();
}

} // namespace app
