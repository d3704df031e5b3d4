// The steps in which a device is told; README.md explains them.

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <ctype.h>
#include <string.h>

#include <set>
#include <vector>

#include "proc/string_split.h"
#include "sim/device.h"
#include "sim/play.h"

namespace {

using android::base::Split;

// Every key that a step may set without its section, and no detector.
constexpr char kConfig[] = R"({
    "switches": { "main": true, "debug": true, "use_shell": false },
    "policy": "reboot",
    "scan": { "timeout_second": 8, "timeout_min_second": 0, "round": 8,
              "interval_min_second": 1, "log_timeout_second": 99 },
    "monitor_process": {}, "monitor_binder": {}, "default_open_hw_list": {},
    "black_white_list": {} })";

const std::map<std::string, std::string> kSections = {{"process", "monitor_process"},
                                                      {"binder", "monitor_binder"},
                                                      {"iowait", "black_white_list"},
                                                      {"platform", "default_open_hw_list"}};

// The daemon reads once what these tell.
const std::set<std::string> kOfTheStart = {"config", "prop", "properties", "watch"};

const std::set<std::string> kTaskFiles = {"cgroup", "cmdline", "comm", "schedstat",
                                          "stat",   "status",  "wchan"};

int number_of(const std::string& text) {
    int number = 0;
    if (!android::base::ParseInt(android::base::Trim(text), &number)) {
        fail("'" + text + "' is no number");
    }
    return number;
}

// A word that is no JSON is text.
Json::Value value_of(const std::string& text) {
    Json::Value value;
    return Json::Reader().parse("[" + text + "]", value) ? value[0] : Json::Value(text);
}

// "app:t1:t2"
Json::Value watched_process(const std::string& word) {
    const std::vector<std::string> names = Split(word, ":");
    Json::Value process;
    process["process"] = names[0];
    for (size_t i = 1; i < names.size(); ++i) process["thread"].append(names[i]);
    return process;
}

// A section that is on: "app:t1:t2 other", "uids=9,8 wchans=w" or a list of names.
Json::Value section_of(const std::string& detector, const std::string& words) {
    Json::Value section;
    section["enable"] = true;
    for (const std::string& word : string_split(words, " ")) {
        if (detector == "binder") {
            const auto [key, items] = cut(word, "=");
            if (key != "uids" && key != "wchans") fail("'" + word + "' is no uids= or wchans=");
            Json::Value& list = section[key == "uids" ? "monitor_uids" : "wchans"];
            for (const std::string& item : Split(items, ",")) list.append(value_of(item));
        } else {
            section["list"].append(detector == "process" ? watched_process(word) : word);
        }
    }
    return section;
}

// "round", which stands in one section alone, or "scan.round"; null where there is no such key.
Json::Value* find_setting(Json::Value& config, const std::string& key) {
    if (config.isMember(cut(key, ".").first)) return &Json::Path(key).make(config);
    for (Json::Value& section : config) {
        if (section.isObject() && section.isMember(key)) return &section[key];
    }
    return nullptr;
}

// "app S uid=9", or keys alone.
Task changes_of(const std::string& description) {
    std::vector<std::string> words = string_split(description, " ");
    if (words.size() > 1 && words[0].find('=') == std::string::npos) {
        words[0] = "comm=" + words[0];
        words[1] = "state=" + words[1];
    }
    Task changes;
    for (const std::string& word : words) {
        const auto [key, value] = cut(word, "=");
        if (key == word) fail("'" + word + "' is no KEY=VALUE");
        changes[key] = value;
    }
    return changes;
}

int error_number(const std::string& name) {
    for (int number = 1; number < 200; ++number) {
        const char* known = strerrorname_np(number);
        if (known != nullptr && name == known) return number;
    }
    fail("'" + name + "' is no error");
}

std::string content_of(const std::string& host_file) {
    std::string content;
    if (!android::base::ReadFileToString(host_file, &content, true)) fail("cannot read the file");
    return content;
}

// Name and text of "NAME: TEXT"; the blank may be missing.
std::pair<std::string, std::string> named_text(const std::string& words) {
    const auto [name, text] = cut(words, ":");
    return {name, text[0] == ' ' ? text.substr(1) : text};
}

