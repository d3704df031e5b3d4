#include "core/hang_policy.h"

#include <cutils/android_reboot.h>
#include <signal.h>
#include <unistd.h>

#include "core/kernel_log.h"
#include "core/log.h"
#include "core/sysrq.h"
#include "modules/config.h"

namespace {

void panic(std::string& report) {
    write_kmsg(report);
    do_sys_rq("w");
    do_sys_rq("l");
    usleep(kDumpTimeUs);
    do_sys_rq("c");
}

void reboot(std::string& report) {
    write_kmsg(report);
    android_reboot(ANDROID_RB_RESTART2, 0, "tovrel");
}

void kill_process(int pid, const std::string& report) {
    if (debug_gate) {
        if (!report.empty()) LOG_INFO("%s", report.c_str());
        LOG_INFO("killing %u", static_cast<unsigned>(pid));
    }
    kill(pid, SIGKILL);
}

}  // namespace

void handle_policy(int pid, std::string& report) {
    switch (Config::get().policy) {
        case kPolicyPanic:
            return panic(report);
        case kPolicyReboot:
            return reboot(report);
        case kPolicyKill:
            return kill_process(pid, report);
        default:
            if (debug_gate) LOG_INFO("nothing to do according to policy");
    }
}
