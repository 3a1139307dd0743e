#pragma once

#include "kestrel_global.h"

#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>

#include <memory>

class NDicomImage;
class QSeries;

// One image (SOP instance) of the catalogue: rows of `imageformat`, `imagepixel` and
// `mrimageinfo` joined on SOPInstanceUID. Holds the image's patient geometry parsed from the
// stored texts, its MR parameters, annotation markers and the decoded image, read once.
class KESTREL_EXPORT QInstance : public QObject
{
    Q_OBJECT
public:
    explicit QInstance(QObject* parent = nullptr);
    QInstance(qint64 pk, QObject* parent = nullptr);
    ~QInstance() override;

    // Column names of imageformat, imagepixel and mrimageinfo in `SELECT *` order.
    static QStringList getColumnName();
    // ID of a marker text ("notfound" when it has none).
    static QString getMarkerIdFromString(QString marker);

    QSeries* getSeries() const;
    qint64 getSeriesFK() const { return m_seriesFK; }
    qint64 getInstancePK() const { return m_instancePK; }
    QString getFilePath() const { return m_filePath; }
    int getInstanceNumber() const { return m_instanceNumber; }
    int getBitsAllocated() const { return m_bitsAllocated; }
    QString getSOPInstanceUID() const { return m_sopInstanceUID; }
    QString getImageType() const { return m_imageType; }
    // Rows, columns.
    const int* getImageSize() const { return m_imageSize; }
    // Row spacing, column spacing (the order of the DICOM value).
    const double* getPixelSpacing() const { return m_pixelSpacing; }
    // Patient coordinates of the first pixel (x, y, z).
    const double* getPosition() const { return m_position; }
    // The 3x3 block: row direction, column direction, normal (9 doubles, row after row).
    const double* getOrientation() const { return &m_orientation[0][0]; }
    const double* getOrientation(int i) const { return m_orientation[i < 0 || i > 2 ? 0 : i]; }
    int getMainZ() const { return m_mainZ; }
    bool isGeometryValid() const { return m_geometryValid; }
    int getEchoNumbers() const { return m_echoNumbers; }
    int getSamplesPerPixel() const { return m_samplesPerPixel; }
    QString getPhotometricInterpretation() const { return m_photometricInterpretation; }
    QString getEchoTime() const { return m_echoTime; }
    QString getRepetitionTime() const { return m_repetitionTime; }
    QString getFlipAngle() const { return m_flipAngle; }
    QString getAcquisitionTime() const { return m_acquisitionTime; }
    QString getMagneticFieldStrength() const { return m_magneticFieldStrength; }

    // Entry of the all-columns map, "" when absent (never inserts).
    QString getValue(QString key) const;
    void setValue(QString key, QString value);

    bool addMarker(QString markerId, QString marker, bool replace = false);
    // Several markers joined by "##"; true when every piece was stored.
    bool addMarkers(QString markers, bool replace = false);
    QMap<QString, QString>& getAllMarkers() { return m_markers; }

    // The decoded image of this instance's file, read on the first call and shared afterwards.
    std::shared_ptr<NDicomImage> getDicomImage();

public slots:
    void setSeriesFK(qint64 seriesFK) { m_seriesFK = seriesFK; }
    void setInstancePK(qint64 pk) { m_instancePK = pk; }
    void setFilePath(QString filePath) { m_filePath = filePath; }
    void setSOPInstanceUID(QString sopInstanceUID) { m_sopInstanceUID = sopInstanceUID; }
    void setImageType(QString imageType) { m_imageType = imageType; }
    void setInstanceNumber(int instanceNumber) { m_instanceNumber = instanceNumber; }
    void setBitsAllocated(int BitsAllocated) { m_bitsAllocated = BitsAllocated; }
    void setPixelSpacing(QString pixelSpacing);
    void setPosition(QString position);
    void setOrientation(QString orientation);
    void setImageSize(int rows, int columns);
    void setSamplesPerPixel(int samplesPerPixel) { m_samplesPerPixel = samplesPerPixel; }
    void setPhotometricInterpretation(QString photometricInterpretation) { m_photometricInterpretation = photometricInterpretation; }
    void setRepetitionTime(QString repetitionTime) { m_repetitionTime = repetitionTime; }
    void setEchoTime(QString echoTime) { m_echoTime = echoTime; }
    void setMagneticFieldStrength(QString MagneticFieldStrength) { m_magneticFieldStrength = MagneticFieldStrength; }
    void setEchoNumbers(int echoNumbers) { m_echoNumbers = echoNumbers; }
    void setFlipAngle(QString flipAngle) { m_flipAngle = flipAngle; }
    void setAcquisitionTime(QString acquisitionTime) { m_acquisitionTime = acquisitionTime; }
    void searchInstanceInfo();
    void searchInstanceAllInfo();

private:
    qint64 m_seriesFK = 0;
    qint64 m_instancePK = 0;
    QString m_filePath;
    int m_instanceNumber = 0;
    int m_bitsAllocated = 0;
    QString m_sopInstanceUID;
    QString m_imageType;
    int m_imageSize[2] = {0, 0};
    double m_pixelSpacing[2] = {0, 0};
    double m_position[3] = {0, 0, 0};
    double m_orientation[3][3] = {{0, 0, 0}, {0, 0, 0}, {0, 0, 0}};
    int m_echoNumbers = 0;
    int m_samplesPerPixel = 1;
    int m_mainZ;
    bool m_geometryValid = false;
    QMap<QString, QString> m_markers;
    QMap<QString, QString> m_allInfo;
    std::shared_ptr<NDicomImage> m_dicomImage;
    QString m_echoTime;
    QString m_repetitionTime;
    QString m_flipAngle;
    QString m_acquisitionTime;
    QString m_photometricInterpretation;
    QString m_magneticFieldStrength;
};
