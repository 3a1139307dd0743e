#include "geometry/slicestack_p.h"

#include "geometry/imagegeometry_p.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace kestrel::internal::geometry {

namespace {

// A sorted distance closer than this to the one before joins its cluster when the spacing is
// chosen (so a chain of small steps makes one cluster).
constexpr double kSpacingCluster = 0.01;
// An image stays in the volume when its distance to its predecessor is this close to the spacing.
constexpr double kSpacingTolerance = 0.1;
// Images closer than this (mm) stand at one slice position.
constexpr double kSamePosition = 0.01;
// Unit normals whose dot product is at least this are of one plane (about 0.8°).
constexpr double kParallel = 0.9999;
// Pixel spacings of one grid differ by less than this share of their size.
constexpr double kSameSpacing = 1e-4;

Vec3 unitNormal(const StackImage& image)
{
    return normalized(sliceNormal(image.row, image.column));
}

// True when IMAGE lies in planes parallel to those of unit normal N.
bool sameFamily(const StackImage& image, const Vec3& n)
{
    return image.oriented && std::fabs(dot(unitNormal(image), n)) >= kParallel;
}

// The spacing: the most common distance. Sorted distances form clusters; the cluster with the
// most members wins (on a tie the smaller) and its smallest value is the spacing.
double modeSpacing(std::vector<double> distances)
{
    std::sort(distances.begin(), distances.end());
    double spacing = distances.front();
    size_t bestCount = 0;
    for (size_t start = 0; start < distances.size();) {
        size_t end = start + 1;
        while (end < distances.size() && !(distances[end] - distances[end - 1] > kSpacingCluster))
            ++end;
        if (end - start > bestCount) {
            bestCount = end - start;
            spacing = distances[start];
        }
        start = end;
    }
    return spacing;
}

// Slices of SORTED that stay: the first (it starts the volume) and every slice whose distance to
// its predecessor in sorted order is the spacing, even when that predecessor is left out.
std::vector<size_t> keepSpaced(size_t count, const std::vector<double>& distances, double spacing)
{
    std::vector<size_t> kept{0};
    for (size_t i = 1; i < count; ++i)
        if (std::fabs(distances[i - 1] - spacing) < kSpacingTolerance)
            kept.push_back(i);
    return kept;
}

// IMAGES in the order SORTED, images at one position gathered into one slice.
std::vector<StackSlice> gatherPositions(const std::vector<StackImage>& images, const std::vector<int>& sorted)
{
    std::vector<StackSlice> slices;
    for (int index : sorted) {
        const StackImage& image = images[size_t(index)];
        if (slices.empty() || !(distance(slices.back().position, image.position) < kSamePosition))
            slices.push_back({image.position, {}});
        slices.back().frames.push_back({image.key, image.instanceNumber, image.acquisition});
    }
    return slices;
}

int commonFrameCount(const std::vector<StackSlice>& slices)
{
    for (const StackSlice& slice : slices)
        if (slice.frames.size() != slices.front().frames.size())
            return 0;
    return slices.empty() ? 0 : int(slices.front().frames.size());
}

} // namespace

Vec3 imageNormal(const Vec3& row, const Vec3& column)
{
    Vec3 n = sliceNormal(row, column);
    const double len = std::sqrt(n[0] * n[0] + n[1] * n[2] + n[2] * n[2]);
    if (len > 0)
        n = {n[0] / len, n[1] / len, n[2] / len};
    return n;
}

int signedMainAxis(const Vec3& v)
{
    int k = v[0] > v[1] ? 0 : 1;
    if (!(v[size_t(k)] > v[2]))
        k = 2;
    return k;
}

std::vector<int> orderAlongNormal(const std::vector<StackImage>& images)
{
    std::vector<int> order(images.size());
    for (size_t i = 0; i < order.size(); ++i)
        order[i] = int(i);
    if (images.size() < 2 || !images.front().oriented)
        return order;
    const Vec3 n = unitNormal(images.front());
    if (!(length(n) > 0))
        return order;
    // The places of the first image's plane family, sorted among themselves. Stable, so that an
    // order that already runs along the normal, and images at one position, stay as given.
    std::vector<int> family;
    for (int i : order)
        if (sameFamily(images[size_t(i)], n))
            family.push_back(i);
    std::vector<int> sorted = family;
    std::stable_sort(sorted.begin(), sorted.end(), [&](int a, int b) {
        return dot(images[size_t(a)].position, n) < dot(images[size_t(b)].position, n);
    });
    for (size_t i = 0; i < family.size(); ++i)
        order[size_t(family[i])] = sorted[i];
    return order;
}

