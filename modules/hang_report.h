#pragma once

#include <cstdint>
#include <string>

#include "proc/proc.h"

// The one-line reports about hung tasks, for the kernel log. `timeout` is the hang time-out in ms;
// a report states it in whole seconds, fractions cut off.

// In state D, T or Z: "tid:1234 pid:1200 ppid:1 in D 120s"; a zombie's has no tid.
std::string blocked_report(const proc& task, int64_t timeout);

// A watched thread that is not there: "RenderThread in pid:1200 ppid:567 cannot start 120s".
std::string missing_report(const std::string& thread_name, const proc& thread, int64_t timeout);

// A sleeping thread that is never switched to: "tid:1234 pid:1200 ppid:567 in unswitch S 120s".
std::string unswitched_report(const proc& thread, int64_t timeout);

// A thread asleep in a listed wait channel: "pid:1200 ppid:567 wchan: binder_x120s". Nothing stands
// between the wait channel and the seconds: log readers know the line so.
std::string waiting_report(const proc& thread, int64_t timeout);
