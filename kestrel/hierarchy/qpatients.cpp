#include "qpatients.h"

#include "qinstance.h"
#include "qpatient.h"
#include "qseries.h"
#include "qstudy.h"

#include "catalog/catalogschema_p.h"
#include "catalog/connection_p.h"
#include "catalog/statement_p.h"
#include "hierarchy/storedsearch_p.h"

#include <QHash>
#include <QPair>
#include <QSqlDatabase>
#include <QSqlRecord>
#include <QVariant>
#include <QtDebug>

using namespace kestrel::internal;

QPatients::QPatients(QObject* parent)
    : QObject(parent)
{
}

// The tree dies with this object through the Qt parent links; the lists only point into it.
QPatients::~QPatients() = default;

void QPatients::advanceQueryByName(QString queryname)
{
    m_queryName = queryname;
    m_queryString.clear();
    QList<SearchCondition> conditions;
    Status status = readStoredSearch(catalogDatabase(), queryname, &conditions);
    if (!status) {
        m_lastError = status.text();
        qWarning().noquote() << m_lastError;
        return;
    }
    const bool images = searchesImages(conditions);
    m_lastError = readColumnChoices(images);
    SearchStatement statement;
    if (m_lastError.isEmpty()) {
        const QStringList titles[4] = {m_patientTitles, m_studyTitles, m_seriesTitles, m_imageTitles};
        status = buildStoredSearch(titles, images, conditions, &statement);
        m_lastError = status.text();
    }
    if (m_lastError.isEmpty()) {
        m_queryString = statement.text;
        m_lastError = runSearch(statement.sql, statement.values, false);
    }
    if (!m_lastError.isEmpty()) {
        m_lastError = QStringLiteral("stored search \"%1\": %2").arg(queryname, m_lastError);
        qWarning().noquote() << m_lastError;
    }
}

// The column choices of each level: every column flagged 1 in the first row of its display table,
// the key (first column) always, its flag only saying whether it is shown. The last column names
// the row's owner and is never a choice. An error text, empty when read.
QString QPatients::readColumnChoices(bool images)
{
    QSqlDatabase db = catalogDatabase();
    const QStringList& displayTables = schema::displayTables();
    QStringList* titles[4] = {&m_patientTitles, &m_studyTitles, &m_seriesTitles, &m_imageTitles};
    bool* keyHidden[3] = {&m_patientKeyHidden, &m_studyKeyHidden, &m_seriesKeyHidden};
    for (int level = 0; level < 4; ++level) {
        const QSqlRecord names = db.record(displayTables[level]);
        if (names.isEmpty())
            return QStringLiteral("the catalogue has no table %1").arg(displayTables[level]);
        Statement flags(db, QStringLiteral("SELECT * FROM %1").arg(displayTables[level]));
        if (const Status status = flags.run(); !status)
            return status.text();
        const bool hasRow = flags.next();
        for (int c = 0; c < names.count() - 1; ++c) {
            const int f = hasRow ? flags.value(c).toInt() : 0;
            if ((f == 1 || c == 0) && (level < 3 || images))
                titles[level]->append(names.fieldName(c));
            if (f == 0 && c == 0 && level < 3)
                *keyHidden[level] = true;
        }
    }
    return QString();
}

void QPatients::advanceQuery(QString querystring)
{
    m_queryString = querystring;
    // The caller's own SELECT, run as it stands.
    m_lastError = runSearch(querystring, {}, true);
}

// Runs SQL and adds its rows to the tree. Column blocks: the patient titles from 0, then the
// study, series and image titles, each block led by its level's key. Each key makes one object
// under its parent, wherever its rows come in the result. An error text, empty when it ran.
QString QPatients::runSearch(const QString& sql, const QVariantList& values, bool direct)
{
    Statement query(catalogDatabase(), sql, direct ? Statement::Direct : Statement::Prepared);
    if (const Status status = query.bindAll(values).run(); !status)
        return status.text();
    const int P = m_patientTitles.size();
    const int S = m_studyTitles.size();
    const int R = m_seriesTitles.size();
    const bool images = !m_imageTitles.isEmpty();
    QHash<QPair<QObject*, qint64>, QObject*> made;
    // The object of KEY under PARENT, made by MAKE the first time.
    auto once = [&made](QObject* parent, qint64 key, const auto& make) {
        QObject*& object = made[qMakePair(parent, key)];
        if (!object)
            object = make();
        return object;
    };
    // Dynamic properties from the columns of one block.
    auto fill = [&query](QObject* object, const QStringList& titles, int first) {
        for (int i = 0; i < titles.size(); ++i)
            object->setProperty(titles[i].toUtf8().constData(), query.value(first + i));
    };
    while (query.next()) {
        auto* patient = static_cast<QPatient*>(once(this, query.get<qint64>(0), [&]() {
            auto* item = new QPatient(this);
            item->setPatientPK(query.get<qint64>(0));
            item->setPatientName(query.get<QString>(1));
            fill(item, m_patientTitles, 0);
            m_patients.append(item);
            return item;
        }));
        auto* study = static_cast<QStudy*>(once(patient, query.get<qint64>(P), [&]() {
            auto* item = new QStudy(patient);
            item->setStudyPK(query.get<qint64>(P));
            fill(item, m_studyTitles, P);
            m_studies.append(item);
            patient->addStudy(item);
            return item;
        }));
        auto* series = static_cast<QSeries*>(once(study, query.get<qint64>(P + S), [&]() {
            auto* item = new QSeries(study);
            item->setSeriesPK(query.get<qint64>(P + S));
            fill(item, m_seriesTitles, P + S);
            m_series.append(item);
            study->addSeries(item);
            return item;
        }));
        if (images)
            once(series, query.get<qint64>(P + S + R), [&]() {
                auto* item = new QInstance(series);
                fill(item, m_imageTitles, P + S + R);
                m_instances.append(item);
                series->addInstance(item);
                return item;
            });
    }
    return QString();
}
