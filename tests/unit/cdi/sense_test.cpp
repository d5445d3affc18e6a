// Sense decoding from hand-made sense bytes: key and code texts, the table's
// edges, the range codes, vendor files with and without the directory, both
// sense formats, and sense data that is short or lies about its length.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <fstream>
#include <string>
#include <vector>

#include "drivers/cdi/cdi.h"
#include "drivers/cdi/cdi_rqs.h"
#include "liblocal/kv_spawn.h"
#include "tests/support/temp_dir.h"

namespace {

std::string take(char* s) {
    std::string r = s ? s : "<null>";
    free(s);
    return r;
}

std::vector<unsigned char> fixed_sense(unsigned char key, unsigned char asc, unsigned char ascq,
                                       size_t len = 18) {
    std::vector<unsigned char> s(len, 0);
    if (len > 0) s[0] = 0x70;
    if (len > 2) s[2] = key;
    if (len > 7) s[7] = static_cast<unsigned char>(len - 8);
    if (len > 13) {
        s[12] = asc;
        s[13] = ascq;
    }
    return s;
}

std::vector<unsigned char> descriptor_sense(unsigned char key, unsigned char asc,
                                            unsigned char ascq) {
    return {0x72, key, asc, ascq, 0, 0, 0, 0};
}

class SenseDecode : public ::testing::Test {
protected:
    CDI_INFO ci;
    void SetUp() override {
        cdi_build_cdi_info(&ci);
        cdi_define_messages();
    }
    void TearDown() override { cdi_free_cdi_info(&ci, 0); }
    void identity(const char* vendor, const char* product) {
        snprintf(ci.vendor, sizeof ci.vendor, "%-8s", vendor);
        snprintf(ci.product, sizeof ci.product, "%-16s", product);
    }
    // Decodes sense of the given bytes as the transport would leave it.
    void decode(std::vector<unsigned char> s, int command = CDI_TUR) {
        memset(ci.default_sense_buffer, 0, sizeof ci.default_sense_buffer);
        size_t n = s.size() < sizeof ci.default_sense_buffer ? s.size() : 32;
        if (n) memcpy(ci.default_sense_buffer, s.data(), n);
        ci.scmd.scmd_sense = ci.default_sense_buffer;
        ci.scmd.scmd_senselen = static_cast<int>(s.size());
        ci.command = command;
        vXlateScmdSense_to_DriveStatus(&ci);
    }
};

TEST(SenseKeys, EveryKeyHasItsTextAndSixteenUpIsUnknown) {
    const char* want[] = {
        "No Additional Sense", "Soft Error",      "Not Ready",        "Media Error",
        "Hardware Error",      "Illegal Request", "Unit Attention",   "Write Protected",
        "Blank Check",         "Vendor Unique",   "Copy Aborted",     "Aborted Command",
        "Equal Error",         "Volume Overflow", "Miscompare Error", "Reserved"};
    for (int k = 0; k < 16; k++) EXPECT_STREQ(sense_keys(static_cast<unsigned char>(k)), want[k]);
    EXPECT_STREQ(sense_keys(16), "UNKNOWN");
    EXPECT_STREQ(sense_keys(255), "UNKNOWN");
}

TEST(AscTable, SortedUniqueAndEveryRowHasSixteenColumns) {
    ASSERT_GT(asc_table_size(), 600u);
    const char* order = "DTLPWRSOMCAEBKVF";
    for (size_t i = 0; i < asc_table_size(); i++) {
        const AscRow* r = asc_table_row(i);
        if (i) {
            EXPECT_LT(asc_table_row(i - 1)->code, r->code) << i;
        }
        ASSERT_EQ(strlen(r->types), 16u) << std::hex << r->code;
        for (int c = 0; c < 16; c++)
            EXPECT_TRUE(r->types[c] == ' ' || r->types[c] == order[c]) << std::hex << r->code;
        EXPECT_TRUE((r->msgid >= 1559 && r->msgid <= 2300) ||
                    (r->msgid >= 82000 && r->msgid <= 82162));
    }
    EXPECT_EQ(asc_table_row(asc_table_size()), nullptr);
}

TEST(Axx, TableEdgesRangeCodesAndUnknownCodes) {
    struct Case {
        unsigned char asc, ascq;
        const char* text;
    } cases[] = {
        {0x00, 0x00, "No Additional Sense Information"},         // first row
        {0x74, 0x79, "Security Conflict In Translated Device"},  // last row
        {0x3A, 0x00, "Medium Not Present"},
        {0x50, 0x00, "Write Append Error"},
        {0x5A, 0x03, "Operator Selected Write Permit"},
        {0x5D, 0xFF, "Failure Prediction Threshold Exceeded (False)"},  // ASCQ 0xFF in the table
        {0x44, 0x00, "Internal Target Failure"},  // ASC 0x44 row of the table wins
        {0x70, 0x00, "Decompression Exception"},
        {0x70, 0xFE, "Decompression Exception"},
        {0x40, 0x12, "Diagnostic Failure on Component 0x12"},
        {0x40, 0x00, "Ram Failure (Should Use 40 NN)"},
        {0x00, 0x08, "ASC 0x00 ASCQ 0x08"},  // a gap inside ASC 0
        {0x7F, 0x7F, "ASC 0x7f ASCQ 0x7f"},  // past the last row
        {0x4D, 0x10, "ASC 0x4d ASCQ 0x10"},
    };
    for (const auto& c : cases) {
        asc_info_t a = {nullptr, 3, c.asc, c.ascq, nullptr, nullptr};
        EXPECT_EQ(take(scsi_sinfo(&a, 1)), c.text) << std::hex << int(c.asc) << "/" << int(c.ascq);
    }
    asc_info_t a = {nullptr, 2, 0x3A, 0x00, nullptr, nullptr};
    EXPECT_EQ(take(scsi_sinfo(&a, 0)), "Not Ready");
    EXPECT_EQ(take(scsi_sinfo(&a, 2)), "Not Ready, Medium Not Present");
    EXPECT_STREQ(Adesc.desc, "Medium Not Present");
    EXPECT_EQ(scsi_sinfo(&a, 3), nullptr);
    EXPECT_EQ(scsi_sinfo(nullptr, 0), nullptr);
}

class VendorDir : public ::testing::Test {
protected:
    zovtest::TempDir tmp{"rqs"};
    std::string dir;
    void SetUp() override {
        ASSERT_TRUE(tmp.ok());
        dir = tmp.path() + "/";
    }
    void TearDown() override { kv_spawn_origin_reset_for_test(); }
    void write(const std::string& name, const std::string& text) {
        std::ofstream(dir + name) << text;
    }
    std::string vendor_text(const char* vendor, const char* product, unsigned char asc,
                            unsigned char ascq, bool use_dir = true) {
        asc_info_t a = {use_dir ? const_cast<char*>(dir.c_str()) : nullptr,
                        4,
                        asc,
                        ascq,
                        const_cast<char*>(vendor),
                        const_cast<char*>(product)};
        return take(uscsi_get_vendor_err(&a));
    }
};

TEST_F(VendorDir, VendorFileJoinsMatchesAndOemMapNamesTheFile) {
    write("QUANTUM",
          "# codes of the drive\n"
          "0x80, 0x01, Head cleaning overdue\n"
          "\n"
          "0x80, 0x01, Call service   # second opinion\n"
          "0x81, 0x00, Something else\n");
    write("OEM_MAP", "# tag:vendor,product\nQUANTUM:ACME,SuperTape 9000 \r\n");
    EXPECT_EQ(vendor_text("QUANTUM", nullptr, 0x80, 0x01),
              "QUANTUM : Head cleaning overdue        : Call service");
    EXPECT_EQ(vendor_text("ACME", "SuperTape 9000", 0x81, 0x00), "QUANTUM : Something else");
    // No line for the code: nothing, so axx falls back on the numbers.
    EXPECT_EQ(vendor_text("QUANTUM", nullptr, 0x90, 0x00), "");
    // Both names but no OEM line: nothing known about this vendor.
    EXPECT_EQ(vendor_text("ACME", "Other", 0x80, 0x01),
              "ASC/ASCQ=0x80/0x01 (No vendor specific information available)");
    EXPECT_EQ(vendor_text(nullptr, nullptr, 0x80, 0x01),
              "ASC/ASCQ=0x80/0x01 (No vendor specific information available)");
    EXPECT_EQ(vendor_text("NOSUCH", nullptr, 0x80, 0x01),
              "Error: Cannot access file " + dir +
                  "NOSUCH\nMake sure you have specified the correct vendor ID");
    // A vendor name never reaches outside the directory.
    EXPECT_NE(vendor_text("../etc", nullptr, 0x80, 0x01).find("Cannot access file"),
              std::string::npos);
}

TEST_F(VendorDir, GenericAsksEveryFileButTheOemMap) {
    write("ALPHA", "0x85, 0x02, Alpha says\n");
    write("BETA", "0x85, 0x02, Beta says\n");
    write("OEM_MAP", "0x85, 0x02, never read as codes\n");
    write("EMPTY", "");
    std::string t = vendor_text(RQS_GENERIC_VENDOR, nullptr, 0x85, 0x02);
    EXPECT_NE(t.find("ALPHA   : Alpha says"), std::string::npos) << t;
    EXPECT_NE(t.find("BETA    : Beta says"), std::string::npos) << t;
    EXPECT_NE(t.find('\n'), std::string::npos);
    EXPECT_EQ(t.find("never"), std::string::npos);
    EXPECT_EQ(vendor_text(RQS_GENERIC_VENDOR, nullptr, 0x85, 0x03), "");
}

TEST_F(VendorDir, BadOemLinesAndLongLinesAreReportedNotFollowed) {
    write("OEM_MAP", "1BAD:ACME,X\n");
    EXPECT_EQ(vendor_text("ACME", "X", 0x80, 0),
              "Invalid entry in " + dir + "OEM_MAP file at line `1'");
    write("OEM_MAP", "# c\nGOOD:ACME\n");
    EXPECT_EQ(vendor_text("ACME", "X", 0x80, 0),
              "Invalid OEM vendor entry in " + dir + "OEM_MAP file at line `2'");
    write("OEM_MAP", "NOCOLON\n");
    EXPECT_EQ(vendor_text("ACME", "X", 0x80, 0),
              "Invalid entry in " + dir + "OEM_MAP file at line `1'");
    // A line of 3,000 characters is cut at 255 bytes and its rest dropped,
    // not read as lines of its own.
    write("WIDE", std::string(3000, 'x') + "0x80, 0x00, hidden in the tail\n0x80, 0x00, Real\n");
    EXPECT_EQ(vendor_text("WIDE", nullptr, 0x80, 0x00), "WIDE    : Real");
    write("OEM_MAP", "");
    EXPECT_EQ(vendor_text("ACME", "X", 0x80, 0),
              "ASC/ASCQ=0x80/0x00 (No vendor specific information available)");
    unlink((dir + "OEM_MAP").c_str());
    EXPECT_EQ(
        vendor_text("ACME", "X", 0x80, 0).rfind("Unable to open OEM file " + dir + "OEM_MAP: ", 0),
        0u);
}

TEST_F(VendorDir, DefaultDirectoryBesideTheProgram) {
    kv_spawn_origin_reset_for_test();
    EXPECT_EQ(vendor_text("ACME", "X", 0x80, 0, false), "Internal error: No file path specified");
    // An origin without the vendor folder: nothing known, unless generic.
    std::string prog = dir + "prog";
    write("prog", "");
    chmod(prog.c_str(), 0755);
    ASSERT_NE(find_origin(const_cast<char*>(prog.c_str())), nullptr);
    EXPECT_EQ(vendor_text("ACME", "X", 0x80, 0x01, false),
              "ASC/ASCQ=0x80/0x01 (No vendor specific information available)");
    EXPECT_EQ(vendor_text(RQS_GENERIC_VENDOR, nullptr, 0x80, 0x01, false),
              "Internal error: Path '" + dir + "orvtovendors/' does not exist");
    mkdir((dir + "orvtovendors").c_str(), 0755);
    std::ofstream(dir + "orvtovendors/ACME") << "0x80, 0x01, From beside the program\n";
    EXPECT_EQ(vendor_text("ACME", nullptr, 0x80, 0x01, false), "ACME    : From beside the program");
}

TEST_F(SenseDecode, TableRowsGiveTheirDriveStatusAndText) {
    struct Case {
        unsigned char key, asc, ascq;
        int command;
        int status;
        const char* msg;
    } cases[] = {
        {0, 0x00, 0x00, CDI_TUR, 0, "The tape drive is ready for use"},
        {0, 0x00, 0x01, CDI_READ_TAPE, 2, "A filemark was found"},
        {0, 0x00, 0x02, CDI_WRITE, 3, "The end of medium was reached"},
        {0, 0x00, 0x04, CDI_SPACE, 4, "The beginning of medium was reached"},
        {8, 0x00, 0x05, CDI_READ_TAPE, 5, "The end of data was reached"},
        {2, 0x04, 0x00, CDI_TUR, 18, "The drive is not ready and the reason is not known"},
        {2, 0x04, 0x01, CDI_TUR, 17, "The drive is in the process of loading a tape"},
        {2, 0x04, 0x03, CDI_TUR, 11, "LOGICAL UNIT NOT READY, MANUAL INTERVENTION REQUIRED"},
        {3, 0x11, 0x00, CDI_READ_TAPE, 11, "UNRECOVERED READ ERROR"},
        {5, 0x20, 0x00, CDI_LOG_SENSE, 26, "Invalid command code"},
        {5, 0x21, 0x01, CDI_SEND_SCSI_CDB, 27, "Invalid element address"},
        {5, 0x24, 0x00, CDI_LOCATE, 24, "Illegal field in CDB"},
        {7, 0x27, 0x00, CDI_WRITE, 6, "The tape in the drive is write-protected"},
        {7, 0x27, 0x06, CDI_WRITE, 6, "The tape in the drive is write-protected"},
        {6, 0x28, 0x00, CDI_TUR, 7, "The tape may have changed"},
        {6, 0x29, 0x04, CDI_TUR, 8, "The tape drive has been reset"},
        {3, 0x30, 0x01, CDI_READ, 31, "CANNOT READ MEDIUM - UNKNOWN FORMAT"},
        {3, 0x30, 0x01, CDI_READ_TAPE, 14, "CANNOT READ MEDIUM - UNKNOWN FORMAT"},
        {3, 0x30, 0x05, CDI_WRITE, 32, "CANNOT WRITE MEDIUM - INCOMPATIBLE FORMAT"},
        {3, 0x30, 0x05, CDI_WRITE_FILEMARKS, 33, "CANNOT WRITE MEDIUM - INCOMPATIBLE FORMAT"},
        {2, 0x30, 0x03, CDI_TUR, 15, "There is a cleaning tape in the drive"},
        {2, 0x3A, 0x00, CDI_TUR, 10, "There is not a tape in the drive"},
        {2, 0x3A, 0x04, CDI_TUR, 10, "There is not a tape in the drive"},
        {4, 0x53, 0x03, CDI_UNLOAD, 11, "MEDIUM REMOVAL PREVENTED by Transfer Element"},
        {3, 0x52, 0x00, CDI_READ_TAPE, 16, "There is a tape cartridge fault"},
        {7, 0x74, 0x00, CDI_READ_TAPE, 46, "Drive reports security error."},
        {7, 0x74, 0x0B, CDI_READ_TAPE, 57, "Incorrect encryption parameters were supplied."},
        {7, 0x74, 0x71, CDI_READ_TAPE, 58, "Unauthorized access to a LUN was attempted."},
        {6, 0x2A, 0x11, CDI_TUR, 41, "Data encryption parameters changed by another initiator."},
    };
    for (const auto& c : cases) {
        decode(fixed_sense(c.key, c.asc, c.ascq), c.command);
        EXPECT_EQ(ci.drivestat.status, c.status) << std::hex << int(c.asc) << "/" << int(c.ascq);
        EXPECT_STREQ(ci.drivestat.msg, c.msg) << std::hex << int(c.asc) << "/" << int(c.ascq);
    }
}

TEST_F(SenseDecode, VendorConditionedRows) {
    identity("STK", "T9840C");
    decode(fixed_sense(2, 0x04, 0x00));
    EXPECT_EQ(ci.drivestat.status, 10);
    identity("SONY", "GY-8240");
    decode(fixed_sense(6, 0x5A, 0x00));
    EXPECT_EQ(ci.drivestat.status, 7);
    decode(fixed_sense(3, 0x90, 0x01));
    EXPECT_EQ(ci.drivestat.status, 23);
    identity("QUANTUM", "DLT-V4");
    decode(fixed_sense(3, 0x83, 0x92));
    EXPECT_EQ(ci.drivestat.status, 29);
    EXPECT_STREQ(ci.drivestat.msg, "DLTWORM Read Failed");
    // Elsewhere these codes have no row: vendor-specific with the decoded text.
    identity("HP", "Ultrium 5-SCSI");
    decode(fixed_sense(6, 0x5A, 0x00));
    EXPECT_EQ(ci.drivestat.status, 20);
    EXPECT_STREQ(ci.drivestat.msg, "Unit Attention, Operator Request Or State Change Input");
}

TEST_F(SenseDecode, NoRowKeyZeroStaysUnknownOtherKeysAreVendorSpecific) {
    decode(fixed_sense(0, 0x37, 0x00));
    EXPECT_EQ(ci.drivestat.status, 19);
    decode(fixed_sense(1, 0x37, 0x00));
    EXPECT_EQ(ci.drivestat.status, 20);
    EXPECT_STREQ(ci.drivestat.msg, "Soft Error, Rounded Parameter");
    decode(fixed_sense(4, 0x7E, 0x01));
    EXPECT_STREQ(ci.drivestat.msg, "Hardware Error, ASC 0x7e ASCQ 0x01");
}

TEST_F(SenseDecode, ShortOrMissingSense) {
    ci.scmd.scmd_sense = nullptr;
    vXlateScmdSense_to_DriveStatus(&ci);
    EXPECT_EQ(ci.drivestat.status, 19);
    EXPECT_STREQ(ci.drivestat.msg, " CHECK Condition w/ No Sense buffer (cdi bug?)\n");
    for (size_t len : {0u, 1u, 2u}) {
        decode(fixed_sense(5, 0x24, 0, len));
        EXPECT_EQ(ci.drivestat.status, 20) << len;
        EXPECT_STREQ(ci.drivestat.msg, " CHECK Condition, but No SenseKey data!\n");
    }
    for (size_t len : {3u, 8u, 12u, 13u}) {
        decode(fixed_sense(5, 0x24, 0, len));
        EXPECT_EQ(ci.drivestat.status, 20) << len;
        EXPECT_STREQ(ci.drivestat.msg, " Key: 0x5 (no ASC/ASCQ)\n") << len;
    }
    // The additional length says the ASC is not there, whatever the
    // transport's count.
    auto s = fixed_sense(5, 0x24, 0, 18);
    s[7] = 4;
    decode(s);
    EXPECT_EQ(ci.drivestat.status, 20);
    // A length beyond the default area is not believed.
    decode(fixed_sense(2, 0x3A, 0, 18));
    ci.scmd.scmd_senselen = 200;
    vXlateScmdSense_to_DriveStatus(&ci);
    EXPECT_EQ(ci.drivestat.status, 10);
}

TEST_F(SenseDecode, DescriptorFormatReadsTheSameFields) {
    decode(descriptor_sense(2, 0x3A, 0x00));
    EXPECT_EQ(ci.drivestat.status, 10);
    decode(descriptor_sense(6, 0x29, 0x00));
    EXPECT_EQ(ci.drivestat.status, 8);
    decode({0x72, 5});
    EXPECT_EQ(ci.drivestat.status, 20);
    EXPECT_STREQ(ci.drivestat.msg, " Key: 0x5 (no ASC/ASCQ)\n");
}

TEST(SenseFields, BothFormatsAndDescriptorsThatRunPastTheBuffer) {
    SenseFields f;
    auto fx = fixed_sense(0x80 | 0x40 | 3, 0x11, 0x00);
    fx[0] |= 0x80;
    fx[6] = 7;
    cdi_sense_fields(fx.data(), static_cast<int>(fx.size()), &f);
    EXPECT_EQ(f.format, 0);
    EXPECT_EQ(f.key, 3);
    EXPECT_TRUE(f.filemark && f.eom && !f.ili);
    EXPECT_TRUE(f.info_valid);
    EXPECT_EQ(f.information, 7u);
    // Descriptor data with an information and a stream descriptor, then a
    // descriptor that claims 250 bytes in a 24-byte buffer.
    std::vector<unsigned char> d = {0x72, 0x08, 0x00, 0x01, 0, 0, 0, 0x20, 0x00, 0x0A, 0x80, 0,
                                    0,    0,    0,    0,    0, 0, 0, 0x2A, 0x04, 0x02, 0x00, 0x80};
    d.resize(24);
    std::vector<unsigned char> bad = d;
    bad.push_back(0x05);
    bad.push_back(250);
    unsigned char* heap = new unsigned char[bad.size()];
    memcpy(heap, bad.data(), bad.size());
    cdi_sense_fields(heap, static_cast<int>(bad.size()), &f);
    delete[] heap;
    EXPECT_EQ(f.format, 1);
    EXPECT_EQ(f.key, 8);
    EXPECT_EQ(f.ascq, 1);
    EXPECT_TRUE(f.info_valid);
    EXPECT_EQ(f.information, 0x2Au);
    EXPECT_TRUE(f.filemark);
    // Unknown response codes are read the fixed way; nothing is read past len.
    unsigned char odd[3] = {0x7F, 0, 0x06};
    cdi_sense_fields(odd, 3, &f);
    EXPECT_EQ(f.format, -1);
    EXPECT_EQ(f.key, 6);
    EXPECT_FALSE(f.have_asc);
}

TEST(DumpSense, PrintsFlagsAndTheBytesTheLengthAllows) {
    auto s = fixed_sense(0x80 | 3, 0x11, 0x00, 32);
    s[7] = 255;  // claims far more than the 32 bytes there are
    s[15] = 0xAB;
    char* eb = nullptr;
    char* ob = nullptr;
    size_t el = 0, ol = 0;
    FILE* e = open_memstream(&eb, &el);
    FILE* o = open_memstream(&ob, &ol);
    asc_info_t a = {nullptr, 3, 0x11, 0x00, nullptr, nullptr};
    dump_sense_n(s.data(), 32, "read", &a, e, o);
    fclose(e);
    fclose(o);
    std::string err = eb, out = ob;
    free(eb);
    free(ob);
    EXPECT_NE(err.find("Check Condition for cmd 'read':\n Media Error, Unrecovered Read Error\n"),
              std::string::npos)
        << err;
    EXPECT_NE(err.find("\n\t 0: 0xab"), std::string::npos) << err;
    EXPECT_EQ(out, " FileMark");
}

}  // namespace
