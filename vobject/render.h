/// Values as text, for logs and diagnostics. The text is one line and is not meant to be read back.
///
///   nil  true  -7  1.500000  "a \"b\"\x0a"  :name  :"two words"  [1, 2]  {"a"=>1, "b"=>[]}  <REF:1>
///   <UDT:NULL>
#pragma once

#include <string>

#include "proto/export.h"
#include "vobject/vobject.h"

namespace VORN {

/// Appends the text of a value. References are shown, not followed; a hash is in the order of its keys. A
/// symbol id that was never given to a name is `:<ERROR>`, and the symbol table then has an entry for it,
/// without a name. Thread-safe as far as symbols go. Machine stack is used for each level of nesting.
///
/// No value makes it fail; std::bad_alloc and what udt_render() throws pass through, `out` ending in part of
/// the text.
VORN_API void render(const VObject& v, std::string& out);

/// Appends bytes, between two `quote`s unless that is zero. Control bytes and bytes from 0x80 on become `\x`
/// and two hexadecimal digits; double quotes and backslashes get a backslash, whatever `quote` is. Throws
/// std::bad_alloc.
VORN_API void escape_str(const std::string& bytes, std::string& out, char quote);

}  // namespace VORN
