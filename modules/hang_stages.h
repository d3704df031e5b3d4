#pragma once

#include <cstdint>
#include <string>

#include "proc/proc.h"

// The two stages of the response to a hang, as far as the detectors share them: stack dumps first,
// the policy at the next half time-out. When a stage is due is the detector's to judge. The waits
// for dumps hold up the scan on purpose. A signal to a process that is gone is harmless.

// Asks a process for its stacks: signal 3 (SIGQUIT) makes a child of the zygote write the stacks of
// its managed threads, for which it gets 3 s; signal 35, the platform's debugger signal, makes any
// process write its native stacks.
void dump_stacks(uint32_t pid, bool zygote_child);

// The stage that is due for a task in state D, T or Z, whose process is a `zygote_child` or not.
// Returns whether it dumped. The first time, true: asks its process for stacks, or the parent that
// has not reaped it where it is a zombie, and the kernel for its blocked tasks and the backtraces
// of all processors; gives them 3 s and marks the task `reported`. After that, false: hands the
// report to the policy, which acts on the parent of a zombie, else on the task's own process.
// `timeout` is the hang time-out in ms.
bool respond_blocked(proc* task, bool zygote_child, int64_t timeout);

// A duration in ms as a report states it: "120s", fractions cut off.
std::string whole_seconds(int64_t milliseconds);
