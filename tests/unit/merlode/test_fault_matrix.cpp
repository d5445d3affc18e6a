// Every fault the simulator plays, on every array step of each technology's
// life in turn: the life is driven step by step and the array is broken for
// one step at a time. Each step must end as the provider's rules say (error
// or not, and the state it leaves); a failed COW snapshot must leave no
// session; after each fault's walk a delete from the handle must leave the
// array as it was; and no descriptor or child of this process may be left
// behind. The walks run under the fake device layer (the module asks
// devices INQUIRY); the module's sleeps are replaced, so a refused release
// costs no time.
#include <dirent.h>
#include <errno.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "liblocal/attrlist.h"
#include "liblocal/kv_thread.h"
#include "storage/ssm/client/ISnapshot.h"
#include "storage/ssm/merlode/merl_ss.h"
#include "tests/unit/merlode/sim_fixture.h"

namespace {

int open_fds() {
    int n = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (readdir(d) != nullptr) n++;
        closedir(d);
    }
    return n;
}

// The children of this process, by name and state, as /proc tells them.
std::string children() {
    std::string out;
    const std::string me = std::to_string(getpid());
    if (DIR* d = opendir("/proc")) {
        while (dirent* e = readdir(d)) {
            std::ifstream in(std::string("/proc/") + e->d_name + "/stat");
            std::string stat;
            if (!std::getline(in, stat)) continue;
            size_t close = stat.rfind(')');
            if (close == std::string::npos) continue;
            std::istringstream rest(stat.substr(close + 2));
            std::string state, ppid;
            rest >> state >> ppid;
            if (ppid == me) out += stat.substr(0, close + 1) + " " + state + "; ";
        }
        closedir(d);
    }
    return out;
}

KVError no_sleep(uint32_t) {
    return 0;
}

std::string host_name() {
    char buf[256] = {0};
    gethostname(buf, sizeof(buf) - 1);
    return buf;
}

// ------------------------------------------------------------------ faults

struct Fault {
    std::string name;
    std::vector<std::vector<std::string>> add;  // arraysim commands that make it
    std::vector<std::string> clear;             // the one that ends it
};

std::vector<std::vector<std::string>> each_tool(const char* kind) {
    std::vector<std::vector<std::string>> v;
    for (const char* t : {"tilloseccli", "gelmot", "fenlok", "hadrix", "pirnet"})
        v.push_back({"fault", "add", t, kind});
    return v;
}

std::vector<Fault> all_faults() {
    const std::vector<std::string> rules_gone{"fault", "clear"};
    return {
        {"refused", {{"fault", "add", "*", "refuse"}}, rules_gone},
        {"garbage", {{"fault", "add", "*", "garbage"}}, rules_gone},
        {"longline", {{"fault", "add", "*", "longline", "--arg", "3000"}}, rules_gone},
        {"slow", {{"fault", "add", "*", "slow", "--arg", "2"}}, rules_gone},
        {"missing", each_tool("missing"), rules_gone},
        {"execfail", each_tool("execfail"), rules_gone},
        {"framedown", {{"set", "frame", "0", "down=1"}}, {"set", "frame", "0", "down=0"}},
        {"agentdown",
         {{"set", "host", host_name(), "agent=0"}},
         {"set", "host", host_name(), "agent=1"}},
    };
}

// What is left of snapshots on the array: sessions, advanced snapshots and
// clones reserved for a snapshot.
std::string leftovers(SimArray& sim) {
    std::string out, all;
    sim.admin({"tilloseccli", "-h", "198.18.0.1", "quillset", "-listsessions"}, &out);
    if (out.find("Name of the session:") != std::string::npos) all += "a session; ";
    sim.admin({"tilloseccli", "-h", "198.18.0.1", "snap", "-list"}, &out);
    if (out.find("Name:") != std::string::npos) all += "an advanced snapshot; ";
    sim.admin({"show"}, &out);
    if (out.find("3981") != std::string::npos) all += "a reserved clone; ";
    return all;
}

// ------------------------------------------------------------------ a life

void drop(int, const char*, int, const char*, void*) {}

attrlist* settings() {
    attrlist* a = nullptr;
    attrlist_add(&a, "FRAME_IP", "198.18.0.1:198.18.0.2");
    attrlist_add(&a, "VMR_DATA_MOVER", "mover1");
    return a;
}

