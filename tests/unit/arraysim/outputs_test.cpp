// The simulator's outputs, read line by line with the module's own regular
// expressions and keys, the way its parsers read them.
#include <gtest/gtest.h>
#include <regex.h>

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "tools/arraysim/sim.h"
#include "tools/arraysim/text.h"

using namespace arraysim;

namespace {

// The module's patterns (REG_EXTENDED, no REG_NEWLINE), by row number.
const std::map<int, const char*> kPatterns = {
    {0, "HBA UID:[[:space:]]+([^[:space:]].*)\n"},
    {1, "Server Name:[[:space:]]+([^[:space:]].*)\n"},
    {2, "Server IP Address:[[:space:]]+([^[:space:]].*)\n"},
    {3, "Information about each port of this HBA:"},
    {4, "Information about each HBA:"},
    {5, "[[:space:]]*HBA Devicename:[[:space:]]+([^[:space:]].*)\n"},
    {6, "StorageGroup Name:[[:space:]]+([^[:space:]].*)\n"},
    {7, "Storage Group Name:[[:space:]]+([^[:space:]].*)\n"},
    {8, "HLU Number[[:space:]]+ALU Number"},
    {9, "-+[[:space:]]+-+"},
    {10, "^\\s+(\\w+)\\s+(\\w+)"},
    {11, "Shareable:[[:space:]]+"},
    {12, "Target Logical Unit:[[:space:]]+([[:digit:]]+)"},
    {13, "Quillset logical unit name:[[:space:]]+([^[:space:]].*)\n"},
    {14, "^Hostname"},
    {15, "^--------"},
    {16, "^[^[:space:]]+[[:space:]]+([^[:space:]].+)\n"},
    {19, "Name of the session:[[:space:]]+([^[:space:]].*)\n"},
    {20, "Name of the.+:[[:space:]]+([^[:space:]]+)\n"},
    {21, "Revision of.+:[[:space:]]+([_\\.[:digit:]]+)\n"},
    {22, "Activated session.+on device ([^[:space:]]+)\\.\n"},
    {23, "^You must activate a snapshot"},
    {25, "^Deactivated session"},
    {30, "Revision (.+)"},
    {31, "Revision number: (.+)\n"},
    {32, "ZOV hadrix for Hadripath \\(c\\) Version (.+)\n"},
    {33, "Commit Required:[[:space:]]+([^[:space:]]+)\n"},
    {34, "Active State:[[:space:]]+([^[:space:]]+)\n"},
    {35, "Name:[[:space:]]+(.*)\n"},
    {36, "CloneID:[[:space:]]+([^[:space:]]+)\n"},
    {37, "CloneGroupUid:[[:space:]]+([^[:space:]]+)\n"},
    {38, "CloneState:[[:space:]]+([^[:space:]]+)"},
    {40, "Sources:[[:space:]]+([[:digit:]]+)"},
    {43, "Clones:[[:space:]]+"},
    {44, "CloneCondition:[[:space:]]+([^[:space:]].*)"},
    {45, "IsFractured:[[:space:]]+([^[:space:]].*)"},
    {46, ".+(failed).+"},
    {48, "CloneLUNs:[[:space:]]+([^[:space:]]+)\n"},
    {49, "Array Name:[[:space:]]+([^[:space:]]+)"},
    {50, "LOGICAL UNIT NUMBER[[:space:]]+([[:digit:]]*)"},
    {51, "UID:[[:space:]]+(.*)"},
    {53, "SyncRate:[[:space:]]+(.+)"},
    {54, "CloneLUNWWNs:[[:space:]]+([^[:space:]]+)"},
    {55, "Storage Group UID:[[:space:]]+([^[:space:]].*)"},
    {56, "Host name:[ \t]*(.*)"},
    {57, "HLU No."},
    {58, "[[:space:]]([[:digit:]]*)[ \t]+[0-9A-F:]+.+\n"},
};

class Rx {
public:
    Rx() {
        for (const auto& p : kPatterns) {
            regex_t r;
            EXPECT_EQ(0, regcomp(&r, p.second, REG_EXTENDED)) << p.first;
            re_[p.first] = r;
        }
    }
    ~Rx() {
        for (auto& r : re_) regfree(&r.second);
    }
    // Matches row `n` against a line; `g1` receives group 1 without the line feed.
    bool m(int n, const std::string& line, std::string* g1 = nullptr, std::string* g2 = nullptr) {
        regmatch_t pm[4];
        if (regexec(&re_.at(n), line.c_str(), 4, pm, 0) != 0) return false;
        auto grab = [&](int i, std::string* out) {
            if (!out) return;
            out->clear();
            if (pm[i].rm_so >= 0) *out = line.substr(pm[i].rm_so, pm[i].rm_eo - pm[i].rm_so);
            while (!out->empty() && (out->back() == '\n' || out->back() == '\r')) out->pop_back();
        };
        grab(1, g1);
        grab(2, g2);
        return true;
    }

private:
    std::map<int, regex_t> re_;
};

// Lines as lfgets gives them: each keeps its line feed, none over 1023.
std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    size_t p = 0;
    while (p < text.size()) {
        size_t nl = text.find('\n', p);
        size_t end = nl == std::string::npos ? text.size() : nl + 1;
        for (size_t q = p; q < end; q += 1023)
            out.push_back(text.substr(q, std::min<size_t>(1023, end - q)));
        p = end;
    }
    return out;
}

