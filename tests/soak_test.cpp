#include <gtest/gtest.h>
#include <malloc.h>
#include <pthread.h>

#include <cstdlib>
#include <random>

#include "sim/play.h"

namespace {

// Many turns of changing tasks. Ends like a run; it dies when memory leaks, when a healthy task is
// accused or a stuck one is not. Without a `failing_call`, calls fail at random.
std::string soak(const std::string& steps, uint32_t seed, int64_t failing_call = 0) {
    std::mt19937 random(seed);
    Device* world = nullptr;
    const auto one_in = [&random](int n) { return random() % n == 0; };
    // The process is stuck every so often, for long enough; everything else makes progress.
    int64_t stuck_since = 1000000, turn = 0, progress = 0, settled_memory = 0;
    int app = 100, reports = 0;

    // Without debug the daemon tells no more than this.
    const std::string lines =
            "D started, E read config file failed, E open sysrq failed!, "
            "E init failed because of open proc";
    const auto on_event = [&](const std::string& event) {
        REQUIRE(event != "pause" || failing_call != 0);
        REQUIRE(event[1] != ' ' || lines.find(event) < lines.size());
        char thread[16];
        pthread_getname_np(pthread_self(), thread, sizeof(thread));
        REQUIRE(event.rfind("per_task", 0) != 0 || thread == std::string("workThread"));
        if (event.rfind("kill", 0) != 0 && event.rfind("kmsg", 0) != 0) return;
        const std::string pid = std::to_string(app) + " ";
        REQUIRE(stuck_since != 0 &&
                (event.find("kill " + pid) == 0 || event.find(" pid:" + pid) < event.size()));
        ++reports;
    };
    const auto on_turn = [&] {
        if (failing_call == 0) {
            world->failing_call = one_in(4) ? world->calls + 1 + random() % 60 : 0;
            world->failing_errno = one_in(2) ? EINTR : EMFILE;
        }
        if (stuck_since == 0 && one_in(500)) {
            stuck_since = world->now_ms;
        } else if (stuck_since != 0 && world->now_ms - stuck_since > 120000) {
            REQUIRE(reports > 1);
            stuck_since = reports = 0;
        }
        if (stuck_since == 0 && ++progress % 64 == 0) {
            world->take("-" + std::to_string(app));
            app = 100 + static_cast<int>(random() % 50);
        }
        const std::string pid = std::to_string(app), ticks = " utime=" + std::to_string(progress);
        const std::string moving =
                " utime=" + std::to_string(++turn) + (one_in(9) ? " cgroup=/frozen" : " cgroup=/");
        world->take(pid + " app D" + ticks + ";" + pid + "/60 Binder:1 D" + ticks + ";" + pid +
                    "/61 x S utime=900; 70 srv S" + moving + "; 70/71 t D" + moving +
                    "; 70/72 Binder:2 S wchan=w" + moving);
        if (one_in(20)) world->files["/proc/" + pid + "/stat"] = "9 (garbage\xff) ?";
        if (one_in(20)) world->files["/proc/" + pid + "/cmdline"] = one_in(2) ? "other" : "";
        if (one_in(20)) world->files["/proc/70/task/71/comm"] = "other";
        if (one_in(20)) world->files["/proc/70/task/72/status"] = "\nUid:";
        world->outputs.clear();
        if (one_in(20)) world->outputs["ps -e|grep -E \"app|srv\""] = "x\nu 9 1 1 2 0 0 S app\n";
        if (one_in(20)) world->outputs["ps -e -T|grep Binder:"] = "x\n";
        // Its thread id goes over to a process of another user.
        world->take(one_in(20) ? "80 x S; 80/72 Binder:2 D uid=1" : "-80");
        if (turn % 1000 == 0) {
            const auto memory = static_cast<int64_t>(mallinfo2().uordblks);
            if (settled_memory == 0) settled_memory = memory;
            REQUIRE(memory < settled_memory + 50000);
        }
    };
    const Outcome outcome = play(
            "debug false; process app srv:t; binder uids=9 wchans=w; iowait app srv; 30 zygote S;"
            "watch died; until 2147483647;" +
                    steps,
            [&](Device& device) {
                world = &device;
                device.failing_call = failing_call;
                device.on_event = on_event;
                device.on_turn = on_turn;
            });
    return outcome.events + outcome.failure;
}

}  // namespace

TEST(Soak, FaultsNeitherStopTheDaemonNorAccuseAHealthyTask) {
    const char *turns = getenv("TOVREL_SOAK_TURNS"), *seed = getenv("TOVREL_SOAK_SEED");
    for (const std::string mode :
         {"use_shell false; turns ", "use_shell true; turns ", "monitor_binder {}; turns "}) {
        EXPECT_EQ(soak(mode + (turns ? turns : "600"), seed ? atoi(seed) : 1), "") << mode;
        // Those of the start, one by one.
        for (int i = 1; i <= 50; ++i) EXPECT_EQ(soak(mode + "2", 1, i), "") << i;
    }
}
