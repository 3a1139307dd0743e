#include "qpatient.h"

#include "hierarchy/hierarchy_p.h"
#include "kestrelpaths.h"
#include "qseries.h"
#include "qstudy.h"

#include <QHash>
#include <QSettings>
#include <QSqlDatabase>
#include <QVariant>
#include <QtDebug>

using namespace kestrel::internal;

QPatient::QPatient(QObject* parent)
    : QObject(parent)
{
}

QPatient::QPatient(qint64 pk, QObject* parent)
    : QObject(parent)
    , m_patientPK(pk)
{
}

QPatient::~QPatient()
{
    qWarning() << "delete patient:" << m_patientPK;
}

QString QPatient::getDatabBaseName()
{
    // Cached per configuration file: one per process in the application, while tests and the
    // host's --config may point the library at another catalogue. An absent key is looked up
    // again on the next call.
    static QHash<QString, QString> names;
    const QString file = Kestrel::configFilePath(QStringLiteral("database.ini"));
    QString& name = names[file];
    if (name.isEmpty())
        name = QSettings(file, QSettings::IniFormat).value(QStringLiteral("orvena/databaseName")).toString();
    return name;
}

QStringList QPatient::getColumnName()
{
    return cachedColumnNames(QStringLiteral("patient"), getDatabBaseName(), {QStringLiteral("patient")});
}

QList<QSeries*> QPatient::getSeries() const
{
    QList<QSeries*> all;
    for (QStudy* study : m_studys)
        all += study->getSeries();
    return all;
}

QString QPatient::getValue(QString key) const
{
    return m_allInfo.value(key);
}

void QPatient::clear()
{
    m_patientPK = 0;
    m_patientID = 0;
    m_patientName.clear();
    m_studys.clear();
}

void QPatient::setStudys(QList<QStudy*> studys)
{
    m_studys = studys;
    if (!m_studys.isEmpty())
        m_patientPK = m_studys.first()->getPatientFK();
    for (QStudy* study : qAsConst(m_studys))
        study->setParent(this);
}

void QPatient::addStudy(QStudy* study)
{
    m_studys.append(study);
}

void QPatient::searchPatientInfo()
{
    forEachRow(QStringLiteral("SELECT pk,PatientName,PatientID FROM patient WHERE pk= ?"), {m_patientPK},
               [this](const Statement& row) {
                   m_patientName = row.value(1).toString();
                   // The ID is kept as a number: a non-numeric PatientID reads as 0, which the
                   // application's patient views expect.
                   m_patientID = row.value(2).toInt();
               });
}

void QPatient::searchPatientAllInfo()
{
    const QStringList names = getColumnName();
    forEachRow(QStringLiteral("SELECT * FROM patient WHERE pk= ?"), {m_patientPK}, [&](const Statement& row) {
        for (int i = 0; i < names.size(); ++i)
            m_allInfo.insert(names[i], row.value(i).toString());
    });
}

void QPatient::searchAllInfo()
{
    searchPatientAllInfo();
    for (QStudy* study : qAsConst(m_studys))
        study->searchAllInfo();
}

void QPatient::searchStudys()
{
    forEachRow(QStringLiteral("SELECT pk,StudyID,StudyInstanceUID,StudyDescription FROM generalstudy WHERE patient_fk= ? "),
               {m_patientPK}, [this](const Statement& row) {
                   auto* study = new QStudy(row.value(0).toLongLong(), this);
                   study->setPatientFK(m_patientPK);
                   study->setStudyID(row.value(1).toInt());
                   study->setStudyUID(row.value(2).toString());
                   study->setStudyDescription(row.value(3).toString());
                   m_studys.append(study);
               });
    for (QStudy* study : qAsConst(m_studys))
        study->searchSeries();
}
