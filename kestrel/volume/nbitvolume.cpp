#include "nbitvolume.h"

#include <QByteArray>
#include <QFile>
#include <QList>

#include <algorithm>
#include <cstring>

NBitVolume::NBitVolume()
    : QObject(nullptr)
{
}

NBitVolume::NBitVolume(int x, int y, int z)
    : QObject(nullptr)
{
    SetSize(x, y, z);
}

NBitVolume::NBitVolume(const NBitVolume& other)
    : QObject(nullptr)
{
    if (!other.m_slices) {
        Init();
        return;
    }
    SetSize(other.m_x, other.m_y, other.m_z);
    const size_t words = size_t(m_wordsPerRow) * size_t(m_y);
    for (int k = 0; k < m_z; ++k)
        std::memcpy(m_slices[k], other.m_slices[k], words * sizeof(unsigned int));
    std::copy(other.m_top, other.m_top + 3, m_top);
    std::copy(other.m_bottom, other.m_bottom + 3, m_bottom);
}

NBitVolume::~NBitVolume()
{
    release();
}

void NBitVolume::release()
{
    if (m_allocated && m_slices) {
        for (int k = 0; k < m_z; ++k)
            delete[] m_slices[k];
        delete[] m_slices;
    }
    m_slices = nullptr;
    m_allocated = 0;
}

void NBitVolume::allocate()
{
    m_slices = new unsigned int*[size_t(std::max(m_z, 0))];
    const size_t words = size_t(m_wordsPerRow) * size_t(std::max(m_y, 0));
    for (int k = 0; k < m_z; ++k)
        m_slices[k] = new unsigned int[words];
    m_allocated = 1;
}

void NBitVolume::SetSize(int x, int y, int z)
{
    release();
    m_x = x;
    m_y = y;
    m_z = z;
    m_wordsPerRow = x > 0 ? ((x - 1) >> 5) + 1 : 0;
    SetDataTopXYZ(0, 0, 0);
    SetDataBottomXYZ(x - 1, y - 1, z - 1);
    allocate();
}

void NBitVolume::SetSize(int x, int y, int z, unsigned int** buffer)
{
    release();
    m_x = x;
    m_y = y;
    m_z = z;
    m_wordsPerRow = (x + 31) >> 5;
    SetDataTopXYZ(0, 0, 0);
    SetDataBottomXYZ(x - 1, y - 1, z - 1);
    m_slices = buffer;
}

void NBitVolume::Init()
{
    m_x = m_y = m_z = 0;
    m_wordsPerRow = 0;
    m_top[0] = 0;
    m_bottom[2] = 0;
    m_allocated = 0;
    m_slices = nullptr;
}

void NBitVolume::GetSize(int& x, int& y, int& z) const
{
    x = m_x;
    y = m_y;
    z = m_z;
}

bool NBitVolume::GetVoxel(int i, int j, int k) const
{
    return (word(i, j, k) >> (i & 31)) & 1u;
}

void NBitVolume::SetVoxel(int i, int j, int k, bool value)
{
    if (value)
        setBit(i, j, k);
    else
        unsetBit(i, j, k);
}

void NBitVolume::setBit(int i, int j, int k)
{
    word(i, j, k) |= 1u << (i & 31);
}

void NBitVolume::unsetBit(int i, int j, int k)
{
    word(i, j, k) &= ~(1u << (i & 31));
}

bool NBitVolume::SafeGetVoxel(int i, int j, int k) const
{
    if (i >= m_x || j >= m_y || k >= m_z)
        return false;
    return GetVoxel(i, j, k);
}

bool NBitVolume::CheckVox(int i, int j, int k) const
{
    return i >= 0 && i < m_x && j >= 0 && j < m_y && k >= 0 && k < m_z;
}

// The masks built by the application are square in-plane, and its stored linear indices were made
// with this split; it is kept as it is so that those indices keep addressing the same voxels.
bool NBitVolume::getBit(int index) const
{
    const int plane = m_x * m_y;
    const int k = index / plane;
    const int j = (index % plane) / m_x;
    const int i = index - (m_x * k + j) * m_y;
    return GetVoxel(i, j, k);
}

