// The device interface frame: record life cycle, status texts, the guards of
// cdi_open and cdi_cmd, the standard inquiry end to end over the fake layer,
// result digestion and the trace.
#include <errno.h>
#include <stdio.h>

#include "drivers/cdi/cdi_trace.h"
#include "tests/unit/cdi/cdi_test_env.h"

namespace {

const unsigned char kFrameIp[4] = {10, 1, 2, 3};

TEST(CdiMessages, StatusAndDriveTablesHoldTheSystemTexts) {
    cdi_define_messages();
    EXPECT_STREQ(map_cdiStatus2cdiMsg(0), "command completed successfully");
    EXPECT_STREQ(map_cdiStatus2cdiMsg(22),
                 "an error occurred when setting a NDMP extension on the NDMP server");
    EXPECT_STREQ(map_cdiStatus2cdiMsg(25), "CDI error 20 occurred - no message yet");
    EXPECT_STREQ(map_cdiStatus2cdiMsg(26), "");  // slots beyond the rows stay empty
    EXPECT_STREQ(cdi_drive_stat_messages[13], "The tape drive is resevered by another host");
    EXPECT_STREQ(cdi_drive_stat_messages[19], "Drive status is currently unknown");
    EXPECT_STREQ(cdi_drive_stat_messages[29], "DLT WORM creation error.");
    EXPECT_STREQ(cdi_drive_stat_messages[59], "Key associated descriptor was changed.");
}

TEST(CdiMessages, StatusBeyond23IsReportedAsOutOfRange) {
    CDI_INFO ci;
    cdi_build_cdi_info(&ci);
    vcdi_Assign_errstrFrom_status(&ci, 23);
    EXPECT_STREQ(ci.error.errstr, "Command Transport Successful, Data Corrupted");
    EXPECT_EQ(ci.errstr_can_be_freed, 0);
    vcdi_Assign_errstrFrom_status(&ci, 24);
    EXPECT_STREQ(ci.error.errstr, "CDI status(24) exceeds maximum cdi_stat_message index(24)");
    vcdi_Assign_errstrFrom_status(&ci, -3);
    EXPECT_STREQ(ci.error.errstr, "CDI status(-3) exceeds maximum cdi_stat_message index(24)");
    cdi_free_cdi_info(&ci, 0);
}

TEST(CdiInfo, BuildSetsClosedDefaultsAndCreateCopiesTheName) {
    CDI_INFO* ci = cdi_build_cdi_info(nullptr);
    EXPECT_EQ(ci->status, 5);
    EXPECT_EQ(ci->drivestat.status, 19);
    EXPECT_EQ(ci->path.handle, -1);
    EXPECT_EQ(ci->path.aux_handle, -1);
    EXPECT_EQ(ci->version, current_cdi_version);
    EXPECT_EQ(ci->free_bufferlist_on_close, 1);
    cdi_destory_cdi_info(&ci);
    EXPECT_EQ(ci, nullptr);

    char name[] = "/dev/nst0";
    CDI_INFO* c2 = cdi_create_cdi_info(name, CDI_PATH_TAPE, 1, current_cdi_version + 5);
    EXPECT_STREQ(c2->path.device_file, "/dev/nst0");
    EXPECT_NE(c2->path.device_file, name);
    EXPECT_EQ(c2->path.type, CDI_PATH_TAPE);
    EXPECT_EQ(c2->path.options, 1);
    // Record buffers go with the record.
    cdi_calloc(c2, 10, 10);
    cdi_strdup(c2, "kept until free");
    cdi_destory_cdi_info(&c2);
}

TEST(CdiErrno, MapsToTheDocumentedStatuses) {
    EXPECT_EQ(cdi_errno_to_status(ENOENT), 7);
    for (int e : {EIO, ENOMEM, EACCES, ENFILE, EMFILE, ENOSPC})
        EXPECT_EQ(cdi_errno_to_status(e), 16);
    EXPECT_EQ(cdi_errno_to_status(EBADF), 9);
    EXPECT_EQ(cdi_errno_to_status(EBUSY), 10);
    EXPECT_EQ(cdi_errno_to_status(EINVAL), 13);
    EXPECT_EQ(cdi_errno_to_status(ENOTTY), 8);
    EXPECT_EQ(cdi_errno_to_status(0), 8);
}

TEST(CdiInqMatch, PrefixesIgnoreCaseAndEmptyMatchesAll) {
    CDI_INFO ci;
    cdi_build_cdi_info(&ci);
    strcpy(ci.vendor, "QUANTUM ");
    strcpy(ci.product, "DLT-V4");
    EXPECT_TRUE(cdi_inq_match(&ci, "", "DLT"));
    EXPECT_TRUE(cdi_inq_match(&ci, "quantum", "dlt-v"));
    EXPECT_TRUE(cdi_inq_match(&ci, nullptr, nullptr));
    EXPECT_FALSE(cdi_inq_match(&ci, "HP", ""));
    EXPECT_FALSE(cdi_inq_match(&ci, "", "DLT-V40"));  // longer than the record's
}

TEST(CdiFields, BigEndianReadAndWriteWithBounds) {
    const unsigned char b[] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09};
    EXPECT_EQ(uint_from_scsi_data(b, 2), 0x0102u);
    EXPECT_EQ(uint_from_scsi_data(b, 8), 0x0102030405060708ull);
    EXPECT_EQ(uint_from_scsi_data(b, 9), 0x0102030405060708ull);  // at most 8 bytes
    EXPECT_EQ(uint_from_scsi_data(b, 0), 0u);
    unsigned char cdb[4] = {0xee, 0xee, 0xee, 0xee};
    EXPECT_EQ(fill_cdb_multibyte_field(cdb, 3, 0xffffff), 0);
    EXPECT_EQ(cdb[0], 0xff);
    EXPECT_EQ(cdb[2], 0xff);
    EXPECT_EQ(cdb[3], 0xee);
    EXPECT_EQ(fill_cdb_multibyte_field(cdb, 3, 0x1000000), -1);
    EXPECT_EQ(cdb[0], 0xff);  // untouched on overflow
    EXPECT_EQ(fill_cdb_multibyte_field(cdb, 0, 0), -1);
}

