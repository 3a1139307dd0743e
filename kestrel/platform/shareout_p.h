#pragma once

#include "platform/testexport_p.h"

#include <QtGlobal>

#include <functional>

namespace kestrel::internal {

// Runs BODY(c) once for every c in [0, CHUNKS), on the calling thread and on one helper thread
// shared by the whole library, and returns when all have run.
//
// For short work (a thin slab, a display image: tenths of a millisecond) where waking a team of
// threads can cost more than the work. The caller never waits for the helper to wake up: it
// takes chunks one by one itself, and the helper takes those still left when it comes. A helper
// that has just finished stays awake for a moment, so a run of calls (scrolling, a cine loop)
// finds it ready. While another caller has the helper, or when SHARE is false (work too small to
// be worth it), a call runs the chunks in order on its own thread.
KESTREL_TEST_EXPORT void shareOut(qint64 chunks, const std::function<void(qint64)>& body, bool share = true);

} // namespace kestrel::internal
