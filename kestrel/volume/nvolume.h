#pragma once

#include "kestrel_global.h"
#include "volumehead.h"

#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QVector>

class NBitVolume;
class NDicomImage;
class VelIVolume;

// Voxel axis a raw plane is cut across: 1 = i, 2 = j, 3 = k.
enum EMainAxis { AxisI = 1, AxisJ = 2, AxisK = 3 };
// Projection rule over a slab: 1 = minimum, 2 = average, anything else = maximum.
enum RenderType { RenderMax = 0, RenderMin = 1, RenderAverage = 2 };

// The voxel value at fractional voxel position (x, y, z) by trilinear interpolation in 9-bit
// fixed point. STEPS holds the byte strides per voxel, row and slice; the position must lie one
// voxel short of each far edge. A blend whose weighted sum is negative gives 32767.
KESTREL_EXPORT short voxel_valued_sse4_s16(char* data, int* steps, float x, float y, float z);

// A three-dimensional (optionally time-resolved) volume of signed 16-bit voxels: one owned buffer
// (header block, then the frames), its VolumeHead, a table of slice pointers and the geometry that
// maps voxel indices (i, j, k) to patient millimetres.
class KESTREL_EXPORT NVolume : public QObject
{
    Q_OBJECT

public:
    explicit NVolume(QObject* parent = nullptr);
    ~NVolume() override;

    // Storage.
    int initVolume16u(int x, int y, int z);
    virtual void clone(NVolume* src);
    bool isValid();

    // Accessors.
    char* getData() { return m_data; }
    const int* geSize() const { return m_head.volumesize; }
    const double* getVoxelSpace() const { return m_head.voxelspace; }
    const double* getTopLeft() const { return m_head.topxyz; }
    VolumeHead* getHead() { return &m_head; }
    int getTimeIndex() { return m_timeIndex; }
    double* getTopPointFirstLeftandUp() { return &m_cube[0][0]; }
    QString getStrVolumeHead() { return m_strHead; }
    VelIVolume* getVelIVolume() const;

    // The head string and the volume file.
    QString volumeHeadtoString(VolumeHead& head);
    void stringToVolumeHead(QString text);
    int loadVolume(QString path);
    bool saveAs(QString path);

    // Voxel access (unchecked).
    unsigned short getVoxel(int i, int j, int k);
    void setVoxelValue16u(int i, int j, int k, unsigned short value);
    unsigned char** getLayers();
    // Histogram of the current frame into 65536 caller-zeroed 16-bit counters (which wrap).
    void getpixels(unsigned short* counters);

    // Time frames.
    void setTimeIndex(int t);

    // Geometry.
    void settopxyz(double x, double y, double z);
    void setvolumeorientation(double o0, double o1, double o2, double o3, double o4, double o5, double o6,
                              double o7, double o8);
    void updateCal();
    void setReferencePixelSpace(double a, double b);
    void setReferenceThickness(double t);
    void setprojectedmethod(int m);
    const double* getWorkingOrientation() const { return m_orientation; }
    const int* getWorkingSize() const { return m_size; }
    const double* getWorkingSpacing() const { return m_spacing; }
    const double* getWorkingOrigin() const { return m_origin; }
    int getprojectedmethod() const { return m_projectionMethod; }
    const double* getReferencePixelSpace() const { return m_referenceSpacing; }
    double getReferenceThickness() const { return m_referenceThickness; }

    double* getPointXYZ(int i, int j, int k);
    float* getPointFIJK(double x, double y, double z);
    void getCenterPoint(double& x, double& y, double& z);
    bool getCubeEightTopPosition();
    int getmainz(double a, double b, double c);
    int getPosiOrNegativeOrien(double a, double b, double c);
    double* getReverse(double a, double b, double c);

    // Masking and database.
    static void maskVolume(NVolume* volume, NBitVolume* mask);
    void getUID(qint64 seriesPk);

    // Planes and slabs. The raw plane across AXIS at INDEX, reduced over THICKNESS planes by
    // RENDER, in voxel index order; then the same reoriented for display by VIEW (the patient
    // axis, 0 = x, 1 = y, 2 = z, that each voxel axis i, j, k is closest to; null: raw plane).
    bool getDicomImagePlane(NDicomImage& image, int index, int thickness, EMainAxis axis, RenderType render);
    bool getDicomImagePlaneI(NDicomImage& image, int index, int thickness, int* view, RenderType render);
    bool getDicomImagePlaneJ(NDicomImage& image, int index, int thickness, int* view, RenderType render);
    bool getDicomImagePlaneK(NDicomImage& image, int index, int thickness, int* view, RenderType render);