using CdiOpen = CdiTest;

TEST_F(CdiOpen, GuardsComeBeforeAnyDeviceAccess) {
    CDI_INFO ci;
    cdi_build_cdi_info(&ci);
    EXPECT_EQ(cdi_open(&ci), 7);
    EXPECT_EQ(ci.error.errnum, ENOENT);
    EXPECT_STREQ(ci.error.errstr, "there was not a device file name passed in to CDI");

    prepare(ci, dev("nothing"));
    ci.version = current_cdi_version + 1;
    EXPECT_EQ(cdi_open(&ci), 6);
    EXPECT_EQ(ci.version, current_cdi_version);
    EXPECT_EQ(ci.error.errnum, EACCES);

    ci.version = 1;
    EXPECT_EQ(cdi_open(&ci), 7);  // no such file
    EXPECT_EQ(ci.error.errnum, ENOENT);
    EXPECT_STREQ(ci.error.errstr, map_cdiStatus2cdiMsg(7));
    EXPECT_EQ(ci.path.handle, -1);

    for (int type : {CDI_PATH_NDMP_TAPE, CDI_PATH_RESERVED, 0, 99}) {
        ci.path.type = type;
        EXPECT_EQ(cdi_open(&ci), 4) << type;
    }
    cdi_close(&ci);
    EXPECT_EQ(ci.path.device_file, nullptr);
}

