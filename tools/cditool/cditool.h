// cditool: runs one device-interface command and reports it. Not thread-safe
// (a command-line program's single thread).
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace cditool {

// How the device is reached: a local device, or one on an NDMP server
// (--ndmp; path type 5, or 4 for a tape with --tape).
struct Transport {
    std::string ndmp_server;  // empty: local device
    std::string ndmp_user;
    std::string
        ndmp_password_file;  // the password is read from it, never taken on the command line
    int path_type = 1;       // 1 SCSI generic, 2 tape driver
    int options = 0;         // 1: read-write
};

struct Options {
    Transport transport;
    bool json = false;
    std::string device;
    std::string command;
    std::vector<std::string> args;
};

// Parses argv; false with a message in err (usage errors).
bool parse_args(const std::vector<std::string>& argv, Options& o, std::string& err);
// Runs the command, writes the report to out. Returns the exit code: 0 the
// command succeeded, 1 it failed on the device, 2 a usage or open error.
int run(const Options& o, FILE* out, FILE* err);
extern const char* kUsage;

}  // namespace cditool
