// The expression table every object reads: the quick test before each row
// never turns away a line the row's expression takes, and objects share one
// compiled table per locale.
#include <dirent.h>
#include <locale.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/unit/merlode/sg_parse_fixture.h"

using sgtest::Quillset;

namespace {

// Every line of every captured output, with its line feed, and lines made to
// sit at the edges of the quick tests.
std::vector<std::string> corpus() {
    std::vector<std::string> lines = {
        "",
        "\n",
        " \n",
        "\t1 2\n",
        "\v1 2\n",
        "\xc2\xa0"
        "1 2\n",
        "\xe2\x80\x83"
        "7 9\n",
        "x 1 2\n",
        "HLU No.\n",
        "HLU No\n",
        "c0t5d1\n",
        " c0t5d1\n",
        "Hostname\n",
        " Hostname\n",
        "--------\n",
        "-------\n",
        "a => [x]\n",
        "Name:\xff\xfe\n",
        "Storage Group Name:\t\xc3\xa9t\xc3\xa9\n",
        "cmd failed here\n",
        std::string("UID: 1\0 x", 9) + "\n",
    };
    std::string base = zovtest::source_dir() + "/tests/fixtures";
    DIR* top = opendir(base.c_str());
    if (top == nullptr) return lines;
    while (dirent* d = readdir(top)) {
        if (d->d_name[0] == '.') continue;
        std::string dir = base + "/" + d->d_name;
        DIR* sub = opendir(dir.c_str());
        if (sub == nullptr) continue;
        while (dirent* f = readdir(sub)) {
            if (f->d_name[0] == '.') continue;
            std::string text = sgtest::fixture(d->d_name, f->d_name);
            size_t at = 0;
            while (at < text.size()) {
                size_t end = text.find('\n', at);
                end = end == std::string::npos ? text.size() : end + 1;
                lines.push_back(text.substr(at, end - at));
                at = end;
            }
        }
        closedir(sub);
    }
    closedir(top);
    return lines;
}

void expect_no_false_refusal(const char* locale) {
    ASSERT_NE(setlocale(LC_ALL, locale), nullptr) << locale;
    std::vector<std::string> lines = corpus();
    ASSERT_GT(lines.size(), 200u);
    for (int row = 0; row < ZOV_QUILLSET_NUM_REGEX; row++) {
        regex_t re;
        ASSERT_EQ(regcomp(&re, zov_quillset_pattern(row), REG_EXTENDED), 0);
        for (const std::string& line : lines) {
            bool takes = regexec(&re, line.c_str(), 0, nullptr, 0) == 0;
            if (!takes) continue;
            EXPECT_TRUE(zov_quillset_may_match(row, line))
                << "row " << row << " turned away [" << line << "] under " << locale;
        }
        regfree(&re);
    }
    setlocale(LC_ALL, "C");
}

TEST(RxTable, QuickTestNeverTurnsAwayALineTheExpressionTakes) {
    expect_no_false_refusal("C");
    expect_no_false_refusal("C.UTF-8");
}

// Lines at the edges of the hand-written matchers: each keyword with every
// kind of gap, value and line end, and table rows of every spacing.
std::vector<std::string> edge_lines() {
    const char* const words[] = {"Storage Group Name:",
                                 "Name of the session:",
                                 "Name:",
                                 "CloneID:",
                                 "CloneGroupUid:",
                                 "CloneState:",
                                 "Sources:",
                                 "Clones:",
                                 "CloneCondition:",
                                 "IsFractured:",
                                 "CloneLUNs:",
                                 "LOGICAL UNIT NUMBER",
                                 "UID:",
                                 "SyncRate:",
                                 "CloneLUNWWNs:",
                                 "Storage Group UID:",
                                 "Commit Required:",
                                 "Active State:"};
    const char* const leads[] = {"", "x ", "Name: "};
    const char* const gaps[] = {"", " ", "    ", "\t", "\v\f", "\r", "\n"};
    const char* const values[] = {"",
                                  "7",
                                  "12ab",
                                  "a b",
                                  "60:06:01:60",
                                  "_w",
                                  "-",
                                  "a ",
                                  "7 8",
                                  "x\ty",
                                  "\xc3\xa9",
                                  "a\xc2\xa0"
                                  "b"};
    const char* const ends[] = {"", "\n", " \n", "\r\n", "\nX\n", "\n\n"};
    std::vector<std::string> lines;
    for (const char* w : words)
        for (const char* l : leads)
            for (const char* g : gaps)
                for (const char* v : values)
                    for (const char* e : ends) lines.push_back(std::string(l) + w + g + v + e);
    const char* const cells[] = {"", "7", "a_b", "c-d", "\xc3\xa9"};
    const char* const blanks[] = {"", " ", "    ", "\n", " \v "};
    for (const char* lead : blanks)
        for (const char* a : cells)
            for (const char* gap : blanks)
                for (const char* b : cells)
                    for (const char* e : ends) lines.push_back(std::string(lead) + a + gap + b + e);
    // The software list's name and revision rows: a keyword, anything, a
    // colon, blanks and a value that ends the line.
    const char* const middles[] = {"", ":", " software package:", " a:b", " x: :", "  "};
    const char* const revisions[] = {"",   "7",   "04.30.000.5.523", "1_2", "V1.2", "1.2 ",
                                     ":3", "a b", "1	2"};
    for (const char* w : {"Name of the", "Revision of"})
        for (const char* l : leads)
            for (const char* m : middles)
                for (const char* g : gaps)
                    for (const char* v : revisions)
                        for (const char* e : ends)
                            lines.push_back(std::string(l) + w + m + g + v + e);
    lines.push_back(std::string("CloneID: a\0b\n", 13));
    lines.push_back(std::string("    7\0 19\n", 10));
    return lines;
}

// Whatever answers for a row, the object reports what the row's expression
// reports: the same verdict and the same captures.
void expect_same_as_expression(const char* locale) {
    ASSERT_NE(setlocale(LC_ALL, locale), nullptr) << locale;
    std::vector<std::string> lines = corpus();
    std::vector<std::string> edges = edge_lines();
    lines.insert(lines.end(), edges.begin(), edges.end());
    Quillset q;
    for (int row = 0; row < ZOV_QUILLSET_NUM_REGEX; row++) {
        regex_t re;
        ASSERT_EQ(regcomp(&re, zov_quillset_pattern(row), REG_EXTENDED), 0);
        for (const std::string& line : lines) {
            regmatch_t want[4], got[4];
            int rc = regexec(&re, line.c_str(), 4, want, 0);
            ASSERT_EQ(q->rxmatch(row, line, 4, got), rc)
                << "row " << row << " [" << line << "] under " << locale;
            for (int g = 0; rc == 0 && g < 4; g++) {
                EXPECT_EQ(got[g].rm_so, want[g].rm_so)
                    << "row " << row << " group " << g << " [" << line << "] under " << locale;
                EXPECT_EQ(got[g].rm_eo, want[g].rm_eo)
                    << "row " << row << " group " << g << " [" << line << "] under " << locale;
            }
            // Fewer slots than groups, as most parsers ask.
            regmatch_t want1[1], got1[1];
            int rc1 = regexec(&re, line.c_str(), 1, want1, 0);
            ASSERT_EQ(q->rxmatch(row, line, 1, got1), rc1);
            if (rc1 == 0) {
                EXPECT_EQ(got1[0].rm_eo, want1[0].rm_eo) << "row " << row;
            }
            EXPECT_EQ(q->rxmatch(row, line, 0, nullptr), rc1);
        }
        regfree(&re);
    }
    setlocale(LC_ALL, "C");
}

TEST(RxTable, ObjectAnswersAsTheExpressionOnEveryLineAndEdge) {
    expect_same_as_expression("C");
    expect_same_as_expression("C.UTF-8");
}

TEST(RxTable, QuickTestTurnsAwayLinesWithoutTheRowsWord) {
    EXPECT_FALSE(zov_quillset_may_match(RX_SESSION_NAME, "Session creation time:  Tue\n"));
    EXPECT_FALSE(zov_quillset_may_match(RX_HOSTNAME_HEADER, " Hostname\n"));
    EXPECT_FALSE(zov_quillset_may_match(RX_HLU_ALU_ROW, "x 1 2\n"));
    EXPECT_TRUE(zov_quillset_may_match(RX_HLU_ALU_ROW,
                                       "\xc2\xa0"
                                       "1 2\n"));
    EXPECT_FALSE(zov_quillset_may_match(-1, "anything"));
    EXPECT_FALSE(zov_quillset_may_match(ZOV_QUILLSET_NUM_REGEX, "anything"));
}

TEST(RxTable, ObjectsShareOneTableAndMatchAsTheirOwnWould) {
    Quillset a, b;
    EXPECT_EQ(a->m_cp, b->m_cp);
    regmatch_t m[3];
    ASSERT_EQ(b->rxmatch(RX_HLU_ALU_ROW, "    7               19\n", 3, m), 0);
    EXPECT_EQ(rxgroup("    7               19\n", m[2]), "19");
    EXPECT_EQ(b->rxmatch(RX_SESSION_NAME, "Session creation time: x\n", 2, m), REG_NOMATCH);
}

TEST(RxTable, ObjectMadeUnderAnotherLocaleGetsATableCompiledUnderIt) {
    Quillset plain;
    ASSERT_NE(setlocale(LC_ALL, "C.UTF-8"), nullptr);
    Quillset wide;
    Quillset wide2;
    EXPECT_NE(plain->m_cp, wide->m_cp);
    EXPECT_EQ(wide->m_cp, wide2->m_cp);
    // "." takes a two-byte character as one under UTF-8: the capture is the
    // whole name.
    regmatch_t m[2];
    const std::string line = "Storage Group Name:    \xc3\xa9t\xc3\xa9\n";
    EXPECT_EQ(wide->rxmatch(RX_SG_NAME, line, 2, m), 0);
    EXPECT_EQ(rxgroup(line, m[1]), "\xc3\xa9t\xc3\xa9");
    setlocale(LC_ALL, "C");
}

TEST(RxTable, ThreadsMakingObjectsAtOnceShareOneTable) {
    Quillset first;
    std::vector<const regex_t*> seen(4, nullptr);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); i++)
        threads.emplace_back([&seen, i] {
            Quillset q;
            regmatch_t m[2];
            if (q->rxmatch(RX_LUN_NUMBER, "LOGICAL UNIT NUMBER 5\n", 2, m) == 0) seen[i] = q->m_cp;
        });
    for (std::thread& t : threads) t.join();
    for (const regex_t* t : seen) EXPECT_EQ(t, first->m_cp);
}

}  // namespace
