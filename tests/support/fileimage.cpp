#include "fileimage.h"

#include "dicom/dcmvalues_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>

#include <QFile>

using namespace kestrel::internal;

bool readFileImage(const QString& path, FileImage& out)
{
    DcmFileFormat file;
    if (file.loadFile(QFile::encodeName(path).constData()).bad())
        return false;
    DcmDataset* ds = file.getDataset();
    const QVector<double> ipp = dcmDoubles(ds, DCM_ImagePositionPatient), iop = dcmDoubles(ds, DCM_ImageOrientationPatient),
                          ps = dcmDoubles(ds, DCM_PixelSpacing);
    if (ipp.size() < 3 || iop.size() < 6 || ps.size() < 2)
        return false;
    for (int a = 0; a < 3; ++a) {
        out.position[a] = ipp[a];
        out.row[a] = iop[a];
        out.column[a] = iop[3 + a];
    }
    out.betweenRows = ps[0];
    out.betweenColumns = ps[1];
    out.rows = dcmInt(ds, DCM_Rows);
    out.columns = dcmInt(ds, DCM_Columns);
    const int stored = dcmInt(ds, DCM_BitsStored, 16), high = dcmInt(ds, DCM_HighBit, stored - 1);
    const bool isSigned = dcmInt(ds, DCM_PixelRepresentation) == 1;
    const double slope = dcmDouble(ds, DCM_RescaleSlope, 1.0), intercept = dcmDouble(ds, DCM_RescaleIntercept, 0.0);
    const Uint16* words = nullptr;
    unsigned long count = 0;
    if (dcmInt(ds, DCM_BitsAllocated) != 16 || ds->findAndGetUint16Array(DCM_PixelData, words, &count).bad()
        || count < static_cast<unsigned long>(out.rows * out.columns))
        return false;
    out.real.resize(out.rows * out.columns);
    for (int n = 0; n < out.real.size(); ++n) {
        qint64 v = (words[n] >> (high + 1 - stored)) & ((1 << stored) - 1);
        if (isSigned && (v >> (stored - 1)) & 1)
            v -= qint64(1) << stored;
        out.real[n] = double(v) * slope + intercept;
    }
    return true;
}


QString fileText(const QString& file, const DcmTagKey& tag)
{
    DcmFileFormat ff;
    if (ff.loadFile(QFile::encodeName(file).constData()).bad())
        return QStringLiteral("<unreadable>");
    OFString value;
    ff.getDataset()->findAndGetOFStringArray(tag, value);
    return QString::fromLatin1(value.c_str());
}
