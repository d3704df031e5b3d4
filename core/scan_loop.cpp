#include "core/scan_loop.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <set>

#include "core/log.h"
#include "core/proc_walk.h"
#include "core/self_watchdog.h"
#include "modules/config.h"

namespace {

std::set<int> zygote_pids;  // met by the last walk

timespec last_scan_time;  // start of the last scan

// A tick of resolution is enough, and the coarse clock does not read the hardware's counter.
timespec coarse_now() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now;
}

int64_t elapsed_ms(const timespec& from, const timespec& to) {
    return (to.tv_nsec - from.tv_nsec) / 1000000 + int64_t{to.tv_sec - from.tv_sec} * 1000;
}

void scan() {
    Config& config = Config::get();
    if (config.use_shell) {
        config.check_process_sh();
    } else if (config.need_traverse()) {
        zygote_pids = walk_proc();
    }
    config.scan_process(zygote_pids);
}

// How long to wait after a scan that started `late` and took `cost` (ms): what is left of the
// interval, so that scans keep their schedule. Once that slips, because the lateness leaves less
// than `interval_min` or nothing is left at all, `interval_min`.
int64_t wait_after_scan(int64_t interval, int64_t interval_min, int64_t cost, int64_t late) {
    if (interval < std::max(cost + late, interval_min + late)) return interval_min;
    return interval - (cost + late);
}

// Scans if the time has come. Returns the time to sleep, in ms.
int64_t take_turn() {
    const Config& config = Config::get();
    const timespec now = coarse_now();
    const int64_t elapsed = elapsed_ms(last_scan_time, now);
    const int64_t interval = config.interval;
    if (elapsed < interval) return interval - elapsed;

    last_scan_time = now;
    const int64_t late = elapsed - interval;
    scan();
    const int64_t cost = elapsed_ms(now, coarse_now());
    if (cost > config.log_timeout && debug_gate) {
        LOG_ERROR("long time cost: %lld", static_cast<long long>(cost));
    }
    return wait_after_scan(interval, config.interval_min, cost, late);
}

}  // namespace

void run_scan_loop() {
    last_scan_time = coarse_now();
    for (;;) {
        arm_self_watchdog(Config::get().timeout);
        const auto sleep_ms = static_cast<uint32_t>(take_turn());
        // Wraps beyond 71 minutes; the loop then turns early and sleeps again.
        usleep(sleep_ms * 1000);
    }
}
