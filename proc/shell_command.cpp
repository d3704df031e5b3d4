#include "proc/shell_command.h"

#include <cstdio>

#include "core/log.h"

void exec_command(const char* command, char* output) {
    if (command == nullptr || output == nullptr) return;
    output[0] = '\0';
    FILE* stream = popen(command, "r");
    if (stream == nullptr) {
        if (debug_gate) LOG_INFO("[sh] %s failed", command);
        return;
    }
    [[maybe_unused]] const size_t length = fread(output, 1, kCommandOutputSize, stream);
    output[kCommandOutputSize - 1] = '\0';
    pclose(stream);
}

bool read_lines(const std::string& command, bool debug,
                const std::function<void(const char* line)>& take_line) {
    FILE* stream = popen(command.c_str(), "r");
    if (stream == nullptr) return false;
    char line[kCommandOutputSize] = {};
    while (fgets(line, sizeof(line), stream) != nullptr) take_line(line);
    if (pclose(stream) == -1 && debug) LOG_ERROR("close fail.");
    return true;
}
