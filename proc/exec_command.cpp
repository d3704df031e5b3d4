#include "proc/exec_command.h"

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