void NBitVolume::setBit(int index)
{
    const int plane = m_x * m_y;
    const int k = index / plane;
    const int j = (index % plane) / m_x;
    const int i = index - (m_x * k + j) * m_y;
    setBit(i, j, k);
}

void NBitVolume::ClearAll()
{
    const size_t words = size_t(m_wordsPerRow) * size_t(m_y);
    for (int k = 0; k < m_z; ++k)
        std::memset(m_slices[k], 0, words * sizeof(unsigned int));
    SetDataTopXYZ(0, 0, 0);
    SetDataBottomXYZ(0, 0, 0);
}

void NBitVolume::SetAll()
{
    const size_t words = size_t(m_wordsPerRow) * size_t(m_y);
    for (int k = 0; k < m_z; ++k)
        std::memset(m_slices[k], 0xff, words * sizeof(unsigned int));
    SetDataTopXYZ(0, 0, 0);
    SetDataBottomXYZ(m_x - 1, m_y - 1, m_z - 1);
}

void NBitVolume::AND(NBitVolume& other)
{
    const int words = m_wordsPerRow * m_y;
    for (int k = 0; k < m_z; ++k)
        for (int w = 0; w < words; ++w)
            m_slices[k][w] &= other.m_slices[k][w];
}

void NBitVolume::OR(NBitVolume& other)
{
    const int words = m_wordsPerRow * m_y;
    for (int k = 0; k < m_z; ++k)
        for (int w = 0; w < words; ++w)
            m_slices[k][w] |= other.m_slices[k][w];
}

void NBitVolume::XOR(NBitVolume& other)
{
    const int words = m_wordsPerRow * m_y;
    for (int k = 0; k < m_z; ++k)
        for (int w = 0; w < words; ++w)
            m_slices[k][w] ^= other.m_slices[k][w];
}

void NBitVolume::NOT()
{
    const int words = m_wordsPerRow * m_y;
    for (int k = 0; k < m_z; ++k)
        for (int w = 0; w < words; ++w)
            m_slices[k][w] = ~m_slices[k][w];
}

NBitVolume& NBitVolume::operator~()
{
    NOT();
    return *this;
}

void NBitVolume::Copy(NBitVolume& other)
{
    m_wordsPerRow = other.m_wordsPerRow;
    std::copy(other.m_top, other.m_top + 3, m_top);
    std::copy(other.m_bottom, other.m_bottom + 3, m_bottom);
    const size_t words = size_t(m_wordsPerRow) * size_t(m_y);
    for (int k = 0; k < m_z; ++k)
        std::memcpy(m_slices[k], other.m_slices[k], words * sizeof(unsigned int));
}

int NBitVolume::CalcVoxNumSlice(int k) const
{
    int count = 0;
    const unsigned int tailMask = (m_x & 31) ? (1u << (m_x & 31)) - 1u : ~0u;
    for (int j = 0; j < m_y; ++j) {
        const unsigned int* row = m_slices[k] + size_t(j) * m_wordsPerRow;
        for (int w = 0; w < m_wordsPerRow; ++w) {
            const unsigned int bits = (w == m_wordsPerRow - 1) ? row[w] & tailMask : row[w];
            count += __builtin_popcount(bits);
        }
    }
    return count;
}

int NBitVolume::CountVoxNum(bool value) const
{
    int set = 0;
    for (int k = 0; k < m_z; ++k)
        set += CalcVoxNumSlice(k);
    return value ? set : m_x * m_y * m_z - set;
}

void NBitVolume::SetDataTopXYZ(int x, int y, int z)
{
    m_top[0] = x;
    m_top[1] = y;
    m_top[2] = z;
}

void NBitVolume::SetDataBottomXYZ(int x, int y, int z)
{
    m_bottom[0] = x;
    m_bottom[1] = y;
    m_bottom[2] = z;
}

void NBitVolume::RecalcDataTopXYZ(int i, int j, int k)
{
    const int v[3] = {i, j, k};
    for (int a = 0; a < 3; ++a)
        m_top[a] = std::max(std::min(m_top[a], v[a]), 0);
}

