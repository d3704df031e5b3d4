#include "proc/task_files.h"

#include <android-base/file.h>
#include <sys/stat.h>

#include <cstring>

#include "core/log.h"
#include "proc/names.h"

bool get_valid_tid_dir(const dirent64* entry, std::string* path) {
    if (entry->d_name[0] < '0' || entry->d_name[0] > '9') return false;
    if (entry->d_type != DT_DIR && entry->d_type != DT_UNKNOWN) return false;
    path->assign("/proc/").append(entry->d_name);
    if (entry->d_type == DT_DIR) return true;
    struct stat status;
    return lstat(path->c_str(), &status) == 0 && (status.st_mode & S_IFDIR) != 0;
}

std::string thread_dir(int pid, int tid) {
    return "/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid);
}

std::string thread_dir(const proc& thread) {
    return thread_dir(static_cast<int>(thread.tgid), static_cast<int>(thread.pid));
}

std::string read_task_file(const std::string& task_dir, const char* name) {
    std::string path;
    // One allocation instead of two: this runs for every file of every scan.
    path.reserve(task_dir.size() + strlen(name));
    path.append(task_dir).append(name);
    std::string content;
    if (!android::base::ReadFileToString(path, &content, false)) {
        if (debug_gate) LOG_INFO("Read %s failed", path.c_str());
        content.clear();
    }
    return content;
}

std::string get_comm(const std::string& task_dir) {
    std::string name = read_task_file(task_dir, "/comm");
    cut_at_separator(&name);
    return name;
}

std::string get_proc_name(const std::string& pid) {
    std::string name = read_task_file("/proc/" + pid, "/cmdline");
    cut_at_separator(&name);
    return name;
}
