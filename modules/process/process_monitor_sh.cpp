#include <cstdio>
#include <cstdlib>

#include "core/log.h"
#include "modules/process/process_monitor.h"
#include "proc/names.h"
#include "proc/ps_columns.h"
#include "proc/sample.h"
#include "proc/shell_command.h"
#include "proc/string_split.h"
#include "proc/task_files.h"

namespace {

// The start of a command's output, cut at blanks only: a line feed stays within its column.
std::vector<std::string> run_and_split(const std::string& command) {
    char output[kCommandOutputSize] = {};
    exec_command(command.c_str(), output);
    return string_split(output, " ");
}

// Empty where the output ends before the name, its last column.
std::string name_in(const std::vector<std::string>& columns, size_t name_column) {
    return name_column < columns.size() ? columns[name_column] : std::string();
}

}  // namespace

void ProcessMonitor::check_process_sh() {
    for (auto& [name, process] : processes) {
        if (!bind_process_sh(name, &process)) continue;
        if (process.main_only) {
            check_main_thread_sh(&process);
            continue;
        }
        for (auto& [thread_name, thread] : process.threads) {
            bind_thread_sh(thread_name, process.pid, &thread);
            check_thread_sh(thread_name, process, &thread);
        }
    }
}

// Whether the process is there. Once bound it stays started for as long as its pid is listed.
bool ProcessMonitor::bind_process_sh(const std::string& name, process_info* process) {
    const std::vector<std::string> columns = run_and_split("ps -e|grep " + name);
    if (columns.size() < ps_processes::kName) {  // the name itself may be missing
        process->unbind();
    } else {
        if (atoi(columns[ps_processes::kPid].c_str()) != process->pid) {
            rebind_process_sh(name, columns, process);
        }
        process->state = columns[ps_processes::kState].front();
    }
    if (!process->started && debug) LOG_INFO("process %s not started.", name.c_str());
    return process->started;
}

void ProcessMonitor::rebind_process_sh(const std::string& name,
                                       const std::vector<std::string>& columns,
                                       process_info* process) {
    if (debug) LOG_INFO("proc %s pid changed.", name.c_str());
    process->unbind();
    process->pid = atoi(columns[ps_processes::kPid].c_str());
    process->ppid = atoi(columns[ps_processes::kPpid].c_str());
    process->started = process->pid != -1;
    if (!process->started) return;
    process->cmd_name = name_in(columns, ps_processes::kName);
    if (is_zygote(get_proc_name(std::to_string(process->ppid)))) process->zygote_child = true;
}

void ProcessMonitor::check_main_thread_sh(process_info* process) {
    proc& thread = process->first_thread();
    thread.zygote_child = process->zygote_child;
    thread.tgid = process->pid;
    thread.pid = process->pid;
    thread.ppid = process->ppid;
    thread.alive = process->pid != -1;
    thread.state = process->state;
    if (!is_candidate(thread)) {
        thread.count = 0;
        return;
    }
    if (debug) LOG_INFO("proc %d stat=%c", process->pid, thread.state);
    read_stat(&thread, thread_dir(thread), interval);
}

// Binds the thread to the tid that is listed under its name, or unbinds it.
void ProcessMonitor::bind_thread_sh(const std::string& name, int pid, proc* thread) {
    char command[1024];  // a longer one is cut
    snprintf(command, sizeof(command), "ps -T -p %u |grep %s", pid, name.c_str());
    const std::vector<std::string> columns = run_and_split(command);
    if (columns.size() < ps_threads::kName) {  // the name itself may be missing
        thread->pid = kUnknownId;
        if (thread->alive) thread->clear_sample();
        return;
    }
    const auto tid = static_cast<uint32_t>(atoi(columns[ps_threads::kTid].c_str()));
    if (tid != thread->pid) {
        if (debug) LOG_INFO("thread %s tid changed.", name.c_str());
        thread->clear_sample();
        thread->pid = tid;
        thread->tgid = atoi(columns[ps_threads::kPid].c_str());
        thread->ppid = atoi(columns[ps_threads::kPpid].c_str());
        thread->set_comm(name_in(columns, ps_threads::kName).c_str());
    }
    thread->alive = thread->pid != kUnknownId;
    thread->state = columns[ps_threads::kState].front();
}

void ProcessMonitor::check_thread_sh(const std::string& name, const process_info& process,
                                     proc* thread) {
    thread->zygote_child = process.zygote_child;
    thread->tgid = process.pid;
    if (!thread->alive) {
        if (debug) LOG_INFO("thead %s not started.", name.c_str());
        thread->count += interval;
        return;
    }
    if (!is_candidate(*thread)) {
        thread->count = 0;
        return;
    }
    if (debug) LOG_INFO("thread %s state=%c", name.c_str(), thread->state);
    read_stat(thread, thread_dir(*thread), interval);
}
