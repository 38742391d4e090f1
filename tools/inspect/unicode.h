/// Finds the characters that a terminal, or a program that displays text, may obey instead of displaying.
#pragma once

#include <string>
#include <string_view>

namespace vorn_inspect {

/// Well-formed: no overlong forms, no surrogates, nothing above U+10FFFF.
bool is_utf8(std::string_view bytes);

/// Control characters (C0, DEL, C1), marks that change the direction of writing, and separators of lines and
/// paragraphs.
bool is_control(char32_t c);

/// Removes the first character and returns it. REQUIRES: is_utf8(bytes), and bytes is not empty.
char32_t take_character(std::string_view& bytes);

/// Makes a text safe for a message on a terminal: control characters become `\u` and four digits. In a text that is
/// not UTF-8, control bytes and all bytes from 0x80 on become `\x` and two digits.
std::string printable(const std::string& bytes);

}  // namespace vorn_inspect
