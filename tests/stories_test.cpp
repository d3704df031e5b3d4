// Plays the stories of tests/stories and compares what happens with what is told.

#include <android-base/strings.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "sim/play.h"

namespace {

using android::base::StringReplace;
using android::base::Trim;

struct Variant {
    int line;
    std::string reason, steps, events;
};

// What stands under one heading.
struct Story {
    std::string file, name;
    std::vector<Variant> variants;
};

void PrintTo(const Story& story, std::ostream* out) {
    *out << story.name;
}

std::string unescape(std::string text) {
    text = StringReplace(text, "\\n", "\n", true);
    text = StringReplace(text, "\\r", "\r", true);
    text = StringReplace(text, "\\t", "\t", true);
    return StringReplace(text, "\\0", std::string(1, '\0'), true);
}

// A line and the indented ones below it, without remarks.
std::string read_item(std::ifstream* lines, int* line_number) {
    std::string item, line;
    std::getline(*lines, item);
    ++*line_number;
    item = cut(item, "  -- ").first;
    while (lines->peek() == ' ' && std::getline(*lines, line)) {
        ++*line_number;
        item += " " + Trim(cut(line, "  -- ").first);
    }
    return item;
}

void read_stories(const std::filesystem::path& file, std::vector<Story>* stories) {
    std::ifstream lines(file);
    std::string given, events;
    for (int next_line = 0; lines.peek() != EOF;) {
        const int line = next_line + 1;
        const auto [mark, text] = cut(read_item(&lines, &next_line), " ");
        if (mark == "#") {
            stories->push_back({file, file.stem().string() + " " + text, {}});
            given.clear();
        } else if (mark == "given") {
            given = text;
        } else if (mark == "=>") {
            events = text;
            if (lines.peek() != '-') stories->back().variants.push_back({line, "", given, events});
        } else if (mark == "-") {
            const auto [reason, steps] = cut(text, ": ");
            stories->back().variants.push_back({line, reason, given + ";" + steps, events});
        } else if (!mark.empty()) {
            stories->back().variants.push_back({line, "this line is none of a story", "", mark});
        }
    }
}

std::vector<Story> all_stories() {
    std::vector<Story> stories;
    for (const auto& file : std::filesystem::directory_iterator(STORIES_DIR)) {
        if (file.path().extension() == ".txt") read_stories(file, &stories);
    }
    return stories;
}

// Joins events of one time: "@5 kill 10 3, kill 10 35 @12 reboot tovrel".
std::string told_as_story(const Outcome& outcome) {
    std::istringstream lines(outcome.events);
    std::string text, time_before, time;
    for (std::string event; lines >> time && std::getline(lines, event); time_before = time) {
        text += time == time_before ? "," + event : " @" + time + event;
    }
    if (!outcome.failure.empty()) text += " " + outcome.failure;
    return text.empty() ? "nothing" : text.substr(1);
}

bool contains(const std::set<std::string>& whole, const std::set<std::string>& part) {
    return std::includes(whole.begin(), whole.end(), part.begin(), part.end());
}

struct Consequences {
    int64_t calls_of_start = 0, calls = 0;  // that could have failed
    std::set<std::string> accused;          // ids of processes that were dumped, killed or reported
    std::string leaked;
};

Consequences consequences_of(const Outcome& outcome) {
    Consequences found;
    std::istringstream lines(outcome.events);
    std::string time, what, text;
    while (lines >> time >> what && std::getline(lines, text)) {
        if (what == "calls") found.calls = std::stoll(text);
        if (found.calls_of_start == 0) found.calls_of_start = found.calls;
        if (what == "leaked") found.leaked += text;
        if (what == "kill") found.accused.insert(cut(text.substr(1), " ").first);
        if (what == "kmsg") found.accused.insert(cut(cut(text, " pid:").second, " ").first);
    }
    return found;
}

}  // namespace

class Stories : public testing::TestWithParam<Story> {};

TEST_P(Stories, EndAsTold) {
    for (const auto& [line, reason, steps, told] : GetParam().variants) {
        const std::string happened = told_as_story(play(unescape(steps)));
        if (happened == told) continue;
        const auto same = std::mismatch(told.begin(), told.end(), happened.begin(), happened.end());
        const size_t difference = same.first - told.begin();
        const size_t turn = std::min(told.rfind('@', difference), difference);
        ADD_FAILURE_AT(GetParam().file.c_str(), line)
                << GetParam().name << ": " << reason << "\ntold:     " << told.substr(turn)
                << "\nhappened: " << happened.substr(turn) << "\nsteps:    " << steps;
    }
}

// A call that fails must not end the daemon nor leave anything open. In a scan it may put a stage
// off, but it must not bring a task into discredit beside the ones that are stuck. A few calls of
// each story fail, one in each play; with the environment variable, all of them.
TEST_P(Stories, SurviveACallThatFails) {
    for (const auto& [line, reason, told_steps, told] : GetParam().variants) {
        const std::string steps = unescape(told_steps) + "; watch kill|kmsg|calls";
        const Consequences as_told = consequences_of(play(steps));
        const int64_t stride = getenv("TOVREL_FAIL_ALL_CALLS") ? 1 : as_told.calls / 3 + 1;
        for (int64_t call = 1 + line % stride; call <= as_told.calls; call += stride) {
            const char* error = call % 2 == 0 ? " EINTR" : " EIO";
            const Outcome outcome = play(steps + "; fail " + std::to_string(call) + error);
            const Consequences now = consequences_of(outcome);
            const bool may_accuse = call <= as_told.calls_of_start || as_told.accused.empty();
            EXPECT_TRUE(outcome.failure.empty() && now.leaked.empty() &&
                        (may_accuse || contains(as_told.accused, now.accused)))
                    << GetParam().file << ":" << line << ": " << reason << "\ncall " << call
                    << " fails: " << outcome.failure << "\n"
                    << outcome.events << "steps: " << told_steps;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Daemon, Stories, testing::ValuesIn(all_stories()), [](const auto& info) {
    std::string name = info.param.name;
    std::replace_if(
            name.begin(), name.end(), [](char c) { return !isalnum(c); }, '_');
    return name;
});
