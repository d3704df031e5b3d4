#include "proc/sample.h"

#include <cstdint>
#include <cstdio>

#include "core/log.h"
#include "proc/task_files.h"

namespace {

// The fields of a stat file that a sample is made of.
struct StatFields {
    uint32_t pid = kUnknownId;
    char name[17] = {};
    char state = '?';
    uint32_t ppid = kUnknownId;
    uint32_t utime = kUnknownId;
    uint32_t stime = kUnknownId;
};

// /proc/<pid>/stat: "1234 (surfaceflinger) S 1 1234 0 0 -1 4194560 9 0 0 0 17 5 ...": pid, name,
// state, parent, nine fields passed over, utime, stime. A name that is empty, has a ')' within
// or is longer than 16 characters, as those of kernel threads may be, derails the parsing.
bool parse_stat(const std::string& text, StatFields* fields) {
    return sscanf(text.c_str(), "%u (%16[^)]) %c %u %*d %*d %*d %*d %*d %*d %*d %*d %*d %u %u",
                  &fields->pid, fields->name, &fields->state, &fields->ppid, &fields->utime,
                  &fields->stime) == 6;
}

// /proc/<pid>/schedstat: "4128373 98231 57": ns on a processor, ns waiting, times run. The run
// count is 0 on kernels built without scheduler statistics; 0 and the all-ones value say nothing.
bool parse_run_count(const std::string& text, uint64_t* run_count) {
    unsigned long long value = 0;
    if (sscanf(text.c_str(), "%*d %*d %llu", &value) != 1) return false;
    *run_count = value;
    return value != 0 && value != UINT64_MAX;
}

// The cgroup v1 line of the freezer hierarchy: "4:freezer:/frozen".
bool is_frozen(const std::string& cgroup) {
    return cgroup.find(":freezer:/frozen") != std::string::npos;
}

void restart_stuck_time(proc* record) {
    record->count = 0;
    record->reported = false;
}

}  // namespace

void read_stat(proc* record, const std::string& task_dir, int64_t interval) {
    if (record == nullptr) {
        if (debug_gate) LOG_INFO("Null procRecord.");
        return;
    }

    const std::string stat = read_task_file(task_dir, "/stat");
    if (stat.empty()) {
        if (debug_gate) LOG_INFO("read stat failed");
        return;
    }
    StatFields fields;
    if (!parse_stat(stat, &fields)) {
        if (debug_gate) LOG_INFO("stat match err.");
        return;
    }
    record->set_comm(fields.name);
    record->pid = fields.pid;
    record->ppid = fields.ppid;

    record->frozen = is_frozen(read_task_file(task_dir, "/cgroup"));

    const uint32_t cpu_time = fields.utime + fields.stime;
    // A task that used the processor has left its old state, even if it is back in it.
    if (record->cpu_time != cpu_time) record->state = '?';
    record->cpu_time = cpu_time;
    if (record->state != fields.state) {
        restart_stuck_time(record);
        record->state = fields.state;
    } else {
        record->count += interval;
    }

    uint64_t run_count = 0;
    if (parse_run_count(read_task_file(task_dir, "/schedstat"), &run_count) &&
        run_count != record->sched_count) {
        record->sched_count = run_count;
        restart_stuck_time(record);
    }
}

proc sample_once(const std::string& task_dir) {
    proc sample;
    read_stat(&sample, task_dir, 0);
    return sample;
}
