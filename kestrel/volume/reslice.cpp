#include "volume/reslice_p.h"

#include "nvolume.h"
#include "platform/shareout_p.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace kestrel::internal::reslice {

using geometry::Vec3;

namespace {

// Below this many samples (a 512 x 512 plane) a call stays on one thread: a smaller image takes
// a fraction of a millisecond, less than handing work to another thread costs when other
// processes hold the cores. Planes and curves are shared with the library's helper thread, slabs
// and projections (tens of milliseconds) with OpenMP's team.
constexpr qint64 kParallelSamples = qint64(1) << 18;

Vec3 along(const Vec3& origin, const Vec3& step, double n)
{
    return {origin[0] + n * step[0], origin[1] + n * step[1], origin[2] + n * step[2]};
}

// Share of a step that runs along voxel rows (i): lines along it read memory in order.
double rowShare(const Vec3& step)
{
    const double l = geometry::length(step);
    return l > 0 ? std::fabs(step[0]) / l : 0;
}

// One line of a slab: the samples of every layer folded by the rule into the line's values.
class SlabLine
{
public:
    SlabLine(int length, int rule)
        : m_rule(rule), m_values(size_t(length)), m_samples(size_t(length)), m_sums(rule == 2 ? size_t(length) : 0),
          m_counts(rule == 2 ? size_t(length) + 1 : 0)
    {
    }

    void reset()
    {
        const short start = m_rule == 1 ? std::numeric_limits<short>::max() : std::numeric_limits<short>::min();
        std::fill(m_values.begin(), m_values.end(), start);
        std::fill(m_sums.begin(), m_sums.end(), 0);
        std::fill(m_counts.begin(), m_counts.end(), 0);
        m_first = int(m_values.size());
        m_last = 0;
    }

    // Samples [FIRST, LAST) of one layer's line and folds them in.
    void fold(const LineSource& voxels, const Vec3& start, const Vec3& step, int first, int last)
    {
        const double from[3] = {start[0] + first * step[0], start[1] + first * step[1], start[2] + first * step[2]};
        short* samples = m_samples.data() + first;
        const int n = last - first;
        sampleLineS16(voxels, from, step.data(), n, samples, 1);
        if (m_rule == 2) {
            accumulateS16(m_sums.data() + first, samples, n);
            ++m_counts[size_t(first)];
            --m_counts[size_t(last)];
        } else if (m_rule == 1) {
            minInPlaceS16(m_values.data() + first, samples, n);
        } else {
            maxInPlaceS16(m_values.data() + first, samples, n);
        }
        m_first = std::min(m_first, first);
        m_last = std::max(m_last, last);
    }

    // The folded line into OUT[x * STRIDE]; points no layer reached get BACKGROUND. The points a
    // box's layers reach form one run (the box is convex), so FIRST and LAST bound them.
    void write(short* out, qptrdiff stride, short background) const
    {
        int count = 0;
        for (int x = 0; x < int(m_values.size()); ++x) {
            short v = background;
            if (m_rule == 2) {
                count += m_counts[size_t(x)];
                if (count > 0)
                    v = short(m_sums[size_t(x)] / count);
            } else if (x >= m_first && x < m_last) {
                v = m_values[size_t(x)];
            }
            out[x * stride] = v;
        }
    }

private:
    int m_rule;
    std::vector<short> m_values, m_samples;
    std::vector<qint32> m_sums;
    std::vector<int> m_counts; // +1 where a layer's run starts, -1 past its end
    int m_first = 0, m_last = 0;
};

} // namespace

Status sourceOf(NVolume& volume, short background, Source& source)
{
    const VolumeHead* head = volume.getHead();
    const int* n = head->volumesize;
    if (!volume.getData() || n[0] < 2 || n[1] < 2 || n[2] < 1)
        return Status(Status::InvalidInput, QStringLiteral("the volume has no voxels to sample (at least 2 x 2 x 1)"));
    source.voxels.data = volume.getData();
    for (int a = 0; a < 3; ++a) {
        source.size[a] = n[a];
        source.voxels.size[a] = std::max(n[a], 2);
        source.voxels.steps[a] = n[a] > 1 ? head->volumestep[a] : 0;
    }
    source.toPatient = geometry::indexToPatient(head->orientation, head->voxelspace, head->topxyz);
    if (!geometry::invert(source.toPatient, source.toIndex))
        return Status(Status::InvalidInput, QStringLiteral("the volume's geometry is singular (spacing or directions)"));
    source.background = background;
    return Status::ok();
}

