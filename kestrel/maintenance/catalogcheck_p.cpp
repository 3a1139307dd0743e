#include "maintenance/catalogcheck_p.h"

#include "catalog/connection_p.h"
#include "catalog/statement_p.h"
#include "catalog/transaction_p.h"
#include "dicom/dcmvalues_p.h"
#include "dicom/filestream_p.h"
#include "volume/volumecache_p.h"
#include "qdcmfiles.h"
#include "veldatabaseconnection.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>

#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QtConcurrent>

#include <algorithm>

// Kinds of problem found among the image rows, the hierarchy and the receive queue:
//   orphan-study      a study whose patient row is gone (removed with its series and images)
//   orphan-series     a series whose study row is gone (removed with its images)
//   orphan-image      an image row whose series row is gone
//   missing-file      the image row's file does not exist
//   unreadable-file   the file exists but cannot be opened (left alone: it may be a passing fault)
//   not-an-image      the file is not a readable DICOM file
//   wrong-image       the file holds another SOP Instance UID than the row
//   shared-file       the file is also another row's, and holds that row's image
//   duplicate-row     a second row of one image table with the same SOP Instance UID
//   incomplete-image  an image without its row in one of the other image tables
//   stale-queue       a receive queue row whose file is gone
// Each removed image row whose file still holds a readable image is catalogued again by the
// importer after the removals, so a file that holds another image than its row said ends up
// catalogued as what it holds.
namespace kestrel::internal::maintenance {

namespace {

const QString kFormat = QStringLiteral("imageformat");

// What a file on the disk holds.
struct Holding {
    enum State { Missing, Unopenable, NotDicom, Holds };
    State state = Missing;
    QString sop;
    QString why;
};

Holding readHolding(const QString& path)
{
    Holding holding;
    const QFileInfo info(path);
    if (path.isEmpty() || !info.exists()) {
        holding.why = path.isEmpty() ? QStringLiteral("the row names no file") : QStringLiteral("the file does not exist");
        return holding;
    }
    if (!info.isFile()) {
        holding.state = Holding::NotDicom;
        holding.why = QStringLiteral("not a regular file");
        return holding;
    }
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        holding.state = Holding::Unopenable;
        holding.why = QStringLiteral("cannot be opened (%1); left as it is").arg(file.errorString());
        return holding;
    }
    file.close();
    DcmFileFormat format;
    const QByteArray name = QFile::encodeName(path);
    const OFCondition read = loadDicomFile(format, name, 4096);
    if (read.bad()) {
        holding.state = Holding::NotDicom;
        holding.why = QStringLiteral("not a readable DICOM file (%1)").arg(QString::fromLatin1(read.text()));
        return holding;
    }
    holding.state = Holding::Holds;
    holding.sop = dcmString(format.getDataset(), DCM_SOPInstanceUID);
    return holding;
}

QString imageKey(qint64 series, const QString& sop)
{
    return QString::number(series) + QLatin1Char('|') + sop;
}

Status readRows(QSqlDatabase db, CatalogueRows* rows)
{
    Statement patients(db, QStringLiteral("SELECT pk FROM patient"));
    if (const Status status = patients.run(); !status)
        return status;
    while (patients.next())
        rows->patients.insert(patients.get<qint64>(0));
    Statement studies(db, QStringLiteral("SELECT pk, patient_fk, StudyInstanceUID FROM generalstudy"));
    if (const Status status = studies.run(); !status)
        return status;
    while (studies.next())
        rows->studies.insert(studies.get<qint64>(0), {studies.get<qint64>(1), studies.get<QString>(2)});
    Statement series(db, QStringLiteral("SELECT pk, study_fk, SeriesBase FROM generalseries"));
    if (const Status status = series.run(); !status)
        return status;
    while (series.next())
        rows->series.insert(series.get<qint64>(0), {series.get<qint64>(1), series.get<QString>(2)});
    for (const QString& table : imageTables()) {
        const QString path = table == kFormat ? QStringLiteral(", FilePath") : QStringLiteral(", ''");
        Statement images(db, QStringLiteral("SELECT pk, series_fk, SOPInstanceUID%1 FROM %2 ORDER BY pk").arg(path, table));
        if (const Status status = images.run(); !status)
            return status;
        QVector<CatalogueRows::Image>& list = rows->images[table];
        while (images.next())
            list.push_back({images.get<qint64>(0), images.get<qint64>(1), images.get<QString>(2), images.get<QString>(3)});
    }
    return Status::ok();
}

// The check of the image rows: findings go to the outcome, removals to its plan.
class ImageCheck
{
public:
    ImageCheck(const CatalogueRows& rows, CheckOutcome* outcome) : m_rows(rows), m_outcome(outcome), m_plan(outcome->plan) {}

