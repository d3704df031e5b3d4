#pragma once

#include <cstdint>
#include <string>

// "Not known yet" for the ids of a record.
constexpr uint32_t kUnknownId = 0xFFFFFFFF;

// Stands for a uid that could not be found out. It counts as monitored only where 20000 itself is.
constexpr uint32_t kUnknownUid = 20000;

// Whether the scheduler state alone makes a task that stands still a suspect: uninterruptible
// sleep, stopped, or zombie.
constexpr bool is_blocked_state(char state) {
    return state == 'D' || state == 'T' || state == 'Z';
}

// One sampled task: a process or one of its threads. read_stat() keeps the fields marked [s]; the
// detector that holds the record keeps the others. Of the sampled ones a detector changes
//   - `reported`, set with the first stage of the response to a hang;
//   - `count`, set to 0 with every stage and while the task is in no condition to be judged, and
//     grown while the task is missing;
//   - ids, state and name, where a listing of ps tells them.
struct proc {
    uint32_t pid = kUnknownId;   // [s] task id: the thread id for /proc/<pid>/task/<tid>
    uint32_t tgid = kUnknownId;  // process that owns the task
    uint32_t ppid = kUnknownId;  // [s] parent process
    uint32_t uid = kUnknownUid;  // real user id, where the detector asks for it
    uint64_t sched_count = 0;    // [s] times run on a processor, from schedstat; 0 until read
    uint32_t cpu_time = 0;       // [s] utime + stime in clock ticks, wraps at 32 bits
    int64_t count = 0;           // [s] stuck time in ms: no progress since the last stage
    char state = '?';            // [s] one-letter scheduler state, '?' while unknown
    char comm[16] = {};          // [s] task name, 15 characters at most
    // Met: by the last walk or listing. In the process detector's walks: ever since its process
    // was bound.
    bool alive = false;
    bool reported = false;      // [s] dumped for the current hang; cleared by progress
    bool frozen = false;        // [s] in the frozen group of the cgroup v1 freezer
    bool zygote_child = false;  // forked by a zygote
    std::string wchan;          // kernel wait channel, where the detector asks for it

    // Forgets what was sampled, for a record that is re-used for another task. The ids, the uid,
    // the CPU time and the wait channel stay: the next sample or the detector overwrites them.
    void clear_sample();

    // Stores the first 15 characters of `name`.
    void set_comm(const char* name);
};
