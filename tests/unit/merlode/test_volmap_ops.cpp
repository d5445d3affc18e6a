// Volume map operations against the array simulator: the refresh and read
// of each frame, the host agent down, a frame down, the mount host's lookup
// of a clone, and faults of the tool.
#include <algorithm>
#include <map>
#include <sstream>

#include <gtest/gtest.h>

#include "tests/unit/merlode/sg_sim.h"

using sgsim::Sim;
using sgtest::Quillset;

namespace {

const std::string kFrame0 = SimArray::addr(0);
const std::string kFrame1 = SimArray::addr(1);

int code_of(SSError* err) {
    int c = err != nullptr ? (int)err->getErrCode() : 0;
    delete err;
    return c;
}

// The WWN of LUN `num` as the array's own tool reports it; the state file
// leaves out what follows from the number.
std::string wwn_of(const SimArray& array, const std::string& frame, const std::string& num) {
    // A tool takes its state folder from the environment, as the module's do.
    zovtest::ChildOptions o;
    o.env = zovtest::current_env();
    zovtest::set_var(o.env, "ARRAYSIM_STATE", array.dir());
    std::string out =
        zovtest::run_child({SimArray::program(), "tilloseccli", "-h", frame, "getlun", "-uid"}, o)
            .out;
    std::string key = "LOGICAL UNIT NUMBER " + num + "\n";
    size_t at = out.find(key);
    if (at == std::string::npos) return "";
    size_t uid = out.find("UID:", at);
    if (uid == std::string::npos) return "";
    size_t b = out.find_first_not_of(" \t", uid + 4);
    return out.substr(b, out.find_first_of("\r\n", b) - b);
}

std::string no_colons(std::string s) {
    s.erase(std::remove(s.begin(), s.end(), ':'), s.end());
    return s;
}

struct VolMapSim : ::testing::Test {
    std::unique_ptr<Sim> sim;
    void SetUp() override {
        SKIP_WITHOUT_SIM();
        sim.reset(
            new Sim({"--frames", "2", "--luns", "1", "--clone-groups", "1", "--clones", "1"}));
        ASSERT_TRUE(sim->ok());
        sim->array.clear_commands();
    }
    // This host's device of LUN `lun`, from the state.
    std::string device_of(const std::string& lun) {
        bool in_lun = false;
        std::ifstream in(sim->array.dir() + "/state");
        for (std::string l; std::getline(in, l);) {
            if (l.compare(0, 4, "lun ") == 0)
                in_lun = l.find(" num=" + lun + " ") != std::string::npos;
            if (in_lun && l.compare(0, 17, "dev host=0 paths=") == 0) return l.substr(17);
        }
        return "";
    }
};

TEST_F(VolMapSim, InitVolMapRefreshesAndReadsEachFrame) {
    const std::string wwn0 = no_colons(wwn_of(sim->array, kFrame0, "0"));
    sim->array.clear_commands();
    Quillset q({kFrame1, kFrame0});
    std::string dev = device_of("0");
    ASSERT_FALSE(dev.empty());
    EXPECT_EQ(q->initVolMap(dev), nullptr);
    EXPECT_EQ(q->m_volMapInited, 1);
    ASSERT_EQ(q->m_volMapList.size(), 1u);
    const Hadrix& h = q->m_volMapList[0];
    EXPECT_EQ(h.deviceName, dev);
    EXPECT_EQ(h.arrayLun, 0);
    EXPECT_EQ(h.arrayLunUID, wwn0);
    EXPECT_EQ(h.lunSize, "2097152");
    ASSERT_EQ(h.patharray.size(), 1u);
    EXPECT_EQ(h.patharray[0].pathname, dev);
    // The WWN table was read from both frames before the map.
    EXPECT_GE(q->m_arrayLunUID.size(), 4u);

    std::vector<std::string> cmds = sim->array.commands();
    ASSERT_EQ(cmds.size(), 6u);
    EXPECT_EQ(cmds[0], "tilloseccli -h " + kFrame0 + " getlun -uid");
    EXPECT_EQ(cmds[1], "tilloseccli -h " + kFrame1 + " getlun -uid");
    for (int f = 0; f < 2; f++) {
        const std::string& addr = f == 0 ? kFrame0 : kFrame1;
        EXPECT_EQ(cmds[2 + 2 * f].find("tilloseccli -h " + addr + " server -update -host "), 0u);
        EXPECT_NE(cmds[2 + 2 * f].find(" -rescanDevices -o"), std::string::npos);
        EXPECT_EQ(cmds[3 + 2 * f].find("tilloseccli -h " + addr + " server -volmap -host "), 0u);
        EXPECT_NE(cmds[3 + 2 * f].find(" -local"), std::string::npos);
    }
    EXPECT_EQ(q.log.count("hostagent"), 0);

    // Each call refreshes and adds: the map accumulates.
    EXPECT_EQ(q->initVolMap(dev), nullptr);
    EXPECT_EQ(q->m_volMapList.size(), 2u);
}

TEST_F(VolMapSim, HostAgentDownIsLoggedOnlyByTheInvertedTestAndTheMapIsStillAsked) {
    sim->admin({"set", "host", sgsim::host(), "agent=0"});
    Quillset q({kFrame0});
    // The answer starts with the words the test passes on.
    EXPECT_EQ(code_of(q->initVolMap(device_of("0"))), SS_EC_SNAPSHOT_NOT_SUPPORTED);
    EXPECT_EQ(q.log.count("hostagent process is down"), 0);
    EXPECT_EQ(sgsim::commands_with(sim->array, "server -volmap").size(), 1u);
    EXPECT_EQ(q.log.count("Unable to find information about [", 3), 1);
}

TEST_F(VolMapSim, FrameDownTakesTheAgentDownPathAndTheNextFrameServes) {
    sim->admin({"set", "frame", "0", "down=1"});
    Quillset q({kFrame0, kFrame1});
    std::string dev = device_of(sgsim::records(sim->array, "lun")[2]["num"]);  // a LUN of frame 1
    ASSERT_EQ(sgsim::records(sim->array, "lun")[2]["frame"], "1");
    // A gathering query stops at the frame that failed: the WWN table is
    // read anyway, as its parser can't fail.
    EXPECT_EQ(q->initVolMap(dev), nullptr);
    EXPECT_EQ(q.log.count("because the tilloseccli hostagent process is down", 3), 1);
    ASSERT_EQ(q->m_volMapList.size(), 1u);
    EXPECT_EQ(q->m_volMapList[0].deviceName, dev);
}

TEST_F(VolMapSim, DeviceOnNoFrameIsNotSupported) {
    Quillset q({kFrame0, kFrame1});
    SSError* err = q->initVolMap("/dev/nosuchdev");
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_SNAPSHOT_NOT_SUPPORTED);
    EXPECT_NE(
        std::string(err->getErrMsg()).find("zov_quillset backup object is not on a Merlode LUN."),
        std::string::npos);
    delete err;
    EXPECT_EQ(sgsim::commands_with(sim->array, "server -volmap").size(), 2u);
}

