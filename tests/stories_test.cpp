#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

#include "world.h"

namespace {

// What follows the mark of a line, and the indented lines after it.
std::string read_item(std::istream& lines, std::string item) {
    for (std::string more; lines.peek() == ' ' && std::getline(lines, more);) {
        item += more.substr(more.find_first_not_of(' ') - 1);
    }
    return item;
}

std::string unescape(const std::string& text) {
    std::string plain;
    for (size_t i = 0; i < text.size(); ++i) {
        const size_t escape = text[i] == '\\' ? std::string("nt0").find(text[i + 1]) : 3;
        plain += escape < 3 ? "\n\t\0"[escape] : text[i];
        if (escape < 3) ++i;
    }
    return plain;
}

}  // namespace

// The files hold "given" steps (unescaped: \n, \t, \0) for the stories after it, a regular
// expression of events to "watch", and stories: a line "- steps" ("nothing happens" for none) and a
// line "= events" ("nothing" for none). An indented line continues the one before it.
class Stories : public testing::TestWithParam<const char*> {};

TEST_P(Stories, EndAsTold) {
    std::ifstream lines(std::string(STORIES_DIR "/") + GetParam() + ".txt");
    int told = 0;
    std::string given, watch, steps;
    for (std::string line; std::getline(lines, line);) {
        const std::string item = read_item(lines, line);
        if (item.rfind("given", 0) == 0) given = unescape(item.substr(5));
        if (item.rfind("watch", 0) == 0) watch = item.substr(std::min<size_t>(item.size(), 6));
        if (item[0] == '-') steps = item == "- nothing happens" ? "" : unescape(item.substr(1));
        if (item[0] != '=') continue;
        const std::string events = World(given + ";" + steps).run(watch);
        EXPECT_EQ(events.empty() ? "= nothing" : "= " + events, item) << given << "\n" << steps;
        ++told;
    }
    EXPECT_GT(told, 0);
}

INSTANTIATE_TEST_SUITE_P(Daemon, Stories,
                         testing::Values("start", "walk", "process", "policy", "binder", "iowait",
                                         "shell"),
                         [](const auto& info) { return std::string(info.param); });
