#pragma once

#include <set>
#include <string>

// A detector of hung tasks, driven by the scan loop. One scan asks need_traverse(); when /proc is
// to be walked it calls pre_check() once, then for every process check_process(), check_thread()
// for its threads, and post_check(). In shell mode check_process_sh() stands in for all of these.
// scan_process() ends the scan in both modes.
class Module {
  public:
    // Whether this scan needs the /proc walk. A detector that can do without it samples its known
    // tasks here, up to the first that must be looked for.
    virtual bool need_traverse() = 0;

    // One live process: its name (empty when its command line is), its id and its directory
    // "/proc/<pid>". Returns whether its threads must be visited.
    virtual bool check_process(std::string name, int pid, std::string path) = 0;

    // Judges what was sampled. `zygote_pids` are the processes named "zygote" or "zygote64" that
    // the last walk met; empty in shell mode.
    virtual void scan_process(std::set<int> zygote_pids) = 0;

    // Finds the module's tasks with shell commands.
    virtual void check_process_sh() = 0;

    // Logs the module's settings when it debugs.
    virtual void dump() = 0;

    // The /proc walk begins.
    virtual void pre_check() = 0;

    // The walk is done with one process, after its threads where they were visited. Not called when
    // the task directory could not be opened.
    virtual void post_check(std::string /*name*/, std::string /*path*/) {}

    // One thread, of the process `name` and `pid`: its own name `comm`, its id and its directory
    // "/proc/<pid>/task/<tid>".
    virtual void check_thread(std::string /*name*/, int /*pid*/, std::string /*comm*/, int /*tid*/,
                              std::string /*path*/) {}

    virtual ~Module() = default;

    bool enable = false;  // whether the module takes part in the scans
    bool debug = false;   // whether the module writes its gated log lines
};
