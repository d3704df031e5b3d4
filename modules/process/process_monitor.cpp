#include "modules/process/process_monitor.h"

#include <cstring>
#include <utility>

#include "core/hang_policy.h"
#include "core/log.h"
#include "modules/hang_stages.h"
#include "proc/proc_readers.h"

namespace {

// A multi-threaded process whose main thread has exited lives on as a zombie with an empty command
// line, under its old pid and parent.
bool is_same_zombie(const process_info& process, const std::string& process_dir) {
    const proc sample = sample_once(process_dir);
    return sample.pid == static_cast<uint32_t>(process.pid) &&
           sample.ppid == static_cast<uint32_t>(process.ppid) && sample.state == 'Z';
}

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

process_info* ProcessMonitor::proc_lookup(const char* name) {
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
    const std::string process_dir = "/proc/" + pid;
    const std::string program = get_proc_name(pid);
    if (program.empty()) {
        if (!is_same_zombie(*process, process_dir)) {
            process->unbind();
            return false;
        }
        read_stat(&process->first_thread(), process_dir, interval);
        return true;
    }

    const std::string current_name = program_base_name(program);
    if (current_name != process->cmd_name) {
        if (debug) LOG_INFO("pid %u changed %s", process->pid, current_name.c_str());
        return false;
    }
    if (process->main_only) {
        process->first_thread().alive = true;
        read_stat(&process->first_thread(), thread_dir(process->pid, process->pid), interval);
        return true;
    }
    return refresh_threads(process);
}

bool ProcessMonitor::refresh_threads(process_info* process) {
    for (auto& [name, thread] : process->threads) {
        if (!thread.alive) return false;
        const std::string task_dir =
                thread_dir(static_cast<int>(thread.tgid), static_cast<int>(thread.pid));
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
    process_info* process = proc_lookup(name.c_str());
    if (process == nullptr) return false;

    process->cmd_name = name;
    if (process->pid != pid) {
        if (debug) LOG_INFO("process %s pid changed to %d.", process->cmd_name.c_str(), pid);
        process->unbind();
    }
    process->pid = pid;
    process->started = pid != -1;
    if (!process->main_only) return true;

    proc& thread = process->first_thread();
    thread.alive = true;
    thread.tgid = pid;
    read_stat(&thread, path, interval);
    process->ppid = static_cast<int32_t>(thread.ppid);
    return false;
}

void ProcessMonitor::check_unnamed_process(int pid, const std::string& path) {
    for (auto& [name, process] : processes) {
        if (process.pid != pid) continue;
        if (is_same_zombie(process, path)) {
            process.started = true;
            read_stat(&process.first_thread(), path, interval);
            process.first_thread().alive = true;
        } else {
            process.unbind();
        }
        return;
    }
}

void ProcessMonitor::check_thread(std::string name, int pid, std::string comm, int tid,
                                  std::string path) {
    process_info* process = proc_lookup(name.c_str());
    if (process == nullptr) return;

    if (process->main_only) {
        // A second sample of this scan: another detector asked for the threads.
        if (tid != pid) return;
        proc& thread = process->first_thread();
        thread.alive = true;
        thread.tgid = tid;
        read_stat(&thread, path, interval);
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
    process->ppid = static_cast<int32_t>(thread.ppid);
}

void ProcessMonitor::post_check(std::string name, std::string path) {
    process_info* process = proc_lookup(name.c_str());
    if (process == nullptr) return;

    for (auto& [thread_name, thread] : process->threads) {
        if (thread.alive) continue;
        thread.tgid = process->pid;
        if (process->ppid == -1) {
            process->ppid = static_cast<int32_t>(sample_once(path).ppid);
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
        thread->zygote_child = zygote_pids.count(static_cast<int>(thread->ppid)) != 0;
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

    if (!thread->alive || thread->state == 'S') {
        respond_missing_or_unswitched(name, *process, thread);
        return true;
    }
    if (is_blocked_state(thread->state)) {
        if (respond_blocked(thread, process->zygote_child, timeout)) log_dumped(*process, *thread);
        return true;
    }
    return false;
}

// A watched thread that is missing, or one that sleeps and is never switched to.
void ProcessMonitor::respond_missing_or_unswitched(const std::string& name,
                                                   const process_info& process, proc* thread) {
    if (!thread->reported) {
        dump_stacks(thread->tgid, process.zygote_child);
        log_dumped(process, *thread);
        thread->reported = true;
        return;
    }
    const std::string ids =
            "pid:" + std::to_string(thread->tgid) + " ppid:" + std::to_string(thread->ppid);
    std::string report;
    if (!thread->alive) {
        report = name + " in " + ids + " cannot start " + whole_seconds(timeout);
    } else {
        report = "tid:" + std::to_string(thread->pid) + " " + ids + " in unswitch " +
                 thread->state + " " + whole_seconds(timeout);
    }
    handle_policy(static_cast<int>(thread->tgid), report);
}

void ProcessMonitor::log_dumped(const process_info& process, const proc& thread) const {
    if (!debug) return;
    LOG_INFO("dumped:%u %s parent=%u stat=%c", thread.tgid, process.cmd_name.c_str(), thread.ppid,
             thread.state);
}
