#pragma once

#include "kestrel_global.h"

#include <QList>
#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>

class QPatient;
class QSeries;

// One study of the catalogue (table `generalstudy`) with its series as QSeries children.
class KESTREL_EXPORT QStudy : public QObject
{
    Q_OBJECT
public:
    explicit QStudy(QObject* parent = nullptr);
    QStudy(qint64 pk, QObject* parent = nullptr);
    ~QStudy() override;

    // Column names of `generalstudy` in `SELECT *` order.
    static QStringList getColumnName();

    QPatient* getPatient() const;
    qint64 getStudyPK() const { return m_studyPK; }
    qint64 getPatientFK() const { return m_patientFK; }
    int getStudyID() const { return m_studyID; }
    QString getStudyDescription() const { return m_studyDescription; }
    QString getStudyUID() const { return m_studyUID; }
    QList<QSeries*> getSeries() const { return m_series; }
    QString getValue(QString key) const;

    // REFERENCE and the series of this study that are further time points of it (same image
    // count, pixel spacing and size), ordered by the acquisition time of their first image.
    QList<QSeries*> get4DSeries(QSeries* reference);

public slots:
    void setPatientFK(qint64 patientFK) { m_patientFK = patientFK; }
    void setStudyPK(qint64 studyPK) { m_studyPK = studyPK; }
    void setStudyID(int studyID) { m_studyID = studyID; }
    void setStudyUID(QString studyUID) { m_studyUID = studyUID; }
    void setStudyDescription(QString studyDescription) { m_studyDescription = studyDescription; }
    void setSereis(QList<QSeries*> series);
    void addSeries(QSeries* series);
    void searchStudyInfo();
    void searchStudyAllInfo();
    void searchAllInfo();
    void searchSeries();

private:
    qint64 m_studyPK = 0;
    qint64 m_patientFK = 0;
    int m_studyID = 0;
    QString m_studyDescription;
    QString m_studyUID;
    QList<QSeries*> m_series;
    QMap<QString, QString> m_allInfo;
};
