// Device identity through the real cdi_open -> cdi_cmd path: this binary runs
// itself again with the simulator's fake device layer preloaded, against a
// simulated array; and the reading of INQUIRY bytes over hand-made data.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <memory>
#include <sstream>

#include <gtest/gtest.h>

#include "storage/ssm/merlode/cli/gw_internal.h"
#include "storage/ssm/merlode/cli/zov_quillset.h"
#include "tests/unit/merlode/gw_test_util.h"
#include "tests/unit/merlode/sim_fixture.h"

namespace {

TEST(GwDevId, ThroughTheFakeDeviceLayer) {
    SKIP_WITHOUT_SIM();
    if (access(SimArray::preload_library().c_str(), R_OK) != 0)
        GTEST_SKIP() << "fake device layer not built";
    std::string out;
    int rc = SimArray::run_preloaded("GwDevIdPreloaded.*", out);
    EXPECT_EQ(rc, 0) << out;
    // The inner tests ran, none was skipped.
    EXPECT_NE(out.find("[  PASSED  ] 3 tests"), std::string::npos) << out;
    EXPECT_EQ(out.find("SKIPPED"), std::string::npos) << out;
}

// ---------------------------------------------------------------- inside

// One device of the simulated array as its state describes it.
struct SimDevice {
    std::string path;
    int lun = -1;
    std::string frame_ip;
};

// The array's devices by kind, read from the state file: a path of one LUN
// of frame 1, the pseudo device of another LUN of that frame, and a device
// of another vendor.
struct SimDevices {
    SimDevice path, pseudo, foreign;
};

std::map<std::string, std::string> fields_of(const std::string& line) {
    std::map<std::string, std::string> f;
    std::istringstream in(line);
    std::string word;
    in >> word;
    while (in >> word) {
        size_t eq = word.find('=');
        if (eq != std::string::npos) f[word.substr(0, eq)] = word.substr(eq + 1);
    }
    return f;
}

SimDevices read_devices(const SimArray& sim) {
    SimDevices d;
    std::ifstream in(sim.dir() + "/state");
    std::map<std::string, std::string> lun;
    for (std::string line; std::getline(in, line);) {
        std::string kind = line.substr(0, line.find(' '));
        auto f = fields_of(line);
        if (kind == "lun") lun = f;
        if (kind == "foreign" && d.foreign.path.empty())
            d.foreign.path = sim.dir() + "/dev/" + f["name"];
        if (kind != "dev" || lun["frame"] != "1") continue;
        SimDevice one;
        one.lun = atoi(lun["num"].c_str());
        one.frame_ip = SimArray::addr(1, lun["trespassed"] == "1" ? 2 : 1);
        std::string first_path = f["paths"].substr(0, f["paths"].find(','));
        if (d.path.path.empty() && !first_path.empty()) {
            d.path = one;
            d.path.path = sim.dir() + "/dev/" + first_path;
        }
        if (d.pseudo.path.empty() && !f["pseudo"].empty() && one.lun != d.path.lun) {
            d.pseudo = one;
            d.pseudo.path = sim.dir() + "/dev/" + f["pseudo"];
        }
    }
    return d;
}

class GwDevIdPreloaded : public ::testing::Test {
protected:
    void SetUp() override {
        if (!SimArray::preloaded()) GTEST_SKIP() << "runs under the fake device layer";
        sim.reset(new SimArray({"--frames", "2", "--luns", "3", "--foreign", "1", "--multipath"}));
        ASSERT_TRUE(sim->ok());
        devs = read_devices(*sim);
        ASSERT_FALSE(devs.path.path.empty());
        ASSERT_FALSE(devs.pseudo.path.empty());
        ASSERT_FALSE(devs.foreign.path.empty());
        // A trespassed LUN answers with its frame's second address.
        std::string out;
        ASSERT_EQ(
            sim->admin({"set", "lun", "1", std::to_string(devs.pseudo.lun), "trespassed=1"}, &out),
            0)
            << out;
        devs.pseudo.frame_ip = SimArray::addr(1, 2);
        q.reset(new zov_quillset(&LogCapture::fn, &log));
        std::vector<std::string> frames{SimArray::addr(0), SimArray::addr(1)};
        SSError* err = q->init(frames, nullptr);
        ASSERT_EQ(err, nullptr) << err->getErrMsg();
    }
    LogCapture log;
    std::unique_ptr<SimArray> sim;
    std::unique_ptr<zov_quillset> q;
    SimDevices devs;
};

TEST_F(GwDevIdPreloaded, ArrayDevicesGiveLunAndOwningFrame) {
    for (const SimDevice* d : {&devs.path, &devs.pseudo}) {
        SCOPED_TRACE(d->path);
        unsigned int lun = 99999;
        char* ip = nullptr;
        SSError* err = q->merlode_devpathname2lun(d->path.c_str(), &lun, &ip);
        ASSERT_EQ(err, nullptr) << err->getErrMsg();
        EXPECT_EQ(static_cast<int>(lun), d->lun);
        ASSERT_NE(ip, nullptr);
        EXPECT_EQ(std::string(ip), d->frame_ip);
        free(ip);
        // Without a place for the address the number still comes back.
        EXPECT_EQ(q->merlode_devpathname2lun(d->path.c_str(), &lun, nullptr), nullptr);
        EXPECT_EQ(static_cast<int>(lun), d->lun);

        std::string name = "stale";
        EXPECT_EQ(q->normalizeSrc(d->path, name), nullptr);
        EXPECT_EQ(name, d->path);  // the normal form is the device itself
        EXPECT_EQ(q->getSrcLun(d->path), d->lun);
    }
    EXPECT_TRUE(log.has("is control by frameIP [" + devs.path.frame_ip + "], and has LUN ID [" +
                            std::to_string(devs.path.lun) + "]",
                        5));
    // Both kinds of device lie on frame 1, of which one LUN is trespassed.
    EXPECT_NE(devs.path.frame_ip, devs.pseudo.frame_ip);

    // The serial number comes from the array once the device is known to it.
    // The serial number comes from the array once the device is known to it:
    // the row under the rule, behind the storage processor's host name.
    ASSERT_EQ(sim->admin({"set", "frame", "0", "serial=QXR-ZERO"}), 0);
    ASSERT_EQ(sim->admin({"set", "frame", "1", "serial=QXR-ONE"}), 0);
    EXPECT_EQ(q->getMerlSerialNumber(devs.path.path), "QXR-ZERO");
}

TEST_F(GwDevIdPreloaded, ForeignDeviceIsNotTheArrays) {
    unsigned int lun = 7;
    char* ip = nullptr;
    SSError* err = q->merlode_devpathname2lun(devs.foreign.path.c_str(), &lun, &ip);
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_INVALID_ACCESS_PATH);
    EXPECT_EQ(std::string(err->getErrMsg()), "Not a Merlode device [" + devs.foreign.path + "]");
    delete err;
    EXPECT_EQ(lun, 0u);
    EXPECT_EQ(ip, nullptr);

