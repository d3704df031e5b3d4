#pragma once

#include <string>
#include <vector>

// The pieces of `text` between any of the characters of `delimiters`, empty pieces dropped. With no
// delimiters the whole text is one piece.
std::vector<std::string> string_split(const std::string& text, const char* delimiters);
