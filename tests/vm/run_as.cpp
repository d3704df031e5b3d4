// Becomes a program with the user, the group and the capabilities that init would give a service.
//
// usage: run_as UID GID CAPABILITIES PROGRAM [ARGUMENT...]    CAPABILITIES like "KILL,SYS_PTRACE"

#include <grp.h>
#include <linux/capability.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

int main(int argc, char** argv) {
    if (argc < 5) return EXIT_FAILURE;
    for (int capability = 0; capability <= CAP_LAST_CAP; ++capability) {
        const bool kept = (capability == CAP_KILL && strstr(argv[3], "KILL") != nullptr) ||
                          (capability == CAP_SYS_PTRACE && strstr(argv[3], "SYS_PTRACE") != nullptr);
        // What is missing in the bounding set, root does not regain by the exec.
        if (!kept && prctl(PR_CAPBSET_DROP, capability) != 0) return EXIT_FAILURE;
    }
    if (setgroups(0, nullptr) != 0 || setgid(atoi(argv[2])) != 0 || setuid(atoi(argv[1])) != 0) {
        return EXIT_FAILURE;
    }
    execv(argv[4], argv + 4);
    perror(argv[4]);
    return EXIT_FAILURE;
}
