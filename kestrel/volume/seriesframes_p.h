#pragma once

#include "geometry/slicestack_p.h"

#include <QString>
#include <QStringList>

#include <vector>

// What tells images at one slice position apart, read from the headers of a series' files: the
// steps of getSeriesFrames (seriesframes.cpp).
namespace kestrel::internal::frames {

// The attributes that make images at one position different acquisitions, in the order they are
// tried: image type, echo, diffusion weighting, then time (temporal position, acquisition number,
// trigger time, and acquisition time where the others do not separate).
enum TraitKind { ImageKind, Echo, Diffusion, TemporalPosition, AcquisitionNumber, TriggerTime, AcquisitionTime, TraitCount };

// One attribute's value: equal keys are one acquisition; ORDER sorts them; LABEL says it to a person.
struct Trait {
    QString key;
    std::vector<double> order;
    QString label;
};

struct ImageHeader {
    QString file;
    QString problem; // why the file is in no frame
    geometry::StackImage geometry;
    int samplesPerPixel = 1;
    Trait traits[TraitCount];
};

// Images (indices into the headers) of one acquisition, and the label parts that name it.
struct Acquisition {
    std::vector<int> images;
    QStringList label;
};

// Reads the attributes of FILE (its pixels left unread) into OUT; false with OUT.problem set when it cannot.
bool readImageHeader(const QString& file, ImageHeader& out);

// The acquisitions among IMAGES (one grid, in instance-number order): each trait in turn splits
// every acquisition whose images it separates at one position.
std::vector<Acquisition> acquisitions(const std::vector<ImageHeader>& headers, const std::vector<int>& images);

} // namespace kestrel::internal::frames
