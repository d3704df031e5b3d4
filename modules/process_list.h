#pragma once

#include <set>
#include <string>
#include <unordered_map>

// Process names, each with the names of its threads to watch; no thread: the process as a whole.
using ProcessList = std::unordered_map<std::string, std::set<std::string>>;