TEST_F(VolMapSim, GarbageAndOverlongLinesNeitherCrashNorInventDevices) {
    std::string dev = device_of("0");
    sim->admin({"fault", "add", "tilloseccli", "longline", "--arg", "3000"});
    Quillset q({kFrame0});
    EXPECT_EQ(q->initVolMap(dev), nullptr);
    EXPECT_EQ(q->m_volMapList.size(), 1u);
    // The long first line of -update is not the agent's words.
    EXPECT_EQ(q.log.count("hostagent process is down", 3), 1);

    sim->admin({"fault", "clear"});
    sim->admin({"fault", "add", "tilloseccli", "garbage", "--match", "-volmap"});
    Quillset g({kFrame0});
    EXPECT_EQ(code_of(g->initVolMap(dev)), SS_EC_SNAPSHOT_NOT_SUPPORTED);
    EXPECT_TRUE(g->m_volMapList.empty());
}

TEST_F(VolMapSim, MissingToolIsAConfigurationErrorOrAnEmptyAnswer) {
    sim->admin({"fault", "add", "tilloseccli", "missing"});
    sim->array.clear_commands();
    Quillset q({kFrame0});
    if (!q->GetTilloCliExe().empty()) GTEST_SKIP() << "a real tilloseccli is installed";
    EXPECT_EQ(code_of(q->initVolMap("sdd")), SS_EC_INVALID_CONFIGURATION);
    EXPECT_EQ(q->proxyCloneInitVolMap(0, 0), "");
    EXPECT_EQ(q->m_volMapInited, 0);
    EXPECT_TRUE(sim->array.commands().empty());
}

