#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <unordered_map>

#include "modules/module.h"
#include "proc/proc.h"

// The detector of binder threads: threads whose name contains "Binder:" and whose real uid is
// monitored. They are found by every walk and judged after it. Everything runs on the scan loop's
// thread. What shell mode does instead of the walk is in binder_monitor_sh.cpp.
class BinderMonitor : public Module {
  public:
    // Always: binder threads come and go, so that every scan walks.
    bool need_traverse() override { return true; }
    // Always: any process may have binder threads.
    bool check_process(std::string, int, std::string) override { return true; }
    // Judges every tracked thread, then drops those that the scan did not meet.
    void scan_process(std::set<int> zygote_pids) override;
    void check_process_sh() override;
    void dump() override;
    void pre_check() override;
    // Samples a tracked thread, and admits one of a monitored uid. The uid is not asked for while a
    // tracked thread stays in its process; a thread of any other user is asked in every walk.
    void check_thread(std::string name, int pid, std::string comm, int tid,
                      std::string path) override;

    std::set<uint32_t> monitor_uids;
    std::set<std::string> wchans;
    std::unordered_map<std::string, int32_t> uid_map;  // user name to uid
    std::unordered_map<int32_t, proc> binder_threads;  // by thread id
    int64_t timeout = 0;                               // ms

  private:
    // Finding.
    proc* bind_thread(int pid, int tid, const std::string& path);

    // The wait channel of a task from its "wchan" file, empty when unreadable. The kernel prints
    // "0" for a task that is not waiting, and for one that the caller may not ptrace.
    static std::string get_wchan(const std::string& task_dir);

    // Whether a thread in this condition may be hung: blocked (D, T, Z), or in a listed wait
    // channel.
    bool is_monitor_state(char state, const std::string& wchan) const;

    // Judging.
    void judge_thread(proc* thread, const std::set<int>& zygote_pids);

    // Finding by shell commands.
    std::string listing_command() const;
    void check_listed_thread(const char* line);
};
