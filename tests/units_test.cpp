// What no story can tell.

#include <gtest/gtest.h>

#include "core/config_file.h"
#include "core/hang_policy.h"
#include "core/log.h"
#include "modules/binder/binder_monitor.h"
#include "modules/config.h"
#include "modules/iowait/black_white_list.h"
#include "modules/process/process_monitor.h"
#include "proc/names.h"
#include "proc/sample.h"
#include "proc/task_files.h"
#include "proc/shell_command.h"
#include "proc/string_split.h"
#include "world.h"

struct Uncalled : Module {
    bool need_traverse() override { return must(false), false; }
    bool check_process(std::string, int, std::string) override { return must(false), false; }
    void scan_process(std::set<int>) override { must(false); }
    void check_process_sh() override { must(false); }
    void dump() override { must(false); }
    void pre_check() override { must(false); }
    void post_check(std::string, std::string) override { must(false); }
    void check_thread(std::string, int, std::string, int, std::string) override { must(false); }
};

TEST(Config, PassesOverModulesThatAreOff) {
    const auto every_operation = [] {
        Config& config = Config::get();
        config.modules = {nullptr, new Uncalled};
        must(!config.need_traverse() && !config.check_process("", 1, ""));
        config.check_thread("", 1, "", 1, "");
        config.post_check("", "");
        config.pre_check();
        config.check_process_sh();
        config.scan_process({});
        config.dump();
    };
    EXPECT_EQ(World().run(every_operation), "nothing");
}

TEST(Records, BeginAnew) {
    const auto tell = [](const proc& task) {
        record("task:", task.pid, task.tgid, task.ppid, task.uid, task.sched_count, task.cpu_time,
               task.count, task.state, task.comm, task.alive, task.reported, task.frozen,
               task.zygote_child, task.wchan);
    };
    const auto body = [&] {
        tell({});
        proc task = {1, 2, 3, 4, 5, 6, 7, 'S', "comm", true, true, true, true, "wchan"};
        task.clear_sample();
        tell(task);
        for (const bool is_unbound : {false, true}) {
            process_info process;
            if (is_unbound) process = {true, true, true, 5, 6, 'D', "", {}}, process.unbind();
            record("process:", process.started, process.main_only, process.zygote_child,
                   process.pid, process.ppid, process.state);
        }
        BlackWhiteList list;
        list.debug = true;
        list.dump();
        list.check_process_sh();
        Config& config = Config::get();
        read_config_file(&config);
        config.binder_monitor->check_thread("", 10, "Binder:1", 11, "/proc/10/task/11");
        record("uid:", config.binder_monitor->binder_threads[11].uid, BinderMonitor().timeout);
        must(config.modules == std::vector<Module*>{config.binder_monitor, config.black_white_list,
                                                    config.process_monitor});
    };
    World world("watch [^Dagm]; debug off; binder uids=9; iowait app; process app; 10/11 x S");
    EXPECT_EQ(
            world.run(body),
            "@0 task: 4294967295 4294967295 4294967295 20000 0 0 0 ?  0 0 0 0 , "
            "task: 1 2 3 4 0 6 0 ?  0 0 0 0 wchan, process: 0 0 0 -1 -1 ?, process: 0 1 1 -1 -1 ?, "
            "I bw list enable=0,mode=0,size=0,io_time=0,io_task=0, E Empty bw list., uid: 9 0");
}

TEST(Functions, HoldAtTheirLimits) {
    const auto body = [] {
        const Config& config = Config::get();
        record("off:", config.enable, config.debug, config.use_shell, config.process_enable,
               config.binder_enable, config.hw_enable, config.bw_enable, "policy:", config.policy,
               config.bw_mode, "ms:", config.timeout, config.timeout_min, config.interval,
               config.interval_min, config.log_timeout, config.round);
        debug_gate = true;
        read_stat(nullptr, "/proc/9", 500);
        std::string no_report;
        Config::get().policy = kPolicyKill, handle_policy(5, no_report);
        Config::get().policy = kPolicyReboot, handle_policy(5, no_report);
        char output[kCommandOutputSize + 1];
        memset(output, '.', sizeof(output));
        for (const char* command : {"short", "long", "broken"}) {
            exec_command(command, output);
            record("got", std::string(output, 5), strnlen(output, sizeof(output)));
        }
        exec_command(nullptr, output);
        exec_command("long", nullptr);
    };
    EXPECT_EQ(
            World("watch .; fail popen broken ENOMEM; sh short prints abc; sh long prints " +
                  std::string(3000, 'x'))
                    .run(body),
            "@0 off: 0 0 0 0 0 0 0 policy: 3 1 ms: 0 0 0 0 0 0, I Null procRecord., I killing 5, "
            "kill 5 9, reboot tovrel, popen r short, got abc.. 1023, popen r long, got xxxxx 1023, "
            "popen r broken, I [sh] broken failed, got \\0xxxx 0");
    EXPECT_EQ(string_split(" a/b:", "/:"), (std::vector<std::string>{" a", "b"}));
    EXPECT_EQ(string_split("a b", ""), std::vector<std::string>{"a b"});
}