    std::string name = "stale";
    err = q->normalizeSrc(devs.foreign.path, name);
    ASSERT_NE(err, nullptr);
    EXPECT_EQ(err->getErrCode(), SS_EC_SNAPSHOT_NOT_SUPPORTED);
    EXPECT_EQ(std::string(err->getErrMsg()),
              "zov_quillset::normalizeSrc: Failed to obtain information about LUN [" +
                  devs.foreign.path + "]");
    delete err;
    EXPECT_EQ(name, "");
    EXPECT_EQ(q->getSrcLun(devs.foreign.path), -1);
    sim->clear_commands();
    EXPECT_EQ(q->getMerlSerialNumber(devs.foreign.path), "");
    EXPECT_TRUE(sim->commands().empty());  // nothing asked of the array
}

TEST_F(GwDevIdPreloaded, VanishedDevicesCannotBeOpened) {
    int fds = open_fd_count();
    // A file the array no longer lists, and one that is gone altogether.
    std::string stale = sim->dir() + "/dev/sdzzz";
    std::ofstream(stale).close();
    for (const std::string& path : {stale, sim->dir() + "/dev/gone"}) {
        SCOPED_TRACE(path);
        unsigned int lun = 7;
        char* ip = nullptr;
        SSError* err = q->merlode_devpathname2lun(path.c_str(), &lun, &ip);
        ASSERT_NE(err, nullptr);
        EXPECT_EQ(err->getErrCode(), SS_EC_INVALID_ACCESS_PATH);
        EXPECT_NE(std::string(err->getErrMsg()).find("cdi_open(\"" + path + "\") failed"),
                  std::string::npos)
            << err->getErrMsg();
        delete err;
        EXPECT_EQ(ip, nullptr);
        EXPECT_EQ(q->getSrcLun(path), -1);
        EXPECT_EQ(q->getMerlSerialNumber(path), "");
    }
    EXPECT_EQ(open_fd_count(), fds);
}

