#include "nvolume.h"

#include "geometry/slicestack_p.h"
#include "platform/shareout_p.h"
#include "volume/volumecache_p.h"
#include "volume/volumeheadtext_p.h"
#include "volume/volumeplugin_p.h"
#include "simd/kernels_p.h"
#include "ndicomimage.h"
#include "nbitvolume.h"
#include "velivolume.h"

#include <QDebug>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

#include <sys/mman.h>

using namespace kestrel::internal;

NVolume::NVolume(QObject* parent)
    : QObject(parent)
{
    std::memset(&m_head, 0, sizeof m_head);
}

NVolume::~NVolume()
{
    delete m_companion.data();
    releaseBuffer();
}

namespace {

// Large volumes sit on 2 MB pages where the system allows them: loading touches every page once,
// and the sagittal and coronal cutters stride through the whole buffer; with 4 KB pages much of
// their time went to page faults and page-table walks. Below 32 MB the allocator keeps freed
// buffers for the next volume, which is faster still.
char* allocateVoxels(qint64 length)
{
    constexpr size_t hugePage = size_t(2) << 20;
    if (length < qint64(32) << 20)
        return static_cast<char*>(std::malloc(size_t(length)));
    const size_t rounded = (size_t(length) + hugePage - 1) / hugePage * hugePage;
    void* buffer = std::aligned_alloc(hugePage, rounded);
    if (buffer)
        madvise(buffer, rounded, MADV_HUGEPAGE);
    return static_cast<char*>(buffer);
}

} // namespace

