// What no story can tell.

#include <gtest/gtest.h>

#include "core/hang_policy.h"
#include "core/log.h"
#include "modules/config.h"
#include "proc/proc_readers.h"
#include "proc/shell_command.h"
#include "proc/string_split.h"
#include "world.h"

TEST(Faults, NeitherStopTheDaemonNorAccuseAHealthyTask) {
    for (const std::string mode : {"shell off;", "shell on;", "conf monitor_binder={};"}) {
        EXPECT_EQ(soak(mode + "turns 600", 1), "nothing");
        // Those of the start, one by one.
        for (int call = 1; call <= 50; ++call) {
            EXPECT_EQ(soak(mode + "turns 2", 1, call), "nothing") << call;
        }
    }
}

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
        for (const Policy policy : {kPolicyKill, kPolicyReboot}) {
            Config::get().policy = policy;
            handle_policy(5, no_report);
        }
        char output[kCommandOutputSize + 1];
        memset(output, '.', sizeof(output));
        exec_command("short", output);
        record(std::string(output, 5));
        exec_command("long", output);
        record(strlen(output));
        exec_command("broken", output);
        record(strlen(output));
        exec_command(nullptr, output);
        exec_command("long", nullptr);
    };
    EXPECT_EQ(World("watch .; fail popen broken ENOMEM; sh short prints abc; sh long prints " +
                    std::string(3000, 'x'))
                      .run(body),
              "@0 off: 0 0 0 0 0 0 0 policy: 3 1 ms: 0 0 0 0 0 0, I Null procRecord., I killing 5, "
              "kill 5 9, reboot tovrel, popen r short, abc.., popen r long, 1023, popen r broken, "
              "I [sh] broken failed, 0");
    EXPECT_EQ(string_split(" a/b:", "/:"), (std::vector<std::string>{" a", "b"}));
    EXPECT_EQ(string_split("a b", ""), std::vector<std::string>{"a b"});
}
