// Entry points shared between the files of the simulated tools.
// Not thread-safe: callers hold the state folder's lock.
#pragma once

#include <string>
#include <vector>

#include "tools/arraysim/sim.h"

namespace arraysim {

void run_tillo(State& st, const std::string& dir, const std::vector<std::string>& args,
               ToolResult& r);
void run_quillset(State& st, const std::string& dir, int frame, const std::string& addr,
                  const std::vector<std::string>& a, ToolResult& r);
void run_snap(State& st, const std::string& dir, int frame, const std::string& addr,
              const std::vector<std::string>& a, ToolResult& r);
void run_host_tool(State& st, const std::string& dir, const std::string& tool,
                   const std::vector<std::string>& args, ToolResult& r);

// Device names of a LUN on a host, made or removed with their files.
void make_host_devs(State& st, const std::string& dir, Lun& l, int host);
void drop_host_devs(State& st, const std::string& dir, Lun& l, int host);
// Creates an empty device file in the state folder (no error when it exists).
void touch_dev(const std::string& dir, const std::string& name);
std::string dev_path(const std::string& dir, const std::string& name);

// The volume map of `host` on `frame`, as "server -volmap" prints it.
void print_volmap(const State& st, const std::string& dir, int frame, int host, std::string& o);

// An activated snapshot's device as the host names it: the raw device under
// a folder of ten characters, its slice last (the "raw" form, the default),
// or the device file in the state folder (the "path" form).
constexpr const char* kRawSnapshotDir = "/dev/zsnp/";
constexpr const char* kSnapshotSlice = "0";
std::string snapshot_device_text(const State& st, const std::string& dir,
                                 const std::string& snapdev);
// The snapshot device's id in the volume map: its name and slice.
std::string snapshot_device_id(const std::string& snapdev);

// Starts, steps and ends clone work.
void clone_step(Clone& c, int steps);

}  // namespace arraysim
