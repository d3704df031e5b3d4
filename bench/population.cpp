// Runs a command beside a population of sleeping tasks: processes "population_0", "population_1"
// and so on, each of threads "NAME0", "NAME1" and so on. They end with the command, whose exit
// status is the program's.
//
// usage: population PROCESSES THREADS NAME COMMAND [ARGUMENT]...

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

int ready[2];  // pipe that gets a byte from every thread that has its name

[[noreturn]] void sleep_as(const std::string& name) {
    prctl(PR_SET_NAME, name.c_str());
    if (write(ready[1], "", 1) != 1) _exit(1);
    for (;;) pause();
}

[[noreturn]] void live(const std::string& name, int threads) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (int i = 1; i < threads; ++i) std::thread(sleep_as, name + std::to_string(i)).detach();
    sleep_as(name + "0");
}

int run(char** command) {
    const pid_t pid = fork();
    if (pid == 0) {
        execvp(command[0], command);
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5 || pipe(ready) != 0) return 2;
    const int threads = atoi(argv[2]);
    std::vector<pid_t> processes(static_cast<size_t>(atoi(argv[1])));
    for (size_t i = 0; i < processes.size(); ++i) {
        processes[i] = fork();
        if (processes[i] != 0) continue;
        // A process is named by the start of its command line.
        snprintf(argv[0], strlen(argv[0]) + 1, "population_%zu", i);
        live(argv[3], threads);
    }
    close(ready[1]);
    char byte;
    for (size_t i = 0; i < processes.size() * static_cast<size_t>(threads); ++i) {
        if (read(ready[0], &byte, 1) != 1) return 1;
    }
    const int status = run(argv + 4);
    for (const pid_t pid : processes) {
        if (pid > 0) kill(pid, SIGKILL);
    }
    while (wait(nullptr) > 0) continue;
    return status;
}
