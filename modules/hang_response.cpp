#include "modules/hang_response.h"

#include <signal.h>
#include <unistd.h>

#include "core/sysrq.h"

namespace {

constexpr int kManagedDumpSignal = SIGQUIT;
// The platform reserves the real-time signals from 32 on; 35 is its debugger signal.
constexpr int kNativeDumpSignal = 35;

}  // namespace

void dump_stacks(uint32_t tgid, bool zygote_child) {
    const auto pid = static_cast<pid_t>(tgid);
    if (zygote_child) {
        kill(pid, kManagedDumpSignal);
        usleep(kDumpTime);
    }
    kill(pid, kNativeDumpSignal);
}

void dump_blocked(const proc& task, bool zygote_child) {
    if (task.state == 'Z') {
        dump_stacks(task.ppid, false);
    } else {
        dump_stacks(task.tgid, zygote_child);
    }
    do_sys_rq("w");
    do_sys_rq("l");
    usleep(kDumpTime);
}

std::string blocked_report(const proc& task, int64_t timeout) {
    std::string report;
    if (task.state != 'Z') report = "tid:" + std::to_string(task.pid) + " ";
    return report + "pid:" + std::to_string(task.tgid) + " ppid:" + std::to_string(task.ppid) +
           " in " + task.state + " " + whole_seconds(timeout);
}

uint32_t policy_target(const proc& task) {
    return task.state == 'Z' ? task.ppid : task.tgid;
}

std::string whole_seconds(int64_t milliseconds) {
    return std::to_string(milliseconds / 1000) + "s";
}
