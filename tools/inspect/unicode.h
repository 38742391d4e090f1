/// What of a text a terminal, or a program that shows text, might obey in place of showing it.
#pragma once

#include <string>
#include <string_view>

namespace vorn_inspect {

/// Well-formed: no overlong forms, no surrogates, nothing above U+10FFFF.
bool is_utf8(std::string_view bytes);

/// Control characters (C0, DEL, C1), marks that turn the direction of writing, and separators of lines and
/// paragraphs.
bool is_control(char32_t c);

/// The character at the beginning, whose bytes are taken away. REQUIRES: is_utf8(bytes), and bytes is not
/// empty.
char32_t take_character(std::string_view& bytes);

/// A text for a message on a terminal: control characters become `\u` and four digits. In one that is not
/// UTF-8, control bytes and all from 0x80 on become `\x` and two.
std::string printable(const std::string& bytes);

}  // namespace vorn_inspect
