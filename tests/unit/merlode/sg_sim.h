// Operation tests of the volume map, capability, session and storage group
// code against the array simulator: a zov_quillset over the simulated frames
// that finds the tools the simulator's state installs, scenario files, a
// reader of the simulator's state records, and a sleep hook that records
// instead of sleeping. Not thread-safe; one per test.
#pragma once

#include <unistd.h>

#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "liblocal/kv_thread.h"
#include "tests/support/sim_state.h"
#include "tests/unit/merlode/sg_parse_fixture.h"
#include "tests/unit/merlode/sim_fixture.h"

namespace sgsim {

// This machine's name as the simulator and the module see it.
inline std::string host() {
    return sgtest::this_host();
}

// The key=value fields of the state records of `kind` ("group", "lun", ...),
// in file order. Values are left escaped.
inline std::vector<std::map<std::string, std::string>> records(const SimArray& sim,
                                                               const std::string& kind) {
    std::vector<std::map<std::string, std::string>> out;
    for (const zovtest::SimRecord& r : zovtest::sim_records(sim.dir()))
        if (r.kind == kind) out.push_back(r.field);
    return out;
}

// The field `key` of the first record of `kind` whose field `match_key` is
// `match_value`; "" when there is none.
inline std::string field(const SimArray& sim, const std::string& kind, const std::string& match_key,
                         const std::string& match_value, const std::string& key) {
    for (const auto& r : records(sim, kind)) {
        auto m = r.find(match_key);
        if (m != r.end() && m->second == match_value) {
            auto v = r.find(key);
            return v != r.end() ? v->second : std::string();
        }
    }
    return std::string();
}

// The (hlu, alu) pairs of storage group `name` of frame `frame`.
inline std::vector<std::pair<int, int>> group_pairs(const SimArray& sim, int frame,
                                                    const std::string& name) {
    std::vector<std::pair<int, int>> out;
    for (const auto& r : records(sim, "group")) {
        if (r.count("frame") == 0 || r.at("frame") != std::to_string(frame) ||
            r.count("name") == 0 || r.at("name") != name)
            continue;
        std::istringstream in(r.count("pairs") ? r.at("pairs") : "");
        for (std::string p; std::getline(in, p, ',');) {
            size_t c = p.find(':');
            if (c != std::string::npos)
                out.push_back({atoi(p.substr(0, c).c_str()), atoi(p.substr(c + 1).c_str())});
        }
    }
    return out;
}

// The logged command lines that hold `needle`.
inline std::vector<std::string> commands_with(const SimArray& sim, const std::string& needle) {
    std::vector<std::string> out;
    for (const std::string& c : sim.commands())
        if (c.find(needle) != std::string::npos) out.push_back(c);
    return out;
}

// A one-frame scenario: this host's group SG_<host> with the pairs 0:0 only,
// LUNs 0 to `luns`-1 of which only LUN 0 is in a group, and vxdisk
// installed, so that clones can be moved in.
inline std::string clone_move_scenario(int luns) {
    std::ostringstream s;
    s << "arraysim-state 1\n"
      << "option sync_steps=0 vxdisk=1\n"
      << "frame name=SIMARRAY00 addrs=198.18.0.1,198.18.0.2\n"
      << "host name=" << host() << " addr=" << host() << " agent=1 local=1\n"
      << "hba uid=20:00:00:00:00:00:00:00:00:00:00:00:C9:00:01:00 dev=fc0\n"
      << "host name=mover1 addr=192.0.2.50 agent=1 local=0\n"
      << "hba uid=20:00:00:00:00:00:00:00:00:00:00:00:C9:00:02:00 dev=fc0\n"
      << "group frame=0 name=SG_" << host() << " host=0 form=1 pairs=0:0\n";
    for (int i = 0; i < luns; i++) s << "lun frame=0 num=" << i << " blocks=2097152\n";
    return s.str();
}

// A simulated array whose state folder's own bin comes first on PATH, so
// that the tools the state removes or adds (vxdisk, a missing tool) are
// what the module finds.
class Sim {
public:
    explicit Sim(const std::vector<std::string>& init_args = {"--frames", "2", "--luns", "3"})
        : array(init_args) {
        std::string p = array.dir() + "/bin:/usr/bin:/bin";
        m_path.reset(new ScopedEnv("PATH", p.c_str()));
    }
    bool ok() const { return array.ok(); }
    int admin(const std::vector<std::string>& args) const {
        std::string out;
        int rc = array.admin(args, &out);
        EXPECT_EQ(rc, 0) << out;
        return rc;
    }
    SimArray array;

private:
    std::unique_ptr<ScopedEnv> m_path;
};

// A scenario file in a temporary folder for `init --from`.
class Scenario {
public:
    explicit Scenario(const std::string& text) : m_file(m_tmp.path() + "/scenario") {
        std::ofstream(m_file) << text;
    }
    std::vector<std::string> init_args() const { return {"--from", m_file}; }

private:
    TempDir m_tmp;
    std::string m_file;
};

// Records each sleep asked of kv_thread_sleep instead of sleeping, for the
// life of the object.
class SleepRecorder {
public:
    SleepRecorder() {
        slept().clear();
        m_old = kv_set_sleep_hook(&SleepRecorder::hook);
    }
    ~SleepRecorder() { kv_set_sleep_hook(m_old); }
    static std::vector<uint32_t>& slept() {
        static std::vector<uint32_t> v;
        return v;
    }

private:
    static KVError hook(uint32_t ms) {
        slept().push_back(ms);
        return 0;
    }
    kv_sleep_hook_t m_old;
};

}  // namespace sgsim

#define SKIP_WITHOUT_SIM_OR_FAIL(sim)                      \
    do {                                                   \
        SKIP_WITHOUT_SIM();                                \
        ASSERT_TRUE((sim).ok()) << "arraysim init failed"; \
    } while (0)
