#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "modules/config.h"
#include "modules/module.h"
#include "proc/proc.h"

// One process to watch and the live process it is bound to.
struct process_info {
    bool started = false;       // met by the last walk or listing, false while unbound
    bool main_only = false;     // watched as a whole, through its main thread
    bool zygote_child = false;  // its parent is a zygote; in shell mode also if one was
    int32_t pid = -1;           // live process, -1 while unbound
    int32_t ppid = -1;
    char state = '?';      // scheduler state, kept in shell mode only
    std::string cmd_name;  // name under which the live process was last seen

    // The watched threads by thread name; tids and tgids are those of the last binding. A process
    // watched as a whole has exactly one entry, under the process name: its main thread.
    std::unordered_map<std::string, proc> threads;

    // The only entry of a `main_only` process. Of any other it is whichever comes first; it lends
    // its record to the main thread while that is a zombie.
    proc& first_thread() { return threads.begin()->second; }

    // Ends the binding to a live process and forgets every thread's sample.
    void unbind();
};

// The detector of named processes and threads. Its table is filled at start-up from the configured
// names, bound to live tasks in every scan, and bound tasks are then judged. Everything runs on the
// scan loop's thread. What shell mode does instead of the walk is in process_monitor_sh.cpp.
class ProcessMonitor : public Module {
  public:
    // Durations in ms. Every process and thread of `process_list` starts unbound.
    ProcessMonitor(const ProcessList& process_list, int64_t interval, int64_t timeout);

    // Refreshes every watched task from its recorded ids, without a walk; true at the first one
    // that is missing, was not met yet or runs under another name. The tasks before that one stay
    // refreshed. A process without a command line is unbound, unless it is the zombie that an
    // exited main thread leaves while other threads live.
    bool need_traverse() override;
    bool check_process(std::string name, int pid, std::string path) override;
    void scan_process(std::set<int> zygote_pids) override;
    void check_process_sh() override;
    void dump() override;
    void pre_check() override;
    // A watched thread that no walk has met since the process was bound gains one interval of stuck
    // time. One that was met and ends keeps its last sample.
    void post_check(std::string name, std::string path) override;
    void check_thread(std::string name, int pid, std::string comm, int tid,
                      std::string path) override;

  private:
    // The entry of exactly this name, or null.
    process_info* proc_lookup(const std::string& name);

    // Binding, by the walk and between walks.
    void sample_main_thread(process_info* process, int tid, const std::string& task_dir) const;
    bool sample_zombie(process_info* process, const std::string& process_dir) const;
    void check_unnamed_process(int pid, const std::string& path);
    bool refresh(const std::string& name, process_info* process);
    bool refresh_threads(process_info* process);

    // Binding, by shell commands.
    bool bind_process_sh(const std::string& name, process_info* process);
    void rebind_process_sh(const std::string& name, const std::vector<std::string>& columns,
                           process_info* process);
    void check_main_thread_sh(process_info* process);
    void bind_thread_sh(const std::string& name, int pid, proc* thread);
    void check_thread_sh(const std::string& name, const process_info& process, proc* thread);

    // Whether a live thread would be hung if it stood still: blocked, or the sleeping watchdog of
    // a child of the zygote.
    static bool is_candidate(const proc& thread);

    // Judging; true when a stage of the response was carried out.
    bool judge_thread(const std::string& name, process_info* process, proc* thread,
                      const std::set<int>& zygote_pids);
    std::string report_on(const std::string& name, const proc& thread) const;

    int64_t interval;
    int64_t timeout;
    std::unordered_map<std::string, process_info> processes;
};
