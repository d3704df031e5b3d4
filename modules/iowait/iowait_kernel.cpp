#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include "core/log.h"
#include "modules/iowait/black_white_list.h"

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
    if (!WriteStringToFd(std::to_string(value), file)) {
        if (debug) LOG_ERROR("write %s failed", path);
    }
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
    if (!WriteStringToFd(line, file)) {
        if (debug) LOG_ERROR("write %s to %s failed", line.c_str(), kPerTaskFile);
    }
}
