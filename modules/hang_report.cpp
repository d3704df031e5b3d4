#include "modules/hang_report.h"

namespace {

std::string thread_id(const proc& thread) {
    return "tid:" + std::to_string(thread.pid) + " ";
}

std::string process_ids(const proc& task) {
    return "pid:" + std::to_string(task.tgid) + " ppid:" + std::to_string(task.ppid);
}

std::string whole_seconds(int64_t milliseconds) {
    return std::to_string(milliseconds / 1000) + "s";
}

}  // namespace

std::string blocked_report(const proc& task, int64_t timeout) {
    const std::string text = process_ids(task) + " in " + task.state + " " + whole_seconds(timeout);
    return task.state == 'Z' ? text : thread_id(task) + text;
}

std::string missing_report(const std::string& thread_name, const proc& thread, int64_t timeout) {
    return thread_name + " in " + process_ids(thread) + " cannot start " + whole_seconds(timeout);
}

std::string unswitched_report(const proc& thread, int64_t timeout) {
    return thread_id(thread) + process_ids(thread) + " in unswitch " + thread.state + " " +
           whole_seconds(timeout);
}

std::string waiting_report(const proc& thread, int64_t timeout) {
    return process_ids(thread) + " wchan: " + thread.wchan + whole_seconds(timeout);
}
