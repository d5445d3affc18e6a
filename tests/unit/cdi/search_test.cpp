// Finding a device's SCSI generic node: identity decoding from hand-made
// INQUIRY bytes, /proc/scsi/scsi entries, a fake sysfs tree under
// SYSFS_PATH (links included, and trees that are missing or lie), and the
// per-thread cache.
#include <functional>

#include "drivers/cdi/cdi_os.h"
#include "tests/support/fixture.h"
#include "tests/unit/cdi/cdi_test_env.h"

namespace {

INQ identity(const char* vendor, const char* product, const char* rev, int type) {
    INQ q;
    memset(&q, 0, sizeof q);
    std::vector<unsigned char> d = make_inquiry(vendor, product, rev, type, -1, nullptr, 36);
    inq_from_standard(&q, d.data(), static_cast<int>(d.size()));
    return q;
}

std::vector<int> numbers(SNLP l) {
    std::vector<int> v;
    for (; l; l = l->next) v.push_back(l->sgnum);
    return v;
}

TEST(InquiryDecode, StandardDataFillsTypeAndFixedFields) {
    std::vector<unsigned char> d =
        make_inquiry("QXR", "MERLODE DISK", "0815", 0x61, -1, nullptr, 36);
    INQ q;
    memset(&q, 0, sizeof q);
    inq_from_standard(&q, d.data(), 36);
    EXPECT_EQ(q.iPerDevType, 1);  // qualifier bits dropped
    EXPECT_EQ(memcmp(q.vendor, "QXR     ", 8), 0);
    EXPECT_EQ(memcmp(q.product, "MERLODE DISK    ", 16), 0);
    EXPECT_EQ(memcmp(q.rev, "0815", 4), 0);

    INQ s;
    memset(&s, 0, sizeof s);
    inq_from_standard(&s, d.data(), 10);  // short: vendor cut, the rest zero
    EXPECT_EQ(memcmp(s.vendor, "QX\0\0\0\0\0\0", 8), 0);
    EXPECT_EQ(s.product[0], 0);
    inq_from_standard(&s, nullptr, 36);
    inq_from_standard(&s, d.data(), 0);
}

TEST(InquiryDecode, PageListAndPayloadAreBoundedByWhatArrived) {
    const unsigned char list[] = {0, 0x00, 0, 3, 0x00, 0x80, 0x83};
    EXPECT_TRUE(vpd_page_listed(list, sizeof list, 0x80));
    EXPECT_TRUE(vpd_page_listed(list, sizeof list, 0x83));
    EXPECT_FALSE(vpd_page_listed(list, sizeof list, 0xb0));
    EXPECT_FALSE(vpd_page_listed(list, 6, 0x83));  // beyond the data received
    const unsigned char lying[] = {0, 0x00, 0xff, 0xff, 0x80};
    EXPECT_TRUE(vpd_page_listed(lying, sizeof lying, 0x80));
    EXPECT_FALSE(vpd_page_listed(lying, sizeof lying, 0x83));
    const unsigned char other[] = {0, 0x80, 0, 1, 0x83};  // not the page list
    EXPECT_FALSE(vpd_page_listed(other, sizeof other, 0x83));
    EXPECT_FALSE(vpd_page_listed(list, 3, 0x80));

    std::vector<unsigned char> sn = make_vpd(0x80, std::string(40, 'S'));
    char dst[32];
    memset(dst, 0, sizeof dst);
    EXPECT_TRUE(vpd_copy_payload(dst, sizeof dst, sn.data(), static_cast<int>(sn.size()), 0x80));
    EXPECT_EQ(std::string(dst, 32), std::string(32, 'S'));  // capped at the field
    EXPECT_FALSE(vpd_copy_payload(dst, sizeof dst, sn.data(), static_cast<int>(sn.size()), 0x83));
}

TEST(InquiryDecode, ProcEntriesMatchOnAllFourFieldsAndCountFromZero) {
    std::string text = zovtest::fixture("cdi/proc_scsi_scsi.txt");
    ASSERT_FALSE(text.empty());
    UscsiHooks h = {nullptr, nullptr, nullptr, "/dev/sg"};
    uscsi_set_hooks(&h);

    INQ disk = identity("QXR", "MERLODE DISK", "0815", 0);
    SNLP l = find_matching_scsi_devs_in(text.c_str(), &disk);
    EXPECT_EQ(numbers(l), (std::vector<int>{2, 5}));  // not the -ZBC entry
    ASSERT_NE(l, nullptr);
    EXPECT_STREQ(l->sgname, "/dev/sg2");
    cdi_sg_list_free(l);

    INQ tape = identity("HP", "Ultrium 3-SCSI", "G24W", 1);
    l = find_matching_scsi_devs_in(text.c_str(), &tape);
    EXPECT_EQ(numbers(l), (std::vector<int>{4}));
    cdi_sg_list_free(l);

    INQ changer = identity("STK", "L180", "0306", 8);
    l = find_matching_scsi_devs_in(text.c_str(), &changer);
    EXPECT_EQ(numbers(l), (std::vector<int>{6}));
    cdi_sg_list_free(l);

    // A type without a text never matches, even with equal fields.
    INQ cdrom = identity("QEMU", "QEMU DVD-ROM", "2.5+", 5);
    EXPECT_EQ(find_matching_scsi_devs_in(text.c_str(), &cdrom), nullptr);
    INQ wrong_rev = identity("QXR", "MERLODE DISK", "0816", 0);
    EXPECT_EQ(find_matching_scsi_devs_in(text.c_str(), &wrong_rev), nullptr);

    const char* bad[] = {
        "", "garbage\n\n\n", "Host:\n", "Host: x\n  Vendor: QXR\n",
        "Vendor: QXR      Model: MERLODE DISK     Rev: 0815\nType: Direct-Access\n"};
    for (const char* b : bad) EXPECT_EQ(find_matching_scsi_devs_in(b, &disk), nullptr) << b;
    uscsi_set_hooks(nullptr);
}

TEST(InquiryDecode, KernelReleaseChoosesTheTransport) {
    const struct {
        const char* release;
        int sg;
    } rows[] = {{"2.6.16", 1}, {"2.6.15", 0}, {"2.6.32-754.el6", 1}, {"2.4.37", 0},
                {"2.7.0", 1},  {"3.0", 1},    {"6.1.0-13-amd64", 1}, {"2.6", 0},
                {"1.9.9", 0},  {"", 0},       {"linux", 0},          {nullptr, 0}};
    for (const auto& r : rows) EXPECT_EQ(cdi_release_prefers_sg_io(r.release), r.sg) << r.release;
}

class SgSearch : public CdiTest {
protected:
    // A tape in the fake sysfs: class/scsi_tape/NAME/device -> ../../../H:C:T:L,
    // and bus/scsi/devices/H:C:T:L/generic/dev holding "21:MINOR".
    void sysfs_tape(const std::string& name, const std::string& hctl, const std::string& dev_text) {
        std::string cls = root + "/sys/class/scsi_tape/" + name;
        mkdirs(cls);
        std::string target = "../../../devices/pci0000:00/host0/target0:0:1/" + hctl;
        ASSERT_EQ(symlink(target.c_str(), (cls + "/device").c_str()), 0);
        std::string gen = root + "/sys/bus/scsi/devices/" + hctl + "/generic";
        mkdirs(gen);
        write_file(gen + "/dev", dev_text);
    }
    FakeDevice& tape_device(const std::string& path, const char* sn) {
        FakeDevice& d = FakeScsi::get().add(path);
        d.standard = make_inquiry("HP", "Ultrium 3-SCSI", "G24W", 1);
        give_identity_pages(d, sn, "wwn-of-the-drive");
        return d;
    }
    int open_os(CDI_INFO& ci, const std::string& path) {
        prepare(ci, path, CDI_PATH_TAPE);
        return cdi_os_open(&ci);
    }
    void close_os(CDI_INFO& ci) {
        cdi_os_close(&ci);
        free(ci.path.device_file);
    }
};

TEST_F(SgSearch, TapeFindsItsGenericNodeThroughSysfs) {
    tape_device(dev("nst0"), "SN-TAPE-1");
    tape_device(sg(3), "SN-TAPE-1");
    sysfs_tape("nst0", "0:0:1:0", "21:3\n");
    CDI_INFO ci;
    ASSERT_EQ(open_os(ci, dev("nst0")), 0);
    EXPECT_STREQ(ci.path.aux_device_file, sg(3).c_str());
    EXPECT_GE(ci.path.aux_handle, 0);
    EXPECT_NE(ci.path.aux_handle, ci.path.handle);
    close_os(ci);
    EXPECT_EQ(ci.path.handle, -1);
    EXPECT_EQ(ci.path.aux_handle, -1);
}

TEST_F(SgSearch, SymbolicLinksToTheTapeAreFollowed) {
    tape_device(dev("nst0"), "SN-TAPE-1");
    tape_device(sg(3), "SN-TAPE-1");
    sysfs_tape("nst0", "0:0:1:0", "21:3");
    ASSERT_EQ(symlink("nst0", dev("tape").c_str()), 0);                 // relative
    ASSERT_EQ(symlink(dev("tape").c_str(), dev("backup").c_str()), 0);  // absolute, to a link
    CDI_INFO ci;
    ASSERT_EQ(open_os(ci, dev("backup")), 0);
    EXPECT_STREQ(ci.path.aux_device_file, sg(3).c_str());
    close_os(ci);
}

TEST_F(SgSearch, LinkLoopsAndMissingTreesEndWithoutANode) {
    ASSERT_EQ(symlink("loop-b", dev("loop-a").c_str()), 0);
    ASSERT_EQ(symlink("loop-a", dev("loop-b").c_str()), 0);
    EXPECT_EQ(get_sysfs_sg_device(dev("loop-a").c_str()), nullptr);
    EXPECT_EQ(get_sysfs_sg_device(""), nullptr);
    EXPECT_EQ(get_sysfs_sg_device(nullptr), nullptr);

    // No sysfs and no /proc/scsi/scsi: the old transport is what remains.
    tape_device(dev("nst1"), "SN-TAPE-2");
    CDI_INFO ci;
    ASSERT_EQ(open_os(ci, dev("nst1")), 0);
    EXPECT_EQ(ci.path.aux_handle, -1);
    EXPECT_EQ(ci.path.aux_device_file, nullptr);
    close_os(ci);
}

TEST_F(SgSearch, SysfsThatLiesIsCaughtAtEachStep) {
    tape_device(dev("nst0"), "SN-TAPE-1");
    struct Case {
        const char* what;
        std::function<void()> make;
    };
    std::vector<Case> cases = {
        {"no device link", [&] { mkdirs(root + "/sys/class/scsi_tape/nst0"); }},
        {"link without separator",
         [&] {
             mkdirs(root + "/sys/class/scsi_tape/nst0");
             ASSERT_EQ(symlink("0:0:1:0", (root + "/sys/class/scsi_tape/nst0/device").c_str()), 0);
         }},
        {"no generic/dev", [&] { sysfs_tape("nst0", "0:0:1:0", "21:3"); }},
        {"empty generic/dev", [&] { sysfs_tape("nst0", "0:0:1:0", ""); }},
        {"garbage generic/dev", [&] { sysfs_tape("nst0", "0:0:1:0", "twenty-one"); }},
        {"node missing in /dev", [&] { sysfs_tape("nst0", "0:0:1:0", "21:9"); }},
    };
    for (auto& c : cases) {
        std::string cmd = "rm -rf '" + root + "/sys'";
        ASSERT_EQ(system(cmd.c_str()), 0);
        c.make();
        if (std::string(c.what) == "no generic/dev")
            unlink((root + "/sys/bus/scsi/devices/0:0:1:0/generic/dev").c_str());
        EXPECT_EQ(get_sysfs_sg_device(dev("nst0").c_str()), nullptr) << c.what;
    }
}

TEST_F(SgSearch, NodeOfAnotherDeviceIsNotTakenButItsNameIs) {
    tape_device(dev("nst0"), "SN-TAPE-1");
    tape_device(sg(4), "SN-OTHER");  // same inquiry data, another serial number
    sysfs_tape("nst0", "0:0:1:0", "21:4");
    CDI_INFO ci;
    ASSERT_EQ(open_os(ci, dev("nst0")), 0);
    EXPECT_EQ(ci.path.aux_handle, ci.path.handle);  // the device's own handle
    EXPECT_STREQ(ci.path.aux_device_file, sg(4).c_str());
    close_os(ci);  // one descriptor, closed once
}

TEST_F(SgSearch, DiskFallsThroughToProcAndSerialTellsTwinsApart) {
    std::string text = zovtest::fixture("cdi/proc_scsi_scsi.txt");
    write_file(root + "/proc_scsi", text);
    FakeDevice& d = FakeScsi::get().add(dev("sdb"));
    d.standard = make_inquiry("QXR", "MERLODE DISK", "0815", 0);
    give_identity_pages(d, "SERIAL-B", "6006016000000000000000000000000b");
    FakeDevice& twin = FakeScsi::get().add(sg(2));
    twin.standard = d.standard;
    give_identity_pages(twin, "SERIAL-A", "6006016000000000000000000000000a");
    FakeDevice& same = FakeScsi::get().add(sg(5));
    same.standard = d.standard;
    give_identity_pages(same, "SERIAL-B", "6006016000000000000000000000000b");

    CDI_INFO ci;
    prepare(ci, dev("sdb"));
    ASSERT_EQ(cdi_os_open(&ci), 0);
    EXPECT_STREQ(ci.path.aux_device_file, sg(5).c_str());
    // Commands now go to the generic node.
    int before = same.sg_calls;
    ci.command = CDI_INQUIRY;
    ASSERT_EQ(cdi_cmd(&ci), 0);
    EXPECT_EQ(same.sg_calls, before + 1);
    close_os(ci);
}

TEST_F(SgSearch, CacheServesTheNextOpenAndIsRebuiltWhenItsNodeIsGone) {
    write_file(root + "/proc_scsi", zovtest::fixture("cdi/proc_scsi_scsi.txt"));
    FakeDevice& d = FakeScsi::get().add(dev("sdb"));
    d.standard = make_inquiry("QXR", "MERLODE DISK", "0815", 0);
    give_identity_pages(d, "SERIAL-B", "wwn-b");
    FakeDevice& node = FakeScsi::get().add(sg(2));
    node.standard = d.standard;
    give_identity_pages(node, "SERIAL-B", "wwn-b");

    CDI_INFO ci;
    prepare(ci, dev("sdb"));
    ASSERT_EQ(cdi_os_open(&ci), 0);
    EXPECT_STREQ(ci.path.aux_device_file, sg(2).c_str());
    close_os(ci);

    // The list is gone, but the thread's cache still knows the node.
    unlink((root + "/proc_scsi").c_str());
    int inquiries = node.sg_calls;
    prepare(ci, dev("sdb"));
    ASSERT_EQ(cdi_os_open(&ci), 0);
    EXPECT_STREQ(ci.path.aux_device_file, sg(2).c_str());
    EXPECT_EQ(node.sg_calls, inquiries);  // a hit does not ask the node again
    close_os(ci);

    // The node disappears: the cache is dropped and nothing replaces it.
    unlink(sg(2).c_str());
    prepare(ci, dev("sdb"));
    ASSERT_EQ(cdi_os_open(&ci), 0);
    EXPECT_EQ(ci.path.aux_handle, -1);
    EXPECT_EQ(cdi_t_get()->sg_list, nullptr);
    close_os(ci);
}

TEST_F(SgSearch, ReopenClosesThePreviousAuxiliaryNode) {
    tape_device(dev("nst0"), "SN-TAPE-1");
    tape_device(sg(3), "SN-TAPE-1");
    sysfs_tape("nst0", "0:0:1:0", "21:3");
    CDI_INFO ci;
    ASSERT_EQ(open_os(ci, dev("nst0")), 0);
    int first_aux = ci.path.aux_handle;
    ASSERT_EQ(cdi_os_open(&ci), 0);  // the handle stays, the node is reopened
    EXPECT_GE(ci.path.aux_handle, 0);
    if (ci.path.aux_handle != first_aux) {
        EXPECT_EQ(fcntl(first_aux, F_GETFD), -1);
    }
    close_os(ci);
}

TEST_F(SgSearch, DeviceWithoutIdentityIsNotMatchedToAnything) {
    write_file(root + "/proc_scsi", zovtest::fixture("cdi/proc_scsi_scsi.txt"));
    FakeDevice& d = FakeScsi::get().add(dev("dead"));
    d.status = 0x02;  // every command a check condition
    FakeDevice& node = FakeScsi::get().add(sg(0));
    node.status = 0x02;
    CDI_INFO ci;
    prepare(ci, dev("dead"));
    ASSERT_EQ(cdi_os_open(&ci), 0);
    EXPECT_EQ(ci.path.aux_handle, -1);
    close_os(ci);
}

TEST(SysfsPath, EnvironmentMustBeAbsolute) {
    char out[4096];
    setenv("SYSFS_PATH", "relative/sys", 1);
    get_path_sysfs(out, sizeof out);
    EXPECT_STREQ(out, "/sys");
    setenv("SYSFS_PATH", "/alt/sys", 1);
    get_path_sysfs(out, sizeof out);
    EXPECT_STREQ(out, "/alt/sys");
    unsetenv("SYSFS_PATH");
    get_path_sysfs(out, sizeof out);
    EXPECT_STREQ(out, "/sys");
}

}  // namespace
