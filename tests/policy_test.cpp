#include <gtest/gtest.h>
#include <signal.h>

#include "core/hang_policy.h"
#include "core/log.h"
#include "modules/config.h"
#include "world.h"

TEST(Policy, ActsAsConfiguredWhateverFails) {
    const std::string acts =
            "sysrq-trigger w., sysrq-trigger l., usleep 3000000 @3 sysrq-trigger c.";
    const std::string panic = "@0 kmsg r, " + acts;
    struct Case {
        int policy;
        bool debug;
        const char *report, *story;
        std::string events;
    };
    const Case cases[] = {
            {2, false, "r", "", panic},
            {2, true, "r", "", "@0 I r, kmsg r, " + acts},
            {1, false, "r", "", "@0 kmsg r, reboot dead0003 0 tovrel"},
            {1, true, "", "", "@0 reboot dead0003 0 tovrel"},
            {0, false, "r", "", "@0 kill 9 9"},
            {0, true, "r", "", "@0 I r, I killing 9, kill 9 9"},
            {0, true, "", "", "@0 I killing 9, kill 9 9"},
            {3, true, "r", "", "@0 I nothing to do according to policy"},
            {7, false, "r", "", ""},
            {-1, true, "r", "", "@0 I nothing to do according to policy"},
            {2, true, "r", "fail open /dev/kmsg=2", "@0 I r, E error opening kmsg, " + acts},
            {2, false, "r", "fail open /dev/kmsg=2", "@0 " + acts},
            {2, false, "r", "fail open /dev/kmsg=-4; fail write /dev/kmsg=-4", panic},
            {2, true, "r", "fail write /dev/kmsg=5", "@0 I r, E write r to kmsg failed, " + acts},
            {2, false, "r", "fail write /dev/kmsg=5", "@0 " + acts},
            {2, false, "", "fail open /proc/sysrq-trigger=13",
             "@0 E open sysrq failed!, E open sysrq failed!, usleep 3000000 "
             "@3 E open sysrq failed!"},
            {2, false, "r", "fail open /proc/sysrq-trigger=-4",  // the open is tried once only
             "@0 kmsg r, E open sysrq failed!, sysrq-trigger l., usleep 3000000 "
             "@3 sysrq-trigger c."},
            {2, false, "r", "fail write /proc/sysrq-trigger=-4", panic},
            {2, false, "r", "fail write /proc/sysrq-trigger=5", "@0 kmsg r, usleep 3000000"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(World(c.story).run("",
                                     [&] {
                                         debug_gate = c.debug;
                                         Config::get().policy = c.policy;
                                         std::string report = c.report;
                                         handle_policy(9, report);
                                     }),
                  c.events)
                << c.policy << c.debug << c.story;
    }
}

TEST(Watchdog, DumpsTheKernelAndKillsTheDaemon) {
    World world("conf black_white_list={\"enable\":true}");
    world.on_turn = [] { interrupt(SIGALRM); };
    EXPECT_EQ(world.run("signal|alarm|E|sysrq|usleep|kill"),
              "@0 signal 14, alarm 16, E Self stuck! restarting..., sysrq-trigger w., "
              "sysrq-trigger l., usleep 3000000 @3 kill self 9");
}
