#pragma once

#include "kestrel_global.h"

#include <QLineF>
#include <QList>
#include <QMetaType>
#include <QObject>
#include <QPointF>
#include <QPolygonF>
#include <QRectF>
#include <QString>
#include <QVector>

#include <cstdint>
#include <memory>

// Statistics of a region of interest: mean, extremes of the rescaled pixel values and the
// region's size (pixel count, rectangle area in pixels, or length in mm for lines).
struct KESTREL_EXPORT markShowValue {
    double mean = 0.0;
    int max = -1;
    int min = 2147483647;
    double size = 0.0;
};
Q_DECLARE_METATYPE(markShowValue)

// A two-dimensional image: a pixel buffer with the patient geometry of its plane (pixel spacing,
// position of the centre of pixel (0,0), row and column direction cosines), the rescale pair, a
// display window and a few descriptive values. 16-bit images keep pixStep 2; 32-bit colour images
// pixStep 4. Coordinates of pixels are (x = column, y = row).
class KESTREL_EXPORT NDicomImage : public QObject
{
    Q_OBJECT
public:
    // Defaults: pixStep 2, spacing 1 x 1, slope 1, intercept 0, window 0/0, no buffer.
    explicit NDicomImage(QObject* parent = nullptr);
    // Size and pixStep set and the buffer allocated (contents undefined); no geometry.
    NDicomImage(int width, int height, int pixStep);
    // The defaults, then InitImageInfo with the same arguments.
    NDicomImage(const int* size, const double* spacing, const double* position, const double* orientation,
                double thickness, int pixStep, int lineBytes, int totalBytes);
    ~NDicomImage() override;

    // Copies size, spacing, position and the six cosines (row, then column), pixStep and thickness.
    // Bytes per row = lineBytes when >= 1 else width * pixStep; image bytes = totalBytes when >= 1
    // else height * bytes per row. The buffer is allocated anew. The normal is not computed.
    void InitImageInfo(const int* size, const double* spacing, const double* position, const double* orientation,
                       double thickness, int pixStep, int lineBytes, int totalBytes);
    void InitImageInfo(const int* size, const double* spacing, const double* position,
                       const double (*orientation)[3], double thickness, int pixStep, int lineBytes,
                       int totalBytes);
    // Reads the image and its header from a DICOM file (readReferenceFileInfo(fileName, true));
    // always true, callers look at the image.
    bool InitImageInfo(QString fileName);

    // Geometry, thickness, pixStep and steps of src, its series description, opaque value, rescale
    // pair and window, then its pixel bytes.
    void clone(NDicomImage* src);

    // Accessors.
    char* data() { return reinterpret_cast<char*>(m_pixels); }
    const char* data() const { return reinterpret_cast<const char*>(m_pixels); }
    int width() const { return m_size[0]; }
    int height() const { return m_size[1]; }
    int* getSize() { return m_size; }
    int* getSteps() { return m_steps; }
    int getPixStep() const { return m_steps[0]; }
    double* getPixelSpacing() { return m_pixelSpacing; }
    void setPixelSpace(double spacingX, double spacingY);
    double* getPosition() { return m_position; }
    void setPosition(double x, double y, double z);
    double* getOrientation() { return &m_orientation[0][0]; }
    // Row cosines for 0, column cosines for 1, null otherwise.
    double* getOrientation(int i);
    double getThickness() const { return m_thickness; }
    void setThickness(double thickness) { m_thickness = thickness; }
    double getOriThickness() const { return m_oriThickness; }
    void setOriThickness(double thickness) { m_oriThickness = thickness; }
    double getWindowCenter() const { return m_windowCenter; }
    void setWindowCenter(double centre) { m_windowCenter = centre; }
    double getWindowWidth() const { return m_windowWidth; }
    void setWindowWidth(double width) { m_windowWidth = width; }
    void setSlopeAndIntercept(double slope, double intercept);
    double getSlope() const { return m_slope; }
    double getIntercept() const { return m_intercept; }
    double* getreorientationz() { return m_reorientationz; }
    void setreorientationz(double x, double y, double z);
    double* getijkxyz() { return m_ijkxyz; }
    double* getImageMidPoint() { return m_imageMidPoint; }
    void setInstanceNumber(int number) { m_instanceNumber = number; }
    int getInstanceNumber() const { return m_instanceNumber; }
    void setSeriesNumber(int number) { m_seriesNumber = number; }
    int getSeriesNumber() const { return m_seriesNumber; }
    void setSeriesDescription(QString description) { m_seriesDescription = description; }
    QString getSeriesDescription() const { return m_seriesDescription; }
    void setAcquisitionTime(QString time) { m_acquisitionTime = time; }
    QString getAcquisitionTime() const { return m_acquisitionTime; }
    // The opaque value carried along by clone; not interpreted here.
    qint64 getUserValue() const { return m_userValue; }
    void setUserValue(qint64 value) { m_userValue = value; }
    // Bits Stored, High Bit, Smallest/Largest Image Pixel Value as read from a file.
    int getBitsStored() const { return m_bitsStored; }
    int getHighBit() const { return m_highBit; }
    int getSmallestPixelValue() const { return m_smallestPixel; }
    int getLargestPixelValue() const { return m_largestPixel; }
    // The file the image was read from (readReferenceFileInfo).
    QString getReferenceFile() const { return m_referenceFile; }
    // Empty when the file's pixels are as acquired; otherwise what lossy compression they went
    // through ("lossy compressed (JPEG Baseline)"), for the viewer to show beside the image.
    QString getLossyNote() const { return m_lossyNote; }

