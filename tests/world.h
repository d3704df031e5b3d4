#pragma once

#include <json/json.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>

// The world around the daemon. The test program's own definitions of the system calls (world.cpp)
// play it to the daemon's unchanged objects: files are data, time is virtual, and what would touch
// the device is recorded. Every run is a forked child, so that it begins with a fresh process.
//
// A story is a list of steps, separated by ';'. "@N" before a step puts it off to the first turn of
// the scan loop that begins N seconds after the start or later. Steps:
//   PID[/TID] COMM STATE [KEY=VALUE...]  a task (its files under /proc) comes or changes; keys are
//                                        cmd, ppid, ticks, runs, uid, wchan, cgroup
//   FIRST..LAST COMM STATE               a range of processes
//   -PID[/TID]                           it goes
//   file PATH=TEXT, unlink PATH          one file; a path that ends in '/' is a directory
//   file untyped NAME=                   getdents64 does not tell the type of entries of this name
//   conf KEY=JSON                        a key of the configuration's "Config"
//   prop NAME=VALUE                      a system property
//   sh COMMAND=>OUTPUT                   what a shell command prints
//   fail CALL=ERRNO                      every "CALL", such as "open /dev/kmsg", fails; just the
//                                        next one when ERRNO is negative; "=0" ends that
//   signal NUMBER                        the handler that the daemon installed is called
//   late MS, cost MS                     what a sleep, and a look at a command line, takes too long
//   until SECONDS, turns N               when a run ends
// Events are listed as "@SECONDS event, event @SECONDS event": log lines as "D|I|E text", files
// written as "kmsg text" (the name of the file, a NUL shown as '.'), other calls by their name, and
// at the top of every turn "calls N", the calls that could have failed in the turn before.
class World {
  public:
    explicit World(const std::string& story = "");
    void apply(const std::string& story);

    // Runs the daemon's main, or `body`. Returns the events that begin like the regular expression
    // `watch`.
    std::string run(const std::string& watch, const std::function<void()>& body = nullptr);

    Json::Value config;
    std::map<std::string, std::string> files, properties, commands;
    std::map<std::string, int> failures;
    std::multimap<int64_t, std::string> pending;  // steps, by their time in ms
    std::function<void()> on_turn;                // at the top of every turn of the loop
    std::function<void(const std::string& event)> on_event;
    int64_t now_ms = 1000000, late_ms = 0, cost_ms = 0, until_ms = 16000, turns = 1000;
    // Calls that can fail, counted from 1; number `failing_call` fails with `failing_errno`.
    int64_t calls = 0, failing_call = 0;
    int failing_errno = 0;
    bool recording = true;  // false keeps no events, for long runs
};

// Inside a run: adds an event; how many files the daemon has open.
void record(const std::string& event);
size_t open_file_count();

// Ends a run, and its test with it, unless `holds`.
void must(bool holds);
