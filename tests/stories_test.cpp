#include <android-base/strings.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "sim/play.h"

namespace {

using android::base::StringReplace;

struct Story {
    int line;
    std::string steps, events;
};

struct Heading {
    std::string file, name;
    std::vector<Story> stories;
};

void PrintTo(const Heading& heading, std::ostream* out) {
    *out << heading.name;
}

std::string unescape(std::string text) {
    text = StringReplace(text, "\\n", "\n", true);
    text = StringReplace(text, "\\r", "\r", true);
    text = StringReplace(text, "\\t", "\t", true);
    return StringReplace(text, "\\0", std::string(1, '\0'), true);
}

void read_headings(const std::filesystem::path& file, std::vector<Heading>* headings) {
    std::ifstream lines(file);
    std::string given;
    int number = 0;
    for (std::string item, more; std::getline(lines, item);) {
        const int line = ++number;
        for (; lines.peek() == ' ' && std::getline(lines, more); ++number) {
            item += more.substr(more.find_first_not_of(' ') - 1);
        }
        const auto [mark, text] = cut(item, " ");
        const auto [steps, events] = cut(" " + text, " => ");
        if (mark == "#") {
            headings->push_back({file, file.stem().string() + " " + text, {}});
            given = "";
        } else if (mark == "given") {
            given = unescape(text + ";");
        } else if (mark == "-") {
            for (std::string rest = steps; !rest.empty(); rest = cut(rest, " | ").second) {
                const std::string steps = given + unescape(cut(rest, " | ").first);
                headings->back().stories.push_back({line, steps, events});
            }
        } else if (!item.empty()) {
            fprintf(stderr, "%s:%d: no story: %s\n", file.c_str(), line, item.c_str()), abort();
        }
    }
}

std::vector<Heading> all_headings() {
    std::vector<Heading> headings;
    for (const auto& file : std::filesystem::directory_iterator(STORIES_DIR)) {
        if (file.path().extension() == ".txt") read_headings(file, &headings);
    }
    return headings;
}

}  // namespace

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

class Stories : public testing::TestWithParam<Heading> {};

TEST_P(Stories, EndAsTold) {
    for (const auto& [line, steps, told] : GetParam().stories) {
        const std::string events = told_as_story(play(steps));
        const auto same = std::mismatch(told.begin(), told.end(), events.begin(), events.end());
        const size_t difference = same.first - told.begin();
        if (events == told) continue;
        const size_t turn = std::min(told.rfind('@', difference), difference);
        ADD_FAILURE_AT(GetParam().file.c_str(), line)
                << "told:     " << told.substr(turn) << "\nhappened: " << events.substr(turn)
                << "\nsteps:    " << steps;
    }
}

INSTANTIATE_TEST_SUITE_P(Daemon, Stories, testing::ValuesIn(all_headings()), [](const auto& info) {
    std::string name = info.param.name;
    std::replace_if(
            name.begin(), name.end(), [](char c) { return !isalnum(c); }, '_');
    return name;
});
