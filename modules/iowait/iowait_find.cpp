#include <utility>

#include "core/log.h"
#include "modules/iowait/black_white_list.h"
#include "proc/proc_readers.h"

void BlackWhiteList::dump() {
    if (!debug) return;
    LOG_INFO("bw list enable=%d,mode=%d,size=%lu,io_time=%d,io_task=%d", enable, mode, list.size(),
             io_time, io_task);
}

bool BlackWhiteList::need_traverse() {
    if (tracked.size() < list.size()) return true;
    for (auto& [pid, info] : tracked) {
        if (!confirm(pid, &info)) return true;
    }
    return false;
}

// Whether the process still runs the program it was found under.
bool BlackWhiteList::confirm(int pid, ListInfo* info) {
    if (!info->alive) {
        if (debug) LOG_INFO("bw proc %s not found, traverse.", info->name.c_str());
        return false;
    }
    const std::string id = std::to_string(pid);
    std::string name = get_proc_name(id);
    if (name.empty()) name = get_comm("/proc/" + id);
    if (name.empty()) {
        info->alive = false;
        if (debug) LOG_INFO("%d dead, traverse", pid);
        return false;
    }
    name = program_base_name(name);
    if (name != info->name) {
        if (debug) LOG_INFO("bw pid %u changed to %s, traverse", pid, name.c_str());
        return false;
    }
    info->alive = true;
    info->pending = false;
    return true;
}

void BlackWhiteList::pre_check() {
    for (auto& [pid, info] : tracked) info.alive = false;
}

bool BlackWhiteList::check_process(std::string name, int pid, std::string path) {
    if (name.empty()) name = get_comm(path);
    if (name.empty() || list.count(name) == 0) return false;

    const auto [entry, is_new] = tracked.try_emplace(pid);
    ListInfo& info = entry->second;
    const bool is_confirmed = !is_new && info.name == name;
    if (debug && is_new) LOG_INFO("bw add proc %s pid=%u", name.c_str(), pid);
    if (debug && !is_new && !is_confirmed) {
        LOG_INFO("bw proc %s change pid=%u", name.c_str(), pid);
    }
    info.alive = true;
    info.pending = !is_confirmed;
    info.name = std::move(name);
    return false;
}

void BlackWhiteList::scan_process(std::set<int> /*zygote_pids*/) {
    std::vector<int> unmet;
    bool has_queued = false;
    for (const auto& [pid, info] : tracked) {
        if (!info.alive) {
            unmet.push_back(pid);
        } else if (info.pending) {
            queue_pid(pid);
            has_queued = true;
        }
    }
    for (const int pid : unmet) {
        if (debug) LOG_INFO("bw %d removed.", pid);
        tracked.erase(pid);
    }
    if (has_queued) {
        const std::lock_guard lock(mutex);
        queued.notify_one();
    }
}

void BlackWhiteList::queue_pid(int pid) {
    if (debug) LOG_INFO("add_pids %d", pid);
    const std::lock_guard lock(mutex);
    queue.push_back(pid);
}
