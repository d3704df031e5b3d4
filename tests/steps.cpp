// The steps of a story.

#include <json/json.h>
#include <string.h>

#include <cstdio>
#include <cstdlib>

#include "world.h"

namespace {

// A setting's place in the configuration.
const std::map<std::string, std::pair<const char*, const char*>> kSettings = {
        {"main", {"switches", "main"}},
        {"debug", {"switches", "debug"}},
        {"shell", {"switches", "use_shell"}},
        {"timeout", {"scan", "timeout_second"}},
        {"timeout_min", {"scan", "timeout_min_second"}},
        {"interval_min", {"scan", "interval_min_second"}},
        {"log_timeout", {"scan", "log_timeout_second"}},
        {"round", {"scan", "round"}}};

Json::Value setting(const std::string& word) {
    if (word == "on" || word == "off") return word == "on";
    return std::stoi(word);
}

Json::Value process_section(const std::string& entries) {
    Json::Value section;
    section["enable"] = true;
    for (const std::string& entry : split(entries, " ")) {
        Json::Value process;
        for (const std::string& name : split(entry, ":")) {
            if (process.isNull()) {
                process["process"] = name;
            } else {
                process["thread"].append(name);
            }
        }
        section["list"].append(process);
    }
    return section;
}

Json::Value binder_section(const std::string& keys) {
    Json::Value section;
    section["enable"] = true;
    for (const std::string& word : split(keys, " ")) {
        for (const std::string& item : split(cut(word, "=").second, ",")) {
            if (word[0] == 'w') {
                section["wchans"].append(item);
            } else if (item.find(':') == std::string::npos) {
                section["monitor_uids"].append(std::stoi(item));
            } else {
                Json::Value user;
                user["name"] = cut(item, ":").first;
                user["value"] = std::stoi(cut(item, ":").second);
                section["uid_map"].append(user);
            }
        }
    }
    return section;
}

Json::Value iowait_section(const std::string& names) {
    Json::Value section;
    section["enable"] = true;
    for (const std::string& name : split(names, " ")) section["list"].append(name);
    return section;
}

int error_number(const std::string& name) {
    int number = 1;
    while (strerrorname_np(number) == nullptr || name != strerrorname_np(number)) ++number;
    return number;
}

using Words = const std::string&;
const std::map<std::string, void (*)(World&, Words)> kVerbs = {
        {"conf",
         [](World& world, Words words) {
             Json::Value* place = &world.config;
             for (Words key : split(cut(words, "=").first, ".")) place = &(*place)[key];
             must(Json::Reader().parse(cut(words, "=").second, *place));
         }},
        {"policy", [](World& world, Words word) { world.config["policy"] = word; }},
        {"process",
         [](World& world, Words words) {
             world.config["monitor_process"] = process_section(words);
         }},
        {"binder",
         [](World& world, Words words) { world.config["monitor_binder"] = binder_section(words); }},
        {"iowait",
         [](World& world, Words words) {
             world.config["black_white_list"] = iowait_section(words);
         }},
        {"prop",
         [](World& world, Words words) {
             world.properties[cut(words, "=").first] = cut(words, "=").second;
         }},
        {"file",
         [](World& world, Words words) {
             world.files[cut(words, "=").first] = cut(words, "=").second;
         }},
        {"unlink", [](World& world, Words path) { world.files.erase(path); }},
        {"untyped", [](World& world, Words name) { world.untyped.insert(name); }},
        {"sh",
         [](World& world, Words words) {
             world.outputs[cut(words, " prints ").first] = cut(words, " prints ").second;
         }},
        {"fail",
         [](World& world, Words words) {
             const auto [call, once] = cut(words, " once");
             const size_t name = call.rfind(' ') + 1;
             const int number = error_number(call.substr(name));
             world.failures[call.substr(0, name - 1)] = words == call ? number : -number;
         }},
        {"mend", [](World& world, Words call) { world.failures.erase(call); }},
        {"signal", [](World& world, Words number) { world.signal_handler(std::stoi(number)); }},
        {"late", [](World& world, Words ms) { world.late_ms = std::stoi(ms); }},
        {"cost", [](World& world, Words ms) { world.cost_ms = std::stoi(ms); }},
        {"until", [](World& world, Words seconds) { world.until_ms = std::stoi(seconds) * 1000; }},
        {"turns", [](World& world, Words number) { world.turns = std::stoi(number); }},
        {"watch", [](World& world, Words pattern) { world.watched = pattern; }},
        {"sorted", [](World& world, Words) { world.sorted = true; }}};

std::string stat_text(const std::string& id, const World::Task& task, int ticks) {
    return id + " (" + task.at("comm") + ") " + task.at("state") + " " + task.at("ppid") +
           " 1 1 0 -1 4194560 9 8 7 6 " + std::to_string(ticks) + " 1 0 0 20\n";
}

std::string program(const World::Task& task) {
    return task.at(task.count("cmd") != 0 ? "cmd" : "comm");
}

// In the columns of the platform's `ps`.
std::string listing(const World& world, bool with_threads, const std::string& of_process) {
    std::ostringstream lines;
    for (const auto& [pid, threads] : world.tasks) {
        if (!of_process.empty() && pid != of_process) continue;
        for (const auto& [tid, task] : threads) {
            const bool is_gone = world.files.count("/proc/" + pid + "/task/" + tid + "/stat") == 0;
            if (is_gone || (tid != pid && !with_threads)) continue;
            lines << "u" << task.at("uid") << " " << pid << (with_threads ? " " + tid : "") << "  "
                  << task.at("ppid") << " 1 2 " << task.at("wchan") << " 0 " << task.at("state")
                  << " " << (with_threads ? task.at("comm") : program(task)) << "\n";
        }
    }
    return lines.str();
}

// `pattern` is one word, or `-E "one|other"`.
bool is_found(const std::string& line, const std::string& pattern) {
    const bool is_list = pattern.rfind("-E ", 0) == 0;
    for (const std::string& word : split(is_list ? cut(pattern, "\"").second : pattern, "|")) {
        if (line.find(cut(word, "\"").first) != std::string::npos) return true;
    }
    return false;
}

}  // namespace

