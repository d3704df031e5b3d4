#include "modules/config.h"

#include <cutils/properties.h>

#include <algorithm>

#include "core/log.h"
#include "modules/process/process_monitor.h"
#include "proc/string_split.h"

std::optional<Policy> policy_of(const std::string& word) {
    if (word == "panic") return kPolicyPanic;
    if (word == "reboot") return kPolicyReboot;
    if (word == "kill") return kPolicyKill;
    return std::nullopt;
}

namespace {

bool takes_part(const Module* module) {
    return module != nullptr && module->enable;
}

}  // namespace

Config& Config::get() {
    static Config config;
    return config;
}

bool Config::need_traverse() {
    for (Module* module : modules) {
        if (takes_part(module) && module->need_traverse()) return true;
    }
    return false;
}

bool Config::check_process(std::string name, int pid, std::string path) {
    bool want_threads = false;
    for (Module* module : modules) {
        if (takes_part(module) && module->check_process(name, pid, path)) want_threads = true;
    }
    return want_threads;
}

void Config::scan_process(std::set<int> zygote_pids) {
    fan_out(&Module::scan_process, zygote_pids);
}

void Config::check_process_sh() {
    fan_out(&Module::check_process_sh);
}

void Config::dump() {
    fan_out(&Module::dump);
}

void Config::pre_check() {
    fan_out(&Module::pre_check);
}

void Config::post_check(std::string name, std::string path) {
    fan_out(&Module::post_check, name, path);
}

void Config::check_thread(std::string name, int pid, std::string comm, int tid, std::string path) {
    fan_out(&Module::check_thread, name, pid, comm, tid, path);
}

template <typename... Arguments>
void Config::fan_out(void (Module::*operation)(Arguments...), const Arguments&... arguments) {
    for (Module* module : modules) {
        if (takes_part(module)) (module->*operation)(arguments...);
    }
}

std::string Config::get_prop_string(const char* name, const char* default_value) const {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(name, value, default_value);
    if (debug) LOG_INFO("get %s =%s", name, value);
    return value;
}

void Config::init_second_stage() {
    apply_timeout_property();
    apply_policy_property();
    apply_process_list_property();
    if (process_list.empty()) process_enable = false;
    if (process_enable) build_process_monitor();
    enable = enable && (binder_enable || bw_enable || process_enable);
}

void Config::apply_timeout_property() {
    constexpr char kName[] = "persist.vendor.hg.timeout";
    const auto seconds = static_cast<int32_t>(property_get_int64(kName, 0));
    if (debug) LOG_INFO("get %s =%d", kName, seconds);
    timeout = std::max(timeout, int64_t{seconds} * 1000);
    interval = std::max(interval, round != 0 ? timeout / round : 0);
}

void Config::apply_policy_property() {
    const std::string word = get_prop_string("persist.vendor.hg.policy", "");
    if (word.empty()) return;
    if (const std::optional<Policy> selected = policy_of(word)) {
        policy = *selected;
    } else if (debug) {
        LOG_ERROR("persist.vendor.hg.policy format error");
    }
}

// "system_server surfaceflinger:RenderEngine": processes, each with the threads to watch.
void Config::apply_process_list_property() {
    const std::string entries = get_prop_string("persist.vendor.hg.processes", " ");
    for (const std::string& entry : string_split(entries, " ")) {
        const std::vector<std::string> names = string_split(entry, ":");
        if (names.empty()) continue;
        process_list[names.front()].insert(names.begin() + 1, names.end());
    }
}

void Config::build_process_monitor() {
    // Lives until the process ends, like every detector.
    process_monitor = new ProcessMonitor(process_list, interval, timeout);
    process_monitor->enable = true;
    process_monitor->debug = debug;
    process_monitor->dump();
    modules.push_back(process_monitor);
}
