#include "nvolume.h"

#include "internal/volumeheadtext.h"

#include <QDebug>
#include <QFile>
#include <QFileInfo>

#include <cstdlib>
#include <cstring>

using namespace kestrel::internal;

NVolume::NVolume(QObject* parent)
    : QObject(parent)
{
    std::memset(&m_head, 0, sizeof m_head);
}

NVolume::~NVolume()
{
    releaseBuffer();
}

void NVolume::releaseBuffer()
{
    std::free(m_buffer);
    m_buffer = nullptr;
    m_data = nullptr;
    m_bufferLength = 0;
    m_layers.clear();
}

bool NVolume::allocateBuffer(qint64 length, int offset)
{
    releaseBuffer();
    if (length < offset || length <= 0)
        return false;
    m_buffer = static_cast<char*>(std::malloc(size_t(length)));
    if (!m_buffer)
        return false;
    m_bufferLength = length;
    m_headerOffset = offset;
    m_data = m_buffer + offset;
    return true;
}

int NVolume::framesAvailable() const
{
    if (!m_buffer)
        return 0;
    return framesInBuffer(m_head, m_headerOffset, m_bufferLength);
}

int NVolume::initVolume16u(int x, int y, int z)
{
    m_head.volumesize[0] = x;
    m_head.volumesize[1] = y;
    m_head.volumesize[2] = z;
    m_head.volumestep[0] = 2;
    m_head.volumestep[1] = 2 * x;
    m_head.volumestep[2] = 2 * x * y;
    m_head.volumestep[3] = 2 * x * y * z;
    // This builder has always put the voxels right after the 368-byte head instead of the
    // 512-byte block; volumes made by it are addressed through their real header offset.
    m_head.totallen = qint64(2) * x * y * z + qint64(sizeof(VolumeHead));
    allocateBuffer(m_head.totallen, int(sizeof(VolumeHead)));
    m_timeIndex = 0;
    return 1;
}

void NVolume::clone(NVolume* src)
{
    if (!src)
        return;
    const VolumeHead& s = src->m_head;
    initVolume16u(s.volumesize[0], s.volumesize[1], s.volumesize[2]);
    std::memcpy(m_head.magic, s.magic, sizeof m_head.magic);
    std::memcpy(m_head.SEUID, s.SEUID, sizeof m_head.SEUID);
    std::memcpy(m_head.STUID, s.STUID, sizeof m_head.STUID);
    m_head.SEPK = s.SEPK;
    std::memcpy(m_head.voxelspace, s.voxelspace, sizeof m_head.voxelspace);
    m_head.thinkness = s.thinkness;
    std::memcpy(m_head.topxyz, s.topxyz, sizeof m_head.topxyz);
    std::memcpy(m_head.orientation, s.orientation, sizeof m_head.orientation);
    m_head.SamplesPerPixel = s.SamplesPerPixel;
    m_head.PhotometricInterpretation = s.PhotometricInterpretation;
    m_head.BitsAllocated = s.BitsAllocated;
    m_head.HighBit = s.HighBit;
    m_head.RescaleIntercept = s.RescaleIntercept;
    m_head.RescaleSlope = s.RescaleSlope;
    m_head.WindowCenter = s.WindowCenter;
    m_head.WindowWidth = s.WindowWidth;
    m_head.isOrder = s.isOrder;
    m_head.timeNum = s.timeNum;
    if (!m_buffer || !src->m_buffer || !src->m_data)
        return;
    // One frame: the source's current one, never past the end of either buffer.
    qint64 bytes = m_head.volumestep[3];
    bytes = qMin(bytes, m_bufferLength - m_headerOffset);
    bytes = qMin(bytes, qint64(src->m_buffer + src->m_bufferLength - src->m_data));
    if (bytes > 0)
        std::memcpy(m_data, src->m_data, size_t(bytes));
}

bool NVolume::isValid()
{
    return m_head.volumesize[2] != 0;
}

QString NVolume::volumeHeadtoString(VolumeHead& head)
{
    return volumeHeadText(head);
}

void NVolume::stringToVolumeHead(QString text)
{
    parseVolumeHeadText(text, m_head);
}

int NVolume::loadVolume(QString path)
{
    QFile file(path);
    if (!file.exists() || !file.open(QIODevice::ReadOnly))
        return -1;
    const qint64 fileSize = file.size();
    // Anything up to 128 KiB is not a volume file.
    if (fileSize <= 0x20000)
        return -1;
    VolumeHead head;
    if (file.read(reinterpret_cast<char*>(&head), sizeof head) != qint64(sizeof head))
        return -1;
    // The head decides the allocation: it must describe this file and fit its own buffer.
    if (head.totallen < kVolumeHeaderBlock || head.totallen > fileSize
        || framesInBuffer(head, kVolumeHeaderBlock, head.totallen) < 1) {
        qWarning() << "NVolume::loadVolume: head does not match the file" << path;
        return -1;
    }
    if (!file.seek(0))
        return -1;
    m_head = head;
    if (!allocateBuffer(head.totallen, kVolumeHeaderBlock)) {
        std::memset(&m_head.volumesize, 0, sizeof m_head.volumesize);
        return -1;
    }
    m_timeIndex = 0;
    if (file.read(m_buffer, head.totallen) != head.totallen)
        return -1;
    updateCal();
    initVelIVolume();
    return 1;
}

bool NVolume::saveAs(QString path)
{
    if (m_buffer) {
        QFile file(path);
        if (file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            std::memcpy(m_buffer, &m_head, sizeof m_head);
            const qint64 length = qMin(m_head.totallen, m_bufferLength);
            if (length < 0 || file.write(m_buffer, length) != length || !file.flush()) {
                file.close();
                file.remove();
                return false;
            }
            file.close();
        }
    }
    // Also reached when nothing could be written: callers check the file themselves and only
    // need the head string, which the application always gets from here.
    m_strHead = volumeHeadtoString(m_head);
    return true;
}

void NVolume::updateCal()
{
    std::memcpy(m_orientation, m_head.orientation, sizeof m_orientation);
    std::memcpy(m_origin, m_head.topxyz, sizeof m_origin);
    std::memcpy(m_spacing, m_head.voxelspace, sizeof m_spacing);
    std::memcpy(m_size, m_head.volumesize, sizeof m_size);
}

void NVolume::initVelIVolume()
{
}
