#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "world.h"

namespace {

struct Story {
    std::string file;
    int line;
    std::string steps, events;
};

// A heading of a file in stories/ and what is told under it.
class Heading : public testing::Test {
  public:
    explicit Heading(const std::vector<Story>& stories) : stories(stories) {}

    void TestBody() override {
        for (const auto& [file, line, steps, told] : stories) {
            const std::string happened = World(steps).run();
            if (happened == told) continue;
            const size_t first_difference =
                    std::mismatch(told.begin(), told.end(), happened.begin(), happened.end())
                            .first -
                    told.begin();
            const size_t turn = std::min(told.rfind('@', first_difference), first_difference);
            ADD_FAILURE_AT(file.c_str(), line)
                    << "told:     " << told.substr(turn) << "\nhappened: " << happened.substr(turn);
        }
    }

  private:
    const std::vector<Story> stories;
};

std::string unescape(const std::string& text) {
    constexpr std::pair<const char*, char> kEscapes[] = {
            {"\\n", '\n'}, {"\\r", '\r'}, {"\\t", '\t'}, {"\\0", '\0'}};
    std::string plain = text;
    for (const auto& [escape, character] : kEscapes) {
        for (size_t at; (at = plain.find(escape)) < plain.size();)
            plain.replace(at, 2, 1, character);
    }
    return plain;
}

void register_heading(std::string name, const std::vector<Story>& stories) {
    if (stories.empty()) return;
    std::replace_if(
            name.begin(), name.end(), [](char c) { return !isalnum(c); }, '_');
    const auto& [file, line, steps, events] = stories[0];
    testing::RegisterTest(std::filesystem::path(file).stem().c_str(), name.c_str(), nullptr,
                          nullptr, file.c_str(), line,
                          [stories]() -> testing::Test* { return new Heading(stories); });
}

void register_file(const std::string& file) {
    std::ifstream lines(file);
    std::string heading, given;
    std::vector<Story> stories;
    int number = 0;
    for (std::string item, more; std::getline(lines, item);) {
        const int line = ++number;
        for (; lines.peek() == ' ' && std::getline(lines, more); ++number) {
            item += more.substr(more.find_first_not_of(' ') - 1);
        }
        const auto [mark, text] = cut(item, " ");
        if (mark == "#") {
            register_heading(heading, std::exchange(stories, {}));
            heading = text;
            given = "";
        } else if (mark == "given") {
            given = unescape(text + ";");
        } else if (mark == "-") {
            const auto [steps, events] = cut(item.substr(1), " => ");
            stories.push_back({file, line, given + unescape(steps), events});
        } else {
            must(item.empty());
        }
    }
    register_heading(heading, stories);
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    for (const auto& file : std::filesystem::directory_iterator(STORIES_DIR)) {
        if (file.path().extension() == ".txt") register_file(file.path());
    }
    return RUN_ALL_TESTS();
}