TEST_F(CdiOpen, ArrayDeviceGivesIdentityAndArrayBytes) {
    FakeDevice& d = FakeScsi::get().add(dev("sdq"));
    d.standard = make_inquiry("QXR", "MERLODE DISK", "0815", 0, 0x1234, kFrameIp, 144);

    CDI_INFO ci;
    prepare(ci, dev("sdq"));
    ASSERT_EQ(cdi_open(&ci), 0) << ci.error.errstr;
    EXPECT_STREQ(ci.vendor, "QXR     ");
    EXPECT_STREQ(ci.product, "MERLODE DISK    ");
    EXPECT_STREQ(ci.rev, "0815");
    EXPECT_EQ(ci.path.cdi_opened_handle, 1);
    EXPECT_EQ(ci.version, current_cdi_version);

    ci.command = CDI_INQUIRY;
    ci.cmd_data.inquiry.inq_data_requested = 0;
    ASSERT_EQ(cdi_cmd(&ci), 0);
    const unsigned char* q = ci.cmd_data.inquiry.inquiry_data;
    EXPECT_EQ(memcmp(q + 8, "QXR", 3), 0);
    EXPECT_EQ((q[121] << 8) | q[122], 0x1234);
    EXPECT_EQ(memcmp(q + 140, kFrameIp, 4), 0);
    EXPECT_EQ(ci.drivestat.status, 0);
    EXPECT_EQ(d.last_cdb, (std::vector<unsigned char>{0x12, 0, 0, 0, 255, 0}));
    EXPECT_EQ(d.last_timeout, 60000u);
    EXPECT_EQ(d.last_dxfer_len, 256u);
    EXPECT_EQ(d.last_mx_sb_len, 32u);
    cdi_close(&ci);
    EXPECT_EQ(ci.path.handle, -1);
    EXPECT_EQ(ci.path.device_file, nullptr);
}

TEST_F(CdiOpen, ClearedRecordNeverClosesStandardInput) {
    // Callers clear the record and set only the primary descriptor to -1,
    // leaving 0 in the auxiliary one.
    FakeDevice& d = FakeScsi::get().add(dev("sdz"));
    d.standard = make_inquiry("QXR", "MERLODE DISK", "0815", 0, 7, kFrameIp, 144);
    int saved = dup(0);
    ASSERT_GE(saved, 0);
    for (int round = 0; round < 2; round++) {
        CDI_INFO ci;
        memset(&ci, 0, sizeof(ci));
        ci.version = 1;
        ci.path.type = CDI_PATH_SCSI;
        ci.path.device_file = strdup(dev("sdz").c_str());
        ci.path.handle = -1;
        ASSERT_EQ(cdi_open(&ci), 0) << ci.error.errstr;
        cdi_close(&ci);
        EXPECT_NE(fcntl(0, F_GETFD), -1) << "standard input was closed in round " << round;
        if (fcntl(0, F_GETFD) == -1) dup2(saved, 0);
    }
    close(saved);
}

TEST_F(CdiOpen, VitalProductPagesAreSelectedByRequestNumber) {
    FakeDevice& d = FakeScsi::get().add(dev("sdv"));
    d.standard = make_inquiry("QXR", "LUN", "1");
    for (int page : {0x00, 0x80, 0x82, 0x83, 0xc0}) d.vpd[page] = make_vpd(page, "x");
    CDI_INFO ci;
    prepare(ci, dev("sdv"));
    ASSERT_EQ(cdi_open(&ci), 0);
    const struct {
        int requested, evpd, page;
    } rows[] = {{1, 1, 0x00}, {2, 1, 0x82}, {3, 1, 0x80},  {4, 1, 0x83},
                {5, 1, 0xc0}, {6, 0, 0x00}, {-1, 0, 0x00}, {0, 0, 0x00}};
    for (const auto& r : rows) {
        ci.command = CDI_INQUIRY_DATA;
        ci.cmd_data.inquiry.inq_data_requested = r.requested;
        ci.cmd_data.inquiry.other_vpd_page = 0xc0;
        ASSERT_EQ(cdi_cmd(&ci), 0) << r.requested;
        EXPECT_EQ(d.last_cdb[1], r.evpd) << r.requested;
        EXPECT_EQ(d.last_cdb[2], r.page) << r.requested;
        if (r.evpd) {
            EXPECT_EQ(ci.cmd_data.inquiry.inquiry_data[1], r.page);
        }
    }
    cdi_close(&ci);
}

