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

const std::set<std::string> kTaskKeys = {"comm", "state", "cmd",  "ppid",  "utime", "stime",
                                         "runs", "uid",   "user", "wchan", "cgroup"};
const std::set<std::string> kTaskFiles = {"cgroup", "cmdline", "comm", "schedstat",
                                          "stat",   "status",  "wchan"};

int number_of(const std::string& text) {
    int number = 0;
    if (!android::base::ParseInt(text, &number)) fail("'" + text + "' is no number");
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
        const auto [key, items] = cut(word, "=");
        if (detector == "process") {
            section["list"].append(watched_process(word));
        } else if (detector != "binder") {
            section["list"].append(word);
        } else if (key == "uids") {
            for (const std::string& uid : Split(items, ",")) {
                section["monitor_uids"].append(number_of(uid));
            }
        } else if (key == "wchans") {
            for (const std::string& wchan : Split(items, ",")) section["wchans"].append(wchan);
        } else {
            fail("'" + word + "' is neither uids= nor wchans=");
        }
    }
    return section;
}

int error_number(const std::string& name) {
    for (int number = 1; number < 200; ++number) {
        const char* known = strerrorname_np(number);
        if (known != nullptr && name == known) return number;
    }
    fail("'" + name + "' is no error");
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
        if (kTaskKeys.count(key) == 0) fail("'" + word + "' is nothing that a task has");
        changes[key] = value;
    }
    return changes;
}

std::string content_of(const std::string& host_file) {
    std::string content;
    if (!android::base::ReadFileToString(host_file, &content, true)) fail("cannot read the file");
    return content;
}

// A colon and the text behind it may have a blank in between.
std::string behind_blank(const std::string& text) {
    return text[0] == ' ' ? text.substr(1) : text;
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
        if (!step_in_progress.empty()) take_step(step_in_progress);
    }
    step_in_progress.clear();
}

void Device::take_due_steps() {
    while (!put_off.empty() && put_off.begin()->first <= now_ms - start_ms) {
        const std::string step = put_off.begin()->second;
        put_off.erase(put_off.begin());
        take(step);
    }
}

void Device::take_step(const std::string& step) {
    const auto [verb, words] = cut(step, " ");
    if (verb[0] == '@') {
        put_off.emplace(int64_t{number_of(verb.substr(1))} * 1000, words);
    } else if (verb[0] == '-') {
        remove_task(verb.substr(1));
    } else if (isdigit(verb[0]) != 0) {
        take_task_step(verb, words);
    } else {
        take_other_step(verb, words);
    }
}

void Device::take_task_step(const std::string& ids, const std::string& words) {
    const auto [first, last] = cut(ids, "..");
    if (!last.empty()) {
        for (int pid = number_of(first); pid <= number_of(last); ++pid) {
            take_task_step(std::to_string(pid), words);
        }
        return;
    }
    const auto [file, content] = cut(words, ":");
    if (kTaskFiles.count(file) != 0) {
        change_file(ids, file, behind_blank(content));
    } else {
        change_task(ids, changes_of(words));
    }
}

void Device::take_other_step(const std::string& verb, const std::string& words) {
    static const std::map<std::string, std::string> kSections = {
            {"process", "monitor_process"},
            {"binder", "monitor_binder"},
            {"iowait", "black_white_list"},
            {"platform", "default_open_hw_list"}};
    const auto [name, value] = cut(words, "=");
    if (const auto section = kSections.find(verb); section != kSections.end()) {
        config[section->second] = section_of(verb, words);
    } else if (Json::Value* setting = find_setting(verb); setting != nullptr) {
        if (words.empty()) fail("the value is missing");
        *setting = value_of(words);
    } else if (settings.count(verb) != 0) {
        settings[verb] = number_of(words);
    } else if (verb == "prop") {
        const bool is_short = name.find('.') == std::string::npos;
        properties[(is_short ? "persist.vendor.hg." : "") + name] = value;
    } else if (verb == "properties") {
        property_lines = content_of(words);
    } else if (verb == "config") {
        files["/vendor/etc/tovrel.json"] = content_of(words);
    } else if (verb == "file") {
        const auto [path, content] = cut(words, ":");
        files[path] = behind_blank(content);
    } else if (verb == "unlink") {
        files.erase(words);
    } else if (verb == "sh") {
        const auto [command, output] = cut(words, " prints ");
        outputs[command] = output;
    } else if (verb == "fail") {
        take_failure(words);
    } else if (verb == "signal") {
        if (signal_handler == nullptr) fail("the daemon does not handle signals yet");
        signal_handler(number_of(words));
    } else if (verb == "watch") {
        watched = words;
    } else {
        fail("there is no such step");
    }
}

// "round", which stands in one section alone, or "scan.round".
Json::Value* Device::find_setting(const std::string& key) {
    const std::string section_name = cut(key, ".").first;
    if (config.isMember(section_name)) return &Json::Path(key).make(config);
    for (Json::Value& section : config) {
        if (section.isObject() && section.isMember(key)) return &section[key];
    }
    return nullptr;
}

// "open /dev/kmsg EINTR once"
void Device::take_failure(const std::string& words) {
    const std::string call_and_error = cut(words, " once").first;
    const size_t blank = call_and_error.rfind(' ');
    if (blank == std::string::npos) fail("the error is missing");
    const int number = error_number(call_and_error.substr(blank + 1));
    failures[call_and_error.substr(0, blank)] = call_and_error == words ? number : -number;
}
