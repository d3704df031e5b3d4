#include "sim/device.h"

#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <regex.h>

#include "proc/string_split.h"
#include "sim/play.h"

namespace {

// Of "10" or "10/11".
std::string task_directory(const std::string& ids) {
    const auto [pid, tid] = cut(ids, "/");
    return "/proc/" + pid + (tid.empty() ? "/" : "/task/" + tid + "/");
}

// The first word of its command line.
std::string program_of(const Task& task) {
    return task.at(task.count("cmd") != 0 ? "cmd" : "comm");
}

std::string stat_of(const std::string& id, const Task& task, const std::string& times) {
    return id + " (" + task.at("comm") + ") " + task.at("state") + " " + task.at("ppid") +
           " 1 1 0 -1 4194560 9 8 7 6 " + times + " 0 0 20\n";
}

// The kernel gives a process the time of all its threads, also of those that are gone.
std::string times_of_all(const std::map<std::string, Task>& threads) {
    uint64_t utime = 0, stime = 0;
    for (const auto& [tid, thread] : threads) {
        uint64_t of_user = 0, of_system = 0;
        REQUIRE(android::base::ParseUint(thread.at("utime"), &of_user));
        REQUIRE(android::base::ParseUint(thread.at("stime"), &of_system));
        utime += of_user;
        stime += of_system;
    }
    return std::to_string(utime) + " " + std::to_string(stime);
}

// A line of `ps` in the columns of the platform.
std::string listing_line(const std::string& ids, const Task& task, const std::string& name) {
    return task.at("user") + "  " + ids + " " + task.at("ppid") + " 1 2 " + task.at("wchan") +
           " 0 " + task.at("state") + " " + name + "\n";
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
    static const Task kDefaults = {{"ppid", "1"}, {"utime", "7"}, {"stime", "1"}, {"runs", "5"},
                                   {"uid", "9"},  {"user", "u"},  {"wchan", "0"}, {"cgroup", "/"}};
    const auto [pid, thread_id] = cut(ids, "/");
    const std::string tid = thread_id.empty() ? pid : thread_id;
    const std::string process = task_directory(pid), thread = task_directory(pid + "/" + tid);
    std::map<std::string, Task>& threads = tasks[pid];
    const Task main_thread = threads.try_emplace(pid, kDefaults).first->second;
    Task& task = threads[tid];
    task.insert(main_thread.begin(), main_thread.end());
    for (const auto& [key, value] : changes) task[key] = value;

    write_task_files(thread, task);
    files[thread + "stat"] = stat_of(tid, task, task["utime"] + " " + task["stime"]);
    if (tid == pid) {
        write_task_files(process, task);
        files[process + "cmdline"] = program_of(task);
    } else if (files.count(process + "stat") == 0) {
        return;
    }
    files[process + "stat"] = stat_of(pid, threads[pid], times_of_all(threads));
}

void Device::write_task_files(const std::string& directory, const Task& task) {
    files[directory + "cgroup"] = "4:freezer:" + task.at("cgroup") + "\n";
    files[directory + "schedstat"] = "900 80 " + task.at("runs") + "\n";
    files[directory + "comm"] = task.at("comm") + "\n";
    files[directory + "wchan"] = task.at("wchan");
    files[directory + "status"] = "Name:\tx\nUid:\t" + task.at("uid") + "\t0\t0\t0\n";
}

void Device::change_file(const std::string& ids, const std::string& name,
                         const std::string& content) {
    files[task_directory(ids) + name] = content;
}

void Device::remove_task(const std::string& ids) {
    const std::string directory = task_directory(ids);
    files.erase(files.lower_bound(directory), files.lower_bound(directory + "~"));
    tasks.erase(ids);
    // Of a thread its process keeps the times.
    const auto [pid, tid] = cut(ids, "/");
    for (auto& [id, task] : tasks[pid]) {
        if (id == tid) task = {{"utime", task["utime"]}, {"stime", task["stime"]}};
    }
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
            const std::string stat =
                    task_directory(std::string(pid).append("/").append(tid)) + "stat";
            if (files.count(stat) == 0) continue;  // it is gone
            if (with_threads) {
                const std::string ids = std::string(pid).append(" ").append(tid);
                listing += listing_line(ids, task, task.at("comm"));
            } else if (tid == pid) {
                listing += listing_line(pid, task, program_of(task));
            }
        }
    }
    for (std::string rest = patterns; !rest.empty(); rest = cut(rest, "|grep ").second) {
        listing = matching_lines(listing, cut(rest, "|grep ").first);
    }
    return listing;
}
