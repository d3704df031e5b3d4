#pragma once

#include <json/json.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>

// What stands before and behind the first `at`; everything and nothing where there is none.
std::pair<std::string, std::string> cut(const std::string& text, const std::string& at);

constexpr char kConfigFile[] = "/vendor/etc/tovrel.json";

// A task of the device: its keys and their values, as a step tells them.
using Task = std::map<std::string, std::string>;

// A device as data, in which play() lets the unchanged daemon run. It is told in steps, which
// README.md explains, and begins as a phone at rest without a task.
struct Device {
    Device();

    // Takes the steps, separated by ";". A wrong one ends the play.
    void take(const std::string& steps);

    // Takes those that were put off until now.
    void take_due_steps();

    // Tasks are named by their ids, "10" or "10/11".
    void change_task(const std::string& ids, const Task& changes);
    void remove_task(const std::string& ids);

    // What `ps` and `grep` print of the tasks, or what a step put in the place of that.
    std::string output_of(const std::string& command) const;

    Json::Value config;                           // unless `files` has one
    std::map<std::string, std::string> files;     // content by path; directories are implied
    std::string properties;                       // of the system, lines NAME=VALUE
    std::map<std::string, std::string> outputs;   // of commands, where it is not the tasks'
    std::map<std::string, int> failures;          // errno of a call; negative: of the next one
    std::multimap<int64_t, std::string> put_off;  // steps, by the second
    std::map<std::string, int> settings = {{"until", 16}, {"turns", 1000}, {"late", 0},
                                           {"cost", 0},   {"untyped", 0},  {"sorted", 0}};
    std::string watched = "kill|kmsg";      // regular expression of the events told
    int64_t now_us = 0;                     // since the start
    int64_t calls = 0;                      // of the daemon's main thread that could have failed
    void (*signal_handler)(int) = nullptr;  // the daemon's
    std::string step_in_progress;           // none between two steps

  private:
    void write_files(const std::string& directory, const std::string& id, const Task& task);

    std::map<std::string, std::map<std::string, Task>> tasks;  // by process and thread id
};
