// The reading of one tool's command line, shared by the simulated tools:
// switches match without regard to case, a switch's value is the word after
// it, and a word the command does not know is refused. Not thread-safe.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tools/arraysim/sim.h"

namespace arraysim {

// The switches a command takes, each with the number of values after it.
using Switches = std::vector<std::pair<const char*, int>>;

class ToolArgs {
public:
    // Switches are looked for in `words` from `first` on; answers go to `r`.
    ToolArgs(const std::vector<std::string>& words, size_t first, ToolResult& result)
        : a(words), r(result), first_(first) {}

    // Position of a switch, or -1.
    int find(const char* sw) const;
    bool has(const char* sw) const { return find(sw) >= 0; }
    // The value after a switch; false when the switch or its value is missing.
    bool value(const char* sw, std::string& v) const;
    void print(const std::string& s) { r.out += s; }
    // Prints the refusal (ending it with a line feed) and sets exit status 1.
    void fail(const std::string& s);
    // Every word from `from` on must be one of `allowed` with its values.
    bool check(size_t from, const Switches& allowed);

    const std::vector<std::string>& a;
    ToolResult& r;

private:
    size_t first_;
};

}  // namespace arraysim
