#pragma once

#include <sys/types.h>

// How long the dumps that were asked for, of SysRq or by a signal, get to be written before
// anything else happens.
constexpr useconds_t kDumpTimeUs = 3000000;

// Hands one command to the kernel's magic SysRq: "w" dumps the blocked tasks, "l" the backtraces of
// all active processors, "c" crashes the kernel. Works whatever kernel.sysrq allows, but needs
// CONFIG_MAGIC_SYSRQ. When the trigger cannot be opened that is logged and the command skipped; a
// failed write is ignored.
void do_sys_rq(const char* command);
