#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "modules/module.h"

class BinderMonitor;
class BlackWhiteList;
class ProcessMonitor;

// What to do with a hung task.
enum Policy : int32_t { kPolicyKill = 0, kPolicyReboot = 1, kPolicyPanic = 2, kPolicyNothing = 3 };

// The policy that "kill", "reboot" or "panic" selects; std::nullopt for any other word, "nothing"
// included: the default is the caller's.
std::optional<Policy> policy_of(const std::string& word);

// Mode of the I/O-wait list.
enum ListMode : int32_t { kWhiteList = 0, kBlackList = 1 };

// Process names, each with the names of its threads to watch; no thread: the process as a whole.
using ProcessList = std::unordered_map<std::string, std::set<std::string>>;

// The settings of the daemon, and the composite through which the scan loop reaches the detectors:
// every operation of Module goes to each enabled entry of `modules`, in order, with copies of the
// arguments. Of the inherited fields, `enable` is the master switch and `debug` the daemon's.
// Durations are milliseconds.
class Config : public Module {
  public:
    // The only instance.
    static Config& get();

    Config(const Config&) = delete;
    Config& operator=(const Config&) = delete;

    // True as soon as one module says so; the modules after it are not asked.
    bool need_traverse() override;
    // Asks every module; true when one of them wants the threads.
    bool check_process(std::string name, int pid, std::string path) override;
    void scan_process(std::set<int> zygote_pids) override;
    void check_process_sh() override;
    void dump() override;
    void pre_check() override;
    void post_check(std::string name, std::string path) override;
    void check_thread(std::string name, int pid, std::string comm, int tid,
                      std::string path) override;

    // The value of a system property, `default_value` when it is unset or empty. Logged with debug.
    std::string get_prop_string(const char* name, const char* default_value) const;

    // Applies the system properties of time-out, policy and processes (the others are read with
    // their sections of the file), builds the process detector, and clears `enable` when no
    // detector is switched on.
    void init_second_stage();

    bool use_shell = false;  // find tasks with shell commands instead of the /proc walk
    bool process_enable = false;
    bool binder_enable = false;
    bool hw_enable = false;
    bool bw_enable = false;
    int32_t policy = kPolicyNothing;
    int32_t bw_mode = kBlackList;
    int64_t timeout = 0;            // hang time-out
    int64_t timeout_min = 0;        // lower bound of `timeout`
    int64_t interval = 0;           // between two scans
    int64_t interval_min = 0;       // lower bound of `interval`
    int64_t log_timeout = 0;        // a scan that costs more is logged
    int32_t round = 0;              // scans per time-out, 0 until the file was read
    std::set<std::string> hw_list;  // board platforms on which the daemon is on by default
    ProcessList process_list;

    // The detectors live until the process ends and are not owned: a pointer is null while its
    // detector has not been built, and `modules` refers to the same objects in call order: binder
    // detector, I/O-wait list, process detector.
    ProcessMonitor* process_monitor = nullptr;
    BlackWhiteList* black_white_list = nullptr;
    BinderMonitor* binder_monitor = nullptr;
    std::vector<Module*> modules;

  private:
    Config() = default;

    template <typename... Arguments>
    void fan_out(void (Module::*operation)(Arguments...), const Arguments&... arguments);

    void apply_timeout_property();
    void apply_policy_property();
    void apply_process_list_property();
    void build_process_monitor();
};