SSSourceList* sources_of(const std::vector<std::string>& names) {
    SSSourceList* head = nullptr;
    SSSourceList** tail = &head;
    for (const std::string& n : names) {
        *tail = new SSSourceList;
        (*tail)->ssSource = strdup(n.c_str());
        tail = &(*tail)->next;
    }
    return head;
}

// One technology's life, step by step, as a loader drives it: the production
// object, the handle, then mount-host objects made from it.
class Life {
public:
    Life(const std::string& tech, std::vector<std::string> sources)
        : m_tech(tech), m_sources(std::move(sources)) {
        m_ok = m_ss.init(nullptr, &drop, nullptr) == nullptr &&
               m_ss.getDirectoryService(SS_SERV_SNAPSHOT, m_ds) == nullptr && m_ds != nullptr;
        attrlist* a = settings();
        m_ok = m_ok && take(m_ds->init(a)) == 0;
        attrlist_free(a);
    }
    ~Life() {
        finish(m_prod);
        finish(m_mh);
        if (m_ds != nullptr) {
            delete m_ds->deInit();
            delete m_ds;
        }
        m_ss.deInit();
    }
    bool ok() const { return m_ok; }

    // The steps, in order; each answers the module's error code, 0 for none.
    // What a step needs first (a fresh object from the handle, a validate)
    // is its setup, which runs with the array whole.
    struct Step {
        const char* name;
        std::function<int(Life&)> setup;
        std::function<int(Life&)> run;
    };
    static const std::vector<Step>& steps() {
        static const auto none = [](Life&) { return 0; };
        static const std::vector<Step> s = {
            {"init", none, [](Life& l) { return l.init_production(); }},
            {"addComponent", none, [](Life& l) { return l.add(); }},
            {"prepare", none, [](Life& l) { return l.prepare(); }},
            {"snapshot", none, [](Life& l) { return l.snap(); }},
            {"handleInit", none, [](Life& l) { return l.from_handle(); }},
            {"validate", none, [](Life& l) { return l.take(l.m_mh->validate(nullptr)); }},
            {"mount", none, [](Life& l) { return l.with_sources(&ISnapshot::mount); }},
            {"accessPath", none, [](Life& l) { return l.access_path(); }},
            {"unmount", none, [](Life& l) { return l.with_sources(&ISnapshot::unmount); }},
            {"rollback", [](Life& l) { return l.before_rollback(); },
             [](Life& l) { return l.rollback(); }},
            {"delete", [](Life& l) { return l.before_delete(); },
             [](Life& l) { return l.take(l.m_mh->deleteSnapshot()); }},
        };
        return s;
    }

    // Runs steps [from, to) with the array whole; false with `why` when one
    // failed.
    bool run_steps(size_t from, size_t to, std::string& why) {
        for (size_t i = from; i < to; i++) {
            int code = steps()[i].setup(*this);
            if (code == 0) code = steps()[i].run(*this);
            if (code != 0) {
                why = std::string(steps()[i].name) + " failed (" + std::to_string(code) +
                      "): " + m_text;
                return false;
            }
        }
        return true;
    }

    // Deletes what the handle names from a fresh object, with the array
    // whole. A mirror whose snapshot cannot be deleted any more keeps its
    // clones reserved until a snapshot of the same sources is deleted. An
    // advanced snapshot whose unmount met the fault stays attached (the host
    // tool's answer is not read), and the array does not destroy an
    // attached snapshot while the delete reports success: it is mounted and
    // unmounted again from the handle, then deleted.
    void clean_up(SimArray& sim) {
        finish(m_prod);
        m_prod = nullptr;
        if (!m_guid.empty()) {
            reopen();
            if (m_mh != nullptr) {
                delete m_mh->validate(nullptr);
                delete m_mh->deleteSnapshot();
            }
        }
        if (m_tech == "MIRROR" && leftovers(sim) != "") {
            std::string why;
            if (run_steps(0, 4, why) && from_handle() == 0) {
                delete m_mh->validate(nullptr);
                delete m_mh->deleteSnapshot();
            }
        }
        if (m_tech == "KVT-SNAP" && !m_guid.empty() && leftovers(sim) != "" && from_handle() == 0 &&
            take(m_mh->validate(nullptr)) == 0 && with_sources(&ISnapshot::mount) == 0 &&
            with_sources(&ISnapshot::unmount) == 0)
            delete m_mh->deleteSnapshot();
        finish(m_mh);
        m_mh = nullptr;
    }

