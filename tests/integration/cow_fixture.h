// A loader's test bench for whole snapshot lives: the module opened once by
// dlopen, a fresh simulated array per test (its tools first on PATH, its
// state named for children), and the loader's side of each life.
// Not thread-safe except where a test says so.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "tests/integration/loader_decls.h"
#include "tests/integration/shapes.h"
#include "tests/support/child.h"
#include "tests/support/sim_state.h"
#include "tests/support/temp_dir.h"

namespace cowtest {

struct Entry {
    ldr::SSError* (*instantiateSS)(ldr::StorageSubsystem*&) = nullptr;
    void (*freeSSObject)(ldr::SSObject*) = nullptr;
};

inline Entry& module() {
    static Entry e = [] {
        Entry m;
        void* h = dlopen(ZOVMERL_PATH, RTLD_NOW | RTLD_LOCAL);
        if (h != nullptr) {
            m.instantiateSS =
                reinterpret_cast<decltype(m.instantiateSS)>(dlsym(h, "instantiateSS"));
            m.freeSSObject = reinterpret_cast<decltype(m.freeSSObject)>(dlsym(h, "freeSSObject"));
        }
        return m;
    }();
    return e;
}

inline int run(const std::vector<std::string>& args, std::string* out = nullptr) {
    zovtest::ChildResult r = zovtest::run_child(args);
    if (out != nullptr) *out = r.out;
    return r.status;
}

// A fresh simulated array, by default 2 frames with 4 COW-configured disks
// each (and the simulator's clone groups on the first of them).
class Array {
public:
    explicit Array(std::vector<std::string> init = {"--frames", "2", "--luns", "4"}) {
        if (!m_tmp.ok()) return;
        m_dir = m_tmp.path();
        m_oldPath = getenv("PATH") != nullptr ? getenv("PATH") : "/usr/bin:/bin";
        setenv("ARRAYSIM_STATE", m_dir.c_str(), 1);
        setenv("PATH", (std::string(ARRAYSIM_BIN_DIR) + ":" + m_oldPath).c_str(), 1);
        init.insert(init.begin(), "init");
        m_ok = admin(init) == 0;
        if (m_ok) read_layout();
    }
    // The array of `shape`: made, then changed as the shape says.
    explicit Array(const Shape& shape) : Array(shape.init) {
        for (const std::vector<std::string>& a : shape.after)
            if (m_ok && admin(a) != 0) m_ok = false;
        if (m_ok && !shape.after.empty()) read_layout();
    }
    ~Array() {
        setenv("PATH", m_oldPath.c_str(), 1);
        unsetenv("ARRAYSIM_STATE");
    }
    bool ok() const { return m_ok; }
    const std::string& dir() const { return m_dir; }
    std::string dev(const std::string& name) const { return m_dir + "/dev/" + name; }
    int admin(const std::vector<std::string>& args, std::string* out = nullptr) const {
        // The state folder comes from the environment, as for the tools.
        std::vector<std::string> a{std::string(ARRAYSIM_BIN_DIR) + "/arraysim"};
        a.insert(a.end(), args.begin(), args.end());
        return run(a, out);
    }
    // Every frame's two addresses, "a:b", in frame order (down or not).
    std::vector<std::string> frames() const {
        std::vector<std::string> v;
        for (const Frame& f : m_frames) v.push_back(f.addrs[0] + ":" + f.addrs[1]);
        return v;
    }
    // How many frames answer.
    size_t frames_up() const {
        size_t n = 0;
        for (const Frame& f : m_frames) n += f.down ? 0 : 1;
        return n;
    }
    // The address the array's tool is asked at for frame `frame`.
    const std::string& addr(int frame) const { return m_frames.at(frame).addrs[0]; }

    // One LUN as the tests use it: its host device (the pseudo device of a
    // multipath LUN), its COW configuration, its snapshot mount point and
    // its consistency group.
    struct Lun {
        int frame = 0;
        std::string num, dev, snapdev;
        bool cow = false;
        std::string host_dev;   // the host device's name, as the host's own tools print it
        std::string host_path;  // its first path (itself, where it is no pseudo device)
        std::string smp, smpdev, cg;
    };
    // The LUNs this host sees, in file order, on frames that answer.
    const std::vector<Lun>& luns() const { return m_luns; }
    const Lun* lun(const std::string& num) const {
        for (const Lun& l : m_luns)
            if (l.num == num) return &l;
        return nullptr;
    }
    const Lun* lun_of(const std::string& device) const {
        for (const Lun& l : m_luns)
            if (l.dev == device) return &l;
        return nullptr;
    }
    // The first `n` COW-configured LUNs' devices; fewer when the array has
    // fewer.
    std::vector<std::string> cow_sources(size_t n) const {
        std::vector<std::string> v;
        for (const Lun& l : m_luns)
            if (l.cow && v.size() < n) v.push_back(l.dev);
        return v;
    }
    // The device where the host tool shows an activated session of `source`.
    std::string snapdev_of(const std::string& source) const {
        const Lun* l = lun_of(source);
        return l != nullptr ? l->snapdev : "";
    }
    // A device of the array with no COW configuration.
    std::string plain_device() const {
        for (const Lun& l : m_luns)
            if (!l.cow) return l.dev;
        return "";
    }
    // A LUN device other than those of `taken`.
    std::string other_device(const std::vector<std::string>& taken) const {
        for (const Lun& l : m_luns)
            if (std::find(taken.begin(), taken.end(), l.dev) == taken.end()) return l.dev;
        return "";
    }