    void hierarchy();
    void formats();
    void otherTables();
    void emptied();

private:
    void add(const QString& kind, const QString& table, qint64 key, const QString& path, const QString& what)
    {
        m_outcome->findings.push_back({kind, table, QString::number(key), path, what});
    }
    void drop(const QString& table, const CatalogueRows::Image& image)
    {
        m_plan.images[table].insert(image.pk);
        m_touchedSeries.insert(image.series);
    }
    bool seriesGoes(qint64 series) const { return m_plan.series.contains(series); }
    void duplicates(const QVector<const CatalogueRows::Image*>& candidates);

    const CatalogueRows& m_rows;
    CheckOutcome* m_outcome;
    RepairPlan& m_plan;
    QHash<QString, Holding> m_holdings; // by path
    QSet<QString> m_keptKeys;           // image keys (series|SOP) of the imageformat rows that stay
    QSet<QString> m_keptPaths;
    QSet<qint64> m_touchedSeries;
};

void ImageCheck::hierarchy()
{
    for (auto study = m_rows.studies.cbegin(); study != m_rows.studies.cend(); ++study) {
        if (m_rows.patients.contains(study->patient))
            continue;
        add(QStringLiteral("orphan-study"), QStringLiteral("generalstudy"), study.key(), QString(),
            QStringLiteral("its patient (pk %1) is gone; its series and images go with it").arg(study->patient));
        m_plan.studies.insert(study.key());
    }
    for (auto series = m_rows.series.cbegin(); series != m_rows.series.cend(); ++series) {
        if (!m_rows.studies.contains(series->study)) {
            add(QStringLiteral("orphan-series"), QStringLiteral("generalseries"), series.key(), QString(),
                QStringLiteral("its study (pk %1) is gone; its images go with it").arg(series->study));
            m_plan.series.insert(series.key());
        } else if (m_plan.studies.contains(series->study)) {
            m_plan.series.insert(series.key());
        }
    }
}

void ImageCheck::formats()
{
    const QVector<CatalogueRows::Image>& rows = m_rows.images.value(kFormat);
    QStringList paths;
    for (const CatalogueRows::Image& image : rows)
        paths << image.path;
    paths.removeDuplicates();
    const QVector<Holding> read = QtConcurrent::blockingMapped<QVector<Holding>>(paths, readHolding);
    for (int i = 0; i < paths.size(); ++i)
        m_holdings.insert(paths[i], read[i]);
    // The row that the file of a path really belongs to, when one does.
    QHash<QString, qint64> holder;
    for (const CatalogueRows::Image& image : rows) {
        const Holding& holding = m_holdings[image.path];
        if (holding.state == Holding::Holds && holding.sop == image.sop && !holder.contains(image.path))
            holder.insert(image.path, image.pk);
    }

    QVector<const CatalogueRows::Image*> candidates;
    for (const CatalogueRows::Image& image : rows) {
        const Holding& holding = m_holdings[image.path];
        if (!m_rows.series.contains(image.series)) {
            add(QStringLiteral("orphan-image"), kFormat, image.pk, image.path,
                QStringLiteral("its series (pk %1) is gone").arg(image.series));
            drop(kFormat, image);
        } else if (seriesGoes(image.series)) {
            drop(kFormat, image);
        } else if (holding.state == Holding::Missing) {
            add(QStringLiteral("missing-file"), kFormat, image.pk, image.path, holding.why);
            drop(kFormat, image);
        } else if (holding.state == Holding::NotDicom) {
            add(QStringLiteral("not-an-image"), kFormat, image.pk, image.path, holding.why);
            drop(kFormat, image);
        } else if (holding.state == Holding::Holds && holding.sop != image.sop) {
            if (holder.contains(image.path))
                add(QStringLiteral("shared-file"), kFormat, image.pk, image.path,
                    QStringLiteral("the file is the image %1 of imageformat pk %2, not %3")
                        .arg(holding.sop).arg(holder.value(image.path)).arg(image.sop));
            else
                add(QStringLiteral("wrong-image"), kFormat, image.pk, image.path,
                    QStringLiteral("the file holds the image %1, not %2").arg(holding.sop, image.sop));
            drop(kFormat, image);
        } else {
            if (holding.state == Holding::Unopenable)
                add(QStringLiteral("unreadable-file"), kFormat, image.pk, image.path, holding.why);
            candidates << &image;
        }
    }
    duplicates(candidates);
}

// Rows of one SOP Instance UID: the one whose image is complete stays (the lowest key among
// them), the others are duplicates. Kept images without their other rows are incomplete.
void ImageCheck::duplicates(const QVector<const CatalogueRows::Image*>& candidates)
{
    QHash<QString, QSet<QString>> present; // table -> image keys with a row
    for (const QString& table : imageTables().mid(1))
        for (const CatalogueRows::Image& image : m_rows.images.value(table))
            present[table].insert(imageKey(image.series, image.sop));
    auto complete = [&](const CatalogueRows::Image* image) {
        for (const QString& table : imageTables().mid(1))
            if (!present[table].contains(imageKey(image->series, image->sop)))
                return false;
        return true;
    };
    QMap<QString, QVector<const CatalogueRows::Image*>> bySop;
    for (const CatalogueRows::Image* image : candidates)
        bySop[image->sop] << image;
    for (const QVector<const CatalogueRows::Image*>& group : qAsConst(bySop)) {
        const CatalogueRows::Image* kept = group.first(); // rows come in key order
        for (const CatalogueRows::Image* image : group)
            if (complete(image) && !complete(kept))
                kept = image;
        for (const CatalogueRows::Image* image : group) {
            if (image == kept)
                continue;
            add(QStringLiteral("duplicate-row"), kFormat, image->pk, image->path,
                QStringLiteral("the image %1 again; imageformat pk %2 stays").arg(image->sop).arg(kept->pk));
            drop(kFormat, *image);
        }
        bool whole = true;
        for (const QString& table : imageTables().mid(1)) {
            if (present[table].contains(imageKey(kept->series, kept->sop)))
                continue;
            add(QStringLiteral("incomplete-image"), table, kept->pk, kept->path,
                QStringLiteral("imageformat pk %1 has no %2 row").arg(kept->pk).arg(table));
            whole = false;
        }
        if (!whole) {
            drop(kFormat, *kept);
            continue;
        }
        m_keptKeys.insert(imageKey(kept->series, kept->sop));
        m_keptPaths.insert(kept->path);
    }
}

// imagepixel and mrimageinfo: each row belongs to a kept imageformat row, one row per image.
void ImageCheck::otherTables()
{
    QSet<QString> formatKeys;
    for (const CatalogueRows::Image& image : m_rows.images.value(kFormat))
        formatKeys.insert(imageKey(image.series, image.sop));
    for (const QString& table : imageTables().mid(1)) {
        QHash<QString, qint64> keptRow; // image key -> the row that stays
        for (const CatalogueRows::Image& image : m_rows.images.value(table)) {
            const QString key = imageKey(image.series, image.sop);
            if (!m_rows.series.contains(image.series)) {
                add(QStringLiteral("orphan-image"), table, image.pk, QString(),
                    QStringLiteral("its series (pk %1) is gone").arg(image.series));
                drop(table, image);
            } else if (seriesGoes(image.series)) {
                drop(table, image);
            } else if (!formatKeys.contains(key)) {
                add(QStringLiteral("incomplete-image"), table, image.pk, QString(),
                    QStringLiteral("the image %1 has no imageformat row").arg(image.sop));
                drop(table, image);
            } else if (!m_keptKeys.contains(key)) {
                drop(table, image); // its imageformat row goes, for the cause reported there
            } else if (keptRow.contains(key)) {
                add(QStringLiteral("duplicate-row"), table, image.pk, QString(),
                    QStringLiteral("the image %1 again; %2 pk %3 stays").arg(image.sop, table).arg(keptRow.value(key)));
                drop(table, image);
            } else {
                keptRow.insert(key, image.pk);
            }
        }
    }
}

// Series whose every image goes, studies whose every series goes and patients whose every study
// goes are removed with them; the volumes of the series and studies changed are stale.
void ImageCheck::emptied()
{
    const QSet<qint64> droppedFormats = m_plan.images.value(kFormat);
    QHash<qint64, int> staying; // series -> imageformat rows that stay
    for (const CatalogueRows::Image& image : m_rows.images.value(kFormat))
        if (!droppedFormats.contains(image.pk))
            ++staying[image.series];
    for (qint64 series : qAsConst(m_touchedSeries))
        if (m_rows.series.contains(series) && staying.value(series) == 0)
            m_plan.series.insert(series);
    QHash<qint64, int> studySeries, patientStudies;
    for (auto series = m_rows.series.cbegin(); series != m_rows.series.cend(); ++series)
        if (!m_plan.series.contains(series.key()))
            ++studySeries[series->study];
    for (auto series = m_rows.series.cbegin(); series != m_rows.series.cend(); ++series)
        if (m_plan.series.contains(series.key()) && m_rows.studies.contains(series->study)
            && studySeries.value(series->study) == 0)
            m_plan.studies.insert(series->study);
    for (auto study = m_rows.studies.cbegin(); study != m_rows.studies.cend(); ++study)
        if (!m_plan.studies.contains(study.key()))
            ++patientStudies[study->patient];
    for (auto study = m_rows.studies.cbegin(); study != m_rows.studies.cend(); ++study)
        if (m_plan.studies.contains(study.key()) && m_rows.patients.contains(study->patient)
            && patientStudies.value(study->patient) == 0)
            m_plan.patients.insert(study->patient);

    m_touchedSeries += m_plan.series;
    for (qint64 series : qAsConst(m_touchedSeries)) {
        const auto row = m_rows.series.constFind(series);
        if (row == m_rows.series.cend())
            continue;
        m_plan.volumeKeys << row->key;
        if (m_rows.studies.contains(row->study))
            m_plan.volumeKeys << m_rows.studies.value(row->study).uid;
    }
    for (qint64 study : qAsConst(m_plan.studies))
        m_plan.volumeKeys << m_rows.studies.value(study).uid;
    m_plan.volumeKeys.removeDuplicates();
    m_plan.volumeKeys.removeAll(QString());

    // The files of removed rows that still hold an image are catalogued again.
    for (const CatalogueRows::Image& image : m_rows.images.value(kFormat)) {
        const Holding& holding = m_holdings[image.path];
        if (droppedFormats.contains(image.pk) && holding.state == Holding::Holds
            && !m_keptPaths.contains(image.path))
            m_plan.reimport << image.path;
    }
    m_plan.reimport.removeDuplicates();
}

Status checkQueue(QSqlDatabase db, CheckOutcome* outcome)
{
    Statement queue(db, QStringLiteral("SELECT InstanceUID, filepath FROM images"));
    if (const Status status = queue.run(); !status)
        return status;
    while (queue.next()) {
        const QString uid = queue.get<QString>(0);
        const QString path = queue.get<QString>(1);
        if (!path.isEmpty() && QFileInfo::exists(path))
            continue;
        outcome->findings.push_back({QStringLiteral("stale-queue"), QStringLiteral("images"), uid, path,
                                     QStringLiteral("the received file is gone")});
        outcome->plan.queueRows.push_back({uid, path});
    }
    return Status::ok();
}

Status deleteKeys(QSqlDatabase db, const QString& table, const QSet<qint64>& keys)
{
    if (keys.isEmpty())
        return Status::ok();
    Statement remove(db, QStringLiteral("DELETE FROM %1 WHERE pk = ?").arg(table));
    for (qint64 key : keys)
        if (const Status status = remove.bind(key).run(); !status)
            return status;
    return Status::ok();
}

// Every row change of the plan, in one unit.
Status changeRows(QSqlDatabase db, const RepairPlan& plan)
{
    return runWrite(db, [&](Transaction&) {
        for (const QString& table : imageTables())
            if (const Status status = deleteKeys(db, table, plan.images.value(table)); !status)
                return status;
        for (const auto& [table, keys] : {std::pair{QStringLiteral("generalseries"), &plan.series},
                                          {QStringLiteral("generalstudy"), &plan.studies},
                                          {QStringLiteral("patient"), &plan.patients},
                                          {QStringLiteral("registration"), &plan.registrations}})
            if (const Status status = deleteKeys(db, table, *keys); !status)
                return status;
        Statement queue(db, QStringLiteral("DELETE FROM images WHERE COALESCE(InstanceUID, '') = ? AND COALESCE(filepath, '') = ?"));
        for (const auto& [uid, path] : plan.queueRows)
            if (const Status status = queue.bind(uid).bind(path).run(); !status)
                return status;
        Statement head(db, QStringLiteral("UPDATE registration SET VolumeHead = ? WHERE pk = ?"));
        for (auto it = plan.heads.cbegin(); it != plan.heads.cend(); ++it)
            if (const Status status = head.bind(it.value()).bind(it.key()).run(); !status)
                return status;
        return Status::ok();
    });
}

// "1 row", "2 rows"; empty for none.
QString counted(int count, const QString& one, const QString& many)
{
    return count == 0 ? QString() : QStringLiteral("%1 %2").arg(count).arg(count == 1 ? one : many);
}

QString joined(QStringList parts)
{
    parts.removeAll(QString());
    return parts.join(QStringLiteral(", "));
}

// Carries PLAN out; one line per kind of change goes to REPAIRED.
Status repair(QSqlDatabase db, const RepairPlan& plan, QStringList* repaired)
{
    if (const Status status = changeRows(db, plan); !status)
        return status.context(QStringLiteral("nothing was changed: "));
    QStringList rows;
    for (const QString& table : imageTables())
        rows << counted(plan.images.value(table).size(), table, table);
    rows << counted(plan.series.size(), QStringLiteral("generalseries"), QStringLiteral("generalseries"))
         << counted(plan.studies.size(), QStringLiteral("generalstudy"), QStringLiteral("generalstudy"))
         << counted(plan.patients.size(), QStringLiteral("patient"), QStringLiteral("patient"))
         << counted(plan.queueRows.size(), QStringLiteral("receive queue row"), QStringLiteral("receive queue rows"));
    if (const QString text = joined(rows); !text.isEmpty())
        *repaired << QStringLiteral("repair: rows removed: ") + text;

    int registered = 0, deleted = 0;
    Status status;
    for (const QStringList& entry : plan.toRegister) {
        const Status added = volumecache::registerFile(entry[0], entry[1], entry[2]);
        registered += added.isOk();
        if (!added)
            status = added;
    }
    for (const QString& file : plan.cacheFiles)
        deleted += QFile::remove(file);
    const QString cache = joined({counted(plan.registrations.size(), "registration removed", "registrations removed"),
                                  counted(plan.heads.size(), "head rewritten", "heads rewritten"),
                                  counted(registered, "file registered", "files registered"),
                                  counted(deleted, "cache file deleted", "cache files deleted")});
    if (!cache.isEmpty())
        *repaired << QStringLiteral("repair: volume cache: ") + cache;

    if (!plan.reimport.isEmpty()) {
        QDcmFiles importer;
        importer.loadLocalFilesToDB(plan.reimport, 0);
        const QDcmFiles::RunCounts counts = importer.lastRunCounts();
        *repaired << QStringLiteral("repair: %1 catalogued again: %2")
                         .arg(counted(plan.reimport.size(), "file", "files"),
                              joined({counted(counts.imagesAdded, "image added", "images added"),
                                      counted(counts.duplicates, "image already catalogued", "images already catalogued"),
                                      counted(counts.unreadable, "file unreadable", "files unreadable")}));
        if (!importer.lastImportSucceeded())
            status = Status::failed(QStringLiteral("cataloguing the files again failed: ") + importer.lastError());
    }
    return status;
}

} // namespace

