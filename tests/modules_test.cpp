#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>

#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "modules/config.h"
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
    EXPECT_EQ(world.run("per_task_detect_mode 159",
                        [&done] {
                            auto* iowait = new BlackWhiteList;
                            iowait->list = {"app"};
                            iowait->init(1, false, 0, 0);
                            for (int pid = 100; pid < 160; ++pid) {
                                iowait->check_process("app", pid, "");
                                iowait->scan_process({});
                                iowait->check_process("app", pid, "");
                            }
                            while (!done) std::this_thread::yield();
                        }),
              "@0 per_task_detect_mode 159 1");
}

TEST(Binder, CostsOneSampleAndOneWaitChannelPerScan) {
    World world(
            "conf monitor_binder={\"enable\":true,\"monitor_uids\":[9]}; 100 app S;"
            "100/101 Binder:1_1 S; 100/102 Binder:x S uid=1; @3 -100/101; @4 -100/102; turns 7");
    std::vector<int64_t> calls;
    world.on_turn = [&] {
        calls.push_back(world.calls);
        if (calls.size() != 6) return;
        // A file costs three calls: open, read, read at its end.
        record("tracked " + std::to_string((calls[3] - calls[2] - calls[4] + calls[3]) / 3.0));
        record("foreign " + std::to_string((calls[4] - calls[3] - calls[5] + calls[4]) / 3.0));
    };
    // comm, stat, cgroup, schedstat, wchan; comm, status.
    EXPECT_EQ(world.run("tracked|foreign"), "@5 tracked 5.000000, foreign 2.000000");
}

TEST(Config, AsksTheModulesInOrder) {
    struct Probe : Module {
        Probe(const char* name, bool enabled) : name(name) { enable = enabled; }
        void note(const std::string& call) { record(name + (" " + call)); }
        bool need_traverse() override { return note("need"), traverse; }
        bool check_process(std::string, int, std::string) override { return note("p"), traverse; }
        void scan_process(std::set<int> pids) override {
            note("scan " + std::to_string(pids.size()));
        }
        void check_process_sh() override { note("sh"); }
        void dump() override { note("dump"); }
        void pre_check() override { note("pre"); }
        const char* name;
        bool traverse = false;
    };
    EXPECT_EQ(World().run(
                      "",
                      [] {
                          Config& config = Config::get();
                          Probe a("a", true), off("off", false), b("b", true), c("c", true);
                          b.traverse = true;
                          config.modules = {&a, nullptr, &off, &b, &c};
                          record(config.need_traverse() && config.check_process("", 1, "") ? "yes"
                                                                                           : "no");
                          config.modules = {&off, &a};
                          record(config.need_traverse() || config.check_process("", 1, "") ? "yes"
                                                                                           : "no");
                          config.dump();
                          config.pre_check();
                          config.check_process_sh();
                          config.scan_process({3, 4});
                          config.post_check("", "");
                          config.check_thread("", 1, "", 1, "");
                      }),
              "@0 a need, b need, a p, b p, c p, yes, a need, a p, no, a dump, a pre, a sh, a scan "
              "2");
}

// One healthy and one stuck task for each detector that judges; every call of the daemon's life
// fails once, in every way.
TEST(Faults, NeitherStopTheDaemonNorAccuseAHealthyTask) {
    const std::string story =
            "conf "
            "monitor_process={\"enable\":true,\"list\":[{\"process\":\"app\"},{\"process\":\"ok\","
            "\"thread\":[\"t\"]}]}; conf monitor_binder={\"enable\":true,\"monitor_uids\":[9]};"
            "conf black_white_list={\"enable\":true,\"list\":[\"app\"]}; 30 zygote S; turns 7;"
            "100 app D; 100/101 Binder:1 D; 200 ok S; 200/201 t S; 200/202 Binder:2 S";
    int64_t all_calls = 0;
    for (const int error : {EINTR, EIO, ENOENT, EMFILE}) {
        int64_t call = 0;
        do {
            World world(story);
            world.failing_call = ++call;
            world.failing_errno = error;
            world.on_turn = [&world, turn = 0]() mutable {
                if (++turn == 7) record("calls " + std::to_string(world.calls));
            };
            const std::string events = world.run("kill|kmsg|leaked|calls");
            const size_t calls = events.find("calls ");
            if (calls != std::string::npos) all_calls = std::stoi(events.substr(calls + 6));
            EXPECT_EQ(events.find("200") & events.find("leaked") & events.find("died"),
                      std::string::npos)
                    << call << " " << error << ": " << events;
        } while (call < all_calls);
    }
    EXPECT_GT(all_calls, 100);
}
