#include <errno.h>
#include <gtest/gtest.h>

#include "core/log.h"
#include "modules/config.h"
#include "proc/shell_command.h"
#include "proc/proc_readers.h"
#include "proc/string_split.h"
#include "world.h"

namespace {

std::string describe(const proc& task) {
    char text[200];
    snprintf(text, sizeof(text), "%d %d %s %c %lld %d %d %u %llu", static_cast<int>(task.pid),
             static_cast<int>(task.ppid), task.comm, task.state, static_cast<long long>(task.count),
             task.reported, task.frozen, task.cpu_time,
             static_cast<unsigned long long>(task.sched_count));
    return text;
}

}  // namespace

TEST(ReadStat, KeepsTheStuckTime) {
    const char kS[] = "9 (a b) S 3 1 1 0 -1 4194560 9 8 7 6 10 2 0 0 20 0";
    const char kD[] = "9 (a b) D 3 1 1 0 -1 4194560 9 8 7 6 10 2";
    struct Sample {
        const char *stat, *cgroup, *schedstat;  // "-" cannot be read
        const char* record;  // pid ppid comm state count reported frozen cpu_time sched_count
    };
    const Sample samples[] = {
            {"-", "-", "-", "-1 -1  ? 0 1 0 0 0"},
            {"", "4:freezer:/frozen\n", "1 2 3", "-1 -1  ? 0 1 0 0 0"},
            {kS, "4:freezer:/\n", "900 80 5\n", "9 3 a b S 0 0 0 12 5"},
            {kS, "4:freezer:/frozen\n", "900 80 5\n", "9 3 a b S 500 1 1 12 5"},
            {kS, "-", "-", "9 3 a b S 1000 1 0 12 5"},
            {kS, "", "900 80 0", "9 3 a b S 1500 1 0 12 5"},
            {kS, "", "1 2 18446744073709551615", "9 3 a b S 2000 1 0 12 5"},
            {kS, "", "1 2 1", "9 3 a b S 0 0 0 12 1"},
            {kS, "", "1 2", "9 3 a b S 500 1 0 12 1"},
            {kS, "", "1 2 18446744073709551614", "9 3 a b S 0 0 0 12 18446744073709551614"},
            {kD, "", "", "9 3 a b D 0 0 0 12 18446744073709551614"},
            {kD, "", "1 2 4", "9 3 a b D 0 0 0 12 4"},
            {kD, "", "1 2 4", "9 3 a b D 500 1 0 12 4"},
            {"9 (a b) D 3 1 1 0 -1 4194560 9 8 7 6 11 2", "", "", "9 3 a b D 0 0 0 13 4"},
            {"9 (a b) D 3 1 1 0 -1 4194560 9 8 7 6 10 3", "0::/", "", "9 3 a b D 500 1 0 13 4"},
            // What cannot be parsed changes nothing; a ')' within the name derails the parsing.
            {"9 (x) Z 1) S 3 1 1 0 -1 1 9 8 7 6 10 2 0", ":freezer:/frozen", "",
             "9 3 a b D 500 1 0 13 4"},
            {"9 () S 3 1 1 0 -1 1 9 8 7 6 10 2", "", "", "9 3 a b D 500 1 0 13 4"},
            {"9 (a b) S 3 1 1 0 -1 1 9 8 7 6 10", "", "", "9 3 a b D 500 1 0 13 4"},
            {"9 (fifteen letters) S 4 1 1 0 -1 1 9 8 7 6 10 2", "x\n7:freezer:/frozen/1\n", "",
             "9 4 fifteen letters S 0 0 1 12 4"},
            {"8 (sixteen letters.) R 3 1 1 0 -1 1 9 8 7 6 4294967295 2", "", "",
             "8 3 sixteen letters R 0 0 0 1 4"},
    };
    World world;
    std::string expected = "@0 ";
    for (const Sample& sample : samples) expected += std::string(sample.record) + ", ";
    EXPECT_EQ(world.run("",
                        [&] {
                            proc task;
                            for (const Sample& sample : samples) {
                                task.reported = true;
                                world.files.clear();
                                if (*sample.stat != '-') world.files["/proc/9/stat"] = sample.stat;
                                if (*sample.cgroup != '-')
                                    world.files["/proc/9/cgroup"] = sample.cgroup;
                                if (*sample.schedstat != '-')
                                    world.files["/proc/9/schedstat"] = sample.schedstat;
                                read_stat(&task, "/proc/9", 500);
                                record(describe(task));
                            }
                            task.zygote_child = task.alive = true;
                            task.clear_sample();
                            record(describe(task) + std::to_string(task.zygote_child + task.alive));
                        }),
              expected + "8 3  ? 0 0 0 1 00");
}

