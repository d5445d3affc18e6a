// The fake tape drives and medium changers of the simulator: media with
// records and filemarks, drives that position over them, changers that move
// cartridges between slots, drives and an import/export element. A command
// is a CDB (or a magnetic-tape ioctl) run against a TapeState; failures
// come back as real sense data. Not thread-safe: one TapeState belongs to
// one caller, the preload layer holds its file lock around each use.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace arraysim {
namespace tape {

constexpr const char* kTapeStateFile = "tape.state";
constexpr const char* kTapeStateHeader = "arraysim-tape";
constexpr int kTapeStateVersion = 1;

// Element addresses of a changer (SMC element address assignment page).
constexpr int kTransportAddr = 0x0001;
constexpr int kIeAddr = 0x0010;
constexpr int kDriveBase = 0x0100;
constexpr int kSlotBase = 0x1000;

struct Item {
    bool filemark = false;
    uint32_t size = 0;  // bytes of a record
};

struct Medium {
    std::vector<Item> items;  // end of data after the last one
    bool wp = false;          // write protected
    int density = 0x58;
    size_t capacity = 10000;  // items before the end of medium
};

struct Drive {
    std::string name;  // file name in the state's dev folder
    std::string vendor = "ARRAYSIM", product = "SIMTAPE", rev = "0100", serial;
    std::string volume;      // tag of the cartridge in the drive, "" none
    bool threaded = false;   // loaded and ready
    size_t pos = 0;          // index of the next item
    uint32_t blocksize = 0;  // 0: variable
    bool compression = true;
    int ua = 0;            // pending unit attention: 1 reset, 2 medium may have changed
    int sticky_reset = 0;  // further TURs that still report the reset
    bool reserved_other = false, reserved_self = false;
    bool cleaning = false;           // needs cleaning
    int medium_error_at = -1;        // a read of this item fails (3/11/00)
    std::vector<int> alerts;         // TapeAlert flags set
    int enc_mode = 0, dec_mode = 0;  // security protocol page 0x20
    uint64_t pr_key = 0;             // our registered key, 0 none
    bool pr_reserved = false;
    std::vector<unsigned char> last_sense;  // for REQUEST SENSE
};

struct Changer {
    std::string name;
    std::string vendor = "ARRAYSIM", product = "SIMCHANGER", rev = "0100", serial;
    std::vector<std::string> slots;   // volume tag, "" empty
    std::vector<std::string> drives;  // names of the drives it serves, element order
    std::string ie;                   // volume in the import/export element
    int ua = 0;
    bool reserved_other = false;
    std::vector<unsigned char> last_sense;
};

struct TapeState {
    std::map<std::string, Medium> media;
    std::vector<Drive> drives;
    std::vector<Changer> changers;
    Drive* drive(const std::string& name);
    Changer* changer(const std::string& name);
};

// What the device received, for tests and the command log.
struct Seen {
    std::vector<unsigned char> cdb;
    int direction = 0;  // SG_IO direction
    unsigned dxfer_len = 0;
    unsigned timeout_ms = 0;
    unsigned long request = 0;  // the ioctl
    int mt_op = -1, mt_count = 0;
};

// One CDB against a drive or changer. Data in goes to `in` (at most inlen,
// `got` bytes written), data out comes from `out`. Returns the SAM status
// (0 good, 2 check condition with sense in `sense`, 0x18 reservation
// conflict). The state is changed as the device would be.
int execute(TapeState& st, const std::string& dev, const unsigned char* cdb, size_t cdblen,
            unsigned char* in, size_t inlen, const unsigned char* out, size_t outlen, size_t& got,
            std::vector<unsigned char>& sense);

// The ioctls a device node answers: SG_IO, SCSI_IOCTL_SEND_COMMAND, and the
// magnetic-tape MTIOCTOP, MTIOCGET, MTIOCPOS. -1 with errno as the kernel
// would set it. `seen` (may be null) records what arrived.
int device_ioctl(TapeState& st, const std::string& dev, unsigned long req, void* arg, Seen* seen);

bool known_device(const TapeState& st, const std::string& dev);

// The text form: "arraysim-tape 1", then medium, drive and changer lines.
std::string to_text(const TapeState& st);
bool from_text(const std::string& text, TapeState& st, std::string& err);
// The state file in a state folder, under its own lock (held by the caller
// through TapeLock for a read-modify-write).
bool load(const std::string& dir, TapeState& st, std::string& err);
bool save(const std::string& dir, const TapeState& st, std::string& err);
class TapeLock {
public:
    explicit TapeLock(const std::string& dir);
    ~TapeLock();
    TapeLock(const TapeLock&) = delete;
    TapeLock& operator=(const TapeLock&) = delete;

private:
    int fd_ = -1;
};

// "arraysim tape ...": init, show, set, add. Output and errors as text.
int run_tape_admin(const std::vector<std::string>& args, std::string& out, std::string& err);

}  // namespace tape
}  // namespace arraysim
