// Test fixture of the device interface: a private temporary tree for
// devices, generic nodes, sysfs and /proc/scsi/scsi, with the fake SCSI
// layer installed and the per-thread state reset around each test.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "drivers/cdi/cdi.h"
#include "drivers/cdi/cdi_priv.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/cdi/fake_scsi.h"

class CdiTest : public ::testing::Test {
protected:
    zovtest::TempDir tmp{"cdi", "/tmp"};  // short: generic node names must fit in 32 bytes
    std::string root;

    void SetUp() override {
        ASSERT_TRUE(tmp.ok());
        root = tmp.path();
        mkdir((root + "/dev").c_str(), 0755);
        setenv("SYSFS_PATH", (root + "/sys").c_str(), 1);
        unsetenv("CDI_DEBUG");
        use_kernel("6.1.0");
        fds_before = count_open_fds();
    }
    void TearDown() override {
        cdi_t_reset_thread();
        FakeScsi::get().uninstall();
        unsetenv("SYSFS_PATH");
        EXPECT_EQ(fds_before, count_open_fds()) << "a descriptor was left open";
    }

    // The thread's state is read again with the new kernel release.
    void use_kernel(const char* release) {
        FakeScsi::get().install(release, (root + "/proc_scsi").c_str(), (root + "/sg").c_str());
        cdi_t_reset_thread();
    }
    std::string dev(const std::string& name) { return root + "/dev/" + name; }
    std::string sg(int n) { return root + "/sg" + std::to_string(n); }
    void write_file(const std::string& path, const std::string& text) {
        std::ofstream(path) << text;
    }
    void mkdirs(const std::string& path) {
        std::string cmd = "mkdir -p '" + path + "'";
        ASSERT_EQ(system(cmd.c_str()), 0);
    }

    // A record as the snapshot module prepares it for the standard inquiry.
    void prepare(CDI_INFO& ci, const std::string& device, int type = CDI_PATH_SCSI) {
        memset(&ci, 0, sizeof ci);
        ci.version = 1;
        ci.path.type = type;
        ci.path.device_file = strdup(device.c_str());
        ci.path.handle = -1;
        ci.path.aux_handle = -1;
        ci.path.options = 0;
    }

    int fds_before = 0;
};