TEST(ReadStat, ExplainsFailuresOnlyWhenDebugging) {
    World world(
            "5 x S; file /proc/9/stat=9 (a) S; unlink /proc/5/cgroup;"
            "fail read /proc/5/schedstat=3");
    const auto body = [] {
        proc task;
        read_stat(nullptr, "/proc/9", 500);
        for (const char* directory : {"/proc/8", "/proc/9", "/proc/5"}) read_stat(&task, directory, 500);
        get_comm("/proc/8");
        get_proc_name("8");
    };
    EXPECT_EQ(world.run("", body), "");
    EXPECT_EQ(world.run("I", [&] { debug_gate = true, body(); }),
              "@0 I Null procRecord., I Read /proc/8/stat failed, I read stat failed, "
              "I stat match err., I Read /proc/5/cgroup failed, I Read /proc/5/schedstat failed, "
              "I Read /proc/8/comm failed, I Read /proc/8/cmdline failed");
}

TEST(Names, EndAtTheFirstSeparator) {
    const std::pair<std::string, std::string> cases[] = {
            {"foo\n", "foo"}, {std::string("/bin/foo\0-x", 11), "/bin/foo"},
            {"a\tb", "a"},    {"a\rb", "a"},
            {" a", ""},       {"b c", "b"}};
    for (const auto& [content, name] : cases) {
        World world;
        world.files["/proc/9/comm"] = world.files["/proc/9/cmdline"] = content;
        EXPECT_EQ(world.run("", [] { record(get_comm("/proc/9") + "|" + get_proc_name("9")); }),
                  "@0 " + name + "|" + name);
    }
    World world("9 a S");
    world.failing_call = 3, world.failing_errno = EIO;  // what was read before is no name
    EXPECT_EQ(world.run("", [] { record("comm" + get_comm("/proc/9")); }), "@0 comm");
}

TEST(Names, SplitDropsEmptyPieces) {
    using Pieces = std::vector<std::string>;
    EXPECT_EQ(string_split("  a  b ", " "), (Pieces{"a", "b"}));
    EXPECT_EQ(string_split("a/b:c", "/:"), (Pieces{"a", "b", "c"}));
    EXPECT_EQ(string_split("a b", ""), Pieces{"a b"});
    EXPECT_EQ(string_split("", " "), Pieces{});
}

TEST(ExecCommand, KeepsTheStartOfTheOutput) {
    World world("sh long=>" + std::string(3000, 'x') + "; sh short=>abc; fail popen broken=24");
    EXPECT_EQ(world.run("",
                        [] {
                            debug_gate = true;
                            for (const char* command : {"long", "short", "broken"}) {
                                char output[kCommandOutputSize + 1];
                                memset(output, '.', sizeof(output));
                                exec_command(command, output);
                                record(std::to_string(strlen(output)) +
                                       std::string(output, 4).c_str() + output[1024]);
                            }
                            char output[kCommandOutputSize];
                            exec_command(nullptr, output);
                            exec_command("long", nullptr);
                        }),
              "@0 popen r long, 1023xxxx., popen r short, 1023abc.., popen r broken, I [sh] broken "
              "failed, "
              "0.");
}
