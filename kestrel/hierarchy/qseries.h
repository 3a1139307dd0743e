#pragma once

#include "kestrel_global.h"

#include <QList>
#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>

class QInstance;
class QStudy;

// One series of the catalogue (table `generalseries`): its images as QInstance children, their
// order in space, the split into geometrically uniform sub-series and the volume series.
class KESTREL_EXPORT QSeries : public QObject
{
    Q_OBJECT
public:
    explicit QSeries(QObject* parent = nullptr);
    QSeries(qint64 pk, QObject* parent = nullptr);
    ~QSeries() override;

    // Column names of `generalseries` in `SELECT *` order.
    static QStringList getColumnName();

    QStudy* getStudy() const;
    qint64 getStudyPK() const { return m_studyFK; }
    qint64 getSeriesPK() const { return m_seriesPK; }
    int getSeriesNumber() const { return m_seriesNumber; }
    QString getSeriesModality() const { return m_modality; }
    QString getSeriesUID() const { return m_seriesUID; }
    QString getSeriesBase() const { return m_seriesBase; }
    QString getSeriesDescription() const { return m_seriesDescription; }
    bool isInstanceInfoLoaded() const { return m_instanceInfoLoaded; }
    QList<QInstance*>& getInstances() { return m_instances; }
    QString getValue(QString key) const;

public slots:
    void setStudyFK(qint64 studyFK) { m_studyFK = studyFK; }
    void setSeriesUID(QString seriesUID) { m_seriesUID = seriesUID; }
    void setSeriesBase(QString seriesBase) { m_seriesBase = seriesBase; }
    void setSeriesDescription(QString seriesDescription) { m_seriesDescription = seriesDescription; }
    void setSeriesNumber(int seriesNumbe) { m_seriesNumber = seriesNumbe; }
    void setSeriesPK(qint64 pk) { m_seriesPK = pk; }
    void setSeriesModality(QString modality) { m_modality = modality; }
    void setInstanse(QList<QInstance*> instance);
    void addInstance(QInstance* instance);
    void searchSeriesInfo();
    void searchSeriesAllInfo();
    void searchAllInfo();
    void searchInstance();
    void searchInstanceInfos();
    void sortByPosition();
    QList<QSeries*> subSeries();
    QSeries* getVolumeSE();
    int getIsOrder() const { return m_isOrder; }

private:
    bool m_instanceInfoLoaded = false;
    qint64 m_studyFK = 0;
    qint64 m_seriesPK = 0;
    int m_seriesNumber = 0;
    QString m_modality;
    int m_isOrder = -1;
    QString m_seriesUID;
    QString m_seriesBase;
    QString m_seriesDescription;
    QList<QInstance*> m_instances;
    QMap<QString, QString> m_allInfo;
};
