// Parsers and text helpers of the gateway, fed with captured tool output
// through a stream: no child runs here.
#include <errno.h>
#include <stdio.h>

#include <gtest/gtest.h>

#include "liblocal/kv_thread.h"
#include "storage/ssm/merlode/cli/zov_quillset.h"
#include "tests/unit/merlode/gw_test_util.h"

namespace {

// An object with a compiled table: init needs the tool to be findable.
class GwParse : public ::testing::Test {
protected:
    void SetUp() override {
        add_exe(tools, "tilloseccli");
        path.reset(new ScopedEnv("PATH", tools.path().c_str()));
        q.reset(new zov_quillset(&LogCapture::fn, &log));
        std::vector<std::string> frames{"198.18.0.1"};
        SSError* err = q->init(frames, nullptr);
        ASSERT_EQ(err, nullptr) << err->getErrMsg();
    }
    // Runs one parser over `text`.
    void feed(POUTPUT_FUNC_POINTER parser, const std::string& text) {
        FILE* f = stream_of(text);
        ASSERT_NE(f, nullptr);
        SSError* err = (q.get()->*parser)(f, "198.18.0.1");
        EXPECT_EQ(err, nullptr);
        delete err;
        fclose(f);
    }
    TempDir tools;
    std::unique_ptr<ScopedEnv> path;
    LogCapture log;
    std::unique_ptr<zov_quillset> q;
};

TEST_F(GwParse, Table_RowsMatchWhatTheirParsersRead) {
    struct Case {
        int row;
        const char* text;
        bool match;
        const char* group1;
    } cases[] = {
        {0, "HBA UID:     20:00:00:00:C9:AA\n", true, "20:00:00:00:C9:AA"},
        {0, "HBA UID:     20:00:00:00:C9:AA", false, nullptr},  // the line feed is required
        {10, "   12     34\n", true, "12"},
        {10, "x  12     34\n", false, nullptr},
        {14, "Hostname   Serial\n", true, nullptr},
        {14, " Hostname\n", false, nullptr},  // anchored at the start of the text
        {16, "198.18.0.1   APM0001\n", true, "APM0001"},
        {21, "Revision of the package:   7.33.1_0\n", true, "7.33.1_0"},
        {22, "Activated session s1 on device /dev/sdc.\n", true, "/dev/sdc"},
        {32, "ZOV hadrix for Hadripath (c) Version 3.2.1\n", true, "3.2.1"},
        {49, "Array Name:  FRAME_A\n", true, "FRAME_A"},
        {50, "LOGICAL UNIT NUMBER \n", true, ""},
        {52, "wwn1 =>.", true, "wwn1 "},
        {52, "wwn1 =>[x]", false, nullptr},  // the brackets make a set of one character
        {58, " 12\t60:06:01 rest\n", true, "12"},
    };
    for (const Case& c : cases) {
        regmatch_t m[4];
        std::string text(c.text);
        int rc = q->rxmatch(c.row, text, 4, m);
        EXPECT_EQ(rc == 0, c.match) << "row " << c.row << " on [" << c.text << "]";
        if (rc == 0 && c.group1 != nullptr) {
            EXPECT_EQ(rxgroup(text, m[1]), c.group1) << c.row;
        }
    }
    EXPECT_STREQ(zov_quillset_pattern(27), zov_quillset_pattern(28));
    EXPECT_EQ(zov_quillset_pattern(59), nullptr);
    EXPECT_EQ(q->m_cpCompiled, ZOV_QUILLSET_NUM_REGEX);
}

TEST_F(GwParse, Table_NotCompiledBeforeInitNeverMatches) {
    zov_quillset fresh(&LogCapture::fn, &log);
    regmatch_t m[2];
    EXPECT_EQ(fresh.rxmatch(14, "Hostname\n", 2, m), REG_NOMATCH);
    std::string a = "c1t2d3", b = "c1t2d4";
    int la = -1, lb = -1;
    EXPECT_EQ(fresh.ctd_ct_match(a, la, b, lb), 0);
}

TEST_F(GwParse, Lfgets_LongLinesArriveInPiecesOf1023) {
    std::string text = std::string(2000, 'a') + "\n" + std::string(3000, 'b') + "\nlast";
    FILE* f = stream_of(text);
    std::vector<std::string> got;
    std::string line;
    while (q->lfgets(line, f)) got.push_back(line);
    fclose(f);
    ASSERT_EQ(got.size(), 6u);
    EXPECT_EQ(got[0].size(), 1023u);
    EXPECT_EQ(got[1], std::string(977, 'a') + "\n");
    EXPECT_EQ(got[2].size(), 1023u);
    EXPECT_EQ(got[3].size(), 1023u);
    EXPECT_EQ(got[4], std::string(3000 - 2 * 1023, 'b') + "\n");
    EXPECT_EQ(got[5], "last");
    EXPECT_TRUE(line.empty());  // cleared at the end too
}

TEST_F(GwParse, Lfgets_KeepsCarriageReturnsAndSurvivesBinary) {
    std::string text("a\r\n\x01\x02\xff\n", 7);
    text += std::string("x\0y\n", 4);
    FILE* f = stream_of(text);
    std::string line;
    ASSERT_EQ(q->lfgets(line, f), 1);
    EXPECT_EQ(line, "a\r\n");
    ASSERT_EQ(q->lfgets(line, f), 1);
    EXPECT_EQ(line, "\x01\x02\xff\n");
    ASSERT_EQ(q->lfgets(line, f), 1);
    EXPECT_EQ(line, "x");  // the rest of a line behind a NUL is lost, nothing more
    EXPECT_EQ(q->lfgets(line, f), 0);
    fclose(f);
    FILE* empty = stream_of("");
    EXPECT_EQ(q->lfgets(line, empty), 0);
    fclose(empty);
    EXPECT_EQ(q->lfgets(line, nullptr), 0);
}

// A stream whose reads are interrupted a given number of times.
struct Interrupting {
    int interrupts_left;
    const char* data;
    size_t pos;
};
ssize_t interrupting_read(void* cookie, char* buf, size_t size) {
    Interrupting* s = static_cast<Interrupting*>(cookie);
    if (s->interrupts_left != 0) {
        if (s->interrupts_left > 0) s->interrupts_left--;
        errno = EINTR;
        return -1;
    }
    size_t n = strlen(s->data + s->pos);
    if (n > size) n = size;
    memcpy(buf, s->data + s->pos, n);
    s->pos += n;
    return static_cast<ssize_t>(n);
}
std::vector<uint32_t> g_sleeps;
KVError record_sleep(uint32_t ms) {
    g_sleeps.push_back(ms);
    return 0;
}

TEST_F(GwParse, Lfgets_RetriesInterruptedReadsTenTimesAtMost) {
    cookie_io_functions_t io = {interrupting_read, nullptr, nullptr, nullptr};
    kv_set_sleep_hook(record_sleep);

    Interrupting three{3, "line\n", 0};
    FILE* f = fopencookie(&three, "r", io);
    g_sleeps.clear();
    std::string line;
    EXPECT_EQ(q->lfgets(line, f), 1);
    EXPECT_EQ(line, "line\n");
    EXPECT_EQ(g_sleeps, std::vector<uint32_t>(3, 1000));
    fclose(f);

    Interrupting forever{-1, "", 0};
    f = fopencookie(&forever, "r", io);
    g_sleeps.clear();
    EXPECT_EQ(q->lfgets(line, f), 0);
    EXPECT_EQ(g_sleeps.size(), 10u);
    fclose(f);
    kv_set_sleep_hook(nullptr);
}

TEST_F(GwParse, InitArrayLunUID_PairsNumberWithUidWithoutColons) {
    feed(&zov_quillset::processInitArrayLunUID, fixture("getlun/two_luns.txt"));
    ASSERT_EQ(q->m_arrayLunUID.size(), 2u);
    EXPECT_EQ(q->m_arrayLunUID[0].lunID, 0);
    EXPECT_EQ(q->m_arrayLunUID[0].lunUID, "60060160A1B200001122334455667700");
    EXPECT_EQ(q->m_arrayLunUID[1].lunID, 17);
    EXPECT_EQ(q->m_arrayLunUID[1].lunUID, "60060160A1B200001122334455667711");
    // Added to, never cleared.
    feed(&zov_quillset::processInitArrayLunUID, fixture("getlun/two_luns.txt"));
    EXPECT_EQ(q->m_arrayLunUID.size(), 4u);
}

TEST_F(GwParse, InitArrayLunUID_OddNumbersFollowScanfInteger) {
    feed(&zov_quillset::processInitArrayLunUID, fixture("getlun/odd_numbers.txt"));
    ASSERT_EQ(q->m_arrayLunUID.size(), 4u);
    EXPECT_EQ(q->m_arrayLunUID[0].lunID, 5);
    EXPECT_EQ(q->m_arrayLunUID[1].lunID, 5);  // no digits: the number before it
    EXPECT_EQ(q->m_arrayLunUID[2].lunID, 8);  // leading 0: octal
    // Row 50 takes digits only, so "0x10" is read as "0".
    EXPECT_EQ(q->m_arrayLunUID[3].lunID, 0);
}

TEST_F(GwParse, InitArrayLunUID_NumberWithoutUidIsDroppedAndUidCutAt32) {
    feed(&zov_quillset::processInitArrayLunUID, fixture("getlun/number_without_uid.txt"));
    ASSERT_EQ(q->m_arrayLunUID.size(), 1u);
    // The second number line is not seen while a UID is awaited.
    EXPECT_EQ(q->m_arrayLunUID[0].lunID, 1);
    EXPECT_EQ(q->m_arrayLunUID[0].lunUID, "60060160000000000000000000000002");
    q->m_arrayLunUID.clear();
    feed(&zov_quillset::processInitArrayLunUID, fixture("getlun/overlong_uid.txt"));
    ASSERT_EQ(q->m_arrayLunUID.size(), 1u);
    EXPECT_EQ(q->m_arrayLunUID[0].lunUID.size(), 32u);
}

TEST_F(GwParse, InitArrayLunUID_BadInputStoresNothing) {
    const std::string inputs[] = {"", "LOGICAL UNIT NUMBER 3", std::string(3000, 'U') + "\n",
                                  "UID: 11:22\n", "%s%n%s\nUID:%s\n"};
    for (const std::string& in : inputs) {
        q->m_arrayLunUID.clear();
        feed(&zov_quillset::processInitArrayLunUID, in);
        EXPECT_TRUE(q->m_arrayLunUID.empty()) << in.substr(0, 40);
    }
}

TEST_F(GwParse, ConvertWWNToLun_MapsWwnToNumberTextFirstKeyWins) {
    feed(&zov_quillset::processConvertWWNToLun, fixture("lun_list_uid/mixed.txt"));
    EXPECT_EQ(q->m_wwnToLun["60060160A1B200001122334455667700"], "0");
    EXPECT_EQ(q->m_wwnToLun["60060160A1B200001122334455667711"], "17");  // CRs cleaned
    // A number line restarts the record: 18 had no UID, 19 gets it.
    EXPECT_EQ(q->m_wwnToLun["60060160A1B200001122334455667719"], "19");
    EXPECT_EQ(q->m_wwnToLun.size(), 3u);  // LUN 20 repeats LUN 0's WWN
}

TEST_F(GwParse, FrameSN_ReadsOneLineOnly) {
    feed(&zov_quillset::processFrameSN, fixture("arrayname/name.txt"));
    EXPECT_EQ(q->m_utilStr, "FRAME_ALPHA");
    EXPECT_TRUE(log.has("processed 1 lines"));
    q->m_utilStr = "kept";
    feed(&zov_quillset::processFrameSN, fixture("arrayname/refused.txt"));
    EXPECT_EQ(q->m_utilStr, "kept");
    feed(&zov_quillset::processFrameSN, "");
    EXPECT_TRUE(log.has("processed 0 lines"));
}

TEST(GwText, RemoveNonprntChars_StripsEndsAndLineBreaksOnly) {
    const std::pair<std::string, std::string> cases[] = {
        {"  two words \r\n", "two words"},
        {"a\rb\nc", "abc"},
        {"\t x \t", "x"},
        {"", ""},
        {" \r\n ", ""},
        {"in  side", "in  side"},
    };
    for (const auto& c : cases) {
        std::string s = c.first;
        RemoveNonprntChars(s);
        EXPECT_EQ(s, c.second) << "[" << c.first << "]";
    }
}

TEST(GwText, SliceHelpers) {
    LogCapture log;
    zov_quillset q(&LogCapture::fn, &log);
    EXPECT_EQ(q.truncateSlice("sdc"), "sdc");
    EXPECT_EQ(q.truncateSlice("/dev/disk/sdc1"), "sdc1");
    EXPECT_EQ(q.truncateSlice("/dev/"), "");
    EXPECT_EQ(q.truncatePPSlice("hadrixpower12a"), "hadrixpower12");
    EXPECT_EQ(q.truncatePPSlice("/dev/sdc3"), "/dev/sdc3");
    EXPECT_EQ(q.truncatePPSlice("/dev/sdc"), "");
    EXPECT_EQ(q.truncatePPSlice(""), "");
}

TEST(GwText, GetSrcLun_NumberTextNeedsNoDevice) {
    LogCapture log;
    zov_quillset q(&LogCapture::fn, &log);
    EXPECT_EQ(q.getSrcLun("42"), 42);
    EXPECT_EQ(q.getSrcLun("0x10"), 0);  // base 10 stops at the letter
    EXPECT_EQ(q.getSrcLun(""), -1);
    EXPECT_TRUE(log.has("NULL devpathname") || log.has("unable to find out info"));
}

TEST_F(GwParse, CtdCtMatch_ComparesControllerAndTargetOnly) {
    struct Case {
        const char* a;
        const char* b;
        int match;
        int lun_a;
        int lun_b;
    } cases[] = {
        {"c1t5d0", "c1t5d7", 1, 0, 7},
        {"c1t5d0", "c2t5d0", 0, 0, 0},
        {"c1tABd3s2", "c1tABd4", 1, 3, 4},
        {"c1tabd3", "c1tABd3", 0, 3, 3},  // targets compare as text
        {"/dev/c1t5d0", "c1t5d0", 0, -1, -1},
    };
    for (const Case& c : cases) {
        std::string a(c.a), b(c.b);
        int la = -1, lb = -1;
        EXPECT_EQ(q->ctd_ct_match(a, la, b, lb), c.match) << c.a << " " << c.b;
        if (c.lun_a >= 0) {
            EXPECT_EQ(la, c.lun_a);
        }
        if (c.match) {
            EXPECT_EQ(lb, c.lun_b);
        }
    }
}

}  // namespace
