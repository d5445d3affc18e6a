// cditool's entry point: arguments, then one command.
#include <cstdio>

#include "tools/cditool/cditool.h"

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    cditool::Options o;
    std::string err;
    if (!cditool::parse_args(args, o, err)) {
        if (!err.empty()) fprintf(stderr, "cditool: %s\n", err.c_str());
        fputs(cditool::kUsage, err.empty() ? stdout : stderr);
        return err.empty() ? 0 : 2;
    }
    return cditool::run(o, stdout, stderr);
}