    // A device of the host that another maker's disk answers for.
    std::string foreign_device() const { return m_foreign.empty() ? "" : dev(m_foreign[0]); }
    // A device of the array with neither a COW configuration nor a
    // snapshot mount point.
    std::string unconfigured_device() const {
        for (const Lun& l : m_luns)
            if (!l.cow && l.smp.empty()) return l.dev;
        return "";
    }

    // Clone groups on frames that answer, in the order the array lists them.
    struct Clone {
        std::string id, lun;
    };
    struct CloneGroup {
        int frame = 0;
        std::string name, uid, src;
        std::vector<Clone> clones;
    };
    const std::vector<CloneGroup>& clone_groups() const { return m_clone_groups; }
    // A source with the clone a mirror snapshot of it takes while every
    // clone is in sync: the first clone of the first group listed for it.
    struct MirrorSource {
        std::string dev;
        const Lun* lun;
        const CloneGroup* group;
        const Lun* clone;
    };
    // The first `n` LUNs with a clone group; fewer when the array has fewer.
    std::vector<MirrorSource> mirror_sources(size_t n) const {
        std::vector<MirrorSource> v;
        for (const CloneGroup& g : m_clone_groups) {
            if (v.size() == n) break;
            bool seen = false;
            for (const MirrorSource& m : v) seen = seen || m.lun->num == g.src;
            const Lun* src = lun(g.src);
            const Lun* clone = g.clones.empty() ? nullptr : lun(g.clones[0].lun);
            if (!seen && src != nullptr && clone != nullptr)
                v.push_back(MirrorSource{src->dev, src, &g, clone});
        }
        return v;
    }

    // Consistency groups on frames that answer.
    struct ConsistencyGroup {
        int frame = 0;
        std::string name;
        std::vector<std::string> luns;
    };
    const std::vector<ConsistencyGroup>& consistency_groups() const { return m_cgs; }
    // The first `n` LUNs of frame `frame` with a snapshot mount point and
    // no consistency group, the ones advanced snapshots take by path.
    std::vector<const Lun*> kvt_sources(size_t n, int frame) const {
        std::vector<const Lun*> v;
        for (const Lun& l : m_luns)
            if (l.frame == frame && !l.smp.empty() && l.cg.empty() && v.size() < n) v.push_back(&l);
        return v;
    }
    // Whether frame `frame` answers.
    bool up(int frame) const { return !m_frames.at(frame).down; }
    // A LUN's WWN in the colon-free form a loader hands over, as the array
    // lists it.
    std::string wwn(const Lun& l) const {
        std::string out;
        admin({"tilloseccli", "-h", addr(l.frame), "lun", "-list", "-l", l.num, "-uid"}, &out);
        size_t at = out.find("UID:");
        if (at == std::string::npos) return "";
        std::string w;
        for (char c : out.substr(out.find_first_not_of(" ", at + 4)))
            if (c == '\n')
                break;
            else if (c != ':')
                w += c;
        return w;
    }

    std::vector<std::string> log_lines(const std::string& containing) const {
        std::vector<std::string> v;
        std::ifstream in(m_dir + "/commands.log");
        for (std::string l; std::getline(in, l);)
            if (l.find(containing) != std::string::npos) v.push_back(l);
        return v;
    }
    // Session names the array holds, as its tool lists them.
    std::vector<std::string> sessions() const {
        std::string out;
        admin({"tilloseccli", "-h", "198.18.0.1", "quillset", "-listsessions"}, &out);
        std::vector<std::string> v;
        size_t pos = 0;
        while ((pos = out.find("Name of the session:", pos)) != std::string::npos) {
            pos += 20;
            size_t b = out.find_first_not_of(" \t", pos);
            size_t e = out.find_first_of("\r\n", b);
            v.push_back(out.substr(b, e - b));
        }
        return v;
    }

private:
    // Under /tmp with no dash: handles cut sources at one, and TMPDIR may
    // hold one.
    zovtest::TempDir m_tmp{"cowlife", "/tmp"};
    std::string m_dir;
    std::string m_oldPath;
    bool m_ok = false;

