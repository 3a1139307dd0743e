#pragma once

#include "kestrel_global.h"

#include <QObject>

// A three-dimensional mask of one bit per voxel. Voxel (i, j, k) is bit (i mod 32) of word
// j * GetElementRow() + i / 32 of slice k; the bits past x in a row's last word are padding.
// A tracked bounding box (top and bottom corners) follows the set voxels on request.
class KESTREL_EXPORT NBitVolume : public QObject
{
    Q_OBJECT

public:
    NBitVolume();
    NBitVolume(int x, int y, int z);
    NBitVolume(const NBitVolume& other);
    ~NBitVolume() override;

    void SetSize(int x, int y, int z);
    // Adopts BUFFER (z slice pointers); the caller keeps ownership.
    void SetSize(int x, int y, int z, unsigned int** buffer);
    void Init();
    void GetSize(int& x, int& y, int& z) const;
    int GetSizeX() const { return m_x; }
    int GetSizeY() const { return m_y; }
    int GetSizeZ() const { return m_z; }
    int GetElementRow() const { return m_wordsPerRow; }
    unsigned int** GetBuffer() { return m_slices; }

    // Unchecked access.
    bool GetVoxel(int i, int j, int k) const;
    bool getBit(int i, int j, int k) const { return GetVoxel(i, j, k); }
    void SetVoxel(int i, int j, int k, bool value);
    void setBit(int i, int j, int k);
    void unsetBit(int i, int j, int k);
    bool SafeGetVoxel(int i, int j, int k) const;
    bool CheckVox(int i, int j, int k) const;
    // Linear index n of a square-slice mask.
    bool getBit(int index) const;
    void setBit(int index);

    void ClearAll();
    void SetAll();
    void AND(NBitVolume& other);
    void OR(NBitVolume& other);
    void XOR(NBitVolume& other);
    void NOT();
    NBitVolume& operator~();
    void Copy(NBitVolume& other);

    int CountVoxNum(bool value) const;
    int CalcVoxNumSlice(int k) const;

    void SetDataTopXYZ(int x, int y, int z);
    void SetDataBottomXYZ(int x, int y, int z);
    int GetDataTopX() const { return m_top[0]; }
    int GetDataTopY() const { return m_top[1]; }
    int GetDataTopZ() const { return m_top[2]; }
    int GetDataBottomX() const { return m_bottom[0]; }
    int GetDataBottomY() const { return m_bottom[1]; }
    int GetDataBottomZ() const { return m_bottom[2]; }
    void RecalcDataTopXYZ(int i, int j, int k);
    void RecalcDataBottomXYZ(int i, int j, int k);
    void CalcBoundingBox();

    bool ReadFromRawFile(const char* path, int size[3]);
    void ReadFromMemory(const unsigned char* data, int size[3]);
    void ReadFromMemory(const unsigned short* data, int size[3]);
    bool ReadFromFile(const char* path);
    bool WriteToFile(const char* path);

private:
    void release();
    void allocate();
    unsigned int& word(int i, int j, int k) const { return m_slices[k][j * m_wordsPerRow + (i >> 5)]; }
    template <typename T> void readBytes(const T* data, int size[3]);

    int m_allocated = 0;
    unsigned int** m_slices = nullptr;
    int m_wordsPerRow = 0;
    int m_x = 0, m_y = 0, m_z = 0;
    int m_top[3] = {};
    int m_bottom[3] = {};
};
