// QDcmFiles, copy mode: the files of a series into the dated storage tree, and the stored rows'
// storage markers.
#include "qdcmfiles.h"

#include "catalog/statement_p.h"
#include "import/imagerecordfill_p.h"
#include "import/storagetree_p.h"

#include <QDir>
#include <QFileInfo>

using namespace kestrel::internal;

namespace {
const QString kImageFormat = QStringLiteral("imageformat");
} // namespace

QHash<QString, QString> QDcmFiles::irradiationMarkers(qint64 seriesPk)
{
    QHash<QString, QString> markers;
    Statement query(database(), QStringLiteral("SELECT SOPInstanceUID,IrradiationEventUID FROM imageformat WHERE series_fk = ?"));
    if (query.bind(seriesPk).run()) {
        while (query.next())
            markers.insert(query.get<QString>(0), query.get<QString>(1));
    }
    return markers;
}

void QDcmFiles::copySeriesFiles(ImageFormat* records, int count, const QString& seriesDir)
{
    // Runs inside the import pass's transaction.
    Statement update(database(), QStringLiteral("UPDATE imageformat SET FilePath=? WHERE SOPInstanceUID=?"));
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
        if (!QFileInfo::exists(seriesDir))
            QDir().mkpath(seriesDir);
        const QString destination = QDir(seriesDir).filePath(QFileInfo(record.filePath).fileName());
        // A failed copy keeps the source path: the catalogue never names a file that is not there.
        if (!storage::copyOverwrite(record.filePath, destination)) {
            ++failed;
            continue;
        }
        if (record.state == ImageRecord::Duplicate) {
            update.bind(destination).bind(record.sopInstanceUID).run();
        } else {
            record.filePath = destination;
            setColumn(&record, kImageFormat, "FilePath", destination);
        }
        setColumn(&record, kImageFormat, "IrradiationEventUID", QStringLiteral("copy"));
    }
    if (failed > 0)
        emit errorInfo(tr("cannot copy %1 file(s) into %2; the catalogue keeps their source paths")
                               .arg(failed)
                               .arg(seriesDir));
}
