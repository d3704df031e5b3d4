// A process of sleeping threads, which ends with the process that starts it.
//
// usage: NAME THREAD...    NAME, the program's own, is the process's; the first thread is the main
//
// Standard output is closed as soon as every thread has its name.

#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <thread>

int main(int argc, char** argv) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (argc > 1) pthread_setname_np(pthread_self(), argv[1]);
    for (int i = 2; i < argc; ++i) {
        std::thread thread(pause);
        pthread_setname_np(thread.native_handle(), argv[i]);
        thread.detach();
    }
    close(STDOUT_FILENO);
    pause();
}
