#include "proc/string_split.h"

std::vector<std::string> string_split(const std::string& text, const char* delimiters) {
    std::vector<std::string> pieces;
    size_t begin = 0;
    while (begin < text.size()) {
        size_t end = text.find_first_of(delimiters, begin);
        if (end == std::string::npos) end = text.size();
        if (end > begin) pieces.emplace_back(text, begin, end - begin);
        begin = end + 1;
    }
    return pieces;
}
