#include "world.h"

#include <android-base/strings.h>
#include <android/log.h>
#include <cutils/android_reboot.h>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <regex.h>
#include <signal.h>
#include <stdarg.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>

int tovrel_main();

// The C library's own definition of one of the functions defined below.
#define REAL(function) reinterpret_cast<decltype(&::function)>(dlsym(RTLD_NEXT, #function))

namespace {

constexpr char kPerTaskFile[] = "/proc/sys/hung_task_enh/per_task_detect_mode";
constexpr int kTurnSeconds = 20;  // a turn that takes longer ends the run

struct OpenFile {
    std::string path;
    std::vector<std::string> entries;  // of a directory: still to be read, each behind its type
};

World* world;  // set in the forked child only
int event_file;
int64_t start_ms;
regex_t watched;
std::atomic<int> queued;  // ids that the worker thread has not written yet
std::map<int, OpenFile> open_files;
std::recursive_mutex world_mutex;

// A file or pipe that the daemon has left open. /proc may wait for the first walk.
std::string leaked_file() {
    const std::lock_guard lock(world_mutex);
    std::string leaked;
    for (const auto& [fd, file] : open_files) leaked += file.path == "/proc/" ? "" : file.path;
    return leaked;
}

// Gives the worker thread of the I/O-wait list time.
void await(bool (*is_done)()) {
    for (int i = 0; i < 4000 && !is_done(); ++i) poll(nullptr, 0, 1);
}

[[noreturn]] void end_run() {
    await([] { return leaked_file() != kPerTaskFile; });
    if (!leaked_file().empty()) record("leaked", leaked_file());
    _exit(0);
}

// Whether a call is to fail now; errno is set then.
bool fails(const std::string& call) {
    const std::lock_guard lock(world_mutex);
    const bool is_worker = gettid() != getpid();  // whose calls come in between
    errno = !is_worker && ++world->calls == world->failing_call ? world->failing_errno : 0;
    const auto failure = world->failures.find(call);
    if (failure != world->failures.end()) {
        errno = abs(failure->second);
        if (failure->second < 0) world->failures.erase(failure);
    }
    return errno != 0;
}

bool is_played(const std::string& path) {
    return world != nullptr && path.rfind("/proc/self/", 0) != 0 &&
           (path.rfind("/proc/", 0) == 0 || path.rfind("/vendor/", 0) == 0 || path == "/dev/kmsg");
}

int data_file(const std::string& content) {
    const int fd = memfd_create("played", MFD_CLOEXEC);
    must(pwrite(fd, content.data(), content.size(), 0) == ssize_t(content.size()));
    return fd;
}

int open_played(const std::string& path, int flags) {
    const std::lock_guard lock(world_mutex);
    if (path.find("/cmdline") != std::string::npos) world->now_ms += world->numbers["cost"];
    if (fails("open " + path)) return -1;
    const bool is_directory = (flags & O_DIRECTORY) != 0;
    const bool is_read = !is_directory && (flags & O_ACCMODE) == O_RDONLY;
    must((flags & O_CLOEXEC) != 0 && (!is_read || (flags & O_NOFOLLOW) != 0));
    std::vector<std::string> entries = {"4.", "4.."};
    for (auto below = world->files.lower_bound(path);
         is_directory && below != world->files.end() && below->first.rfind(path, 0) == 0; ++below) {
        const auto [name, rest] = cut(below->first.substr(path.size()), "/");
        if (entries.back().substr(1) == name) continue;
        const char* type = world->numbers["untyped"] != 0 ? "0" : rest.empty() ? "8" : "4";
        entries.push_back(type + name);
    }
    const bool exists = is_directory ? entries.size() > 2 : world->files.count(path) != 0;
    if (!exists) return errno = ENOENT, -1;
    const int fd = data_file(is_read ? world->files[path] : "");
    open_files[fd] = {path, entries};
    return fd;
}

long getdents_played(int fd, char* buffer, size_t size) {
    const std::lock_guard lock(world_mutex);
    OpenFile& directory = open_files[fd];
    if (fails("getdents " + directory.path)) return -1;
    size_t used = 0;
    auto entry = directory.entries.begin();
    for (; entry != directory.entries.end(); ++entry) {
        const size_t length = (offsetof(dirent64, d_name) + entry->size() + 7) & ~size_t{7};
        if (used + length > size) break;
        auto* record = reinterpret_cast<dirent64*>(buffer + used);
        record->d_reclen = length;
        record->d_type = (*entry)[0] - '0';
        strcpy(record->d_name, entry->c_str() + 1);
        used += length;
    }
    directory.entries.erase(directory.entries.begin(), entry);
    return static_cast<long>(used);
}

// Joins the recorded "TIME\x1ftext" to "@TIME text, text @TIME text".
std::string list_events(const std::string& recorded, bool sorted) {
    std::map<double, std::vector<std::string>> turns;
    for (const std::string& event : split(recorded, "\x1e")) {
        const auto [time, text] = cut(event, "\x1f");
        turns[std::stod(time)].push_back(text);
    }
    std::ostringstream list;
    for (auto& [time, events] : turns) {
        if (sorted) std::sort(events.begin(), events.end());
        list << " @" << time << " " << android::base::Join(events, ", ");
    }
    return turns.empty() ? "nothing" : list.str().substr(1);
}

}  // namespace