// The value after the first ':' with blanks and line ends taken off, as the
// module's RemoveNonprntChars leaves it.
std::string after_colon(const std::string& line) {
    size_t c = line.find(':');
    std::string v = c == std::string::npos ? std::string() : line.substr(c + 1);
    while (!v.empty() && isspace(static_cast<unsigned char>(v.back()))) v.pop_back();
    size_t s = 0;
    while (s < v.size() && isspace(static_cast<unsigned char>(v[s]))) ++s;
    return v.substr(s);
}

// Device paths are printed under this folder; nothing is created there.
const char* kDir = "/nonexistent/arraysim";

class SimOutput : public ::testing::Test {
protected:
    void SetUp() override {
        InitOptions o;
        o.frames = 2;
        o.luns = 4;
        o.host = "prodhost";
        o.host_addr = "10.1.1.5";
        st_ = make_state(o);
        addr_ = st_.frames[0].addrs[0];
    }
    ToolResult tillo(const std::string& cmd) {
        return tool("tilloseccli", "-h " + addr_ + " " + cmd);
    }
    ToolResult tool(const std::string& name, const std::string& cmd) {
        std::vector<std::string> args;
        size_t p = 0;
        while (p < cmd.size()) {
            size_t b = cmd.find(' ', p);
            if (b == std::string::npos) b = cmd.size();
            if (b > p) args.push_back(cmd.substr(p, b - p));
            p = b + 1;
        }
        return run_tool(st_, kDir, name, args);
    }
    const CloneGroup& cg0() { return st_.clonegroups[0]; }

    State st_;
    std::string addr_;
    Rx rx_;
};

TEST_F(SimOutput, GetlunUid_EveryNumberLineIsFollowedByItsColonFreeWwn) {
    int state = 0, lun = -1, pairs = 0;
    for (const auto& l : lines(tillo("getlun -uid").out)) {
        std::string g;
        if (state == 0 && rx_.m(50, l, &g)) {
            lun = atoi(g.c_str());
            state = 1;
        } else if (state == 1 && rx_.m(51, l, &g)) {
            std::string wwn;
            for (char c : g)
                if (c != ':') wwn += c;
            ASSERT_EQ(32u, wwn.size());
            EXPECT_EQ(st_.lun(0, lun)->wwn, g);
            ++pairs;
            state = 0;
        }
    }
    int on_frame = 0;
    for (const auto& l : st_.luns) on_frame += l.frame == 0;
    EXPECT_EQ(on_frame, pairs);
}

TEST_F(SimOutput, LunListUid_KeyedLinesGiveWwnToLun) {
    std::map<std::string, std::string> wwn_to_lun;
    std::string lun;
    for (const auto& l : lines(tillo("lun -list -uid").out)) {
        size_t p = l.find("LOGICAL UNIT NUMBER ");
        if (p != std::string::npos) {
            lun = after_colon(":" + l.substr(p + 20));
        } else if (!lun.empty() && l.find("UID:") != std::string::npos) {
            std::string w;
            for (char c : after_colon(l))
                if (c != ':') w += c;
            wwn_to_lun.emplace(w, lun);
            lun.clear();
        }
    }
    EXPECT_EQ("0", wwn_to_lun["60060160000000000000000000000000"]);
    EXPECT_EQ(8u, wwn_to_lun.size());
}