void resample(const Source& source, const Grid& grid, short* out)
{
    const Vec3 rowIndex = source.toIndex.applyLinear(grid.alongRow);
    const Vec3 columnIndex = source.toIndex.applyLinear(grid.downColumn);
    // Lines run along whichever image axis reads the voxels more in order.
    const bool alongRows = rowShare(rowIndex) >= rowShare(columnIndex);
    const int lineLength = alongRows ? grid.width : grid.height;
    const int lines = alongRows ? grid.height : grid.width;
    const Vec3 lineStep = alongRows ? rowIndex : columnIndex;
    const Vec3 nextLine = alongRows ? grid.downColumn : grid.alongRow;
    // Lines down the columns are sampled into a transposed image first: stores stay in order.
    std::vector<short> transposed(alongRows ? 0 : size_t(grid.width) * size_t(grid.height));
    short* target = alongRows ? out : transposed.data();
    const qptrdiff stride = 1, lineStride = lineLength;
    const int layers = std::max(1, grid.layers);
    const double middle = (layers - 1) / 2.0;
    const bool parallel = qint64(grid.width) * grid.height * layers >= kParallelSamples;

    // SLAB folds the layers of a slab; a plane (one layer) needs none.
    const auto sampleLine = [&](int b, SlabLine* slab) {
        const Vec3 base = along(grid.origin, nextLine, b);
        short* line = target + b * lineStride;
        if (layers == 1) {
            const Vec3 start = source.toIndex.apply(base);
            int first = 0, last = 0;
            geometry::insideRange(start, lineStep, source.size, lineLength, first, last);
            for (int x = 0; x < lineLength; ++x)
                if (x < first || x >= last)
                    line[x * stride] = source.background;
            if (first < last) {
                const double from[3] = {start[0] + first * lineStep[0], start[1] + first * lineStep[1],
                                        start[2] + first * lineStep[2]};
                sampleLineS16(source.voxels, from, lineStep.data(), last - first, line + first * stride, stride);
            }
            return;
        }
        slab->reset();
        for (int t = 0; t < layers; ++t) {
            const Vec3 start = source.toIndex.apply(along(base, grid.layerStep, t - middle));
            int first = 0, last = 0;
            geometry::insideRange(start, lineStep, source.size, lineLength, first, last);
            if (first < last)
                slab->fold(source.voxels, start, lineStep, first, last);
        }
        slab->write(line, stride, source.background);
    };
    if (layers == 1) {
        // A plane takes about a millisecond: shared with the helper thread, which never holds the
        // caller up (a thread team woken after a pause could cost several).
        constexpr int kLines = 8;
        shareOut((lines + kLines - 1) / kLines, [&](qint64 c) {
            for (int b = int(c) * kLines; b < std::min(lines, int(c + 1) * kLines); ++b)
                sampleLine(b, nullptr);
        }, parallel);
    } else {
#pragma omp parallel if (parallel)
        {
            SlabLine slab(lineLength, grid.rule);
#pragma omp for schedule(dynamic, 4)
            for (int b = 0; b < lines; ++b)
                sampleLine(b, &slab);
        }
    }
    if (!alongRows)
        transposeU16(reinterpret_cast<const quint16*>(transposed.data()), grid.height, 1, reinterpret_cast<quint16*>(out),
                     grid.width, grid.width, grid.height);
}

void resampleColumns(const Source& source, const std::vector<Vec3>& tops, const std::vector<Vec3>& downs, int height,
                     short* out)
{
    const int width = int(tops.size());
    const auto column = [&](int c) {
        const Vec3 start = source.toIndex.apply(tops[size_t(c)]);
        const Vec3 step = source.toIndex.applyLinear(downs[size_t(c)]);
        int first = 0, last = 0;
        geometry::insideRange(start, step, source.size, height, first, last);
        for (int y = 0; y < height; ++y)
            if (y < first || y >= last)
                out[qptrdiff(y) * width + c] = source.background;
        if (first < last) {
            const double from[3] = {start[0] + first * step[0], start[1] + first * step[1], start[2] + first * step[2]};
            sampleLineS16(source.voxels, from, step.data(), last - first, out + qptrdiff(first) * width + c, width);
        }
    };
    constexpr int kColumns = 8;
    const auto columns = [&](qint64 chunk) {
        for (int c = int(chunk) * kColumns; c < std::min(width, int(chunk + 1) * kColumns); ++c)
            column(c);
    };
    shareOut((width + kColumns - 1) / kColumns, columns, qint64(width) * height >= kParallelSamples);
}

bool sourceLayer(const Source& source, const Grid& grid, int x, int y, double& layer)
{
    const int layers = std::max(1, grid.layers);
    const double middle = (layers - 1) / 2.0;
    const Vec3 base = along(along(grid.origin, grid.alongRow, x), grid.downColumn, y);
    const Vec3 start = source.toIndex.apply(base);
    const Vec3 step = source.toIndex.applyLinear(grid.layerStep);
    const Vec3 first = {start[0] - middle * step[0], start[1] - middle * step[1], start[2] - middle * step[2]};
    int from = 0, to = 0;
    geometry::insideRange(first, step, source.size, layers, from, to);
    if (from >= to)
        return false;
    if (grid.rule == 2) {
        layer = (from + to - 1) / 2.0 - middle;
        return true;
    }
    std::vector<short> samples(size_t(to - from));
    const double at[3] = {first[0] + from * step[0], first[1] + from * step[1], first[2] + from * step[2]};
    sampleLineS16(source.voxels, at, step.data(), to - from, samples.data(), 1);
    const auto best = grid.rule == 1 ? std::min_element(samples.begin(), samples.end())
                                     : std::max_element(samples.begin(), samples.end());
    layer = from + (best - samples.begin()) - middle;
    return true;
}

} // namespace kestrel::internal::reslice
