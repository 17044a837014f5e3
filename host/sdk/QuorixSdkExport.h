#pragma once

#include <QtCore/qglobal.h>

#if defined(QUORIX_SDK_LIBRARY)
#    define QUORIX_SDK_EXPORT Q_DECL_EXPORT
#else
#    define QUORIX_SDK_EXPORT Q_DECL_IMPORT
#endif