TEST_F(SimOutput, ArraynameAndGetarrayuid_GiveNameAndSerial) {
    std::string g;
    auto ln = lines(tillo("arrayname").out);
    ASSERT_FALSE(ln.empty());
    ASSERT_TRUE(rx_.m(49, ln[0], &g));
    EXPECT_EQ(st_.frames[0].name, g);
    // A table of the answering storage processor's host name and the serial.
    std::string host;
    auto uid = lines(tillo("getarrayuid").out);
    ASSERT_EQ(3u, uid.size());
    EXPECT_TRUE(rx_.m(14, uid[0]));
    host = uid[2].substr(0, uid[2].find(' '));
    EXPECT_EQ(st_.frames[0].name + "-spa", host);
    st_.frames[0].sphosts = {"spa0", "spb0"};
    addr_ = st_.frames[0].addrs[1];
    EXPECT_EQ(0u, tillo("getarrayuid").out.find("Hostname")) << "a table from its first line";
    EXPECT_EQ(0u, lines(tillo("getarrayuid").out)[2].find("spb0 "));
    int state = 0;
    std::string serial;
    for (const auto& l : lines(tillo("getarrayuid").out)) {
        if (state == 0 && rx_.m(14, l))
            state = 1;
        else if (state == 1) {
            ASSERT_TRUE(rx_.m(15, l));
            state = 2;
        } else if (state == 2) {
            ASSERT_TRUE(rx_.m(16, l, &serial));
            break;
        }
    }
    EXPECT_EQ(st_.frames[0].serial, serial);
}

TEST_F(SimOutput, PortList_ThisHostsGroupsReachTheStateMachine) {
    int state = 0;
    std::vector<std::pair<std::string, std::string>> found;  // device, group
    std::string dev, g;
    for (const auto& l : lines(tillo("port -list -hba").out)) {
        switch (state) {
        case 0:
            if (rx_.m(0, l)) state = 1;
            break;
        case 1:
            if (rx_.m(1, l, &g)) state = g == "prodhost" ? 2 : 0;
            break;
        case 2:
            if (rx_.m(2, l)) state = 3;
            break;
        case 3:
            if (rx_.m(3, l)) state = 4;
            break;
        case 4:
            if (rx_.m(5, l, &dev))
                state = 5;
            else if (rx_.m(4, l))
                state = 0;
            break;
        case 5:
            if (rx_.m(6, l, &g)) {
                found.emplace_back(dev, g);
                state = 4;
            } else if (rx_.m(4, l)) {
                ADD_FAILURE() << "strange behavior: " << l;
                state = 0;
            }
            break;
        }
    }
    ASSERT_EQ(4u, found.size());  // two HBAs, two storage processors each
    EXPECT_EQ("fc0", found[0].first);
    EXPECT_EQ("SG_prodhost", found[0].second);
}

// processStorageList's machine; returns group -> (hlu, alu) rows.
std::map<std::string, std::vector<std::pair<int, int>>> read_storage_list(
    Rx& rx, const std::string& text, const std::string& uid_of = "", std::string* uid = nullptr) {
    std::map<std::string, std::vector<std::pair<int, int>>> out;
    int state = 0;
    std::string name, g, g2;
    for (const auto& l : lines(text)) {
        if (rx.m(11, l)) state = 0;
        switch (state) {
        case 0:
            if (rx.m(7, l, &name)) state = 1;
            break;
        case 1:
            if (rx.m(55, l, &g)) {
                if (uid && name == uid_of) *uid = g;
                state = 2;
            }
            break;
        case 2:
            if (rx.m(8, l)) state = 3;
            break;
        case 3:
            if (rx.m(9, l)) state = 4;
            break;
        case 4:
            if (rx.m(10, l, &g, &g2))
                out[name].emplace_back(strtol(g.c_str(), nullptr, 0),
                                       strtol(g2.c_str(), nullptr, 0));
            else
                state = 5;
            break;
        case 5:
            if (rx.m(57, l)) state = 6;
            break;
        case 6:
            if (rx.m(9, l)) state = 7;
            break;
        case 7:
            if (rx.m(58, l, &g)) out[name].emplace_back(strtol(g.c_str(), nullptr, 0), 77777777);
            break;
        }
    }
    return out;
}

TEST_F(SimOutput, StorageGroupList_BothTableFormsAndTheMoverLine) {
    std::string uid;
    auto groups =
        read_storage_list(rx_, tillo("storagegroup -list -host").out, "SG_prodhost", &uid);
    ASSERT_EQ(2u, groups.size());
    const Group& g = st_.groups[0];
    ASSERT_EQ(g.pairs.size(), groups["SG_prodhost"].size());
    EXPECT_EQ(g.pairs[1].alu, groups["SG_prodhost"][1].second);
    EXPECT_EQ(g.uid, uid);

    // The second form: HLUs with the placeholder ALU.
    st_.groups[0].form = 2;
    groups = read_storage_list(rx_, tillo("storagegroup -list -host").out);
    ASSERT_EQ(g.pairs.size(), groups["SG_prodhost"].size());
    EXPECT_EQ(2, groups["SG_prodhost"][2].first);
    EXPECT_EQ(77777777, groups["SG_prodhost"][2].second);
    // The third: rows under the header's indentation, whose number is not
    // captured.
    st_.groups[0].form = 3;
    groups = read_storage_list(rx_, tillo("storagegroup -list -host").out);
    ASSERT_EQ(g.pairs.size(), groups["SG_prodhost"].size());
    for (const auto& p : groups["SG_prodhost"]) EXPECT_EQ(std::make_pair(0, 77777777), p);

    // processMoverUID: the group whose host line holds this host's name.
    int state = 0;
    std::string name, g1, mover;
    for (const auto& l : lines(tillo("storagegroup -list -host").out)) {
        if (rx_.m(11, l)) state = 0;
        if (state == 0 && rx_.m(7, l, &name))
            state = 1;
        else if (state == 1 && rx_.m(55, l))
            state = 2;
        else if (state == 2 && rx_.m(56, l, &g1)) {
            if (g1.find("mover1") != std::string::npos) mover = name;
            state = 0;
        }
    }
    EXPECT_EQ("SG_mover1", mover);
}

