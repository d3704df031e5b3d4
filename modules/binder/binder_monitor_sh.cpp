#include <cstdlib>
#include <vector>

#include "core/log.h"
#include "modules/binder/binder_monitor.h"
#include "modules/config.h"
#include "proc/names.h"
#include "proc/ps_columns.h"
#include "proc/sample.h"
#include "proc/shell_command.h"
#include "proc/string_split.h"
#include "proc/task_files.h"

void BinderMonitor::check_process_sh() {
    const std::string command = listing_command();
    pre_check();
    const auto take_line = [this](const char* line) { check_listed_thread(line); };
    if (!read_lines(command, debug, take_line) && debug) LOG_ERROR("get binder cmd failed");
}

// The user names of the monitored uids, in the order of the uids and one name each, become the
// filter; without a name every user's binder threads are listed.
std::string BinderMonitor::listing_command() const {
    std::string names;
    int name_count = 0;
    for (const uint32_t monitored : monitor_uids) {
        for (const auto& [name, uid] : uid_map) {
            if (static_cast<uint32_t>(uid) != monitored) continue;
            names += name_count == 0 ? name : "|" + name;
            ++name_count;
            break;
        }
    }
    std::string command = "ps -e -T|grep Binder:";
    if (name_count == 1) command += "|grep " + names;
    if (name_count > 1) command += "|grep -E \"" + names + "\"";
    return command;
}

void BinderMonitor::check_listed_thread(const char* line) {
    using namespace ps_threads;
    std::vector<std::string> columns = string_split(line, " ");
    if (columns.size() < kColumns) {
        if (debug) LOG_INFO("[sh] read binder threads fail.");
        return;
    }
    const auto user = uid_map.find(columns[kUser]);
    const uint32_t uid = user != uid_map.end() ? static_cast<uint32_t>(user->second) : kUnknownUid;
    const int pid = atoi(columns[kPid].c_str());
    const int tid = atoi(columns[kTid].c_str());
    const int ppid = atoi(columns[kPpid].c_str());
    cut_at_separator(&columns[kName]);

    const auto [entry, is_new] = binder_threads.try_emplace(tid);
    proc& thread = entry->second;
    if (is_new || thread.tgid != static_cast<uint32_t>(pid)) {
        if (!is_new) {
            if (debug) LOG_INFO("binder thread %u pid changed.", thread.tgid);
            thread.clear_sample();
        }
        thread.tgid = pid;
        thread.ppid = ppid;
        thread.uid = uid;
        thread.state = columns[kState].front();
        thread.set_comm(columns[kName].c_str());
        thread.zygote_child = is_zygote(get_proc_name(std::to_string(ppid)));
    }
    thread.wchan = columns[kWchan];
    thread.alive = true;
    if (is_new) {
        // Its first sample is taken by the next listing.
        thread.pid = tid;
        return;
    }
    if (is_monitor_state(thread.state, thread.wchan)) {
        read_stat(&thread, thread_dir(thread), Config::get().interval);
    } else {
        thread.count = 0;
    }
}
