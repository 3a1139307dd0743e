#include "qdcmfile.h"

#include "dicom/qdcmdump.h"
#include "dicom/dcmvalues_p.h"
#include "dicom/filestream_p.h"
#include "dicom/dicomtext_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcdict.h>
#include <dcmtk/dcmdata/dcdicent.h>
#include <dcmtk/dcmdata/dcfilefo.h>

#include <QDebug>
#include <QFile>

#include <sstream>

using namespace kestrel::internal;

namespace {
// Values longer than this (in practice the pixel data) stay on disk until asked for.
const Uint32 kHeaderReadLength = 4096;
} // namespace

QDcmFile::QDcmFile(QObject* parent) : QObject(parent), m_fileFormat(new DcmFileFormat) {}

QDcmFile::~QDcmFile()
{
    delete m_fileFormat;
}

bool QDcmFile::loadhead(const char* path, bool release)
{
    if (!m_fileFormat)
        m_fileFormat = new DcmFileFormat;

    const QByteArray storedName = m_fileName.toLocal8Bit();
    const char* name = path ? path : storedName.constData();
    const OFCondition status = loadDicomFile(*m_fileFormat, QByteArray(name), kHeaderReadLength);
    if (status.bad()) {
        qDebug() << "QDcmFile::loadhead" << name << status.text();
        emit fileError(QStringLiteral("can't open ") + (path ? QFile::decodeName(path) : QString()));
        return false;
    }

    DcmDataset* dataset = m_fileFormat->getDataset();
    if (dcmHas(dataset, DCM_PatientName)) {
        m_patientName = dcmDecodedString(dataset, DCM_PatientName);
        emit patientNameChanged();
    }
    if (dcmHas(dataset, DCM_SeriesInstanceUID))
        m_seriesUID = dcmString(dataset, DCM_SeriesInstanceUID);
    if (dcmHas(dataset, DCM_StudyInstanceUID))
        m_studyUID = dcmString(dataset, DCM_StudyInstanceUID);
    Sint32 number = 0;
    if (dataset && dataset->findAndGetSint32(DCM_InstanceNumber, number).good())
        m_imageNum = number;

    if (release) {
        delete m_fileFormat;
        m_fileFormat = nullptr;
    }
    return true;
}

bool QDcmFile::loadhead(QString path, bool release)
{
    m_fileName = path;
    const QByteArray encoded = QFile::encodeName(path);
    return loadhead(encoded.constData(), release);
}

bool QDcmFile::loadhead(QUrl url, bool release)
{
    return loadhead(url.toLocalFile(), release);
}

void QDcmFile::SetFileName(QString name)
{
    m_fileName = name;
}

void QDcmFile::SetFileName(const char* name)
{
    m_fileName = QFile::decodeName(name);
}

QString QDcmFile::fileName() const
{
    return m_fileName;
}

QString QDcmFile::patientName()
{
    return m_patientName;
}

void QDcmFile::setPatientName(QString name)
{
    m_patientName = name;
    emit patientNameChanged();
}

QString QDcmFile::studyUID() const
{
    return m_studyUID;
}

QString QDcmFile::seriesUID() const
{
    return m_seriesUID;
}

int QDcmFile::imageNum() const
{
    return m_imageNum;
}

DcmFileFormat* QDcmFile::dcmFileFormat()
{
    return m_fileFormat;
}

void QDcmFile::dumpFile(QString file, QString& out)
{
    QByteArray program("dumpfile");
    QByteArray encoded = QFile::encodeName(file);
    char* argv[] = {program.data(), encoded.data(), nullptr};
    std::ostringstream text;
    dumfile_main(2, argv, text);
    // The dump prints values as their bytes are, in the file's character set. Text that is not
    // UTF-8 keeps its bytes as Latin-1 characters, so that nothing is replaced.
    const std::string bytes = text.str();
    const int size = int(bytes.size());
    out = isValidUtf8(bytes.data(), size) ? QString::fromUtf8(bytes.data(), size) : QString::fromLatin1(bytes.data(), size);
}

bool QDcmFile::initDB(QString)
{
    return true;
}

int QDcmFile::getImageSize(int&, int&)
{
    return -1;
}

int QDcmFile::getOriginData(void*, int)
{
    return 0;
}

QString getDcmAttributeText(DcmItem* item, const QString& keyword)
{
    if (!item)
        return QString();
    const DcmDictEntry* entry = dcmDataDict.rdlock().findEntry(keyword.toLatin1().constData());
    const DcmTagKey key = entry ? entry->getKey() : DcmTagKey();
    dcmDataDict.rdunlock();
    return entry ? kestrel::internal::dcmDecodedString(item, key) : QString();
}
