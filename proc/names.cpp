#include "proc/names.h"

#include <vector>

#include "proc/string_split.h"

void cut_at_separator(std::string* text) {
    const size_t end = text->find_first_of(" \t\r\n\0", 0, 5);  // the NUL is one of them
    if (end != std::string::npos) text->erase(end);
}

std::string program_base_name(const std::string& path) {
    // Spares the names without a directory, such as every application's, the vector of pieces.
    if (path.find('/') == std::string::npos) return path;
    const std::vector<std::string> pieces = string_split(path, "/");
    return pieces.size() > 1 ? pieces.back() : path;
}

bool is_zygote(const std::string& process_name) {
    return process_name == "zygote" || process_name == "zygote64";
}