void take_task_step(Device& device, const std::string& ids, const std::string& words) {
    const auto [first, last] = cut(ids, "..");
    const auto [file, content] = named_text(words);
    if (!last.empty()) {
        for (int pid = number_of(first); pid <= number_of(last); ++pid) {
            take_task_step(device, std::to_string(pid), words);
        }
    } else if (kTaskFiles.count(file) != 0) {
        const auto [pid, tid] = cut(ids, "/");
        device.files["/proc/" + pid + (tid.empty() ? "/" : "/task/" + tid + "/") + file] = content;
    } else {
        device.change_task(ids, changes_of(words));
    }
}

// "open /dev/kmsg EINTR once"
void take_failure(Device& device, const std::string& words) {
    const bool once = android::base::EndsWith(words, " once");
    const std::string call_and_error = words.substr(0, words.size() - (once ? 5 : 0));
    const size_t blank = call_and_error.rfind(' ');
    if (blank == std::string::npos) fail("the error is missing");
    const int number = error_number(call_and_error.substr(blank + 1));
    device.failures[call_and_error.substr(0, blank)] = once ? -number : number;
}

void take_other_step(Device& device, const std::string& verb, const std::string& words) {
    const auto section = kSections.find(verb);
    Json::Value* const setting = find_setting(device.config, verb);
    const bool is_of_config = section != kSections.end() || setting != nullptr;
    if (is_of_config && device.files.count(kConfigFile) != 0) {
        fail("a file tells the configuration");
    }
    if (section != kSections.end()) {
        device.config[section->second] = section_of(verb, words);
    } else if (setting != nullptr) {
        if (words.empty()) fail("the value is missing");
        *setting = value_of(words);
    } else if (device.settings.count(verb) != 0) {
        device.settings[verb] = number_of(words);
    } else if (verb == "prop") {
        const std::string name = cut(words, "=").first;
        if (name == words) fail("the value is missing");
        const bool is_short = name.find('.') == std::string::npos;
        device.properties += (is_short ? "persist.vendor.hg." : "") + words + "\n";
    } else if (verb == "properties") {
        device.properties += content_of(words) + "\n";
    } else if (verb == "config") {
        device.files[kConfigFile] = content_of(words);
    } else if (verb == "file") {
        const auto [path, content] = named_text(words);
        device.files[path] = content;
    } else if (verb == "unlink") {
        device.files.erase(words);
    } else if (verb == "sh") {
        device.outputs.insert_or_assign(cut(words, " prints ").first,
                                        cut(words, " prints ").second);
    } else if (verb == "fail") {
        take_failure(device, words);
    } else if (verb == "signal") {
        if (device.signal_handler == nullptr) fail("the daemon does not handle signals yet");
        device.signal_handler(number_of(words));
    } else if (verb == "watch") {
        device.watched = words;
    } else {
        fail("there is no such step");
    }
}

void take_step(Device& device, const std::string& step) {
    const auto [verb, words] = cut(step, " ");
    if (verb[0] == '@') {
        const std::string later = cut(words, " ").first;
        const bool is_of_config = kSections.count(later) + kOfTheStart.count(later) != 0;
        if (is_of_config || find_setting(device.config, later) != nullptr) {
            fail("the start cannot wait for it");
        }
        device.put_off.emplace(number_of(verb.substr(1)), words);
    } else if (verb[0] == '-') {
        device.remove_task(verb.substr(1));
    } else if (isdigit(verb[0]) != 0) {
        take_task_step(device, verb, words);
    } else {
        take_other_step(device, verb, words);
    }
}

}  // namespace

Device::Device() {
    for (const char* path : {"/dev/kmsg", "/proc/sysrq-trigger", "/proc/version"}) files[path] = "";
    for (const char* name : {"global_detect_mode", "max_iowait_timeout_cnt", "max_iowait_task_cnt",
                             "per_task_detect_mode"}) {
        files[std::string("/proc/sys/hung_task_enh/") + name] = "";
    }
    REQUIRE(Json::Reader().parse(kConfig, config));
}

void Device::take(const std::string& steps) {
    for (const std::string& text : Split(steps, ";")) {
        step_in_progress = text.substr(std::min(text.find_first_not_of(" \n"), text.size()));
        if (!step_in_progress.empty()) take_step(*this, step_in_progress);
    }
    step_in_progress.clear();
}

void Device::take_due_steps() {
    while (!put_off.empty() && put_off.begin()->first * 1000000 <= now_us) {
        const std::string step = put_off.begin()->second;
        put_off.erase(put_off.begin());
        take(step);
    }
}
