#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "world.h"

namespace {

struct Story {
    int line;
    std::string steps, events;
};

// A heading of a file in stories/ and what is told under it.
class Heading : public testing::Test {
  public:
    Heading(std::string file, std::vector<Story> stories)
            : file(std::move(file)), stories(std::move(stories)) {}

    void TestBody() override {
        for (const Story& story : stories) {
            const std::string events = World(story.steps).run();
            if (events == story.events) continue;
            const auto& told = story.events;
            const size_t same =
                    std::mismatch(told.begin(), told.end(), events.begin(), events.end()).first -
                    told.begin();
            const size_t time = told.rfind('@', same), comma = told.rfind(", ", same);
            const size_t event = time > same ? 0 : comma > same ? time : std::max(time, comma);
            ADD_FAILURE_AT(file.c_str(), story.line)
                    << "told:     " << told.substr(event) << "\nhappened: " << events.substr(event);
        }
    }

  private:
    const std::string file;
    const std::vector<Story> stories;
};

std::string unescape(const std::string& text) {
    std::string plain;
    for (size_t i = 0; i < text.size(); ++i) {
        const size_t escape = text[i] == '\\' ? std::string("nrt0").find(text[i + 1]) : 4;
        plain += escape < 4 ? "\n\r\t\0"[escape] : text[i];
        if (escape < 4) ++i;
    }
    return plain;
}

void register_heading(const std::string& suite, std::string heading, const std::string& file,
                      const std::vector<Story>& stories) {
    if (stories.empty()) return;
    std::replace_if(
            heading.begin(), heading.end(), [](char c) { return !isalnum(c); }, '_');
    testing::RegisterTest(suite.c_str(), heading.c_str(), nullptr, nullptr, file.c_str(),
                          stories[0].line,
                          [=]() -> testing::Test* { return new Heading(file, stories); });
}

void register_file(const std::filesystem::path& path) {
    std::ifstream lines(path);
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
            register_heading(path.stem(), heading, path, std::exchange(stories, {}));
            heading = text;
            given.clear();
        } else if (mark == "given") {
            given = unescape(text);
        } else if (mark == "-") {
            const auto [steps, events] = cut(item.substr(1), " => ");
            stories.push_back({line, given + ";" + unescape(steps), events});
        } else {
            must(item.empty());
        }
    }
    register_heading(path.stem(), heading, path, stories);
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    for (const auto& file : std::filesystem::directory_iterator(STORIES_DIR)) {
        if (file.path().extension() == ".txt") register_file(file.path());
    }
    return RUN_ALL_TESTS();
}