TEST_F(SimOutput, AddAndRemoveHlu_ChangeTheListingAndTheHostsDevices) {
    Lun* l = st_.lun(0, 0);
    size_t devs = l->devs.size();
    EXPECT_EQ("", tillo("storagegroup -addhlu -gname SG_mover1 -hlu 9 -alu 0 ").out);
    auto groups = read_storage_list(rx_, tillo("storagegroup -list -host").out);
    EXPECT_EQ(std::make_pair(9, 0), groups["SG_mover1"].back());
    EXPECT_EQ(devs + 1, l->devs.size());
    // A used HLU is refused in words the module's failure expression sees.
    std::string again = tillo("storagegroup -addhlu -gname SG_mover1 -hlu 9 -alu 1").out;
    EXPECT_TRUE(rx_.m(46, lines(again)[0]));
    EXPECT_EQ("", tillo("storagegroup -removehlu -gname SG_mover1 -hlu 9 -o").out);
    EXPECT_EQ(devs, l->devs.size());
}

TEST_F(SimOutput, VolumeMap_BlocksCarryEveryAwaitedKeyInOrder) {
    const char* keys[] = {
        "Device Id:",           "Device Name:", "Device Mapping:",      "LOGICAL UNIT WWN:",
        "LOGICAL UNIT NUMBER:", "Trespassed:",  "LUN Capacity(Blocks):"};
    st_.lun(0, 1)->trespassed = true;
    auto r = tillo("server -volmap -host 10.1.1.5 -local");
    int k = 0, blocks = 0;
    std::map<std::string, std::string> name_to_lun;
    std::string name;
    for (const auto& l : lines(r.out)) {
        if (k < 7 && l.find(keys[k]) != std::string::npos) {
            if (k == 1) name = after_colon(l);
            if (k == 4) name_to_lun[name] = after_colon(l);
            if (k == 5) {
                EXPECT_EQ(name_to_lun[name] == "1" ? "YES" : "NO", after_colon(l));
            }
            if (++k == 7) {
                ++blocks;
                k = 0;
            }
        }
    }
    EXPECT_EQ(8, blocks);  // four LUNs and two clone groups of two on frame 0
    EXPECT_EQ("0", name_to_lun[st_.lun(0, 0)->devs[0].paths[0]]);
    // A device mounted nowhere has an empty mapping; a plain device is its
    // own id.
    st_.lun(0, 2)->mount = "/mnt/two";
    std::vector<std::string> ids, maps;
    for (const auto& l : lines(tillo("server -volmap -host prodhost -local").out)) {
        if (l.find("Device Id:") != std::string::npos) ids.push_back(after_colon(l));
        if (l.find("Device Name:") != std::string::npos) {
            EXPECT_EQ(ids.back(), after_colon(l));
        }
        if (l.find("Device Mapping:") != std::string::npos) maps.push_back(after_colon(l));
    }
    EXPECT_EQ((std::vector<std::string>{"", "", "/mnt/two", "", "", "", "", ""}), maps);
    // The rescan says nothing; a stopped agent says so at the start of a line.
    EXPECT_EQ("", tillo("server -update -host prodhost -rescanDevices -o").out);
    st_.hosts[0].agent_up = false;
    EXPECT_EQ(0u, to_lower(tillo("server -update -host 10.1.1.5 -rescanDevices -o").out)
                      .find("agent not running"));
}

