#include "modules/config.h"

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
    for (Module* module : modules) {
        if (takes_part(module)) module->scan_process(zygote_pids);
    }
}

void Config::check_process_sh() {
    for (Module* module : modules) {
        if (takes_part(module)) module->check_process_sh();
    }
}

void Config::dump() {
    for (Module* module : modules) {
        if (takes_part(module)) module->dump();
    }
}

void Config::pre_check() {
    for (Module* module : modules) {
        if (takes_part(module)) module->pre_check();
    }
}

void Config::post_check(std::string name, std::string path) {
    for (Module* module : modules) {
        if (takes_part(module)) module->post_check(name, path);
    }
}

void Config::check_thread(std::string name, int pid, std::string comm, int tid, std::string path) {
    for (Module* module : modules) {
        if (takes_part(module)) module->check_thread(name, pid, comm, tid, path);
    }
}
