#pragma once

#include <json/json.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

// The world around the daemon. The test program's own definitions of the system calls (world.cpp)
// play it to the daemon's unchanged objects: files are data, time is virtual, and what would touch
// the device is recorded. It is told in steps and answers with events: see stories/README.md.
class World {
  public:
    explicit World(const std::string& steps = "");
    void take(const std::string& steps);

    // Runs the daemon's main, or `body`, in a forked child, so that it begins with a fresh process.
    // Returns the watched events, "nothing" when there are none.
    std::string run(const std::function<void()>& body = nullptr);

    // What `ps` and `grep` print, or what the steps put in the place of that.
    std::string output_of(const std::string& command) const;

    using Task = std::map<std::string, std::string>;  // by the keys of a step, and "comm", "state"

    Json::Value config;
    std::map<std::string, std::map<std::string, Task>> tasks;  // by process and thread id
    std::map<std::string, std::string> files, properties, outputs;
    std::map<std::string, int> failures;          // errno, negative for the next call alone
    std::multimap<int64_t, std::string> pending;  // steps, by their time in ms
    std::map<std::string, int64_t> numbers = {{"late", 0},   {"cost", 0},   {"untyped", 0},
                                              {"sorted", 0}, {"until", 16}, {"turns", 1000}};
    std::string watched = "kill|kmsg";
    int64_t now_ms = 1000000;
    void (*signal_handler)(int) = nullptr;  // the daemon's

    // For what no story can tell. Calls that can fail are counted from 1; `failing_call` fails.
    std::function<void()> on_turn;  // at the top of every turn of the loop
    std::function<void(const std::string& event)> on_event;
    int64_t calls = 0, failing_call = 0;
    int failing_errno = EIO;

  private:
    void take_step(const std::string& verb, const std::string& rest);
    void put_task(const std::string& ids, const std::string& description);
};

// Inside a run: adds an event of these words.
void add_event(const std::string& event);
template <typename... Words>
void record(const Words&... words) {
    std::ostringstream event;
    const char* gap = "";
    ((event << std::exchange(gap, " ") << words), ...);
    add_event(event.str());
}

// Ends a run, and its test with it, unless `holds`.
void must(bool holds);

// What stands before and after the first `at`; the pieces between all of them.
std::pair<std::string, std::string> cut(const std::string& text, const std::string& at);
std::vector<std::string> split(const std::string& text, const std::string& at);
