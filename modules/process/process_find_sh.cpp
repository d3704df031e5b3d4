#include <cstdio>
#include <cstdlib>
#include <vector>

#include "core/log.h"
#include "modules/process/process_monitor.h"
#include "proc/exec_command.h"
#include "proc/proc_readers.h"
#include "proc/string_split.h"

namespace {

// Columns of the platform's `ps -e`: user, pid, parent pid, virtual size, resident size, wait
// channel, address, state, name.
enum ProcessColumn { kPid = 1, kPpid = 2, kState = 7, kName = 8 };
constexpr size_t kProcessColumnsMin = 8;

// Columns of its `ps -T`: the thread id comes after the pid.
enum ThreadColumn {
    kThreadPid = 1,
    kThreadTid = 2,
    kThreadPpid = 3,
    kThreadState = 8,
    kThreadName = 9
};
constexpr size_t kThreadColumnsMin = 9;

// A longer command is cut.
constexpr size_t kCommandSize = 1024;

// The start of a command's output, cut at blanks only: a line feed stays within its piece.
std::vector<std::string> run_and_split(const std::string& command) {
    char output[kCommandOutputSize] = {};
    exec_command(command.c_str(), output);
    return string_split(output, " ");
}

// The piece at `column`, empty where the output ends before it.
std::string piece_at(const std::vector<std::string>& pieces, size_t column) {
    return column < pieces.size() ? pieces[column] : std::string();
}

int number_at(const std::vector<std::string>& pieces, size_t column) {
    return atoi(piece_at(pieces, column).c_str());
}

char state_at(const std::vector<std::string>& pieces, size_t column) {
    return piece_at(pieces, column)[0];
}

std::string thread_dir(int pid, int tid) {
    return "/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid);
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
    const std::vector<std::string> pieces = run_and_split("ps -e|grep " + name);
    if (pieces.size() < kProcessColumnsMin) {
        process->unbind();
    } else {
        const int pid = number_at(pieces, kPid);
        if (pid != process->pid) {
            if (debug) LOG_INFO("proc %s pid changed.", name.c_str());
            process->unbind();
            process->pid = pid;
            process->ppid = number_at(pieces, kPpid);
            process->started = pid != -1;
            if (process->started) {
                process->cmd_name = piece_at(pieces, kName);
                if (is_zygote(get_proc_name(std::to_string(process->ppid)))) {
                    process->zygote_child = true;
                }
            }
        }
        process->state = state_at(pieces, kState);
    }
    if (!process->started && debug) LOG_INFO("process %s not started.", name.c_str());
    return process->started;
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
    read_stat(&thread, thread_dir(process->pid, process->pid));
}

// Binds the thread to the tid that is listed under its name, or unbinds it.
void ProcessMonitor::bind_thread_sh(const std::string& name, int pid, proc* thread) {
    char command[kCommandSize];
    snprintf(command, sizeof(command), "ps -T -p %u |grep %s", pid, name.c_str());
    const std::vector<std::string> pieces = run_and_split(command);
    if (pieces.size() < kThreadColumnsMin) {
        thread->pid = kUnknownId;
        if (thread->alive) thread->clear_sample();
        return;
    }
    const auto tid = static_cast<uint32_t>(number_at(pieces, kThreadTid));
    if (tid != thread->pid) {
        if (debug) LOG_INFO("thread %s tid changed.", name.c_str());
        thread->clear_sample();
        thread->pid = tid;
        thread->tgid = number_at(pieces, kThreadPid);
        thread->ppid = number_at(pieces, kThreadPpid);
        thread->set_comm(piece_at(pieces, kThreadName).c_str());
    }
    thread->alive = thread->pid != kUnknownId;
    thread->state = state_at(pieces, kThreadState);
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
    read_stat(thread, thread_dir(static_cast<int>(thread->tgid), static_cast<int>(thread->pid)));
}
