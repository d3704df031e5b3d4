// usage: settings CONFIG PROPERTIES
//
// Has the daemon read a configuration and a file of system properties, and prints as JSON what it
// made of them: every field of its Config under the field's name, the detectors' tables, whether it
// idles, and the errors that it logged. It reads inside a play, so that nothing of the host is
// touched.

#include <android-base/file.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "core/config_file.h"
#include "modules/binder/binder_monitor.h"
#include "modules/config.h"
#include "modules/iowait/black_white_list.h"
#include "modules/process/process_monitor.h"
#include "sim/play.h"

namespace {

template <typename Items>
Json::Value array_of(const Items& items) {
    Json::Value array(Json::arrayValue);
    for (const auto& item : items) array.append(item);
    return array;
}

// The detectors are null where they were not built, as in Config.

Json::Value json_of(const BinderMonitor* monitor) {
    Json::Value fields;
    if (monitor == nullptr) return fields;
    fields["enable"] = monitor->enable;
    fields["timeout"] = Json::Int64{monitor->timeout};
    fields["monitor_uids"] = array_of(monitor->monitor_uids);
    fields["wchans"] = array_of(monitor->wchans);
    fields["uid_map"] = Json::Value(Json::objectValue);
    for (const auto& [name, uid] : monitor->uid_map) fields["uid_map"][name] = uid;
    return fields;
}

Json::Value json_of(const BlackWhiteList* module) {
    Json::Value fields;
    if (module == nullptr) return fields;
    fields["enable"] = module->enable;
    fields["list"] = array_of(module->list);
    fields["mode"] = module->mode;
    fields["io_time"] = module->io_time;
    fields["io_task"] = module->io_task;
    return fields;
}

const char* word_of(int32_t policy) {
    for (const char* word : {"kill", "reboot", "panic"}) {
        if (policy_of(word) == policy) return word;
    }
    return "nothing";
}

const char* name_of(const Module* module, const Config& config) {
    if (module == config.binder_monitor) return "binder_monitor";
    return module == config.black_white_list ? "black_white_list" : "process_monitor";
}

Json::Value json_of(const Config& config) {
    Json::Value fields;
    fields["enable"] = config.enable;
    fields["debug"] = config.debug;
    fields["use_shell"] = config.use_shell;
    fields["process_enable"] = config.process_enable;
    fields["binder_enable"] = config.binder_enable;
    fields["hw_enable"] = config.hw_enable;
    fields["bw_enable"] = config.bw_enable;
    fields["policy"] = word_of(config.policy);
    fields["bw_mode"] = config.bw_mode;
    fields["timeout"] = Json::Int64{config.timeout};
    fields["timeout_min"] = Json::Int64{config.timeout_min};
    fields["interval"] = Json::Int64{config.interval};
    fields["interval_min"] = Json::Int64{config.interval_min};
    fields["log_timeout"] = Json::Int64{config.log_timeout};
    fields["round"] = config.round;
    fields["hw_list"] = array_of(config.hw_list);
    fields["process_list"] = Json::Value(Json::objectValue);
    for (const auto& [process, threads] : config.process_list) {
        fields["process_list"][process] = array_of(threads);
    }
    fields["binder_monitor"] = json_of(config.binder_monitor);
    fields["black_white_list"] = json_of(config.black_white_list);
    fields["process_monitor"] = Json::Value();
    if (config.process_monitor != nullptr) {
        fields["process_monitor"]["enable"] = config.process_monitor->enable;
    }
    fields["modules"] = Json::Value(Json::arrayValue);
    for (const Module* module : config.modules) fields["modules"].append(name_of(module, config));
    return fields;
}

[[noreturn]] void print_settings(Device& device) {
    Json::Value result;
    result["errors"] = Json::Value(Json::arrayValue);
    device.on_event = [&result](const std::string& event) {
        if (event.rfind("E ", 0) == 0) result["errors"].append(event.substr(2));
    };
    Config& config = Config::get();
    read_config_file(&config);
    result["settings"] = json_of(config);
    result["idle"] = !config.enable;
    REQUIRE(android::base::WriteStringToFd(result.toStyledString(), STDOUT_FILENO));
    end_play();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: settings CONFIG PROPERTIES\n");
        return 2;
    }
    const std::string files = std::string("config ") + argv[1] + ";properties " + argv[2];
    const Outcome outcome = play(files, print_settings);
    if (outcome.failure.empty()) return 0;
    fprintf(stderr, "settings: %s\n", outcome.failure.c_str());
    return 2;
}
