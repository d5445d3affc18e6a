// Command line of "arraysim <command>": parses the options and runs each
// command as one transaction on the state folder.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tools/arraysim/text.h"
#include "tools/arraysim/tools_internal.h"

namespace arraysim {

namespace {

const char* kHelp =
    "Usage: arraysim <command> [options]   (state folder: $ARRAYSIM_STATE or --state DIR)\n"
    "  init [--frames N] [--luns N] [--clone-groups N] [--clones N] [--cgs N] [--foreign N]\n"
    "       [--multipath] [--host NAME] [--host-addr ADDR] [--mount-host NAME] [--no-mount-host]\n"
    "       [--from SCENARIO] [--sync-steps N]\n"
    "  show                       print the state for people\n"
    "  set option KEY=VALUE...    sync_steps, secfile, vxdisk, hadrix_installed, clock, rev_tillo, "
    "rev_gelmot,\n"
    "                             rev_hadrix, rev_pirnet, gelmot_form (raw or path)\n"
    "  set frame F KEY=VALUE...   down, name, serial, sphosts (host names of its SPs, a,b)\n"
    "  set host NAME KEY=VALUE... agent, addr\n"
    "  set lun F N KEY=VALUE...   trespassed, snapname, snapdev, smp, smpdev, cg, mount, blocks\n"
    "  set clone GROUP ID KEY=VALUE...  state, cond, fractured, rate, pct, op\n"
    "  set group F NAME KEY=VALUE...    form (1, 2 or 3)\n"
    "  set package F NAME KEY=VALUE...  rev, commit, active\n"
    "  fault add TOOL KIND [--match TEXT] [--arg TEXT] [--count N]\n"
    "        kinds: refuse, garbage, longline, slow, missing, execfail, down\n"
    "  fault list | fault clear\n"
    "  tick [N]                   advance clone synchronisation N steps\n"
    "  log [--clear]              the command lines the tools received\n"
    "  bin                        remake the folder's device files and bin links\n"
    "  <tool> ARGS...             run a tool: tilloseccli, gelmot, fenlok, hadrix, pirnet, "
    "vxdisk\n";

bool parse_int(const std::string& s, int& v) {
    char* end = nullptr;
    long x = strtol(s.c_str(), &end, 10);
    if (s.empty() || *end || x < -1000000000L || x > 1000000000L) return false;
    v = static_cast<int>(x);
    return true;
}

std::vector<std::string> split_list(const std::string& s) {
    std::vector<std::string> out;
    size_t p = 0;
    while (p <= s.size()) {
        size_t c = s.find(',', p);
        if (c == std::string::npos) c = s.size();
        if (c > p) out.push_back(s.substr(p, c - p));
        p = c + 1;
    }
    return out;
}

bool parse_bool(const std::string& s, bool& v) {
    if (s == "1" || iequals(s, "yes") || iequals(s, "true") || iequals(s, "on") ||
        iequals(s, "up")) {
        v = true;
        return true;
    }
    if (s == "0" || iequals(s, "no") || iequals(s, "false") || iequals(s, "off") ||
        iequals(s, "down")) {
        v = false;
        return true;
    }
    return false;
}

// Applies KEY=VALUE words with a per-record setter; the setter returns false
// for an unknown key or a bad value.
template <class F>
bool apply_kv(const std::vector<std::string>& words, size_t from, F set, std::string& err) {
    if (from >= words.size()) {
        err = "nothing to set: give KEY=VALUE";
        return false;
    }
    for (size_t i = from; i < words.size(); ++i) {
        size_t eq = words[i].find('=');
        if (eq == std::string::npos || eq == 0) {
            err = "expected KEY=VALUE, got \"" + words[i] + "\"";
            return false;
        }
        std::string k = words[i].substr(0, eq), v = words[i].substr(eq + 1);
        if (!set(k, v)) {
            err = "cannot set " + k + " to \"" + v + "\"";
            return false;
        }
    }
    return true;
}

bool cmd_set(State& st, const std::vector<std::string>& a, std::string& err) {
    if (a.size() < 2) {
        err = "set: what? (option, frame, host, lun, clone, group, package)";
        return false;
    }
    const std::string& what = a[1];
    if (what == "option")
        return apply_kv(
            a, 2,
            [&](const std::string& k, const std::string& v) {
                Options& o = st.opt;
                if (k == "sync_steps") return parse_int(v, o.sync_steps);
                if (k == "secfile") return parse_bool(v, o.secfile);
                if (k == "vxdisk") return parse_bool(v, o.vxdisk);
                if (k == "hadrix_installed") return parse_bool(v, o.hadrix_installed);
                if (k == "clock") {
                    int d;
                    if (!parse_int(v, d)) return false;
                    o.clock = d;
                    return true;
                }
                if (k == "rev_tillo") return o.rev_tillo = v, true;
                if (k == "rev_gelmot") return o.rev_gelmot = v, true;
                if (k == "rev_hadrix") return o.rev_hadrix = v, true;
                if (k == "rev_pirnet") return o.rev_pirnet = v, true;
                if (k == "gelmot_form")
                    return (v == "raw" || v == "path") && (o.gelmot_form = v, true);
                return false;
            },
            err);
    if (what == "frame") {
        int f;
        if (a.size() < 3 || !parse_int(a[2], f) || f < 0 ||
            f >= static_cast<int>(st.frames.size())) {
            err = "set frame: no such frame";
            return false;
        }
        Frame& fr = st.frames[f];
        return apply_kv(
            a, 3,
            [&](const std::string& k, const std::string& v) {
                if (k == "down") return parse_bool(v, fr.down);
                if (k == "name" && !v.empty()) return fr.name = v, true;
                if (k == "serial" && !v.empty()) return fr.serial = v, true;
                if (k == "sphosts") return fr.sphosts = split_list(v), true;
                return false;
            },
            err);
    }
    if (what == "host") {
        int h = a.size() >= 3 ? st.host_by_name_or_addr(a[2]) : -1;
        if (h < 0) {
            err = "set host: no such host";
            return false;
        }
        Host& ho = st.hosts[h];
        return apply_kv(
            a, 3,
            [&](const std::string& k, const std::string& v) {
                if (k == "agent") return parse_bool(v, ho.agent_up);
                if (k == "addr" && !v.empty()) return ho.addr = v, true;
                return false;
            },
            err);
    }
    if (what == "lun") {
        int f, n;
        Lun* l = nullptr;
        if (a.size() >= 4 && parse_int(a[2], f) && parse_int(a[3], n)) l = st.lun(f, n);
        if (!l) {
            err = "set lun: no such LUN (give frame and LUN number)";
            return false;
        }
        return apply_kv(
            a, 4,
            [&](const std::string& k, const std::string& v) {
                if (k == "trespassed") return parse_bool(v, l->trespassed);
                if (k == "snapname") return l->snapname = v, true;
                if (k == "snapdev") return l->snapdev = v, true;
                if (k == "smp") return parse_int(v, l->smp);
                if (k == "smpdev") return l->smpdev = v, true;
                if (k == "cg") return l->cg = v, true;
                if (k == "mount") return l->mount = v, true;
                if (k == "blocks") {
                    int b;
                    if (!parse_int(v, b) || b <= 0) return false;
                    l->blocks = b;
                    return true;
                }
                return false;
            },
            err);
    }
    if (what == "clone") {
        Clone* c = nullptr;
        if (a.size() >= 4)
            for (auto& g : st.clonegroups)
                if (g.name == a[2] || iequals(g.uid, a[2].c_str()))
                    for (auto& cl : g.clones)
                        if (iequals(cl.id, a[3].c_str())) c = &cl;
        if (!c) {
            err = "set clone: no such clone (give group name or UID and clone ID)";
            return false;
        }
        return apply_kv(
            a, 4,
            [&](const std::string& k, const std::string& v) {
                if (k == "state") return c->state = v, true;
                if (k == "cond") return c->cond = v, true;
                if (k == "fractured") return parse_bool(v, c->fractured);
                if (k == "rate") return c->rate = v, true;
                if (k == "pct") return parse_int(v, c->pct) && c->pct >= 0 && c->pct <= 100;
                if (k == "op")
                    return (v.empty() || v == "sync" || v == "rsync") && (c->op = v, true);
                return false;
            },
            err);
    }
    if (what == "group") {
        int f, g = -1;
        if (a.size() >= 4 && parse_int(a[2], f)) g = st.group_by_name(f, a[3]);
        if (g < 0) {
            err = "set group: no such storage group (give frame and name)";
            return false;
        }
        Group& gr = st.groups[g];
        return apply_kv(
            a, 4,
            [&](const std::string& k, const std::string& v) {
                if (k == "form") return parse_int(v, gr.form) && gr.form >= 1 && gr.form <= 3;
                return false;
            },
            err);
    }
    if (what == "package") {
        Package* pk = nullptr;
        for (auto& p : st.packages)
            if (a.size() >= 4 && std::to_string(p.frame) == a[2] && p.name == a[3]) pk = &p;
        if (!pk) err = "set package: no such package (give frame and name)";
        auto set = [&](const std::string& k, const std::string& v) {
            if (k == "rev") return pk->rev = v, true;
            return k == "commit" ? parse_bool(v, pk->commit)
                                 : k == "active" && parse_bool(v, pk->active);
        };
        return pk && apply_kv(a, 4, set, err);
    }
    err = "set: unknown record \"" + what + "\"";
    return false;
}

bool cmd_fault(State& st, const std::vector<std::string>& a, std::string& out, std::string& err) {
    if (a.size() < 2) {
        err = "fault: add, list or clear";
        return false;
    }
    if (a[1] == "list") {
        for (size_t i = 0; i < st.faults.size(); ++i) {
            const Fault& f = st.faults[i];
            out += std::to_string(i) + " tool=" + f.tool + " kind=" + f.kind + " match=\"" +
                   f.match + "\" arg=\"" + f.arg + "\" count=" + std::to_string(f.count) + "\n";
        }
        return true;
    }
    if (a[1] == "clear") {
        st.faults.clear();
        return true;
    }
    if (a[1] != "add" || a.size() < 4) {
        err = "fault add TOOL KIND [--match TEXT] [--arg TEXT] [--count N]";
        return false;
    }
    Fault f;
    f.tool = a[2];
    f.kind = a[3];
    if (f.tool != "*" && !is_tool_name(f.tool)) {
        err = "fault: unknown tool \"" + f.tool + "\"";
        return false;
    }
    static const char* kinds[] = {"refuse",  "garbage",  "longline", "slow",
                                  "missing", "execfail", "down"};
    bool ok = false;
    for (auto* k : kinds) ok = ok || f.kind == k;
    if (!ok) {
        err = "fault: unknown kind \"" + f.kind + "\"";
        return false;
    }
    for (size_t i = 4; i < a.size(); ++i) {
        if (i + 1 >= a.size()) {
            err = "fault: " + a[i] + " needs a value";
            return false;
        }
        if (a[i] == "--match")
            f.match = a[++i];
        else if (a[i] == "--arg")
            f.arg = a[++i];
        else if (a[i] == "--count") {
            if (!parse_int(a[++i], f.count) || f.count < -1) {
                err = "fault: bad count";
                return false;
            }
        } else {
            err = "fault: unknown option " + a[i];
            return false;
        }
    }
    if (f.kind == "down" && st.frame_by_addr(f.arg) < 0) {
        err = "fault down: --arg must be a frame address";
        return false;
    }
    st.faults.push_back(f);
    return true;
}

bool cmd_init(const std::string& dir, const std::vector<std::string>& a, const std::string& self,
              std::string& err) {
    InitOptions o;
    std::string from;
    int steps = -1;
    for (size_t i = 1; i < a.size(); ++i) {
        const std::string& s = a[i];
        auto val = [&](std::string& v) {
            if (i + 1 >= a.size()) return false;
            v = a[++i];
            return true;
        };
        auto num = [&](int& v, int lo, int hi) {
            std::string t;
            return val(t) && parse_int(t, v) && v >= lo && v <= hi;
        };
        bool ok = true;
        if (s == "--frames")
            ok = num(o.frames, 1, 250);
        else if (s == "--luns")
            ok = num(o.luns, 0, 100000);
        else if (s == "--clone-groups")
            ok = num(o.clone_groups, 0, 10000);
        else if (s == "--clones")
            ok = num(o.clones, 0, 64);
        else if (s == "--cgs")
            ok = num(o.cgs, 0, 10000);
        else if (s == "--foreign")
            ok = num(o.foreign, 0, 1000);
        else if (s == "--sync-steps")
            ok = num(steps, 0, 1000000);
        else if (s == "--multipath")
            o.multipath = true;
        else if (s == "--no-mount-host")
            o.mount_host = false;
        else if (s == "--host")
            ok = val(o.host);
        else if (s == "--host-addr")
            ok = val(o.host_addr);
        else if (s == "--mount-host")
            ok = val(o.mount_name);
        else if (s == "--from")
            ok = val(from);
        else {
            err = "init: unknown option " + s;
            return false;
        }
        if (!ok) {
            err = "init: bad or missing value for " + s;
            return false;
        }
    }
    State st;
    if (!from.empty()) {
        std::string data;
        if (!read_file(from, data)) {
            err = "init: cannot read scenario " + from + ": " + strerror(errno);
            return false;
        }
        if (!parse_state(data.data(), data.size(), st, err)) {
            err = "init: scenario " + from + ": " + err;
            return false;
        }
        complete_state(st);
    } else {
        st = make_state(o);
    }
    if (steps >= 0) st.opt.sync_steps = steps;
    if (!sync_folder(dir, st, self, err)) return false;
    // A fresh array: no log from an earlier one.
    unlink((dir + "/commands.log").c_str());
    return save_state(dir, st, err);
}

}  // namespace

int run_admin(const std::vector<std::string>& args_in, const std::string& self, std::string& out,
              std::string& err) {
    std::vector<std::string> a = args_in;
    std::string dir = state_dir_from_env();
    if (a.size() >= 2 && a[0] == "--state") {
        dir = a[1];
        a.erase(a.begin(), a.begin() + 2);
    }
    if (a.empty() || a[0] == "help" || a[0] == "--help" || a[0] == "-h") {
        out = kHelp;
        return a.empty() ? 2 : 0;
    }
    if (dir.empty()) {
        err = "arraysim: no state folder: set " + std::string(kStateEnv) + " or give --state DIR\n";
        return 2;
    }
    const std::string& c = a[0];
    if (c == "init") {
        mkdir(dir.c_str(), 0755);
        FolderLock lock(dir);
        if (!lock.held()) {
            err = "arraysim: cannot lock " + dir + ": " + strerror(errno) + "\n";
            return 1;
        }
        if (!cmd_init(dir, a, self, err)) {
            err = "arraysim: " + err + "\n";
            return 1;
        }
        return 0;
    }
    if (c != "show" && c != "set" && c != "fault" && c != "tick" && c != "log" && c != "bin") {
        err = "arraysim: unknown command \"" + c + "\"\n" + kHelp;
        return 2;
    }
    FolderLock lock(dir);
    if (!lock.held()) {
        err = "arraysim: cannot lock " + dir + ": " + strerror(errno) + "\n";
        return 1;
    }
    if (c == "log") {
        std::string path = dir + "/commands.log";
        if (a.size() > 1 && a[1] == "--clear") {
            unlink(path.c_str());
            return 0;
        }
        read_file(path, out);
        return 0;
    }
    State st;
    if (!load_state(dir, st, err)) {
        err = "arraysim: " + err + "\n";
        return 1;
    }
    bool changed = false, folder = false;
    if (c == "show") {
        out = show_state(st);
    } else if (c == "set") {
        if (!cmd_set(st, a, err)) {
            err = "arraysim: " + err + "\n";
            return 1;
        }
        changed = folder = true;
    } else if (c == "fault") {
        size_t before = st.faults.size();
        if (!cmd_fault(st, a, out, err)) {
            err = "arraysim: " + err + "\n";
            return 1;
        }
        changed = a[1] != "list" || before != st.faults.size();
        folder = changed;
    } else if (c == "tick") {
        int n = 1;
        if (a.size() > 1 && (!parse_int(a[1], n) || n < 0)) {
            err = "arraysim: tick: bad step count\n";
            return 1;
        }
        changed = advance_clones(st, n);
    } else if (c == "bin") {
        folder = true;
    }
    if (folder && !sync_folder(dir, st, self, err)) {
        err = "arraysim: " + err + "\n";
        return 1;
    }
    if (changed && !save_state(dir, st, err)) {
        err = "arraysim: " + err + "\n";
        return 1;
    }
    return 0;
}

}  // namespace arraysim
