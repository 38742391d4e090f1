/// Visibility of the interface of calls. Their library is static only, so on Windows, where a mark would mean a DLL,
/// there is none, even if the library below is one.
#pragma once

#include "proto/export.h"

/// As VORN_API, which see.
#ifdef _WIN32
#define VORN_CALLS_API
#else
#define VORN_CALLS_API VORN_API
#endif
