#include <vector>

#include "core/hang_policy.h"
#include "core/log.h"
#include "modules/binder/binder_monitor.h"
#include "modules/hang_response.h"

void BinderMonitor::scan_process(std::set<int> zygote_pids) {
    std::vector<int32_t> unmet;
    for (auto& [tid, thread] : binder_threads) {
        if (thread.alive) {
            judge_thread(&thread, zygote_pids);
        } else {
            unmet.push_back(tid);
        }
    }
    for (const int32_t tid : unmet) {
        if (debug) LOG_INFO("binder thread %u removed.", tid);
        binder_threads.erase(tid);
    }
}

void BinderMonitor::judge_thread(proc* thread, const std::set<int>& zygote_pids) {
    if (thread->frozen) {
        if (debug) LOG_INFO("binder thread %s frozen.", thread->comm);
        return;
    }
    if (!is_monitor_state(thread->state, thread->wchan)) {
        thread->count = 0;
        return;
    }
    if (debug) {
        LOG_INFO("%s %u state=%c wchan=%s count=%lld", thread->comm, thread->pid, thread->state,
                 thread->wchan.c_str(), static_cast<long long>(thread->count));
    }
    // In shell mode the set is empty, and finding the thread has told whose child it is.
    if (!zygote_pids.empty()) {
        thread->zygote_child = zygote_pids.count(static_cast<int>(thread->ppid)) != 0;
        if (debug) LOG_INFO("thread %s is forked by zygote:%d", thread->comm, thread->zygote_child);
    }
    if (thread->count < timeout / 2) return;

    thread->count = 0;
    if (is_blocked_state(thread->state)) {
        respond_blocked(thread);
    } else {
        respond_waiting(thread);
    }
}

void BinderMonitor::respond_blocked(proc* thread) {
    if (!thread->reported) {
        dump_blocked(*thread, thread->zygote_child);
        thread->reported = true;
        if (debug) {
            LOG_INFO("dumped hung proc:%u parent=%u stat=%c", thread->tgid, thread->ppid,
                     thread->state);
        }
        return;
    }
    std::string report = blocked_report(*thread, timeout);
    handle_policy(static_cast<int>(policy_target(*thread)), report);
}

// A thread that sleeps in a listed wait channel.
void BinderMonitor::respond_waiting(proc* thread) {
    if (!thread->reported) {
        dump_stacks(thread->tgid, thread->zygote_child);
        thread->reported = true;
        if (debug) {
            LOG_INFO("dumped hung proc:%u parent=%u wchan=%s", thread->tgid, thread->ppid,
                     thread->wchan.c_str());
        }
        return;
    }
    // Nothing stands between the wait channel and the seconds: log readers know the line so.
    std::string report = "pid:" + std::to_string(thread->tgid) +
                         " ppid:" + std::to_string(thread->ppid) + " wchan: " + thread->wchan +
                         whole_seconds(timeout);
    handle_policy(static_cast<int>(thread->tgid), report);
}
