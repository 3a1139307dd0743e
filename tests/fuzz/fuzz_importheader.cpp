// The importer on one file: the reading pass (series key, study, patient) and the three image
// records built from the parsed header, without a database. Where the importer's own header scan
// reads the file, DCMTK must read it too and give the same facts and records (else: abort).
#include "fuzzinput.h"
#include "qdcmfiles.h"

#include "dicom/headerscan_p.h"
#include "import/headerread_p.h"
#include "import/imagerecordfill_p.h"
#include "import/importplan_p.h"

#include <cstdlib>

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcfilefo.h>

#include <QSet>

namespace {

class Probe : public QDcmFiles
{
public:
    void compareScan(const QString& path)
    {
        using namespace kestrel::internal;
        static HeaderScan scan = import::makeScans(1).front();
        import::FileFacts fast, slow;
        if (!scan.scan(QFile::encodeName(path)) || !import::readFacts(scan, fast))
            return;
        DcmFileFormat file;
        if (file.loadFile(QFile::encodeName(path).constData(), EXS_Unknown, EGL_noChange, 1024).bad())
            std::abort(); // the scan read what DCMTK does not
        import::readFacts(file.getDataset(), slow);
        ImageFormat f1, f2;
        ImagePix p1, p2;
        MRImageInfo i1, i2;
        readImageRecords(&f1, &p1, &i1, scan);
        readImageRecords(&f2, &p2, &i2, file.getDataset());
        // Values compared as text (a NaN read from "nan" is the same NaN).
        auto same = [](const QVector<QVariant>& a, const QVector<QVariant>& b) {
            if (a.size() != b.size())
                return false;
            for (int k = 0; k < a.size(); ++k)
                if (a[k].isNull() != b[k].isNull() || a[k].userType() != b[k].userType() || a[k].toString() != b[k].toString())
                    return false;
            return true;
        };
        if (fast.sopInstanceUID != slow.sopInstanceUID || fast.seriesUID != slow.seriesUID ||
            fast.studyUID != slow.studyUID || fast.instanceNumber != slow.instanceNumber || !same(f1.values, f2.values) ||
            !same(p1.values, p2.values) || !same(i1.values, i2.values) || f1.sopInstanceUID != f2.sopInstanceUID)
            std::abort();
    }

    void run(const QString& path)
    {
        compareScan(path);
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
