#include "sim/play.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <regex.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "sim/open_files.h"
#include "sim/running_play.h"

int tovrel_main();

// AddressSanitizer's search for memory that nothing refers to, in a program that has it.
extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();

Device* device;
std::recursive_mutex play_mutex;

namespace {

constexpr int kTurnSeconds = 10;

// Between the events and the failure.
constexpr char kFailure[] = "\x1d";

int record_file;
regex_t watched;
std::vector<std::string> events_of_now;  // not yet written
int64_t time_of_events = 0;

// The system properties, where host/properties.cpp reads them.
void write_properties() {
    const int file = memfd_create("properties", MFD_CLOEXEC);
    std::ostringstream lines;
    lines << device->property_lines << '\n';
    for (const auto& [name, value] : device->properties) lines << name << '=' << value << '\n';
    REQUIRE(android::base::WriteStringToFd(lines.str(), file));
    setenv("TOVREL_PROPERTIES", ("/proc/self/fd/" + std::to_string(file)).c_str(), 1);
}

// The process of a play.
[[noreturn]] void run(const std::string& steps, const std::function<void(Device&)>& prepare) {
    device = new Device;
    limit_turn();
    device->take(steps);
    if (regcomp(&watched, ("^(leaked|" + device->watched + ")").c_str(), REG_EXTENDED) != 0) {
        fail("'" + device->watched + "' is no regular expression");
    }
    write_properties();
    device->files.emplace("/vendor/etc/tovrel.json",
                          "{\"Config\":" + device->config.toStyledString() + "}");
    remember_open_descriptors();
    if (prepare) prepare(*device);
    tovrel_main();
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
    const double seconds = static_cast<double>(time_of_events - device->start_ms) / 1000;
    for (const std::string& event : events_of_now) lines << seconds << ' ' << event << '\n';
    events_of_now.clear();
    android::base::WriteStringToFd(lines.str(), record_file);
}

// How a process ended that did not say so itself.
std::string end_of(int status) {
    if (!WIFSIGNALED(status)) return "it ended with status " + std::to_string(WEXITSTATUS(status));
    if (WTERMSIG(status) == SIGALRM) return "a turn of the scan loop took too long";
    return std::string("it died: ") + strsignal(WTERMSIG(status));
}

}  // namespace

Outcome play(const std::string& steps, const std::function<void(Device&)>& prepare) {
    record_file = memfd_create("records", MFD_CLOEXEC);
    const pid_t child = fork();
    if (child == 0) run(steps, prepare);
    int status = 0;
    REQUIRE(child > 0 && waitpid(child, &status, 0) == child);
    std::string records;
    REQUIRE(lseek(record_file, 0, SEEK_SET) == 0);
    REQUIRE(android::base::ReadFdToString(record_file, &records));
    close(record_file);
    const auto [events, failure] = cut(records, kFailure);
    return {events, status == 0 || !failure.empty() ? failure : end_of(status)};
}

void limit_turn() {
    const itimerval limit = {{0, 0}, {kTurnSeconds, 0}};
    setitimer(ITIMER_REAL, &limit, nullptr);
}

void add_event(const std::string& event) {
    const std::lock_guard lock(play_mutex);
    if (device->on_event) device->on_event(event);
    if (regexec(&watched, event.c_str(), 0, nullptr, 0) != 0) return;
    if (device->now_ms != time_of_events) write_events();
    time_of_events = device->now_ms;
    events_of_now.push_back(escaped(event));
}

void end_play() {
    record("calls", device->calls, "in all");
    const std::string leaked = left_open();
    if (!leaked.empty()) record("leaked", leaked);
    const bool can_check = __lsan_do_recoverable_leak_check != nullptr;
    if (can_check && __lsan_do_recoverable_leak_check() != 0) record("leaked memory");
    write_events();
    _exit(0);
}

void fail(const std::string& why) {
    std::string text = why;
    if (device != nullptr && !device->step_in_progress.empty()) {
        text = "step '" + device->step_in_progress + "': " + why;
    }
    if (device == nullptr) {
        fprintf(stderr, "%s\n", text.c_str());
    } else {
        write_events();
        android::base::WriteStringToFd(kFailure + text, record_file);
    }
    _exit(2);
}
