#include "core/proc_walk.h"

#include <dirent.h>

#include <cstdlib>
#include <string>
#include <utility>

#include "core/dir_info.h"
#include "core/log.h"
#include "modules/config.h"
#include "proc/names.h"
#include "proc/task_files.h"

namespace {

constexpr char kProcDir[] = "/proc/";

DirInfo proc_dir_reader;
DirInfo task_dir_reader;

// Hands the thread that `entry` names to the modules; entries that name none are passed over.
void check_thread_entry(const dirent64* entry, const std::string& process_name, int pid,
                        const std::string& task_dir) {
    std::string filtered_path;
    if (!get_valid_tid_dir(entry, &filtered_path)) return;
    std::string path = task_dir + entry->d_name;
    const int tid = atoi(entry->d_name);
    std::string comm = get_comm(path);
    Config::get().check_thread(process_name, pid, std::move(comm), tid, std::move(path));
}

// Visits the threads of one process; false, with a log line, when its task directory cannot be
// opened. A directory that yields nothing at once, as that of a process that is just going away,
// still gives the thread step one visit: with the process's own entry of /proc.
bool walk_threads(const dirent64* process_entry, const std::string& process_name, int pid,
                  const std::string& process_dir) {
    const std::string task_dir = process_dir + "/task/";
    if (!task_dir_reader.open(task_dir.c_str())) {
        if (debug_gate) LOG_INFO("open %s failed", task_dir.c_str());
        return false;
    }
    const dirent64* entry = task_dir_reader.next();
    if (entry == nullptr) check_thread_entry(process_entry, process_name, pid, task_dir);
    for (; entry != nullptr; entry = task_dir_reader.next()) {
        check_thread_entry(entry, process_name, pid, task_dir);
    }
    task_dir_reader.close();
    return true;
}

void check_process_entry(const dirent64* entry, std::set<int>* zygote_pids) {
    std::string process_dir;
    if (!get_valid_tid_dir(entry, &process_dir)) return;
    const int pid = atoi(entry->d_name);
    const std::string name = program_base_name(get_proc_name(entry->d_name));
    if (is_zygote(name)) zygote_pids->insert(pid);

    Config& config = Config::get();
    if (config.check_process(name, pid, process_dir) &&
        !walk_threads(entry, name, pid, process_dir)) {
        return;
    }
    config.post_check(name, std::move(process_dir));
}

}  // namespace

bool open_proc() {
    if (proc_dir_reader.open(kProcDir)) return true;
    LOG_ERROR("init failed because of open proc");
    return false;
}

std::set<int> walk_proc() {
    std::set<int> zygote_pids;
    if (!proc_dir_reader.is_open() && !proc_dir_reader.open(kProcDir)) {
        if (debug_gate) LOG_ERROR("opendir %s failed!", kProcDir);
        return zygote_pids;
    }
    Config::get().pre_check();
    while (const dirent64* entry = proc_dir_reader.next()) {
        check_process_entry(entry, &zygote_pids);
    }
    // Nothing rests on the rewind: the next walk opens /proc anew.
    proc_dir_reader.rewind();
    proc_dir_reader.close();
    return zygote_pids;
}