std::string World::run(const std::function<void()>& body) {
    files.emplace("/vendor/etc/tovrel.json", "{\"Config\":" + config.toStyledString() + "}");
    std::string lines = "# comment=1\n";
    for (const auto& [name, value] : properties) lines += name + "=" + value + "\n";
    const int property_file = data_file(lines), events = data_file("");
    setenv("TOVREL_PROPERTIES", ("/proc/self/fd/" + std::to_string(property_file)).c_str(), 1);
    const pid_t child = fork();
    if (child == 0) {
        REAL(alarm)(kTurnSeconds);
        event_file = events;
        start_ms = now_ms;
        must(regcomp(&::watched, ("^(leaked|" + watched + ")").c_str(), REG_EXTENDED) == 0);
        world = this;
        body ? body() : (tovrel_main(), must(false));
        end_run();
    }
    int status = 0;
    waitpid(child, &status, 0);
    std::string recorded(lseek(events, 0, SEEK_END), '\0');
    must(pread(events, recorded.data(), recorded.size(), 0) == ssize_t(recorded.size()));
    close(property_file);
    close(events);
    return list_events(recorded, numbers["sorted"] != 0) +
           (status == 0 ? "" : " died " + std::to_string(status));
}

void add_event(const std::string& event) {
    const std::lock_guard lock(world_mutex);
    if (world->on_event) world->on_event(event);
    if (event.rfind("I add_pids", 0) == 0) ++queued;
    if (event.find("per_task") < event.size()) --queued;  // also where the file fails
    if (regexec(&watched, event.c_str(), 0, nullptr, 0) != 0) return;
    std::ostringstream line;
    line << (world->now_ms - start_ms) / 1000.0 << '\x1f';
    for (const char c : event) line << (c == '\n' ? "\\n" : c == '\0' ? "\\0" : std::string(1, c));
    line << '\x1e';
    must(REAL(write)(event_file, line.str().data(), line.str().size()) > 0);
}

void must(bool holds) {
    if (!holds) abort();
}

std::pair<std::string, std::string> cut(const std::string& text, const std::string& at) {
    const size_t end = std::min(text.find(at), text.size());
    return {text.substr(0, end), text.substr(std::min(end + at.size(), text.size()))};
}

std::vector<std::string> split(const std::string& text, const std::string& at) {
    std::vector<std::string> pieces;
    for (std::string rest = text; !rest.empty(); rest = cut(rest, at).second) {
        pieces.push_back(cut(rest, at).first);
    }
    return pieces;
}

// The calls through which the daemon and the libraries under it reach the system. Those that the
// tests need as well are the real ones outside of a run.
extern "C" {

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int mode = va_arg(arguments, int);
    va_end(arguments);
    return is_played(path) ? open_played(path, flags) : REAL(open)(path, flags, mode);
}
int open64(const char* path, int flags, ...) __attribute__((alias("open")));

int lstat(const char* path, struct stat* status) noexcept {
    status->st_mode = world->files.count(path) != 0 ? S_IFREG : S_IFDIR;
    return 0;
}

