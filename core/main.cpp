#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "core/config_file.h"
#include "core/log.h"
#include "core/proc_walk.h"
#include "core/scan_loop.h"
#include "core/self_watchdog.h"
#include "modules/config.h"

namespace {

// The daemon's work is never urgent: it yields to whatever is interactive.
void run_as_batch() {
    const sched_param priority = {};
    sched_setscheduler(0, SCHED_BATCH, &priority);
}

// A daemon that is switched off stays, doing nothing, so that its supervisor need not restart it.
[[noreturn]] void pause_for_ever() {
    run_as_batch();
    for (;;) pause();
}

}  // namespace

int main() {
    prctl(PR_SET_DUMPABLE, 0);
    LOG_DEBUG("started");

    Config& config = Config::get();
    read_config_file(&config);
    if (!open_proc()) config.enable = false;
    if (!config.enable) pause_for_ever();

    debug_gate = config.debug;
    install_self_watchdog();
    run_as_batch();
    run_scan_loop();
}
