// A task that gets stuck in one way, for the demonstration and the benchmark.
//
// usage: stuck_task STATE SECONDS [THREAD...]
//
// Works for SECONDS and stays in the scheduler state STATE from then on:
//
//   D  waits for a child of vfork that never executes another program
//   T  is stopped
//   Z  has ended; its parent must not wait for it
//   S  sleeps
//   R  goes on working, 2 ms every 50 ms, which is progress
//
// With THREADs, further threads of these names do so and the main thread sleeps. Each task prints
// its process id and thread id when it has its name. The process bears the name under which it is
// started (argv[0]), ignores the signals 3 and 35, which ask an Android process for its stacks, and
// dies with its parent.

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace {

using std::chrono::steady_clock;

// Seen as progress also where the kernel does not count how often a task runs.
void work_for(std::chrono::duration<double> time) {
    const auto end = steady_clock::now() + time;
    while (steady_clock::now() < end) {
        const auto pause = steady_clock::now() + std::chrono::milliseconds(2);
        while (steady_clock::now() < pause) continue;
        poll(nullptr, 0, 50);
    }
}

[[noreturn]] void sleep_for_ever() {
    for (;;) poll(nullptr, 0, -1);
}

void die_with_parent() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
}

// A child of vfork() itself would share the memory of this process, and so its name; this one has
// memory of its own.
void wait_for_vfork(char* process_name) {
    if (syscall(SYS_clone, CLONE_VFORK | SIGCHLD, 0, 0, 0, 0) != 0) return;
    die_with_parent();
    prctl(PR_SET_NAME, "child");
    strncpy(process_name, "child", strlen(process_name));
    sleep_for_ever();
}

[[noreturn]] void get_stuck(char** argv, const char* task_name) {
    prctl(PR_SET_NAME, task_name);
    dprintf(STDOUT_FILENO, "%d %d\n", getpid(), gettid());
    work_for(std::chrono::duration<double>(atof(argv[2])));
    const char state = *argv[1];
    if (state == 'D') wait_for_vfork(argv[0]);
    if (state == 'T') raise(SIGSTOP);
    if (state == 'Z') _exit(EXIT_SUCCESS);
    if (state == 'R') work_for(std::chrono::hours::max());
    sleep_for_ever();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    die_with_parent();
    signal(SIGQUIT, SIG_IGN);
    signal(35, SIG_IGN);
    prctl(PR_SET_NAME, argv[0]);
    if (argc == 3) get_stuck(argv, argv[0]);
    for (int i = 3; i < argc; ++i) std::thread(get_stuck, argv, argv[i]).detach();
    sleep_for_ever();
}