int close(int fd) {
    must(fd >= 0);
    const std::lock_guard lock(world_mutex);
    open_files.erase(fd);
    return REAL(close)(fd);
}

ssize_t read(int fd, void* data, size_t size) {
    const std::lock_guard lock(world_mutex);
    const auto file = open_files.find(fd);
    const ssize_t count = REAL(read)(fd, data, size);
    // At the end, when there is something to be forgotten.
    const bool is_at_end = count == 0 && file != open_files.end();
    return is_at_end && fails("read " + file->second.path) ? -1 : count;
}

ssize_t write(int fd, const void* data, size_t size) {
    must(fd >= 0);
    const std::lock_guard lock(world_mutex);
    const auto file = open_files.find(fd);
    if (file == open_files.end()) return REAL(write)(fd, data, size);
    const std::string& path = file->second.path;
    if (fails("write " + path)) return -1;
    record(path.substr(path.rfind('/') + 1), std::string(static_cast<const char*>(data), size));
    return static_cast<ssize_t>(size);
}

long syscall(long number, ...) {
    long a[6];
    va_list arguments;
    va_start(arguments, number);
    for (long& argument : a) argument = va_arg(arguments, long);
    va_end(arguments);
    if (world != nullptr && number == SYS_getdents64) {
        return getdents_played(static_cast<int>(a[0]), reinterpret_cast<char*>(a[1]), a[2]);
    }
    return REAL(syscall)(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}

FILE* popen(const char* command, const char* mode) {
    const std::lock_guard lock(world_mutex);
    record("popen", mode, command);
    if (fails(std::string("popen ") + command)) return nullptr;
    const int fd = data_file(world->output_of(command));
    open_files[fd].path = command;
    return fdopen(fd, mode);
}

int pclose(FILE* stream) {
    const std::lock_guard lock(world_mutex);
    open_files.erase(fileno(stream));
    fclose(stream);
    return fails("pclose") ? -1 : 0;
}

int clock_gettime(clockid_t clock, timespec* time) noexcept {
    if (world == nullptr) return REAL(clock_gettime)(clock, time);
    must(clock == CLOCK_MONOTONIC_COARSE);
    *time = {world->now_ms / 1000, world->now_ms % 1000 * 1000000};
    return 0;
}

int usleep(useconds_t us) {
    await([] { return queued <= 0; });
    const std::lock_guard lock(world_mutex);
    record("usleep", us);
    world->now_ms += us / 1000 + world->numbers["late"];
    return 0;
}

// The top of every turn of the scan loop.
unsigned alarm(unsigned seconds) noexcept {
    const int64_t now = world->now_ms - start_ms;
    if (world->numbers["turns"]-- == 0 || now > world->numbers["until"] * 1000) end_run();
    REAL(alarm)(kTurnSeconds);
    const std::lock_guard lock(world_mutex);
    record("calls", world->calls);
    record("alarm", seconds);
    auto& pending = world->pending;
    for (; !pending.empty() && pending.begin()->first <= now; pending.erase(pending.begin())) {
        world->take(pending.begin()->second);
    }
    if (world->on_turn) world->on_turn();
    return 0;
}

int pause() {
    record("pause");
    if (++world->numbers["pauses"] == 2) end_run();
    return -1;
}

int kill(pid_t pid, int number) noexcept {
    record("kill", pid == getpid() ? "self" : std::to_string(pid), number);
    if (pid == getpid()) end_run();
    return 0;
}

sighandler_t signal(int number, sighandler_t handler) noexcept {
    record("signal", number);
    return std::exchange(world->signal_handler, handler);
}

int prctl(int option, unsigned long value) noexcept {
    record("prctl", option, value);
    return 0;
}

int sched_setscheduler(pid_t pid, int policy, const sched_param* param) noexcept {
    record("sched_setscheduler", pid, policy, param->sched_priority);
    return 0;
}

int android_reboot(unsigned command, int flags, const char* reason) {
    must(command == ANDROID_RB_RESTART2 && flags == 0);
    record("reboot", reason);
    return -1;
}

int __android_log_print(int priority, const char* tag, const char* format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    must(strcmp(tag, "tovrel") == 0);
    record("..VDIWEF"[priority], text);
    return 1;
}
}
