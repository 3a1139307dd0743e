// Writes the synthetic seeds of the fuzz corpora into the folder given as argument:
// DIR/dicom (images of several encodings), DIR/volume (a cached volume file, head strings) and
// DIR/bitvolume (mask header and voxels).
#include "nvolume.h"
#include "syntheticdicom.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>

#include <cstdio>

namespace {

void writeText(const QString& path, const QByteArray& text)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(text);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc < 2) {
        std::fprintf(stderr, "usage: fuzz_seeds DIR\n");
        return 2;
    }
    const QString dir = QString::fromLocal8Bit(argv[1]);
    for (const char* sub : {"dicom", "volume", "bitvolume"})
        QDir().mkpath(dir + "/" + sub);

    const QString d = dir + "/dicom/";
    SyntheticImage plain;
    plain.rows = plain.columns = 8;
    writeSyntheticImage(d + "plain.dcm", plain);
    SyntheticImage signedCt = plain;
    signedCt.modality = "CT";
    signedCt.sopClassUid = "1.2.840.10008.5.1.4.1.1.2";
    signedCt.pixelRepresentation = 1;
    signedCt.hasRescale = true;
    signedCt.rescaleIntercept = -1024;
    signedCt.windowWidth = 400;
    signedCt.windowCenter = 40;
    writeSyntheticImage(d + "signed.dcm", signedCt);
    SyntheticImage rgb = plain;
    rgb.bitsAllocated = rgb.bitsStored = 8;
    rgb.samplesPerPixel = 3;
    rgb.photometric = "RGB";
    writeSyntheticImage(d + "rgb.dcm", rgb);
    SyntheticImage latin = plain;
    latin.specificCharacterSet = "ISO_IR 100";
    latin.patientNameBytes = "M\xfcller^J\xf6rg";
    latin.transferSyntax = EXS_LittleEndianImplicit;
    latin.extra.emplace_back(DCM_EchoTime, "4.5");
    latin.extra.emplace_back(DCM_MagneticFieldStrength, "1.5");
    writeSyntheticImage(d + "latin1-implicit.dcm", latin);
    SyntheticImage phase = plain;
    phase.seriesUid = "1.2.3.30917.5";
    phase.transferSyntax = EXS_BigEndianExplicit;
    writeSyntheticImage(d + "phase-bigendian.dcm", phase);

    NVolume volume;
    if (volume.initVolume16u(128, 128, 5) > 0) {
        volume.settopxyz(-64, -64, 0);
        volume.saveAs(dir + "/volume/cube.vol");
        writeText(dir + "/volume/head.txt", volume.getStrVolumeHead().toLatin1());
    }
    QByteArray voxels(16 * 12 * 5, '\0');
    for (int i = 0; i < voxels.size(); i += 7)
        voxels[i] = char(i);
    writeText(dir + "/bitvolume/mask", "16 12 5\n" + voxels);
    writeText(dir + "/bitvolume/wrong-size", "16 12 4\n");
    return 0;
}
