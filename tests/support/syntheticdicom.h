#pragma once

// The synthetic DICOM writer lives in the library (the demo uses it too).
#include "internal/syntheticdicom.h"
