#pragma once

#include "platform/testexport_p.h"

class VelIVolume;

namespace kestrel::internal {

// A new rendering companion from the volume plugin, or null when no plugin provides one. The
// plugin is the library named by the environment variable KESTREL_VOLUME_PLUGIN when it is set,
// otherwise the first library in <app>/plugins/volume or <app>/../plugins/volume (and any
// statically linked plugin) whose QGenericPlugin answers create("volume", "vel").
KESTREL_TEST_EXPORT VelIVolume* createVolumeCompanion();

} // namespace kestrel::internal
