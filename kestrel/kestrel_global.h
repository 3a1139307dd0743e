#pragma once

#include <QtCore/qglobal.h>

#if defined(KESTREL_LIBRARY)
#define KESTREL_EXPORT Q_DECL_EXPORT
#else
#define KESTREL_EXPORT Q_DECL_IMPORT
#endif
