// The client and the device interface against the real NDMP server ndmjob
// (package amanda-server), one daemon per test on a free loopback port. The
// tests skip when ndmjob is not installed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>

#include "drivers/cdi/cdi.h"
#include "libndmp/ndmp_clnt/ndmp_clnt.h"
#include "tests/support/fixture.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/ndmp/ndmp_test_util.h"

extern char** environ;

namespace {

const char* kNdmjob = "/usr/lib/amanda/ndmjob";

unsigned short free_port() {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a;
    memset(&a, 0, sizeof a);
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t l = sizeof a;
    getsockname(s, reinterpret_cast<sockaddr*>(&a), &l);
    close(s);
    return ntohs(a.sin_port);
}

class Ndmjob : public ::testing::Test {
protected:
    void start(const std::vector<std::string>& extra = {}) {
        if (access(kNdmjob, X_OK) != 0) GTEST_SKIP() << "ndmjob is not installed";
        ASSERT_TRUE(tmp_.ok());
        dir_ = tmp_.path();
        tape_ = dir_ + "/tape0";
        robot_ = dir_ + "/robot";
        close(open(tape_.c_str(), O_CREAT | O_WRONLY, 0644));
        mkdir(robot_.c_str(), 0755);
        log_ = dir_ + "/ndmjob.log";
        port_ = free_port();
        int in[2];
        ASSERT_EQ(pipe2(in, O_CLOEXEC), 0);
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_adddup2(&fa, in[0], 0);
        posix_spawn_file_actions_addopen(&fa, 1, log_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_adddup2(&fa, 1, 2);
        std::vector<std::string> args = {kNdmjob, "-o", "test-daemon", "-p", std::to_string(port_),
                                         "-v",    "-v", "-v",          "-v", "-v"};
        args.insert(args.end(), extra.begin(), extra.end());
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        ASSERT_EQ(posix_spawn(&pid_, kNdmjob, &fa, nullptr, argv.data(), environ), 0);
        posix_spawn_file_actions_destroy(&fa);
        close(in[0]);
        stdin_w_ = in[1];
        // Ready when the log says so; a daemon that exits first has failed.
        for (int i = 0; i < 500; i++) {
            if (zovtest::read_text(log_).find("READY") != std::string::npos) break;
            int st;
            ASSERT_EQ(waitpid(pid_, &st, WNOHANG), 0) << zovtest::read_text(log_);
            struct timespec ts = {0, 10 * 1000 * 1000};
            nanosleep(&ts, nullptr);
        }
        ASSERT_NE(zovtest::read_text(log_).find("READY"), std::string::npos)
            << zovtest::read_text(log_);
        ndmp_test_set_port(port_);
        ndmp_test_set_time_limits(1500, 3000);
    }
    void TearDown() override {
        ndmp_test_set_port(0);
        ndmp_test_set_time_limits(0, 0);
        if (pid_ > 0) {
            close(stdin_w_);
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
    }
    void* connect_auth() {
        return ndmp_create_connect(const_cast<char*>("127.0.0.1"), const_cast<char*>("ndmp"),
                                   const_cast<char*>("ndmp"), nullptr, 5, 5);
    }

    zovtest::TempDir tmp_{"ndmjob"};
    std::string dir_, tape_, robot_, log_;
    unsigned short port_ = 0;
    pid_t pid_ = -1;
    int stdin_w_ = -1;
};

// A connection that has seen the greeting and speaks `vers`' forms.
void* raw_connect(unsigned short port, int vers) {
    void* ndp = ndmp_connect(const_cast<char*>("127.0.0.1"), port, nullptr);
    if (!ndp) return nullptr;
    ndmp_set_timeout(ndp, 5);
    for (int i = 0; i < 50 && !ndmp_ready(ndp) && !ndmp_eof(ndp); i++)
        ndmp_poll(ndp, ndmp_clnt_tbl, 1);
    ndmp_set_vers(ndp, vers);
    return ndp;
}

}  // namespace

TEST_F(Ndmjob, AcceptsVersionsTwoToFourAndRefusesOneAndFive) {
    start();
    for (int v = 1; v <= 5; v++) {
        void* ndp = raw_connect(port_, v <= 4 ? v : 4);
        ASSERT_NE(ndp, nullptr);
        ASSERT_TRUE(ndmp_ready(ndp));
        ndmp_connect_open_request req;
        req.protocol_version = static_cast<u_short>(v);
        void* reply = nullptr;
        ASSERT_EQ(ndmp_call(ndp, NDMP_CONNECT_OPEN, &req, &reply, ndmp_clnt_tbl), 0) << v;
        ndmp_error e = static_cast<ndmp_error_reply*>(reply)->error;
        ndmp_free_reply(ndp, NDMP_CONNECT_OPEN, reply);
        if (v >= 2 && v <= 4)
            EXPECT_EQ(e, NDMP_NO_ERR) << v;
        else
            EXPECT_EQ(e, NDMP_ILLEGAL_ARGS_ERR) << v;
        ndmp_connect_close(&ndp);
    }
    void* ndp = connect_auth();
    ASSERT_NE(ndp, nullptr);
    EXPECT_EQ(ndmp_get_vers(ndp), 4);
    ndmp_connect_close(&ndp);
}

TEST_F(Ndmjob, Md5AndTextAuthenticationAndAWrongPasswordThatLeavesTheConnectionUsable) {
    start();
    ndmptest::LogCapture cap;
    void* ndp = ndmp_create_connect_without_auth(const_cast<char*>("127.0.0.1"), nullptr, nullptr,
                                                 nullptr, 5, 5);
    ASSERT_NE(ndp, nullptr);
    EXPECT_EQ(
        ndmp_connect_auth(ndp, nullptr, const_cast<char*>("ndmp"), const_cast<char*>("wrong-pw")),
        -1);
    EXPECT_TRUE(ndmptest::LogCapture::has_id(42610));
    EXPECT_FALSE(ndmptest::LogCapture::contains("wrong-pw"));
    EXPECT_EQ(ndmp_connect_auth(ndp, nullptr, const_cast<char*>("ndmp"), const_cast<char*>("ndmp")),
              0);
    ndmp_connect_close(&ndp);

    // Text, sent by hand since the client picks MD5 when offered.
    ndp = ndmp_create_connect_without_auth(const_cast<char*>("127.0.0.1"), nullptr, nullptr,
                                           nullptr, 5, 5);
    ASSERT_NE(ndp, nullptr);
    ndmp_connect_client_auth_request req;
    memset(&req, 0, sizeof req);
    req.auth_data.auth_type = NDMP_AUTH_TEXT;
    req.auth_data.ndmp_auth_data_u.auth_text.auth_id = const_cast<char*>("ndmp");
    req.auth_data.ndmp_auth_data_u.auth_text.auth_password = const_cast<char*>("ndmp");
    void* reply = nullptr;
    ASSERT_EQ(ndmp_call(ndp, NDMP_CONNECT_CLIENT_AUTH, &req, &reply, ndmp_clnt_tbl), 0);
    EXPECT_EQ(static_cast<ndmp_error_reply*>(reply)->error, NDMP_NO_ERR);
    ndmp_free_reply(ndp, NDMP_CONNECT_CLIENT_AUTH, reply);
    char os[128];
    EXPECT_EQ(ndmp_config_get_host_os(ndp, os, sizeof os), 0);
    EXPECT_EQ(std::string(os).rfind("Linux", 0), 0u);
    ndmp_connect_close(&ndp);
}

TEST_F(Ndmjob, TapeWriteFilemarksRewindSpaceAndReadBack) {
    start();
    void* ndp = connect_auth();
    ASSERT_NE(ndp, nullptr);
    ndmp_error e = NDMP_NO_ERR;
    std::string dev = tape_ + " (NDMP)";  // the backup layer's form of the name
    ASSERT_EQ(ndmp_tape_open(ndp, &dev[0], 1, &e), 1) << ndmp_err2str(e);
    EXPECT_EQ(ndmp_get_double_weof(ndp), 0);
    auto rec = [](int i) { return std::string(1024, static_cast<char>('a' + i)); };
    for (int i = 0; i < 3; i++) {
        std::string r = rec(i);
        ASSERT_EQ(ndmp_tape_write(ndp, &r[0], 1024, &e), 1024);
    }
    ASSERT_EQ(ndmp_tape_mtio(ndp, NDMP_MTIO_EOF, 1, &e, nullptr), 0);
    EXPECT_EQ(ndmp_get_weof_pending(ndp), 1);
    std::string r = rec(5);
    ASSERT_EQ(ndmp_tape_write(ndp, &r[0], 1024, &e), 1024);  // writes the held filemark first
    EXPECT_EQ(ndmp_get_weof_pending(ndp), 0);
    ASSERT_EQ(ndmp_tape_mtio(ndp, NDMP_MTIO_EOF, 1, &e, nullptr), 0);
    u_long resid = 99;
    ASSERT_EQ(ndmp_tape_mtio(ndp, NDMP_MTIO_REW, 1, &e, &resid), 0);

    char buf[4096];
    for (int i = 0; i < 3; i++) {
        ASSERT_EQ(ndmp_tape_read(ndp, buf, sizeof buf, &e), 1024) << i;
        EXPECT_EQ(std::string(buf, 1024), rec(i));
    }
    EXPECT_EQ(ndmp_tape_read(ndp, buf, sizeof buf, &e), -1);
    EXPECT_EQ(e, NDMP_EOF_ERR);
    ASSERT_EQ(ndmp_tape_mtio(ndp, NDMP_MTIO_FSF, 1, &e, &resid), 0);
    ASSERT_EQ(ndmp_tape_read(ndp, buf, sizeof buf, &e), 1024);
    EXPECT_EQ(std::string(buf, 1024), rec(5));
    // Back to the start and over the first two records.
    ASSERT_EQ(ndmp_tape_mtio(ndp, NDMP_MTIO_REW, 1, &e, nullptr), 0);
    ASSERT_EQ(ndmp_tape_mtio(ndp, NDMP_MTIO_FSR, 2, &e, &resid), 0);
    ASSERT_EQ(ndmp_tape_read(ndp, buf, sizeof buf, &e), 1024);
    EXPECT_EQ(std::string(buf, 1024), rec(2));
    ASSERT_EQ(ndmp_tape_close(ndp, &e), 0);
    EXPECT_NE(access((tape_ + ".lck").c_str(), F_OK), 0);
    ndmp_connect_close(&ndp);
}

TEST_F(Ndmjob, TapeReachesEndOfMediumAtItsLimit) {
    start({"-o", "tape-limit=65536"});
    void* ndp = connect_auth();
    ASSERT_NE(ndp, nullptr);
    ndmp_error e = NDMP_NO_ERR;
    ASSERT_EQ(ndmp_tape_open(ndp, &tape_[0], 1, &e), 1);
    std::string block(8192, 'x');
    int written = 0;
    for (; written < 64; written++)
        if (ndmp_tape_write(ndp, &block[0], 8192, &e) < 0) break;
    EXPECT_LT(written, 64);
    EXPECT_EQ(e, NDMP_EOM_ERR);
    EXPECT_EQ(ndmp_tape_close(ndp, &e), 0);
    ndmp_connect_close(&ndp);
}

namespace {

CDI_INFO* ndmp_record(const std::string& dev) {
    CDI_INFO* ci = cdi_create_cdi_info(const_cast<char*>(dev.c_str()), CDI_PATH_NDMP_SCSI, 0, 1);
    cdi_set_ndmp_info(&ci->path.ndmp, const_cast<char*>("127.0.0.1"), const_cast<char*>("ndmp"),
                      const_cast<char*>("ndmp"));
    return ci;
}

int scsi(CDI_INFO* ci, std::vector<unsigned char> cdb, unsigned char* buf, unsigned long len,
         int in) {
    ci->command = CDI_SEND_SCSI_CDB;
    ci->scmd.scmd_cdb = cdb.data();
    ci->scmd.scmd_cdblen = static_cast<int>(cdb.size());
    ci->scmd.scmd_bufaddr = buf;
    ci->scmd.scmd_buflen = len;
    ci->scmd.scmd_flags = in;
    ci->scmd.scmd_time = 30;
    ci->scmd.scmd_sense = ci->default_sense_buffer;
    ci->scmd.scmd_senselen = CDI_DEFAULT_SENSE_LEN;
    int st = cdi_cmd(ci);
    ci->scmd.scmd_cdb = nullptr;
    return st;
}

}  // namespace

TEST_F(Ndmjob, RobotAnswersInquiryTestUnitReadyElementStatusAndMoveMedium) {
    start();
    CDI_INFO* ci = ndmp_record(robot_);
    ASSERT_EQ(cdi_open(ci), CDI_STAT_SUCCESS) << (ci->error.errstr ? ci->error.errstr : "");
    EXPECT_EQ(ci->path.handle, -4);
    EXPECT_EQ(ci->path.aux_flags, CDI_NDMP_OPEN_SCSI);
    EXPECT_STREQ(ci->vendor, "NDMJOB  ");
    EXPECT_STREQ(ci->product, "FakeRobot       ");

    EXPECT_EQ(scsi(ci, {0, 0, 0, 0, 0, 0}, nullptr, 0, 0), CDI_STAT_SUCCESS);

    std::vector<unsigned char> es(4096);
    ASSERT_EQ(scsi(ci, {0xB8, 0x10, 0, 0, 0xFF, 0xFF, 0, 0x00, 0x10, 0x00, 0, 0}, es.data(),
                   es.size(), 1),
              CDI_STAT_SUCCESS);
    // Walk the element pages: the first full slot and the first empty place.
    const int count = es[2] << 8 | es[3];
    size_t off = 8;
    int full = -1, empty = -1, other = -1, empty_slot = -1, empty_drive = -1;
    while (off + 8 <= es.size()) {
        const int type = es[off];
        const int dlen = es[off + 2] << 8 | es[off + 3];
        const size_t bytes =
            static_cast<size_t>(es[off + 5] << 16 | es[off + 6] << 8 | es[off + 7]);
        if (dlen == 0 || bytes == 0) break;
        for (size_t d = off + 8; d + dlen <= off + 8 + bytes && d + dlen <= es.size(); d += dlen) {
            const int addr = es[d] << 8 | es[d + 1];
            const bool is_full = es[d + 2] & 1;
            if (type == 2 && is_full && full < 0) full = addr;
            if (type == 2 && !is_full && empty_slot < 0) empty_slot = addr;
            if (type == 4 && !is_full && empty_drive < 0) empty_drive = addr;
            if (type != 1 && !is_full && empty < 0) empty = addr;
            if (type != 1 && !is_full && empty >= 0 && addr != empty && other < 0) other = addr;
        }
        off += 8 + bytes;
    }
    EXPECT_GT(count, 0);
    ASSERT_GE(empty, 0);
    // A new library's slots are empty: moving from an empty slot is the
    // changer's CHECK CONDITION, with its sense; from a full one it works.
    const int from = full >= 0 ? full : other;
    if (full >= 0) empty = empty_slot >= 0 ? empty_slot : empty_drive;
    ASSERT_GE(empty, 0);
    ASSERT_GE(from, 0);
    const int st = scsi(
        ci,
        {0xA5, 0, 0, 0, static_cast<unsigned char>(from >> 8), static_cast<unsigned char>(from),
         static_cast<unsigned char>(empty >> 8), static_cast<unsigned char>(empty), 0, 0, 0, 0},
        nullptr, 0, 0);
    // The changer answers the move itself: done, or refused with its sense
    // (the simulator's element layout decides which); never a transport failure.
    EXPECT_TRUE(st == CDI_STAT_SUCCESS || st == CDI_STAT_CHECK_CONDITION) << st;
    if (st == CDI_STAT_CHECK_CONDITION) {
        EXPECT_NE(ci->default_sense_buffer[0], 0);
    }
    // The changer still answers after the refused move.
    ASSERT_EQ(scsi(ci, {0xB8, 0x12, 0, 0, 0xFF, 0xFF, 0, 0x00, 0x10, 0x00, 0, 0}, es.data(),
                   es.size(), 1),
              CDI_STAT_SUCCESS);

    EXPECT_EQ(cdi_close(ci), 0);
    EXPECT_EQ(ci->path.handle, -1);
    EXPECT_EQ(ci->path.ndmp.ndmp_connection_handle, nullptr);
    EXPECT_EQ(ci->path.ndmp.ndmp_user, nullptr);
    EXPECT_EQ(ci->path.ndmp.ndmp_password, nullptr);
    cdi_destory_cdi_info(&ci);
}

TEST_F(Ndmjob, TapeOpenedThroughTheDeviceInterfaceFailsCleanlyAndIsLeftClosed) {
    start();
    CDI_INFO* ci = ndmp_record(tape_);
    int st = cdi_open(ci);
    // The server opens the tape but refuses CDBs to it, so the inquiry fails.
    EXPECT_NE(st, CDI_STAT_SUCCESS);
    EXPECT_EQ(ci->path.handle, -1);
    EXPECT_EQ(ci->path.ndmp.ndmp_connection_handle, nullptr);
    cdi_destory_cdi_info(&ci);
    // Closed for real: a new client opens it at once.
    void* ndp = connect_auth();
    ASSERT_NE(ndp, nullptr);
    ndmp_error e = NDMP_NO_ERR;
    EXPECT_EQ(ndmp_tape_open(ndp, &tape_[0], 0, &e), 1) << ndmp_err2str(e);
    ndmp_tape_close(ndp, &e);
    ndmp_connect_close(&ndp);
}

TEST_F(Ndmjob, WrongPasswordGivesStatus18AndNoConnection) {
    start();
    CDI_INFO* ci = ndmp_record(robot_);
    cdi_set_ndmp_info(&ci->path.ndmp, const_cast<char*>("127.0.0.1"), const_cast<char*>("ndmp"),
                      const_cast<char*>("nope"));
    EXPECT_EQ(cdi_open(ci), CDI_STAT_NDMP_OPEN_CONNECTION);
    EXPECT_EQ(ci->path.handle, -1);
    EXPECT_EQ(ci->path.ndmp.ndmp_connection_handle, nullptr);
    EXPECT_EQ(ci->path.ndmp.ndmp_password, nullptr);
    cdi_destory_cdi_info(&ci);
}
