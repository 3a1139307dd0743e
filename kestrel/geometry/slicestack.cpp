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

int mainAxisOf(const StackImage& image)
{
    return image.oriented ? signedMainAxis(imageNormal(image.row, image.column)) : -1;
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

// Images of SORTED that stay: the first (it starts the volume) and every image whose distance to
// its predecessor in sorted order is the spacing, even when that predecessor is left out.
std::vector<int> keepSpaced(const std::vector<int>& sorted, const std::vector<double>& distances, double spacing)
{
    std::vector<int> kept{sorted.front()};
    for (size_t i = 1; i < sorted.size(); ++i)
        if (std::fabs(distances[i - 1] - spacing) < kSpacingTolerance)
            kept.push_back(sorted[i]);
    return kept;
}

// True when KEPT runs against the normal of its first image along that image's main axis.
bool runsAgainstNormal(const std::vector<StackImage>& images, const std::vector<int>& kept, Vec3& normal, int& axis)
{
    const StackImage& first = images[size_t(kept.front())];
    normal = normalized(sliceNormal(first.row, first.column));
    axis = mainAxisOf(first);
    if (axis < 0)
        return false;
    const size_t k = size_t(axis);
    return normal[k] * (images[size_t(kept.back())].position[k] - first.position[k]) < 0;
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

std::vector<int> orderAlongMainAxis(const std::vector<StackImage>& images)
{
    std::vector<int> order(images.size());
    for (size_t i = 0; i < order.size(); ++i)
        order[i] = int(i);
    if (images.size() < 2 || !images.front().oriented)
        return order;
    std::vector<int> axes(images.size());
    std::transform(images.begin(), images.end(), axes.begin(), mainAxisOf);
    const int k = axes.front();
    const bool descending = imageNormal(images.front().row, images.front().column)[size_t(k)] < 0;
    // Stable, so that images at one position keep the order given: a sagittal series whose main
    // axis is the (constant) z keeps the order in which the scanner numbered its slices.
    std::stable_sort(order.begin(), order.end(), [&](int a, int b) {
        if (axes[size_t(a)] != axes[size_t(b)])
            return false;
        const double pa = images[size_t(a)].position[size_t(k)], pb = images[size_t(b)].position[size_t(k)];
        return descending ? pa > pb : pa < pb;
    });
    return order;
}

SliceStack buildSliceStack(const std::vector<StackImage>& images)
{
    SliceStack stack;
    const std::vector<int> sorted = orderAlongMainAxis(images);
    if (sorted.size() < 2)
        return stack;
    std::vector<double> distances;
    for (size_t i = 1; i < sorted.size(); ++i)
        distances.push_back(distance(images[size_t(sorted[i])].position, images[size_t(sorted[i - 1])].position));
    const double spacing = modeSpacing(distances);
    std::vector<int> kept = keepSpaced(sorted, distances, spacing);
    if (kept.size() < 2 || distance(images[size_t(kept.front())].position, images[size_t(kept.back())].position) == 0)
        return stack;
    for (size_t i = 0, k = 0; i < sorted.size(); ++i) {
        if (k < kept.size() && kept[k] == sorted[i])
            ++k;
        else
            stack.dropped.push_back(images[size_t(sorted[i])].key);
    }
    if (runsAgainstNormal(images, kept, stack.normal, stack.mainAxis))
        std::reverse(kept.begin(), kept.end());

    stack.spacing = spacing;
    for (int index : kept) {
        const StackImage& image = images[size_t(index)];
        stack.slices.push_back({image.position, {{image.key, image.instanceNumber}}});
    }
    for (size_t i = 1; i < stack.slices.size(); ++i) {
        const double d = distance(stack.slices[i].position, stack.slices[i - 1].position);
        if (!(std::fabs(d - spacing) < kSpacingTolerance))
            stack.gaps.push_back({int(i), d});
    }
    stackAxis(stack.slices.front().position, stack.slices.back().position, int(stack.slices.size()), stack.axis,
              stack.step);
    stack.startsAtFirstImage = stack.slices.front().position == images.front().position;
    return stack;
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
