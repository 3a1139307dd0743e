#pragma once

// What the reformat suites share: small vector helpers, synthetic volumes of known content on an
// oblique grid, the scipy oracles (trilinear_oracle.py, reference_oracle.py) and synthetic series.

#include "nvolume.h"

class NDicomVolume;
class QSeries;

#include <QPointF>
#include <QSize>
#include <QString>
#include <QStringList>

#include <array>
#include <memory>
#include <vector>

class NDicomImage;
class NDicomVolume;

using Vec = std::array<double, 3>;

Vec add(const Vec& a, const Vec& b, double f = 1);
Vec cross(const Vec& a, const Vec& b);
double dot(const Vec& a, const Vec& b);
Vec unit(const Vec& a);
// The x, y and z axes turned by A about z, then B about x, then C about y (degrees).
std::array<Vec, 3> turned(double a, double b, double c);

// What a test volume holds at a patient point: a ramp, a sphere, a tilted slab over negative values.
enum Content { Ramp, Sphere, TiltedSlab };
short contentAt(int content, const Vec& p);

struct Grid3 {
    int n[3];
    double spacing[3];
    std::array<Vec, 3> axes; // i, j, k directions
    Vec origin;
};
std::unique_ptr<NDicomVolume> makeVolume(const Grid3& g, int content);
// The double-oblique, anisotropic grid most tests cut.
Grid3 obliqueGrid();
// Patient point of the volume's middle.
Vec volumeMiddle(NVolume& v);

// Why the oracles cannot run, empty when they can.
QString oracleSkip();
QString script(const QString& name);
// The volume's current frame as raw voxels and its geometry as JSON in DIR; the JSON's path.
QString writeVolume(NVolume& v, const QString& dir);
// trilinear_oracle.py on the points and values; its line, prefixed "FAILED " on failure.
QString runOracle(const QString& json, const std::vector<double>& points, const std::vector<short>& values,
                  double tolerance, int layers = 1, const QString& rule = "max");
const char* ruleName(RenderType render);
// Every pixel of IMAGE (LAYERS samples STEP apart along its normal, the middle one on its plane)
// against the oracle.
QString checkImage(NVolume& v, NDicomImage& image, const QString& dir, int layers, double step, RenderType render,
                   double tolerance = 3);

// A series of COUNT images of SIZE pixels SPACING apart along the normal of AXES in DIR, of the
// study and Frame of Reference given; stored values from the ramp and sphere, rescale 0.5 / -100.
QStringList writeSeries(const QString& dir, const std::array<Vec, 3>& axes, QSize size, QPointF pixel, double spacing,
                        int count, const Vec& position, const QString& study, const QString& frame, int number);
// Catalogues FILES (one series); its key.
qint64 catalogue(const QStringList& files);
// Loads SERIES (read from the catalogue with its images) into VOLUME as the hosts do.
void loadCatalogued(QSeries& series, NDicomVolume& volume);