std::string World::output_of(const std::string& command) const {
    const auto told = outputs.find(command);
    if (told != outputs.end()) return told->second;
    const std::vector<std::string> stages = split(command, "|grep ");
    const bool with_threads = stages[0].find("-T") != std::string::npos;
    const std::string pid = cut(cut(stages[0], " -p ").second, " ").first;
    std::string found;
    for (const std::string& line : split(listing(*this, with_threads, pid), "\n")) {
        bool passes = true;
        for (size_t i = 1; i < stages.size(); ++i) passes = passes && is_found(line, stages[i]);
        if (passes) found += line + "\n";
    }
    return found;
}

World::World(const std::string& steps) {
    for (const char* path : {"/dev/kmsg", "/proc/sysrq-trigger", "/proc/version"}) files[path] = "";
    for (const char* name : {"global_detect_mode", "max_iowait_timeout_cnt", "max_iowait_task_cnt",
                             "per_task_detect_mode"}) {
        files[std::string("/proc/sys/hung_task_enh/") + name] = "";
    }
    for (const char* name :
         {"monitor_process", "monitor_binder", "default_open_hw_list", "black_white_list"}) {
        config[name] = Json::objectValue;
    }
    take("main on; debug on; policy reboot; timeout 8; round 8; interval_min 1; log_timeout 99");
    take(steps);
}

void World::take(const std::string& steps) {
    for (std::string step : split(steps, ";")) {
        step.erase(0, step.find_first_not_of(' '));
        if (step[0] == '@') {
            const auto [time, later] = cut(step.substr(1), " ");
            pending.emplace(std::stoi(time) * 1000, later);
        } else if (!step.empty()) {
            take_step(step);
        }
    }
}

void World::take_step(const std::string& step) {
    const auto [verb, words] = cut(step, " ");
    const auto [first, last] = cut(verb, "..");
    if (!last.empty()) {
        for (int pid = std::stoi(first); pid <= std::stoi(last); ++pid) {
            put_task(std::to_string(pid), words);
        }
    } else if (isdigit(verb[0])) {
        put_task(verb, words);
    } else if (verb[0] == '-') {
        remove_task(verb.substr(1));
    } else if (kSettings.count(verb) != 0) {
        const auto [section, key] = kSettings.at(verb);
        config[section][key] = setting(words);
    } else if (kVerbs.count(verb) != 0) {
        kVerbs.at(verb)(*this, words);
    } else {
        fprintf(stderr, "no such step: %s\n", step.c_str());
        abort();
    }
}

void World::put_task(const std::string& ids, const std::string& description) {
    const auto [pid, thread] = cut(ids, "/");
    const std::string tid = thread.empty() ? pid : thread, process = "/proc/" + pid;
    static const Task kDefaults = {{"ppid", "1"}, {"ticks", "7"}, {"runs", "5"},
                                   {"uid", "9"},  {"wchan", "0"}, {"cgroup", "/"}};
    const Task& main = tasks[pid].try_emplace(pid, kDefaults).first->second;
    Task& task = tasks[pid].try_emplace(tid, main).first->second;
    const std::vector<std::string> words = split(description, " ");
    task["comm"] = words.at(0);
    task["state"] = words.at(1);
    for (size_t i = 2; i < words.size(); ++i) {
        const auto [key, value] = cut(words[i], "=");
        task[key] = value;
    }

    for (const std::string& directory : {process + "/task/" + tid, process}) {
        if (directory == process && tid != pid) break;
        files[directory + "/cgroup"] = "4:freezer:" + task["cgroup"] + "\n";
        files[directory + "/schedstat"] = "900 80 " + task["runs"] + "\n";
        files[directory + "/comm"] = task["comm"] + "\n";
        files[directory + "/wchan"] = task["wchan"];
        files[directory + "/status"] = "Name:\tx\nUid:\t" + task["uid"] + "\t0\t0\t0\n";
    }
    files[process + "/task/" + tid + "/stat"] = stat_text(tid, task, std::stoi(task["ticks"]));
    if (tid == pid) files[process + "/cmdline"] = program(task);
    if (tid != pid && files.count(process + "/stat") == 0) return;
    int all_ticks = 0;
    for (const auto& [id, other] : tasks[pid]) all_ticks += std::stoi(other.at("ticks"));
    files[process + "/stat"] = stat_text(pid, main, all_ticks);
}

void World::remove_task(const std::string& ids) {
    const auto [pid, tid] = cut(ids, "/");
    const std::string directory = "/proc/" + pid + (tid.empty() ? "/" : "/task/" + tid + "/");
    files.erase(files.lower_bound(directory), files.lower_bound(directory + "~"));
    // The process keeps the time of a thread that is gone.
    if (tid.empty()) tasks.erase(pid);
}