TEST_F(SimOutput, Multipath_EachPathUnderThePseudoDevicesId) {
    InitOptions o;
    o.multipath = true;
    o.host = "prodhost";
    o.host_addr = "10.1.1.5";
    st_ = make_state(o);
    // Each path has its block, under the pseudo device's id.
    std::vector<std::pair<std::string, std::string>> blocks;  // id, name
    for (const auto& l : lines(tillo("server -volmap -host prodhost -local").out)) {
        if (l.find("Device Id:") != std::string::npos) blocks.emplace_back(after_colon(l), "");
        if (l.find("Device Name:") != std::string::npos) blocks.back().second = after_colon(l);
    }
    const HostDev& d = st_.lun(0, 0)->devs[0];
    ASSERT_EQ(2u, d.paths.size());
    ASSERT_LE(2u, blocks.size());
    EXPECT_EQ(std::make_pair(d.pseudo, d.paths[0]), blocks[0]);
    EXPECT_EQ(std::make_pair(d.pseudo, d.paths[1]), blocks[1]);
    EXPECT_NE(std::string::npos, d.pseudo.find("hadrix"));
}

TEST_F(SimOutput, Versions_ToolsAndArraySoftwareMatchTheSurvey) {
    std::string g;
    bool found = false;
    for (const auto& l : lines(tool("tilloseccli", "-help").out)) found = rx_.m(30, l, &g) || found;
    EXPECT_TRUE(found);
    EXPECT_EQ(st_.opt.rev_tillo, g);
    found = false;
    for (const auto& l : lines(tool("gelmot", "help").out)) found = rx_.m(31, l, &g) || found;
    EXPECT_TRUE(found);
    EXPECT_EQ("V2.31.0", g);
    ASSERT_TRUE(rx_.m(32, lines(tool("hadrix", "version").out)[0], &g));
    EXPECT_EQ(st_.opt.rev_hadrix, g);

    st_.packages[1].commit = true;  // a pending commit keeps the package out
    std::map<std::string, std::string> installed;
    int state = 0;
    std::string pkg, rev;
    for (const auto& l : lines(tillo("ndu -list").out)) {
        if (rx_.m(20, l, &pkg)) {
            state = 1;
            continue;
        }
        if (state == 1 && rx_.m(21, l, &rev))
            state = 2;
        else if (state == 2 && rx_.m(33, l, &g))
            state = g == "YES" ? 0 : 3;
        else if (state == 3 && rx_.m(34, l, &g) && g == "YES")
            installed[pkg] = rev;
    }
    EXPECT_EQ("04.30.000.5.523", installed["Base"]);
    EXPECT_EQ(0u, installed.count("Quillset"));
    // The host software the array keeps a record of, by the survey's names.
    EXPECT_EQ("7.33.1.0.12", installed["TILLOCLI"]);
    EXPECT_EQ("3.2.1", installed["ZOVhadrix"]);
    EXPECT_EQ(5u, installed.size());
}

TEST_F(SimOutput, Sessions_StartListActivateDeactivateStop) {
    std::string name(70, 'S');
    auto r = tillo("quillset -startsession " + name + " -lun 1 -persistence");
    EXPECT_TRUE(rx_.m(23, lines(r.out)[0]));
    EXPECT_TRUE(r.changed);
    // A second start of the same name is refused without the success words.
    r = tillo("quillset -startsession " + name + " -lun 1 -persistence");
    for (const auto& l : lines(r.out)) EXPECT_FALSE(rx_.m(23, l));
    std::vector<std::string> names;
    std::string g;
    for (const auto& l : lines(tillo("quillset -listsessions").out))
        if (rx_.m(19, l, &g)) names.push_back(g);
    EXPECT_EQ(std::vector<std::string>{name}, names);

    // The raw device: a folder of ten characters, then the id the volume
    // map gives the snapshot device, whose last character is its slice.
    r = tool("gelmot", "activate -s " + name);
    ASSERT_TRUE(rx_.m(22, lines(r.out)[0], &g));
    const std::string snapdev = st_.lun(0, 1)->snapdev;
    EXPECT_EQ(10u, g.find(snapdev)) << g;
    EXPECT_EQ(snapdev.size() + 11, g.size()) << g;
    std::vector<std::string> ids, devs;
    for (const auto& l : lines(tillo("server -volmap -host prodhost -local").out)) {
        if (l.find("Device Id:") != std::string::npos) ids.push_back(after_colon(l));
        if (l.find("Device Name:") != std::string::npos) devs.push_back(after_colon(l));
    }
    ASSERT_EQ(snapdev, devs.back());
    EXPECT_EQ(g.substr(10, g.size() - 11), ids.back().substr(0, ids.back().size() - 1));
    EXPECT_FALSE(rx_.m(22, lines(tool("gelmot", "activate -s " + name).out)[0]));
    EXPECT_TRUE(rx_.m(25, lines(tool("gelmot", "deactivate -s " + name).out)[0]));
    EXPECT_FALSE(rx_.m(25, lines(tool("gelmot", "deactivate -s " + name).out)[0]));

    // Rollback is silent on success; a refusal is at least three characters.
    EXPECT_EQ("", tillo("quillset -startrollback " + name + " -rate medium -o").out);
    EXPECT_GE(tillo("quillset -startrollback nosuch -rate medium -o").out.size(), 3u);
    EXPECT_EQ("", tillo("quillset -stopsession " + name + " -o").out);
    EXPECT_TRUE(st_.sessions.empty());
}