QString Finding::line() const
{
    QStringList fields{kind, table, key, path, what};
    for (QString& field : fields)
        if (field.isEmpty())
            field = QStringLiteral("-");
    return fields.join(QLatin1Char('\t'));
}

const QStringList& imageTables()
{
    static const QStringList tables{kFormat, QStringLiteral("imagepixel"), QStringLiteral("mrimageinfo")};
    return tables;
}

Status checkImages(QSqlDatabase db, CatalogueRows* rows, CheckOutcome* outcome)
{
    if (const Status status = readRows(db, rows); !status)
        return status;
    outcome->imageRows = rows->images.value(kFormat).size();
    ImageCheck check(*rows, outcome);
    check.hierarchy();
    check.formats();
    check.otherTables();
    check.emptied();
    return checkQueue(db, outcome);
}

CheckOutcome checkCatalogue(QSqlDatabase db, bool repairIt, QStringList* repaired)
{
    CheckOutcome outcome;
    if (!reopenIfLost(db)) {
        outcome.status = Status(Status::Unavailable, db.lastError().text());
        return outcome;
    }
    CatalogueRows rows;
    outcome.status = checkImages(db, &rows, &outcome);
    if (outcome.status)
        outcome.status = checkVolumeCache(db, rows, &outcome);
    if (!outcome.status || !repairIt || outcome.findings.isEmpty())
        return outcome;
    QStringList lines;
    if (const Status status = repair(db, outcome.plan, &lines); !status)
        lines << QStringLiteral("repair failed: ") + status.text();
    if (repaired)
        *repaired << lines;
    return outcome;
}

} // namespace kestrel::internal::maintenance