void NBitVolume::RecalcDataBottomXYZ(int i, int j, int k)
{
    const int v[3] = {i, j, k};
    const int limit[3] = {m_x - 1, m_y - 1, m_z - 1};
    for (int a = 0; a < 3; ++a)
        m_bottom[a] = std::min(std::max(m_bottom[a], v[a]), limit[a]);
}

void NBitVolume::CalcBoundingBox()
{
    int top[3] = {m_x, m_y, m_z};
    int bottom[3] = {-1, -1, -1};
    for (int k = 0; k < m_z; ++k)
        for (int j = 0; j < m_y; ++j)
            for (int i = 0; i < m_x; ++i) {
                if (!GetVoxel(i, j, k))
                    continue;
                const int v[3] = {i, j, k};
                for (int a = 0; a < 3; ++a) {
                    top[a] = std::min(top[a], v[a]);
                    bottom[a] = std::max(bottom[a], v[a]);
                }
            }
    if (bottom[0] < 0) { // nothing set
        SetDataTopXYZ(0, 0, 0);
        SetDataBottomXYZ(0, 0, 0);
        return;
    }
    SetDataTopXYZ(top[0], top[1], top[2]);
    SetDataBottomXYZ(bottom[0], bottom[1], bottom[2]);
}

template <typename T> void NBitVolume::readBytes(const T* data, int size[3])
{
    for (int k = 0; k < size[2]; ++k)
        for (int j = 0; j < size[1]; ++j)
            for (int i = 0; i < size[0]; ++i)
                SetVoxel(i, j, k, data[(size_t(k) * size[1] + j) * size[0] + i] != 0);
}

bool NBitVolume::ReadFromRawFile(const char* path, int size[3])
{
    QFile file(QString::fromLocal8Bit(path));
    if (!file.open(QIODevice::ReadOnly) || size[1] == 0)
        return false;
    SetSize(size[0], size[1], size[2]);
    ClearAll();
    SetDataTopXYZ(0, 0, 0);
    SetDataBottomXYZ(m_x - 1, m_y - 1, m_z - 1);
    // A short file leaves the rest of the mask clear.
    const qint64 count = qint64(std::max(size[0], 0)) * std::max(size[1], 0) * std::max(size[2], 0);
    QByteArray bytes = file.read(count);
    bytes.append(QByteArray(int(count - bytes.size()), '\0'));
    readBytes(reinterpret_cast<const unsigned char*>(bytes.constData()), size);
    return true;
}

void NBitVolume::ReadFromMemory(const unsigned char* data, int size[3])
{
    SetSize(size[0], size[1], size[2]);
    readBytes(data, size);
}

void NBitVolume::ReadFromMemory(const unsigned short* data, int size[3])
{
    SetSize(size[0], size[1], size[2]);
    readBytes(data, size);
}

bool NBitVolume::ReadFromFile(const char* path)
{
    const QString headerPath = QString::fromLocal8Bit(path);
    QFile header(headerPath);
    if (!header.open(QIODevice::ReadOnly))
        return false;
    const QList<QByteArray> items = header.readAll().trimmed().split(' ');
    if (items.size() < 3 || items.at(1).isEmpty())
        return false;
    int size[3] = {items.at(0).toInt(), items.at(1).toInt(), items.at(2).trimmed().toInt()};
    // The mask must already have the header's size; it is not resized here.
    if (size[0] != m_x || size[1] != m_y || size[2] != m_z || !m_slices)
        return false;
    QFile voxels(QString(headerPath).replace("txt", "dat"));
    if (!voxels.open(QIODevice::ReadOnly))
        return false;
    const qint64 count = qint64(m_x) * m_y * m_z;
    QByteArray bytes = voxels.read(count);
    bytes.append(QByteArray(int(count - bytes.size()), '\0'));
    readBytes(reinterpret_cast<const unsigned char*>(bytes.constData()), size);
    return true;
}

bool NBitVolume::WriteToFile(const char*)
{
    return false;
}