TEST_F(SimOutput, SnapshotList_FeedsBothSnapshotParsers) {
    st_.lun(0, 2)->snapname.clear();  // no configuration for LUN 2
    std::map<int, std::string> snap_id_to_name;
    int state = 0;
    std::string snap_id;
    for (const auto& l : lines(tillo("quillset -listsnapshots -lun").out)) {
        if (l.find("Quillset logical unit name:") != std::string::npos)
            state = 0;
        else if (state == 0 && l.find("Sources:") != std::string::npos) {
            snap_id = after_colon(l);
            state = 1;
        } else if (state == 1 && l.find("Target Logical Unit:") != std::string::npos) {
            snap_id_to_name.emplace(atoi(after_colon(l).c_str()), snap_id);
            state = 0;
        }
    }
    EXPECT_EQ(3u, snap_id_to_name.size());
    EXPECT_EQ(0u, snap_id_to_name.count(2));
    // isSnappable: the key with its two blanks, in the filtered listing.
    std::string one = tillo("quillset -listsnapshots -lun 1").out;
    EXPECT_NE(std::string::npos, one.find("Target Logical Unit:  "));
    EXPECT_EQ("", tillo("quillset -listsnapshots -lun 2").out);
    std::string g;
    bool named = false;
    for (const auto& l : lines(one)) named = rx_.m(13, l, &g) || named;
    EXPECT_TRUE(named);
}

// processGetCloneGroupInfo's machine: rows of (group uid, clone id, state, condition, lun,
// fractured).
struct Row {
    std::string grp, id, state, cond, frac;
    int lun = -1, src = -1;
};

std::vector<Row> read_clone_groups(Rx& rx, const std::string& text) {
    std::vector<Row> out;
    Row cur;
    int state = 0;
    std::string g;
    for (const auto& l : lines(text)) {
        if (state != 0 && rx.m(35, l)) state = 0;
        switch (state) {
        case 0:
            if (rx.m(35, l)) state = 1;
            break;
        case 1:
            if (rx.m(37, l, &cur.grp)) state = 2;
            break;
        case 2:
            if (rx.m(40, l, &g)) {
                cur.src = atoi(g.c_str());
                state = 3;
            }
            break;
        case 3: state = l.find("Not Availabl") != std::string::npos ? 0 : 4; break;
        case 4:
            if (rx.m(36, l, &cur.id)) state = 5;
            break;
        case 5:
            if (rx.m(38, l, &cur.state)) state = 6;
            break;
        case 6:
            if (rx.m(44, l, &cur.cond)) state = 7;
            break;
        case 7:
            if (rx.m(48, l, &g)) {
                cur.lun = static_cast<int>(strtol(g.c_str(), nullptr, 0));
                state = 8;
            }
            break;
        case 8:
            if (rx.m(45, l, &cur.frac)) {
                out.push_back(cur);
                state = 4;
            }
            break;
        }
    }
    return out;
}

TEST_F(SimOutput, CloneGroupListing_OneRowPerCloneAndTheCloneableMark) {
    auto text = tillo("quillset -listclonegroup -CloneLunWWNs").out;
    auto rows = read_clone_groups(rx_, text);
    ASSERT_EQ(4u, rows.size());
    EXPECT_EQ(cg0().uid, rows[0].grp);
    EXPECT_EQ(cg0().clones[1].id, rows[1].id);
    EXPECT_EQ("Synchronized", rows[0].state);
    EXPECT_EQ("Normal", rows[0].cond);
    EXPECT_EQ("No", rows[0].frac);
    EXPECT_EQ(cg0().clones[0].lun, rows[0].lun);
    // processGetCloneList: the line right after Sources: must be Clones:.
    auto ln = lines(text);
    int marked = 0;
    for (size_t i = 0; i + 1 < ln.size(); ++i)
        if (rx_.m(40, ln[i]) && rx_.m(43, ln[i + 1])) ++marked;
    EXPECT_EQ(2, marked);
    std::string w;
    bool wwn = false;
    for (const auto& l : ln) wwn = rx_.m(54, l, &w) || wwn;
    EXPECT_TRUE(wwn);
    // A group without clones says so where the machine looks.
    st_.clonegroups[0].clones.clear();
    EXPECT_EQ(2u,
              read_clone_groups(rx_, tillo("quillset -listclonegroup -CloneLunWWNs").out).size());
}

