// The tasks of the demonstration: some are really stuck, each in one of the ways that the daemon
// reports, the others are healthy.
//
// The program starts the roles below as processes of their own, prints a line for every task that
// is to be watched, and "ready" after the last:
//
//     MONITOR CONDITION PROCESS THREAD PID TID PPID WCHAN
//
// MONITOR is "process", "binder" or "iowait"; CONDITION is "healthy", or what the report must say:
// "D", "T", "Z", "unswitch", "missing" (the thread never starts) or "wchan" (it sleeps for ever in
// the wait channel WCHAN); what does not apply is "-". The program ends when its standard input
// does. Its processes end with it, also when it is killed.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Some tasks live for a while before they are stuck. A process that is a zombie from the start has
// no name to be found by, and the daemon, which spends 3 s on most first reports, must not come to
// all of them in the same scan: it would take that for a hang of its own.
constexpr milliseconds kLateStart(2500);

constexpr uid_t kForeignUser = 65534;  // nobody

char* process_name;

// ---- The lines about the tasks ----

struct Task {
    const char* monitor;
    const char* condition;
    const char* thread;
    pid_t tid;
    std::string wchan = "-";
};

// Every process calls this once, before it gets stuck.
void announce(const std::vector<Task>& tasks) {
    for (const Task& task : tasks) {
        dprintf(STDOUT_FILENO, "%s %s %s %s %d %d %d %s\n", task.monitor, task.condition,
                process_name, task.thread, getpid(), task.tid, getppid(), task.wchan.c_str());
    }
    close(STDOUT_FILENO);
}

void announce_process(const char* monitor, const char* condition) {
    announce({{monitor, condition, "-", getpid()}});
}

// ---- Ways to spend the time ----

void set_thread_name(const char* name) {
    prctl(PR_SET_NAME, name);
}

// The signals 3 and 35 ask an Android process for its stacks. Here they must just not end it.
void survive_dump_signals() {
    for (int number : {SIGQUIT, 35}) signal(number, [](int) {});
}

void die_with_parent(pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(EXIT_FAILURE);
}

// Signals are left to the other threads: this one must not run again, not even a signal handler.
void stand_still() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    for (;;) poll(nullptr, 0, -1);
}

// 2 ms of work every 50 ms: seen as progress also where the kernel does not count the runs.
void work_until(steady_clock::time_point end) {
    while (steady_clock::now() < end) {
        const auto pause = steady_clock::now() + milliseconds(2);
        while (steady_clock::now() < pause) {
        }
        poll(nullptr, 0, 50);
    }
}

void work() {
    work_until(steady_clock::time_point::max());
}

// The calling thread waits in state D for its child to execute another program, which never comes.
// A child of vfork() itself would share the memory of this process, and so its name; this one has
// memory of its own.
void block_in_vfork() {
    const pid_t parent = getpid();
    if (syscall(SYS_clone, CLONE_VFORK | SIGCHLD, 0, 0, 0, 0) != 0) return;
    die_with_parent(parent);
    close(STDOUT_FILENO);
    set_thread_name("child");
    strncpy(process_name, "child", strlen(process_name));
    stand_still();
}

// Returns the id of the new thread, which has its name by then.
pid_t start_thread(const char* name, void (*task)()) {
    std::atomic<pid_t> tid = 0;
    std::thread([&tid, name, task] {
        set_thread_name(name);
        tid = gettid();
        task();
    }).detach();
    while (tid == 0) std::this_thread::yield();
    return tid;
}

// The wait channel of a thread that is about to sleep. It reads "0" while the thread runs, and for
// ever on a kernel that does not tell.
std::string wait_channel(pid_t tid) {
    std::string name;
    for (int attempt = 0; attempt < 20 && (name.empty() || name == "0"); ++attempt) {
        std::this_thread::sleep_for(milliseconds(10));
        std::ifstream("/proc/self/task/" + std::to_string(tid) + "/wchan") >> name;
    }
    return name;
}

// ---- The roles. A process whose function returns stands still ----

void vfork_parent() {
    announce_process("process", "D");
    block_in_vfork();
}

void stopped() {
    announce_process("process", "T");
    raise(SIGSTOP);
}

// Its parent does not wait for it.
void zombie() {
    announce_process("process", "Z");
    std::this_thread::sleep_for(kLateStart);
    _exit(EXIT_SUCCESS);
}

void server_without_progress() {
    const pid_t tid = start_thread("watchdog", [] {
        work_until(steady_clock::now() + kLateStart);
        stand_still();
    });
    announce({{"process", "unswitch", "watchdog", tid}});
}

