// "quillset" (sessions, snapshot configuration, clones) and "snap" (advanced
// snapshots) of the array tool. Clone work advances by steps: every listing
// that shows a clone moves it one step, as does "arraysim tick".
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "tools/arraysim/args.h"
#include "tools/arraysim/text.h"
#include "tools/arraysim/tools_internal.h"

namespace arraysim {

namespace {

// A quillset or snap command on one frame; its switches follow the subcommand.
struct Q : ToolArgs {
    Q(State& state, const std::string& folder, int f, const std::vector<std::string>& words,
      ToolResult& result)
        : ToolArgs(words, 1, result), st(state), dir(folder), frame(f) {}
    State& st;
    const std::string& dir;
    int frame;
};

std::string failed(const char* cmd, const std::string& why) {
    return std::string("Error: quillset ") + cmd + " command failed\n" + why + "\n";
}

long long now(const State& st) {
    return static_cast<long long>(time(nullptr)) + st.opt.clock;
}

// ------------------------------------------------------------ sessions

void listsessions(Q& q) {
    if (!q.check(2, {})) return;
    std::string& o = q.r.out;
    for (const auto& s : q.st.sessions) {
        if (s.frame != q.frame) continue;
        kv(o, "Name of the session", s.name, 32);
        kv(o, "Session creation time", time_text(s.created), 32);
        kv(o, "Session state", "Normal", 32);
        kv(o, "Session persistence", "YES", 32);
        kv(o, "Session activated", s.activated ? "YES" : "NO", 32);
        kv(o, "Session source LUN", std::to_string(s.lun), 32);
        kv(o, "Session rollbacks", std::to_string(s.rollbacks), 32);
        o += '\n';
    }
}

void startsession(Q& q) {
    // quillset -startsession <name> -lun <number> [-persistence]
    if (q.a.size() < 3 || q.a[2][0] == '-') {
        q.fail(
            "Error: -startsession requires a session name.\nUsage: quillset -startsession <name> "
            "-lun <number> [-persistence]");
        return;
    }
    if (!q.check(3, {{"-lun", 1}, {"-persistence", 0}})) return;
    const std::string& name = q.a[2];
    std::string n;
    if (!q.value("-lun", n)) {
        q.fail("Error: -startsession requires -lun <number>.");
        return;
    }
    Lun* l = is_number(n) ? q.st.lun(q.frame, atoi(n.c_str())) : nullptr;
    if (!l) {
        q.fail(failed("-startsession", "The specified LUN does not exist on this storage system."));
        return;
    }
    if (l->snapname.empty()) {
        q.fail(failed("-startsession",
                      "The LUN has no snapshot configuration (no reserved LUN pool space)."));
        return;
    }
    if (q.st.session(name)) {
        q.fail(failed("-startsession", "A session with this name already exists."));
        return;
    }
    int count = 0;
    for (const auto& s : q.st.sessions) count += s.frame == q.frame && s.lun == l->num;
    if (count >= 8) {
        q.fail(failed("-startsession",
                      "The maximum number of sessions for this LUN has been reached."));
        return;
    }
    Session s;
    s.name = name;
    s.frame = q.frame;
    s.lun = l->num;
    s.created = now(q.st);
    q.st.sessions.push_back(s);
    q.r.changed = true;
    q.r.out += "You must activate a snapshot on the mount host to access the session.\n";
}

void stopsession(Q& q) {
    if (q.a.size() < 3 || q.a[2][0] == '-') {
        q.fail(
            "Error: -stopsession requires a session name.\nUsage: quillset -stopsession <name> "
            "[-o]");
        return;
    }
    if (!q.check(3, {{"-o", 0}})) return;
    for (size_t i = 0; i < q.st.sessions.size(); ++i)
        if (q.st.sessions[i].name == q.a[2] && q.st.sessions[i].frame == q.frame) {
            q.st.sessions.erase(q.st.sessions.begin() + i);
            q.r.changed = true;
            return;
        }
    q.fail(failed("-stopsession", "The session name does not exist."));
}

void startrollback(Q& q) {
    if (q.a.size() < 3 || q.a[2][0] == '-') {
        q.fail(
            "Error: -startrollback requires a session name.\nUsage: quillset -startrollback <name> "
            "[-rate low|medium|high|asap] [-o]");
        return;
    }
    if (!q.check(3, {{"-rate", 1}, {"-o", 0}})) return;
    std::string rate;
    if (q.value("-rate", rate) && !iequals(rate, "low") && !iequals(rate, "medium") &&
        !iequals(rate, "high") && !iequals(rate, "asap")) {
        q.fail(failed("-startrollback",
                      "Invalid rate: " + rate + ". Valid rates are low, medium, high and asap."));
        return;
    }
    for (auto& s : q.st.sessions)
        if (s.name == q.a[2] && s.frame == q.frame) {
            ++s.rollbacks;
            q.r.changed = true;
            return;
        }
    q.fail(failed("-startrollback", "The session name does not exist."));
}

void listsnapshots(Q& q) {
    // "-lun" alone asks for the LUN field; followed by a number it filters.
    int only = -1;
    size_t from = 2;
    for (size_t i = 2; i < q.a.size(); ++i)
        if (iequals(q.a[i], "-lun") && i + 1 < q.a.size() && is_number(q.a[i + 1]))
            only = atoi(q.a[i + 1].c_str());
    if (only >= 0) {
        if (!q.check(from, {{"-lun", 1}})) return;
    } else if (!q.check(from, {{"-lun", 0}})) {
        return;
    }
    std::string& o = q.r.out;
    for (const auto& l : q.st.luns) {
        if (l.frame != q.frame || l.snapname.empty() || (only >= 0 && l.num != only)) continue;
        bool active = false;
        for (const auto& s : q.st.sessions)
            active = active || (s.frame == q.frame && s.lun == l.num && s.activated);
        kv(o, "Quillset logical unit name", l.snapname, 30);
        kv(o, "Quillset logical unit ID",
           make_wwn("60060160", 0x5A00000000ULL + static_cast<unsigned>(l.num)), 30);
        kv(o, "Sources", l.name, 30);
        kv(o, "Target Logical Unit", std::to_string(l.num), 30);
        kv(o, "State", active ? "Active" : "Inactive", 30);
        o += '\n';
    }
}

// ------------------------------------------------------------ clones

void print_clone_fields(std::string& o, const Clone& c, bool wwns, const State& st, int frame,
                        bool lun_then_frac) {
    kv(o, "CloneID", c.id, 20);
    kv(o, "CloneState", c.state, 20);
    kv(o, "CloneCondition", c.cond, 20);
    kv(o, "AvailableForIO", c.fractured ? "Yes" : "No", 20);
    kv(o, "PercentSynced", std::to_string(c.pct), 20);
    kv(o, "SyncRate", c.rate, 20);
    if (lun_then_frac) {
        kv(o, "CloneLUNs", std::to_string(c.lun), 20);
        if (wwns) {
            const Lun* l = st.lun(frame, c.lun);
            kv(o, "CloneLUNWWNs", l ? l->wwn : "N/A", 20);
        }
        kv(o, "IsFractured", c.fractured ? "Yes" : "No", 20);
    } else {
        kv(o, "IsFractured", c.fractured ? "Yes" : "No", 20);
        kv(o, "CloneLUNs", std::to_string(c.lun), 20);
        if (wwns) {
            const Lun* l = st.lun(frame, c.lun);
            kv(o, "CloneLUNWWNs", l ? l->wwn : "N/A", 20);
        }
    }
}

bool step_group(State& st, CloneGroup& g) {
    bool moved = false;
    for (auto& c : g.clones)
        if (!c.op.empty()) {
            clone_step(c, st.opt.sync_steps);
            moved = true;
        }
    return moved;
}

void listclonegroup(Q& q) {
    if (!q.check(
            2,
            {{"-CloneLunWWNs", 0}, {"-Sources", 0}, {"-CloneCount", 0}, {"-all", 0}, {"-name", 1}}))
        return;
    bool wwns = q.has("-CloneLunWWNs");
    // Field switches without -CloneLunWWNs or -all ask for a short listing.
    bool brief = (q.has("-Sources") || q.has("-CloneCount")) && !wwns && !q.has("-all");
    std::string only;
    bool filter = q.value("-name", only);
    std::string& o = q.r.out;
    for (auto& g : q.st.clonegroups) {
        if (g.frame != q.frame || (filter && g.name != only)) continue;
        if (step_group(q.st, g)) q.r.changed = true;
        kv(o, "Name", g.name, 20);
        kv(o, "CloneGroupUid", g.uid, 20);
        if (brief) {
            if (q.has("-Sources")) kv(o, "Sources", std::to_string(g.src), 20);
            if (q.has("-CloneCount")) kv(o, "CloneCount", std::to_string(g.clones.size()), 20);
            o += '\n';
            continue;
        }
        kv(o, "InSync", "Yes", 20);
        kv(o, "Sources", std::to_string(g.src), 20);
        kv(o, "Clones", g.clones.empty() ? "Not Available" : std::to_string(g.clones.size()), 20);
        kv(o, "CloneCount", std::to_string(g.clones.size()), 20);
        kv(o, "QuiesceThreshold", "60", 20);
        for (const auto& c : g.clones) print_clone_fields(o, c, wwns, q.st, q.frame, true);
        o += '\n';
    }
}

CloneGroup* find_group(Q& q, const char* cmd, const std::string& key) {
    CloneGroup* g = q.st.clonegroup(q.frame, key);
    if (!g)
        q.fail(failed(cmd, "The clone group " + key + " does not exist on this storage system."));
    return g;
}

Clone* find_clone(Q& q, const char* cmd, CloneGroup& g, const std::string& id) {
    for (auto& c : g.clones)
        if (iequals(c.id, id.c_str())) return &c;
    q.fail(failed(cmd, "The clone ID " + id + " does not exist in clone group " + g.name + "."));
    return nullptr;
}

// Group and clone from -CloneGroupUid (any case of the switch) and -CloneId.
bool group_and_clone(Q& q, const char* cmd, CloneGroup*& g, Clone*& c) {
    std::string gk, id;
    if (!q.value("-CloneGroupUid", gk) || !q.value("-CloneId", id)) {
        q.fail(std::string("Error: ") + cmd + " requires -CloneGroupUid <uid> and -CloneId <id>.");
        return false;
    }
    g = find_group(q, cmd, gk);
    if (!g) return false;
    c = find_clone(q, cmd, *g, id);
    return c != nullptr;
}

void listclone(Q& q) {
    if (!q.check(2, {{"-CloneGroupUid", 1}, {"-CloneId", 1}, {"-SyncRate", 0}, {"-all", 0}}))
        return;
    CloneGroup* g;
    Clone* c;
    if (!group_and_clone(q, "-listclone", g, c)) return;
    if (!c->op.empty()) {
        clone_step(*c, q.st.opt.sync_steps);
        q.r.changed = true;
    }
    std::string& o = q.r.out;
    kv(o, "Name", g->name, 20);
    kv(o, "CloneGroupUid", g->uid, 20);
    if (q.has("-SyncRate") && !q.has("-all")) {
        kv(o, "CloneID", c->id, 20);
        kv(o, "SyncRate", c->rate, 20);
        return;
    }
    print_clone_fields(o, *c, false, q.st, q.frame, false);
}

bool in_sync(const Clone& c) {
    return !c.fractured && c.op.empty() && (c.state == "Synchronized" || c.state == "Consistent");
}

void changeclone(Q& q) {
    if (!q.check(2, {{"-CloneGroupUid", 1}, {"-CloneId", 1}, {"-SyncRate", 1}, {"-o", 0}})) return;
    CloneGroup* g;
    Clone* c;
    if (!group_and_clone(q, "-changeclone", g, c)) return;
    std::string rate;
    if (!q.value("-SyncRate", rate) || rate.empty()) {
        q.fail(failed("-changeclone", "Nothing to change: give -SyncRate <rate>."));
        return;
    }
    c->rate = rate;
    q.r.changed = true;
}

void syncclone(Q& q, bool reverse) {
    const char* cmd = reverse ? "-reversesyncclone" : "-syncclone";
    if (!q.check(2, {{"-CloneGroupUid", 1}, {"-CloneId", 1}, {"-o", 0}})) return;
    CloneGroup* g;
    Clone* c;
    if (!group_and_clone(q, cmd, g, c)) return;
    if (!c->fractured) {
        q.fail(failed(cmd, "The clone is not fractured."));
        return;
    }
    if (reverse && c->state != "Consistent") {
        q.fail(failed(
            cmd,
            "The clone is not in a consistent state and cannot be used to restore its source."));
        return;
    }
    if (reverse)  // the source is overwritten: every other clone must stop following it
        for (auto& o : g->clones)
            if (&o != c && !o.fractured) {
                o.fractured = true;
                o.state = "Consistent";
                o.cond = "Administratively Fractured";
                o.op.clear();
            }
    c->fractured = false;
    c->op = reverse ? "rsync" : "sync";
    c->pct = 0;
    c->state = reverse ? "Reverse Synchronizing" : "Synchronizing";
    c->cond = "Synchronizing";
    if (q.st.opt.sync_steps <= 0) clone_step(*c, 0);
    q.r.changed = true;
}

void fracture_one(Clone& c) {
    c.state = c.op.empty() ? "Consistent" : "Out-of-sync";
    c.cond = "Administratively Fractured";
    c.fractured = true;
    c.op.clear();
}

void fractureclone(Q& q) {
    if (!q.check(2, {{"-CloneGroupUid", 1}, {"-CloneId", 1}, {"-o", 0}})) return;
    CloneGroup* g;
    Clone* c;
    if (!group_and_clone(q, "-fractureclone", g, c)) return;
    if (c->fractured) {
        q.fail(failed("-fractureclone", "The clone is already fractured."));
        return;
    }
    fracture_one(*c);
    q.r.changed = true;
}

const char* kCfFailed = "Consistent Fracture clones failed";
const char* kCfSingle =
    "Multiple clones must be specified to perform a consistent fracture. For a single clone "
    "fracture you need to use "
    "the command -fractureclone.";
const char* kCfPairs =
    "This switch needs multiple pairs of clone group name and clone ID to be specified.";

void consistentfracture(Q& q) {
    // quillset -consistentfractureclones -CloneGroupUidCloneId <g1> <id1> <g2> <id2> ... [-o]
    std::vector<std::string> words;
    bool have_switch = false;
    for (size_t i = 2; i < q.a.size(); ++i) {
        if (iequals(q.a[i], "-o")) continue;
        if (iequals(q.a[i], "-CloneGroupUidCloneId")) {
            have_switch = true;
            continue;
        }
        if (q.a[i][0] == '-') {
            q.fail("Error: unrecognized switch or argument: " + q.a[i]);
            return;
        }
        words.push_back(q.a[i]);
    }
    if (!have_switch || words.empty() || words.size() % 2) {
        q.fail(kCfPairs);
        return;
    }
    if (words.size() == 2) {
        q.fail(kCfSingle);
        return;
    }
    std::vector<Clone*> todo;
    for (size_t i = 0; i < words.size(); i += 2) {
        CloneGroup* g = q.st.clonegroup(q.frame, words[i]);
        Clone* c = nullptr;
        if (g)
            for (auto& cl : g->clones)
                if (iequals(cl.id, words[i + 1].c_str())) c = &cl;
        if (!c) {
            q.fail(std::string(kCfFailed) + ": clone " + words[i + 1] + " of group " + words[i] +
                   " does not exist.");
            return;
        }
        if (!in_sync(*c)) {
            q.fail(std::string(kCfFailed) + ": clone " + c->id + " is not synchronized.");
            return;
        }
        todo.push_back(c);
    }
    for (Clone* c : todo) fracture_one(*c);
    q.r.changed = true;
}

}  // namespace

void clone_step(Clone& c, int steps) {
    if (c.op.empty()) return;
    int inc = steps <= 0 ? 100 : (100 + steps - 1) / steps;
    c.pct = c.pct + inc >= 100 ? 100 : c.pct + inc;
    if (c.pct < 100) return;
    c.op.clear();
    c.state = "Synchronized";
    c.cond = "Normal";
    c.fractured = false;
}

bool advance_clones(State& st, int steps) {
    bool moved = false;
    for (int i = 0; i < steps; ++i)
        for (auto& g : st.clonegroups)
            for (auto& c : g.clones)
                if (!c.op.empty()) {
                    clone_step(c, st.opt.sync_steps);
                    moved = true;
                }
    return moved;
}

void run_quillset(State& st, const std::string& dir, int frame, const std::string&,
                  const std::vector<std::string>& a, ToolResult& r) {
    Q q{st, dir, frame, a, r};
    if (a.size() < 2) {
        q.fail(
            "Error: quillset: a subcommand is required.\n"
            "Usage: quillset -listsessions | -startsession | -stopsession | -startrollback | "
            "-listsnapshots |\n"
            "       -listclonegroup | -listclone | -changeclone | -syncclone | -reversesyncclone "
            "|\n"
            "       -fractureclone | -consistentfractureclones");
        return;
    }
    const std::string& s = a[1];
    if (iequals(s, "-listsessions"))
        listsessions(q);
    else if (iequals(s, "-startsession"))
        startsession(q);
    else if (iequals(s, "-stopsession"))
        stopsession(q);
    else if (iequals(s, "-startrollback"))
        startrollback(q);
    else if (iequals(s, "-listsnapshots"))
        listsnapshots(q);
    else if (iequals(s, "-listclonegroup"))
        listclonegroup(q);
    else if (iequals(s, "-listclone"))
        listclone(q);
    else if (iequals(s, "-changeclone"))
        changeclone(q);
    else if (iequals(s, "-syncclone"))
        syncclone(q, false);
    else if (iequals(s, "-reversesyncclone"))
        syncclone(q, true);
    else if (iequals(s, "-fractureclone"))
        fractureclone(q);
    else if (iequals(s, "-consistentfractureclones"))
        consistentfracture(q);
    else
        q.fail("Error: quillset: unknown subcommand " + s + ".");
}

// ------------------------------------------------------------ snap

namespace {

const char* kNoSnap = "Could not retrieve the specified (snapshot). The (snapshot) may not exist.";

void snap_print(std::string& o, const State& st, const KvtSnap& k) {
    kv(o, "Name", k.name, 22);
    kv(o, "Creation time", time_text(k.created), 22);
    std::vector<std::string> src;
    for (int n : k.sources) src.push_back(std::to_string(n));
    kv(o, "Source LUN(s)", join(src, ", "), 22);
    kv(o, "Source CG", is_number(k.res) ? "N/A" : k.res, 22);
    kv(o, "State", "Ready", 22);
    kv(o, "Allow Read/Write", "Yes", 22);
    kv(o, "Attached", k.attached.empty() ? "No" : "Yes", 22);
    kv(o, "Restores", std::to_string(k.restores), 22);
    (void)st;
    o += '\n';
}

}  // namespace

void run_snap(State& st, const std::string& dir, int frame, const std::string&,
              const std::vector<std::string>& a, ToolResult& r) {
    Q q{st, dir, frame, a, r};
    if (a.size() < 2) {
        q.fail(
            "Error: snap: a subcommand is required.\n"
            "Usage: snap -create -res <lun|cg> -name <name> [-allowReadWrite yes|no]\n"
            "       snap -list [-id <name>]\n       snap -destroy -id <name> [-o]\n"
            "       snap -restore -id <name> -res <lun> [-o]");
        return;
    }
    const std::string& s = a[1];
    std::string id;
    if (iequals(s, "-create")) {
        if (!q.check(2, {{"-res", 1}, {"-name", 1}, {"-allowReadWrite", 1}, {"-descr", 1}})) return;
        std::string res, name;
        if (!q.value("-res", res) || !q.value("-name", name)) {
            q.fail("Error: snap -create requires -res and -name.");
            return;
        }
        KvtSnap k;
        k.frame = frame;
        k.name = name;
        k.res = res;
        k.created = now(st);
        if (is_number(res)) {
            const Lun* l = st.lun(frame, atoi(res.c_str()));
            if (!l) {
                q.fail(
                    "Could not retrieve the specified (pool lun). The (pool lun) may not exist.");
                return;
            }
            k.sources.push_back(l->num);
        } else {
            ConsistencyGroup* cg = st.cg(frame, res);
            if (!cg) {
                q.fail(
                    "Could not retrieve the specified (consistency group). The (consistency group) "
                    "may not exist.");
                return;
            }
            k.sources = cg->luns;
        }
        if (st.kvtsnap(frame, name)) {
            q.fail("A snapshot with this name already exists. Choose another name.");
            return;
        }
        st.kvtsnaps.push_back(k);
        r.changed = true;
        r.out += "\n";  // the array answers a created snapshot with one empty line
        return;
    }
    if (iequals(s, "-list")) {
        if (!q.check(2, {{"-id", 1}})) return;
        if (q.value("-id", id)) {
            KvtSnap* k = st.kvtsnap(frame, id);
            if (!k) {
                q.fail(kNoSnap);
                return;
            }
            snap_print(r.out, st, *k);
            return;
        }
        for (const auto& k : st.kvtsnaps)
            if (k.frame == frame) snap_print(r.out, st, k);
        return;
    }
    if (iequals(s, "-destroy")) {
        if (!q.check(2, {{"-id", 1}, {"-o", 0}})) return;
        if (!q.value("-id", id)) {
            q.fail("Error: snap -destroy requires -id.");
            return;
        }
        for (size_t i = 0; i < st.kvtsnaps.size(); ++i)
            if (st.kvtsnaps[i].frame == frame && st.kvtsnaps[i].name == id) {
                if (!st.kvtsnaps[i].attached.empty()) {
                    q.fail("The snapshot is attached to a snapshot mount point. Detach it first.");
                    return;
                }
                st.kvtsnaps.erase(st.kvtsnaps.begin() + i);
                r.changed = true;
                return;
            }
        q.fail(kNoSnap);
        return;
    }
    if (iequals(s, "-restore")) {
        if (!q.check(2, {{"-id", 1}, {"-res", 1}, {"-o", 0}})) return;
        std::string res;
        if (!q.value("-id", id) || !q.value("-res", res)) {
            q.fail("Error: snap -restore requires -id and -res.");
            return;
        }
        KvtSnap* k = st.kvtsnap(frame, id);
        if (!k) {
            q.fail(kNoSnap);
            return;
        }
        bool ok = false;
        for (int n : k->sources) ok = ok || std::to_string(n) == res || res == k->res;
        if (!ok) {
            q.fail("The specified resource " + res + " is not a source of snapshot " + id + ".");
            return;
        }
        ++k->restores;
        r.changed = true;
        return;
    }
    q.fail("Error: snap: unknown subcommand " + s + ".");
}

}  // namespace arraysim
