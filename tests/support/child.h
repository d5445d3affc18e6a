// Runs a program as a child without a shell and keeps what it printed, and
// starts a test binary again with the simulator's device layer preloaded.
// The functions are thread-safe; the environment helpers read environ.
#pragma once

#include <string>
#include <vector>

namespace zovtest {

struct ChildOptions {
    std::string path;              // the program; argv[0] when empty
    std::vector<std::string> env;  // "NAME=value" each; this process's when empty
};

struct ChildResult {
    int status = -1;  // exit code, 128 + signal, or -1 when it did not start
    std::string out;  // standard output and error, interleaved
};

ChildResult run_child(const std::vector<std::string>& argv, const ChildOptions& opts = {});

// This process's environment, one "NAME=value" an entry.
std::vector<std::string> current_env();
// Sets NAME in `env` (replacing it where present).
void set_var(std::vector<std::string>& env, const std::string& name, const std::string& value);

// The simulator's tool folder and its device layer.
std::string sim_bin_dir();
std::string sim_layer();

// `env` with the device layer ahead of any other preload. The layer is
// built without the sanitizer runtime, so the runtime is told not to refuse
// a library standing ahead of it.
std::vector<std::string> preload_env(std::vector<std::string> env = current_env());
// True when this process started with the layer preloaded.
bool preloaded();

// This binary again with `args` and the layer preloaded.
ChildResult run_self_preloaded(const std::vector<std::string>& args);
// Replaces this process with itself, the layer preloaded; returns only when
// the layer is missing or the exec failed.
void reexec_preloaded(char** argv);

}  // namespace zovtest
