#include "qinstance.h"

#include "geometry/slicestack_p.h"
#include "hierarchy/hierarchy_p.h"
#include "ndicomimage.h"
#include "qpatient.h"
#include "qseries.h"

#include <QSqlDatabase>
#include <QVariant>

using namespace kestrel::internal;

QInstance::QInstance(QObject* parent)
    : QObject(parent)
    , m_mainZ(2)
{
}

// The main axis means something only once setOrientation has run; until then it names no axis.
QInstance::QInstance(qint64 pk, QObject* parent)
    : QObject(parent)
    , m_instancePK(pk)
    , m_mainZ(-1)
{
}

QInstance::~QInstance() = default;

QStringList QInstance::getColumnName()
{
    return cachedColumnNames(QStringLiteral("image"), QPatient::getDatabBaseName(),
                             {QStringLiteral("imageformat"), QStringLiteral("imagepixel"), QStringLiteral("mrimageinfo")});
}

QSeries* QInstance::getSeries() const
{
    return qobject_cast<QSeries*>(parent());
}

QString QInstance::getValue(QString key) const
{
    return m_allInfo.value(key);
}

void QInstance::setValue(QString key, QString value)
{
    m_allInfo.insert(key, value);
}

void QInstance::setPixelSpacing(QString pixelSpacing)
{
    const QVector<double> parts = parseMultiValue(pixelSpacing);
    if (parts.size() >= 2) {
        m_pixelSpacing[0] = parts[0];
        m_pixelSpacing[1] = parts[1];
    } else if (parts.size() == 1) {
        m_pixelSpacing[0] = m_pixelSpacing[1] = parts[0];
    }
}

void QInstance::setPosition(QString position)
{
    const QVector<double> parts = parseMultiValue(position);
    for (int i = 0; i < parts.size() && i < 3; ++i) // surplus values are ignored
        m_position[i] = parts[i];
}

void QInstance::setOrientation(QString orientation)
{
    const QVector<double> parts = parseMultiValue(orientation);
    if (parts.isEmpty())
        return;
    for (int i = 0; i < parts.size() && i < 6; ++i) // surplus values are ignored
        m_orientation[i / 3][i % 3] = parts[i];

    const geometry::Vec3 row{m_orientation[0][0], m_orientation[0][1], m_orientation[0][2]};
    const geometry::Vec3 column{m_orientation[1][0], m_orientation[1][1], m_orientation[1][2]};
    const geometry::Vec3 n = geometry::imageNormal(row, column);
    for (int i = 0; i < 3; ++i)
        m_orientation[2][i] = n[i];
    m_mainZ = geometry::signedMainAxis(n);
    m_geometryValid = true;
}

void QInstance::setImageSize(int rows, int columns)
{
    m_imageSize[0] = rows;
    m_imageSize[1] = columns;
}

void QInstance::searchInstanceInfo()
{
    const QString sql = QStringLiteral(
        "select imageformat.AcquisitionTime,imageformat.pk,imageformat.SOPInstanceUID,imageformat.ImageType,"
        "imageformat.InstanceNumber,imageformat.FilePath, imagepixel.PixelSpacing,imagepixel.ImageOrientationPatient,"
        "imagepixel.ImagePositionPatient,imagepixel.Rows,imagepixel.Columns,imagepixel.BitsAllocated, "
        "imagepixel.SamplesPerPixel,imagepixel.PhotometricInterpretation,mrimageinfo.RepetitionTime,mrimageinfo.EchoTime,"
        "mrimageinfo.MagneticFieldStrength,mrimageinfo.EchoNumbers,mrimageinfo.FlipAngle,mrimageinfo.SOPInstanceUID "
        "from imageformat,imagepixel,mrimageinfo where imageformat.SOPInstanceUID  = imagepixel.SOPInstanceUID and "
        "imageformat.SOPInstanceUID = mrimageinfo.SOPInstanceUID and imageformat.pk=? "
        "ORDER BY `imageformat`.`InstanceNumber` ASC");
    forEachRow(sql, {m_instancePK}, [this](const Statement& query) {
        setAcquisitionTime(query.value(0).toString());
        setSOPInstanceUID(query.value(2).toString());
        setImageType(query.value(3).toString());
        setInstanceNumber(query.value(4).toInt());
        setFilePath(query.value(5).toString());
        setPixelSpacing(query.value(6).toString());
        setPosition(query.value(8).toString());
        setOrientation(query.value(7).toString());
        setImageSize(query.value(9).toInt(), query.value(10).toInt());
        setBitsAllocated(query.value(11).toInt());
        setSamplesPerPixel(query.value(12).toInt());
        setPhotometricInterpretation(query.value(13).toString());
        setRepetitionTime(query.value(14).toString());
        setEchoTime(query.value(15).toString());
        setMagneticFieldStrength(query.value(16).toString());
        setEchoNumbers(query.value(17).toInt());
        setFlipAngle(query.value(18).toString());
    });
}

void QInstance::searchInstanceAllInfo()
{
    const QString sql = QStringLiteral(
        "SELECT * FROM imageformat,imagepixel,mrimageinfo where imageformat.SOPInstanceUID = imagepixel.SOPInstanceUID "
        "and imageformat.SOPInstanceUID = mrimageinfo.SOPInstanceUID and imageformat.pk=?");
    const QStringList names = getColumnName();
    forEachRow(sql, {m_instancePK}, [&](const Statement& row) {
        for (int i = 0; i < names.size(); ++i)
            m_allInfo.insert(names[i], row.value(i).toString());
    });
}

QString QInstance::getMarkerIdFromString(QString marker)
{
    static const QStringList kinds{QStringLiteral("SelectRectAreaMarker"), QStringLiteral("RectMarker"),
                                   QStringLiteral("EllipseMarker"), QStringLiteral("PolygonMarker")};
    const QString notFound = QStringLiteral("notfound");
    const QStringList parts = marker.split(QLatin1Char('#'), Qt::KeepEmptyParts);
    if (parts.size() < 2)
        return notFound;
    if (kinds.contains(parts[0])) {
        for (int i = 1; i < parts.size() - 1; i += 2)
            if (parts[i] == QLatin1String("MarkerID"))
                return parts[i + 1];
        return notFound;
    }
    // A marker of a kind this library does not know carries its ID in the fourth field.
    return parts.size() > 3 ? parts[3] : notFound;
}

bool QInstance::addMarker(QString markerId, QString marker, bool replace)
{
    if (!replace && m_markers.contains(markerId))
        return false;
    m_markers.insert(markerId, marker);
    return true;
}

bool QInstance::addMarkers(QString markers, bool replace)
{
    bool all = true;
    for (const QString& piece : markers.split(QStringLiteral("##"), Qt::KeepEmptyParts))
        all = addMarker(getMarkerIdFromString(piece), piece, replace) && all;
    return all;
}

std::shared_ptr<NDicomImage> QInstance::getDicomImage()
{
    // Read once: later calls hand out the same image, also when the file could not be read.
    if (!m_dicomImage) {
        m_dicomImage = std::make_shared<NDicomImage>();
        m_dicomImage->readReferenceFileInfo(m_filePath, true);
    }
    return m_dicomImage;
}
