#include "velivolume.h"

VelIVolume::VelIVolume(QObject* parent)
    : QObject(parent)
{
}

VelIVolume::~VelIVolume() = default;
