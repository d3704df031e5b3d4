// What no story can tell: what objects begin with, and functions beyond what the daemon asks of
// them.

#include <gtest/gtest.h>

#include "core/config_file.h"
#include "core/hang_policy.h"
#include "core/log.h"
#include "modules/binder/binder_monitor.h"
#include "modules/config.h"
#include "modules/iowait/black_white_list.h"
#include "modules/process/process_monitor.h"
#include "proc/sample.h"
#include "proc/shell_command.h"
#include "proc/string_split.h"
#include "sim/play.h"

namespace {

// What happens when `body` runs in the place of the daemon, under every log line.
std::string events_of(const std::string& steps, const std::function<void()>& body) {
    const Outcome outcome = play(steps + "; watch [^c]", [&body] {
        body();
        end_play();
    });
    return outcome.events + outcome.failure;
}

// Records its calls, and says no to every question.
struct Recorder : Module {
    Recorder(const char* name, bool is_on) : name(name) { enable = is_on; }
    bool need_traverse() override { return tell("need_traverse"); }
    bool check_process(std::string process, int pid, std::string path) override {
        return tell("check_process", process, pid, path);
    }
    void scan_process(std::set<int> zygote_pids) override { tell("scan", *zygote_pids.begin()); }
    void check_process_sh() override { tell("check_process_sh"); }
    void dump() override { tell("dump"); }
    void pre_check() override { tell("pre_check"); }
    void post_check(std::string process, std::string path) override {
        tell("post_check", process, path);
    }
    void check_thread(std::string process, int pid, std::string comm, int tid,
                      std::string path) override {
        tell("check_thread", process, pid, comm, tid, path);
    }

    template <typename... Words>
    bool tell(const Words&... words) {
        record(name, words...);
        return false;
    }

    const char* name;
};

}  // namespace

TEST(Record, BeginsAsUnknown) {
    const proc task;
    EXPECT_EQ(task.pid, kUnknownId);
    EXPECT_EQ(task.tgid, kUnknownId);
    EXPECT_EQ(task.ppid, kUnknownId);
    EXPECT_EQ(task.uid, 20000u);
    EXPECT_EQ(task.sched_count, 0u);
    EXPECT_EQ(task.cpu_time, 0u);
    EXPECT_EQ(task.count, 0);
    EXPECT_EQ(task.state, '?');
    EXPECT_STREQ(task.comm, "");
    EXPECT_FALSE(task.alive || task.reported || task.frozen || task.zygote_child);
}

TEST(Record, ForgetsItsSampleAndKeepsItsIds) {
    proc task = {1, 2, 3, 4, 5, 6, 7, 'S', "comm", true, true, true, true, "wchan"};
    task.clear_sample();
    EXPECT_EQ(task.sched_count, 0u);
    EXPECT_EQ(task.count, 0);
    EXPECT_EQ(task.state, '?');
    EXPECT_EQ(std::string(task.comm, sizeof(task.comm)), std::string(sizeof(task.comm), '\0'));
    EXPECT_FALSE(task.alive || task.reported || task.frozen || task.zygote_child);
    EXPECT_EQ(task.pid, 1u);
    EXPECT_EQ(task.tgid, 2u);
    EXPECT_EQ(task.ppid, 3u);
    EXPECT_EQ(task.cpu_time, 6u);
}

TEST(Config, BeginsSwitchedOff) {
    const Config& config = Config::get();
    EXPECT_FALSE(config.enable || config.debug || config.use_shell);
    EXPECT_FALSE(config.process_enable || config.binder_enable);
    EXPECT_FALSE(config.hw_enable || config.bw_enable);
    EXPECT_EQ(config.policy, kPolicyNothing);
    EXPECT_EQ(config.bw_mode, kBlackList);
    EXPECT_EQ(config.timeout + config.timeout_min + config.interval + config.interval_min, 0);
    EXPECT_EQ(config.log_timeout + config.round, 0);
}