    // The layout as made: the lives change sessions and clone states, never
    // which frames, LUNs, groups and devices there are, so it is read once
    // (and threads read it without a lock).
    struct Frame {
        std::vector<std::string> addrs;
        bool down = false;
    };
    void read_layout();
    std::vector<Frame> m_frames;
    std::vector<Lun> m_luns;
    std::vector<CloneGroup> m_clone_groups;
    std::vector<ConsistencyGroup> m_cgs;
    std::vector<std::string> m_foreign;
};

inline void Array::read_layout() {
    m_frames.clear();
    m_luns.clear();
    m_clone_groups.clear();
    m_cgs.clear();
    m_foreign.clear();
    const std::vector<zovtest::SimRecord> records = zovtest::sim_records(m_dir);
    for (const zovtest::SimRecord& r : records) {
        if (r.kind != "frame") continue;
        Frame f;
        std::string a = r.get("addrs");
        size_t comma = a.find(',');
        f.addrs = {a.substr(0, comma), comma != std::string::npos ? a.substr(comma + 1) : ""};
        f.down = r.get("down") == "1";
        m_frames.push_back(f);
    }
    auto answers = [&](const std::string& frame) {
        size_t f = std::stoul(frame);
        return f < m_frames.size() && !m_frames[f].down;
    };
    bool in_lun = false, in_group = false;
    for (const zovtest::SimRecord& r : records) {
        if (r.kind == "lun") {
            in_lun = answers(r.get("frame"));
            if (!in_lun) continue;
            Lun l;
            l.frame = std::stoi(r.get("frame"));
            l.num = r.get("num");
            l.snapdev = r.get("snapdev");
            l.cow = !r.get("snapname").empty();
            l.smp = r.get("smp");
            l.smpdev = r.get("smpdev");
            l.cg = r.get("cg");
            m_luns.push_back(l);
        } else if (r.kind == "dev") {
            if (!in_lun || r.get("host") != "0" || !m_luns.back().dev.empty()) continue;
            std::string pseudo = r.get("pseudo");
            std::string paths = r.get("paths");
            m_luns.back().host_path = paths.substr(0, paths.find(','));
            m_luns.back().host_dev = !pseudo.empty() ? pseudo : m_luns.back().host_path;
            m_luns.back().dev = dev(m_luns.back().host_dev);
        } else if (r.kind == "clonegroup") {
            in_lun = false;
            in_group = answers(r.get("frame"));
            if (in_group)
                m_clone_groups.push_back(CloneGroup{
                    std::stoi(r.get("frame")), r.get("name"), r.get("uid"), r.get("src"), {}});
        } else if (r.kind == "clone") {
            if (in_group) m_clone_groups.back().clones.push_back(Clone{r.get("id"), r.get("lun")});
        } else if (r.kind == "cg") {
            in_lun = in_group = false;
            if (!answers(r.get("frame"))) continue;
            ConsistencyGroup cg{std::stoi(r.get("frame")), r.get("name"), {}};
            std::string list = r.get("luns");
            for (size_t b = 0; b < list.size();) {
                size_t e = std::min(list.find(',', b), list.size());
                cg.luns.push_back(list.substr(b, e - b));
                b = e + 1;
            }
            m_cgs.push_back(cg);
        } else {
            in_lun = in_group = false;
            if (r.kind == "foreign") m_foreign.push_back(r.get("name"));
        }
    }
}

// The loader's side: a subsystem and a directory service per test.
class Loader {
public:
    // `frames`: one "a:b" an array frame.
    explicit Loader(std::vector<std::string> frames = {"198.18.0.1:198.18.0.2"})
        : m_frames(std::move(frames)) {
        Entry& m = module();
        if (m.instantiateSS == nullptr) return;
        if (m.instantiateSS(m_ss) != nullptr || m_ss == nullptr) return;
        if (take(m_ss->init(nullptr, &Loader::log, this))) return;
        if (take(m_ss->getDirectoryService(0, m_ds))) return;
        ldr::attrlist* frame_attrs = ldr::make_attr("FRAME_IP", m_frames);
        bool failed = take(m_ds->init(frame_attrs));
        ldr::free_attrs(frame_attrs);
        m_ok = !failed;
    }
    ~Loader() {
        if (m_ds != nullptr) {
            take(m_ds->deInit());
            module().freeSSObject(m_ds);
        }
        if (m_ss != nullptr) {
            m_ss->deInit();
            module().freeSSObject(m_ss);
        }
    }
    bool ok() const { return m_ok; }
    ldr::SSDirectoryService* ds() { return m_ds; }

