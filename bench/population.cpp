// Sleeping tasks. Each line of standard input starts a process: its name and the names of its
// threads, of which the main thread has the first. A dot is printed for every thread that has its
// name. All end with standard input; start the program in a process group of its own.

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>

namespace {

[[noreturn]] void sleep_as(const std::string& name) {
    prctl(PR_SET_NAME, name.c_str());
    if (write(STDOUT_FILENO, ".", 1) != 1) _exit(1);
    for (;;) pause();
}

// A process is named by the start of its command line, `program`.
[[noreturn]] void live(std::istringstream words, char* program) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::string process, main_thread, thread;
    words >> process >> main_thread;
    snprintf(program, strlen(program) + 1, "%s", process.c_str());
    while (words >> thread) std::thread(sleep_as, thread).detach();
    sleep_as(main_thread);
}

}  // namespace

int main(int, char** argv) {
    std::string line;
    while (std::getline(std::cin, line)) {
        if (fork() == 0) live(std::istringstream(line), argv[0]);
    }
    signal(SIGTERM, SIG_IGN);
    kill(0, SIGTERM);
    while (wait(nullptr) > 0) continue;
}
