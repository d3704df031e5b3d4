#include "modules/process/process_monitor.h"

#include <cstring>
#include <utility>

#include "core/log.h"
#include "modules/hang_report.h"
#include "modules/hang_stages.h"
#include "proc/names.h"
#include "proc/sample.h"
#include "proc/task_files.h"

namespace {

// The thread that the platform's managed runtime processes keep to watch themselves: it runs
// regularly as long as its process is well.
bool is_sleeping_watchdog(const proc& thread) {
    return thread.zygote_child && thread.state == 'S' && strcmp(thread.comm, "watchdog") == 0;
}

}  // namespace

void process_info::unbind() {
    started = false;
    state = '?';
    pid = -1;
    ppid = -1;
    for (auto& [name, thread] : threads) thread.clear_sample();
}

ProcessMonitor::ProcessMonitor(const ProcessList& process_list, int64_t interval, int64_t timeout)
        : interval(interval), timeout(timeout) {
    for (const auto& [name, thread_names] : process_list) {
        process_info process;
        process.main_only = thread_names.empty();
        if (process.main_only) process.threads.try_emplace(name);
        for (const std::string& thread : thread_names) process.threads.try_emplace(thread);
        processes.emplace(name, std::move(process));
    }
}

process_info* ProcessMonitor::proc_lookup(const std::string& name) {
    const auto found = processes.find(name);
    return found != processes.end() ? &found->second : nullptr;
}

void ProcessMonitor::dump() {
    if (!debug) return;
    for (const auto& [name, process] : processes) {
        LOG_DEBUG("monitor process: %s", name.c_str());
        for (const auto& [thread_name, thread] : process.threads) {
            LOG_DEBUG("  thread: %s", thread_name.c_str());
        }
    }
}

bool ProcessMonitor::need_traverse() {
    for (auto& [name, process] : processes) {
        if (!refresh(name, &process)) return true;
    }
    return false;
}

// Samples a bound process from its recorded ids; false when it must be looked for.
bool ProcessMonitor::refresh(const std::string& name, process_info* process) {
    if (!process->started) {
        if (debug) LOG_INFO("process %s not found, traverse", name.c_str());
        return false;
    }

    const std::string pid = std::to_string(process->pid);
    const std::string program = get_proc_name(pid);
    if (program.empty()) return sample_zombie(process, "/proc/" + pid);

    const std::string current_name = program_base_name(program);
    if (current_name != process->cmd_name) {
        if (debug) LOG_INFO("pid %u changed %s", process->pid, current_name.c_str());
        return false;
    }
    if (process->main_only) {
        sample_main_thread(process, process->pid, thread_dir(process->pid, process->pid));
        return true;
    }
    return refresh_threads(process);
}

bool ProcessMonitor::refresh_threads(process_info* process) {
    for (auto& [name, thread] : process->threads) {
        if (!thread.alive) return false;
        const std::string task_dir = thread_dir(thread);
        const std::string current_name = get_comm(task_dir);
        if (current_name != thread.comm) {
            if (debug) LOG_ERROR("thread %s change to %s", thread.comm, current_name.c_str());
            return false;
        }
        read_stat(&thread, task_dir, interval);
        thread.alive = thread.pid != kUnknownId;
    }
    return true;
}

void ProcessMonitor::pre_check() {
    for (auto& [name, process] : processes) process.started = false;
}

bool ProcessMonitor::check_process(std::string name, int pid, std::string path) {
    if (name.empty()) {
        check_unnamed_process(pid, path);
        return false;
    }
    process_info* process = proc_lookup(name);
    if (process == nullptr) return false;

    process->cmd_name = name;
    if (process->pid != pid) {
        if (debug) LOG_INFO("process %s pid changed to %d.", process->cmd_name.c_str(), pid);
        process->unbind();
    }
    process->pid = pid;
    process->started = pid != -1;
    if (!process->main_only) return true;

    sample_main_thread(process, pid, path);
    process->ppid = process->first_thread().ppid;
    return false;
}

void ProcessMonitor::sample_main_thread(process_info* process, int tid,
                                        const std::string& task_dir) const {
    proc& thread = process->first_thread();
    thread.alive = true;
    thread.tgid = tid;
    read_stat(&thread, task_dir, interval);
}

