#include "modules/binder/binder_monitor.h"

#include <cstdlib>
#include <vector>

#include "core/log.h"
#include "modules/config.h"
#include "modules/hang_report.h"
#include "modules/hang_stages.h"
#include "proc/names.h"
#include "proc/sample.h"
#include "proc/task_files.h"

namespace {

// "Uid:\t1000\t1000\t1000\t1000" of a status file, never its first line: real, effective, saved and
// file system uid. The first counts if it is a number with a blank behind it.
uint32_t parse_real_uid(const std::string& status) {
    constexpr char kLabel[] = "\nUid:";
    const size_t label = status.find(kLabel);
    if (label == std::string::npos) return kUnknownUid;
    const size_t begin = status.find_first_not_of(" \t", label + sizeof(kLabel) - 1);
    const size_t end = status.find_first_not_of("0123456789", begin);
    if (end == std::string::npos || (status[end] != ' ' && status[end] != '\t')) {
        return kUnknownUid;
    }
    return static_cast<uint32_t>(strtoul(status.c_str() + begin, nullptr, 10));
}

}  // namespace

void BinderMonitor::dump() {
    if (!debug) return;
    LOG_INFO("binder enable=%d list size=%zu, wchan size=%zu", enable, monitor_uids.size(),
             wchans.size());
    for (const auto& [name, uid] : uid_map) LOG_INFO("binder uid map %s:%d", name.c_str(), uid);
}

void BinderMonitor::pre_check() {
    for (auto& [tid, thread] : binder_threads) thread.alive = false;
}

void BinderMonitor::check_thread(std::string /*name*/, int pid, std::string comm, int tid,
                                 std::string path) {
    if (comm.find("Binder:") == std::string::npos) return;
    proc* thread = bind_thread(pid, tid, path);
    if (thread == nullptr) return;
    thread->alive = true;
    // The interval of now: a property may have raised it since this detector was built.
    read_stat(thread, path, Config::get().interval);
    thread->wchan = get_wchan(path);
}

// The record of a thread; null where its user, who is asked for when the thread is new or its id
// was last met in another process, is not monitored. In the latter case the record starts anew, or
// goes.
proc* BinderMonitor::bind_thread(int pid, int tid, const std::string& path) {
    const auto found = binder_threads.find(tid);
    const bool tracked = found != binder_threads.end();
    if (tracked && found->second.tgid == static_cast<uint32_t>(pid)) return &found->second;
    if (tracked) {
        if (debug) LOG_INFO("reset binder %u", found->second.tgid);
        found->second.clear_sample();
    }

    const uint32_t uid = parse_real_uid(read_task_file(path, "/status"));
    if (monitor_uids.count(uid) == 0) {
        if (!tracked) return nullptr;
        if (debug) LOG_INFO("binder thread %u removed because of uid invalid.", tid);
        binder_threads.erase(found);
        return nullptr;
    }
    proc& thread = binder_threads[tid];
    thread.uid = uid;
    thread.tgid = pid;
    return &thread;
}

bool BinderMonitor::is_monitor_state(char state, const std::string& wchan) const {
    return is_blocked_state(state) || wchans.count(wchan) != 0;
}

std::string BinderMonitor::get_wchan(const std::string& task_dir) {
    std::string wchan = read_task_file(task_dir, "/wchan");
    cut_at_separator(&wchan);
    return wchan;
}

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
    // Without a zygote the flag stays as it was; in shell mode finding the thread has set it.
    if (!zygote_pids.empty()) {
        thread->zygote_child = zygote_pids.count(thread->ppid) != 0;
        if (debug) LOG_INFO("thread %s is forked by zygote:%d", thread->comm, thread->zygote_child);
    }
    if (thread->count < timeout / 2) return;

    thread->count = 0;
    const bool is_blocked = is_blocked_state(thread->state);
    const std::string report =
            is_blocked ? blocked_report(*thread, timeout) : waiting_report(*thread, timeout);
    if (!respond(thread, thread->zygote_child, report) || !debug) return;
    if (is_blocked) {
        LOG_INFO("dumped hung proc:%u parent=%u stat=%c", thread->tgid, thread->ppid,
                 thread->state);
    } else {
        LOG_INFO("dumped hung proc:%u parent=%u wchan=%s", thread->tgid, thread->ppid,
                 thread->wchan.c_str());
    }
}
