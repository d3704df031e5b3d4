// Measures the daemon's scans on the live /proc, beside their floors and beside the commands that a
// user would run instead. Runs within `population`, with the same first arguments. No task counts
// as hung here: the time-out is never reached.
//
// Times are processor time, children included. The counters are for one run: "user" and "system"
// seconds, "calls" of the system, "allocations", "tasks" looked at, and "kept", the blocks of
// memory that the whole series did not free.
//
// usage: scan_bench PROCESSES THREADS NAME [--benchmark_...]

#include <android-base/file.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "core/dir_info.h"
#include "core/proc_walk.h"
#include "modules/binder/binder_monitor.h"
#include "modules/config.h"
#include "modules/iowait/black_white_list.h"
#include "modules/process/process_monitor.h"

namespace {

using Work = std::function<void()>;

constexpr int64_t kInterval = 1000;  // ms
constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

int64_t allocation_count = 0;
int64_t free_count = 0;
std::vector<std::string>* opened_paths = nullptr;  // where open() notes its path, if anywhere

double seconds(timeval rusage::*part) {
    double sum = 0;
    for (const auto who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage usage;
        getrusage(who, &usage);
        const timeval& time = usage.*part;
        sum += static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    }
    return sum;
}

// Runs `work` in a traced child process; what that starts is counted with it.
uint64_t count_system_calls(const Work& work) {
    const pid_t child = fork();
    if (child == 0) {
        ptrace(PTRACE_TRACEME);
        raise(SIGSTOP);
        work();
        _exit(0);
    }
    constexpr int kCallStop = SIGTRAP | 0x80;
    int status;
    waitpid(child, &status, 0);
    ptrace(PTRACE_SETOPTIONS, child, nullptr,
           PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEEXEC | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK |
                   PTRACE_O_TRACECLONE);
    uint64_t stops = 0;
    for (pid_t pid = child; pid > 0; pid = waitpid(-1, &status, __WALL)) {
        if (!WIFSTOPPED(status)) continue;
        int signal = WSTOPSIG(status);
        if (signal == kCallStop) ++stops;
        if (signal == kCallStop || signal == SIGTRAP || signal == SIGSTOP) signal = 0;
        ptrace(PTRACE_SYSCALL, pid, nullptr, signal);
    }
    return stops / 2;  // one at the entry, one at the return
}

// `prepare` makes the work ready that is measured.
void register_work(const std::string& name, size_t tasks, const std::function<Work()>& prepare) {
    const auto run = [=, calls = uint64_t{0}](benchmark::State& state) mutable {
        const Work work = prepare();
        work();
        if (calls == 0) calls = count_system_calls(work);
        double user = 0, system = 0;
        const int64_t allocated = allocation_count, freed = free_count;
        for (auto _ : state) {
            const double user_before = seconds(&rusage::ru_utime);
            const double system_before = seconds(&rusage::ru_stime);
            work();
            const double user_spent = seconds(&rusage::ru_utime) - user_before;
            const double system_spent = seconds(&rusage::ru_stime) - system_before;
            user += user_spent;
            system += system_spent;
            state.SetIterationTime(user_spent + system_spent);
        }
        const auto runs = static_cast<double>(state.iterations());
        const auto allocations = static_cast<double>(allocation_count - allocated);
        state.counters["allocations"] = allocations / runs;
        state.counters["kept"] = allocations - static_cast<double>(free_count - freed);
        state.counters["calls"] = static_cast<double>(calls);
        state.counters["tasks"] = static_cast<double>(tasks);
        state.counters["user"] = user / runs;
        state.counters["system"] = system / runs;
    };
    benchmark::RegisterBenchmark(name.c_str(), run)->UseManualTime()->Unit(benchmark::kMillisecond);
}

std::vector<std::string> record_opened(const Work& work) {
    std::vector<std::string> paths;
    opened_paths = &paths;
    work();
    opened_paths = nullptr;
    return paths;
}

bool is_directory(const std::string& path) {
    return path.back() == '/';
}

// What the daemon must do at the least, by its own directory and file readers.
void replay_with_readers(const std::vector<std::string>& paths) {
    static DirInfo directory;
    std::string content;
    for (const std::string& path : paths) {
        if (!is_directory(path)) {
            android::base::ReadFileToString(path, &content, false);
        } else if (directory.open(path.c_str())) {
            while (directory.next() != nullptr) continue;
        }
    }
    directory.close();
}

// What the kernel must do at the least: open, read, close.
void replay_bare(const std::vector<std::string>& paths) {
    static char buffer[4200];
    for (const std::string& path : paths) {
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (is_directory(path)) {
            while (syscall(SYS_getdents64, fd, buffer, sizeof(buffer)) > 0) continue;
        } else {
            [[maybe_unused]] const ssize_t length = read(fd, buffer, sizeof(buffer));
        }
        close(fd);
    }
}

enum Mode { kRecorded, kWalk, kShell };

void scan(Mode mode) {
    Config& config = Config::get();
    if (mode == kRecorded && config.need_traverse()) abort();  // a task of the population is gone
    if (mode == kWalk) walk_proc();
    if (mode == kShell) config.check_process_sh();
    config.scan_process({});
}

// Only `module` scans, and it knows its tasks.
void use(Module* module) {
    module->enable = true;
    Config::get().modules = {module};
    scan(kWalk);
}

void register_scan(const std::string& name, Mode mode, Module* module, size_t tasks) {
    const Work work = [=] { scan(mode); };
    register_work(name + "/scan", tasks, [=] { return use(module), work; });
    if (mode == kShell) return;  // most of it is the work of other programs
    register_work(name + "/reader", tasks, [=]() -> Work {
        use(module);
        return [paths = record_opened(work)] { replay_with_readers(paths); };
    });
    register_work(name + "/bare", tasks, [=]() -> Work {
        use(module);
        return [paths = record_opened(work)] { replay_bare(paths); };
    });
}

void register_command(const std::string& name, const std::string& command, size_t tasks) {
    register_work(name, tasks, [=]() -> Work {
        return [=] {
            if (system(("exec " + command + " >/dev/null").c_str()) != 0) abort();
        };
    });
}

}  // namespace

