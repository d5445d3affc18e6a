// The numbers the parsers read from captures: scan_i reads every text as
// sscanf "%i" does, its shortcut for plain decimals included.
#include <gtest/gtest.h>
#include <stdio.h>

#include <string>
#include <vector>

#include "storage/ssm/merlode/cli/line_match.h"

namespace {

TEST(LineMatch, ScanIReadsEveryTextAsSscanfDoes) {
    const std::vector<std::string> texts = {
        "0",          "7",          "19",          "123456789", "999999999", "1234567890",
        "2147483647", "2147483648", "99999999999", "07",        "010",       "0x1f",
        "0X1F",       "-5",         "+5",          " 5",        "5 ",        "5a",
        "a5",         "",           "-",           "08",        "00",        "1e3"};
    for (const std::string& t : texts) {
        int want = -77, got = -77;
        bool read = sscanf(t.c_str(), "%i", &want) == 1;
        if (!read) want = -77;
        EXPECT_EQ(zov_text::scan_i(t, got), read) << "[" << t << "]";
        EXPECT_EQ(got, want) << "[" << t << "]";
    }
}

}  // namespace
