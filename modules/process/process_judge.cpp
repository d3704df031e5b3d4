#include <cstring>

#include "core/hang_policy.h"
#include "core/log.h"
#include "modules/hang_response.h"
#include "modules/process/process_monitor.h"

namespace {

// The thread that the platform's managed runtime processes keep to watch themselves: it runs
// regularly as long as its process is well.
bool is_sleeping_watchdog(const proc& thread) {
    return thread.zygote_child && thread.state == 'S' && strcmp(thread.comm, "watchdog") == 0;
}

}  // namespace

bool ProcessMonitor::is_candidate(const proc& thread) {
    return is_blocked_state(thread.state) || is_sleeping_watchdog(thread);
}

void ProcessMonitor::scan_process(std::set<int> zygote_pids) {
    for (auto& [name, process] : processes) {
        if (!process.started) continue;
        if (process.threads.empty()) {
            if (debug) LOG_INFO("Empty thread.");
            continue;
        }
        for (auto& [thread_name, thread] : process.threads) {
            if (judge_thread(thread_name, &process, &thread, zygote_pids)) break;
        }
    }
}

bool ProcessMonitor::judge_thread(const std::string& name, process_info* process, proc* thread,
                                  const std::set<int>& zygote_pids) {
    if (thread->frozen) {
        if (debug) LOG_INFO(" thread %s frozen.", name.c_str());
        return false;
    }
    // Without a zygote there is no state filter: every thread that stands still is judged.
    if (!zygote_pids.empty()) {
        thread->zygote_child = zygote_pids.count(static_cast<int>(thread->ppid)) != 0;
        process->zygote_child = thread->zygote_child;
        if (thread->alive && !is_candidate(*thread)) {
            thread->count = 0;
            return false;
        }
    }
    if (thread->count < timeout / 2) return false;
    if (debug) {
        LOG_INFO("thread: %s tid=%u, count=%lld, state=%c", name.c_str(), thread->pid,
                 static_cast<long long>(thread->count), thread->state);
    }
    thread->count = 0;

    if (!thread->alive || thread->state == 'S') {
        respond_unswitched(name, *process, thread);
        return true;
    }
    if (is_blocked_state(thread->state)) {
        respond_blocked(*process, thread);
        return true;
    }
    return false;
}

// A watched thread that is missing, or one that sleeps and is never switched to.
void ProcessMonitor::respond_unswitched(const std::string& name, const process_info& process,
                                        proc* thread) {
    if (!thread->reported) {
        dump_stacks(thread->tgid, process.zygote_child);
        log_dumped(process, *thread);
        thread->reported = true;
        return;
    }
    const std::string ids =
            "pid:" + std::to_string(thread->tgid) + " ppid:" + std::to_string(thread->ppid);
    std::string report;
    if (!thread->alive) {
        report = name + " in " + ids + " cannot start " + whole_seconds(timeout);
    } else {
        report = "tid:" + std::to_string(thread->pid) + " " + ids + " in unswitch " +
                 thread->state + " " + whole_seconds(timeout);
    }
    handle_policy(static_cast<int>(thread->tgid), report);
}

void ProcessMonitor::respond_blocked(const process_info& process, proc* thread) {
    if (!thread->reported) {
        dump_blocked(*thread, process.zygote_child);
        thread->reported = true;
        log_dumped(process, *thread);
        return;
    }
    std::string report = blocked_report(*thread, timeout);
    handle_policy(static_cast<int>(policy_target(*thread)), report);
}

void ProcessMonitor::log_dumped(const process_info& process, const proc& thread) const {
    if (!debug) return;
    LOG_INFO("dumped:%u %s parent=%u stat=%c", thread.tgid, process.cmd_name.c_str(), thread.ppid,
             thread.state);
}
