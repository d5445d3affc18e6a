// Bad input for the gateway's walk: the simulator's fault rules, and raw
// output (empty, cut short, overlong lines, carriage returns, binary bytes,
// percent signs) from a tiny tool, through both forms of perIpAddr, lfgets
// and esv_spawn. Every case ends with no descriptor and no child left.
#include <errno.h>
#include <sys/wait.h>

#include <fstream>
#include <map>
#include <memory>

#include <gtest/gtest.h>

#include "liblocal/kv_spawn.h"
#include "storage/ssm/merlode/cli/zov_quillset.h"
#include "tests/unit/merlode/gw_test_util.h"
#include "tests/unit/merlode/sim_fixture.h"

namespace {

// True when this process has no child at all, finished or not.
bool no_child_left() {
    errno = 0;
    return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

// A quillset with a parser that keeps every line it was given, per address.
class KeepQuillset : public zov_quillset {
public:
    explicit KeepQuillset(LogCapture* log) : zov_quillset(&LogCapture::fn, log) {}
    SSError* keep(FILE* stream, const std::string& ipaddr) {
        std::string line;
        while (lfgets(line, stream)) lines[ipaddr].push_back(line);
        if (lines[ipaddr].empty())
            return m_e.generr("test", __LINE__, nullptr, SS_EC_CMD_EXEC_FAILED, "no output");
        return nullptr;
    }
    POUTPUT_FUNC_POINTER parser() { return static_cast<POUTPUT_FUNC_POINTER>(&KeepQuillset::keep); }
    std::string all(const std::string& ipaddr) {
        std::string out;
        for (const std::string& l : lines[ipaddr]) out += l;
        return out;
    }
    std::map<std::string, std::vector<std::string>> lines;
};

// ---------------------------------------------------------------- fault rules

class GwFaults : public ::testing::Test {
protected:
    void SetUp() override {
        SKIP_WITHOUT_SIM();
        sim.reset(new SimArray({"--frames", "2", "--luns", "3"}));
        ASSERT_TRUE(sim->ok());
        q.reset(new KeepQuillset(&log));
        std::vector<std::string> frames{SimArray::addr(0), SimArray::addr(1)};
        SSError* err = q->init(frames, nullptr);
        ASSERT_EQ(err, nullptr) << err->getErrMsg();
        tool = q->GetTilloCliExe();
        fds = open_fd_count();
    }
    void TearDown() override {
        if (!q) return;
        q.reset();
        EXPECT_EQ(open_fd_count(), fds);
        EXPECT_TRUE(no_child_left());
    }
    void fault(const std::vector<std::string>& args) {
        std::vector<std::string> a{"fault", "add"};
        a.insert(a.end(), args.begin(), args.end());
        std::string out;
        ASSERT_EQ(sim->admin(a, &out), 0) << out;
    }
    // getlun through the real parser: the number of LUNs read.
    size_t luns_read() {
        q->m_arrayLunUID.clear();
        SSError* err = q->ncli_initArrayLunUID();
        EXPECT_EQ(err, nullptr);
        delete err;
        return q->m_arrayLunUID.size();
    }
    LogCapture log;
    std::unique_ptr<SimArray> sim;
    std::unique_ptr<KeepQuillset> q;
    std::string tool;
    int fds = 0;
};

TEST_F(GwFaults, RefusedAndGarbageTextCountAsServedWithNothingRead) {
    ASSERT_GT(luns_read(), 0u);
    fault({"tilloseccli", "refuse", "--match", "getlun"});
    EXPECT_EQ(luns_read(), 0u);
    std::string name;
    fault({"tilloseccli", "garbage", "--match", "arrayname"});
    SSError* err = q->getFrameSN(name);
    EXPECT_EQ(err, nullptr);
    delete err;
    EXPECT_EQ(name, "");
    // The garbage of the refused query's neighbour is no LUN either.
    ASSERT_EQ(sim->admin({"fault", "clear"}), 0);
    fault({"tilloseccli", "garbage", "--match", "getlun"});
    EXPECT_EQ(luns_read(), 0u);
}

TEST_F(GwFaults, LongLineArrivesInPiecesAndTheRestIsStillRead) {
    size_t all = luns_read();
    fault({"tilloseccli", "longline", "--match", "getlun", "--arg", "3000"});
    EXPECT_EQ(luns_read(), all);
    delete q->perIpAddr(false, q->parser(), tool, " getlun -uid", {SimArray::addr(0)});
    const std::vector<std::string>& got = q->lines[SimArray::addr(0)];
    ASSERT_GE(got.size(), 4u);
    // 3000 characters and a line feed: 1023 + 1023 + 954 + "\n".
    EXPECT_EQ(got[0].size(), 1023u);
    EXPECT_EQ(got[1].size(), 1023u);
    EXPECT_EQ(got[2], std::string(954, 'x') + "\n");
    EXPECT_NE(got[3].find("LOGICAL UNIT NUMBER"), std::string::npos);
}

TEST_F(GwFaults, SlowFrameIsWaitedFor) {
    fault({"tilloseccli", "slow", "--match", "arrayname", "--arg", "50"});
    std::string name;
    SSError* err = q->getFrameSN(name);
    EXPECT_EQ(err, nullptr);
    delete err;
    EXPECT_FALSE(name.empty());
}

TEST_F(GwFaults, DownFrameAnswersWithTheConnectionErrorOnly) {
    size_t all = luns_read();
    fault({"tilloseccli", "down", "--arg", SimArray::addr(1)});
    SSError* err = q->perIpAddr(false, q->parser(), tool, " arrayname", {});
    EXPECT_EQ(err, nullptr);
    delete err;
    EXPECT_NE(q->all(SimArray::addr(0)).find("Array Name:"), std::string::npos);
    EXPECT_NE(q->all(SimArray::addr(1)).find("Error: Could not connect"), std::string::npos);
    // Only the frame that answered adds to the table.
    q->m_arrayLunUID.clear();
    delete q->ncli_initArrayLunUID();
    EXPECT_EQ(q->m_arrayLunUID.size() * 2, all);
}

TEST_F(GwFaults, ToolThatCannotRunPrintsNothingOrNotFound) {
    // Taken away after this object found it: called anyway.
    fault({"tilloseccli", "missing", "--match", "arrayname"});
    delete q->perIpAddr(false, q->parser(), tool, " arrayname", {SimArray::addr(0)});
    EXPECT_EQ(q->all(SimArray::addr(0)), "tilloseccli: command not found\n");
    ASSERT_EQ(sim->admin({"fault", "clear"}), 0);

    // An exec that fails: the frame prints nothing, which the parser reports.
    fault({"tilloseccli", "execfail", "--match", "arrayname"});
    q->lines.clear();
    SSError* err = q->perIpAddr(true, q->parser(), tool, " arrayname", {});
    ASSERT_NE(err, nullptr);
    EXPECT_STREQ(err->getErrMsg(), "no output");
    delete err;
    EXPECT_TRUE(q->lines[SimArray::addr(0)].empty());
    EXPECT_TRUE(q->lines[SimArray::addr(1)].empty());
    std::string name = "old";
    err = q->getFrameSN(name);
    EXPECT_EQ(err, nullptr);
    delete err;
    EXPECT_EQ(name, "");
}

TEST_F(GwFaults, PipeFormUnderFaultsReapsEveryChild) {
    fault({"tilloseccli", "execfail", "--match", SimArray::addr(0)});
    fault({"tilloseccli", "longline", "--match", SimArray::addr(1)});
    {
        Pipe p(&LogCapture::fn, &log);
        ASSERT_EQ(p.init(), nullptr);
        std::string cmd = tool + " -h %s arrayname";
        ASSERT_EQ(q->perIpAddr(p, cmd.c_str(), {}), nullptr);
        p.pclose(p.getwrite_fd());
        std::string all, line;
        int pieces = 0;
        while (q->lfgets(line, p.getread_strm())) {
            all += line;
            pieces++;
        }
        EXPECT_EQ(pieces, 4);  // the long line in three pieces, then the name
        EXPECT_NE(all.find("Array Name:"), std::string::npos);
    }
    q->reapPipeChildren();
}

// ---------------------------------------------------------------- raw output

// Runs a tiny tool that prints exactly the bytes it is given, in place of
// the array's tool.
class GwRawOutput : public ::testing::Test {
protected:
    void SetUp() override {
        text_tool = build_dir() + "/tests/helpers/gw_text_tool";
        if (access(text_tool.c_str(), X_OK) != 0) GTEST_SKIP() << "helper not built";
        file = dir.path() + "/out";
        env.reset(new ScopedEnv("GW_TEXT_FILE", file.c_str()));
        // init needs a tool of the array's name to be found.
        path.reset(new ScopedEnv("PATH", (dir.path() + ":/usr/bin:/bin").c_str()));
        add_exe(dir, "tilloseccli");
        q.reset(new KeepQuillset(&log));
        std::vector<std::string> frames{"198.18.0.1", "198.18.1.1"};
        SSError* err = q->init(frames, nullptr);
        ASSERT_EQ(err, nullptr) << err->getErrMsg();
        fds = open_fd_count();
    }
    void TearDown() override {
        if (!q) return;
        q.reset();
        EXPECT_EQ(open_fd_count(), fds);
        EXPECT_TRUE(no_child_left());
    }
    void output(const std::string& bytes) {
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        out << bytes;
    }
    SSError* walk(POUTPUT_FUNC_POINTER parser, bool til_success, const std::string& args) {
        return q->perIpAddr(til_success, parser, text_tool, args, {});
    }
    TempDir dir;
    std::string text_tool, file;
    std::unique_ptr<ScopedEnv> env, path;
    LogCapture log;
    std::unique_ptr<KeepQuillset> q;
    int fds = 0;
};

TEST_F(GwRawOutput, EmptyOutputIsAFrameThatPrintsNothing) {
    output("");
    SSError* err = walk(q->parser(), true, " arrayname");
    ASSERT_NE(err, nullptr);  // every frame failed: the last one's error
    delete err;
    EXPECT_EQ(q->lines.size(), 2u);
    err = q->perIpAddr(false, &zov_quillset::processFrameSN, text_tool, " arrayname", {});
    EXPECT_EQ(err, nullptr);
    delete err;
    EXPECT_TRUE(q->m_utilStr.empty());
    EXPECT_EQ(q->convertWWNToLun("60060160A1B200001122334455667700"), "");
}

TEST_F(GwRawOutput, OutputCutShortStillYieldsItsLastLine) {
    output("LOGICAL UNIT NUMBER 7\nUID: 60:06:01:60:A1:B2:00:00:11:22:33:44:55:66:77:07");
    delete walk(&zov_quillset::processInitArrayLunUID, false, " getlun -uid");
    ASSERT_EQ(q->m_arrayLunUID.size(), 2u);  // once per frame
    EXPECT_EQ(q->m_arrayLunUID[0].lunID, 7);
    EXPECT_EQ(q->m_arrayLunUID[0].lunUID, "60060160A1B200001122334455667707");
    // A number line cut before its digits.
    q->m_arrayLunUID.clear();
    output("LOGICAL UNIT NUM");
    delete walk(&zov_quillset::processInitArrayLunUID, false, " getlun -uid");
    EXPECT_TRUE(q->m_arrayLunUID.empty());
}

TEST_F(GwRawOutput, LongLinesCarriageReturnsBinaryAndPercentSigns) {
    std::string nasty = std::string(3000, 'L') + "\n" +  // a 3000-character line
                        "Array Name:  %s%n%d%%\r\n" +    // percent signs and a CR
                        std::string("bin\x01\xff\x7f", 6) + std::string(1, '\0') + "tail\n" +
                        std::string(2500, '%') + "\n";
    output(nasty);
    SSError* err = walk(q->parser(), false, " arrayname");
    EXPECT_EQ(err, nullptr);
    delete err;
    const std::vector<std::string>& got = q->lines["198.18.0.1"];
    // 3 + 1 + 1 + 3 pieces; the text behind a NUL byte is lost with it.
    ASSERT_EQ(got.size(), 8u);
    EXPECT_EQ(got[3], "Array Name:  %s%n%d%%\r\n");
    EXPECT_EQ(got[4], std::string("bin\x01\xff\x7f", 6));
    EXPECT_EQ(got[7], std::string(2500 - 2046, '%') + "\n");

    // The real parser takes the name as it stands, percent signs and all.
    err = q->perIpAddr(false, &zov_quillset::processFrameSN, text_tool, " arrayname", {});
    delete err;
    EXPECT_EQ(q->m_utilStr, "");  // only the first line is read, and it is no name
    output("Array Name:  %s%n%d\r\n");
    err = q->perIpAddr(false, &zov_quillset::processFrameSN, text_tool, " arrayname", {});
    delete err;
    EXPECT_EQ(q->m_utilStr, "%s%n%d");
    // Drained into the log without a pipe, the same text is logged verbatim.
    output(nasty);
    int pid = -1;
    ASSERT_EQ(q->esv_spawn(nullptr, &pid, "%s -h x", text_tool.c_str()), nullptr);
    int status = 0;
    EXPECT_EQ(waitchild(pid, &status, 0), pid);
    EXPECT_TRUE(log.has("spawned output [Array Name:  %s%n%d%%]"));
    EXPECT_TRUE(log.has("zov_quillset::esv_spawn: processed 8 lines"));
}

TEST_F(GwRawOutput, PercentSignsInCommandLinesAreNotConversions) {
    output("ok\n");
    // The pipe form's one "%s" is the address; other conversions stay text.
    Pipe p(&LogCapture::fn, &log);
    ASSERT_EQ(p.init(), nullptr);
    std::string dumper = build_dir() + "/tests/helpers/gw_argv_dump";
    std::string cmd = dumper + " -h %s x%n%d%%y";
    ASSERT_EQ(q->perIpAddr(p, cmd.c_str(), {"198.18.5.1"}), nullptr);
    p.pclose(p.getwrite_fd());
    std::string all, line;
    while (q->lfgets(line, p.getread_strm())) all += line;
    EXPECT_NE(all.find("[198.18.5.1]\n[x%n%d%y]\n"), std::string::npos) << all;
    q->reapPipeChildren();
    // The general form passes its line whole.
    delete q->perIpAddr(false, q->parser(), dumper, " %s%n %d%%", {"198.18.5.1"});
    EXPECT_NE(q->all("198.18.5.1").find("[%s%n]\n[%d%]\n"), std::string::npos)
        << q->all("198.18.5.1");
}

}  // namespace
