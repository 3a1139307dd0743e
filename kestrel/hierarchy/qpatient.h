#pragma once

#include "kestrel_global.h"

#include <QList>
#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>

class QSeries;
class QStudy;

// One patient of the catalogue (table `patient`), the root of the browsing tree: its studies,
// their series and images are created on demand as Qt children.
class KESTREL_EXPORT QPatient : public QObject
{
    Q_OBJECT
public:
    explicit QPatient(QObject* parent = nullptr);
    QPatient(qint64 pk, QObject* parent = nullptr);
    ~QPatient() override;

    // The catalogue's schema name: "databaseName" of database.ini's current profile.
    static QString getDatabBaseName();
    // Column names of `patient` in `SELECT *` order.
    static QStringList getColumnName();

    qint64 getPatientPK() const { return m_patientPK; }
    int getPatientID() const { return m_patientID; }
    QString patientName() const { return m_patientName; }
    QList<QStudy*> getStudys() const { return m_studys; }
    // The series of every study, in study order.
    QList<QSeries*> getSeries() const;
    QString getValue(QString key) const;
    // Forgets key, ID, name and studies (the studies are not deleted).
    void clear();

public slots:
    void setPatientPK(qint64 pk) { m_patientPK = pk; }
    void setPatientName(QString patientName) { m_patientName = patientName; }
    void setStudys(QList<QStudy*> studys);
    void addStudy(QStudy* study);
    void searchPatientInfo();
    void searchPatientAllInfo();
    void searchAllInfo();
    void searchStudys();

private:
    qint64 m_patientPK = 0;
    int m_patientID = 0;
    QString m_patientName;
    QList<QStudy*> m_studys;
    QMap<QString, QString> m_allInfo;
};
