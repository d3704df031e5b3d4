#include "proc/proc.h"

#include <cstring>

void proc::clear_sample() {
    sched_count = 0;
    count = 0;
    state = '?';
    memset(comm, 0, sizeof(comm));
    alive = false;
    reported = false;
    frozen = false;
    zygote_child = false;
}

void proc::set_comm(const char* name) {
    const size_t length = strnlen(name, sizeof(comm) - 1);
    memcpy(comm, name, length);
    comm[length] = '\0';
}