using namespace kestrel::internal::maintenance;

int checkCatalog(bool repair, QStringList* report)
{
    QStringList repaired;
    const CheckOutcome outcome = checkCatalogue(kestrel::internal::catalogDatabase(), repair, &repaired);
    if (!outcome.status) {
        if (report)
            *report << QStringLiteral("cannot read the catalogue: ") + outcome.status.text();
        return -1;
    }
    if (!report)
        return outcome.findings.size();
    QMap<QString, int> kinds;
    for (const Finding& finding : outcome.findings) {
        *report << finding.line();
        ++kinds[finding.kind];
    }
    *report << repaired;
    QStringList parts;
    for (auto kind = kinds.cbegin(); kind != kinds.cend(); ++kind)
        parts << QStringLiteral("%1 %2").arg(kind.value()).arg(kind.key());
    const QString checked = QStringLiteral("%1 images and %2 cache registrations checked")
                                .arg(outcome.imageRows)
                                .arg(outcome.registrationRows);
    *report << (outcome.findings.isEmpty() ? QStringLiteral("clean: ") + checked
                                           : QStringLiteral("%1 (%2); %3")
                                                 .arg(counted(outcome.findings.size(), "problem", "problems"),
                                                      parts.join(QStringLiteral(", ")), checked));
    return outcome.findings.size();
}
