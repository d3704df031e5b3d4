#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>

#include <atomic>
#include <set>
#include <thread>

#include "modules/iowait/black_white_list.h"
#include "world.h"

TEST(Iowait, TakesIdsWhileItsWorkerWritesToASlowFile) {
    World world;
    std::set<std::string> written;
    std::atomic<bool> done = false;
    world.on_event = [&](const std::string& event) {
        char thread[16];
        pthread_getname_np(pthread_self(), thread, sizeof(thread));
        if (event.rfind("per_task", 0) != 0 || !written.insert(thread + event).second) return;
        poll(nullptr, 0, 1);
        done = written.size() == 60 && written.begin()->rfind("workThreadper_task", 0) == 0;
    };
    const auto queue_ids = [&done] {
        auto* iowait = new BlackWhiteList;
        iowait->list = {"app"};
        iowait->init(1, false, 0, 0);
        for (int pid = 100; pid < 160; ++pid) {
            iowait->check_process("app", pid, "");
            iowait->scan_process({});
            iowait->check_process("app", pid, "");
        }
        while (!done) std::this_thread::yield();
    };
    EXPECT_EQ(world.run("per_task_detect_mode 159", queue_ids), "@0 per_task_detect_mode 159 1");
}

// One healthy and one stuck task for each detector that judges; every call of the daemon's life
// fails once, in every way.
TEST(Faults, NeitherStopTheDaemonNorAccuseAHealthyTask) {
    const char kStory[] =
            "conf monitor_process={\"enable\":true,\"list\":[{\"process\":\"app\"},"
            "{\"process\":\"ok\",\"thread\":[\"t\"]}]};"
            "conf monitor_binder={\"enable\":true,\"monitor_uids\":[9]};"
            "conf black_white_list={\"enable\":true,\"list\":[\"app\"]}; 30 zygote S; turns 7;"
            "100 app D; 100/101 Binder:1 D; 200 ok S; 200/201 t S; 200/202 Binder:2 S";
    for (const int error : {EINTR, EIO, ENOENT, EMFILE}) {
        for (int64_t call = 1, all_calls = 1; call <= all_calls; ++call) {
            World world(kStory);
            world.failing_call = call;
            world.failing_errno = error;
            world.on_event = [&](const std::string& event) {
                if (event.rfind("alarm", 0) == 0) record("all " + std::to_string(world.calls));
            };
            const std::string events = world.run("kill|kmsg|leaked|all");
            EXPECT_EQ(events.find("200") & events.find("leaked") & events.find("died"),
                      std::string::npos)
                    << call << " " << error << ": " << events;
            const size_t last = events.rfind("all ");
            if (last < events.size()) all_calls = std::stoi(events.substr(last + 4));
            EXPECT_GT(all_calls, call == 1 && error == EINTR ? 100 : 0);
        }
    }
}
