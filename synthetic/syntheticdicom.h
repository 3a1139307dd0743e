#pragma once


#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dctagkey.h>
#include <dcmtk/dcmdata/dcxfer.h>

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>

#include <functional>
#include <utility>
#include <vector>

// Synthetic DICOM images written through DCMTK: the demo's phantom and the tests' inputs.

// Everything a caller states about one synthetic image. Empty UIDs are generated; empty strings
// are not written (so a test can leave an attribute out).
struct SyntheticImage {
    QString patientName = "Test^Patient";
    QByteArray patientNameBytes;        // raw bytes, written instead of patientName when set
    QString patientId = "P0001";
    QString specificCharacterSet;       // e.g. "ISO_IR 100", "ISO_IR 192", "GB18030"
    QString studyUid, seriesUid, sopUid;
    QString sopClassUid = "1.2.840.10008.5.1.4.1.1.4"; // MR Image Storage
    QString modality = "MR";
    QString studyDate = "20240131", studyTime = "101500", seriesDate = "20240131", seriesTime = "102000";
    QString studyDescription = "Head", seriesDescription = "T1 axial";
    QString studyId = "1", accessionNumber = "ACC1";
    int seriesNumber = 1;
    int instanceNumber = 1;
    QString acquisitionTime;
    QString imageType = "ORIGINAL\\PRIMARY\\M";

    int rows = 32, columns = 32;
    int bitsAllocated = 16, bitsStored = 12, pixelRepresentation = 0, samplesPerPixel = 1;
    QString photometric = "MONOCHROME2";
    QVector<double> orientation{1, 0, 0, 0, 1, 0};   // row direction, column direction
    QVector<double> position{0, 0, 0};               // ImagePositionPatient
    double rowSpacing = 1.0, columnSpacing = 1.0;    // PixelSpacing values 0 and 1
    double sliceThickness = 1.0;
    bool writeGeometry = true;
    bool hasRescale = false;
    double rescaleSlope = 1.0, rescaleIntercept = 0.0;
    double windowCenter = 0, windowWidth = 0;        // written when width > 0

    // Stored value of pixel (x, y) (sample s of RGB data); default: a ramp.
    std::function<int(int x, int y, int s)> pixel;

    // Any further attributes as DCMTK value strings.
    std::vector<std::pair<DcmTagKey, QString>> extra;
    E_TransferSyntax transferSyntax = EXS_LittleEndianExplicit;
};

// A new UID under the synthetic-data root.
QString newTestUid();

// Writes one image; false with *error set on failure.
bool writeSyntheticImage(const QString& path, SyntheticImage image, QString* error = nullptr);

// Writes COUNT slices of one series into DIR ("slice_NNN.dcm"): slice k has instance number k+1
// and position base.position + k * step. UIDs that are empty in BASE are made once for the
// series. Returns the file paths in slice order.
QStringList writeSyntheticSeries(const QString& dir, SyntheticImage base, int count,
                                 const QVector<double>& step = {0, 0, 1});

// Position step of a series along the normal of BASE's orientation, SPACING millimetres apart.
QVector<double> normalStep(const SyntheticImage& base, double spacing);
