#include <cutils/properties.h>
#include <gtest/gtest.h>

#include "world.h"

TEST(Properties, HaveThePlatformsForms) {
    const std::pair<const char*, int> words[] = {
            {"1", 1}, {"true", 1}, {"y", 1},   {"yes", 1},  {"on", 1},    {"0", 0}, {"false", 0},
            {"n", 0}, {"no", 0},   {"off", 0}, {" on", -1}, {"TRUE", -1}, {"", -1}, {"2", -1}};
    for (const auto& [word, value] : words) {
        World world;
        world.properties = {{"a", word}, {"#a", "1"}, {"ab", "1"}};
        EXPECT_EQ(world.run("", [] { record(std::to_string(property_get_bool("a", -1))); }),
                  "@0 " + std::to_string(value))
                << word;
    }
    World world(
            "prop max=" + std::string(91, 'm') + "; prop long=" + std::string(92, 'l') +
            "; prop blanks= 0x10 ; prop octal=012s; prop word=x; prop big=" + std::string(20, '9'));
    EXPECT_EQ(world.run("",
                        [] {
                            char value[PROPERTY_VALUE_MAX] = "unchanged";
                            for (const char* name : {"max", "long", "unset", "# comment"}) {
                                const int length = property_get(name, value, "default");
                                record(std::to_string(length) + value[0]);
                            }
                            const int length = property_get("unset", value, nullptr);
                            record(std::to_string(length) + value);
                            record(std::to_string(
                                    property_get("unset", value, std::string(99, 'd').c_str())));
                            for (const char* name : {"big", "blanks", "octal", "word", "unset"}) {
                                record(std::to_string(property_get_int64(name, 7)));
                            }
                            record(std::to_string(property_get_bool(nullptr, 1)));
                            unsetenv("TOVREL_PROPERTIES");
                            record(std::to_string(property_get_int64("octal", 7)));
                        }),
              "@0 91m, 7d, 7d, 7d, 0, 91, 7, 16, 10, 7, 7, 1, 7");
}
