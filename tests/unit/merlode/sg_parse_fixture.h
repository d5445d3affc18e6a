// Test helpers for the parsers of the volume map, storage groups, capability
// and sessions: captured fixture text fed through a stream, a zov_quillset
// with its expression table compiled, and a log that keeps every line.
// Not thread-safe; one per test.
#pragma once

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "storage/ssm/merlode/cli/zov_quillset.h"
#include "tests/support/fixture.h"
#include "tests/support/log_capture.h"

namespace sgtest {

using LogSink = zovtest::LogCapture;
using zovtest::Feed;
using zovtest::fixture;

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
