/// Visibility of the library's interface. The library is compiled with hidden visibility; what linking code
/// may use is marked VORN_API. Exception classes must be marked too, or a handler in another module would
/// not recognise them.
///
/// On Windows the mark differs between who makes the DLL, who links it, and who has the static library: a program that
/// links libvorn_rpc.a defines VORN_STATIC, as vorn_rpc::static does.
#pragma once

/// In front of the name of what linking code may use.
#if !defined(_WIN32)
#define VORN_API __attribute__((visibility("default")))
#elif defined(VORN_STATIC)
#define VORN_API
#elif defined(VORN_MAKES_DLL)
#define VORN_API __declspec(dllexport)
#else
#define VORN_API __declspec(dllimport)
#endif
