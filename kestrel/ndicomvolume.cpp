#include "ndicomvolume.h"

#include "internal/imagegeometry.h"
#include "ndicomimage.h"

#include <cstdlib>
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

bool NDicomVolume::planeTowards(NDicomImage& image, int index, int thickness, RenderType render, int target)
{
    // Patient axis (0 = x, 1 = y, 2 = z) that each voxel axis i, j, k is closest to.
    int view[3];
    for (int a = 0; a < 3; ++a)
        view[a] = std::abs(kestrel::internal::imageDirectionCode(m_head.orientation + 3 * a)) - 1;
    if (view[2] == target)
        return getDicomImagePlaneK(image, index, thickness, view, render);
    if (view[1] == target)
        return getDicomImagePlaneJ(image, index, thickness, view, render);
    if (view[0] == target)
        return getDicomImagePlaneI(image, index, thickness, view, render);
    return getDicomImagePlaneK(image, index, thickness, nullptr, RenderMax);
}

bool NDicomVolume::getDicomImagePlaneAxi(NDicomImage& image, int index, int thickness, RenderType render)
{
    return planeTowards(image, index, thickness, render, 2);
}

bool NDicomVolume::getDicomImagePlaneCor(NDicomImage& image, int index, int thickness, RenderType render)
{
    return planeTowards(image, index, thickness, render, 1);
}

bool NDicomVolume::getDicomImagePlaneSag(NDicomImage& image, int index, int thickness, RenderType render)
{
    return planeTowards(image, index, thickness, render, 0);
}

bool NDicomVolume::getDicomImagePlaneByIndex(NDicomImage& image, int /*index*/)
{
    // Kept as a placeholder the viewers call for sizing only; pixels come from the cutters.
    image.setSize(m_head.volumesize[0], m_head.volumesize[1]);
    image.setPixelSpace(m_head.voxelspace[0], m_head.voxelspace[1]);
    return false;
}
