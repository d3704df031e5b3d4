#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "modules/module.h"

// One process that runs a listed program.
struct ListInfo {
    bool alive = false;    // confirmed since the last pre_check()
    bool pending = false;  // new or under a new program: its id must be written to the kernel
    std::string name;      // list name under which it was found
};

// The I/O-wait list, "black_white_list" in the configuration and "bw" in the log. It judges
// nothing: it hands the processes of the configured list to the kernel's own hung-task detector,
// through files under "/proc/sys/hung_task_enh/", and the kernel judges their I/O waits. The
// operations of Module run on the scan loop's thread; ids are written by a worker thread. A slow
// file holds up only a scan that has an id to queue meanwhile. What shell mode does instead of the
// walk is in black_white_list_sh.cpp.
class BlackWhiteList : public Module {
  public:
    // Writes the kernel's global settings and starts the worker thread: `mode` to
    // "global_detect_mode", `io_time` to "max_iowait_timeout_cnt" and `io_task` to
    // "max_iowait_task_cnt", in decimal. A file that cannot be opened disables the module for good
    // and starts no thread; a write that fails is passed over. `debug` gates the log lines.
    void init(int mode, bool debug, int io_time, int io_task);

    // Confirms every tracked process from its recorded id, without a walk; true at the first one
    // that is gone or runs another program, and while fewer processes are tracked than listed.
    bool need_traverse() override;
    // Tracks the process when it is listed; by its comm where its name is empty. Never asks for the
    // threads.
    bool check_process(std::string name, int pid, std::string path) override;
    // Queues the pending ids for the worker and drops the processes that were not confirmed; in
    // shell mode none is dropped. An id stays pending, and is queued again, until its process is
    // next confirmed.
    void scan_process(std::set<int> zygote_pids) override;
    void check_process_sh() override;
    void dump() override;
    void pre_check() override;

    std::set<std::string> list;  // program names to look for
    int32_t mode = 0;            // a ListMode
    int32_t io_time = 0;
    int32_t io_task = 0;

  private:
    bool confirm(int pid, ListInfo* info);
    void queue_pid(int pid);
    std::string listing_command() const;
    void check_listed_process(const char* line);
    [[noreturn]] void write_queued_pids();
    void write_pid(int pid) const;

    std::mutex mutex;  // guards `queue` alone
    std::condition_variable queued;
    std::unordered_map<int, ListInfo> tracked;  // by process id
    std::vector<int> queue;                     // process ids for the worker to write
    std::thread worker;
};
