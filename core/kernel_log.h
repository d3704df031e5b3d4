#pragma once

#include <string>

// Writes `line` to "/dev/kmsg" as one record, unchanged, and echoes it to the Android log when
// debug_gate is set. An empty line opens nothing. A line that cannot be written is lost. `line` is
// not changed.
void write_kmsg(std::string& line);
