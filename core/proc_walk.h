#pragma once

#include <set>

// Opens /proc ahead of the first walk. False, with a log line, when that fails.
bool open_proc();

// Walks /proc once: calls Config::pre_check, hands every process to Config::check_process, the
// threads of those that a module claims to Config::check_thread, and closes each with
// Config::post_check, but for one whose threads cannot be listed. Returns the pids
// of the processes named "zygote" or "zygote64"; empty, and nothing is handed over, when /proc
// cannot be opened. /proc is closed afterwards and opened anew by the next walk.
std::set<int> walk_proc();
