// The steps of a story.

#include <string.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "world.h"

namespace {

// Where the configuration has what a verb sets.
std::string place_of(const std::string& verb) {
    constexpr char kPlaces[] =
            " main=switches.main debug=switches.debug shell=switches.use_shell policy=policy"
            " timeout=scan.timeout_second timeout_min=scan.timeout_min_second round=scan.round"
            " interval_min=scan.interval_min_second log_timeout=scan.log_timeout_second"
            " process=monitor_process binder=monitor_binder iowait=black_white_list"
            " platform=default_open_hw_list";
    return cut(cut(kPlaces, " " + verb + "=").second, " ").first;
}

Json::Value value_of(const std::string& verb, const std::string& words) {
    if (words == "on" || words == "off") return words == "on";
    if (verb == "policy") return words;
    if (place_of(verb)[0] == 's') return std::stoi(words);
    Json::Value section;
    section["enable"] = true;
    for (const std::string& word : split(words, " ")) {
        const auto [key, items] = cut(word, "=");
        for (const std::string& item : split(items, ",")) {
            if (key == "uids") section["monitor_uids"].append(std::stoi(item));
            if (key != "uids") must(key == "wchans"), section[key].append(item);
        }
        if (!items.empty()) continue;
        Json::Value process;
        const std::vector<std::string> names = split(word, ":");
        process["process"] = names[0];
        for (size_t i = 1; i < names.size(); ++i) process["thread"].append(names[i]);
        section["list"].append(verb == "process" ? process : word);
    }
    return section;
}

int error_number(const std::string& name) {
    int number = 1;
    while (strerrorname_np(number) == nullptr || name != strerrorname_np(number)) {
        if (++number == 200) fprintf(stderr, "no such error: %s\n", name.c_str()), abort();
    }
    return number;
}

// "/proc/PID/" or "/proc/PID/task/TID/"
std::string task_directory(const std::string& ids) {
    const auto [pid, tid] = cut(ids, "/");
    return "/proc/" + pid + (tid.empty() ? "/" : "/task/" + tid + "/");
}

std::string stat_text(const std::string& id, const World::Task& task, int ticks) {
    return id + " (" + task.at("comm") + ") " + task.at("state") + " " + task.at("ppid") +
           " 1 1 0 -1 4194560 9 8 7 6 " + std::to_string(ticks) + " 1 0 0 20\n";
}

std::string program(const World::Task& task) {
    return task.at(task.count("cmd") != 0 ? "cmd" : "comm");
}

}  // namespace

World::World(const std::string& steps) {
    for (const char* path : {"/dev/kmsg", "/proc/sysrq-trigger", "/proc/version"}) files[path] = "";
    for (const char* name : {"global_detect_mode", "max_iowait_timeout_cnt", "max_iowait_task_cnt",
                             "per_task_detect_mode"}) {
        files[std::string("/proc/sys/hung_task_enh/") + name] = "";
    }
    for (const char* verb : {"process", "binder", "iowait", "platform"}) {
        config[place_of(verb)] = Json::objectValue;
    }
    take("main on; debug on; policy reboot; timeout 8; round 8; interval_min 1; log_timeout 99");
    take(steps);
}

void World::take(const std::string& steps) {
    for (std::string step : split(steps, ";")) {
        step.erase(0, step.find_first_not_of(' '));
        const auto [verb, rest] = cut(step, " ");
        const auto [first, last] = cut(verb, "..");
        if (step[0] == '@') {
            pending.emplace(std::stoi(verb.substr(1)) * 1000, rest);
        } else if (!last.empty()) {
            for (int pid = std::stoi(first); pid <= std::stoi(last); ++pid) {
                put_task(std::to_string(pid), rest);
            }
        } else if (isdigit(step[0]) && rest.find('=') < rest.find(' ')) {
            files[task_directory(verb) + cut(rest, "=").first] = cut(rest, "=").second;
        } else if (isdigit(step[0])) {
            put_task(verb, rest);
        } else if (step[0] == '-') {
            const std::string directory = task_directory(verb.substr(1));
            files.erase(files.lower_bound(directory), files.lower_bound(directory + "~"));
            if (verb.find('/') == std::string::npos) tasks.erase(verb.substr(1));
        } else if (!step.empty()) {
            take_step(verb, rest);
        }
    }
}

void World::take_step(const std::string& verb, const std::string& rest) {
    const auto [key, value] = cut(rest, "=");
    if (!place_of(verb).empty()) {
        Json::Path(place_of(verb)).make(config) = value_of(verb, rest);
    } else if (verb == "conf") {
        must(Json::Reader().parse(value, Json::Path(key).make(config)));
    } else if (numbers.count(verb) != 0) {
        numbers[verb] = std::stoi(rest);
    } else if (verb == "prop") {
        properties[(key.find('.') < key.size() ? "" : "persist.vendor.hg.") + key] = value;
    } else if (verb == "file") {
        files[key] = value;
    } else if (verb == "unlink") {
        files.erase(rest);
    } else if (verb == "sh") {
        outputs[cut(rest, " prints ").first] = cut(rest, " prints ").second;
    } else if (verb == "fail") {
        const auto [call, once] = cut(rest, " once");
        const size_t error = call.rfind(' ');
        const int number = error_number(call.substr(error + 1));
        failures[call.substr(0, error)] = call == rest ? number : -number;
    } else if (verb == "signal") {
        signal_handler(std::stoi(rest));
    } else if (verb == "watch") {
        watched = rest;
    } else {
        fprintf(stderr, "no such step: %s %s\n", verb.c_str(), rest.c_str());
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
    const std::vector<std::string> words = split("comm=" + description, " ");
    task["state"] = words.at(1);
    for (const std::string& word : words) {
        if (word != words[1]) task[cut(word, "=").first] = cut(word, "=").second;
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
    // The kernel gives a process the time of all its threads, also of those that are gone.
    int all_ticks = 0;
    for (const auto& [id, other] : tasks[pid]) all_ticks += std::stoi(other.at("ticks"));
    files[process + "/stat"] = stat_text(pid, main, all_ticks);
}

// `ps` in the columns of the platform, and words to `grep` for.
std::string World::output_of(const std::string& command) const {
    if (outputs.count(command) != 0) return outputs.at(command);
    std::vector<std::string> words = split(command, "|grep ");
    const bool with_threads = words[0].find("-T") < words[0].size();
    words[0] = " " + cut(words[0], "-p ").second;  // " 1200 " of "ps -T -p 1200 "
    std::string listing;
    for (const auto& [pid, threads] : tasks) {
        for (const auto& [tid, task] : threads) {
            const bool is_gone = files.count("/proc/" + pid + "/task/" + tid + "/stat") == 0;
            if (is_gone || (tid != pid && !with_threads)) continue;
            const std::string line = "u  " + pid + " " + (with_threads ? tid + " " : "") +
                                     task.at("ppid") + " 1 2 " + task.at("wchan") + " 0 " +
                                     task.at("state") + " " +
                                     (with_threads ? task.at("comm") : program(task)) + "\n";
            const auto is_found = [&line](const std::string& word) {
                return line.find(word) < line.size();
            };
            if (std::all_of(words.begin(), words.end(), is_found)) listing += line;
        }
    }
    return listing;
}