// The C library's functions of these names, for this program and the libraries in it.
extern "C" void* __libc_malloc(size_t size);
extern "C" void* malloc(size_t size) {
    ++allocation_count;
    return __libc_malloc(size);
}

extern "C" void __libc_free(void* block);
extern "C" void free(void* block) {
    if (block != nullptr) ++free_count;
    __libc_free(block);
}

extern "C" int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    if (opened_paths != nullptr) opened_paths->push_back(path);
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}
extern "C" int open64(const char* path, int flags, ...) __attribute__((alias("open")));

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (argc != 4) return 2;
    const auto processes = static_cast<size_t>(atoi(argv[1]));
    const auto threads = static_cast<size_t>(atoi(argv[2]));
    ProcessList whole, with_threads;
    BlackWhiteList io_list;
    for (size_t i = 0; i < processes; ++i) {
        const std::string name = "population_" + std::to_string(i);
        whole[name];
        for (size_t j = 0; j < threads; ++j) with_threads[name].insert(argv[3] + std::to_string(j));
        io_list.list.insert(name);
    }
    Config::get().interval = kInterval;
    ProcessMonitor process_monitor(whole, kInterval, kNever);
    ProcessMonitor thread_monitor(with_threads, kInterval, kNever);
    BinderMonitor binder_monitor;
    binder_monitor.monitor_uids = {getuid()};
    binder_monitor.timeout = kNever;

    // The walk reads one comm file a thread; other threads than the population's are few.
    use(&binder_monitor);
    const std::vector<std::string> paths = record_opened([] { walk_proc(); });
    const auto all = static_cast<size_t>(
            std::count_if(paths.begin(), paths.end(), [](const std::string& path) {
                return path.size() > 5 && path.compare(path.size() - 5, 5, "/comm") == 0;
            }));

    register_scan("recorded-processes", kRecorded, &process_monitor, processes);
    register_scan("recorded-threads", kRecorded, &thread_monitor, processes * threads);
    register_scan("recorded-iowait", kRecorded, &io_list, processes);
    register_scan("walk-processes", kWalk, &process_monitor, processes);
    register_scan("walk-iowait", kWalk, &io_list, processes);
    register_scan("walk-binder", kWalk, &binder_monitor, all);
    register_scan("shell-binder", kShell, &binder_monitor, all);
    register_command("ps", "/usr/bin/ps -eLo pid,tid,stat,comm", all);
    register_command("top", "top -b -n1 -H", all);
    register_command("toybox", "toybox ps -e -T", all);
    benchmark::RunSpecifiedBenchmarks();
}
