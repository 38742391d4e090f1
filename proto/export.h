/// Visibility of the library's interface. The library is compiled with hidden visibility; what linking code
/// may use is marked VORN_API. Exception classes must be marked too, or a handler in another module would
/// not recognise them.
#pragma once

/// In front of the name of what linking code may use.
#define VORN_API __attribute__((visibility("default")))