TEST_F(VolMapSim, ProxyLookupFindsTheCloneOnceThenNeedsAFreshLook) {
    Quillset q({kFrame0, kFrame1});
    // The clone LUN of frame 0 is in this host's group too.
    std::string clone_lun = sgsim::field(sim->array, "clone", "id", "0100000000000000", "lun");
    ASSERT_FALSE(clone_lun.empty());
    std::string dev = device_of(clone_lun);
    EXPECT_EQ(q->proxyCloneInitVolMap(atoi(clone_lun.c_str()), 0), dev);
    EXPECT_EQ(q->m_volMapInited, 1);
    // Found on the first frame: the second isn't asked.
    EXPECT_TRUE(sgsim::commands_with(sim->array, kFrame1).empty());
    EXPECT_EQ(q->proxyCloneInitVolMap(atoi(clone_lun.c_str()), 0), "");
    // A LUN of no frame: every frame asked, nothing found.
    Quillset other({kFrame0, kFrame1});
    EXPECT_EQ(other->proxyCloneInitVolMap(4242, 0), "");
    EXPECT_EQ(other->m_volMapInited, 0);
    // No frame at all: no endless walk.
    Quillset none(std::vector<std::string>{});
    EXPECT_EQ(none->proxyCloneInitVolMap(atoi(clone_lun.c_str()), 0), "");
}

// A multipath LUN shows the pseudo device as the id of each of its paths'
// blocks: the id and the name are read into different fields, and each
// lookup answers with the one it is meant to.
struct VolMapSimMultipath : ::testing::Test {
    std::unique_ptr<Sim> sim;
    std::vector<std::string> paths;
    std::string pseudo;
    void SetUp() override {
        SKIP_WITHOUT_SIM();
        sim.reset(new Sim({"--frames", "1", "--luns", "1", "--clone-groups", "0", "--multipath"}));
        ASSERT_TRUE(sim->ok());
        for (auto& r : sgsim::records(sim->array, "dev"))
            if (r["host"] == "0" && !r["pseudo"].empty() && pseudo.empty()) {
                pseudo = r["pseudo"];
                std::istringstream in(r["paths"]);
                for (std::string p; std::getline(in, p, ',');) paths.push_back(p);
            }
        ASSERT_EQ(paths.size(), 2u);
    }
};

TEST_F(VolMapSimMultipath, SourceIsFoundByItsPathNameUnderThePseudoId) {
    Quillset q({kFrame0});
    ASSERT_EQ(q->initVolMap(paths[1]), nullptr);
    ASSERT_EQ(q->m_volMapList.size(), 1u);
    EXPECT_EQ(q->m_volMapList[0].pseudoNm, pseudo);
    EXPECT_EQ(q->m_volMapList[0].deviceName, paths[1]);
    // The pseudo device is no block's name.
    Quillset none({kFrame0});
    EXPECT_NE(code_of(none->initVolMap(pseudo)), 0);
}

TEST_F(VolMapSimMultipath, ProxyLookupAnswersAPseudoSourceWithAPathAndSkipsItForAPhysicalOne) {
    Quillset q({kFrame0});
    EXPECT_EQ(q->proxyCloneInitVolMap(0, 1), paths[0]);
    // A physical source passes over every block whose id is a pseudo device.
    Quillset physical({kFrame0});
    EXPECT_EQ(physical->proxyCloneInitVolMap(0, 0), "");
    EXPECT_TRUE(physical->m_volMapList.empty());
}

// The mount table: devices mounted somewhere are read by their mapping, the
// others stay in the map. An unmapped device has an empty mapping.
TEST_F(VolMapSim, WholeMapReadsMountedDevicesByMappingAndKeepsTheRest) {
    std::string dev = device_of("0");
    ASSERT_EQ(sim->admin({"set", "lun", "0", "0", "mount=/mnt/data"}), 0);
    Quillset q({kFrame0, kFrame1});
    delete q->initVolMap(CONFIGWIZARD);
    EXPECT_EQ(q->m_mountToLun, (std::map<std::string, int>{{"/mnt/data", 0}}));
    ASSERT_FALSE(q->m_volMapList.empty());
    for (const Hadrix& h : q->m_volMapList) EXPECT_NE(h.deviceName, dev);
}

}  // namespace