    SCSnapshotState state() {
        ISnapshot* s = m_mh != nullptr ? m_mh : m_prod;
        return s != nullptr ? s->getSnapshotState() : SSHOT_STATE_UNINIT;
    }
    const std::string& text() const { return m_text; }
    bool has_handle() const { return !m_guid.empty(); }

private:
    int take(SSError* e) {
        if (e == nullptr) return 0;
        int code = static_cast<int>(e->getErrCode());
        m_text = e->getErrMsg();
        delete e;
        return code == 0 ? -1 : code;
    }
    ISnapshot* object() {
        IService* o = nullptr;
        if (take(m_ds->getServiceInstance(m_tech.c_str(), o)) != 0) return nullptr;
        return static_cast<ISnapshot*>(o);
    }
    void finish(ISnapshot* s) {
        if (s == nullptr) return;
        s->end();
        delete s;
    }
    int init_production() {
        finish(m_prod);  // a retry makes a fresh object
        m_prod = object();
        if (m_prod == nullptr) return -1;
        SCInitStruct is;
        attrlist* a = settings();
        is.attributes = a;
        int code = take(m_prod->init(&is));
        attrlist_free(a);
        return code;
    }
    int add() {
        SSSourceList* l = sources_of(m_sources);
        int code = take(m_prod->addComponent(l));
        delete l;
        return code;
    }
    // A mirror's synchronisation moves on with each query of its task.
    int wait(ISnapshot* s, SSTaskId task) {
        // A healthy synchronisation of this array ends within a few queries;
        // one the array never finishes is given up after as many.
        for (int i = 0; i < 8; i++) {
            SSTaskStatus st = SS_TASK_ERROR;
            SSError* taskErr = nullptr;
            if (int code = take(s->getTaskStatus(task, st, taskErr))) return code;
            if (int code = take(taskErr)) return code;
            if (st == SS_TASK_DONE) return 0;
            if (st == SS_TASK_ERROR) return -1;
        }
        return -1;
    }
    int prepare() {
        SSTaskId task = 0;
        if (int code = take(m_prod->prepareForSnapshot(nullptr, nullptr, task))) return code;
        return m_prod->getSnapshotState() == SSHOT_STATE_PREPARE_IN_PROGRESS ? wait(m_prod, task)
                                                                             : 0;
    }
    int snap() {
        SSTaskId task = 0;
        if (int code = take(m_prod->snapshot(nullptr, task))) return code;
        SCSnapshotHandle* h = nullptr;
        if (int code = take(m_prod->getSnapshotHandle(h))) return code;
        m_guid = reinterpret_cast<char*>(h->m_pguid);
        m_details = reinterpret_cast<char*>(h->m_pdetails);
        delete h;
        return 0;
    }
    int from_handle() {
        finish(m_prod);
        m_prod = nullptr;
        finish(m_mh);
        m_mh = object();
        if (m_mh == nullptr) return -1;
        SCSnapshotHandle h;
        h.m_pguid = reinterpret_cast<unsigned char*>(strdup(m_guid.c_str()));
        h.m_guidLen = m_guid.size();
        h.m_pdetails = reinterpret_cast<unsigned char*>(strdup(m_details.c_str()));
        h.m_detailLen = m_details.size();
        SCInitStruct is;
        is.snapshotHandle = &h;
        return take(m_mh->init(&is));
    }
    void reopen() {
        finish(m_mh);
        m_mh = nullptr;
        from_handle();
    }
    int with_sources(SSError* (ISnapshot::*op)(SSSourceList*)) {
        SSSourceList* l = sources_of(m_sources);
        int code = take((m_mh->*op)(l));
        delete l;
        return code;
    }
    int access_path() {
        SSSourceList* l = sources_of(m_sources);
        SSSourceList* paths = nullptr;
        SSError* e = m_mh->getSnapshotAccessPath(l, paths);
        // The module keeps the list it is given on its failure path.
        if (e == nullptr) delete l;
        delete paths;
        return take(e);
    }
    int before_rollback() {
        reopen();
        // A mirror rolls back only a validated snapshot; a COW one from any state.
        return m_tech == "MIRROR" ? take(m_mh->validate(nullptr)) : 0;
    }
    int rollback() {
        SSSourceList* l = sources_of(m_sources);
        SSTaskId task = 0;
        int code = take(m_mh->rollBack(l, nullptr, task));
        delete l;
        if (code == 0 && m_tech == "MIRROR") code = wait(m_mh, task);
        return code;
    }
    int before_delete() {
        // The rollback spent a mirror; a fresh snapshot stands in for it.
        if (m_tech == "MIRROR") {
            finish(m_mh);
            m_mh = nullptr;
            std::string why;
            if (!run_steps(0, 4, why)) return -1;
        }
        reopen();
        return take(m_mh->validate(nullptr));
    }

