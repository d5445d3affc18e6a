// merlsnap's commands and the options they share. Single-threaded.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tools/merlsnap/module.h"
#include "tools/merlsnap/report.h"

// Exit codes (documented in docs/merlsnap.md and --help).
enum ExitCode {
    EXIT_OK = 0,
    EXIT_MODULE_ERROR = 1,   // the module reported an error
    EXIT_USAGE = 2,          // bad command line
    EXIT_NO_MODULE = 3,      // the module could not be loaded
    EXIT_HANDLE_FILE = 4,    // a handle file could not be read or written, or is damaged
    EXIT_NOT_SUPPORTED = 5,  // `supported`: some device cannot be snapped
    EXIT_RUN_FAILED = 6,     // `mount --run`: the command failed (run-status says how)
    EXIT_INTERRUPTED = 130,  // Ctrl-C during a wait (what was left is said)
};

struct Options {
    std::string command;
    std::string module;
    std::vector<std::string> frames;
    std::string mount_host;
    std::vector<std::pair<std::string, std::string>> attrs;
    std::string tech = "COW";
    bool tech_given = false;
    std::string handle_file;
    int log_level = 3;
    bool log_level_given = false;
    std::string log_file;
    bool json = false;
    bool help = false;
    bool version = false;
    double poll_interval = 1.0;  // seconds between task status polls
    bool keep = false;           // demo: keep the simulated array's folder
    bool wwn = false;            // snapshot: the sources are WWNs
    std::string run;             // mount: the command to run while mounted
    std::string demo_stage;      // demo: the prepared array folder (second stage)
    std::vector<std::string> devices;
};

// Everything one command needs: options, the loaded module, the report.
struct Context {
    Options opt;
    LogSink sink;
    Module module{&sink};
    Report report{false};
};

attrlist* build_attrs(const Options& o);
// Joins the report to the log sink: held lines and the module's waits.
void wire_context(Context& c);
int run_command(Context& c);
int cmd_demo(Context& c);
int cmd_pool(Context& c);
const char* command_help(const std::string& command);
