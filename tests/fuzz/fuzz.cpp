// The fuzz targets, a program for each BEGINNING. What the daemon reads is that and the input:
// pieces NAME:TEXT with '~' between them, NAME the end of a path, as "1200/stat", or the start of a
// command, as "ps -T -p". The texts of a name take turns. Nothing reaches the system.

#include <android-base/file.h>
#include <errno.h>
#include <json/json.h>

#include <algorithm>
#include <map>
#include <sstream>

#include "core/config_file.h"
#include "core/log.h"
#include "modules/binder/binder_monitor.h"
#include "modules/config.h"
#include "modules/iowait/black_white_list.h"
#include "modules/process/process_monitor.h"
#include "proc/names.h"
#include "proc/sample.h"
#include "proc/task_files.h"

const char* tasks = R"(etc/tovrel.json:{"Config":{"switches":{"debug":true},"policy":"panic",
    "scan":{"timeout_second":2,"round":2},"default_open_hw_list":{},"monitor_process":{
        "enable":true,"list":[{"process":"app","thread":["watchdog"]},{"process":"daemon"}]},
    "monitor_binder":{"enable":true,"monitor_uids":[1000],"wchans":["binder_wait"],"uid_map":[{
        "name":"system","value":1000}]},"black_white_list":{"enable":true,"list":["daemon"]}}}~)";

std::map<std::string, std::vector<std::string>> texts;

std::string* next_text(const std::string& name) {
    std::vector<std::string>& turns = texts[name];
    if (turns.empty()) return nullptr;
    std::rotate(turns.begin(), turns.begin() + 1, turns.end());
    return &turns.back();
}

bool android::base::ReadFileToString(const std::string& path, std::string* content, bool) {
    const std::string* text = next_text(path.substr(path.rfind('/', path.rfind('/') - 1) + 1));
    if (text != nullptr) *content = *text;
    return text != nullptr;
}

void walk(Config& config) {
    for (Module* module : config.modules) module->need_traverse();
    config.pre_check();
    for (const std::string pid : {"1200", "1300"}) {  // share a thread id, as if it was used again
        const std::string path = "/proc/" + pid, thread = path + "/task/1201";
        const std::string name = program_base_name(get_proc_name(pid)), comm = get_comm(thread);
        const bool wanted = config.check_process(name, stoi(pid), path);
        if (wanted) config.check_thread(name, stoi(pid), comm, 1201, thread);
        config.post_check(name, path);
    }
}

// Leaves nothing of the input before.
void reset(Config& config) {
    delete std::exchange(config.binder_monitor, nullptr);
    delete std::exchange(config.black_white_list, nullptr);
    delete std::exchange(config.process_monitor, nullptr);
    config.modules.clear();
    config.hw_list.clear();
    config.process_list.clear();
    config.enable = config.debug = config.use_shell = false;
    config.process_enable = config.binder_enable = config.hw_enable = config.bw_enable = false;
    config.policy = kPolicyNothing;
    config.timeout = config.interval = config.interval_min = config.round = 0;
    texts.clear();
}

extern "C" int LLVMFuzzerTestOneInput(const char* data, size_t size) {
    __android_log_set_logger([](auto...) {});  // formatted, but not written
    debug_gate = true;
    reset(Config::get());
    std::istringstream pieces(BEGINNING + std::string(data, size));
    std::string name, text;
    while (getline(getline(pieces, name, ':'), text, '~')) texts[name].push_back(text);
    Config& config = Config::get();
    try {
        read_config_file(&config);
        config.use_shell |= LISTINGS;
        for (Module* module : config.modules) module->enable = true;  // also the I/O-wait list
        for (int scans = 4; scans > 0; --scans) {  // enough to report a task that stands still
            config.use_shell ? config.check_process_sh() : walk(config);
            config.scan_process(config.use_shell ? std::set<int>() : std::set<int>{1});
        }
    } catch (const Json::Exception&) {  // of Debian's library; the platform's ends the process
    }
    return 0;
}

// clang-format off
extern "C" {
int open(const char*, int, ...) { return errno = EACCES, -1; }
int kill(pid_t, int) noexcept { return 0; }
int usleep(useconds_t) { return 0; }
int pclose(FILE* stream) { return fclose(stream); }
FILE* popen(const char* command, const char*) {
    std::string* text = next_text(std::string(command).substr(0, 8));
    return text == nullptr ? nullptr : fmemopen(text->data(), text->size(), "r");
}
}
