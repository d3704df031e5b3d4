#pragma once

#include <json/json.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>

// What stands before and behind the first `at`; everything and nothing where there is none.
std::pair<std::string, std::string> cut(const std::string& text, const std::string& at);

// A task of the device: its keys and their values, as a step tells them.
using Task = std::map<std::string, std::string>;

// A device as data, in which play() lets the unchanged daemon run: its files, its tasks, its time.
// It is told in steps, which README.md explains.
class Device {
  public:
    // A phone at rest, without a task, and a configuration that watches nothing.
    Device();

    // Takes the steps, separated by ";". A wrong one ends the play.
    void take(const std::string& steps);

    // Takes those that were put off until now.
    void take_due_steps();

    // What `ps` and `grep` print of the tasks, or what a step put in the place of that.
    std::string output_of(const std::string& command) const;

    Json::Value config;                             // unless `files` has one
    std::map<std::string, std::string> files;       // content by path; directories are implied
    std::map<std::string, std::string> properties;  // of the system
    std::string property_lines;                     // more of them, before those
    std::map<std::string, std::string> outputs;     // of commands, where it is not the tasks'
    std::map<std::string, int> failures;            // errno of a call; negative: of the next one
    std::multimap<int64_t, std::string> put_off;    // steps, by the ms since the start
    std::map<std::string, int> settings = {{"until", 16}, {"turns", 1000}, {"late", 0},
                                           {"cost", 0},   {"untyped", 0},  {"sorted", 0}};
    std::string watched = "kill|kmsg";              // regular expression of the events told
    int64_t start_ms = 1000000, now_ms = start_ms;  // of the monotonic clock
    int64_t slept_us = 0;                           // what is no whole ms yet
    void (*signal_handler)(int) = nullptr;          // the daemon's

    std::string step_in_progress;  // none between two steps

    // For what no step can tell.
    std::function<void(const std::string&)> on_event;  // also of those that are not watched
    int64_t calls = 0;         // of the daemon's main thread that could have failed
    int64_t failing_call = 0;  // the one that fails, counted from 1
    int failing_errno = EIO;

  private:
    void take_step(const std::string& step);
    void take_task_step(const std::string& ids, const std::string& words);
    void take_other_step(const std::string& verb, const std::string& words);
    Json::Value* find_setting(const std::string& key);
    void take_failure(const std::string& words);

    // Tasks are named by their ids, "10" or "10/11".
    void change_task(const std::string& ids, const Task& changes);
    void write_task_files(const std::string& directory, const Task& task);
    void change_file(const std::string& ids, const std::string& name, const std::string& content);
    void remove_task(const std::string& ids);

    std::map<std::string, std::map<std::string, Task>> tasks;  // by process and thread id
};
