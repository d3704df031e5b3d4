// usage: settings CONFIG PROPERTIES
//
// Has the daemon read a configuration and a file of system properties, and prints as JSON what it
// made of them: every field of its Config under the field's name, the detectors' tables, whether it
// idles, and the errors that it logged. It reads inside a play, so that nothing of the host is
// touched.

#include <cstdio>
#include <sstream>
#include <string>

#include "core/config_file.h"
#include "modules/binder/binder_monitor.h"
#include "modules/config.h"
#include "modules/iowait/black_white_list.h"
#include "modules/process/process_monitor.h"
#include "sim/play.h"

namespace {

template <typename Item>
Json::Value json_of(const std::set<Item>& items) {
    Json::Value array(Json::arrayValue);
    for (const Item& item : items) array.append(item);
    return array;
}

Json::Value object(std::initializer_list<std::pair<const char*, Json::Value>> fields) {
    Json::Value value(Json::objectValue);
    for (const auto& [name, field] : fields) value[name] = field;
    return value;
}

// The detectors are null where they were not built, as in Config.

Json::Value json_of(const BinderMonitor* monitor) {
    if (monitor == nullptr) return {};
    Json::Value uids = object({});
    for (const auto& [name, uid] : monitor->uid_map) uids[name] = uid;
    return object({{"enable", monitor->enable},
                   {"timeout", monitor->timeout},
                   {"monitor_uids", json_of(monitor->monitor_uids)},
                   {"wchans", json_of(monitor->wchans)},
                   {"uid_map", uids}});
}

Json::Value json_of(const BlackWhiteList* module) {
    if (module == nullptr) return {};
    return object({{"enable", module->enable},
                   {"list", json_of(module->list)},
                   {"mode", module->mode},
                   {"io_time", module->io_time},
                   {"io_task", module->io_task}});
}

Json::Value json_of(const ProcessMonitor* monitor) {
    if (monitor == nullptr) return {};
    return object({{"enable", monitor->enable}});
}

const char* name_of(const Module* module, const Config& config) {
    if (module == config.binder_monitor) return "binder_monitor";
    return module == config.black_white_list ? "black_white_list" : "process_monitor";
}

Json::Value json_of(const Config& config) {
    static const char* const kPolicies[] = {"kill", "reboot", "panic", "nothing"};
    Json::Value processes = object({}), modules(Json::arrayValue);
    for (const auto& [name, threads] : config.process_list) processes[name] = json_of(threads);
    for (const Module* module : config.modules) modules.append(name_of(module, config));
    return object({{"enable", config.enable},
                   {"debug", config.debug},
                   {"use_shell", config.use_shell},
                   {"process_enable", config.process_enable},
                   {"binder_enable", config.binder_enable},
                   {"hw_enable", config.hw_enable},
                   {"bw_enable", config.bw_enable},
                   {"policy", kPolicies[config.policy]},
                   {"bw_mode", config.bw_mode},
                   {"timeout", config.timeout},
                   {"timeout_min", config.timeout_min},
                   {"interval", config.interval},
                   {"interval_min", config.interval_min},
                   {"log_timeout", config.log_timeout},
                   {"round", config.round},
                   {"hw_list", json_of(config.hw_list)},
                   {"process_list", processes},
                   {"binder_monitor", json_of(config.binder_monitor)},
                   {"black_white_list", json_of(config.black_white_list)},
                   {"process_monitor", json_of(config.process_monitor)},
                   {"modules", modules}});
}

// In the daemon's place.
[[noreturn]] void read_settings() {
    Config& config = Config::get();
    read_config_file(&config);
    record("settings", Json::FastWriter().write(json_of(config)));
    end_play();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: settings CONFIG PROPERTIES\n");
        return 2;
    }
    const std::string files = std::string("config ") + argv[1] + ";properties " + argv[2];
    const Outcome outcome = play(files + ";watch E |settings", read_settings);
    if (!outcome.failure.empty()) {
        fprintf(stderr, "settings: %s\n", outcome.failure.c_str());
        return 2;
    }
    std::istringstream events(outcome.events);
    Json::Value result;
    result["errors"] = Json::Value(Json::arrayValue);
    for (std::string event; std::getline(events, event);) {
        const auto [kind, text] = cut(event.substr(2), " ");  // behind the second 0
        if (kind == "E") result["errors"].append(text);
        if (kind == "settings") Json::Reader().parse(text, result["settings"]);
    }
    result["idle"] = !result["settings"]["enable"].asBool();
    puts(result.toStyledString().c_str());
}
