// Test aids for the array gateway on top of the shared ones: stand-in tools
// in a scratch folder and a count of open descriptors.
// Not thread-safe; each test owns its own instances.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <fstream>
#include <string>

#include "tests/support/fixture.h"
#include "tests/support/log_capture.h"
#include "tests/support/scoped_env.h"
#include "tests/support/temp_dir.h"

using zovtest::build_dir;
using zovtest::fixture;
using zovtest::LogCapture;
using zovtest::LoggedLine;
using zovtest::ScopedEnv;
using zovtest::stream_of;
using zovtest::TempDir;

// An executable file `name` in `dir` (a copy of /bin/true), for a tool that
// must be found but whose output does not matter.
inline std::string add_exe(const TempDir& dir, const std::string& name) {
    std::string p = dir.file(name);
    std::ifstream src("/bin/true", std::ios::binary);
    std::ofstream dst(p, std::ios::binary);
    dst << src.rdbuf();
    dst.close();
    chmod(p.c_str(), 0755);
    return p;
}

// Number of descriptors this process has open.
inline int open_fd_count() {
    int n = 0;
    for (int fd = 0; fd < 4096; fd++)
        if (fcntl(fd, F_GETFD) != -1) n++;
    return n;
}
