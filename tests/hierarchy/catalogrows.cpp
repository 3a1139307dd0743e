#include "catalogrows.h"

#include "internal/catalogschema.h"

#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QUuid>
#include <QtDebug>

namespace catalogrows {

qint64 insert(const QString& table, const QVariantMap& values)
{
    using namespace kestrel::internal::schema;
    QSqlQuery query(QSqlDatabase::database());
    query.prepare(QString("INSERT INTO %1 (%2) VALUES %3")
                      .arg(table, quotedColumns(values.keys()), placeholders(values.size())));
    for (const QVariant& value : values)
        query.addBindValue(value);
    if (!query.exec()) {
        qWarning() << "catalogrows::insert" << table << query.lastError().text();
        return -1;
    }
    return query.lastInsertId().toLongLong();
}

static QString uid()
{
    return "2.25." + QString::number(QUuid::createUuid().toString(QUuid::Id128).left(15).toULongLong(nullptr, 16));
}

qint64 addPatient(const QString& name, const QString& id)
{
    return insert("patient", {{"PatientName", name}, {"PatientID", id}});
}

qint64 addStudy(qint64 patientPk, const QString& description, const QString& studyId)
{
    return insert("generalstudy", {{"StudyInstanceUID", uid()}, {"StudyDescription", description},
                                   {"StudyID", studyId}, {"StudyDate", "20240131"}, {"patient_fk", patientPk}});
}

qint64 addSeries(qint64 studyPk, int number, const QString& description, const QString& modality)
{
    const QString seriesUid = uid();
    return insert("generalseries", {{"SeriesInstanceUID", seriesUid}, {"SeriesNumber", QString::number(number)},
                                    {"SeriesDescription", description}, {"Modality", modality},
                                    {"SeriesBase", seriesUid + "#0"}, {"study_fk", studyPk}});
}

qint64 addImage(qint64 seriesPk, const Image& image)
{
    const QString sop = uid();
    const qint64 pk = insert("imageformat", {{"InstanceNumber", image.instanceNumber}, {"ImageType", "ORIGINAL\\PRIMARY"},
                                             {"AcquisitionTime", image.acquisitionTime}, {"series_fk", seriesPk},
                                             {"SOPInstanceUID", sop}, {"FilePath", image.filePath}});
    if (image.pixelRow)
        insert("imagepixel", {{"SamplesPerPixel", QString::number(image.samplesPerPixel)},
                              {"PhotometricInterpretation", image.photometric}, {"Rows", QString::number(image.rows)},
                              {"Columns", QString::number(image.columns)}, {"BitsAllocated", QString::number(image.bitsAllocated)},
                              {"PixelSpacing", image.spacing}, {"ImageOrientationPatient", image.orientation},
                              {"ImagePositionPatient", image.position}, {"series_fk", seriesPk}, {"SOPInstanceUID", sop}});
    if (image.mrRow)
        insert("mrimageinfo", {{"EchoTime", "5"}, {"RepetitionTime", "500"}, {"FlipAngle", "90"},
                               {"MagneticFieldStrength", "3"}, {"EchoNumbers", "1"}, {"series_fk", seriesPk},
                               {"SOPInstanceUID", sop}});
    return pk;
}

} // namespace catalogrows
