#include "qstudy.h"

#include "hierarchy/hierarchy_p.h"
#include "qinstance.h"
#include "qpatient.h"
#include "qseries.h"

#include <QSqlDatabase>
#include <QVariant>

#include <algorithm>

using namespace kestrel::internal;

QStudy::QStudy(QObject* parent)
    : QObject(parent)
{
}

QStudy::QStudy(qint64 pk, QObject* parent)
    : QObject(parent)
    , m_studyPK(pk)
{
}

QStudy::~QStudy() = default;

QStringList QStudy::getColumnName()
{
    return cachedColumnNames(QStringLiteral("generalstudy"), QPatient::getDatabBaseName(), {QStringLiteral("generalstudy")});
}

QPatient* QStudy::getPatient() const
{
    return qobject_cast<QPatient*>(parent());
}

QString QStudy::getValue(QString key) const
{
    return m_allInfo.value(key);
}

void QStudy::setSereis(QList<QSeries*> series)
{
    m_series = series;
    if (!m_series.isEmpty())
        m_studyPK = m_series.first()->getStudyPK();
    for (QSeries* item : qAsConst(m_series))
        item->setParent(this);
}

void QStudy::addSeries(QSeries* series)
{
    m_series.append(series);
}

void QStudy::searchStudyInfo()
{
    forEachRow(QStringLiteral("SELECT patient_fk,StudyID,StudyInstanceUID,StudyDescription FROM generalstudy WHERE pk=?"),
               {m_studyPK}, [this](const Statement& row) {
                   m_patientFK = row.value(0).toLongLong();
                   m_studyID = row.value(1).toInt();
                   m_studyUID = row.value(2).toString();
                   m_studyDescription = row.value(3).toString();
               });
}

void QStudy::searchStudyAllInfo()
{
    const QStringList names = getColumnName();
    forEachRow(QStringLiteral("SELECT * FROM generalstudy WHERE pk= ?"), {m_studyPK}, [&](const Statement& row) {
        for (int i = 0; i < names.size(); ++i)
            m_allInfo.insert(names[i], row.value(i).toString());
    });
}

void QStudy::searchAllInfo()
{
    searchStudyAllInfo();
    for (QSeries* series : qAsConst(m_series))
        series->searchSeriesAllInfo();
}

void QStudy::searchSeries()
{
    forEachRow(QStringLiteral("SELECT pk,SeriesInstanceUID,SeriesDescription,SeriesNumber FROM generalseries WHERE study_fk= ? "),
               {m_studyPK}, [this](const Statement& row) {
                   auto* series = new QSeries(row.value(0).toLongLong(), this);
                   series->setStudyFK(m_studyPK);
                   series->setSeriesUID(row.value(1).toString());
                   series->setSeriesDescription(row.value(2).toString());
                   series->setSeriesNumber(row.value(3).toInt());
                   m_series.append(series);
               });
    for (QSeries* series : qAsConst(m_series))
        series->searchInstance();
}

QList<QSeries*> QStudy::get4DSeries(QSeries* reference)
{
    QList<QSeries*> result;
    if (!reference)
        return result;
    result.append(reference);
    if (reference->getInstances().isEmpty())
        return result;
    QInstance* first = reference->getInstances().first();
    first->searchInstanceInfo();
    const int count = reference->getInstances().size();
    const double spacing[2] = {first->getPixelSpacing()[0], first->getPixelSpacing()[1]};
    const int size[2] = {first->getImageSize()[0], first->getImageSize()[1]};

    for (QSeries* series : qAsConst(m_series)) {
        if (series == reference || series->getInstances().isEmpty())
            continue;
        QInstance* other = series->getInstances().first();
        other->searchInstanceInfo();
        // Time points of one acquisition share the exact geometry: no tolerance on the spacing.
        if (series->getInstances().size() == count && other->getPixelSpacing()[0] == spacing[0]
            && other->getPixelSpacing()[1] == spacing[1] && other->getImageSize()[0] == size[0]
            && other->getImageSize()[1] == size[1])
            result.append(series);
    }
    // Acquisition times compare as text, as they are stored.
    std::stable_sort(result.begin(), result.end(), [](QSeries* a, QSeries* b) {
        return a->getInstances().first()->getAcquisitionTime() < b->getInstances().first()->getAcquisitionTime();
    });
    return result;
}
