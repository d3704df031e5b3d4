#include "modules/hang_stages.h"

#include <signal.h>
#include <unistd.h>

#include "core/hang_policy.h"
#include "core/sysrq.h"

namespace {

// Makes a child of the zygote write the stacks of its managed threads.
constexpr int kManagedDumpSignal = SIGQUIT;
// Makes any process write its native stacks. The platform reserves the real-time signals from 32
// on; 35 is its debugger signal.
constexpr int kNativeDumpSignal = 35;

void dump_stacks(int pid, bool has_managed_threads) {
    if (has_managed_threads) {
        kill(pid, kManagedDumpSignal);
        usleep(kDumpTimeUs);
    }
    kill(pid, kNativeDumpSignal);
}

void dump_kernel() {
    do_sys_rq("w");
    do_sys_rq("l");
    usleep(kDumpTimeUs);
}

}  // namespace

bool respond(proc* task, bool zygote_child, std::string report) {
    // What is left in the record of a task that is not there says nothing.
    const bool is_blocked = task->alive && is_blocked_state(task->state);
    const bool is_zombie = is_blocked && task->state == 'Z';
    const int target = is_zombie ? task->ppid : task->tgid;
    if (task->reported) {
        handle_policy(target, report);
        return false;
    }
    dump_stacks(target, zygote_child && !is_zombie);
    if (is_blocked) dump_kernel();
    task->reported = true;
    return true;
}
