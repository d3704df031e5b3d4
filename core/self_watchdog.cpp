#include "core/self_watchdog.h"

#include <signal.h>
#include <unistd.h>

#include "core/log.h"
#include "core/sysrq.h"

void install_self_watchdog() {
    signal(SIGALRM, alarm_handler);
}

void arm_self_watchdog(int64_t timeout) {
    // Twice the time-out, in whole seconds.
    alarm(static_cast<unsigned>(timeout / 500));
}

void alarm_handler(int /*signal*/) {
    LOG_ERROR("Self stuck! restarting...");
    do_sys_rq("w");
    do_sys_rq("l");
    usleep(kDumpTimeUs);
    kill(getpid(), SIGKILL);
}