TEST_F(SimOutput, CloneSourcesAndCounts_ForCapabilityQueries) {
    std::vector<std::string> sources;
    for (const auto& l :
         lines(tool("tilloseccli", "-h " + addr_ + "  quillset -listclonegroup -Sources ").out))
        if (l.find("Sources:") != std::string::npos) sources.push_back(after_colon(l));
    EXPECT_EQ((std::vector<std::string>{"0", "1"}), sources);
    std::map<int, int> counts;
    int state = 0;
    std::string dev;
    for (const auto& l : lines(tillo("quillset -listclonegroup -Sources -CloneCount").out)) {
        if (l.find("Name:") != std::string::npos)
            state = 0;
        else if (state == 0 && l.find("Sources:") != std::string::npos) {
            dev = after_colon(l);
            state = 1;
        } else if (state == 1 && l.find("CloneCount:") != std::string::npos) {
            counts.emplace(atoi(dev.c_str()), atoi(after_colon(l).c_str()));
            state = 0;
        }
    }
    EXPECT_EQ(2, counts[0]);
    EXPECT_EQ(2, counts[1]);
}

// processGetCloneInfo: one record in its own line order.
Row read_clone(Rx& rx, const std::string& text) {
    Row r;
    int state = 0;
    std::string g;
    for (const auto& l : lines(text)) {
        switch (state) {
        case 0:
            if (rx.m(35, l)) state = 1;
            break;
        case 1:
            if (rx.m(37, l, &r.grp)) state = 2;
            break;
        case 2:
            if (rx.m(36, l, &r.id)) state = 3;
            break;
        case 3:
            if (rx.m(38, l, &r.state)) state = 4;
            break;
        case 4:
            if (rx.m(44, l, &r.cond)) state = 5;
            break;
        case 5:
            if (rx.m(45, l, &r.frac)) state = 6;
            break;
        case 6:
            if (rx.m(48, l, &g)) {
                r.lun = atoi(g.c_str());
                state = 0;
            }
            break;
        }
    }
    return r;
}

TEST_F(SimOutput, CloneLifecycle_FractureSyncReverseSyncAdvanceByListings) {
    st_.opt.sync_steps = 2;
    const std::string gid = cg0().uid, id = cg0().clones[0].id;
    std::string sel = "-CloneGroupUid " + gid + " -CloneId " + id;
    auto info = [&] { return read_clone(rx_, tillo("quillset -listclone " + sel + " ").out); };
    Row r = info();
    EXPECT_EQ(id, r.id);
    EXPECT_EQ(gid, r.grp);

    EXPECT_EQ("", tillo("quillset -fractureclone " + sel + " -o").out);
    r = info();
    EXPECT_EQ("Consistent", r.state);
    EXPECT_EQ("Administratively Fractured", r.cond);
    EXPECT_EQ("Yes", r.frac);
    // Fracturing twice fails in the words verifyCloneCmd looks for.
    bool failed = false;
    for (const auto& l : lines(tillo("quillset -fractureclone " + sel + " -o").out))
        failed = rx_.m(46, l) || failed;
    EXPECT_TRUE(failed);

    EXPECT_EQ("",
              tillo("quillset -syncclone -CloneGroupuid " + gid + " -CloneId " + id + " -o").out);
    r = info();  // the first listing is the first step
    EXPECT_EQ("Synchronizing", r.state);
    EXPECT_EQ("Synchronizing", r.cond);
    EXPECT_EQ("No", r.frac);
    r = info();
    EXPECT_EQ("Synchronized", r.state);
    EXPECT_EQ("Normal", r.cond);

    // Reverse sync fractures the group's other clone and takes steps too.
    tillo("quillset -fractureclone " + sel + " -o");
    EXPECT_EQ(
        "",
        tillo("quillset -reversesyncclone -CloneGroupuid " + gid + " -CloneId " + id + " -o").out);
    EXPECT_TRUE(st_.clonegroups[0].clones[1].fractured);
    EXPECT_FALSE(advance_clones(st_, 0));
    EXPECT_TRUE(advance_clones(st_, 2));
    r = info();
    EXPECT_EQ("Synchronized", r.state);
    EXPECT_EQ("No", r.frac);
}

TEST_F(SimOutput, SyncRate_ReservationRoundTrip) {
    std::string sel = "-CloneGroupUid " + cg0().uid + " -CloneId " + cg0().clones[0].id;
    EXPECT_EQ("", tillo("quillset -changeclone " + sel + " -SyncRate 3981 -o").out);
    std::string g;
    bool got = false;
    for (const auto& l : lines(tillo("quillset -listclone " + sel + " -SyncRate").out))
        got = rx_.m(53, l, &g) || got;
    ASSERT_TRUE(got);
    EXPECT_EQ("3981", g.substr(0, 4));
    tillo("quillset -changeclone " + sel + " -SyncRate high -o");
    EXPECT_EQ("high", cg0().clones[0].rate);
}