void NVolume::releaseBuffer()
{
    forgetBackground();
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
    m_buffer = allocateVoxels(length);
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
    // Sizes whose strides do not fit the head's 32-bit fields give an empty volume.
    if (x < 0 || y < 0 || z < 0 || qint64(2) * x * y * z > std::numeric_limits<qint32>::max()) {
        releaseBuffer();
        std::memset(m_head.volumesize, 0, sizeof m_head.volumesize);
        std::memset(m_head.volumestep, 0, sizeof m_head.volumestep);
        m_head.totallen = 0;
        return 0;
    }
    m_head.volumesize[0] = x;
    m_head.volumesize[1] = y;
    m_head.volumesize[2] = z;
    m_head.volumestep[0] = 2;
    m_head.volumestep[1] = 2 * x;
    m_head.volumestep[2] = 2 * x * y;
    m_head.volumestep[3] = 2 * x * y * z;
    // The voxels follow the 512-byte header block, as in every volume file, so that saveAs writes
    // a file loadVolume reads back.
    m_head.totallen = qint64(2) * x * y * z + kVolumeHeaderBlock;
    if (allocateBuffer(m_head.totallen, kVolumeHeaderBlock))
        std::memset(m_buffer, 0, kVolumeHeaderBlock);
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
    VolumeHead head;
    if (file.read(reinterpret_cast<char*>(&head), sizeof head) != qint64(sizeof head))
        return -1;
    // The head decides the allocation: it must describe this file and fit its own buffer.
    if (const QString fault = volumeFileFault(head, fileSize); !fault.isEmpty()) {
        qWarning() << "NVolume::loadVolume: head does not match the file" << path << fault;
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
    forgetBackground();
    std::memcpy(m_orientation, m_head.orientation, sizeof m_orientation);
    std::memcpy(m_origin, m_head.topxyz, sizeof m_origin);
    std::memcpy(m_spacing, m_head.voxelspace, sizeof m_spacing);
    std::memcpy(m_size, m_head.volumesize, sizeof m_size);
}

void NVolume::initVelIVolume()
{
    if (m_companion)
        m_companion->deleteLater();
    m_companion = createVolumeCompanion();
    if (m_companion)
        m_companion->setVolume(this);
}

bool NVolume::StandardImage(NDicomImage& image, bool flag)
{
    if (!m_companion)
        return false;
    m_companion->StandardImage(image, flag);
    return true;
}

bool NVolume::shake(double angle, NDicomImage& image)
{
    if (!m_companion)
        return false;
    m_companion->shake(angle, image);
    return true;
}

bool NVolume::getRotateImage(double angle, double x, double y, double z, NDicomImage& image)
{
    if (!m_companion)
        return false;
    m_companion->getRotateImage(angle, x, y, z, image);
    return true;
}

bool NVolume::rotateX(double angle, NDicomImage& image)
{
    if (!m_companion)
        return false;
    m_companion->rotateX(angle, image);
    return true;
}

bool NVolume::rotateY(double angle, NDicomImage& image)
{
    if (!m_companion)
        return false;
    m_companion->rotateY(angle, image);
    return true;
}

bool NVolume::rotateZ(double angle, NDicomImage& image)
{
    if (!m_companion)
        return false;
    m_companion->rotateZ(angle, image);
    return true;
}

bool NVolume::rotateWXYZ(double angle, double x, double y, double z, NDicomImage& image)
{
    if (!m_companion)
        return false;
    m_companion->rotateWXYZ(angle, x, y, z, image);
    return true;
}

// --- voxels -------------------------------------------------------------------------------

unsigned short NVolume::getVoxel(int i, int j, int k)
{
    unsigned short v;
    std::memcpy(&v, m_data + qint64(i) * m_head.volumestep[0] + qint64(j) * m_head.volumestep[1]
                    + qint64(k) * m_head.volumestep[2], 2);
    return v;
}

void NVolume::setVoxelValue16u(int i, int j, int k, unsigned short value)
{
    forgetBackground();
    std::memcpy(m_data + qint64(i) * m_head.volumestep[0] + qint64(j) * m_head.volumestep[1]
                    + qint64(k) * m_head.volumestep[2], &value, 2);
}

unsigned char** NVolume::getLayers()
{
    const int z = qMax(0, m_head.volumesize[2]);
    m_layers.resize(z);
    for (int k = 0; k < z; ++k)
        m_layers[k] = m_data ? reinterpret_cast<unsigned char*>(m_data + qint64(k) * m_head.volumestep[2]) : nullptr;
    return m_layers.data();
}

void NVolume::getpixels(unsigned short* counters)
{
    if (!counters || framesAvailable() < 1)
        return;
    // 16-bit counters wrap at 65536: the histogram views only compare shapes, and they size
    // their counters this way.
    for (int i = 0; i < m_head.volumesize[0]; ++i)
        for (int j = 0; j < m_head.volumesize[1]; ++j)
            for (int k = 0; k < m_head.volumesize[2]; ++k)
                ++counters[getVoxel(i, j, k)];
}

void NVolume::setTimeIndex(int t)
{
    qDebug() << "NVolume::setTimeIndex" << t << "qqqqqqqqq";
    if (t < 0 || t >= m_head.timeNum || t >= framesAvailable())
        return;
    m_timeIndex = t;
    m_data = m_buffer + m_headerOffset + qint64(t) * m_head.volumestep[3];
    getLayers();
}

// --- geometry -----------------------------------------------------------------------------

void NVolume::settopxyz(double x, double y, double z)
{
    m_origin[0] = x;
    m_origin[1] = y;
    m_origin[2] = z;
}

void NVolume::setvolumeorientation(double o0, double o1, double o2, double o3, double o4, double o5, double o6,
                                   double o7, double o8)
{
    const double o[9] = {o0, o1, o2, o3, o4, o5, o6, o7, o8};
    std::memcpy(m_orientation, o, sizeof o);
}

void NVolume::setReferencePixelSpace(double a, double b)
{
    m_referenceSpacing[0] = a;
    m_referenceSpacing[1] = b;
}

void NVolume::setReferenceThickness(double t)
{
    m_referenceThickness = t;
}

void NVolume::setprojectedmethod(int m)
{
    m_projectionMethod = m;
}

double* NVolume::getPointXYZ(int i, int j, int k)
{
    const double* s = m_head.voxelspace;
    const double* o = m_head.orientation;
    const double* t = m_head.topxyz;
    for (int r = 0; r < 3; ++r)
        m_point[r] = s[0] * o[r] * i + s[1] * o[3 + r] * j + s[2] * o[6 + r] * k + t[r];
    return m_point;
}

namespace {

// General 4x4 inverse by cofactors (row-major). False when the determinant is 0.
bool invert4(const double m[16], double inv[16])
{
    inv[0] = m[5] * m[10] * m[15] - m[5] * m[11] * m[14] - m[9] * m[6] * m[15] + m[9] * m[7] * m[14]
        + m[13] * m[6] * m[11] - m[13] * m[7] * m[10];
    inv[4] = -m[4] * m[10] * m[15] + m[4] * m[11] * m[14] + m[8] * m[6] * m[15] - m[8] * m[7] * m[14]
        - m[12] * m[6] * m[11] + m[12] * m[7] * m[10];
    inv[8] = m[4] * m[9] * m[15] - m[4] * m[11] * m[13] - m[8] * m[5] * m[15] + m[8] * m[7] * m[13]
        + m[12] * m[5] * m[11] - m[12] * m[7] * m[9];
    inv[12] = -m[4] * m[9] * m[14] + m[4] * m[10] * m[13] + m[8] * m[5] * m[14] - m[8] * m[6] * m[13]
        - m[12] * m[5] * m[10] + m[12] * m[6] * m[9];
    inv[1] = -m[1] * m[10] * m[15] + m[1] * m[11] * m[14] + m[9] * m[2] * m[15] - m[9] * m[3] * m[14]
        - m[13] * m[2] * m[11] + m[13] * m[3] * m[10];
    inv[5] = m[0] * m[10] * m[15] - m[0] * m[11] * m[14] - m[8] * m[2] * m[15] + m[8] * m[3] * m[14]
        + m[12] * m[2] * m[11] - m[12] * m[3] * m[10];
    inv[9] = -m[0] * m[9] * m[15] + m[0] * m[11] * m[13] + m[8] * m[1] * m[15] - m[8] * m[3] * m[13]
        - m[12] * m[1] * m[11] + m[12] * m[3] * m[9];
    inv[13] = m[0] * m[9] * m[14] - m[0] * m[10] * m[13] - m[8] * m[1] * m[14] + m[8] * m[2] * m[13]
        + m[12] * m[1] * m[10] - m[12] * m[2] * m[9];
    inv[2] = m[1] * m[6] * m[15] - m[1] * m[7] * m[14] - m[5] * m[2] * m[15] + m[5] * m[3] * m[14]
        + m[13] * m[2] * m[7] - m[13] * m[3] * m[6];
    inv[6] = -m[0] * m[6] * m[15] + m[0] * m[7] * m[14] + m[4] * m[2] * m[15] - m[4] * m[3] * m[14]
        - m[12] * m[2] * m[7] + m[12] * m[3] * m[6];
    inv[10] = m[0] * m[5] * m[15] - m[0] * m[7] * m[13] - m[4] * m[1] * m[15] + m[4] * m[3] * m[13]
        + m[12] * m[1] * m[7] - m[12] * m[3] * m[5];
    inv[14] = -m[0] * m[5] * m[14] + m[0] * m[6] * m[13] + m[4] * m[1] * m[14] - m[4] * m[2] * m[13]
        - m[12] * m[1] * m[6] + m[12] * m[2] * m[5];
    inv[3] = -m[1] * m[6] * m[11] + m[1] * m[7] * m[10] + m[5] * m[2] * m[11] - m[5] * m[3] * m[10]
        - m[9] * m[2] * m[7] + m[9] * m[3] * m[6];
    inv[7] = m[0] * m[6] * m[11] - m[0] * m[7] * m[10] - m[4] * m[2] * m[11] + m[4] * m[3] * m[10]
        + m[8] * m[2] * m[7] - m[8] * m[3] * m[6];
    inv[11] = -m[0] * m[5] * m[11] + m[0] * m[7] * m[9] + m[4] * m[1] * m[11] - m[4] * m[3] * m[9]
        - m[8] * m[1] * m[7] + m[8] * m[3] * m[5];
    inv[15] = m[0] * m[5] * m[10] - m[0] * m[6] * m[9] - m[4] * m[1] * m[10] + m[4] * m[2] * m[9]
        + m[8] * m[1] * m[6] - m[8] * m[2] * m[5];
    const double det = m[0] * inv[0] + m[1] * inv[4] + m[2] * inv[8] + m[3] * inv[12];
    if (det == 0)
        return false;
    for (int i = 0; i < 16; ++i)
        inv[i] /= det;
    return true;
}

} // namespace

float* NVolume::getPointFIJK(double x, double y, double z)
{
    const double* s = m_head.voxelspace;
    const double* o = m_head.orientation;
    const double* t = m_head.topxyz;
    // Rows of M: column c of M is axis c scaled by its spacing, the last column the origin.
    const double m[16] = {s[0] * o[0], s[1] * o[3], s[2] * o[6], t[0],
                          s[0] * o[1], s[1] * o[4], s[2] * o[7], t[1],
                          s[0] * o[2], s[1] * o[5], s[2] * o[8], t[2],
                          0, 0, 0, 1};
    double inv[16];
    if (!invert4(m, inv))
        return m_fijk; // singular geometry: the previous result stays
    for (int r = 0; r < 3; ++r)
        m_fijk[r] = float(inv[4 * r] * x + inv[4 * r + 1] * y + inv[4 * r + 2] * z + inv[4 * r + 3]);
    return m_fijk;
}

void NVolume::getCenterPoint(double& x, double& y, double& z)
{
    const double* s = m_head.voxelspace;
    const double* o = m_head.orientation;
    const double* t = m_head.topxyz;
    const int* n = m_head.volumesize;
    // The viewers place their reference point with exactly this expression (subtracted half
    // extents, and the i direction's y component in the z line); they are calibrated to it.
    x = t[0] - 0.5 * o[0] * s[0] * n[0] - 0.5 * o[3] * s[1] * n[1] - 0.5 * o[6] * s[2] * n[2];
    y = t[1] - 0.5 * o[1] * s[0] * n[0] - 0.5 * o[4] * s[1] * n[1] - 0.5 * o[7] * s[2] * n[2];
    z = t[2] - 0.5 * o[1] * s[0] * n[0] - 0.5 * o[5] * s[1] * n[1] - 0.5 * o[8] * s[2] * n[2];
}

bool NVolume::getCubeEightTopPosition()
{
    const int* n = m_head.volumesize;
    const int corners[8][3] = {{0, 0, n[2] - 1},        {0, 0, 0},        {n[0] - 1, 0, n[2] - 1},
                               {n[0] - 1, 0, 0},        {0, n[1] - 1, n[2] - 1}, {0, n[1] - 1, 0},
                               {n[0] - 1, n[1] - 1, n[2] - 1}, {n[0] - 1, n[1] - 1, 0}};
    for (int c = 0; c < 8; ++c) {
        const double* p = getPointXYZ(corners[c][0], corners[c][1], corners[c][2]);
        std::memcpy(m_cube[c], p, 3 * sizeof(double));
    }
    return true;
}

int NVolume::getmainz(double a, double b, double c)
{
    return geometry::strictMainAxis({a, b, c}) + 1;
}

int NVolume::getPosiOrNegativeOrien(double a, double b, double c)
{
    const double v[3] = {a, b, c};
    const int axis = getmainz(a, b, c);
    if (axis == 0)
        return 0;
    return v[axis - 1] > 0 ? 1 : -1;
}

double* NVolume::getReverse(double a, double b, double c)
{
    m_reverse[0] = a;
    m_reverse[1] = b;
    m_reverse[2] = c;
    const int axis = getmainz(a, b, c);
    if (axis != 0)
        m_reverse[axis - 1] = -m_reverse[axis - 1];
    return m_reverse;
}

// --- masking and database -----------------------------------------------------------------

void NVolume::maskVolume(NVolume* volume, NBitVolume* mask)
{
    if (!volume || !mask || !mask->GetBuffer() || volume->framesAvailable() < 1)
        return;
    volume->forgetBackground();
    const int* n = volume->m_head.volumesize;
    if (mask->GetSizeX() != n[0] || mask->GetSizeY() != n[1] || mask->GetSizeZ() != n[2])
        return;
    unsigned int** slices = mask->GetBuffer();
    const int wordsPerRow = mask->GetElementRow();
    for (int k = 0; k < n[2]; ++k)
        for (int j = 0; j < n[1]; ++j) {
            const unsigned int* row = slices[k] + qint64(j) * wordsPerRow;
            for (int i = 0; i < n[0]; ++i)
                if (!((row[i >> 5] >> (i & 31)) & 1u))
                    volume->setVoxelValue16u(i, j, k, 0);
        }
}

void NVolume::getUID(qint64 seriesPk)
{
    // The UIDs are read and dropped: callers only use this to touch the series' rows.
    volumecache::readSeriesUIDs(seriesPk);
}

VelIVolume* NVolume::getVelIVolume() const
{
    return m_companion.data();
}

// --- planes and slabs ---------------------------------------------------------------------

short voxel_valued_sse4_s16(char* data, int* steps, float x, float y, float z)
{
    return sampleTrilinearS16(data, steps, x, y, z);
}

namespace {

inline short voxelAt(const char* p)
{
    short v;
    std::memcpy(&v, p, 2);
    return v;
}

// Slabs of fewer voxels (32M) stay on one thread: one core already saturates the memory bus on
// them, and waking or spinning the second costs more than it saves. Work is
// handed out dynamically so that a thread that is not scheduled (a busy machine) never holds
// the others up at the end of the loop.
constexpr qint64 kParallelVoxels = qint64(1) << 25;
// Slabs across rows (axis i) are another matter: each pixel reads a short run of its own row, a
// row's length away from the next, so one core waits on the cache for every run, and a second
// core halves the time from about a million voxels up (a 20-plane sagittal slab of 256^3). Such
// slabs take a few tenths of a millisecond, less than waking OpenMP's team after a pause can cost:
// they are shared with the library's one helper thread, which never holds the caller up.
constexpr qint64 kParallelRuns = qint64(1) << 20;

// Folds ROWS rows of N values, FIRST + r * STRIDE bytes apart, into OUT by RULE, a tile of columns
// at a time so that the tile's sums and results stay in the first-level cache.
void foldRows(short* out, const char* first, qint64 stride, int rows, qint64 n, SlabRule rule)
{
    constexpr qint64 kTile = 2048;
    qint32 acc[kTile];
    for (qint64 lo = 0; lo < n; lo += kTile) {
        const qint64 len = qMin(kTile, n - lo);
        auto row = [&](int r) { return reinterpret_cast<const short*>(first + r * stride) + lo; };
        if (rule == SlabAverage) {
            std::fill(acc, acc + len, 0);
            for (int r = 0; r < rows; ++r)
                accumulateS16(acc, row(r), len);
            divideToS16(out + lo, acc, len, rows);
            continue;
        }
        std::memcpy(out + lo, row(0), size_t(len) * 2);
        for (int r = 1; r < rows; ++r) {
            if (rule == SlabMin)
                minInPlaceS16(out + lo, row(r), len);
            else
                maxInPlaceS16(out + lo, row(r), len);
        }
    }
}

// N pixels, STEP bytes apart from FIRST, each folded from COUNT voxels SLAB bytes apart.
void foldOneByOne(short* out, const char* first, qint64 step, int n, qint64 slab, int count, SlabRule rule)
{
    for (int x = 0; x < n; ++x) {
        const char* p = first + x * step;
        short v = voxelAt(p);
        qint32 sum = 0;
        for (int t = 0; t < count; ++t) {
            const short value = voxelAt(p + t * slab);
            sum += value;
            v = rule == SlabMin ? qMin(v, value) : qMax(v, value);
        }
        out[x] = rule == SlabAverage ? short(sum / count) : v;
    }
}

} // namespace

bool NVolume::getDicomImagePlane(NDicomImage& image, int index, int thickness, EMainAxis axis, RenderType render)
{
    if (axis < AxisI || axis > AxisK)
        return true;
    // A head that does not describe the buffer (a bad head string) gives nothing, not even an
    // image of its sizes.
    if (!m_data || framesAvailable() < 1)
        return false;
    const int* n = m_head.volumesize;
    const double* vs = m_head.voxelspace;
    // A slab is at least the plane itself, so the average never divides by zero.
    const int t = qMax(thickness, 1);
    int w = 0, h = 0;
    switch (axis) {
    case AxisK:
        w = n[0], h = n[1];
        image.setImage(w, h, 2);
        image.setPixelSpace(vs[0], vs[1]);
        image.setThickness(t * vs[2]);
        break;
    case AxisJ:
        w = n[0], h = n[2];
        image.setImage(w, h, 2);
        image.setPixelSpace(vs[0], vs[2]);
        image.setThickness(t * vs[1]);
        break;
    case AxisI:
        w = n[1], h = n[2];
        image.setImage(w, h, 2);
        image.setPixelSpace(vs[1], vs[2]);
        image.setThickness(t * vs[0]);
        break;
    }
    const int length = n[axis - 1];
    if (index < 0)
        return false;
    const int first = qMax(index - (t - 1) / 2, 0);
    const int end = qMin(index + 1 + t / 2, length);
    if (first >= length || end <= first)
        return false;
    // Where the plane lies: pixel (x, y) is voxel (x, y, index), (x, index, y) or (index, x, y).
    const double* o = m_head.orientation;
    const int across[3][2] = {{1, 2}, {0, 2}, {0, 1}}; // voxel axes along a row and down a column
    const int* a = across[axis - 1];
    const double* p = getPointXYZ(axis == AxisI ? index : 0, axis == AxisJ ? index : 0, axis == AxisK ? index : 0);
    image.setPosition(p[0], p[1], p[2]);
    image.setOriention(o[3 * a[0]], o[3 * a[0] + 1], o[3 * a[0] + 2], o[3 * a[1]], o[3 * a[1] + 1], o[3 * a[1] + 2]);
    if (!m_data || framesAvailable() < 1 || !image.data() || w <= 0 || h <= 0)
        return false;

    const SlabRule rule = render == RenderMin ? SlabMin : (render == RenderAverage ? SlabAverage : SlabMax);
    const int count = end - first;
    const qint64 st0 = m_head.volumestep[0], st1 = m_head.volumestep[1], st2 = m_head.volumestep[2];
    short* out = reinterpret_cast<short*>(image.data());
    const char* data = m_data;
    const bool parallel = qint64(w) * h * count >= kParallelVoxels;

    // Maximum and minimum start from the slab's first plane on every axis, so a one-plane slab is
    // that plane whatever its values.
    if (st0 != 2) {
        // Voxels not packed along rows: pixel (x, y) is folded from its own voxels one by one.
        const qint64 across[3][3] = {{st1, st2, st0}, {st0, st2, st1}, {st0, st1, st2}}; // x, y, slab steps
        const qint64* step = across[axis - 1];
        const char* base = data + first * step[2];
#pragma omp parallel for schedule(dynamic) if (parallel)
        for (int y = 0; y < h; ++y)
            foldOneByOne(out + qint64(y) * w, base + y * step[1], step[0], w, step[2], count, rule);
        return true;
    }
    if (axis == AxisK) {
        // Slices folded in chunks of pixels, each chunk's rows read one after the other.
        const char* base = data + first * st2;
        if (st1 != 2 * qint64(w)) {
#pragma omp parallel for schedule(dynamic) if (parallel)
            for (int j = 0; j < h; ++j)
                foldRows(out + qint64(j) * w, base + j * st1, st2, count, w, rule);
            return true;
        }
        const qint64 pixels = qint64(w) * h;
        const qint64 chunk = 16384;
        const qint64 chunks = (pixels + chunk - 1) / chunk;
#pragma omp parallel for schedule(dynamic) if (parallel)
        for (qint64 c = 0; c < chunks; ++c)
            foldRows(out + c * chunk, base + 2 * c * chunk, st2, count, qMin(chunk, pixels - c * chunk), rule);
        return true;
    }
    if (axis == AxisJ) {
        // Output row r is slice k = r, column c is voxel i = c: the slab's rows of a slice lie
        // one after the other.
#pragma omp parallel for schedule(dynamic) if (parallel)
        for (int k = 0; k < h; ++k)
            foldRows(out + qint64(k) * w, data + k * st2 + first * st1, st1, count, w, rule);
        return true;
    }
    // Axis i: output row r is slice k = r, column c is row j = c; each pixel folds a short run.
    const auto slices = [&](int from, int to) {
        for (int k = from; k < to; ++k)
            reduceRunsS16(out + qint64(k) * w, data + k * st2 + first * st0, st1, w, count, rule);
    };
    if (!parallel) {
        constexpr int kSlices = 8;
        shareOut((h + kSlices - 1) / kSlices, [&](qint64 c) { slices(int(c) * kSlices, qMin(h, int(c + 1) * kSlices)); },
                 qint64(w) * h * count >= kParallelRuns);
        return true;
    }
#pragma omp parallel for schedule(dynamic) if (parallel)
    for (int k = 0; k < h; ++k)
        slices(k, k + 1);
    return true;
}

short NVolume::MIPProject(QList<short> values)
{
    if (values.isEmpty())
        return 0;
    short v = values.first();
    for (short x : values)
        if (x > v)
            v = x;
    return v;
}

short NVolume::mIP(QList<short> values)
{
    if (values.isEmpty())
        return 0;
    short v = values.first();
    for (short x : values)
        if (x < v)
            v = x;
    return v;
}

short NVolume::aIP(QList<short> values)
{
    if (values.isEmpty())
        return 0;
    // A 16-bit sum that wraps: the list projections of the measurement tools were calibrated on it.
    short sum = 0;
    for (short x : values)
        sum = short(sum + x);
    return short(sum / values.size());
}

namespace {

// Width and height codes of the display tables: +-1 = voxel axis i, +-2 = j, +-3 = k, negative when
// the image runs against the axis.
void displayCodes(int fixedAxis, const int* view, const double* o, int& W, int& H)
{
    auto pick = [](bool positive, int code) { return positive ? code : -code; };
    if (fixedAxis == 3) {
        if (view[2] == 2) {
            if (view[0] != 0) {
                W = pick(o[1] > 0, 2);
                H = pick(o[3] > 0, 1);
            } else {
                W = pick(o[0] > 0, 1);
                H = pick(o[4] > 0, 2);
            }
        } else if (view[2] == 1) {
            if (view[0] != 0) {
                W = pick(!(o[2] > 0), 2);
                H = pick(o[3] > 0, 1);
            } else {
                W = pick(o[0] > 0, 1);
                H = pick(!(o[5] > 0), 2);
            }
        } else if (view[0] == 1) {
            W = pick(o[1] > 0, 1);
            H = pick(!(o[5] > 0), 2);
        } else if (view[0] == 2) {
            W = pick(o[2] > 0, 2);
            H = pick(o[4] > 0, 1);
        } else {
            W = 1;
            H = 2;
        }
    } else if (fixedAxis == 1) {
        if (view[0] == 2) {
            if (view[1] != 1) {
                W = pick(!(o[4] > 0), 3);
                H = pick(o[6] > 0, 2);
            } else {
                W = pick(o[3] > 0, 2);
                H = pick(!(o[7] > 0), 3);
            }
        } else if (view[0] == 1) {
            if (view[1] != 1) {
                W = pick(o[5] > 0, 3);
                H = pick(o[6] > 0, 2);
            } else {
                W = pick(o[3] > 0, 2);
                H = pick(o[8] > 0, 3);
            }
        } else if (view[1] == 1) {
            W = pick(o[4] > 0, 2);
            H = pick(o[8] > 0, 3);
        } else {
            W = pick(!(o[5] > 0), 3);
            H = pick(o[7] > 0, 2);
        }
    } else {
        if (view[1] == 2) {
            if (view[0] != 0) {
                W = pick(o[6] > 0, 3);
                H = pick(o[1] > 0, 1);
            } else {
                W = pick(o[0] > 0, 1);
                H = pick(o[7] > 0, 3);
            }
        } else if (view[1] == 1) {
            if (view[0] != 0) {
                W = pick(!(o[2] > 0), 3);
                H = pick(o[6] > 0, 1);
            } else {
                W = pick(o[0] > 0, 1);
                H = pick(!(o[8] > 0), 3);
            }
        } else if (view[0] == 1) {
            W = pick(o[1] > 0, 1);
            H = pick(!(o[8] > 0), 3);
        } else {
            W = pick(!(o[2] > 0), 3);
            H = pick(o[7] > 0, 1);
        }
    }
}

} // namespace

bool NVolume::reorientedPlane(NDicomImage& image, int index, int thickness, int fixedAxis, int* view,
                              RenderType render)
{
    const int* n = m_head.volumesize;
    const double* vs = m_head.voxelspace;
    const double* o = m_head.orientation;
    if (index < 0 || index >= n[fixedAxis - 1])
        return false;
    if (fixedAxis == 1 && !view)
        return getDicomImagePlane(image, index, thickness, AxisI, render);

    image.setSlopeAndIntercept(m_head.RescaleSlope, m_head.RescaleIntercept);
    NDicomImage raw;
    if (!getDicomImagePlane(raw, index, thickness, EMainAxis(fixedAxis), render))
        return false;
    image.setThickness(raw.getThickness());
    image.setOriThickness(vs[fixedAxis - 1]);

    // Voxel axes along the raw plane's columns and rows.
    const int rawX = fixedAxis == 1 ? 2 : 1;
    const int rawY = fixedAxis == 3 ? 2 : 3;
    int W = rawX, H = rawY;
    if (view)
        displayCodes(fixedAxis, view, o, W, H);
    const int aw = std::abs(W), ah = std::abs(H);
    const int width = n[aw - 1], height = n[ah - 1];
    image.setImage(width, height, 2);
    image.setPixelSpace(vs[aw - 1], vs[ah - 1]);
    if (!((aw == rawX && ah == rawY) || (aw == rawY && ah == rawX)) || !image.data())
        return true;

    // Pixel (0,0) is the voxel at the start of both directions.
    int start[3];
    start[fixedAxis - 1] = index;
    start[aw - 1] = W > 0 ? 0 : n[aw - 1] - 1;
    start[ah - 1] = H > 0 ? 0 : n[ah - 1] - 1;
    const double* p = getPointXYZ(start[0], start[1], start[2]);
    image.setPosition(p[0], p[1], p[2]);
    // A reversed direction is the whole axis negated: pixel (x, y) lies at position + x * spacing
    // * row + y * spacing * column however oblique the volume is.
    double row[3], col[3];
    for (int c = 0; c < 3; ++c) {
        row[c] = W > 0 ? o[3 * (aw - 1) + c] : -o[3 * (aw - 1) + c];
        col[c] = H > 0 ? o[3 * (ah - 1) + c] : -o[3 * (ah - 1) + c];
    }
    image.setOriention(row[0], row[1], row[2], col[0], col[1], col[2]);

    const int sw = W > 0 ? 1 : -1, sh = H > 0 ? 1 : -1;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            int c[3];
            c[aw - 1] = start[aw - 1] + sw * x;
            c[ah - 1] = start[ah - 1] + sh * y;
            image.setValue16u(x, y, raw.getValue16u(c[rawX - 1], c[rawY - 1]));
        }
    return true;
}

bool NVolume::getDicomImagePlaneI(NDicomImage& image, int index, int thickness, int* view, RenderType render)
{
    return reorientedPlane(image, index, thickness, 1, view, render);
}

bool NVolume::getDicomImagePlaneJ(NDicomImage& image, int index, int thickness, int* view, RenderType render)
{
    return reorientedPlane(image, index, thickness, 2, view, render);
}

bool NVolume::getDicomImagePlaneK(NDicomImage& image, int index, int thickness, int* view, RenderType render)
{
    return reorientedPlane(image, index, thickness, 3, view, render);
}
