#include "qstudy.h"

#include "hierarchy/hierarchy_p.h"
#include "qinstance.h"
#include "qpatient.h"
#include "qseries.h"

#include <QSqlDatabase>
#include <QSqlQuery>
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
    return cachedColumnNames(QStringLiteral("generalstudy"), QPatient::getDatabBaseName(),
                             QStringLiteral("select column_name from Information_schema.columns where table_Name = "
                                            "'generalstudy'and table_schema = '%1'"),
                             {QStringLiteral("PRAGMA table_info([generalstudy])")});
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
    QSqlQuery query(QSqlDatabase::database());
    query.setForwardOnly(true);
    if (!query.exec(QStringLiteral("SELECT patient_fk,StudyID,StudyInstanceUID,StudyDescription FROM generalstudy WHERE pk=%1")
                        .arg(m_studyPK)))
        return;
    while (query.next()) {
        m_patientFK = query.value(0).toLongLong();
        m_studyID = query.value(1).toInt();
        m_studyUID = query.value(2).toString();
        m_studyDescription = query.value(3).toString();
    }
}

void QStudy::searchStudyAllInfo()
{
    const QStringList names = getColumnName();
    QSqlQuery query(QSqlDatabase::database());
    query.setForwardOnly(true);
    if (!query.exec(QStringLiteral("SELECT * FROM generalstudy WHERE pk= %1").arg(m_studyPK)))
        return;
    while (query.next())
        for (int i = 0; i < names.size(); ++i)
            m_allInfo.insert(names[i], query.value(i).toString());
}

void QStudy::searchAllInfo()
{
    searchStudyAllInfo();
    for (QSeries* series : qAsConst(m_series))
        series->searchSeriesAllInfo();
}

void QStudy::searchSeries()
{
    QSqlQuery query(QSqlDatabase::database());
    query.setForwardOnly(true);
    if (query.exec(QStringLiteral("SELECT pk,SeriesInstanceUID,SeriesDescription,SeriesNumber FROM generalseries WHERE "
                                  "study_fk= %1 ")
                       .arg(m_studyPK))) {
        while (query.next()) {
            auto* series = new QSeries(query.value(0).toLongLong(), this);
            series->setStudyFK(m_studyPK);
            series->setSeriesUID(query.value(1).toString());
            series->setSeriesDescription(query.value(2).toString());
            series->setSeriesNumber(query.value(3).toInt());
            m_series.append(series);
        }
    }
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
