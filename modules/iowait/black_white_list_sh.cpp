#include <cstdlib>
#include <string>
#include <vector>

#include "core/log.h"
#include "modules/iowait/black_white_list.h"
#include "proc/names.h"
#include "proc/ps_columns.h"
#include "proc/shell_command.h"
#include "proc/string_split.h"

void BlackWhiteList::check_process_sh() {
    if (list.empty()) {
        if (debug) LOG_ERROR("Empty bw list.");
        return;
    }
    const auto take_line = [this](const char* line) { check_listed_process(line); };
    if (!read_lines(listing_command(), debug, take_line) && debug) LOG_ERROR("BW open cmd failed");
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
    using namespace ps_processes;
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