TEST_F(CdiOpen, ShortOrBlankInquiryDataLeavesZerosOrBlanks) {
    FakeDevice& s = FakeScsi::get().add(dev("short"));
    s.standard = make_inquiry("QXR", "P", "1", 0, -1, nullptr, 36);
    s.standard.resize(12);  // vendor cut after four bytes
    FakeDevice& b = FakeScsi::get().add(dev("blank"));
    b.standard = make_inquiry("", "", "", 0, -1, nullptr, 36);

    CDI_INFO ci;
    prepare(ci, dev("short"));
    ASSERT_EQ(cdi_open(&ci), 0);
    EXPECT_EQ(memcmp(ci.vendor, "QXR \0\0\0\0", 8), 0);
    EXPECT_EQ(ci.product[0], '\0');
    // Bytes past the short data read as zero: no stale LUN from an earlier call.
    ci.command = CDI_INQUIRY;
    ci.cmd_data.inquiry.inquiry_data[121] = 0x55;
    ASSERT_EQ(cdi_cmd(&ci), 0);
    EXPECT_EQ(ci.cmd_data.inquiry.inquiry_data[121], 0);
    EXPECT_EQ(ci.scmd.scmd_resid, 256 - 12);
    cdi_close(&ci);

    prepare(ci, dev("blank"));
    ASSERT_EQ(cdi_open(&ci), 0);
    EXPECT_STREQ(ci.vendor, "        ");
    cdi_close(&ci);
}

TEST_F(CdiOpen, FailedInquiryClosesWhatOpenOpened) {
    // A plain file that no SCSI layer answers.
    write_file(dev("plain"), "not a device");
    CDI_INFO ci;
    prepare(ci, dev("plain"));
    int st = cdi_open(&ci);
    EXPECT_EQ(st, 8);  // ENOTTY from the ioctl
    EXPECT_EQ(ci.error.errnum, ENOTTY);
    EXPECT_EQ(ci.path.handle, -1);
    EXPECT_EQ(ci.path.aux_handle, -1);
    EXPECT_EQ(ci.scmd.scmd_result & CDI_SCMD_FAILED, CDI_SCMD_FAILED);
    cdi_close(&ci);
}

