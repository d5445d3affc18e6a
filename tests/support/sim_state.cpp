// Only the simulator's own layout is read: one record a line, key=value words.
#include "tests/support/sim_state.h"

#include <fstream>
#include <sstream>

namespace zovtest {

std::vector<SimRecord> sim_records(const std::string& state_dir) {
    std::vector<SimRecord> out;
    std::ifstream in(state_dir + "/state");
    for (std::string l; std::getline(in, l);) {
        std::istringstream words(l);
        SimRecord r;
        if (!(words >> r.kind) || r.kind[0] == '#') continue;
        for (std::string w; words >> w;) {
            size_t eq = w.find('=');
            if (eq != std::string::npos) r.field[w.substr(0, eq)] = w.substr(eq + 1);
        }
        out.push_back(r);
    }
    return out;
}

}  // namespace zovtest