    // Oblique planes and projections. Samples are trilinear between voxel centres in 9-bit fixed
    // point, as voxel_valued_sse4_s16 gives them for voxels >= 0, and rounded down for negative
    // ones (where that function gives 32767). A pixel whose samples all lie outside the volume (the
    // box of its voxel centres) gets the background: the smallest voxel of the current frame,
    // found on first use and kept until the voxels change through this object; after writing
    // voxels through getData(), call updateCal().
    //
    // The plane through CENTRE (patient mm) along ROW and COLUMN (unit and orthogonal within
    // 1e-3), WIDTH x HEIGHT pixels SPACINGX mm apart along a row and SPACINGY mm down a column, with
    // CENTRE at pixel ((WIDTH - 1) / 2, (HEIGHT - 1) / 2). A spacing of 0 or less is the reference
    // pixel spacing (setReferencePixelSpace) when one is set, else the volume's smallest. With
    // THICKNESS > 0 each pixel is the slab of that many mm along the normal ROW x COLUMN, sampled
    // every (smallest voxel spacing) mm and reduced by RENDER over the samples inside the volume.
    // The image states the geometry each pixel was sampled at, the thickness (the smallest voxel
    // spacing for a plane, the slab's samples times it for a slab) and the volume's rescale and
    // window. False, image untouched,
    // for other directions, sizes below 1 or a volume without voxels.
    bool getDicomImage(NDicomImage& image, const double* centre, const double* row, const double* column, int width,
                       int height, double spacingX, double spacingY, double thickness, RenderType render);
    // The whole volume projected by RENDER as seen from AZIMUTH and ELEVATION (degrees; at 0, 0
    // from the front, as a coronal image: rows along +x, columns towards the feet, looking along
    // +y; the azimuth turns the view about the patient's z axis from +x towards +y, the elevation
    // then lifts the viewer towards the head). The image plane passes through CENTRE (null: the
    // middle of the volume) square to the view; pixels are SPACING mm (0 or less: the smallest
    // voxel spacing), and rays are sampled as often. Its size is fixed by the volume's diagonal
    // and the centre alone, so every direction of a rotating projection gives the same frame.
    // The image's ijkxyz holds the number of samples per ray, their spacing and the rule.
    bool getDicomImage3D(NDicomImage& image, double azimuth, double elevation, RenderType render,
                         const double* centre = nullptr, double spacing = 0);
    // For pixel (X, Y) of PROJECTION (from getDicomImage3D of this volume): the shift in mm along
    // the view direction (the image's normal, row x column) from the point the image states for
    // the pixel (getXYZ) to the sample that gave its value: the brightest of its ray for the
    // maximum, the darkest for the minimum, the middle of the ray's part inside the volume for the
    // average. NaN when the ray misses the volume. A host maps a click on a rotating MIP back to
    // the patient as getXYZ(X, Y) + shift * normal.
    double getProjectShift(NDicomImage& projection, int x, int y);

    // Rotation and standardisation of the 3-D view, handed to the rendering companion; false
    // when the volume has none.
    bool StandardImage(NDicomImage& image, bool flag);
    bool shake(double angle, NDicomImage& image);
    bool getRotateImage(double angle, double x, double y, double z, NDicomImage& image);
    bool rotateX(double angle, NDicomImage& image);
    bool rotateY(double angle, NDicomImage& image);
    bool rotateZ(double angle, NDicomImage& image);
    bool rotateWXYZ(double angle, double x, double y, double z, NDicomImage& image);

protected:
    void initVelIVolume();
    short MIPProject(QList<short> values);
    short mIP(QList<short> values);
    short aIP(QList<short> values);
    // Display reorientation shared by the three plane cutters.
    bool reorientedPlane(NDicomImage& image, int index, int thickness, int fixedAxis, int* view,
                         RenderType render);
    // Releases the buffer; ALLOCATE bytes are then owned, with the voxels at OFFSET.
    bool allocateBuffer(qint64 length, int offset);
    void releaseBuffer();
    // Number of frames that really lie in the buffer (at most timeNum).
    int framesAvailable() const;
    char* bufferStart() { return m_buffer; }
    qint64 bufferLength() const { return m_bufferLength; }
    int headerOffset() const { return m_headerOffset; }
    void setVoxelPointer(char* p) { m_data = p; }
    // Value of points outside the volume in reformats: the current frame's smallest voxel.
    short backgroundValue();
    void forgetBackground() { m_backgroundFor = nullptr; }

    QVector<unsigned char*> m_layers;
    char* m_data = nullptr;
    char* m_buffer = nullptr;
    VolumeHead m_head;
    double m_orientation[9] = {};
    int m_size[3] = {};
    double m_spacing[3] = {};
    double m_origin[3] = {};
    double m_cube[8][3] = {};
    int m_projectionMethod = 1;
    double m_referenceSpacing[2] = {};
    double m_referenceThickness = 0;
    QString m_strHead;
    double m_point[3] = {};
    double m_reverse[3] = {};
    float m_fijk[3] = {};
    int m_timeIndex = 0;
    QPointer<VelIVolume> m_companion;

private:
    qint64 m_bufferLength = 0;
    int m_headerOffset = kVolumeHeaderBlock;
    const char* m_backgroundFor = nullptr; // frame whose smallest voxel m_background is
    short m_background = 0;
};
