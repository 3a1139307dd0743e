#pragma once

#include "kestrel_global.h"

#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantList>

class QInstance;
class QPatient;
class QSeries;
class QStudy;

// Answers a stored advanced search over the whole catalogue: builds one joined SELECT from the
// conditions of `andvancequiry` (values bound, names checked against the catalogue's columns) and
// the display tables `query*user`, runs it and turns the result into a tree of
// QPatient/QStudy/QSeries/QInstance, one object per key, whose dynamic properties hold the
// selected columns.
class KESTREL_EXPORT QPatients : public QObject
{
    Q_OBJECT
public:
    explicit QPatients(QObject* parent = nullptr);
    ~QPatients() override;

    QList<QPatient*> getAllPatient() const { return m_patients; }
    QList<QStudy*> getAllStudy() const { return m_studies; }
    QList<QSeries*> getAllSeries() const { return m_series; }
    QList<QInstance*> getAllInstance() const { return m_instances; }
    QStringList getPatientTitleList() const { return m_patientTitles; }
    QStringList getStudyTitleList() const { return m_studyTitles; }
    QStringList getSeriesTitleList() const { return m_seriesTitles; }
    QStringList getImageTitleList() const { return m_imageTitles; }
    // Element at list position I (not a key); callers pass a valid position.
    QPatient* getPatient(long long i) const { return m_patients.at(int(i)); }
    QStudy* getStudy(long long i) const { return m_studies.at(int(i)); }
    QSeries* getSeries(long long i) const { return m_series.at(int(i)); }
    bool getPaPK() const { return m_patientKeyHidden; }
    bool getStPK() const { return m_studyKeyHidden; }
    bool getSePK() const { return m_seriesKeyHidden; }
    // The last statement as people read it: the one given to advanceQuery, or the one built by
    // advanceQueryByName with its values written in quotes (it runs with them bound); empty when
    // the stored search could not be built.
    QString getQueryString() const { return m_queryString; }
    // Why the last search failed (a stored condition that cannot be used, the driver's text of a
    // failed statement); empty when it ran.
    QString lastError() const { return m_lastError; }

public slots:
    void advanceQueryByName(QString queryname);
    void advanceQuery(QString querystring);

private:
    QString readColumnChoices(bool images);
    QString runSearch(const QString& sql, const QVariantList& values, bool direct);

    QList<QPatient*> m_patients;
    QList<QStudy*> m_studies;
    QList<QSeries*> m_series;
    QList<QInstance*> m_instances;
    QStringList m_patientTitles;
    QStringList m_studyTitles;
    QStringList m_seriesTitles;
    QStringList m_imageTitles;
    QString m_queryString;
    QString m_queryName;
    QString m_lastError;
    bool m_patientKeyHidden = false;
    bool m_studyKeyHidden = false;
    bool m_seriesKeyHidden = false;
};