SliceStack buildSliceStack(const std::vector<StackImage>& images)
{
    SliceStack stack;
    std::vector<StackSlice> slices = gatherPositions(images, orderAlongNormal(images));
    if (slices.size() < 2)
        return stack;
    std::vector<double> distances;
    for (size_t i = 1; i < slices.size(); ++i)
        distances.push_back(distance(slices[i].position, slices[i - 1].position));
    const double spacing = modeSpacing(distances);
    const std::vector<size_t> kept = keepSpaced(slices.size(), distances, spacing);
    if (kept.size() < 2)
        return stack;
    for (size_t i = 0, k = 0; i < slices.size(); ++i) {
        if (k < kept.size() && kept[k] == i) {
            stack.slices.push_back(slices[i]);
            ++k;
        } else {
            for (const StackFrame& frame : slices[i].frames)
                stack.dropped.push_back(frame.key);
        }
    }
    // Sorted along the normal already, unless images of other planes stood in the way.
    stack.normal = images.front().oriented ? unitNormal(images.front()) : Vec3{};
    if (dot(subtract(stack.slices.back().position, stack.slices.front().position), stack.normal) < 0)
        std::reverse(stack.slices.begin(), stack.slices.end());

    stack.spacing = spacing;
    for (size_t i = 1; i < stack.slices.size(); ++i) {
        const double d = distance(stack.slices[i].position, stack.slices[i - 1].position);
        if (!(std::fabs(d - spacing) < kSpacingTolerance))
            stack.gaps.push_back({int(i), d});
    }
    stackAxis(stack.slices.front().position, stack.slices.back().position, int(stack.slices.size()), stack.axis,
              stack.step);
    stack.startsAtFirstImage = stack.slices.front().position == images.front().position;
    stack.framesPerSlice = commonFrameCount(stack.slices);
    return stack;
}

std::vector<std::vector<int>> gridGroups(const std::vector<StackImage>& images)
{
    auto sameGrid = [](const StackImage& a, const StackImage& b) {
        auto close = [](double u, double v) { return std::fabs(u - v) <= kSameSpacing * std::max(std::fabs(u), std::fabs(v)); };
        return dot(normalized(a.row), normalized(b.row)) >= kParallel
            && dot(normalized(a.column), normalized(b.column)) >= kParallel && a.rows == b.rows
            && a.columns == b.columns && close(a.pixelSpacing[0], b.pixelSpacing[0])
            && close(a.pixelSpacing[1], b.pixelSpacing[1]);
    };
    std::vector<std::vector<int>> groups;
    for (size_t i = 0; i < images.size(); ++i) {
        if (!images[i].oriented)
            continue;
        auto group = std::find_if(groups.begin(), groups.end(),
                                  [&](const std::vector<int>& g) { return sameGrid(images[size_t(g.front())], images[i]); });
        if (group == groups.end())
            groups.push_back({int(i)});
        else
            group->push_back(int(i));
    }
    return groups;
}

int mostAtOnePosition(const std::vector<StackImage>& images, int* positions)
{
    const std::vector<StackSlice> slices = gatherPositions(images, orderAlongNormal(images));
    size_t most = 0;
    for (const StackSlice& slice : slices)
        most = std::max(most, slice.frames.size());
    if (positions)
        *positions = int(slices.size());
    return int(most);
}

FrameStack buildFrameStack(const std::vector<StackImage>& images)
{
    FrameStack result;
    result.stack = buildSliceStack(images);
    const std::vector<StackSlice>& slices = result.stack.slices;
    // Frame of each (acquisition, repeat), made as they are met and sorted at the end.
    std::vector<StackFrameSeries>& frames = result.frames;
    for (size_t k = 0; k < slices.size(); ++k) {
        std::vector<std::pair<int, int>> seen; // (acquisition, images of it so far at this slice)
        for (const StackFrame& image : slices[k].frames) {
            auto count = std::find_if(seen.begin(), seen.end(), [&](const auto& s) { return s.first == image.acquisition; });
            if (count == seen.end())
                count = seen.insert(seen.end(), {image.acquisition, 0});
            const int repeat = count->second++;
            auto frame = std::find_if(frames.begin(), frames.end(), [&](const StackFrameSeries& f) {
                return f.acquisition == image.acquisition && f.repeat == repeat;
            });
            if (frame == frames.end()) {
                frame = frames.insert(frames.end(), StackFrameSeries{image.acquisition, repeat, {}, {}, 0});
                frame->keys.assign(slices.size(), kNoImage);
                frame->instanceNumbers.assign(slices.size(), 0);
            }
            frame->keys[k] = image.key;
            frame->instanceNumbers[k] = image.instanceNumber;
        }
    }
    for (StackFrameSeries& frame : frames)
        frame.missing = int(std::count(frame.keys.begin(), frame.keys.end(), kNoImage));
    std::stable_sort(frames.begin(), frames.end(), [](const StackFrameSeries& a, const StackFrameSeries& b) {
        return a.acquisition != b.acquisition ? a.acquisition < b.acquisition : a.repeat < b.repeat;
    });
    return result;
}

bool stackAxis(const Vec3& first, const Vec3& last, int count, Vec3& axis, double& step)
{
    const Vec3 d = subtract(last, first);
    const double l = length(d);
    if (!(l > 0) || count < 2)
        return false;
    axis = {d[0] / l, d[1] / l, d[2] / l};
    step = l / (count - 1);
    return true;
}

int strictMainAxis(const Vec3& v)
{
    const double x = std::fabs(v[0]), y = std::fabs(v[1]), z = std::fabs(v[2]);
    if (z > x && z > y)
        return 2;
    if (y > x && y > z)
        return 1;
    if (x > y && x > z)
        return 0;
    return -1;
}

void patientAxes(const double* orientation, int view[3])
{
    for (int a = 0; a < 3; ++a)
        view[a] = std::abs(imageDirectionCode(orientation + 3 * a)) - 1;
}

int voxelAxisAlong(const double* orientation, int patientAxis)
{
    int view[3];
    patientAxes(orientation, view);
    for (int a = 2; a >= 0; --a)
        if (view[a] == patientAxis)
            return a;
    return -1;
}

} // namespace kestrel::internal::geometry
