#include <cstdlib>

#include "core/log.h"
#include "modules/binder/binder_monitor.h"
#include "proc/proc_readers.h"

namespace {

// "Uid:\t1000\t1000\t1000\t1000" of a status file, never its first line: real, effective, saved and
// file system uid.
uint32_t parse_real_uid(const std::string& status) {
    constexpr char kLabel[] = "\nUid:";
    const size_t label = status.find(kLabel);
    if (label == std::string::npos) return kUnknownUid;
    const size_t begin = status.find_first_not_of(" \t", label + sizeof(kLabel) - 1);
    if (begin == std::string::npos) return kUnknownUid;
    const size_t end = status.find_first_not_of("0123456789", begin);
    if (end == begin || end == std::string::npos) return kUnknownUid;
    if (status[end] != ' ' && status[end] != '\t') return kUnknownUid;
    return static_cast<uint32_t>(strtoul(status.c_str() + begin, nullptr, 10));
}

}  // namespace

void BinderMonitor::dump() {
    if (!debug) return;
    LOG_INFO("binder enable=%d list size=%lu, wchan size=%lu", enable, monitor_uids.size(),
             wchans.size());
    for (const auto& [name, uid] : uid_map) LOG_INFO("binder uid map %s:%d", name.c_str(), uid);
}

void BinderMonitor::pre_check() {
    for (auto& [tid, thread] : binder_threads) thread.alive = false;
}

bool BinderMonitor::check_process(std::string /*name*/, int /*pid*/, std::string /*path*/) {
    return true;
}

void BinderMonitor::check_thread(std::string /*name*/, int pid, std::string comm, int tid,
                                 std::string path) {
    if (comm.find("Binder:") == std::string::npos) return;

    auto found = binder_threads.find(tid);
    const bool tracked = found != binder_threads.end();
    if (tracked && found->second.tgid == static_cast<uint32_t>(pid)) {
        proc& thread = found->second;
        thread.alive = true;
        read_stat(&thread, path);
        thread.wchan = get_wchan(path);
        return;
    }
    if (tracked) {
        if (debug) LOG_INFO("reset binder %u", found->second.tgid);
        found->second.clear_sample();
    }

    const uint32_t uid = parse_real_uid(read_task_file(path, "/status"));
    if (monitor_uids.count(uid) == 0) {
        if (!tracked) return;
        if (debug) LOG_INFO("binder thread %u removed because of uid invalid.", tid);
        binder_threads.erase(found);
        return;
    }
    proc& thread = binder_threads[tid];
    read_stat(&thread, path);
    thread.wchan = get_wchan(path);
    thread.uid = uid;
    thread.tgid = pid;
    thread.alive = true;
}

bool BinderMonitor::is_monitor_state(char state, const std::string& wchan) const {
    return is_blocked_state(state) || wchans.count(wchan) != 0;
}

std::string BinderMonitor::get_wchan(const std::string& task_dir) {
    std::string wchan = read_task_file(task_dir, "/wchan");
    cut_at_separator(&wchan);
    return wchan;
}
