#include "ndicomvolume.h"

#include <cstring>

NDicomVolume::NDicomVolume(QObject* parent)
    : NVolume(parent)
{
}

NDicomVolume::NDicomVolume(VolumeHead* head, char* data, qint64 length, QObject* parent)
    : NVolume(parent)
{
    if (!head || !data || length < 0)
        return;
    if (!allocateBuffer(length + kVolumeHeaderBlock, kVolumeHeaderBlock))
        return;
    std::memcpy(m_data, data, size_t(length));
    m_head = *head;
    m_head.totallen = length + kVolumeHeaderBlock;
    std::memset(m_buffer, 0, kVolumeHeaderBlock);
    std::memcpy(m_buffer, &m_head, sizeof m_head);
}

NDicomVolume::~NDicomVolume() = default;
