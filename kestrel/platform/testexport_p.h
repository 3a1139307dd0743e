#pragma once

#include "kestrel_global.h"

// Private helpers that the test suites call directly. A build with tests exports them; a build
// for a package keeps them hidden, so the shipped library exports its interface only.
#if defined(KESTREL_TEST_EXPORTS)
#define KESTREL_TEST_EXPORT KESTREL_EXPORT
#else
#define KESTREL_TEST_EXPORT
#endif
