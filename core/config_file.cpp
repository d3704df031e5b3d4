#include "core/config_file.h"

#include <android-base/file.h>
#include <cutils/properties.h>
#include <json/json.h>

#include <algorithm>
#include <cstdint>
#include <set>
#include <string>
#include <utility>

#include "core/log.h"
#include "modules/binder/binder_monitor.h"
#include "modules/config.h"
#include "modules/iowait/black_white_list.h"

namespace {

constexpr char kConfigFile[] = "/vendor/etc/tovrel.json";

// Reads the object under `key`; false, after `error` was logged, when it is none.
bool read_section(const Json::Value& parent, const char* key, const char* error,
                  void (*read)(const Json::Value& section, Config* config), Config* config) {
    if (!parent.isObject() || !parent[key].isObject()) {
        LOG_ERROR("%s", error);
        return false;
    }
    read(parent[key], config);
    return true;
}

// An absent key and anything but an array count as an empty array.
const Json::Value& get_array(const Json::Value& section, const char* key) {
    const Json::Value& array = section[key];
    return array.isArray() ? array : Json::Value::nullSingleton();
}

void insert_strings(const Json::Value& array, std::set<std::string>* names) {
    for (const Json::Value& item : array) names->insert(item.asString());
}

int64_t seconds_to_ms(const Json::Value& seconds) {
    return int64_t{seconds.asInt()} * 1000;
}

bool read_bool_property(const char* name, bool log) {
    const bool value = property_get_bool(name, false);
    if (log) LOG_INFO("get %s =%d", name, value);
    return value;
}

void read_switches(const Json::Value& section, Config* config) {
    config->enable = section["main"].asBool();
    config->debug = section["debug"].asBool();
    config->use_shell = section["use_shell"].asBool();
    const bool log = config->debug;
    config->enable |= read_bool_property("persist.vendor.hg.enable", log);
    config->debug |= read_bool_property("persist.vendor.hg.debug", log);
}

void read_policy(const Json::Value& word, Config* config) {
    config->policy = policy_of(word.asString()).value_or(kPolicyNothing);
    if (!config->debug) return;
    LOG_INFO("init enable=%d,debug=%d,shell=%d,policy=%d", config->enable, config->debug,
             config->use_shell, config->policy);
}

void read_scan(const Json::Value& section, Config* config) {
    config->timeout_min = seconds_to_ms(section["timeout_min_second"]);
    config->timeout = std::max(seconds_to_ms(section["timeout_second"]), config->timeout_min);
    config->interval_min = seconds_to_ms(section["interval_min_second"]);
    config->log_timeout = seconds_to_ms(section["log_timeout_second"]);
    config->round = std::max(section["round"].asInt(), 1);
    config->interval = std::max(config->timeout / config->round, config->interval_min);
    if (config->debug) {
        LOG_INFO("scan(ms): timeout=%lld,interval=%lld,interval_min=%lld,log_timeout=%lld;round=%d",
                 static_cast<long long>(config->timeout), static_cast<long long>(config->interval),
                 static_cast<long long>(config->interval_min),
                 static_cast<long long>(config->log_timeout), config->round);
    }
}

void read_monitor_process(const Json::Value& section, Config* config) {
    config->process_enable = section["enable"].asBool();
    if (!config->process_enable) return;
    for (const Json::Value& item : get_array(section, "list")) {
        std::set<std::string> threads;
        insert_strings(get_array(item, "thread"), &threads);
        // The first entry of a process wins; a later one is dropped with its threads.
        config->process_list.emplace(item["process"].asString(), std::move(threads));
    }
    config->process_enable = !config->process_list.empty();
}

void build_binder_monitor(const Json::Value& section, Config* config) {
    // Lives until the process ends, like every detector.
    auto* monitor = new BinderMonitor;
    config->binder_monitor = monitor;
    for (const Json::Value& uid : get_array(section, "monitor_uids")) {
        monitor->monitor_uids.insert(static_cast<uint32_t>(uid.asInt()));
    }
    for (const Json::Value& item : get_array(section, "uid_map")) {
        monitor->uid_map.try_emplace(item["name"].asString(), item["value"].asInt());
    }
    insert_strings(get_array(section, "wchans"), &monitor->wchans);
    monitor->enable = !monitor->monitor_uids.empty() || !monitor->wchans.empty();
    monitor->debug = config->debug;
    monitor->timeout = config->timeout;
    monitor->dump();
    config->binder_enable = monitor->enable;
    config->modules.push_back(monitor);
}

void read_monitor_binder(const Json::Value& section, Config* config) {
    config->binder_enable = section["enable"].asBool();
    config->binder_enable |= read_bool_property("persist.vendor.hg.binder", config->debug);
    if (config->binder_enable) build_binder_monitor(section, config);
}

// Chosen board platforms switch the daemon on where nothing else did; none switches it off.
void enable_on_listed_platform(Config* config) {
    if (config->enable) return;
    const std::string platform = config->get_prop_string("ro.board.platform", "");
    if (config->hw_list.count(platform) == 0) return;
    if (config->debug) LOG_INFO("enable hw=%s", platform.c_str());
    config->enable = true;
}

void read_default_open_hw_list(const Json::Value& section, Config* config) {
    if (section["enable"].asBool()) insert_strings(get_array(section, "list"), &config->hw_list);
    config->hw_enable = !config->hw_list.empty();
    if (config->hw_enable) enable_on_listed_platform(config);
    if (config->debug) {
        LOG_INFO("default open hw enable=%d size=%zu", config->hw_enable, config->hw_list.size());
    }
}

void build_black_white_list(const Json::Value& section, Config* config) {
    // Lives until the process ends, like every detector; its worker thread refers to it.
    auto* module = new BlackWhiteList;
    config->black_white_list = module;
    insert_strings(section["list"], &module->list);
    config->bw_mode = section["mode"].asString() == "white" ? kWhiteList : kBlackList;
    module->enable = config->bw_enable;
    module->debug = config->debug;
    module->mode = config->bw_mode;
    module->io_time = section["max_iowait_timeout_cnt"].asInt();
    module->io_task = section["max_iowait_task_cnt"].asInt();
    module->dump();
    module->init(module->mode, module->debug, module->io_time, module->io_task);
    config->modules.push_back(module);
}

void read_black_white_list(const Json::Value& section, Config* config) {
    config->bw_enable = section["enable"].asBool();
    // The switch stays on without a list, and alone keeps the daemon scanning.
    if (config->bw_enable && !get_array(section, "list").empty()) {
        build_black_white_list(section, config);
    }
}

// Reads the sections in their order up to the first that is missing; after the last one the
// properties have their turn.
void read_sections(const Json::Value& root, Config* config) {
    const auto read = [&](const char* key, const char* error, auto* read_one) {
        return read_section(root, key, error, read_one, config);
    };
    if (!read("switches", "parse switches failed", read_switches)) return;
    read_policy(root["policy"], config);
    if (read("scan", "parse scan failed", read_scan) &&
        read("monitor_process", "parse monitor process failed", read_monitor_process) &&
        read("monitor_binder", "parse binder failed", read_monitor_binder) &&
        read("default_open_hw_list", "parse hw list failed", read_default_open_hw_list) &&
        read("black_white_list", "parse black white list failed", read_black_white_list)) {
        config->init_second_stage();
    }
}

}  // namespace

void read_config_file(Config* config) {
    std::string text;
    if (!android::base::ReadFileToString(kConfigFile, &text, false)) {
        LOG_ERROR("read config file failed");
        config->init_second_stage();
        return;
    }
    Json::Reader reader;
    Json::Value document;
    if (!reader.parse(text, document)) {
        LOG_ERROR("config file failed:%s", reader.getFormattedErrorMessages().c_str());
        return;
    }
    read_section(document, "Config", "parse config failed", read_sections, config);
}
