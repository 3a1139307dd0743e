#include "qpatient.h"

#include "hierarchy/hierarchy_p.h"
#include "kestrelpaths.h"
#include "qseries.h"
#include "qstudy.h"

#include <QHash>
#include <QSettings>
#include <QSqlDatabase>
#include <QSqlQuery>
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
    return cachedColumnNames(QStringLiteral("patient"), getDatabBaseName(),
                             QStringLiteral("select column_name from Information_schema.columns where table_Name = "
                                            "'patient' and table_schema = '%1'"),
                             {QStringLiteral("PRAGMA table_info([patient])")});
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
    QSqlQuery query(QSqlDatabase::database());
    query.setForwardOnly(true);
    if (!query.exec(QStringLiteral("SELECT pk,PatientName,PatientID FROM patient WHERE pk= %1").arg(m_patientPK)))
        return;
    while (query.next()) {
        m_patientName = query.value(1).toString();
        // The ID is kept as a number: a non-numeric PatientID reads as 0, which the application's
        // patient views expect.
        m_patientID = query.value(2).toInt();
    }
}

void QPatient::searchPatientAllInfo()
{
    const QStringList names = getColumnName();
    QSqlQuery query(QSqlDatabase::database());
    query.setForwardOnly(true);
    if (!query.exec(QStringLiteral("SELECT * FROM patient WHERE pk= %1").arg(m_patientPK)))
        return;
    while (query.next())
        for (int i = 0; i < names.size(); ++i)
            m_allInfo.insert(names[i], query.value(i).toString());
}

void QPatient::searchAllInfo()
{
    searchPatientAllInfo();
    for (QStudy* study : qAsConst(m_studys))
        study->searchAllInfo();
}

void QPatient::searchStudys()
{
    QSqlQuery query(QSqlDatabase::database());
    query.setForwardOnly(true);
    if (query.exec(QStringLiteral("SELECT pk,StudyID,StudyInstanceUID,StudyDescription FROM generalstudy WHERE "
                                  "patient_fk= %1 ")
                       .arg(m_patientPK))) {
        while (query.next()) {
            auto* study = new QStudy(query.value(0).toLongLong(), this);
            study->setPatientFK(m_patientPK);
            study->setStudyID(query.value(1).toInt());
            study->setStudyUID(query.value(2).toString());
            study->setStudyDescription(query.value(3).toString());
            m_studys.append(study);
        }
    }
    for (QStudy* study : qAsConst(m_studys))
        study->searchSeries();
}
