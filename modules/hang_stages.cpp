#include "modules/hang_stages.h"

#include <signal.h>
#include <unistd.h>

#include "core/hang_policy.h"
#include "core/sysrq.h"

namespace {

constexpr int kManagedDumpSignal = SIGQUIT;
// The platform reserves the real-time signals from 32 on; 35 is its debugger signal.
constexpr int kNativeDumpSignal = 35;

void dump_blocked(const proc& task, bool zygote_child) {
    if (task.state == 'Z') {
        dump_stacks(task.ppid, false);
    } else {
        dump_stacks(task.tgid, zygote_child);
    }
    do_sys_rq("w");
    do_sys_rq("l");
    usleep(kDumpTimeUs);
}

// "tid:1234 pid:1200 ppid:1 in D 120s"; a zombie's report has no tid.
std::string blocked_report(const proc& task, int64_t timeout) {
    std::string report;
    if (task.state != 'Z') report = "tid:" + std::to_string(task.pid) + " ";
    return report + "pid:" + std::to_string(task.tgid) + " ppid:" + std::to_string(task.ppid) +
           " in " + task.state + " " + whole_seconds(timeout);
}

}  // namespace

void dump_stacks(uint32_t pid, bool zygote_child) {
    const auto target = static_cast<pid_t>(pid);
    if (zygote_child) {
        kill(target, kManagedDumpSignal);
        usleep(kDumpTimeUs);
    }
    kill(target, kNativeDumpSignal);
}

bool respond_blocked(proc* task, bool zygote_child, int64_t timeout) {
    if (!task->reported) {
        dump_blocked(*task, zygote_child);
        task->reported = true;
        return true;
    }
    std::string report = blocked_report(*task, timeout);
    handle_policy(static_cast<int>(task->state == 'Z' ? task->ppid : task->tgid), report);
    return false;
}

std::string whole_seconds(int64_t milliseconds) {
    return std::to_string(milliseconds / 1000) + "s";
}
