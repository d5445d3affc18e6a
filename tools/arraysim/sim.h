// The simulated tools (tilloseccli, gelmot, fenlok, hadrix, pirnet, vxdisk)
// and the administration commands of arraysim, as calls on a loaded State.
// Not thread-safe: callers hold the state folder's lock.
#pragma once

#include <string>
#include <vector>

#include "tools/arraysim/state.h"

namespace arraysim {

// What one tool invocation produced.
struct ToolResult {
    std::string out;       // standard output and error, as one stream
    int status = 0;        // exit status
    int delay_ms = 0;      // answer late (the "slow" fault), outside the lock
    bool changed = false;  // the state must be written back
};

// Runs the tool `tool` (the program's base name) with `args` (argv[1..]).
// `dir` is the state folder, used for device paths in the output.
ToolResult run_tool(State& st, const std::string& dir, const std::string& tool,
                    const std::vector<std::string>& args);

// True when `tool` names one of the simulated tools.
bool is_tool_name(const std::string& tool);

// The tools that get a link in a bin folder.
const std::vector<std::string>& tool_names();

// One synchronisation step for every clone with work in progress; returns
// whether anything moved.
bool advance_clones(State& st, int steps);

// Options of `arraysim init`.
struct InitOptions {
    int frames = 1;
    int luns = 8;            // source LUNs per frame
    int clone_groups = 2;    // per frame
    int clones = 2;          // per clone group
    int cgs = 1;             // consistency groups per frame, two LUNs each
    int foreign = 1;         // devices of other vendors on the host
    bool multipath = false;  // each LUN as a pseudo device over two paths
    bool mount_host = true;
    std::string host;       // default: this machine's name
    std::string host_addr;  // default: its first non-loopback IPv4, or 127.0.0.1
    std::string mount_name = "mover1";
};

// Builds a consistent array from the options.
State make_state(const InitOptions& o);

// Fills what a scenario left out (identifiers, devices) so that it is consistent.
void complete_state(State& st);

// Human-readable listing.
std::string show_state(const State& st);

// Device files and the bin folder of a state folder, made to match the state.
bool sync_folder(const std::string& dir, const State& st, const std::string& self_exe,
                 std::string& err);

// The administration entry: argv of "arraysim ..." without the program name.
// Writes to out/err and returns the exit status.
int run_admin(const std::vector<std::string>& args, const std::string& self_exe, std::string& out,
              std::string& err);

}  // namespace arraysim