void ProcessMonitor::check_unnamed_process(int pid, const std::string& path) {
    for (auto& [name, process] : processes) {
        if (process.pid != pid) continue;
        if (sample_zombie(&process, path)) {
            process.started = true;
            process.first_thread().alive = true;
        }
        return;
    }
}

// A multi-threaded process whose main thread has exited lives on as a zombie with an empty command
// line, under its old pid and parent. Any other process without one is not the one that was bound.
bool ProcessMonitor::sample_zombie(process_info* process, const std::string& process_dir) const {
    const proc sample = sample_once(process_dir);
    if (sample.pid != static_cast<uint32_t>(process->pid) ||
        sample.ppid != static_cast<uint32_t>(process->ppid) || sample.state != 'Z') {
        process->unbind();
        return false;
    }
    read_stat(&process->first_thread(), process_dir, interval);
    return true;
}

void ProcessMonitor::check_thread(std::string name, int pid, std::string comm, int tid,
                                  std::string path) {
    process_info* process = proc_lookup(name);
    if (process == nullptr) return;

    if (process->main_only) {
        // A second sample of this scan: another detector asked for the threads.
        if (tid == pid) sample_main_thread(process, tid, path);
        return;
    }

    const auto found = process->threads.find(comm);
    if (found == process->threads.end()) return;
    proc& thread = found->second;
    if (thread.pid != static_cast<uint32_t>(tid)) {
        if (debug) LOG_INFO("thread %s tid changed.", comm.c_str());
        thread.clear_sample();
    }
    thread.tgid = process->pid;
    read_stat(&thread, path, interval);
    thread.alive = thread.pid != kUnknownId;
    process->ppid = thread.ppid;
}

void ProcessMonitor::post_check(std::string name, std::string path) {
    process_info* process = proc_lookup(name);
    if (process == nullptr) return;

    for (auto& [thread_name, thread] : process->threads) {
        if (thread.alive) continue;
        thread.tgid = process->pid;
        if (process->ppid == -1) {
            process->ppid = sample_once(path).ppid;
        }
        thread.ppid = process->ppid;
        thread.count += interval;
        if (debug) LOG_INFO("thread %s not start", thread_name.c_str());
    }
}

bool ProcessMonitor::is_candidate(const proc& thread) {
    return is_blocked_state(thread.state) || is_sleeping_watchdog(thread);
}

void ProcessMonitor::scan_process(std::set<int> zygote_pids) {
    for (auto& [name, process] : processes) {
        if (!process.started) continue;
        if (process.threads.empty()) {
            if (debug) LOG_INFO("Empty thread.");
            continue;
        }
        for (auto& [thread_name, thread] : process.threads) {
            if (judge_thread(thread_name, &process, &thread, zygote_pids)) break;
        }
    }
}

bool ProcessMonitor::judge_thread(const std::string& name, process_info* process, proc* thread,
                                  const std::set<int>& zygote_pids) {
    if (thread->frozen) {
        if (debug) LOG_INFO(" thread %s frozen.", name.c_str());
        return false;
    }
    // Without a zygote there is no state filter: every thread that stands still is judged.
    if (!zygote_pids.empty()) {
        thread->zygote_child = zygote_pids.count(thread->ppid) != 0;
        process->zygote_child = thread->zygote_child;
        if (thread->alive && !is_candidate(*thread)) {
            thread->count = 0;
            return false;
        }
    }
    if (thread->count < timeout / 2) return false;
    if (debug) {
        LOG_INFO("thread: %s tid=%u, count=%lld, state=%c", name.c_str(), thread->pid,
                 static_cast<long long>(thread->count), thread->state);
    }
    thread->count = 0;

    if (thread->alive && thread->state != 'S' && !is_blocked_state(thread->state)) return false;
    if (respond(thread, process->zygote_child, report_on(name, *thread)) && debug) {
        LOG_INFO("dumped:%u %s parent=%u stat=%c", thread->tgid, process->cmd_name.c_str(),
                 thread->ppid, thread->state);
    }
    return true;
}

std::string ProcessMonitor::report_on(const std::string& name, const proc& thread) const {
    if (!thread.alive) return missing_report(name, thread, timeout);
    if (thread.state == 'S') return unswitched_report(thread, timeout);
    return blocked_report(thread, timeout);
}