    // Size changes: the steps are recomputed and the buffer allocated anew (contents undefined).
    void setImage(int width, int height, int pixStep);
    void setSize(int width, int height);
    // pixStep 4 for type 13, 2 for every other type.
    void setSize(int width, int height, int type);

    // Stores the row and column cosines and the normalised normal row x column (NaN for parallel
    // vectors; no guard).
    void setOriention(double rx, double ry, double rz, double cx, double cy, double cz);

    // Copies BYTES bytes into the buffer (allocated and zeroed first when missing); false for a
    // null pointer or when BYTES is not the image's byte size.
    bool setPixData(const char* data, int bytes);

    // Unchecked 16-bit reads and writes at x * pixStep + y * bytes per row.
    unsigned short getValue16u(int x, int y) const;
    void setValue16u(int x, int y, unsigned short value);
    // Checked read of the rescaled value, truncated and cut to 16 bits; outside the image, without
    // a buffer or for other pixel steps, the truncated intercept.
    short getValue16s(int x, int y) const;

    // Patient point of pixel (i = column, j = row).
    void getXYZ(int i, int j, double& x, double& y, double& z) const;
    // The same point; the storage is reused by the next call on this image.
    double* getTopPointXYZ(int i, int j);
    // imageMidPoint = the point of pixel (width / 2, height / 2).
    void caclulateImageMidPoint();

    // Curved images (NDicomVolume::getCurvedMPRImagePlane...): for each column the patient point of
    // its row 0 and the step in mm from one row to the next, x, y, z each. While they cover the
    // image's width, getXYZ and getTopPointXYZ give a pixel's point from them (the plane geometry
    // then only approximates the image); InitImageInfo and setColumnGeometry({}, {}) drop them.
    void setColumnGeometry(const QVector<double>& points, const QVector<double>& steps);
    const QVector<double>& getColumnPoints() const { return m_columnPoints; }
    const QVector<double>& getColumnSteps() const { return m_columnSteps; }

    // Reference lines. The segment where OTHER's plane cuts this image, in this image's pixel
    // coordinates (x = column, y = row; pixel centres at whole numbers), clipped to the image's
    // area [-0.5, width - 0.5] x [-0.5, height - 0.5]. False, LINE untouched, when the planes are
    // parallel (within a milliradian), when the line misses the image, or when either image is
    // curved or has no directions.
    bool getLocationLine(NDicomImage& other, QLineF& line);
    // Pixel coordinates (fractional) of patient point (X, Y, Z) projected onto this image's
    // plane along its normal; DISTANCE, when given, receives the signed distance in mm from the
    // plane (along row x column). NaN for a curved image or one without directions.
    QPointF getLocationIJ(double x, double y, double z, double* distance = nullptr);
    // Enlarges the canvas so that the old image fills 70% of it and moves the position to the new
    // corner; the new buffer is not filled.
    void expandImageSize();