// Its thread stands still like the watchdog, but is none.
void idle_app() {
    announce({{"process", "healthy", "worker", start_thread("worker", stand_still)}});
}

void busy_app() {
    announce({{"process", "healthy", "worker", start_thread("worker", work)}});
}

void app_without_thread() {
    announce({{"process", "missing", "RenderThread", 0}});
}

void stuck_binder() {
    const pid_t blocked = start_thread("Binder:1_1", block_in_vfork);
    const pid_t asleep = start_thread("Binder:1_2", stand_still);
    announce({{"binder", "D", "Binder:1_1", blocked},
              {"binder", "wchan", "Binder:1_2", asleep, wait_channel(asleep)}});
}

// Its thread waits in the same channel as Binder:1_2, but makes progress.
void busy_binder() {
    announce({{"binder", "healthy", "Binder:2_1", start_thread("Binder:2_1", work)}});
}

// Stuck, but of a user that is not watched. Only root can play it.
void foreign_binder() {
    const pid_t parent = getppid();
    if (geteuid() != 0 || setuid(kForeignUser) != 0) return announce({});
    die_with_parent(parent);  // the change of user has cancelled it
    set_thread_name("Binder:3_1");
    announce({{"binder", "healthy", "Binder:3_1", getpid()}});
    raise(SIGSTOP);
}

void iowait_app() {
    announce_process("iowait", "-");
}

void nothing() {
    announce({});
}

struct Role {
    const char* process;
    const char* parent;
    void (*play)();
};

constexpr Role kRoles[] = {
        {"stuck_vfork", "stuck_tasks", vfork_parent},
        {"stuck_stopped", "stuck_tasks", stopped},
        {"zombie_parent", "stuck_tasks", nothing},
        {"stuck_zombie", "zombie_parent", zombie},
        {"stuck_unstarted", "stuck_tasks", app_without_thread},
        {"zygote", "stuck_tasks", nothing},
        {"stuck_server", "zygote", server_without_progress},
        {"healthy_app", "zygote", idle_app},
        {"healthy_busy", "stuck_tasks", busy_app},
        {"stuck_binder", "stuck_tasks", stuck_binder},
        {"healthy_binder", "stuck_tasks", busy_binder},
        {"foreign_binder", "stuck_tasks", foreign_binder},
        {"iowait_app", "stuck_tasks", iowait_app},
};

// ---- Processes ----

// Returns the id of the new process, which dies with this one.
pid_t start_process(const char* name) {
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child != 0) return child;
    die_with_parent(parent);
    execl("/proc/self/exe", name, nullptr);
    _exit(EXIT_FAILURE);
}

std::vector<pid_t> start_children(const char* parent) {
    std::vector<pid_t> children;
    for (const Role& role : kRoles) {
        if (strcmp(role.parent, parent) == 0) children.push_back(start_process(role.process));
    }
    return children;
}

void live(const Role& role) {
    set_thread_name(role.process);
    survive_dump_signals();
    start_children(role.process);
    role.play();
    for (;;) pause();
}

// Copies what comes from `source` to `target` until it ends.
void copy(int source, int target) {
    char text[4096];
    for (ssize_t size; (size = read(source, text, sizeof(text))) > 0;) {
        dprintf(target, "%.*s", static_cast<int>(size), text);
    }
}

void wait_for_end(int source) {
    char text[64];
    while (read(source, text, sizeof(text)) > 0) {
    }
}

int supervise() {
    // The processes have the pipe as their standard output and close it once they have announced
    // their tasks, so its end means that all of them have.
    const int output = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    int announcements[2];
    if (pipe2(announcements, O_CLOEXEC) != 0 || dup2(announcements[1], STDOUT_FILENO) == -1) {
        perror("stuck_tasks");
        return EXIT_FAILURE;
    }
    close(announcements[1]);
    prctl(PR_SET_CHILD_SUBREAPER, 1);  // to wait for the children of the children, too
    const std::vector<pid_t> children = start_children("stuck_tasks");
    close(STDOUT_FILENO);
    copy(announcements[0], output);
    dprintf(output, "ready\n");

    wait_for_end(STDIN_FILENO);
    for (pid_t child : children) kill(child, SIGKILL);
    while (wait(nullptr) > 0) {
    }
    return EXIT_SUCCESS;
}

}  // namespace

int main(int, char** argv) {
    process_name = argv[0];
    for (const Role& role : kRoles) {
        if (strcmp(role.process, process_name) == 0) live(role);
    }
    return supervise();
}
