#pragma once

#include <cstdint>
#include <string>

#include "proc/proc.h"

// Samples a task into `record` from the "stat", "cgroup" and "schedstat" files of its directory,
// and decides whether it made progress: `count` grows by `interval`, the ms between two scans,
// while state, CPU time and run count stand still; any change sets it to 0 and clears `reported`.
// An empty or unparsable stat file leaves the record as it was.
void read_stat(proc* record, const std::string& task_dir, int64_t interval);

// A new record of one sample, for the ids and the state; its ids are unknown when that failed.
proc sample_once(const std::string& task_dir);
