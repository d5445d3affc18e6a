// The host-side tools (gelmot, fenlok, hadrix, pirnet, vxdisk), the dispatch
// of one tool invocation with its fault rules, and the device files.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "tools/arraysim/text.h"
#include "tools/arraysim/tools_internal.h"

namespace arraysim {

const std::vector<std::string>& tool_names() {
    static const std::vector<std::string> names = {"tilloseccli", "gelmot", "fenlok",
                                                   "hadrix",      "pirnet", "vxdisk"};
    return names;
}

bool is_tool_name(const std::string& tool) {
    for (const auto& n : tool_names())
        if (n == tool) return true;
    return false;
}

std::string dev_path(const std::string& dir, const std::string& name) {
    return dev_dir(dir) + "/" + name;
}

void touch_dev(const std::string& dir, const std::string& name) {
    if (dir.empty() || name.empty()) return;
    std::string p = dev_path(dir, name);
    int fd = open(p.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd >= 0) close(fd);
}

static int next_disk(State& st) {
    return st.opt.seq++;
}

void make_host_devs(State& st, const std::string& dir, Lun& l, int host) {
    for (const auto& d : l.devs)
        if (d.host == host) return;
    HostDev d;
    d.host = host;
    d.paths.push_back("sd" + disk_suffix(next_disk(st)));
    touch_dev(dir, d.paths.back());
    l.devs.push_back(d);
}

void drop_host_devs(State&, const std::string& dir, Lun& l, int host) {
    for (size_t i = 0; i < l.devs.size(); ++i) {
        if (l.devs[i].host != host) continue;
        if (!dir.empty()) {
            if (!l.devs[i].pseudo.empty()) unlink(dev_path(dir, l.devs[i].pseudo).c_str());
            for (const auto& p : l.devs[i].paths) unlink(dev_path(dir, p).c_str());
        }
        l.devs.erase(l.devs.begin() + i);
        return;
    }
}

// ------------------------------------------------------------ gelmot

namespace {

void gelmot(State& st, const std::string& dir, const std::vector<std::string>& a, ToolResult& r) {
    auto fail = [&](const std::string& s) {
        r.out += s + "\n";
        r.status = 1;
    };
    const char* usage =
        "Usage: gelmot activate -s <session> | deactivate -s <session> | clone_activate | list | "
        "help";
    if (a.empty()) {
        fail(std::string("gelmot: a command is required.\n") + usage);
        return;
    }
    const std::string& c = a[0];
    if (iequals(c, "help") || iequals(c, "-help")) {
        r.out += "gelmot - host snapshot access tool\nRevision number: " + st.opt.rev_gelmot +
                 "\n" + usage + "\n";
        return;
    }
    if (iequals(c, "clone_activate")) {
        if (a.size() > 1) {
            fail("gelmot: clone_activate takes no arguments.");
            return;
        }
        return;  // a rescan of the host's devices; it has nothing to say
    }
    if (iequals(c, "list")) {
        int h = st.local_host();
        for (const auto& g : st.clonegroups)
            for (const auto& cl : g.clones) {
                const Lun* l = st.lun(g.frame, cl.lun);
                if (!l) continue;
                for (const auto& d : l->devs)
                    if (d.host == h && !d.paths.empty())
                        r.out += dev_path(dir, d.pseudo.empty() ? d.paths[0] : d.pseudo) + " =>(" +
                                 l->wwn + ")\n";
            }
        return;
    }
    bool act = iequals(c, "activate");
    if (!act && !iequals(c, "deactivate")) {
        fail("gelmot: unknown command " + c + ".\n" + usage);
        return;
    }
    if (a.size() != 3 || !iequals(a[1], "-s")) {
        fail("gelmot: " + c + " requires -s <session>.\n" + usage);
        return;
    }
    Session* s = st.session(a[2]);
    if (!s) {
        fail("gelmot: Error: session " + a[2] + " was not found on any storage system.");
        return;
    }
    Lun* l = st.lun(s->frame, s->lun);
    std::string dev = l ? snapshot_device_text(st, dir, l->snapdev) : std::string();
    if (act) {
        if (s->activated) {
            fail("gelmot: Error: session " + s->name + " is already activated.");
            return;
        }
        for (const auto& o : st.sessions)
            if (o.activated && o.frame == s->frame && o.lun == s->lun) {
                fail("gelmot: Error: the snapshot device of this LUN is in use by session " +
                     o.name + ".");
                return;
            }
        if (!l || l->snapdev.empty()) {
            fail("gelmot: Error: no snapshot device is available for session " + s->name + ".");
            return;
        }
        s->activated = true;
        r.changed = true;
        r.out += "Activated session " + s->name + " on device " + dev + ".\n";
        return;
    }
    if (!s->activated) {
        fail("gelmot: Error: session " + s->name + " is not activated.");
        return;
    }
    s->activated = false;
    r.changed = true;
    r.out += "Deactivated session " + s->name + " on device " + dev + ".\n";
}

// ------------------------------------------------------------ fenlok

void fenlok(State& st, const std::string& dir, const std::vector<std::string>& a, ToolResult& r) {
    const char* usage = "Usage: fenlok attach -s <snapshot> | detach -s <snapshot>";
    auto fail = [&](const std::string& s) {
        r.out += s + "\n";
        r.status = 1;
    };
    if (a.size() != 3 || !iequals(a[1], "-s") ||
        (!iequals(a[0], "attach") && !iequals(a[0], "detach"))) {
        fail(std::string("fenlok: bad command line.\n") + usage);
        return;
    }
    KvtSnap* k = nullptr;
    for (auto& s : st.kvtsnaps)
        if (s.name == a[2]) k = &s;
    if (!k) {
        fail("fenlok: Error: snapshot " + a[2] + " was not found on any storage system.");
        return;
    }
    if (iequals(a[0], "attach")) {
        // Each source's snapshot appears at that source's mount point; attaching
        // again repeats the answer.
        std::string lines, first;
        for (int n : k->sources) {
            const Lun* l = st.lun(k->frame, n);
            if (!l || l->smp < 0 || l->smpdev.empty()) continue;
            if (first.empty()) first = l->smpdev;
            lines += "Attached snapshot " + k->name + " to SMP " + std::to_string(l->smp) +
                     " on device " + dev_path(dir, l->smpdev) + ".\n";
        }
        if (lines.empty()) {
            fail("fenlok: Error: the source of snapshot " + k->name +
                 " has no snapshot mount point.");
            return;
        }
        if (k->attached != first) {
            k->attached = first;
            r.changed = true;
        }
        r.out += lines;
        return;
    }
    if (k->attached.empty()) {
        fail("fenlok: Error: snapshot " + k->name + " is not attached.");
        return;
    }
    r.out += "Detached snapshot " + k->name + " from device " + dev_path(dir, k->attached) + ".\n";
    k->attached.clear();
    r.changed = true;
}

// ------------------------------------------------------------ faults

bool fault_applies(const Fault& f, const std::string& tool, const std::string& line) {
    if (f.count == 0) return false;
    if (f.tool != "*" && f.tool != tool) return false;
    return f.match.empty() || line.find(f.match) != std::string::npos;
}

std::string garbage_text() {
    return "#@!~ 0x7f3a ???? ;; ---- \x01\x02 --\n"
           "Name:\n"
           "::::  ...  HLU  ALU  UID\n"
           "random words with no meaning at all 12 34\n";
}

}  // namespace

void run_host_tool(State& st, const std::string& dir, const std::string& tool,
                   const std::vector<std::string>& a, ToolResult& r) {
    if (tool == "gelmot") {
        gelmot(st, dir, a, r);
    } else if (tool == "fenlok") {
        fenlok(st, dir, a, r);
    } else if (tool == "hadrix") {
        if (a.size() == 1 && iequals(a[0], "version")) {
            r.out += "ZOV hadrix for Hadripath (c) Version " + st.opt.rev_hadrix + "\n";
        } else {
            r.out += "Usage: hadrix version\n";
            r.status = 1;
        }
    } else if (tool == "pirnet") {
        if (a.empty() || iequals(a[0], "version") || iequals(a[0], "help")) {
            r.out +=
                "pirnet - host registration agent\nRevision number: " + st.opt.rev_pirnet + "\n";
        } else {
            r.out += "pirnet: unknown command " + a[0] + "\nUsage: pirnet version | help\n";
            r.status = 1;
        }
    } else if (tool == "vxdisk") {
        if (!a.empty() && !iequals(a[0], "scandisks") && !iequals(a[0], "list")) {
            r.out += "VxVM vxdisk ERROR: unknown operation " + a[0] + "\n";
            r.status = 1;
        }
    }
}

ToolResult run_tool(State& st, const std::string& dir, const std::string& tool,
                    const std::vector<std::string>& args) {
    ToolResult r;
    std::string line = join(args, " ");
    // Installed-or-not comes first: a tool that is not there prints what a
    // shell would and does nothing.
    bool missing =
        (tool == "vxdisk" && !st.opt.vxdisk) || (tool == "hadrix" && !st.opt.hadrix_installed);
    std::string prefix;
    for (auto& f : st.faults) {
        if (!fault_applies(f, tool, line)) continue;
        if (f.kind == "down") {
            // A frame that stops answering: the rule's argument is its address.
            int fr = st.frame_by_addr(f.arg);
            if (fr < 0 || line.find(f.arg) == std::string::npos) continue;
        }
        if (f.count > 0) {
            --f.count;
            r.changed = true;
        }
        if (f.kind == "missing")
            missing = true;
        else if (f.kind == "execfail") {
            r.status = 76;
            return r;
        } else if (f.kind == "refuse") {
            r.out = f.arg.empty()
                        ? "Error: " + tool +
                              " command failed\nThe request was refused by the storage system.\n"
                        : f.arg + "\n";
            r.status = 1;
            return r;
        } else if (f.kind == "garbage") {
            r.out = garbage_text();
            return r;
        } else if (f.kind == "down") {
            r.out = "Error: Could not connect to the storage system at " + f.arg +
                    ". Check the address and that the system is running.\n";
            r.status = 3;
            return r;
        } else if (f.kind == "longline") {
            int n = atoi(f.arg.c_str());
            prefix.assign(n > 0 ? static_cast<size_t>(n) : 3000, 'x');
            prefix += '\n';
        } else if (f.kind == "slow") {
            r.delay_ms = atoi(f.arg.c_str());
            if (r.delay_ms <= 0) r.delay_ms = 1000;
        }
    }
    if (missing) {
        r.out = tool + ": command not found\n";
        r.status = 127;
        return r;
    }
    bool changed = r.changed;
    if (tool == "tilloseccli")
        run_tillo(st, dir, args, r);
    else
        run_host_tool(st, dir, tool, args, r);
    r.changed = r.changed || changed;
    if (!prefix.empty()) r.out = prefix + r.out;
    return r;
}

}  // namespace arraysim