TEST(Config, ReachesEveryModuleThatIsOnInOrder) {
    const auto every_operation = [] {
        Config& config = Config::get();
        config.modules = {nullptr, new Recorder("off", false), new Recorder("first", true),
                          new Recorder("second", true)};
        REQUIRE(!config.need_traverse() && !config.check_process("app", 10, "/proc/10"));
        config.check_thread("app", 10, "t", 11, "/proc/10/task/11");
        config.post_check("app", "/proc/10");
        config.pre_check();
        config.check_process_sh();
        config.scan_process({30});
        config.dump();
    };
    EXPECT_EQ(events_of("", every_operation),
              "0 first need_traverse\n0 second need_traverse\n"
              "0 first check_process app 10 /proc/10\n0 second check_process app 10 /proc/10\n"
              "0 first check_thread app 10 t 11 /proc/10/task/11\n"
              "0 second check_thread app 10 t 11 /proc/10/task/11\n"
              "0 first post_check app /proc/10\n0 second post_check app /proc/10\n"
              "0 first pre_check\n0 second pre_check\n"
              "0 first check_process_sh\n0 second check_process_sh\n"
              "0 first scan 30\n0 second scan 30\n0 first dump\n0 second dump\n");
}

TEST(Config, KeepsTheOrderOfItsModules) {
    const auto body = [] {
        Config& config = Config::get();
        read_config_file(&config);
        REQUIRE(config.modules[0] == config.binder_monitor);
        REQUIRE(config.modules[1] == config.black_white_list);
        REQUIRE(config.modules[2] == config.process_monitor);
    };
    EXPECT_EQ(events_of("debug false; binder uids=9; iowait app; process app", body),
              "0 global_detect_mode 1\n0 max_iowait_timeout_cnt 0\n0 max_iowait_task_cnt 0\n");
}

TEST(BinderMonitor, KeepsTheUserOfAThread) {
    EXPECT_EQ(BinderMonitor().timeout, 0);
    const auto body = [] {
        BinderMonitor monitor;
        monitor.monitor_uids = {9};
        monitor.check_thread("", 10, "Binder:1", 11, "/proc/10/task/11");
        REQUIRE(monitor.binder_threads.at(11).uid == 9);
    };
    EXPECT_EQ(events_of("10/11 x S", body), "");
}

TEST(BlackWhiteList, IsEmptyUntilItIsFilled) {
    const auto body = [] {
        BlackWhiteList list;
        list.debug = true;
        list.dump();
        list.check_process_sh();
    };
    EXPECT_EQ(events_of("", body),
              "0 I bw list enable=0,mode=0,size=0,io_time=0,io_task=0\n0 E Empty bw list.\n");
}

TEST(Functions, TakeEmptyAndMissingArguments) {
    const auto body = [] {
        debug_gate = true;
        read_stat(nullptr, "/proc/9", 500);
        std::string no_report;
        Config::get().policy = kPolicyKill;
        handle_policy(5, no_report);
        Config::get().policy = kPolicyReboot;
        handle_policy(5, no_report);
        exec_command(nullptr, no_report.data());
        exec_command("ps", nullptr);
    };
    EXPECT_EQ(events_of("", body),
              "0 I Null procRecord.\n0 I killing 5\n0 kill 5 9\n0 reboot tovrel\n");
}

TEST(ExecCommand, ReadsTheStartOfTheOutput) {
    const auto body = [] {
        debug_gate = true;
        char output[1024 + 1];
        memset(output, '.', sizeof(output));
        exec_command("short", output);
        REQUIRE(std::string(output) == "abc" + std::string(1020, '.'));
        exec_command("long", output);
        REQUIRE(std::string(output) == std::string(1023, 'x'));
        REQUIRE(output[1024] == '.');
        exec_command("broken", output);
        REQUIRE(output[0] == '\0');
    };
    EXPECT_EQ(events_of("fail popen broken ENOMEM; sh short prints abc; sh long prints " +
                                std::string(3000, 'x'),
                        body),
              "0 popen r short\n0 popen r long\n0 popen r broken\n0 I [sh] broken failed\n");
}

TEST(StringSplit, DropsEmptyPieces) {
    EXPECT_EQ(string_split(" a/b:", "/:"), (std::vector<std::string>{" a", "b"}));
    EXPECT_EQ(string_split("a b", ""), std::vector<std::string>{"a b"});
}
