// The simulated array's state: records, the versioned text file they live in,
// and the folder lock that makes each invocation one transaction.
// Not thread-safe: one State belongs to one invocation (one thread).
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace arraysim {

// Bumped whenever a record or key changes meaning. Version 2 leaves out of a
// LUN line the name and WWN that follow from its number; version 1 files are
// still read (a key they lack is empty), older ones are refused.
constexpr int kStateVersion = 2;
constexpr int kOldestStateVersion = 1;
constexpr const char* kStateHeader = "arraysim-state";
constexpr const char* kStateEnv = "ARRAYSIM_STATE";

struct Frame {
    std::string name;                  // "Array Name:" of arrayname
    std::string serial;                // serial number (getarrayuid)
    std::string uid;                   // array UID, 16 bytes with colons
    std::vector<std::string> addrs;    // storage processor addresses, SP A first
    std::vector<std::string> sphosts;  // their host names (getarrayuid); empty: made from `name`
    bool down = false;                 // unreachable: every command fails to connect
};

struct Hba {
    std::string uid;  // HBA UID
    std::string dev;  // "HBA Devicename:" of the port list
};

struct Host {
    std::string name;
    std::string addr;
    bool agent_up = true;  // host agent state (server -update / -volmap)
    bool local = false;    // the host the tools run on
    std::vector<Hba> hbas;
};

struct Pair {
    int hlu = 0;
    int alu = 0;
};

// A group's HLU/ALU pairs, used as a vector. A state read for one command
// keeps them as the text they were read as until first used (a group holds
// thousands and most commands never look), and writes untouched ones back
// as they were read. Text that turns out to be malformed when first used
// throws StateError.
class PairList {
public:
    using iterator = std::vector<Pair>::iterator;
    using const_iterator = std::vector<Pair>::const_iterator;
    iterator begin() { return get().begin(); }
    iterator end() { return get().end(); }
    const_iterator begin() const { return get().begin(); }
    const_iterator end() const { return get().end(); }
    size_t size() const { return get().size(); }
    bool empty() const { return get().empty(); }
    Pair& operator[](size_t i) { return get()[i]; }
    const Pair& operator[](size_t i) const { return get()[i]; }
    void push_back(const Pair& p) { get().push_back(p); }
    iterator erase(const_iterator it) { return get().erase(it); }
    void clear() {
        v_.clear();
        raw_ = nullptr;
    }
    std::vector<Pair>& vec() { return get(); }

    // For the lazy reader: the value's text, and the line (its number and
    // text) for the message when it is malformed. The text must outlive the
    // list (the state's LUN table holds it).
    void set_raw(const char* val, size_t len, int line, const char* q, const char* te) {
        v_.clear();
        raw_ = val;
        rawlen_ = len;
        line_ = line;
        q_ = q;
        te_ = te;
    }
    // The text when never parsed (so never changed), or null.
    const char* raw(size_t& len) const {
        len = rawlen_;
        return raw_;
    }

private:
    std::vector<Pair>& get() const {
        if (raw_) parse();
        return v_;
    }
    void parse() const;

    mutable std::vector<Pair> v_;
    mutable const char* raw_ = nullptr;
    size_t rawlen_ = 0;
    int line_ = 0;
    const char* q_ = nullptr;
    const char* te_ = nullptr;
};

struct Group {
    int frame = 0;
    std::string name;
    std::string uid;
    int host = -1;  // index into hosts, -1 none
    // 1: HLU/ALU table; 2: an empty one, then the HLU/UID table with its rows
    // one blank in; 3: as 2 with the rows under the header's indentation
    int form = 1;
    PairList pairs;
};

// A device of one LUN on one host: a multipath pseudo device (optional) over
// one or more physical paths.
struct HostDev {
    int host = 0;
    std::string pseudo;
    std::vector<std::string> paths;
};

struct Lun {
    int frame = 0;
    int num = 0;
    std::string name;
    std::string wwn;          // 16 bytes with colons
    long long blocks = 0;     // capacity in 512-byte blocks
    bool trespassed = false;  // owned by the frame's second address
    std::string mount;        // mount point shown in the volume map, or empty
    std::string snapname;     // COW snapshot configuration: snapshot LU name, empty = none
    std::string snapdev;      // host device where an activated session appears
    int smp = -1;             // snapshot mount point LUN number (advanced snapshots), -1 none
    std::string smpdev;       // host device of the SMP
    std::string cg;           // consistency group, empty = none
    std::vector<HostDev> devs;
};

// The LUN records of a state. A state has thousands of them and a command
// touches a few, so a state read for one command keeps each LUN (its line and
// the dev lines under it) as the text it was read as, parses a record the
// first time it is used, and writes an untouched record back as it was read.
// A record whose text turns out to be malformed when it is first used throws
// StateError (only in a state read with load_state_lazy).
class LunTable {
public:
    LunTable() = default;
    LunTable(const LunTable& o);
    LunTable& operator=(const LunTable& o);
    LunTable(LunTable&&) = default;
    LunTable& operator=(LunTable&&) = default;

    template <bool Const>
    class Iter {
    public:
        using Table = typename std::conditional<Const, const LunTable, LunTable>::type;
        using value_type = Lun;
        using reference = typename std::conditional<Const, const Lun&, Lun&>::type;
        using pointer = typename std::conditional<Const, const Lun*, Lun*>::type;
        using difference_type = std::ptrdiff_t;
        using iterator_category = std::forward_iterator_tag;
        Iter(Table* t, size_t i) : t_(t), i_(i) {}
        reference operator*() const { return (*t_)[i_]; }
        pointer operator->() const { return &(*t_)[i_]; }
        Iter& operator++() {
            ++i_;
            return *this;
        }
        bool operator==(const Iter& o) const { return i_ == o.i_; }
        bool operator!=(const Iter& o) const { return i_ != o.i_; }
        size_t index() const { return i_; }

    private:
        Table* t_;
        size_t i_;
    };
    using iterator = Iter<false>;
    using const_iterator = Iter<true>;

    size_t size() const { return split().size(); }
    bool empty() const { return split().empty(); }
    Lun& operator[](size_t i) { return materialize(i); }
    const Lun& operator[](size_t i) const { return materialize(i); }
    Lun& back() { return materialize(split().size() - 1); }
    iterator begin() { return iterator(this, 0); }
    iterator end() { return iterator(this, size()); }
    const_iterator begin() const { return const_iterator(this, 0); }
    const_iterator end() const { return const_iterator(this, size()); }
    void push_back(Lun l);
    void clear();

    // Frame and number of record i, without parsing the rest of it.
    int frame_at(size_t i) const;
    int num_at(size_t i) const;
    // The index of the first LUN (frame, num), or -1.
    long find(int frame, int num) const;
    // Appends the WWN of record i, read from its text when it is not parsed yet.
    void append_wwn(size_t i, std::string& out) const;

    // For the reader and writer of the text form. `text` keeps alive the bytes
    // that add_raw spans point into.
    void hold_text(std::shared_ptr<const void> text) { text_ = std::move(text); }
    // A run of records [begin, end), first line `line`, holding `count` LUN
    // lines: split into records only when the table is first used, since
    // most commands never look at a LUN.
    void add_run(const char* begin, const char* end, int line, size_t count);
    // The record's text when it was never parsed (so never changed), or null.
    const char* raw_at(size_t i, size_t& len) const;
    // Parses every record; false and `err` on the first malformed one.
    bool materialize_all(std::string& err) const;
    // Record `i` for reading once, without keeping it: a listing that reads
    // every LUN parses each into one reused record instead of thousands of
    // new ones. Valid until the next peek; throws StateError as [] does.
    const Lun& peek(size_t i) const;
    // The format version the records were read in (what a missing key means).
    int version() const { return version_; }
    void set_version(int v) { version_ = v; }

private:
    struct Slot {
        int frame = 0;
        int num = 0;
        const char* raw = nullptr;
        size_t len = 0;
        int line = 0;
        mutable std::unique_ptr<Lun> lun;
    };
    struct Run {
        const char* begin;
        const char* end;
        int line;
        size_t count;
    };
    const std::vector<Slot>& split() const {
        if (!runs_.empty()) split_runs();
        return slots_;
    }
    void split_runs() const;
    Lun& materialize(size_t i) const;
    void parse_slot(const Slot& s, Lun& l) const;

    // Splitting runs is part of reading: it changes what the table holds,
    // never what it means.
    mutable std::vector<Slot> slots_;
    mutable std::vector<Run> runs_;
    std::shared_ptr<const void> text_;
    int version_ = kStateVersion;
    // (frame << 32 | num, slot) sorted, for find; rebuilt after a change.
    // Empty when the records are in that order already (in_order_).
    mutable std::vector<std::pair<unsigned long long, size_t>> index_;
    mutable bool index_ok_ = false;
    mutable bool in_order_ = false;
};

// The name and WWN a LUN has unless its line says otherwise (version 2).
std::string default_lun_name(int num);
std::string default_lun_wwn(int frame, int num);
// default_lun_wwn appended to `out`, for readers that build a listing.
void append_default_lun_wwn(std::string& out, int frame, int num);

// A state record that is malformed, found when it is first used.
struct StateError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Session {
    std::string name;
    int frame = 0;
    int lun = 0;
    long long created = 0;  // epoch seconds
    bool activated = false;
    int rollbacks = 0;
};

struct Clone {
    std::string id;  // 16 hex digits
    int lun = 0;
    std::string state = "Synchronized";
    std::string cond = "Normal";
    bool fractured = false;
    std::string rate = "high";
    int pct = 100;
    std::string op;  // "", "sync" or "rsync": work in progress
};

struct CloneGroup {
    int frame = 0;
    std::string name;
    std::string uid;
    int src = 0;  // source LUN number
    std::vector<Clone> clones;
};

struct KvtSnap {
    int frame = 0;
    std::string name;
    std::string res;  // what was snapped: a LUN number or a consistency group
    std::vector<int> sources;
    long long created = 0;
    std::string attached;  // device it is attached to, empty = none
    int restores = 0;
};

struct ConsistencyGroup {
    int frame = 0;
    std::string name;
    std::vector<int> luns;
};

struct Package {
    int frame = 0;
    std::string name;
    std::string rev;
    bool commit = false;  // "Commit Required:"
    bool active = true;   // "Active State:"
};

// A device on the host that is not the array's (other vendor).
struct ForeignDev {
    std::string name;
    std::string vendor;
    std::string product;
};

// A fault rule: when `tool`'s command line contains `match`, do `kind`.
struct Fault {
    std::string tool;   // tilloseccli, gelmot, ... or "*"
    std::string match;  // substring of the joined arguments; empty = any
    std::string kind;   // refuse, garbage, longline, slow, missing, execfail, down
    std::string arg;    // kind-dependent: text, milliseconds, frame address
    int count = -1;     // uses left, -1 = forever
};

struct Options {
    int sync_steps = 4;   // status listings or ticks for a full synchronisation
    bool secfile = true;  // tilloseccli security file present
    bool vxdisk = false;  // a vxdisk tool is installed on the host
    std::string rev_tillo = "7.33.1.0.12";
    std::string rev_gelmot = "V2.31.0";
    std::string rev_hadrix = "3.2.1 (build 117)";
    std::string rev_pirnet = "1.4.0";
    bool hadrix_installed = true;
    std::string gelmot_form = "raw";  // how gelmot names a snapshot device: "raw" or "path"
    long long clock = 0;              // seconds added to wall time for listings (tests)
    int seq = 0;                      // counter for made-up identifiers
};

struct State {
    Options opt;
    std::vector<Frame> frames;
    std::vector<Host> hosts;
    std::vector<Group> groups;
    LunTable luns;
    std::vector<Session> sessions;
    std::vector<CloneGroup> clonegroups;
    std::vector<KvtSnap> kvtsnaps;
    std::vector<ConsistencyGroup> cgs;
    std::vector<Package> packages;
    std::vector<ForeignDev> foreign;
    std::vector<Fault> faults;

    // Lookups; each returns -1 or nullptr when absent.
    int frame_by_addr(const std::string& addr) const;
    int host_by_name_or_addr(const std::string& key) const;
    int local_host() const;
    Lun* lun(int frame, int num);
    const Lun* lun(int frame, int num) const;
    // The same for reading once (see LunTable::peek).
    const Lun* peek_lun(int frame, int num) const;
    Lun* lun_any_frame(int num);
    int group_by_name(int frame, const std::string& name) const;
    CloneGroup* clonegroup(int frame, const std::string& uid_or_name);
    Session* session(const std::string& name);
    KvtSnap* kvtsnap(int frame, const std::string& name);
    ConsistencyGroup* cg(int frame, const std::string& name);
    // The host name of the storage processor of `frame` at `addr`.
    std::string sp_host_name(int frame, const std::string& addr) const;
    // The LUN's owner address: the second address when trespassed.
    std::string owner_addr(const Lun& l) const;
};

// Text form. parse_state fails (returns false, sets err) on a missing or old
// header or a malformed line; it never throws.
bool parse_state(const char* data, size_t len, State& st, std::string& err);
std::string format_state(const State& st);

// The folder: "<dir>/state", "<dir>/lock", "<dir>/commands.log", "<dir>/dev/".
std::string state_dir_from_env();  // empty when the variable is unset
std::string state_file(const std::string& dir);
std::string dev_dir(const std::string& dir);

// An exclusive fcntl lock on "<dir>/lock" for the life of the object.
class FolderLock {
public:
    explicit FolderLock(const std::string& dir);
    ~FolderLock();
    FolderLock(const FolderLock&) = delete;
    FolderLock& operator=(const FolderLock&) = delete;
    bool held() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};

// Whole-file helpers. write_file_atomic writes a temporary and renames it,
// so that a reader without the lock never sees half a state.
bool read_file(const std::string& path, std::string& out);
bool write_file_atomic(const std::string& path, const std::string& data);
bool load_state(const std::string& dir, State& st, std::string& err);
// For one tool command: LUN records are parsed when first used (see LunTable),
// so a malformed LUN record shows up then, as a StateError.
bool load_state_lazy(const std::string& dir, State& st, std::string& err);
bool save_state(const std::string& dir, const State& st, std::string& err);

// Appends one line to "<dir>/commands.log".
void append_log(const std::string& dir, const std::string& line);

// Escaping of values in the text form: blanks, '%', '=' and control
// characters become %XX.
std::string escape_value(const std::string& v);
std::string unescape_value(const char* p, size_t n);

}  // namespace arraysim