    std::string m_tech;
    std::vector<std::string> m_sources;
    merlStorageSubsystem m_ss;
    SSDirectoryService* m_ds = nullptr;
    ISnapshot* m_prod = nullptr;
    ISnapshot* m_mh = nullptr;
    std::string m_guid, m_details, m_text;
    bool m_ok = false;
};

// ------------------------------------------------------------------ cells

struct Tech {
    const char* name;
    std::vector<std::string> init;     // the array it needs
    std::vector<std::string> sources;  // device names under dev/
};

const Tech kTechs[] = {
    {"COW", {"--frames", "1", "--luns", "2"}, {"sdd", "sdg"}},
    {"MIRROR",
     {"--frames", "1", "--clone-groups", "2", "--clones", "1", "--sync-steps", "1"},
     {"sdd", "sdg"}},
    {"KVT-SNAP", {"--frames", "1", "--luns", "4"}, {"sdd", "sdg"}},
};

// How each step ends when a fault hits it: one letter per fault in the order
// of all_faults() (refused, garbage, longline, slow, missing, execfail, frame
// down, host agent down), E for an error and . for success; then the state
// the object is in after an error and after success (-1: not looked at).
// Some successes are the providers' rules: a COW prepare and any access-path
// query ask the array nothing; releases and deletes ignore the tools'
// answers; a rollback or a split reads only the texts it knows as failures,
// so a tool that says nothing, or noise, lets them pass; a mirror's restore
// under a broken array never ends, and the loader stops asking.
struct Outcome {
    const char* step;
    const char* faults;
    int error_state;
    int ok_state;
};

const Outcome kCow[] = {
    {"init", "EE..EE..", -1, 2},       {"addComponent", "EE..EEE.", 2, 2},
    {"prepare", "........", -1, 4},    {"snapshot", "EE..EEE.", 4, 6},
    {"handleInit", "EE..EE..", -1, 2}, {"validate", "EE..EEE.", 2, 6},
    {"mount", "EE..EE..", 6, 7},       {"accessPath", "........", -1, 7},
    {"unmount", "........", -1, 1},    {"rollback", "EEE.E.E.", 2, 2},
    {"delete", "........", -1, 8},
};
const Outcome kMirror[] = {
    {"init", "EE..EE..", -1, 2},       {"addComponent", "EE..EEE.", 2, 2},
    {"prepare", "EE..EEE.", -1, 4},    {"snapshot", "........", -1, 6},
    {"handleInit", "EE..EE..", -1, 2}, {"validate", "EE..EEE.", 2, 6},
    {"mount", "EE..EEEE", 6, 7},       {"accessPath", "........", -1, 7},
    {"unmount", "........", -1, 6},    {"rollback", "EE..EEE.", -1, -1},
    {"delete", "........", -1, 8},
};
const Outcome kKvt[] = {
    {"init", "EE..EE..", -1, 2},       {"addComponent", "EE..EEE.", 2, 2},
    {"prepare", "........", -1, 4},    {"snapshot", "........", -1, 6},
    {"handleInit", "EE..EE..", -1, 2}, {"validate", "EE..EEE.", 2, 6},
    {"mount", "EE..EE..", 6, 7},       {"accessPath", "........", -1, 7},
    {"unmount", "........", -1, 1},    {"rollback", "EEE.E.E.", 2, 2},
    {"delete", "........", -1, 8},
};

const Outcome* outcomes(const std::string& tech) {
    return tech == "COW" ? kCow : tech == "MIRROR" ? kMirror : kKvt;
}

class FaultMatrix : public ::testing::TestWithParam<int> {};

