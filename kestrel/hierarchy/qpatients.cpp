#include "qpatients.h"

#include "qinstance.h"
#include "qpatient.h"
#include "qseries.h"
#include "qstudy.h"

#include "catalog/catalogschema_p.h"
#include "hierarchy/hierarchy_p.h"

#include <QSqlDatabase>
#include <QVariant>
#include <QSqlRecord>

QPatients::QPatients(QObject* parent)
    : QObject(parent)
{
}

// The tree dies with this object through the Qt parent links; the lists only point into it.
QPatients::~QPatients() = default;

void QPatients::advanceQueryByName(QString queryname)
{
    m_queryName = queryname;
    QSqlDatabase db = QSqlDatabase::database();
    QStringList tables, columns, operators, values, connectors, kinds;
    bool imageLevel = false;
    kestrel::internal::forEachRow(QStringLiteral("SELECT * FROM andvancequiry WHERE InquiryName = ? "), {queryname},
                                  [&](const kestrel::internal::Statement& query) {
        tables << query.value(3).toString();
        columns << query.value(4).toString();
        operators << query.value(5).toString();
        values << query.value(6).toString();
        // An empty value is followed by "NULL" in the value list, so the conditions after it take
        // their values one place further on; stored searches are written for this layout and
        // depend on it.
        if (query.value(6).toString().isEmpty())
            values << QStringLiteral("NULL");
        connectors << query.value(7).toString();
        kinds << query.value(8).toString();
        if (query.value(3).toString() == QLatin1String("imageformat"))
            imageLevel = true;
    });

    const QStringList& displayTables = kestrel::internal::schema::displayTables();
    QStringList* titles[4] = {&m_patientTitles, &m_studyTitles, &m_seriesTitles, &m_imageTitles};
    bool* keyHidden[3] = {&m_patientKeyHidden, &m_studyKeyHidden, &m_seriesKeyHidden};
    for (int level = 0; level < 4; ++level) {
        const QSqlRecord names = db.record(displayTables[level]);
        kestrel::internal::Statement flags(db, QStringLiteral("SELECT * FROM %1").arg(displayTables[level]));
        const bool hasRow = flags.run() && flags.next();
        // The last column (the owner of the row) is never a display choice.
        for (int c = 0; c < names.count() - 1; ++c) {
            const int f = hasRow ? flags.value(c).toInt() : 0;
            if ((f == 1 || c == 0) && (level < 3 || imageLevel))
                titles[level]->append(names.fieldName(c));
            if (f == 0 && c == 0 && level < 3)
                *keyHidden[level] = true;
        }
    }

    QString sql = QStringLiteral("SELECT ");
    for (int i = 0; i < m_patientTitles.size(); ++i)
        sql += (i == 0 ? QStringLiteral("patient.%1") : QStringLiteral(",patient.%1")).arg(m_patientTitles[i]);
    for (const QString& title : qAsConst(m_studyTitles))
        sql += QStringLiteral(",generalstudy.%1").arg(title);
    for (const QString& title : qAsConst(m_seriesTitles))
        sql += QStringLiteral(",generalseries.%1").arg(title);
    if (imageLevel)
        for (const QString& title : qAsConst(m_imageTitles))
            sql += QStringLiteral(",imageformat.%1").arg(title);
    if (imageLevel)
        sql += QStringLiteral(" FROM patient inner join generalstudy inner join generalseries inner join imageformat WHERE "
                              "patient.pk=generalstudy.patient_fk and generalstudy.pk=generalseries.study_fk and "
                              "generalseries.pk=imageformat.series_fk and (");
    else
        sql += QStringLiteral(" FROM patient inner join generalstudy inner join generalseries WHERE "
                              "patient.pk=generalstudy.patient_fk and generalstudy.pk=generalseries.study_fk and (");

    // Stored conditions are pasted in as the search dialog wrote them.
    const int n = tables.size();
    for (int i = 0; i < n; ++i) {
        const bool last = i == n - 1;
        const QString value = values.value(i);
        if (kinds[i] == QLatin1String("Precise")) {
            if (!last)
                sql += QStringLiteral("%1.%2 %3 '%4' %5 ").arg(tables[i], columns[i], operators[i], value, connectors[i]);
            else
                sql += QStringLiteral("%1.%2 %3 '%4')").arg(tables[i], columns[i], operators[i], value);
        } else {
            const QString head = QStringLiteral("%1.%2 like '%").arg(tables[i], columns[i]);
            if (!last)
                sql += head + value + QStringLiteral("%' ") + connectors[i] + QLatin1Char(' ');
            else
                sql += head + value + QStringLiteral("%')");
        }
    }
    advanceQuery(sql);
}

void QPatients::advanceQuery(QString querystring)
{
    m_queryString = querystring;
    // The caller's own SELECT, run as it stands.
    kestrel::internal::Statement query(QSqlDatabase::database(), querystring, kestrel::internal::Statement::Direct);
    if (!query.run())
        return;
    const int P = m_patientTitles.size();
    const int S = m_studyTitles.size();
    const int R = m_seriesTitles.size();
    const bool images = !m_imageTitles.isEmpty();
    // Keys are compared as 32-bit values, as the result views hold them.
    int lastPatient = -1, lastStudy = -1, lastSeries = -1, lastImage = -1;
    QPatient* patient = nullptr;
    QStudy* study = nullptr;
    QSeries* series = nullptr;
    while (query.next()) {
        const int patientKey = int(query.value(0).toLongLong());
        if (patientKey != lastPatient || !patient) {
            patient = new QPatient(this);
            patient->setPatientPK(query.value(0).toLongLong());
            patient->setPatientName(query.value(1).toString());
            for (int i = 0; i < P; ++i)
                patient->setProperty(m_patientTitles[i].toUtf8().constData(), query.value(i));
            m_patients.append(patient);
            lastPatient = patientKey;
        }
        const int studyKey = int(query.value(P).toLongLong());
        if (studyKey != lastStudy || !study) {
            study = new QStudy(patient);
            study->setStudyPK(query.value(P).toLongLong());
            for (int i = 0; i < S; ++i)
                study->setProperty(m_studyTitles[i].toUtf8().constData(), query.value(P + i));
            m_studies.append(study);
            patient->addStudy(study);
            lastStudy = studyKey;
        }
        const int seriesKey = int(query.value(P + S).toLongLong());
        if (seriesKey != lastSeries || !series) {
            series = new QSeries(study);
            series->setSeriesPK(query.value(P + S).toLongLong());
            for (int i = 0; i < R; ++i)
                series->setProperty(m_seriesTitles[i].toUtf8().constData(), query.value(P + S + i));
            m_series.append(series);
            study->addSeries(series);
            lastSeries = seriesKey;
        }
        if (images) {
            const int imageKey = int(query.value(P + S + R).toLongLong());
            if (imageKey != lastImage) {
                auto* instance = new QInstance(series);
                for (int i = 0; i < m_imageTitles.size(); ++i)
                    instance->setProperty(m_imageTitles[i].toUtf8().constData(), query.value(P + S + R + i));
                m_instances.append(instance);
                series->addInstance(instance);
                lastImage = imageKey;
            }
        }
    }
}
