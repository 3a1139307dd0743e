#pragma once

#include "kestrel_global.h"

#include <QObject>

class NDicomImage;
class NVolume;

// The rendering companion of a volume, supplied at run time by the volume plugin (a
// QGenericPlugin answering create("volume", "vel")). The library binds the volume to it and hands
// it the rotation and standardisation requests of the 3-D view.
class KESTREL_EXPORT VelIVolume : public QObject
{
    Q_OBJECT

public:
    explicit VelIVolume(QObject* parent = nullptr);
    ~VelIVolume() override;

    // Binds the volume the companion renders; called by the library first.
    virtual void setVolume(NVolume* volume) = 0;

    virtual void StandardImage(NDicomImage& image, bool flag) = 0;
    virtual void shake(double angle, NDicomImage& image) = 0;
    virtual void getRotateImage(double angle, double x, double y, double z, NDicomImage& image) = 0;
    virtual void rotateX(double angle, NDicomImage& image) = 0;
    virtual void rotateY(double angle, NDicomImage& image) = 0;
    virtual void rotateZ(double angle, NDicomImage& image) = 0;
    virtual void rotateWXYZ(double angle, double x, double y, double z, NDicomImage& image) = 0;
};