TEST_P(FaultMatrix, EachFaultOnEachStep) {
    if (!SimArray::preloaded()) GTEST_SKIP() << "runs under the fake device layer";
    const Tech& tech = kTechs[GetParam()];
    kv_set_sleep_hook(&no_sleep);
    const std::vector<Fault> faults = all_faults();
    for (size_t f = 0; f < faults.size(); f++) {
        const Fault& fault = faults[f];
        // One array and, while it lasts, one life per fault: a step that the
        // fault failed is tried again whole, and where that cannot work (the
        // failure ended the snapshot) the life starts again up to the next.
        SimArray sim(tech.init);
        ASSERT_TRUE(sim.ok());
        std::vector<std::string> devs;
        for (const std::string& d : tech.sources) devs.push_back(sim.dir() + "/dev/" + d);
        const int fds = open_fds();
        std::unique_ptr<Life> life(new Life(tech.name, devs));
        for (size_t step = 0; step < Life::steps().size(); step++) {
            const Life::Step& st = Life::steps()[step];
            SCOPED_TRACE(std::string(tech.name) + " / " + fault.name + " on " + st.name);
            std::string why;
            if (life == nullptr) {
                life.reset(new Life(tech.name, devs));
                ASSERT_TRUE(life->run_steps(0, step, why)) << why;
            }
            ASSERT_EQ(st.setup(*life), 0) << life->text();
            for (const auto& a : fault.add) ASSERT_EQ(sim.admin(a), 0);
            const int code = st.run(*life);
            const SCSnapshotState after = life->state();
            const Outcome& want = outcomes(tech.name)[step];
            ASSERT_STREQ(want.step, st.name);
            const bool fails = want.faults[f] == 'E';
            ASSERT_EQ(sim.admin(fault.clear), 0);
            // A failed COW snapshot stops every session it started (asked
            // once the array answers again).
            if (fails && std::string(tech.name) == "COW" && step == 3) {
                EXPECT_EQ(leftovers(sim), "");
            }
            EXPECT_EQ(code != 0, fails) << "code " << code << ": " << life->text();
            const int state = fails ? want.error_state : want.ok_state;
            if (state >= 0) {
                EXPECT_EQ(static_cast<int>(after), state);
            }
            EXPECT_EQ(children(), "");
            if (code != 0 && st.run(*life) != 0) {
                life->clean_up(sim);
                life.reset();
            }
        }
        if (life != nullptr) life->clean_up(sim);
        life.reset();
        EXPECT_EQ(leftovers(sim), "") << fault.name;
        EXPECT_EQ(open_fds(), fds) << fault.name;
        EXPECT_EQ(children(), "") << fault.name;
    }
    kv_set_sleep_hook(nullptr);
}

std::string tech_name(const ::testing::TestParamInfo<int>& i) {
    std::string n = kTechs[i.param].name;
    return n == "KVT-SNAP" ? std::string("KVTSNAP") : n;
}

INSTANTIATE_TEST_SUITE_P(Techs, FaultMatrix, ::testing::Values(0, 1, 2), tech_name);

// Each technology's matrix is one run of its own (CTest runs them side by side).
class FaultMatrixRun : public ::testing::TestWithParam<int> {};

TEST_P(FaultMatrixRun, UnderTheFakeDeviceLayer) {
    SKIP_WITHOUT_SIM();
    if (SimArray::preloaded()) GTEST_SKIP() << "the outer run";
    // Minutes of array work: run by its own CTest entries, side by side.
    if (getenv("ZOV_FAULT_MATRIX") == nullptr) GTEST_SKIP() << "set ZOV_FAULT_MATRIX=1 to run";
    if (access(SimArray::preload_library().c_str(), R_OK) != 0)
        GTEST_SKIP() << "fake device layer not built";
    std::string out;
    const std::string name = tech_name(::testing::TestParamInfo<int>(GetParam(), 0));
    EXPECT_EQ(SimArray::run_preloaded("Techs/FaultMatrix.*/" + name, out), 0) << out;
    EXPECT_NE(out.find("[  PASSED  ] 1 test"), std::string::npos) << out;
}

INSTANTIATE_TEST_SUITE_P(Techs, FaultMatrixRun, ::testing::Values(0, 1, 2), tech_name);

}  // namespace