// ---------------------------------------------------------------- bytes

std::vector<unsigned char> inquiry_of(const char* vendor, int lun, const unsigned char ip[4]) {
    std::vector<unsigned char> d(144, 0);
    memset(&d[8], ' ', 8);
    memcpy(&d[8], vendor, strlen(vendor));
    d[121] = static_cast<unsigned char>(lun >> 8);
    d[122] = static_cast<unsigned char>(lun & 0xff);
    memcpy(&d[140], ip, 4);
    return d;
}

TEST(GwDevIdBytes, ReadsVendorLunAndAddress) {
    const unsigned char ip[4] = {198, 18, 255, 2};
    unsigned int lun = 0;
    std::string addr;
    auto d = inquiry_of("QXR", 0x1234, ip);
    ASSERT_TRUE(gw_decode_array_inquiry(d.data(), d.size(), &lun, &addr));
    EXPECT_EQ(lun, 0x1234u);  // high byte first
    EXPECT_EQ(addr, "198.18.255.2");
    d = inquiry_of("QXR", 65535, ip);
    ASSERT_TRUE(gw_decode_array_inquiry(d.data(), d.size(), &lun, nullptr));
    EXPECT_EQ(lun, 65535u);
    // Only the first three characters of the vendor count.
    d = inquiry_of("QXRSTOR", 3, ip);
    EXPECT_TRUE(gw_decode_array_inquiry(d.data(), d.size(), nullptr, nullptr));
    for (const char* other : {"ATA", "QX", "qxr", "XQXR"}) {
        d = inquiry_of(other, 3, ip);
        lun = 77;
        EXPECT_FALSE(gw_decode_array_inquiry(d.data(), d.size(), &lun, &addr)) << other;
        EXPECT_EQ(lun, 77u);  // another vendor never reaches the array's bytes
    }
}

TEST(GwDevIdBytes, ShortDataReadsNoFurtherThanItCame) {
    const unsigned char ip[4] = {10, 1, 2, 3};
    auto d = inquiry_of("QXR", 42, ip);
    unsigned int lun = 0;
    std::string addr;
    // Cut inside the vendor: not the array's.
    for (size_t len : {0, 8, 10}) {
        std::vector<unsigned char> cut(d.begin(), d.begin() + len);
        EXPECT_FALSE(gw_decode_array_inquiry(cut.data(), cut.size(), &lun, &addr)) << len;
    }
    EXPECT_FALSE(gw_decode_array_inquiry(nullptr, 0, &lun, &addr));
    // The standard 36 bytes only: the array's bytes are missing and read as
    // zero; half an address keeps what came.
    std::vector<unsigned char> std36(d.begin(), d.begin() + 36);
    ASSERT_TRUE(gw_decode_array_inquiry(std36.data(), std36.size(), &lun, &addr));
    EXPECT_EQ(lun, 0u);
    EXPECT_EQ(addr, "0.0.0.0");
    std::vector<unsigned char> half(d.begin(), d.begin() + 142);
    ASSERT_TRUE(gw_decode_array_inquiry(half.data(), half.size(), &lun, &addr));
    EXPECT_EQ(lun, 42u);
    EXPECT_EQ(addr, "10.1.0.0");
}

}  // namespace
