// Fixture text comes through a pipe when it fits, so a parser sees a stream
// it cannot seek, as with a child; larger text goes through a file.
#include "tests/support/fixture.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace zovtest {

std::string source_dir() {
    const char* s = getenv("ZOV_SOURCE_DIR");
    return s != nullptr ? s : ZOV_TEST_SOURCE_DIR;
}

std::string build_dir() {
    const char* s = getenv("ZOV_BUILD_DIR");
    return s != nullptr ? s : ZOV_TEST_BUILD_DIR;
}

std::string read_text(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string fixture(const std::string& rel) {
    std::string path = source_dir() + "/tests/fixtures/" + rel;
    if (access(path.c_str(), R_OK) != 0) ADD_FAILURE() << "missing fixture " << rel;
    return read_text(path);
}

std::string fixture(const std::string& dir, const std::string& name) {
    return fixture(dir + "/" + name);
}

FILE* stream_of(const std::string& text) {
    int fds[2];
    // Below the pipe's capacity the write cannot block.
    if (text.size() < 60000 && pipe(fds) == 0) {
        if (!text.empty() && write(fds[1], text.data(), text.size()) != (ssize_t)text.size()) {
            close(fds[0]);
            close(fds[1]);
            return nullptr;
        }
        close(fds[1]);
        return fdopen(fds[0], "r");
    }
    FILE* f = tmpfile();
    if (f == nullptr) return nullptr;
    fwrite(text.data(), 1, text.size(), f);
    rewind(f);
    return f;
}

}  // namespace zovtest
