// Test helpers for the parsers of the volume map, storage groups, capability
// and sessions: captured fixture text fed through fmemopen, a zov_quillset
// with its expression table compiled, and a log that keeps every line.
// Not thread-safe; one per test.
#pragma once

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "storage/ssm/merlode/cli/zov_quillset.h"

namespace sgtest {

struct LogLine {
    int level;
    std::string text;
};

// The log callback's context: every line the object wrote.
struct LogSink {
    std::vector<LogLine> lines;

    static void fn(int level, const char*, int, const char* msg, void* ctx) {
        static_cast<LogSink*>(ctx)->lines.push_back({level, msg ? msg : ""});
    }
    // Number of lines holding `needle`, at `level` unless it is -99.
    int count(const std::string& needle, int level = -99) const {
        int n = 0;
        for (const LogLine& l : lines)
            if ((level == -99 || l.level == level) && l.text.find(needle) != std::string::npos) n++;
        return n;
    }
};

// Text of tests/fixtures/<cmd>/<name>.
inline std::string fixture(const std::string& cmd, const std::string& name) {
    std::string root;
    if (const char* s = getenv("ZOV_SOURCE_DIR")) {
        root = s;
    } else {
        std::string here = __FILE__;  // .../tests/unit/merlode/sg_parse_fixture.h
        root = here.substr(0, here.rfind("/tests/unit/"));
    }
    std::ifstream in(root + "/tests/fixtures/" + cmd + "/" + name);
    EXPECT_TRUE(in.good()) << "missing fixture " << cmd << "/" << name;
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// A stream over `text`, the way a parser gets a child's output.
class Feed {
public:
    explicit Feed(const std::string& text) : buf_(text) {
        fp_ = buf_.empty() ? fopen("/dev/null", "r") : fmemopen(&buf_[0], buf_.size(), "r");
    }
    ~Feed() {
        if (fp_) fclose(fp_);
    }
    FILE* get() const { return fp_; }

private:
    std::string buf_;
    FILE* fp_;
};

// A zov_quillset whose expression table is compiled. Whether the array tool
// is found on this machine does not matter to a parser.
struct Quillset {
    LogSink log;
    std::unique_ptr<zov_quillset> q;

    explicit Quillset(std::vector<std::string> frames = {"10.1.1.1"}, attrlist* attrs = nullptr) {
        q.reset(new zov_quillset(&LogSink::fn, &log));
        delete q->init(frames, attrs);
        EXPECT_EQ(q->m_cpCompiled, ZOV_QUILLSET_NUM_REGEX);
    }
    zov_quillset* operator->() { return q.get(); }
};

inline std::string this_host() {
    char buf[256] = {0};
    gethostname(buf, sizeof(buf) - 1);
    return buf;
}

inline std::string replace_all(std::string s, const std::string& from, const std::string& to) {
    for (size_t p = s.find(from); p != std::string::npos; p = s.find(from, p + to.size()))
        s.replace(p, from.size(), to);
    return s;
}

}  // namespace sgtest