TEST_F(SimOutput, ConsistentFracture_TheThreeFailureTextsAndSuccess) {
    const CloneGroup& a = st_.clonegroups[0];
    const CloneGroup& b = st_.clonegroups[1];
    auto cf = [&](const std::string& args) {
        std::string out = tillo("quillset -consistentfractureclones " + args + " -o").out;
        for (const char* t :
             {"Consistent Fracture clones failed",
              "Multiple clones must be specified to perform a consistent fracture. For a single "
              "clone "
              "fracture you need to use the command -fractureclone.",
              "This switch needs multiple pairs of clone group name and clone ID to be specified."})
            if (out.find(t) != std::string::npos) return std::string(t).substr(0, 12);
        return out;
    };
    EXPECT_EQ("Multiple clo", cf("-CloneGroupUidCloneId " + a.uid + " " + a.clones[0].id));
    EXPECT_EQ("This switch ", cf("-CloneGroupUidCloneId " + a.uid));
    std::string two = "-CloneGroupUidCloneId " + a.uid + " " + a.clones[0].id + " " + b.uid + " " +
                      b.clones[0].id + " ";
    EXPECT_EQ("", cf(two));
    EXPECT_TRUE(st_.clonegroups[0].clones[0].fractured);
    EXPECT_TRUE(st_.clonegroups[1].clones[0].fractured);
    EXPECT_EQ("Consistent F", cf(two));  // already fractured: not in sync
}

TEST_F(SimOutput, AdvancedSnapshots_CreateListAttachRestoreDestroy) {
    // LUN 0 has an SMP and no group; LUNs 2 and 3 form CG0_0.
    std::vector<std::string> smp, cg;
    auto q = tillo("lun -list -l 0 -snapMountPoints -belongsToCG").out;
    for (const auto& l : lines(q)) {
        if (l.find("Snapshot Mount Points:  ") != std::string::npos) smp.push_back(after_colon(l));
        if (l.find("Consistency Group:  ") != std::string::npos) cg.push_back(after_colon(l));
    }
    EXPECT_EQ(std::vector<std::string>{"10000"}, smp);
    EXPECT_EQ(std::vector<std::string>{"N/A"}, cg);
    EXPECT_NE(std::string::npos, tillo("lun -list -l 3 -snapMountPoints -belongsToCG")
                                     .out.find("Consistency Group:  CG0_0"));
    EXPECT_NE(std::string::npos, tillo("lun -list -l 0").out.find("LOGICAL UNIT NUMBER"));
    EXPECT_EQ(std::string::npos, tillo("lun -list -l 999").out.find("LOGICAL UNIT NUMBER"));

    EXPECT_EQ("\n", tillo("snap -create -res CG0_0 -name snapA -allowReadWrite yes").out);
    EXPECT_NE("\n", tillo("snap -create -res CG0_0 -name snapA -allowReadWrite yes").out);
    EXPECT_EQ("", tool("tilloseccli", "flush -o /dev/sdb").out);
    // verifyKVTSession: the name on some line; a missing one never echoes it.
    EXPECT_NE(std::string::npos, tillo("snap -list -id snapA").out.find("snapA"));
    EXPECT_EQ(std::string::npos, tillo("snap -list -id snapB").out.find("snapB"));
    std::string listing = tillo("snap -list -id snapA").out;
    size_t p = listing.find("Source LUN(s):  ");
    ASSERT_NE(std::string::npos, p);
    EXPECT_EQ(2, atoi(listing.c_str() + listing.find(':', p) + 1));

    // processAttachSnapshotsession: text 7 after "device", blanks and final dot gone.
    std::string dst;
    for (const auto& l : lines(tool("fenlok", "attach -s snapA").out))
        if (l.find("Attached snapshot") != std::string::npos) {
            dst.clear();
            for (char c : l.substr(l.find("device") + 7))
                if (c != '\n' && c != '\r' && c != ' ') dst += c;
            if (!dst.empty() && dst.back() == '.') dst.pop_back();
        }
    EXPECT_EQ(std::string(kDir) + "/dev/" + st_.lun(0, 3)->smpdev, dst);
    EXPECT_NE("", tillo("snap -destroy -id snapA -o").out);  // attached
    EXPECT_EQ(0, tool("fenlok", "detach -s snapA").status);
    EXPECT_EQ("", tillo("snap -restore -id snapA -res 2 -o").out);
    EXPECT_GE(tillo("snap -restore -id snapA -res -1 -o").out.size(), 3u);
    EXPECT_EQ("", tillo("snap -destroy -id snapA -o").out);
    EXPECT_TRUE(st_.kvtsnaps.empty());
}

}  // namespace
