// The tape command set end to end through cdi_open and cdi_cmd, against the
// simulator's drive and changer held in memory: what the device saw (CDB,
// direction, length, time-out, tape operation) and the state it was left in.
#include <scsi/sg.h>
#include <sys/mtio.h>

#include <functional>

#include "tests/unit/cdi/cdi_test_env.h"
#include "tools/arraysim/preload/tape_sim.h"

namespace {

using arraysim::tape::Drive;
using arraysim::tape::Item;
using arraysim::tape::Seen;
using arraysim::tape::TapeState;

TapeState* g_state = nullptr;
std::vector<Seen>* g_seen = nullptr;

int tape_hook(int fd, unsigned long request, void* arg) {
    char link[64], target[4096];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    ssize_t n = readlink(link, target, sizeof target - 1);
    if (n < 0) {
        errno = EBADF;
        return -1;
    }
    target[n] = '\0';
    std::string name = strrchr(target, '/') + 1;
    Seen s;
    int rc = arraysim::tape::device_ioctl(*g_state, name, request, arg, &s);
    g_seen->push_back(s);
    return rc;
}

class TapeCmd : public CdiTest {
protected:
    TapeState st;
    std::vector<Seen> seen;
    CDI_INFO ci;
    bool opened = false;

    void SetUp() override {
        CdiTest::SetUp();
        g_state = &st;
        g_seen = &seen;
        UscsiHooks h = {&tape_hook, "6.1.0", nullptr, nullptr};
        h.proc_scsi_path = proc_.c_str();
        h.dev_sg_prefix = sgp_.c_str();
        proc_ = root + "/proc_scsi";
        sgp_ = root + "/sg";
        h.proc_scsi_path = proc_.c_str();
        h.dev_sg_prefix = sgp_.c_str();
        uscsi_set_hooks(&h);
        cdi_t_reset_thread();
        Drive d;
        d.name = "nst0";
        d.serial = "D1";
        d.volume = "T1";
        d.threaded = true;
        st.drives.push_back(d);
        Drive e;
        e.name = "nst1";
        st.drives.push_back(e);
        st.media["T1"].items = {{false, 512}, {false, 512}, {true, 0}, {false, 1024}, {true, 0}};
        st.media["T2"];
        arraysim::tape::Changer c;
        c.name = "sch0";
        c.slots = {"T2", "", "T3"};
        c.drives = {"nst0", "nst1"};
        st.changers.push_back(c);
        st.media["T3"];
        for (const char* f : {"nst0", "nst1", "sch0"}) write_file(dev(f), "");
    }
    void TearDown() override {
        if (opened) cdi_close(&ci);
        cdi_free_cdi_info(&ci, 0);
        CdiTest::TearDown();
    }
    void open_dev(const char* name, int type = CDI_PATH_SCSI) {
        prepare(ci, dev(name), type);
        ASSERT_EQ(cdi_open(&ci), 0) << (ci.error.errstr ? ci.error.errstr : "");
        opened = true;
        seen.clear();
    }
    int cmd(int command, const std::function<void(CMD_DATA&)>& set = nullptr) {
        seen.clear();
        ci.command = command;
        memset(&ci.cmd_data, 0, sizeof ci.cmd_data);
        if (set) set(ci.cmd_data);
        return cdi_cmd(&ci);
    }
    Drive& drive(const char* n = "nst0") { return *st.drive(n); }
    std::vector<unsigned char> cdb(size_t i = 0) {
        return i < seen.size() ? seen[i].cdb : std::vector<unsigned char>{};
    }

private:
    std::string proc_, sgp_;
};

using Bytes = std::vector<unsigned char>;

TEST_F(TapeCmd, EachCommandSendsItsCdbDirectionLengthAndTime) {
    open_dev("nst0");
    EXPECT_STREQ(ci.product, "SIMTAPE         ");
    unsigned char buf[64];
    const struct Row {
        int command;
        std::function<void(CMD_DATA&)> set;
        Bytes cdb;
        int direction;
        unsigned len, timeout_ms;
    } rows[] = {
        {CDI_WRITE_FILEMARKS,
         [](CMD_DATA& d) { d.write_filemarks.count = 2; },
         {0x10, 0, 0, 0, 2, 0},
         SG_DXFER_NONE,
         0,
         300000},
        {CDI_REWIND, nullptr, {0x01, 0, 0, 0, 0, 0}, SG_DXFER_NONE, 0, 1200000},
        {CDI_SPACE,
         [](CMD_DATA& d) {
             d.space = {CDI_SPACE_BLOCKS, -2};
         },
         {0x11, 0, 0xFF, 0xFF, 0xFE, 0},
         SG_DXFER_NONE,
         0,
         5400000},
        {CDI_FSF,
         [](CMD_DATA& d) { d.fsf.count = 1; },
         {0x11, 1, 0, 0, 1, 0},
         SG_DXFER_NONE,
         0,
         5400000},
        {CDI_BSR,
         [](CMD_DATA& d) { d.bsr.count = 1; },
         {0x11, 0, 0xFF, 0xFF, 0xFF, 0},
         SG_DXFER_NONE,
         0,
         5400000},
        {CDI_EOD, nullptr, {0x11, 3, 0, 0, 0, 0}, SG_DXFER_NONE, 0, 5400000},
        {CDI_LOCATE,
         [](CMD_DATA& d) { d.locate.block = 3; },
         {0x2B, 0, 0, 0, 0, 0, 3, 0, 0, 0},
         SG_DXFER_NONE,
         0,
         600000},
        {CDI_READ_POSITION,
         nullptr,
         {0x34, 0, 0, 0, 0, 0, 0, 0, 0, 0},
         SG_DXFER_FROM_DEV,
         32,
         300000},
        {CDI_GET_BLOCK_LIMITS, nullptr, {0x05, 0, 0, 0, 0, 0}, SG_DXFER_FROM_DEV, 6, 60000},
        {CDI_RESERVE, nullptr, {0x16, 0, 0, 0, 0, 0}, SG_DXFER_NONE, 0, 60000},
        {CDI_RELEASE, nullptr, {0x17, 0, 0, 0, 0, 0}, SG_DXFER_NONE, 0, 60000},
        {CDI_REQUEST_SENSE, nullptr, {0x03, 0, 0, 0, 32, 0}, SG_DXFER_FROM_DEV, 32, 60000},
        {CDI_UNLOAD,
         [](CMD_DATA& d) {
             d.load_unload = {1, 1};
         },
         {0x1B, 1, 0, 0, 1, 0},
         SG_DXFER_NONE,
         0,
         1200000},
        {CDI_LOG_SENSE,
         [&](CMD_DATA& d) {
             d.log_sense = {0x2E, 1, 0, 0, {buf, sizeof buf, 0}};
         },
         {0x4D, 0, 0x6E, 0, 0, 0, 0, 0, 64, 0},
         SG_DXFER_FROM_DEV,
         64,
         300000},
        {CDI_MODE_SENSE,
         [&](CMD_DATA& d) {
             d.mode_data.page = 0x0F;
             d.mode_data.dbd = 1;
             d.mode_data.data = {buf, sizeof buf, 0};
         },
         {0x5A, 0x08, 0x0F, 0, 0, 0, 0, 0, 64, 0},
         SG_DXFER_FROM_DEV,
         64,
         20000},
        {CDI_SPIN,
         [&](CMD_DATA& d) {
             d.spin = {0x20, 0x0020, 0, {buf, sizeof buf, 0}};
         },
         {0xA2, 0x20, 0x00, 0x20, 0, 0, 0, 0, 0, 64, 0, 0},
         SG_DXFER_FROM_DEV,
         64,
         60000},
        {CDI_READ_MAM,
         [&](CMD_DATA& d) {
             d.mam = {0x0401, {buf, sizeof buf, 0}};
         },
         {0x8C, 0, 0, 0, 0, 0, 0, 0, 0x04, 0x01, 0, 0, 0, 64, 0, 0},
         SG_DXFER_FROM_DEV,
         64,
         60000},
        {CDI_READ_BUFFER,
         [&](CMD_DATA& d) {
             d.read_buffer = {3, 0, 0, {buf, 4, 0}};
         },
         {0x3C, 3, 0, 0, 0, 0, 0, 0, 4, 0},
         SG_DXFER_FROM_DEV,
         4,
         300000},
    };
    const std::vector<Item> tape = st.media["T1"].items;
    for (const auto& r : rows) {
        // Each from the middle of the same tape: between two records.
        st.media["T1"].items = tape;
        drive().pos = 2;
        drive().threaded = true;
        EXPECT_EQ(cmd(r.command, r.set), 0) << r.command << " " << ci.drivestat.msg;
        ASSERT_EQ(seen.size(), 1u) << r.command;
        EXPECT_EQ(cdb(), r.cdb) << r.command;
        EXPECT_EQ(seen[0].direction, r.direction) << r.command;
        EXPECT_EQ(seen[0].dxfer_len, r.len) << r.command;
        EXPECT_EQ(seen[0].timeout_ms, r.timeout_ms) << r.command;
    }
}

TEST_F(TapeCmd, PositioningCommandsLeaveTheTapeWhereTheySay) {
    open_dev("nst0");
    const struct Row {
        int command;
        std::function<void(CMD_DATA&)> set;
        size_t pos;
    } rows[] = {
        {CDI_FSF, [](CMD_DATA& d) { d.fsf.count = 1; }, 3},
        {CDI_FSR, [](CMD_DATA& d) { d.fsr.count = 1; }, 4},
        {CDI_EOD, nullptr, 5},
        {CDI_BSF, [](CMD_DATA& d) { d.bsf.count = 1; }, 4},
        {CDI_LOCATE, [](CMD_DATA& d) { d.locate.block = 1; }, 1},
        {CDI_REWIND, nullptr, 0},
        // More filemarks than blocks behind: a rewind instead.
        {CDI_BSF, [](CMD_DATA& d) { d.bsf.count = 4; }, 0},
    };
    for (const auto& r : rows) {
        cmd(r.command, r.set);
        EXPECT_EQ(drive().pos, r.pos) << r.command;
    }
    EXPECT_EQ(cdb(1), Bytes({0x01, 0, 0, 0, 0, 0}));  // the forwarded rewind
    drive().pos = 4;
    ASSERT_EQ(cmd(CDI_READ_POSITION), 0);
    EXPECT_EQ(ci.cmd_data.read_position.first_block, 4);
    EXPECT_FALSE(ci.cmd_data.read_position.bop);
    ASSERT_EQ(cmd(CDI_WRITE_FILEMARKS, [](CMD_DATA& d) { d.write_filemarks.count = 2; }), 0);
    ASSERT_EQ(st.media["T1"].items.size(), 6u);
    EXPECT_TRUE(st.media["T1"].items[4].filemark && st.media["T1"].items[5].filemark);
    ASSERT_EQ(cmd(CDI_OFFLINE), 0);
    EXPECT_FALSE(drive().threaded);
    ASSERT_EQ(cmd(CDI_UNLOAD, [](CMD_DATA& d) { d.load_unload.load = 1; }), 0);
    EXPECT_TRUE(drive().threaded);
}

TEST_F(TapeCmd, FailuresComeBackWithTheirDriveStatus) {
    open_dev("nst0");
    unsigned char buf[2048];
    auto read = [&](CMD_DATA& d) { d.read_tape.data = {buf, sizeof buf, 0}; };
    // A record, then a filemark, then end of data.
    drive().pos = 1;
    EXPECT_EQ(cmd(CDI_READ_TAPE, read), 1);  // shorter record than asked: ILI
    EXPECT_TRUE(ci.cmd_data.read_tape.ili);
    EXPECT_EQ(ci.cmd_data.read_tape.data.got, 512);
    EXPECT_EQ(cmd(CDI_READ_TAPE, read), 1);
    EXPECT_EQ(ci.drivestat.status, CDI_DRIVE_FILEMARK);
    EXPECT_TRUE(ci.cmd_data.read_tape.filemark);
    drive().pos = 5;
    EXPECT_EQ(cmd(CDI_READ_TAPE, read), 1);
    EXPECT_EQ(ci.drivestat.status, CDI_DRIVE_EOD);
    drive().medium_error_at = 0;
    drive().pos = 0;
    cmd(CDI_READ_TAPE, read);
    EXPECT_STREQ(ci.drivestat.msg, "UNRECOVERED READ ERROR");
    EXPECT_EQ(cmd(CDI_READ_CAPACITY), 1);  // a tape has no capacity command
    EXPECT_EQ(ci.drivestat.status, CDI_DRIVE_INVALID_COMMAND);
    st.media["T1"].wp = true;
    EXPECT_EQ(cmd(CDI_WRITE_FILEMARKS, [](CMD_DATA& d) { d.write_filemarks.count = 1; }), 1);
    EXPECT_EQ(ci.drivestat.status, CDI_DRIVE_WRITE_PROTECTED);
    EXPECT_EQ(cmd(CDI_TUR), 0);  // ready, but the mode header says write-protected
    EXPECT_EQ(ci.drivestat.status, CDI_DRIVE_WRITE_PROTECTED);
    drive().reserved_other = true;
    EXPECT_EQ(cmd(CDI_REWIND), CDI_STAT_RESERVATION_CONFLICT);
    EXPECT_EQ(ci.drivestat.status, CDI_DRIVE_RESERVED);
    drive().reserved_other = false;
    drive().threaded = false;
    EXPECT_EQ(cmd(CDI_TUR), 1);
    EXPECT_EQ(ci.drivestat.status, CDI_DRIVE_NO_TAPE);
    EXPECT_STREQ(ci.drivestat.msg, "There is not a tape in the drive");
}

TEST_F(TapeCmd, TurRetriesAResetAndGivesUpAfterTenTries) {
    open_dev("nst0");
    drive().ua = 1;
    EXPECT_EQ(cmd(CDI_TUR), 0);
    EXPECT_EQ(ci.drivestat.status, CDI_DRIVE_READY);
    EXPECT_EQ(seen.size(), 3u);  // reset, ready, mode sense
    drive().ua = 1;
    drive().sticky_reset = 50;
    EXPECT_EQ(cmd(CDI_TUR), 1);
    EXPECT_EQ(ci.drivestat.status, CDI_DRIVE_RESET);
    EXPECT_EQ(seen.size(), 10u);
}

TEST_F(TapeCmd, StatusConfigAlertsCleaningAndEncryption) {
    open_dev("nst0");
    drive().pos = 2;
    ASSERT_EQ(cmd(CDI_GET_STATUS), 0);
    EXPECT_TRUE(ci.cmd_data.get_status.ready);
    EXPECT_EQ(ci.cmd_data.get_status.density, 0x58);
    EXPECT_EQ(ci.cmd_data.get_status.block_position, 2);
    ASSERT_EQ(cmd(CDI_GET_CONFIG_DATA), 0);
    EXPECT_EQ(ci.cmd_data.get_config_data.data_compression_enabled, 1);
    EXPECT_EQ(ci.cmd_data.get_config_data.buffer_full_ratio, 0x80);

    drive().alerts = {3, 20, 40, 64};
    ASSERT_EQ(cmd(CDI_GET_TAPEALERT), 0);
    const CDI_GET_TAPEALERT_DATA& t = ci.cmd_data.get_tapealert;
    EXPECT_EQ(t.flags[3] + t.flags[20] + t.flags[40] + t.flags[64], 4);
    EXPECT_EQ(t.tape.warning[3], 1);
    EXPECT_EQ(t.tape.critical[20], 1);
    EXPECT_EQ(t.changer.critical[40], 1);
    EXPECT_EQ(t.tape.critical[3], 0);

    drive().cleaning = true;
    ASSERT_EQ(cmd(CDI_CHECK_IF_DRIVE_NEEDS_CLEANING), 0);
    EXPECT_EQ(ci.drivestat.status, CDI_DRIVE_READY);  // SIMTAPE is no known family
    strcpy(ci.product, "Ultrium 5-SCSI  ");
    ASSERT_EQ(cmd(CDI_CHECK_IF_DRIVE_NEEDS_CLEANING), 0);
    EXPECT_EQ(ci.drivestat.status, CDI_DRIVE_NEEDS_CLEANING);
    EXPECT_EQ(cdb(), Bytes({0x03, 0, 0, 0, 96, 0}));
    ASSERT_EQ(cmd(CDI_GET_TAPE_SIZE), 0);
    EXPECT_EQ(ci.cmd_data.get_tape_size.maximum_mb, 1500000);

    ASSERT_EQ(cmd(CDI_GET_ENCRYPTION), 0);
    const CDI_GET_ENCRYPTION_DATA& e = ci.cmd_data.get_encryption;
    ASSERT_TRUE(e.supported);
    ASSERT_EQ(e.num_algorithms, 1);
    EXPECT_EQ(e.alg[0].id, 0x00010014u);
    EXPECT_EQ(e.alg[0].key_size, 32);
    EXPECT_EQ(cmd(CDI_SET_ENCRYPTION,
                  [](CMD_DATA& d) {
                      d.set_encryption.encryption_mode = 2;
                      d.set_encryption.decryption_mode = 2;
                      d.set_encryption.algorithm_ID = 0x00010014;
                      cdi_opt_to_encrypt_key(
                          "0x00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff",
                          &d.set_encryption.key);
                  }),
              0);
    EXPECT_EQ(drive().enc_mode, 2);
    EXPECT_EQ(cmd(CDI_SET_ENCRYPTION,
                  [](CMD_DATA& d) {
                      d.set_encryption.encryption_mode = 2;
                      d.set_encryption.algorithm_ID = 0x00010014;
                      d.set_encryption.key.len = 16;
                  }),
              CDI_STAT_PARAMETER_ERROR);
}

TEST_F(TapeCmd, PersistentReservationsAndTheirText) {
    open_dev("nst0");
    const unsigned long long key = cdi_opt_to_reskey("0x1234abcd");
    EXPECT_EQ(key, 0x1234abcdull);
    EXPECT_EQ(cdi_opt_to_reskey("0xzz"), 0u);
    EXPECT_EQ(cmd(CDI_PR_CMD, [&](CMD_DATA& d) { d.pr = {CDI_PR_REG_IGNORE, key, 0, 0, 0, {}}; }),
              0);
    EXPECT_EQ(cmd(CDI_PR_CMD, [&](CMD_DATA& d) { d.pr = {CDI_PR_RESERVE, key, 3, 0, 0, {}}; }), 0);
    EXPECT_TRUE(drive().pr_reserved);
    EXPECT_EQ(cdb()[2], 0x03);
    EXPECT_EQ(cmd(CDI_PR_CMD, [&](CMD_DATA& d) { d.pr.action = CDI_PR_READ_KEYS; }), 0);
    ASSERT_EQ(ci.cmd_data.pr.nkeys, 1);
    EXPECT_EQ(ci.cmd_data.pr.keys[0], key);
    EXPECT_EQ(cmd(CDI_PR_CMD, [&](CMD_DATA& d) { d.pr = {CDI_PR_RELEASE, key + 1, 3, 0, 0, {}}; }),
              CDI_STAT_RESERVATION_CONFLICT);
    char text[128];
    CDI_PR_DATA pr = {CDI_PR_RESERVE, 0x100000002ull, 3, 0, 0, {}};
    cdi_res_to_string(&pr, text, sizeof text);
    EXPECT_STREQ(text, "Key: 0x12, type: exclusive access, scope: logical unit, scope address: 0");
}

TEST_F(TapeCmd, ChangerMovesCartridgesThroughTheCallersCdb) {
    open_dev("sch0");
    auto move = [&](int src, int dst) {
        static unsigned char c[12];
        unsigned char m[12] = {0xA5,
                               0,
                               0,
                               1,
                               static_cast<unsigned char>(src >> 8),
                               static_cast<unsigned char>(src),
                               static_cast<unsigned char>(dst >> 8),
                               static_cast<unsigned char>(dst)};
        memcpy(c, m, sizeof c);
        ci.command = CDI_SEND_SCSI_CDB;
        vcdi_SetupDefaultScmd(&ci);
        ci.scmd.scmd_cdb = c;
        ci.scmd.scmd_cdblen = 12;
        ci.scmd.scmd_flags = 2;
        return cdi_cmd(&ci);
    };
    EXPECT_EQ(move(0x1000, 0x0101), 0);  // slot 1 to the second drive
    EXPECT_EQ(st.changers[0].slots[0], "");
    EXPECT_EQ(drive("nst1").volume, "T2");
    EXPECT_EQ(move(0x1001, 0x0010), 1);  // empty slot: check condition, not digested
    EXPECT_EQ(ci.scmd.scmd_sense[12], 0x3B);
    EXPECT_EQ(ci.scmd.scmd_sense[13], 0x0E);
    EXPECT_EQ(move(0x1002, 0x0100), 1);  // the first drive is full
    EXPECT_EQ(move(0x0100, 0x1001), 1);  // and its tape is threaded
    EXPECT_EQ(ci.scmd.scmd_sense[12], 0x53);
    EXPECT_EQ(move(0x1002, 0x0010), 0);
    EXPECT_EQ(st.changers[0].ie, "T3");
}

TEST_F(TapeCmd, TapeDriverPathMapsCommandsToTapeOperations) {
    open_dev("nst0", CDI_PATH_TAPE);
    EXPECT_STREQ(ci.vendor, "********");
    const struct Row {
        int command;
        std::function<void(CMD_DATA&)> set;
        int mt_op, count;
        size_t pos;
    } rows[] = {
        {CDI_FSF, [](CMD_DATA& d) { d.fsf.count = 1; }, MTFSF, 1, 3},
        {CDI_SPACE,
         [](CMD_DATA& d) {
             d.space = {CDI_SPACE_BLOCKS, 1};
         },
         MTFSR, 1, 4},
        {CDI_SPACE,
         [](CMD_DATA& d) {
             d.space = {CDI_SPACE_BLOCKS, -1};
         },
         MTBSR, 1, 3},
        {CDI_EOD, nullptr, MTEOM, 0, 5},
        {CDI_REWIND, nullptr, MTREW, 0, 0},
        {CDI_WRITE_FILEMARKS, [](CMD_DATA& d) { d.write_filemarks.count = 1; }, MTWEOF, 1, 1},
        {CDI_SET_BLOCK_SIZE, [](CMD_DATA& d) { d.set_block_size.size = 1024; }, MTSETBLK, 1024, 1},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(cmd(r.command, r.set), 0) << r.command;
        ASSERT_EQ(seen.size(), 1u);
        EXPECT_EQ(seen[0].request, static_cast<unsigned long>(MTIOCTOP));
        EXPECT_EQ(seen[0].mt_op, r.mt_op) << r.command;
        EXPECT_EQ(seen[0].mt_count, r.count) << r.command;
        EXPECT_EQ(drive().pos, r.pos) << r.command;
        EXPECT_EQ(ci.scmd.scmd_result, CDI_SCMD_DONE);
    }
    ASSERT_EQ(cmd(CDI_GET_STATUS), 0);
    EXPECT_EQ(seen[0].request, static_cast<unsigned long>(MTIOCGET));
    EXPECT_TRUE(ci.cmd_data.get_status.ready);
    EXPECT_EQ(ci.cmd_data.get_status.file_number, 1);
    // No tape equivalent: not implemented on this path.
    EXPECT_EQ(cmd(CDI_LOCATE), CDI_STAT_CMD_NOT_IMPLEMENTED);
    EXPECT_TRUE(seen.empty());
    ci.tape_op.mt_cmd = CDI_MT_OP;
    ci.tape_op.cdi_mtop.operation = CDI_MT_SETDENSITY;
    ci.command = CDI_SEND_SCSI_CDB;
    EXPECT_EQ(cdi_cmd(&ci), CDI_STAT_CMD_NOT_SUPPORTED);
    ci.tape_op.mt_cmd = 99;
    EXPECT_EQ(cdi_cmd(&ci), CDI_STAT_CMD_NOT_SUPPORTED);
    drive().threaded = false;
    EXPECT_EQ(cmd(CDI_REWIND), CDI_STAT_SYSTEM_ERROR);  // EIO from the driver
    EXPECT_EQ(ci.error.errnum, EIO);
    EXPECT_EQ(ci.scmd.scmd_result & CDI_SCMD_FAILED, CDI_SCMD_FAILED);
}

TEST_F(TapeCmd, PathTypesAndCommandsOutsideTheTable) {
    open_dev("nst0");
    EXPECT_EQ(cmd(CDI_SET_DENSITY), CDI_STAT_CMD_NOT_SUPPORTED);
    EXPECT_EQ(cmd(23), CDI_STAT_CMD_NOT_SUPPORTED);
    EXPECT_EQ(cmd(CDI_SET_COMPRESSION), 0);  // accepted and ignored on SCSI
    EXPECT_TRUE(seen.empty());
    ASSERT_EQ(cmd(CDI_SET_DEBUG, [](CMD_DATA& d) { d.set_debug.level = 2; }), 0);
    ASSERT_EQ(cmd(CDI_GET_DEBUG), 0);
    EXPECT_EQ(ci.cmd_data.get_debug.level, 2);
    cdi_set_debug_level(0);
    for (int type : {CDI_PATH_NDMP_TAPE, CDI_PATH_RESERVED, 9}) {
        ci.path.type = type;
        EXPECT_EQ(cmd(CDI_TUR),
                  type == 9 ? CDI_STAT_PATH_NOT_IMPLEMENTED : CDI_STAT_CMD_NOT_IMPLEMENTED)
            << type;
    }
    ci.path.type = CDI_PATH_SCSI;
}

}  // namespace