    // Windows the image to 32-bit grey pixels (grey level in all four bytes) into OUT, which holds
    // width * height words. 32-bit images are copied as they are (result false); pixel steps other
    // than 2 and 4 give false.
    bool getGrayImage32(double width, double centre, unsigned int* out);

    // Rearranges the image into the standard display orientation of its plane (axial: row +x,
    // column +y; coronal: row +x, column -z; sagittal: row +y, column -z). Callers pass the image
    // itself. False, image unchanged, when row and column share their dominant axis.
    bool getStandardDicomImage(NDicomImage& src);

    // Fills the image from a DICOM file (geometry, rescale, window, pixels). Signed 16-bit data is
    // shifted to non-negative stored values with the shift as intercept. FLAG is kept for callers
    // (they pass true); it does not change the reading.
    bool readReferenceFileInfo(QString file, bool flag);
    // Writes the image as a new derived instance of series SERIESUID, on a copy of TEMPLATEFILE.
    bool saveAs(QString outFile, QString templateFile, QString seriesUID);

    // Region measurements (pixel coordinates).
    markShowValue getRect(const QRectF& r);
    markShowValue getEllipse(const QRectF& r);
    markShowValue getPolygon(const QPolygonF& p);
    markShowValue getLine(const QLineF& l, double spacingX, double spacingY);
    markShowValue getPolygonLine(const QPolygonF& p, double spacingX, double spacingY);
    bool contains(const QRectF& r, const QPointF& p);
    bool ellipseContains(const QRectF& r, const QPointF& centre, const QPointF& p);
    // Pixel of the highest value, and pixel of the strongest gradient, inside the polygon's
    // bounding box without its border.
    QPointF pointbetween1(QPolygonF p);
    QPointF pointbetween(QPolygonF p);
    // Vessel cross-section: the pixels of the ellipse inscribed in R are split into four sectors
    // by the lines L1 and L2 (see getSectorRegion). Result: slots 0..3 for the sectors of the
    // whole ellipse, then four slots (sectors 0..3) per polygon of POLYS for the ellipse pixels that
    // lie inside that polygon (odd-even rule). Each slot: mean, max, min, size = pixel count.
    QList<markShowValue> getVesselInfo(const QRectF& r, QList<QPolygonF> polys, QLineF l1, QLineF l2);
    // Sector of pixel (x, y) between two lines: bit 0 is set when the pixel lies on the left of L1
    // (cross product of L1's direction with the vector from L1's start to the pixel is > 0), bit 1
    // when it lies on the left of L2. Thus 0..3; a pixel on a line counts as right of it.
    int getSectorRegion(QLineF l1, QLineF l2, int x, int y);

private:
    void reallocate();
    void freePixels();
    int sampled(int x, int y) const;

    qint32 m_state = 0;
    int m_size[2] = {0, 0};
    int m_steps[3] = {2, 0, 0};
    int m_bitsStored = 15;
    int m_highBit = 15;
    int m_smallestPixel = 0;
    int m_largestPixel = 32767;
    double m_pixelSpacing[2] = {1.0, 1.0};
    double m_position[3] = {0, 0, 0};
    double m_orientation[2][3] = {{1, 0, 0}, {0, 1, 0}};
    int m_instanceNumber = 0;
    double m_thickness = 0;
    double m_oriThickness = 0;
    double m_imageMidPoint[3] = {0, 0, 0};
    double m_reorientationz[3] = {0, 0, 1};
    double m_ijkxyz[3] = {0, 0, 0};
    QString m_seriesDescription;
    QString m_acquisitionTime;
    qint64 m_userValue = 0;
    double m_slope = 1.0;
    double m_intercept = 0.0;
    double m_windowWidth = 0.0;
    double m_windowCenter = 0.0;
    QString m_referenceFile;
    QString m_refPatientPosition;
    QString m_refSoftwareVersions;
    QString m_lossyNote;
    int m_seriesNumber = 0;
    unsigned char* m_pixels = nullptr;
    double m_topPoint[3] = {0, 0, 0};
    QVector<double> m_columnPoints, m_columnSteps;

    // Window table of getGrayImage32, rebuilt only when its inputs change.
    std::unique_ptr<quint32[]> m_table;
    double m_tableSlope = 0, m_tableIntercept = 0, m_tableWidth = 0, m_tableCentre = 0;
};