    // Frees an error and keeps its code and text; true when there was one.
    bool take(ldr::SSError* e) {
        if (e == nullptr) return false;
        code = e->errorCode;
        text = e->errInfo.errstr != nullptr ? e->errInfo.errstr : "";
        module().freeSSObject(e);
        return true;
    }

    // A new service object of the technology `tech`.
    ldr::ISnapshot* service() {
        ldr::IService* obj = nullptr;
        if (take(m_ds->getServiceInstance(tech.c_str(), obj))) return nullptr;
        return static_cast<ldr::ISnapshot*>(obj);
    }
    void finish(ldr::ISnapshot* s) {
        if (s == nullptr) return;
        s->end();
        module().freeSSObject(s);
    }

    // A production object, initialised for this array.
    ldr::ISnapshot* production() {
        ldr::ISnapshot* s = service();
        if (s == nullptr) return nullptr;
        ldr::attrlist* attrs = ldr::make_attr("FRAME_IP", m_frames);
        attrs->next = ldr::make_attr("VMR_DATA_MOVER", {"mover1"});
        ldr::attrlist* last = attrs->next;
        for (const auto& a : extra_attrs) {
            last->next = ldr::make_attr(a.first.c_str(), {a.second});
            last = last->next;
        }
        ldr::SCInitStruct is;
        is.attributes = attrs;
        bool failed = take(s->init(&is));
        ldr::free_attrs(attrs);
        if (failed) {
            finish(s);
            return nullptr;
        }
        return s;
    }

    // A mount-host object made from a handle's two texts.
    ldr::ISnapshot* from_handle(const std::string& guid, const std::string& details) {
        ldr::ISnapshot* s = service();
        if (s == nullptr) return nullptr;
        ldr::SCSnapshotHandle h;
        h.m_pguid = reinterpret_cast<unsigned char*>(strdup(guid.c_str()));
        h.m_guidLen = guid.size();
        h.m_pdetails = reinterpret_cast<unsigned char*>(strdup(details.c_str()));
        h.m_detailLen = details.size();
        ldr::SCInitStruct is;
        is.snapshotHandle = &h;
        if (take(s->init(&is))) {
            finish(s);
            return nullptr;
        }
        return s;
    }

    // The production life up to the handle; empty texts on failure.
    bool take_snapshot(const std::vector<std::string>& devices, std::string& guid,
                       std::string& details) {
        ldr::ISnapshot* s = production();
        if (s == nullptr) return false;
        ldr::SSSourceList* srcs = ldr::make_sources(devices);
        ldr::SSTaskId task = -1;
        ldr::SCSnapshotHandle* h = nullptr;
        bool ok = !take(s->addComponent(srcs)) &&
                  !take(s->prepareForSnapshot(nullptr, prepare_attrs, task)) &&
                  wait_task(s, task) && !take(s->snapshot(nullptr, task)) &&
                  !take(s->getSnapshotHandle(h));
        delete srcs;
        if (ok) {
            guid = reinterpret_cast<char*>(h->m_pguid);
            details = reinterpret_cast<char*>(h->m_pdetails);
            module().freeSSObject(h);
        }
        finish(s);
        return ok;
    }

    // Polls the prepare task as a loader does while the snapshot is still
    // preparing (a bounded number of times: the simulator moves on with
    // every poll).
    bool wait_task(ldr::ISnapshot* s, ldr::SSTaskId task, int polls = 40) {
        for (int i = 0; i < polls; i++) {
            if (s->getSnapshotState() != ldr::PREPARE_IN_PROGRESS) return true;
            int status = 0;
            ldr::SSError* taskErr = nullptr;
            if (take(s->getTaskStatus(task, status, taskErr))) return false;
            take(taskErr);
            if (status != 1) return status == 2;
        }
        return false;
    }

    std::string tech = "COW";
    // Attributes given with init and with prepare, beyond the frames and the
    // mount host.
    std::vector<std::pair<std::string, std::string>> extra_attrs;
    ldr::attrlist* prepare_attrs = nullptr;

    int code = 0;
    std::string text;
    std::string errors;  // the module's error lines, for failure messages

private:
    static void log(int level, const char*, int, const char* msg, void* ctx) {
        if (level <= 3) static_cast<Loader*>(ctx)->errors += std::string(msg) + "\n";
    }
    std::vector<std::string> m_frames;
    ldr::StorageSubsystem* m_ss = nullptr;
    ldr::SSDirectoryService* m_ds = nullptr;
    bool m_ok = false;
};

}  // namespace cowtest

// Declares `var` as the first `n` COW sources of the test's array, or skips
// the test on a shape that has fewer.
#define COWTEST_SOURCES(var, n)                                                           \
    const std::vector<std::string> var = array->cow_sources(n);                           \
    if (var.size() < (n))                                                                 \
    GTEST_SKIP() << GetParam().name << " has " << var.size() << " COW sources, the life " \
                 << "needs " << (n)
