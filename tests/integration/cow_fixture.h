// A loader's test bench for whole snapshot lives: the module opened once by
// dlopen, a fresh simulated array per test (its tools first on PATH, its
// state named for children), and the loader's side of each life.
// Not thread-safe except where a test says so.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

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
    }
    // The array of `shape`: made, then changed as the shape says.
    explicit Array(const Shape& shape) : Array(shape.init) {
        for (const std::vector<std::string>& a : shape.after)
            if (m_ok && admin(a) != 0) m_ok = false;
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
        for (const zovtest::SimRecord& r : zovtest::sim_records(m_dir)) {
            if (r.kind != "frame") continue;
            std::string a = r.get("addrs");
            size_t comma = a.find(',');
            if (comma != std::string::npos) a[comma] = ':';
            v.push_back(a);
        }
        return v;
    }
    // One LUN as the tests use it: its host device (the pseudo device of a
    // multipath LUN) and its COW configuration.
    struct Lun {
        int frame = 0;
        std::string num, dev, snapdev;
        bool cow = false;
    };
    // The LUNs this host sees, in file order, on frames that answer.
    std::vector<Lun> luns() const {
        std::vector<Lun> v;
        std::vector<bool> down;
        bool in_lun = false;
        for (const zovtest::SimRecord& r : zovtest::sim_records(m_dir)) {
            if (r.kind == "frame") down.push_back(r.get("down") == "1");
            if (r.kind == "lun") {
                Lun l;
                l.frame = std::stoi(r.get("frame"));
                l.num = r.get("num");
                l.snapdev = r.get("snapdev");
                l.cow = !r.get("snapname").empty();
                in_lun = l.frame < static_cast<int>(down.size()) && !down[l.frame];
                if (in_lun) v.push_back(l);
            } else if (r.kind == "dev" && in_lun && r.get("host") == "0" && v.back().dev.empty()) {
                std::string pseudo = r.get("pseudo");
                std::string paths = r.get("paths");
                v.back().dev = dev(!pseudo.empty() ? pseudo : paths.substr(0, paths.find(',')));
            } else if (r.kind != "dev") {
                in_lun = false;
            }
        }
        return v;
    }
    // The first `n` COW-configured LUNs' devices; fewer when the array has
    // fewer.
    std::vector<std::string> cow_sources(size_t n) const {
        std::vector<std::string> v;
        for (const Lun& l : luns())
            if (l.cow && v.size() < n) v.push_back(l.dev);
        return v;
    }
    // The device where the host tool shows an activated session of `source`.
    std::string snapdev_of(const std::string& source) const {
        for (const Lun& l : luns())
            if (l.dev == source) return l.snapdev;
        return "";
    }
    // A device of the array with no COW configuration.
    std::string plain_device() const {
        for (const Lun& l : luns())
            if (!l.cow) return l.dev;
        return "";
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
};

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
