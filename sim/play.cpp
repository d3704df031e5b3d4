#include "sim/play.h"

#include <android-base/file.h>
#include <poll.h>
#include <regex.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "sim/running_play.h"

// AddressSanitizer's search for memory that nothing refers to, in a program that has it.
extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();

Device* device;
std::recursive_mutex play_mutex;

namespace {

constexpr int kTurnSeconds = 10, kWorkerMs = 2000;  // of real time

// Between the events, in which it is escaped, and the failure.
const std::string kFailure(1, '\0');

int record_file;
regex_t watched;
std::vector<std::string> events_of_now;  // not yet written
double seconds_of_events = 0;
size_t descriptors_before = 0;

size_t count_descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// The process of a play.
[[noreturn]] void run(const std::string& steps, const std::function<void()>& program) {
    device = new Device;
    limit_turn();
    device->take(steps);
    if (regcomp(&watched, ("^(leaked|" + device->watched + ")").c_str(), REG_EXTENDED) != 0) {
        fail("'" + device->watched + "' is no regular expression");
    }
    const int properties = data_file(device->properties);  // for host/properties.cpp
    setenv("TOVREL_PROPERTIES", ("/proc/self/fd/" + std::to_string(properties)).c_str(), 1);
    device->files.emplace(kConfigFile, "{\"Config\":" + device->config.toStyledString() + "}");
    descriptors_before = count_descriptors();
    program();
    fail("the daemon's main has returned");
}

std::string escaped(const std::string& event) {
    std::string text;
    for (const char c : event) text += c == '\n' ? "\\n" : c == '\0' ? "\\0" : std::string(1, c);
    return text;
}

void write_events() {
    if (device->settings["sorted"] != 0) std::sort(events_of_now.begin(), events_of_now.end());
    std::ostringstream lines;
    lines.precision(9);  // milliseconds, for days
    for (const std::string& event : events_of_now) {
        lines << seconds_of_events << ' ' << event << '\n';
    }
    events_of_now.clear();
    android::base::WriteStringToFd(lines.str(), record_file);
}

void record_leaks() {
    await_worker();
    const std::lock_guard lock(play_mutex);
    for (const auto& [fd, file] : open_files) {
        // That directory may wait for the first walk.
        if (file.path != "/proc/") record("leaked", file.path);
    }
    const size_t surplus = count_descriptors() - descriptors_before;
    if (surplus != open_files.size()) record("leaked a descriptor");
    if (waitpid(-1, nullptr, WNOHANG) != -1) record("leaked a child");
    const bool can_check = __lsan_do_recoverable_leak_check != nullptr;
    if (can_check && __lsan_do_recoverable_leak_check() != 0) record("leaked memory");
}

// Sleeping is what all other threads do when nothing is left for them.
bool others_sleep() {
    const std::string main_thread = std::to_string(getpid());
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string stat;
        android::base::ReadFileToString(task.path() / "stat", &stat, true);
        const bool is_main_thread = task.path().filename() == main_thread;
        if (!is_main_thread && stat.find(") S ") == std::string::npos) return false;
    }
    return true;
}

// How a process ended that did not say so itself.
std::string end_of(int status) {
    if (!WIFSIGNALED(status)) return "it ended with status " + std::to_string(WEXITSTATUS(status));
    if (WTERMSIG(status) == SIGALRM) return "a turn of the scan loop took too long";
    return std::string("it died: ") + strsignal(WTERMSIG(status));
}

}  // namespace

Outcome play(const std::string& steps, const std::function<void()>& program) {
    record_file = data_file("");
    const pid_t child = fork();
    if (child == 0) run(steps, program);
    int status = 0;
    REQUIRE(child > 0 && waitpid(child, &status, 0) == child);
    std::string records;
    REQUIRE(lseek(record_file, 0, SEEK_SET) == 0);
    REQUIRE(android::base::ReadFdToString(record_file, &records));
    close(record_file);
    const auto [events, failure] = cut(records, kFailure);
    return {events, status == 0 || !failure.empty() ? failure : end_of(status)};
}

void add_event(const std::string& event) {
    const std::lock_guard lock(play_mutex);
    if (regexec(&watched, event.c_str(), 0, nullptr, 0) != 0) return;
    const int64_t now_ms = device->now_us / 1000;
    const double seconds = static_cast<double>(now_ms) / 1000;
    if (seconds != seconds_of_events) write_events();
    seconds_of_events = seconds;
    events_of_now.push_back(escaped(event));
}

void end_play() {
    record("calls", device->calls, "in all");
    record_leaks();
    write_events();
    _exit(0);
}

void fail(const std::string& why) {
    if (device == nullptr) {
        fprintf(stderr, "%s\n", why.c_str());
        _exit(2);
    }
    write_events();
    const std::string& step = device->step_in_progress;
    const std::string where = step.empty() ? "" : "step '" + step + "': ";
    android::base::WriteStringToFd(kFailure + where + why, record_file);
    _exit(2);
}

void limit_turn() {
    const itimerval limit = {{0, 0}, {kTurnSeconds, 0}};
    setitimer(ITIMER_REAL, &limit, nullptr);
}

int data_file(const std::string& content) {
    const int fd = memfd_create("played", MFD_CLOEXEC);
    REQUIRE(pwrite(fd, content.data(), content.size(), 0) == ssize_t(content.size()));
    return fd;
}

void await_worker() {
    for (int ms = 0; ms < kWorkerMs; ++ms) {
        if (others_sleep()) return;
        poll(nullptr, 0, 1);
    }
    fail("the worker thread does not come to rest");
}
