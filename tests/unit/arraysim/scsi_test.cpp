// The fake device layer: INQUIRY bytes as the module reads them, through the
// preload library's own open/ioctl/close (called by handle, so no process
// needs LD_PRELOAD here), and the identity of every kind of device.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <scsi/sg.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "tests/support/child.h"
#include "tests/support/temp_dir.h"
#include "tools/arraysim/inquiry.h"
#include "tools/arraysim/sim.h"

using namespace arraysim;

namespace {

class FakeScsi : public ::testing::Test {
protected:
    void SetUp() override {
        h_ = dlopen(zovtest::sim_layer().c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!h_) {
            GTEST_SKIP() << "preload library not built: " << dlerror();
        }
        open_ = reinterpret_cast<int (*)(const char*, int, ...)>(dlsym(h_, "open"));
        ioctl_ = reinterpret_cast<int (*)(int, unsigned long, ...)>(dlsym(h_, "ioctl"));
        close_ = reinterpret_cast<int (*)(int)>(dlsym(h_, "close"));
        ASSERT_TRUE(open_ && ioctl_ && close_);
        ASSERT_TRUE(tmp_.ok());
        dir_ = tmp_.path();
        InitOptions o;
        o.luns = 300;  // LUN numbers above 255 use both bytes
        o.host = "h";
        o.host_addr = "10.0.0.9";
        st_ = make_state(o);
        st_.lun(0, 1)->trespassed = true;
        std::string err;
        ASSERT_TRUE(sync_folder(dir_, st_, "", err)) << err;
        ASSERT_TRUE(save_state(dir_, st_, err)) << err;
        setenv("ARRAYSIM_STATE", dir_.c_str(), 1);
    }
    void TearDown() override {
        if (h_) dlclose(h_);
    }
    std::string dev(const std::string& name) { return dev_dir(dir_) + "/" + name; }
    // One INQUIRY through SG_IO; returns the SAM status, -1 on ioctl failure.
    int inquiry(int fd, bool evpd, unsigned char page, unsigned char* buf,
                unsigned char* sense = nullptr, unsigned char opcode = 0x12) {
        unsigned char cdb[6] = {opcode, static_cast<unsigned char>(evpd ? 1 : 0), page, 0, 255, 0};
        unsigned char sb[32];
        sg_io_hdr_t h;
        memset(&h, 0, sizeof h);
        h.interface_id = 'S';
        h.dxfer_direction = SG_DXFER_FROM_DEV;
        h.cmd_len = 6;
        h.mx_sb_len = sizeof sb;
        h.dxfer_len = 255;
        h.dxferp = buf;
        h.cmdp = cdb;
        h.sbp = sense ? sense : sb;
        h.timeout = 1000;
        if (ioctl_(fd, SG_IO, &h) != 0) return -1;
        if (h.status) {
            EXPECT_EQ(kDriverSenseForTest, h.driver_status);
        }
        return h.status;
    }
    static constexpr unsigned char kDriverSenseForTest = 0x08;

