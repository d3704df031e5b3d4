#include "modules/iowait/black_white_list.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <utility>

#include "core/log.h"
#include "proc/names.h"
#include "proc/task_files.h"

namespace {

using android::base::unique_fd;
using android::base::WriteStringToFd;

constexpr char kModeFile[] = "/proc/sys/hung_task_enh/global_detect_mode";
constexpr char kTimeoutFile[] = "/proc/sys/hung_task_enh/max_iowait_timeout_cnt";
constexpr char kTaskFile[] = "/proc/sys/hung_task_enh/max_iowait_task_cnt";
constexpr char kPerTaskFile[] = "/proc/sys/hung_task_enh/per_task_detect_mode";

// Opens one of the kernel's files for writing; -1, with a gated log line, when that fails.
unique_fd open_sysctl(const char* path, bool debug) {
    unique_fd file(TEMP_FAILURE_RETRY(open(path, O_WRONLY | O_CLOEXEC)));
    if (file == -1 && debug) LOG_ERROR("error opening %s", path);
    return file;
}

// False when the file cannot be opened; a failed write is only logged.
bool write_global(const char* path, int value, bool debug) {
    const unique_fd file = open_sysctl(path, debug);
    if (file == -1) return false;
    if (!WriteStringToFd(std::to_string(value), file) && debug) LOG_ERROR("write %s failed", path);
    return true;
}

}  // namespace

void BlackWhiteList::init(int mode, bool debug, int io_time, int io_task) {
    if (!write_global(kModeFile, mode, debug) || !write_global(kTimeoutFile, io_time, debug) ||
        !write_global(kTaskFile, io_task, debug)) {
        enable = false;
        dump();
        return;
    }
    worker = std::thread([this] { write_queued_pids(); });
    worker.detach();
}

void BlackWhiteList::dump() {
    if (!debug) return;
    LOG_INFO("bw list enable=%d,mode=%d,size=%zu,io_time=%d,io_task=%d", enable, mode, list.size(),
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
    info.alive = true;
    info.pending = is_new || info.name != name;
    if (info.pending && debug) {
        LOG_INFO(is_new ? "bw add proc %s pid=%u" : "bw proc %s change pid=%u", name.c_str(), pid);
    }
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

// The worker thread.
void BlackWhiteList::write_queued_pids() {
    pthread_setname_np(pthread_self(), "workThread");
    std::unique_lock lock(mutex);
    for (;;) {
        queued.wait(lock, [this] { return !queue.empty(); });
        for (const int pid : queue) write_pid(pid);
        queue.clear();
    }
}

// Every id is marked with 1, whatever the list's mode: the kernel knows the mode from its global
// file.
void BlackWhiteList::write_pid(int pid) const {
    if (debug) LOG_INFO("bw trigger_write %d", pid);
    const std::string line = std::to_string(pid) + " 1";
    const unique_fd file = open_sysctl(kPerTaskFile, debug);
    if (file == -1) return;
    if (!WriteStringToFd(line, file) && debug) {
        LOG_ERROR("write %s to %s failed", line.c_str(), kPerTaskFile);
    }
}
