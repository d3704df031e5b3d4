// usage: tovrel_soak SCANS [SEED]
//
// Many scans of a population that changes all the time, with faults strewn in. Ends with status 0
// if nothing crashed, leaked or grew, the watchdog was armed in every turn, and there was a report
// whenever a task was stuck and at no other time.

#include <errno.h>
#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <utility>

#include "world.h"

int main(int argc, char** argv) {
    must(argc > 1);
    World world(
            "conf switches={\"main\":true}; conf default_open_hw_list={};"
            "conf monitor_process={\"enable\":true,\"list\":[{\"process\":\"app\"},"
            "{\"process\":\"srv\",\"thread\":[\"t\"]}]};"
            "conf monitor_binder={\"enable\":true,\"monitor_uids\":[9],\"wchans\":[\"w\"]};"
            "conf black_white_list={\"enable\":true,\"list\":[\"app\",\"srv\"]}; 30 zygote S");
    world.turns = atoll(argv[1]);
    world.until_ms = INT64_MAX;
    world.recording = false;
    std::mt19937 random(argc > 2 ? atoi(argv[2]) : 1);
    const auto one_in = [&](int n) { return random() % n == 0; };
    int64_t turn = 0, stuck_since = 0, settled_memory = 0, reports = 0;
    int armed = 0, app = 100, generation = 0;

    world.on_event = [&](const std::string& event) {
        if (event.rfind("alarm", 0) == 0) must(event == "alarm 16" && ++armed == 1);
        if (event.rfind("kill", 0) != 0 && event.rfind("kmsg", 0) != 0) return;
        must(stuck_since != 0);
        ++reports;
    };
    world.on_turn = [&] {
        must(std::exchange(armed, 0) == 1 && open_file_count() <= 1);
        world.failing_call = one_in(4) ? world.calls + 1 + random() % 60 : 0;
        constexpr int kErrors[] = {EINTR, EIO, ENOENT, EACCES, ESRCH, EMFILE, ENOMEM};
        world.failing_errno = kErrors[random() % std::size(kErrors)];
        // Every so often the process is stuck for long enough; otherwise everything makes progress.
        ++turn;
        if (stuck_since == 0 && one_in(500)) {
            stuck_since = world.now_ms;
        } else if (stuck_since != 0 && world.now_ms - stuck_since > 40000) {
            must(reports > 1);
            stuck_since = reports = 0;
        }
        if (stuck_since == 0) {
            ++generation;
            if (one_in(50)) {
                world.apply("-" + std::to_string(app));
                app = 100 + static_cast<int>(random() % 50);
            }
        }
        const std::string pid = std::to_string(app), ticks = " ticks=" + std::to_string(generation);
        const std::string moving = " ticks=" + std::to_string(turn);
        world.apply(pid + " app D" + ticks + "; " + pid + "/60 Binder:1 D" + ticks + "; 70 srv S" +
                    moving + "; 70/71 t S" + moving + "; 70/72 Binder:2 S wchan=w" + moving);
        if (one_in(20)) world.files["/proc/" + pid + "/stat"] = "9 (garbage\xff) ?";
        if (one_in(20)) world.files["/proc/70/task/72/status"] = "\nUid:";
        if (turn % 1000 == 0) {
            const auto memory = static_cast<int64_t>(mallinfo2().uordblks);
            if (settled_memory == 0) settled_memory = memory;
            must(memory < settled_memory + 50000);
        }
    };
    const std::string events = world.run("");
    printf("%s scans: %s\n", argv[1], events.empty() ? "passed" : events.c_str());
    return events.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}
