// QDcmFiles, copy mode: the files of a series into the dated storage tree, and the stored rows'
// storage markers.
#include "qdcmfiles.h"

#include "catalog/catalogschema_p.h"
#include "catalog/statement_p.h"
#include "catalog/transaction_p.h"
#include "import/imagerecordfill_p.h"
#include "import/importstate_p.h"
#include "import/storagetree_p.h"
#include "platform/fileplacement_p.h"

#include <QDir>
#include <QFileInfo>

using namespace kestrel::internal;
using kestrel::internal::import::ParentKeys;

namespace {
const QString kImageFormat = QStringLiteral("imageformat");
} // namespace

void QDcmFiles::prefetchStoredImages()
{
    m_state->storedSeries.clear();
    const ParentKeys& keys = m_state->parents;
    QVector<qint64> known;
    for (size_t i = 0; i < keys.series.size(); ++i)
        if (keys.series[i] >= 0 && !keys.seriesAdded[i])
            known << keys.series[i];
    QSqlDatabase db = database();
    // A few queries for all series rather than two for each: on a server each is a round trip.
    constexpr int kSeriesPerQuery = 400;
    for (int first = 0; first < known.size(); first += kSeriesPerQuery) {
        const QVector<qint64> chunk = known.mid(first, kSeriesPerQuery);
        const QString in = schema::placeholders(chunk.size());
        Statement images(db, QStringLiteral("SELECT series_fk, SOPInstanceUID, FilePath, IrradiationEventUID FROM "
                                            "imageformat WHERE series_fk IN %1").arg(in));
        for (qint64 pk : chunk)
            images.bind(pk);
        if (!images.run())
            continue;
        while (images.next())
            m_state->storedSeries[images.get<qint64>(0)].images.insert(images.get<QString>(1),
                                                                       {images.get<QString>(2), images.get<QString>(3)});
        images.finish();
        QHash<qint64, int> pixCount, mrCount;
        for (const auto& [table, counts] : {std::pair{QStringLiteral("imagepixel"), &pixCount},
                                            std::pair{QStringLiteral("mrimageinfo"), &mrCount}}) {
            Statement count(db, QStringLiteral("SELECT series_fk, COUNT(*) FROM %1 WHERE series_fk IN %2 GROUP BY series_fk")
                                    .arg(table, in));
            for (qint64 pk : chunk)
                count.bind(pk);
            if (count.run())
                while (count.next())
                    counts->insert(count.get<qint64>(0), count.get<int>(1));
        }
        for (qint64 pk : chunk) {
            ImportState::StoredSeries& stored = m_state->storedSeries[pk];
            stored.complete = pixCount.value(pk) == stored.images.size() && mrCount.value(pk) == stored.images.size();
        }
    }
}

void QDcmFiles::loadStoredImages(qint64 seriesPk, QSet<QString>* pix, QSet<QString>* mr)
{
    m_state->storedImages.clear();
    const auto prefetched = m_state->storedSeries.constFind(seriesPk);
    if (prefetched != m_state->storedSeries.constEnd() && prefetched->complete) {
        m_state->storedImages = prefetched->images;
        for (auto it = m_state->storedImages.cbegin(); it != m_state->storedImages.cend(); ++it) {
            pix->insert(it.key());
            mr->insert(it.key());
        }
        return;
    }
    QSqlDatabase db = database();
    Statement images(db, QStringLiteral("SELECT SOPInstanceUID, FilePath, IrradiationEventUID FROM imageformat WHERE series_fk = ?"));
    if (!images.bind(seriesPk).run())
        return;
    while (images.next())
        m_state->storedImages.insert(images.get<QString>(0), {images.get<QString>(1), images.get<QString>(2)});
    images.finish();
    if (m_state->storedImages.isEmpty())
        return;
    // The three rows of an image are written together: where the counts agree, every image row
    // has its pixel and MR rows and they need not be read. Catalogues of earlier versions may
    // hold incomplete images: then each table's UIDs are read.
    Statement counts(db, QStringLiteral("SELECT (SELECT COUNT(*) FROM imagepixel WHERE series_fk = ?), "
                                        "(SELECT COUNT(*) FROM mrimageinfo WHERE series_fk = ?)"));
    const int stored = m_state->storedImages.size();
    if (counts.bind(seriesPk).bind(seriesPk).run() && counts.next() && counts.get<int>(0) == stored && counts.get<int>(1) == stored) {
        for (auto it = m_state->storedImages.cbegin(); it != m_state->storedImages.cend(); ++it) {
            pix->insert(it.key());
            mr->insert(it.key());
        }
        return;
    }
    counts.finish();
    getImageInstanceUID(QStringLiteral("imagepixel"), seriesPk, *pix);
    getImageInstanceUID(QStringLiteral("mrimageinfo"), seriesPk, *mr);
}

