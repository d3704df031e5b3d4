#pragma once

#include <cstdint>

// The daemon's watch over itself: a turn of the scan loop that lasts too long ends the process, and
// its supervisor starts it anew.

// Installs alarm_handler() for SIGALRM.
void install_self_watchdog();

// Gives the turn that begins now twice the hang time-out (ms) to end, in whole seconds. Where that
// is none, below 500 ms, nothing watches the daemon.
void arm_self_watchdog(int64_t timeout);

// Has the kernel dump its blocked tasks and the backtraces of all processors, which show where the
// daemon is stuck, and kills the daemon. A signal handler that logs, opens files and sleeps, since
// it never returns to the interrupted code. Where that holds a lock of the log, the handler waits
// for it for ever, and the daemon stays as it is.
void alarm_handler(int signal);
