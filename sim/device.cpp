#include "sim/device.h"

#include <android-base/strings.h>
#include <regex.h>
#include <stdlib.h>

#include "proc/string_split.h"
#include "sim/play.h"

namespace {

const Task kNewTask = {{"comm", ""},   {"state", "S"}, {"ppid", "1"}, {"utime", "7"},
                       {"stime", "1"}, {"runs", "5"},  {"uid", "9"},  {"user", "u"},
                       {"wchan", "0"}, {"cgroup", "/"}};

std::string thread_directory(const std::string& pid, const std::string& tid) {
    return "/proc/" + pid + "/task/" + tid + "/";
}

std::string sum(const std::map<std::string, Task>& threads, const std::string& key) {
    uint64_t total = 0;
    for (const auto& [tid, thread] : threads) {
        total += strtoull(thread.at(key).c_str(), nullptr, 10);
    }
    return std::to_string(total);
}

// The first word of its command line.
std::string program_of(const Task& task) {
    return task.at(task.count("cmd") != 0 ? "cmd" : "comm");
}

// `grep PATTERN` or `grep -E "PATTERN"`
std::string matching_lines(const std::string& listing, std::string pattern) {
    const bool is_extended = android::base::StartsWith(pattern, "-E ");
    if (is_extended) pattern = pattern.substr(4, pattern.size() - 5);
    regex_t form;
    REQUIRE(regcomp(&form, pattern.c_str(), is_extended ? REG_EXTENDED : 0) == 0);
    std::string lines;
    for (const std::string& line : string_split(listing, "\n")) {
        if (regexec(&form, line.c_str(), 0, nullptr, 0) == 0) lines += line + "\n";
    }
    regfree(&form);
    return lines;
}

}  // namespace

std::pair<std::string, std::string> cut(const std::string& text, const std::string& at) {
    const size_t end = text.find(at);
    if (end == std::string::npos) return {text, ""};
    return {text.substr(0, end), text.substr(end + at.size())};
}

void Device::change_task(const std::string& ids, const Task& changes) {
    if (ids.find_first_not_of("0123456789/") != std::string::npos) fail("'" + ids + "' is no task");
    const auto [pid, thread_id] = cut(ids, "/");
    const std::string tid = thread_id.empty() ? pid : thread_id;
    const std::string directory = thread_directory(pid, tid);
    std::map<std::string, Task>& threads = tasks[pid];
    const bool has_main_thread = threads.count(pid) != 0;
    const bool is_new = files.count(directory + "stat") == 0;
    if (is_new) threads[tid] = has_main_thread ? threads[pid] : kNewTask;
    for (const auto& [key, value] : changes) {
        if (key != "cmd" && kNewTask.count(key) == 0) fail("a task has no '" + key + "'");
        threads[tid][key] = value;
    }
    write_files(directory, tid, threads[tid]);
    if (threads.count(pid) == 0) return;
    Task process = threads[pid];
    // The kernel gives a process the time of all its threads, also of those that are gone.
    for (const char* time : {"utime", "stime"}) process[time] = sum(threads, time);
    write_files("/proc/" + pid + "/", pid, process);
}

void Device::write_files(const std::string& directory, const std::string& id, const Task& task) {
    files[directory + "stat"] = id + " (" + task.at("comm") + ") " + task.at("state") + " " +
                                task.at("ppid") + " 1 1 0 -1 4194560 9 8 7 6 " + task.at("utime") +
                                " " + task.at("stime") + " 0 0 20\n";
    files[directory + "schedstat"] = "900 80 " + task.at("runs") + "\n";
    files[directory + "status"] = "Name:\tx\nUid:\t" + task.at("uid") + "\t0\t0\t0\n";
    files[directory + "cgroup"] = "4:freezer:" + task.at("cgroup") + "\n";
    files[directory + "comm"] = task.at("comm") + "\n";
    files[directory + "cmdline"] = program_of(task);
    files[directory + "wchan"] = task.at("wchan");
}

void Device::remove_task(const std::string& ids) {
    const auto [pid, tid] = cut(ids, "/");
    const std::string directory = tid.empty() ? "/proc/" + pid + "/" : thread_directory(pid, tid);
    if (files.count(directory + "stat") == 0) fail("there is no such task");
    files.erase(files.lower_bound(directory), files.lower_bound(directory + "~"));
    if (tid.empty()) tasks.erase(pid);  // a process keeps the time of a thread that is gone
}

std::string Device::output_of(const std::string& command) const {
    if (const auto told = outputs.find(command); told != outputs.end()) return told->second;
    const auto [ps, patterns] = cut(command, "|grep ");
    const bool with_threads = ps.find("-T") != std::string::npos;
    const std::string chosen_pid = android::base::Trim(cut(ps, "-p ").second);
    std::string listing;
    for (const auto& [pid, threads] : tasks) {
        if (!chosen_pid.empty() && pid != chosen_pid) continue;
        for (const auto& [tid, task] : threads) {
            const bool is_gone = files.count(thread_directory(pid, tid) + "stat") == 0;
            if (is_gone || (!with_threads && tid != pid)) continue;
            const std::string ids = with_threads ? std::string(pid).append(" ").append(tid) : pid;
            listing += task.at("user") + "  " + ids + " " + task.at("ppid") + " 1 2 " +
                       task.at("wchan") + " 0 " + task.at("state") + " " +
                       (with_threads ? task.at("comm") : program_of(task)) + "\n";
        }
    }
    for (std::string rest = patterns; !rest.empty(); rest = cut(rest, "|grep ").second) {
        listing = matching_lines(listing, cut(rest, "|grep ").first);
    }
    return listing;
}
