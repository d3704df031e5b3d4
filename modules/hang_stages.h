#pragma once

#include <string>

#include "proc/proc.h"

// Carries out the stage of the response to a hang that is due for `task`; when one is due is the
// detector's to judge. Returns whether it dumped.
//   - The first time, true: asks the process for its stacks, first for those of its managed threads
//     where it is a child of the zygote. For a task in state D, T or Z the kernel is asked as well,
//     for its blocked tasks and the backtraces of all processors. Then marks the task `reported`.
//   - While it is marked so, false: hands `report` to the policy.
// Both are aimed at the process that owns the task; for a zombie, at the parent that has not reaped
// it. Managed stacks get 3 s to be written, and so do the kernel's dumps: that holds up the scan on
// purpose. A signal to a process that is gone is harmless.
bool respond(proc* task, bool zygote_child, std::string report);
