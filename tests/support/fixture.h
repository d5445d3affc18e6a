// The tree's captured tool outputs and other files a test reads, and
// streams over text the way a parser gets a child's output.
// Not thread-safe per object; the functions are.
#pragma once

#include <stdio.h>

#include <string>

namespace zovtest {

// The top of the source tree and of the build tree (ctest names both; a
// binary started by hand falls back to where it was built).
std::string source_dir();
std::string build_dir();

// The whole of a file; empty when it cannot be read.
std::string read_text(const std::string& path);

// The text of tests/fixtures/<rel> (or <dir>/<name>); a missing one fails
// the running test.
std::string fixture(const std::string& rel);
std::string fixture(const std::string& dir, const std::string& name);

// A read stream over `text` (which may be empty or hold NUL bytes); the
// caller fcloses it.
FILE* stream_of(const std::string& text);

// stream_of that closes itself.
class Feed {
public:
    explicit Feed(const std::string& text) : m_fp(stream_of(text)) {}
    ~Feed() {
        if (m_fp != nullptr) fclose(m_fp);
    }
    Feed(const Feed&) = delete;
    Feed& operator=(const Feed&) = delete;
    FILE* get() const { return m_fp; }

private:
    FILE* m_fp;
};

}  // namespace zovtest
