// System properties on a Linux host, read from a text file of lines NAME=VALUE that the environment
// variable TOVREL_PROPERTIES names; '#' starts a comment line. Name and value are taken as they
// stand, blanks included, and the last line of a name counts. Without the variable or the file no
// property is set. Like on the platform, where setting it fails, a value of more than 91 characters
// is not set.

#include <cutils/properties.h>
#include <errno.h>
#include <inttypes.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace {

// The value of a property; empty when it is not set.
std::string find_property(const char* key) {
    const char* file_name = getenv("TOVREL_PROPERTIES");
    if (key == nullptr || file_name == nullptr) return "";

    const std::string start = std::string(key) + "=";
    std::string value;
    std::ifstream file(file_name);
    for (std::string line; std::getline(file, line);) {
        if (line[0] == '#' || line.compare(0, start.size(), start) != 0) continue;
        if (line.size() - start.size() < PROPERTY_VALUE_MAX) value = line.substr(start.size());
    }
    return value;
}

}  // namespace

int property_get(const char* key, char* value, const char* default_value) {
    const std::string found = find_property(key);
    const char* text = found.c_str();
    if (found.empty() && default_value != nullptr) text = default_value;
    snprintf(value, PROPERTY_VALUE_MAX, "%s", text);
    return static_cast<int>(strlen(value));
}

int8_t property_get_bool(const char* key, int8_t default_value) {
    const std::string value = find_property(key);
    for (const char* word : {"1", "true", "y", "yes", "on"}) {
        if (value == word) return 1;
    }
    for (const char* word : {"0", "false", "n", "no", "off"}) {
        if (value == word) return 0;
    }
    return default_value;
}

int64_t property_get_int64(const char* key, int64_t default_value) {
    const std::string value = find_property(key);
    char* end = nullptr;
    errno = 0;
    const intmax_t number = strtoimax(value.c_str(), &end, 0);
    // What follows the digits is ignored, as on the platform.
    const bool is_number = end != value.c_str() && errno == 0;
    return is_number ? number : default_value;
}
