// The importer on one file: the reading pass (series key, study, patient) and the three image
// records built from the parsed header, without a database.
#include "fuzzinput.h"
#include "qdcmfiles.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcfilefo.h>

#include <QSet>

namespace {

class Probe : public QDcmFiles
{
public:
    void run(const QString& path)
    {
        QString seriesUID;
        if (!addFile(path, seriesUID))
            return;
        QString name, echo, strength;
        getPatientName(path, name);
        getEchoTime(path, echo);
        getMagneticFieldStrength(path, strength);
        phaseOf(seriesUID, m_fileFormat);
        QSet<QString> known;
        ImageFormat format;
        ImagePix pix;
        MRImageInfo info;
        getImageFormat(&format, known, 1, m_fileFormat);
        getImagePix(&pix, known, 1, m_fileFormat);
        getMRImageInfo(&info, known, 1, m_fileFormat);
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::setUp();
    static Probe probe;
    probe.run(fuzz::writeInput(data, size));
    return 0;
}