QString QDcmFiles::storedPathOf(const QString& sop)
{
    const auto known = m_state->storedImages.constFind(sop);
    if (known != m_state->storedImages.constEnd())
        return known->filePath;
    // Catalogued under another series (a file that repeats an image of another one).
    return selectValue<QString>(database(), QStringLiteral("SELECT FilePath FROM imageformat WHERE SOPInstanceUID = ?"), {sop},
                                QString());
}

void QDcmFiles::copySeriesFiles(ImageFormat* records, int count, const QString& seriesDir)
{
    QList<QPair<QString, QString>> repaired; // SOP Instance UID, new path of a row whose file vanished
    int failed = 0;
    for (int i = 0; i < count; ++i) {
        ImageFormat& record = records[i];
        if (record.state == ImageRecord::NotFilled)
            continue;
        if (record.state == ImageRecord::Duplicate &&
            columnValue(record, kImageFormat, "IrradiationEventUID").toString() == QLatin1String("reserved")) {
            storage::removeEmptyFolders(seriesDir);
            continue;
        }
        // Stored files are named after their SOP Instance UID: two exports with equal file names
        // cannot overwrite each other.
        const QString destination = storage::storedFileName(seriesDir, record.sopInstanceUID);
        if (record.state == ImageRecord::Duplicate) {
            const QString stored = storedPathOf(record.sopInstanceUID);
            if (QFileInfo::exists(stored)) {
                // Identical bytes are stored once; another content never replaces what a row names.
                if (!sameContent(stored, record.filePath)) {
                    skipFile(tr("%1: the SOP Instance UID of the stored %2, with other content").arg(record.filePath, stored));
                    continue;
                }
                // A row left at its source by an earlier copy that failed gets its stored copy now.
                if (m_savePath.isEmpty() || QDir::cleanPath(stored).startsWith(QDir::cleanPath(m_savePath) + QLatin1Char('/')))
                    continue;
            }
            // The stored copy is gone: this file takes its place.
            if (storage::storeCopy(record.filePath, destination) == storage::CopyResult::Failed) {
                ++failed;
                continue;
            }
            repaired.append({record.sopInstanceUID, destination});
            continue;
        }
        const storage::CopyResult copied = storage::storeCopy(record.filePath, destination);
        if (copied == storage::CopyResult::Failed) {
            // A failed copy keeps the source path: the catalogue never names a file that is not there.
            ++failed;
            continue;
        }
        if (copied == storage::CopyResult::OtherContent) {
            // Another image with this UID is stored there already (another workstation's, or an
            // earlier one's): the row that names it stays as it is.
            record.state = ImageRecord::Duplicate;
            skipFile(tr("%1: the SOP Instance UID of the stored %2, with other content").arg(record.filePath, destination));
            continue;
        }
        record.filePath = destination;
        setColumn(&record, kImageFormat, "FilePath", destination);
        setColumn(&record, kImageFormat, "IrradiationEventUID", QStringLiteral("copy"));
    }
    updateFilePaths(repaired);
    if (failed > 0)
        emit errorInfo(tr("cannot copy %1 file(s) into %2; the catalogue keeps their source paths")
                               .arg(failed)
                               .arg(seriesDir));
}
