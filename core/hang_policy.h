#pragma once

#include <string>

// Acts on a hung task by Config's policy. `report` is the line for the kernel log; it is not
// changed.
//   panic    kernel log, SysRq "w" and "l", 3 s, SysRq "c"
//   reboot   kernel log, reboot with the reason "tovrel"
//   kill     SIGKILL to `pid`; the report goes to the Android log, with debug_gate set
//   nothing  nothing, as for any other value
// Normally does not return under the first two, because the device goes down. An act that fails
// does not keep back the ones after it.
void handle_policy(int pid, std::string& report);