    void* h_ = nullptr;
    int (*open_)(const char*, int, ...) = nullptr;
    int (*ioctl_)(int, unsigned long, ...) = nullptr;
    int (*close_)(int) = nullptr;
    zovtest::TempDir tmp_{"arraysim-scsi-"};
    std::string dir_;
    State st_;
};

TEST_F(FakeScsi, StandardInquiryCarriesVendorLunAndOwningAddress) {
    const Lun& l = *st_.lun(0, 258);
    int fd = open_(dev(l.devs[0].paths[0]).c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    unsigned char buf[256] = {0};
    ASSERT_EQ(0, inquiry(fd, false, 0, buf));
    EXPECT_EQ(0, memcmp(buf + 8, "QXR", 3));
    EXPECT_EQ(258, buf[121] * 256 + buf[122]);
    EXPECT_EQ(198, buf[140]);
    EXPECT_EQ(18, buf[141]);
    EXPECT_EQ(0, buf[142]);
    EXPECT_EQ(1, buf[143]);
    close_(fd);

    // A trespassed LUN answers with the frame's second address.
    fd = open_(dev(st_.lun(0, 1)->devs[0].paths[0]).c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, inquiry(fd, false, 0, buf));
    EXPECT_EQ(2, buf[143]);
    close_(fd);
}

TEST_F(FakeScsi, VitalProductPagesAndCheckConditions) {
    const Lun& l = *st_.lun(0, 3);
    int fd = open_(dev(l.devs[0].paths[0]).c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    unsigned char buf[256] = {0}, sense[32] = {0};
    ASSERT_EQ(0, inquiry(fd, true, 0x00, buf));
    EXPECT_EQ(3, buf[3]);
    EXPECT_EQ(0x80, buf[5]);
    EXPECT_EQ(0x83, buf[6]);
    ASSERT_EQ(0, inquiry(fd, true, 0x80, buf));
    EXPECT_EQ(st_.frames[0].serial + "-3", std::string(reinterpret_cast<char*>(buf + 4), buf[3]));
    ASSERT_EQ(0, inquiry(fd, true, 0x83, buf));
    EXPECT_EQ(0x03, buf[5] & 0x0f);  // NAA
    EXPECT_EQ(0x60, buf[8]);
    EXPECT_EQ(3, buf[23]);
    EXPECT_EQ(2, inquiry(fd, true, 0xB0, buf, sense));  // page not supported
    EXPECT_EQ(0x05, sense[2] & 0x0f);
    EXPECT_EQ(0x24, sense[12]);
    EXPECT_EQ(2, inquiry(fd, false, 0, buf, sense, 0x28));  // READ(10): not known here
    EXPECT_EQ(0x20, sense[12]);

    // The old transport: same data through SCSI_IOCTL_SEND_COMMAND.
    unsigned char blk[8 + 512];
    memset(blk, 0, sizeof blk);
    unsigned int lens[2] = {0, 512};
    memcpy(blk, lens, sizeof lens);
    unsigned char cdb[6] = {0x12, 0, 0, 0, 255, 0};
    memcpy(blk + 8, cdb, 6);
    ASSERT_EQ(0, ioctl_(fd, 1UL, blk));
    EXPECT_EQ(3, blk[8 + 122]);
    blk[8] = 0x28;
    int rc = ioctl_(fd, 1UL, blk);
    EXPECT_EQ(2, rc & 0x3e);
    EXPECT_EQ(0x08, (rc >> 24) & 0xff);
    close_(fd);
}

TEST_F(FakeScsi, OtherVendorsSnapshotDevicesAndVanishedDevices) {
    unsigned char buf[256] = {0};
    int fd = open_(dev("sda").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, inquiry(fd, false, 0, buf));
    EXPECT_EQ(0, memcmp(buf + 8, "ATA     ", 8));
    EXPECT_EQ(0, buf[121] | buf[122] | buf[140]);
    close_(fd);

    fd = open_(dev(st_.lun(0, 5)->snapdev).c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, inquiry(fd, false, 0, buf));
    EXPECT_EQ(0, memcmp(buf + 8, "QXR", 3));
    EXPECT_EQ(5, buf[122]);
    close_(fd);

    // A file whose device the array no longer lists cannot be opened.
    std::string stale = dev("sdzzz");
    ASSERT_EQ(0, system(("touch '" + stale + "'").c_str()));
    errno = 0;
    EXPECT_EQ(-1, open_(stale.c_str(), O_RDONLY));
    EXPECT_EQ(ENXIO, errno);

    // Outside the folder everything passes through: a regular file knows no SG_IO.
    fd = open_("/dev/null", O_RDONLY);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(-1, inquiry(fd, false, 0, buf));
    close_(fd);
}

// Large-file builds of a program reach the C library through the *64 and
// fortified entries; each must be caught, or the device answers nothing.
TEST_F(FakeScsi, EveryOpenEntryAdoptsTheDevice) {
    using OpenAt = int (*)(int, const char*, int, ...);
    using OpenAt2 = int (*)(int, const char*, int);
    using Open2 = int (*)(const char*, int);
    std::string path = dev(st_.lun(0, 7)->devs[0].paths[0]);
    std::string stale = dev("sdzzy");
    ASSERT_EQ(0, system(("touch '" + stale + "'").c_str()));
    unsigned char buf[256];
    for (const char* name :
         {"openat", "openat64", "__openat_2", "__openat64_2", "open64", "__open_2", "__open64_2"}) {
        SCOPED_TRACE(name);
        void* f = dlsym(h_, name);
        ASSERT_NE(nullptr, f);
        bool at = strncmp(name, "openat", 6) == 0 || strncmp(name, "__openat", 8) == 0;
        bool two = strstr(name, "_2") != nullptr;
        auto call = [&](const std::string& p) {
            if (at && two) return reinterpret_cast<OpenAt2>(f)(AT_FDCWD, p.c_str(), O_RDONLY);
            if (at) return reinterpret_cast<OpenAt>(f)(AT_FDCWD, p.c_str(), O_RDONLY);
            if (two) return reinterpret_cast<Open2>(f)(p.c_str(), O_RDONLY);
            return open_(p.c_str(), O_RDONLY);
        };
        int fd = call(path);
        ASSERT_GE(fd, 0);
        memset(buf, 0, sizeof buf);
        ASSERT_EQ(0, inquiry(fd, false, 0, buf));
        EXPECT_EQ(7, buf[122]);
        close_(fd);
        errno = 0;
        EXPECT_EQ(-1, call(stale));
        EXPECT_EQ(ENXIO, errno);
    }
}

TEST(Inquiry, AllocationLengthCutsTheAnswer) {
    DevIdentity id;
    id.vendor = "QXR";
    id.array = true;
    id.lun = 0x1234;
    unsigned char buf[256];
    unsigned char cdb[6] = {0x12, 0, 0, 0, 36, 0};
    EXPECT_EQ(36, build_inquiry(id, cdb, buf, sizeof buf));
    cdb[4] = 255;
    EXPECT_EQ(144, build_inquiry(id, cdb, buf, sizeof buf));
    EXPECT_EQ(0x12, buf[121]);
    EXPECT_EQ(0x34, buf[122]);
    cdb[2] = 0x80;  // a page without EVPD is a field error
    EXPECT_EQ(-1, build_inquiry(id, cdb, buf, sizeof buf));
}

}  // namespace
