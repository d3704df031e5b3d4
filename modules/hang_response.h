#pragma once

#include <cstdint>
#include <string>

#include "proc/proc.h"

// What the detectors do alike about a hung task: ask for stack dumps first, then describe the hang
// to the policy. Nothing here fails: a signal to a process that is gone is harmless.

// Asks process `tgid` for its stacks: signal 3 (SIGQUIT) makes a child of the zygote write the
// stacks of its managed threads, for which it gets 3 s; signal 35, the platform's debugger signal,
// makes any process write its native stacks.
void dump_stacks(uint32_t tgid, bool zygote_child);

// First stage for a task in state D, T or Z: asks its process for stacks, or the parent that has
// not reaped it where it is a zombie, and the kernel for its blocked tasks and the backtraces of
// all processors. Ends with 3 s in which the dumps get written.
void dump_blocked(const proc& task, bool zygote_child);

// "tid:1234 pid:1200 ppid:1 in D 120s"; a zombie's report has no tid. `timeout` in ms.
std::string blocked_report(const proc& task, int64_t timeout);

// The process that the policy acts on for a task in state D, T or Z: the parent of a zombie, else
// the task's own process.
uint32_t policy_target(const proc& task);

// A duration in ms as a report states it: "120s", fractions cut off.
std::string whole_seconds(int64_t milliseconds);