TEST_F(CdiOpen, CallersOwnHandleIsUsedAndLeftOpen) {
    FakeDevice& d = FakeScsi::get().add(dev("mine"));
    d.standard = make_inquiry("QXR", "LUN", "1");
    int fd = open(dev("mine").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    CDI_INFO ci;
    prepare(ci, dev("mine"));
    ci.path.handle = fd;
    ASSERT_EQ(cdi_open(&ci), 0);
    EXPECT_EQ(ci.path.handle, fd);
    EXPECT_EQ(ci.path.cdi_opened_handle, 0);
    cdi_close(&ci);
    EXPECT_NE(fcntl(fd, F_GETFD), -1) << "the caller's descriptor was closed";

    // And when its inquiry fails, it is still not closed.
    d.ioctl_errno = EIO;
    prepare(ci, dev("mine"));
    ci.path.handle = fd;
    EXPECT_EQ(cdi_open(&ci), 16);
    EXPECT_NE(fcntl(fd, F_GETFD), -1);
    cdi_close(&ci);
    close(fd);
}

TEST_F(CdiOpen, TapePathsGetStarsAndNoInquiry) {
    FakeDevice& d = FakeScsi::get().add(dev("nst0"));
    d.standard = make_inquiry("HP", "Ultrium 3", "1", 1);
    CDI_INFO ci;
    prepare(ci, dev("nst0"), CDI_PATH_TAPE);
    ASSERT_EQ(cdi_open(&ci), 0);
    EXPECT_STREQ(ci.vendor, "********");
    EXPECT_STREQ(ci.product, "****************");
    EXPECT_STREQ(ci.rev, "****");
    ci.command = CDI_INQUIRY_DATA;
    EXPECT_EQ(cdi_cmd(&ci), 3);  // no inquiry on a tape path
    cdi_close(&ci);
}

using CdiCmd = CdiTest;

TEST_F(CdiCmd, GuardsAndUnreachableCommands) {
    CDI_INFO ci;
    prepare(ci, dev("x"));
    ci.command = CDI_INQUIRY;
    EXPECT_EQ(cdi_cmd(&ci), 9);  // closed record: the device isn't touched
    ci.command = CDI_GET_VERSION;
    ci.version = 0;
    EXPECT_EQ(cdi_cmd(&ci), 0);
    EXPECT_EQ(ci.version, current_cdi_version);
    for (int c : {54, 55, 58, 59, 1000}) {
        ci.command = c;
        EXPECT_EQ(cdi_cmd(&ci), 5) << c;
        EXPECT_STREQ(ci.error.errstr, "command is not supported by the selected target");
    }
    EXPECT_EQ(ci.scmd.scmd_status, 255);
    EXPECT_EQ(ci.drivestat.status, 19);
    cdi_free_cdi_info(&ci, 0);
}

TEST_F(CdiCmd, CommandsWithoutHandlerAreUnsupported) {
    FakeDevice& d = FakeScsi::get().add(dev("sdu"));
    d.standard = make_inquiry("QXR", "LUN", "1");
    CDI_INFO ci;
    prepare(ci, dev("sdu"));
    ASSERT_EQ(cdi_open(&ci), 0);
    int calls = d.sg_calls;
    for (int c : {23, 24, 26, 29, 33, 43, 51, -4}) {
        ci.command = c;
        EXPECT_EQ(cdi_cmd(&ci), 5) << c;
        EXPECT_EQ(ci.error.errnum, EPERM);
    }
    EXPECT_EQ(d.sg_calls, calls);
    ci.path.type = 77;
    ci.command = CDI_INQUIRY;
    EXPECT_EQ(cdi_cmd(&ci), 4);
    ci.command = CDI_SEND_SCSI_CDB;
    EXPECT_EQ(cdi_cmd(&ci), 4);
    ci.path.type = CDI_PATH_NDMP_TAPE;
    EXPECT_EQ(cdi_cmd(&ci), 3);
    ci.path.type = CDI_PATH_SCSI;
    cdi_close(&ci);
}

TEST_F(CdiCmd, SendScsiCdbPassesTheCallersCommandUndigested) {
    FakeDevice& d = FakeScsi::get().add(dev("sdc"));
    d.standard = make_inquiry("QXR", "LUN", "1");
    d.data = {1, 2, 3, 4, 5, 6, 7, 8};
    CDI_INFO ci;
    prepare(ci, dev("sdc"));
    ASSERT_EQ(cdi_open(&ci), 0);
    unsigned char cdb[10] = {0x25};
    unsigned char buf[8] = {0};
    ci.command = CDI_SEND_SCSI_CDB;
    ci.scmd.scmd_cdb = cdb;
    ci.scmd.scmd_cdblen = 10;
    ci.scmd.scmd_bufaddr = buf;
    ci.scmd.scmd_buflen = sizeof buf;
    ci.scmd.scmd_flags = 1;
    ci.scmd.scmd_time = 7;
    ci.scmd.scmd_sense = ci.default_sense_buffer;
    ci.scmd.scmd_senselen = 32;
    ASSERT_EQ(cdi_cmd(&ci), 0);
    EXPECT_EQ(buf[7], 8);
    EXPECT_EQ(d.last_timeout, 7000u);
    EXPECT_EQ(ci.drivestat.status, 19);  // not digested
    EXPECT_EQ(ci.scmd.scmd_result, CDI_SCMD_DONE);

    d.status = 0x18;
    EXPECT_EQ(cdi_cmd(&ci), 12);
    EXPECT_EQ(ci.drivestat.status, 19);
    cdi_close(&ci);
}

TEST_F(CdiCmd, DigestionTurnsStatusIntoDriveStatus) {
    FakeDevice& d = FakeScsi::get().add(dev("sdd"));
    d.standard = make_inquiry("QXR", "LUN", "1");
    CDI_INFO ci;
    prepare(ci, dev("sdd"));
    ASSERT_EQ(cdi_open(&ci), 0);
    const struct {
        unsigned char scsi_status;
        bool sense;
        int status, drive;
    } rows[] = {{0x00, false, 0, 0},   {0x02, true, 1, 8},    {0x02, false, 2, 18},
                {0x08, false, 11, 12}, {0x18, false, 12, 13}, {0x28, false, 15, 19}};
    for (const auto& r : rows) {
        d.status = r.scsi_status;
        // A reset: unit attention, 29/00.
        d.sense = r.sense
                      ? std::vector<unsigned char>{0x70, 0, 6, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0x29, 0}
                      : std::vector<unsigned char>{};
        ci.command = CDI_INQUIRY;
        EXPECT_EQ(cdi_cmd(&ci), r.status) << int(r.scsi_status);
        EXPECT_EQ(ci.drivestat.status, r.drive) << int(r.scsi_status);
        EXPECT_STREQ(ci.drivestat.msg, cdi_drive_stat_messages[r.drive]);
    }
    d.status = 0;
    d.sense.clear();
    // An immediate command has not finished when it succeeds.
    ci.command = CDI_REWIND;
    int immediate = 1;
    memcpy(ci.cmd_data.array, &immediate, sizeof immediate);
    vcdi_SetupDefaultScmd(&ci);
    unsigned char cdb[6] = {0x01, 1};
    ci.scmd.scmd_cdb = cdb;
    ci.scmd.scmd_cdblen = 6;
    ci.scmd.scmd_flags = 2;
    EXPECT_EQ(vcdi_DoScmdAndDigestResult(&ci), 0);
    EXPECT_EQ(ci.drivestat.status, 1);
    cdi_close(&ci);
}

TEST_F(CdiCmd, CopyIsPrivateAndNeverClosesTheOriginal) {
    FakeDevice& d = FakeScsi::get().add(dev("sdp"));
    d.standard = make_inquiry("QXR", "LUN", "1");
    CDI_INFO ci, copy;
    prepare(ci, dev("sdp"));
    ASSERT_EQ(cdi_open(&ci), 0);
    vcdi_AssignErrStr(&ci, "heap text");
    ci.scmd.scmd_sense = ci.default_sense_buffer;
    cdi_copy_cdi_info(&copy, &ci);
    EXPECT_NE(copy.path.device_file, ci.path.device_file);
    EXPECT_NE(copy.error.errstr, ci.error.errstr);
    EXPECT_EQ(copy.scmd.scmd_sense, copy.default_sense_buffer);
    copy.command = CDI_INQUIRY;
    EXPECT_EQ(cdi_cmd(&copy), 0);
    cdi_free_cdi_info(&copy, 0);
    EXPECT_NE(fcntl(ci.path.handle, F_GETFD), -1);
    ci.command = CDI_INQUIRY;
    EXPECT_EQ(cdi_cmd(&ci), 0);
    cdi_free_cdi_info(&ci, 0);  // closes the open record too
}

TEST_F(CdiCmd, TraceFollowsCdiDebugAndNeverTouchesStdout) {
    FakeDevice& d = FakeScsi::get().add(dev("sdt"));
    d.standard = make_inquiry("QXR", "LUN", "1");
    char* text = nullptr;
    size_t len = 0;
    FILE* mem = open_memstream(&text, &len);
    ASSERT_NE(mem, nullptr);
    cdi_set_trace_stream(mem);

    CDI_INFO ci;
    prepare(ci, dev("sdt"));
    ASSERT_EQ(cdi_open(&ci), 0);
    ci.command = CDI_INQUIRY;
    cdi_cmd(&ci);
    fflush(mem);
    EXPECT_EQ(len, 0u) << text;  // level 0: silent

    setenv("CDI_DEBUG", "4", 1);
    cdi_t_reset_thread();
    cdi_cmd(&ci);
    fflush(mem);
    std::string out(text, len);
    EXPECT_NE(out.find("CDI info: cdi_cmd() top.\n"), std::string::npos);
    EXPECT_NE(out.find("CDI enter: Device '" + dev("sdt") + "', CdiCmd 18\n"), std::string::npos);
    EXPECT_NE(out.find("CDI exit: Device '" + dev("sdt") +
                       "', CdiCmd 18, Status 0,DriveStat 0, 'The tape drive is ready for use', "
                       "ErrNum 0, 'command completed successfully'\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("CDB[6]: 12 00 00 00 ff 00"), std::string::npos) << out;
    cdi_close(&ci);
    cdi_set_trace_stream(nullptr);
    fclose(mem);
    free(text);
    unsetenv("CDI_DEBUG");
}

}  // namespace
