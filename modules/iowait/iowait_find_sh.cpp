#include <cstdio>
#include <cstdlib>

#include "core/log.h"
#include "modules/iowait/black_white_list.h"
#include "proc/proc_readers.h"
#include "proc/string_split.h"

namespace {

// Columns of the platform's `ps -e`: user, pid, parent pid, virtual size, resident size, wait
// channel, address, state, name.
enum Column { kPid = 1, kName = 8, kColumns };

constexpr int kLineSize = 1024;

}  // namespace

void BlackWhiteList::check_process_sh() {
    if (list.empty()) {
        if (debug) LOG_ERROR("Empty bw list.");
        return;
    }
    FILE* listing = popen(listing_command().c_str(), "r");
    if (listing == nullptr) {
        if (debug) LOG_ERROR("BW open cmd failed");
        return;
    }
    char line[kLineSize] = {};
    while (fgets(line, sizeof(line), listing) != nullptr) check_listed_process(line);
    if (pclose(listing) == -1 && debug) LOG_ERROR("close fail.");
}

std::string BlackWhiteList::listing_command() const {
    if (list.size() == 1) {
        // The name under which the process was found, once there is one.
        return "ps -e|grep " + (tracked.empty() ? *list.begin() : tracked.begin()->second.name);
    }
    std::string names;
    for (const std::string& name : list) names += name + "|";
    names.pop_back();
    return "ps -e|grep -E \"" + names + "\"";
}

void BlackWhiteList::check_listed_process(const char* line) {
    std::vector<std::string> columns = string_split(line, " ");
    if (columns.size() < kColumns) {
        if (debug) LOG_INFO("[sh] find process fail.");
        return;
    }
    const int pid = atoi(columns[kPid].c_str());
    std::string& name = columns[kName];
    cut_at_separator(&name);
    if (debug) LOG_INFO("check_sh pid=%u, cmdline=%s", pid, name.c_str());
    check_process(name, pid, "");
}
