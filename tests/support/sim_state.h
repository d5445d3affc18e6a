// The simulator's state file read back as records, for tests that derive
// what to ask of an array from the array itself. Thread-safe.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace zovtest {

struct SimRecord {
    std::string kind;                          // "frame", "lun", "dev", ...
    std::map<std::string, std::string> field;  // values left escaped
    std::string get(const std::string& key) const {
        auto it = field.find(key);
        return it != field.end() ? it->second : std::string();
    }
};

// Every record of <state_dir>/state in file order; a "dev" record belongs to
// the "lun" record above it.
std::vector<SimRecord> sim_records(const std::string& state_dir);

}  // namespace zovtest
