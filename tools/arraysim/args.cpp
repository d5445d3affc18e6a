// The simulated tools' command line reader.
#include "tools/arraysim/args.h"

#include "tools/arraysim/text.h"

namespace arraysim {

int ToolArgs::find(const char* sw) const {
    for (size_t i = first_; i < a.size(); ++i)
        if (iequals(a[i], sw)) return static_cast<int>(i);
    return -1;
}

bool ToolArgs::value(const char* sw, std::string& v) const {
    int i = find(sw);
    if (i < 0 || i + 1 >= static_cast<int>(a.size())) return false;
    v = a[i + 1];
    return true;
}

void ToolArgs::fail(const std::string& s) {
    r.out += s;
    if (!s.empty() && s.back() != '\n') r.out += '\n';
    r.status = 1;
}

bool ToolArgs::check(size_t from, const Switches& allowed) {
    for (size_t i = from; i < a.size(); ++i) {
        bool ok = false;
        for (const auto& al : allowed) {
            if (!iequals(a[i], al.first)) continue;
            if (i + al.second >= a.size()) {
                fail("Error: switch " + a[i] + " requires a value.");
                return false;
            }
            i += al.second;
            ok = true;
            break;
        }
        if (!ok) {
            fail("Error: unrecognized switch or argument: " + a[i] +
                 "\nRun \"tilloseccli -help\" for the usage.");
            return false;
        }
    }
    return true;
}

}  // namespace arraysim
