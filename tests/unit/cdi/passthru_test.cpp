// The two transports of a CDB: what cdi_os_cmd puts in the SG_IO header or
// the old st block, and how each answer of the device layer becomes a CDI
// status, text and result bits.
#include "drivers/cdi/cdi_os.h"
#include "tests/unit/cdi/cdi_test_env.h"

namespace {

class Passthru : public CdiTest {
protected:
    CDI_INFO ci;
    FakeDevice* d = nullptr;
    unsigned char cdb[16] = {0x28};
    unsigned char buf[4096] = {0};

    void open_device(const char* release) {
        use_kernel(release);
        d = &FakeScsi::get().add(dev("sdx"));
        d->standard = make_inquiry("QXR", "LUN", "1");
        d->data = {9, 8, 7, 6};
        prepare(ci, dev("sdx"));
        ASSERT_EQ(cdi_os_open(&ci), 0);
        ASSERT_EQ(ci.path.aux_handle, -1);  // no generic node: the transport is by kernel
    }
    int send(int cdblen, unsigned long buflen, int flags = 1) {
        vcdi_SetupDefaultScmd(&ci);
        ci.scmd.scmd_cdb = cdb;
        ci.scmd.scmd_cdblen = cdblen;
        ci.scmd.scmd_bufaddr = buf;
        ci.scmd.scmd_buflen = buflen;
        ci.scmd.scmd_flags = flags;
        vcdi_free_errstr(&ci);
        return cdi_os_cmd(&ci);
    }
    std::string text() { return ci.error.errstr ? ci.error.errstr : ""; }
    void TearDown() override {
        cdi_os_close(&ci);
        free(ci.path.device_file);
        vcdi_free_errstr(&ci);
        CdiTest::TearDown();
    }
};

TEST_F(Passthru, OldKernelUsesTheStBlockWithItsLimits) {
    open_device("2.6.15");
    EXPECT_GT(d->st_calls, 0);
    EXPECT_EQ(d->sg_calls, 0);
    EXPECT_EQ(send(12, 8), 0);
    EXPECT_EQ(buf[0], 9);
    EXPECT_EQ(ci.scmd.scmd_result, CDI_SCMD_DONE);
    EXPECT_EQ(d->sg_calls, 0);

    EXPECT_EQ(send(16, 8), 13);
    EXPECT_EQ(ci.error.errnum, 7);
    EXPECT_EQ(text(), "cdb (size:16) is too large for use via st driver");
    EXPECT_EQ(send(6, 3577), 13);
    EXPECT_EQ(
        text(),
        "Requested transfer (size:xdf9) is too large for SCSI_IOCTL_SEND_COMMAND via st driver");
    EXPECT_EQ(send(6, 3576, 0), 0);  // data out travels in wdata
    EXPECT_EQ(d->last_out.size(), 3576u);
}

TEST_F(Passthru, OldTransportStatusBytes) {
    open_device("2.4.20");
    d->sense = {0x70, 0, 0x05, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0x24};
    const struct {
        int ret, status;
        unsigned long result;
        const char* text;
    } rows[] = {
        {0x08000002, 1, CDI_SCMD_DONE, "SCSI error occurred - see sense data"},
        {0x00000002, 2, CDI_SCMD_DONE | CDI_SCMD_NO_SENSE,
         "SCSI error occurred - no sense data returned"},
        {0x00000008, 11, CDI_SCMD_DONE, ""},
        {0x00000018, 12, CDI_SCMD_DONE, ""},
        {0x00000028, 15, CDI_SCMD_DONE, ""},
        {0x000000c1, 0, CDI_SCMD_DONE, ""},  // bits outside the mask are ignored
    };
    for (const auto& r : rows) {
        d->old_ret = r.ret;
        EXPECT_EQ(send(6, 8), r.status) << std::hex << r.ret;
        EXPECT_EQ(ci.scmd.scmd_result, r.result) << std::hex << r.ret;
        EXPECT_EQ(text(), r.text) << std::hex << r.ret;
    }
    d->old_ret = 0x08000002;
    send(6, 8);
    EXPECT_EQ(ci.default_sense_buffer[2], 0x05);
    EXPECT_EQ(ci.default_sense_buffer[12], 0x24);

    d->ioctl_errno = EBUSY;
    EXPECT_EQ(send(6, 8), 10);
    EXPECT_EQ(ci.error.errnum, EBUSY);
    EXPECT_EQ(ci.scmd.scmd_result & CDI_SCMD_FAILED, CDI_SCMD_FAILED);

    int fd = ci.path.handle;
    ci.path.handle = -1;  // nothing to send on
    EXPECT_EQ(send(6, 8), 13);
    EXPECT_EQ(text(), "no valid device handles supplied.");
    ci.path.handle = fd;
}

TEST_F(Passthru, SgIoHeaderCarriesTheCommand) {
    open_device("5.10.0");
    EXPECT_EQ(send(16, 4, 1), 0);  // no st limit on this transport
    EXPECT_EQ(d->last_cdb.size(), 16u);
    EXPECT_EQ(d->last_direction, SG_DXFER_FROM_DEV);
    EXPECT_EQ(d->last_timeout, 300000u);
    EXPECT_EQ(d->last_mx_sb_len, 32u);
    EXPECT_EQ(ci.scmd.scmd_resid, 0);
    EXPECT_EQ(send(10, 4, 0), 0);
    EXPECT_EQ(d->last_direction, SG_DXFER_TO_DEV);
    EXPECT_EQ(send(6, 0, 2), 0);
    EXPECT_EQ(d->last_direction, SG_DXFER_NONE);
    EXPECT_EQ(text(), "command completed successfully");
    EXPECT_EQ(ci.error.errnum, 0);

    // Requests that would make the transport read wild memory are refused.
    ci.scmd.scmd_cdb = nullptr;
    ci.scmd.scmd_cdblen = 6;
    EXPECT_EQ(cdi_os_cmd(&ci), 13);
    EXPECT_EQ(send(-1, 0), 13);
    vcdi_SetupDefaultScmd(&ci);
    ci.scmd.scmd_cdb = cdb;
    ci.scmd.scmd_cdblen = 6;
    ci.scmd.scmd_buflen = 10;  // and no buffer
    EXPECT_EQ(cdi_os_cmd(&ci), 13);
}

TEST_F(Passthru, SgIoStatusesAndAdapterErrors) {
    open_device("6.1.0");
    const std::vector<unsigned char> sense = {0x70, 0, 0x06, 0, 0, 0, 0, 10};
    const struct {
        unsigned char status, host, driver, msg;
        bool sense;
        int cdi;
        unsigned long result;
        const char* text;
    } rows[] = {
        {0x02, 0, 0, 0, true, 1, 2, "command returns check condition"},
        {0x02, 0, 0, 0, false, 2, 6, "command returns check condition - no sense data available"},
        {0x08, 0, 0, 0, false, 11, 2, "the device is busy"},
        {0x18, 0, 0, 0, false, 12, 2, "there was a reservation conflict on the device"},
        {0x22, 0, 0, 0, false, 15, 2,
         "a SCSI error occurred - see SCSI sense data for more information"},
        {0, 0, 0x08, 0, true, 1, 2, "SCSI Driver Error: 0x08 (Sense:no suggestion)"},
        {0, 0, 0x80, 0, false, 2, 6, "SCSI Driver Error: 0x80 (OK:no suggestion)"},
        {0, 0, 0x24, 0, false, 16, 2, "SCSI Driver Error: 0x24 (Error:suggest abort)"},
        {0, 0, 0x16, 0, false, 16, 2, "SCSI Driver Error: 0x16 (TimeOut:suggest retry)"},
        {0, 0, 0x3f, 0, false, 16, 2, "SCSI Driver Error: 0x3f (Unknown:suggest remap)"},
        {0, 0, 0x41, 0, false, 16, 2, "SCSI Driver Error: 0x41 (Busy:suggest die)"},
        {0, 3, 0, 0, false, 16, 2, "Host Adaptor Error: 0x03 (TIMED OUT for other reason)"},
        {0, 11, 0, 0, false, 16, 2,
         "Host Adaptor Error: 0x0b (The low level driver wants a retry)"},
        {0, 12, 0, 0, false, 16, 2, "Host Adaptor Error: 0x0c"},
        {0, 0, 0, 1, false, 16, 2, "Messaging Level Data: 0x01"},
        {0, 5, 0x04, 1, false, 16, 2,
         "SCSI Driver Error: 0x04 (Error:no suggestion)"},  // driver first
    };
    for (const auto& r : rows) {
        d->status = r.status;
        d->host = r.host;
        d->driver = r.driver;
        d->msg = r.msg;
        d->sense = r.sense ? sense : std::vector<unsigned char>{};
        ci.error.errnum = 0;
        EXPECT_EQ(send(10, 4), r.cdi) << r.text;
        EXPECT_EQ(ci.scmd.scmd_result, r.result) << r.text;
        EXPECT_EQ(text(), r.text);
        if (r.cdi != 0) {
            EXPECT_EQ(ci.error.errnum, 5) << r.text;
        }
        if (r.sense && r.cdi == 1) {
            EXPECT_EQ(ci.scmd.scmd_senselen, static_cast<int>(sense.size()));
        }
    }
    d->status = d->host = d->driver = d->msg = 0;
    d->ioctl_errno = EIO;
    EXPECT_EQ(send(10, 4), 16);
    EXPECT_EQ(ci.scmd.scmd_result, CDI_SCMD_FAILED);
    EXPECT_EQ(ci.error.errnum, EIO);
}

TEST_F(Passthru, IoctlErrorsThroughCdiCmdKeepTheirErrno) {
    open_device("6.1.0");
    ci.path.cdi_opened_handle = 1;
    d->ioctl_errno = EINVAL;
    ci.command = CDI_INQUIRY;
    EXPECT_EQ(cdi_cmd(&ci), 13);
    EXPECT_EQ(ci.error.errnum, EINVAL);
    EXPECT_NE(text().find("SG_IO ioctl failed"), std::string::npos) << text();
}

}  // namespace
