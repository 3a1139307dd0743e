#include "seriesfromfiles.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/oflog/oflog.h>

#include <QSqlDatabase>

#include "dicom/dcmvalues_p.h"
#include "qinstance.h"
#include "qseries.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>

#include <QDir>
#include <QFile>
#include <QMultiMap>

using namespace kestrel::internal;

QSeries* seriesFromFiles(const QStringList& files, qint64 pk, QObject* parent)
{
    auto* series = new QSeries(parent);
    series->setSeriesPK(pk);
    for (const QString& file : files) {
        DcmFileFormat format;
        if (format.loadFile(QFile::encodeName(file).constData()).bad())
            continue;
        DcmDataset* ds = format.getDataset();
        auto* instance = new QInstance(series);
        instance->setFilePath(file);
        instance->setInstanceNumber(dcmInt(ds, DCM_InstanceNumber));
        instance->setPosition(dcmStringAll(ds, DCM_ImagePositionPatient));
        instance->setOrientation(dcmStringAll(ds, DCM_ImageOrientationPatient));
        instance->setPixelSpacing(dcmStringAll(ds, DCM_PixelSpacing));
        instance->setImageSize(dcmInt(ds, DCM_Rows), dcmInt(ds, DCM_Columns));
        instance->setBitsAllocated(dcmInt(ds, DCM_BitsAllocated));
        series->setSeriesUID(dcmString(ds, DCM_SeriesInstanceUID));
        series->setSeriesBase(dcmString(ds, DCM_SeriesInstanceUID) + "#0");
        series->addInstance(instance);
    }
    return series;
}

QStringList seriesFiles(const QString& folder, const QString& pattern)
{
    QMultiMap<int, QString> byNumber;
    for (const QString& name : QDir(folder).entryList({pattern}, QDir::Files, QDir::Name)) {
        DcmFileFormat file;
        const QString full = QDir(folder).filePath(name);
        if (file.loadFile(QFile::encodeName(full).constData()).good())
            byNumber.insert(dcmInt(file.getDataset(), DCM_InstanceNumber), full);
    }
    return byNumber.values();
}


bool openEmptyCatalogue()
{
    QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE");
    db.setDatabaseName(":memory:");
    OFLog::configure(OFLogger::ERROR_LOG_LEVEL);
    return db.open();
}
