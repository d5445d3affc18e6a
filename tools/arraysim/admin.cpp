// The administration commands of arraysim: init, show, set, fault, tick, log,
// bin. They make and change the state; the tools only read and act on it.
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tools/arraysim/text.h"
#include "tools/arraysim/tools_internal.h"

namespace arraysim {

namespace {

std::string this_host_name() {
    char buf[256] = {0};
    if (gethostname(buf, sizeof buf - 1) != 0 || !buf[0]) return "localhost";
    return buf;
}

// What `getent DB KEY` prints, empty when it cannot be run.
std::string getent(const char* db, const std::string& key) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return std::string();
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, fds[1], 1);
    std::string d = db, k = key;
    char* argv[] = {const_cast<char*>("getent"), &d[0], &k[0], nullptr};
    pid_t pid;
    int rc = posix_spawnp(&pid, "getent", &fa, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&fa);
    close(fds[1]);
    std::string text;
    if (rc == 0) {
        char buf[4096];
        for (;;) {
            ssize_t n = read(fds[0], buf, sizeof buf);
            if (n > 0)
                text.append(buf, static_cast<size_t>(n));
            else if (n == 0 || errno != EINTR)
                break;
        }
        int status;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {}
    }
    close(fds[0]);
    return text;
}

// The address the module will pass as "-host": the first IPv4 address of
// the host name that is not loop-back, or the name itself when there is none.
// The program is linked statically, because every array command starts it,
// and a static program has no name service: getent asks the system's, the
// one the module asks, and prints an address and a socket type a line.
std::string this_host_addr(const std::string& name) {
    std::string text = getent("ahostsv4", name);
    for (size_t at = 0; at < text.size();) {
        size_t nl = text.find('\n', at);
        if (nl == std::string::npos) nl = text.size();
        std::string line = text.substr(at, nl - at);
        at = nl + 1;
        char addr[64], type[16];
        if (sscanf(line.c_str(), "%63s %15s", addr, type) == 2 && strcmp(type, "STREAM") == 0 &&
            strncmp(addr, "127.", 4) != 0)
            return addr;
    }
    return name;
}

std::string fmt(const char* f, long long v) {
    char buf[64];
    snprintf(buf, sizeof buf, f, v);
    return buf;
}

std::string new_disk(State& st) {
    return "sd" + disk_suffix(st.opt.seq++);
}

void add_devs(State& st, Lun& l, int host, bool multipath) {
    HostDev d;
    d.host = host;
    if (multipath) {
        d.pseudo = "zovhadrix" + disk_suffix(st.opt.seq);
        d.paths.push_back(new_disk(st));
        d.paths.push_back(new_disk(st));
    } else {
        d.paths.push_back(new_disk(st));
    }
    l.devs.push_back(d);
}

}  // namespace

State make_state(const InitOptions& o) {
    State st;
    st.opt.seq = 1;  // "sda" is the host's own disk
    Host h;
    h.name = o.host.empty() ? this_host_name() : o.host;
    h.addr = o.host_addr.empty() ? this_host_addr(h.name) : o.host_addr;
    h.local = true;
    for (int i = 0; i < 2; ++i)
        h.hbas.push_back(Hba{make_wwn("20000000", 0xC9000100ULL + i), "fc" + std::to_string(i)});
    st.hosts.push_back(h);
    if (o.mount_host) {
        Host m;
        m.name = o.mount_name;
        m.addr = "192.0.2.50";
        for (int i = 0; i < 2; ++i)
            m.hbas.push_back(
                Hba{make_wwn("20000000", 0xC9000200ULL + i), "fc" + std::to_string(i)});
        st.hosts.push_back(m);
    }
    int num = 0;
    for (int f = 0; f < o.frames; ++f) {
        Frame fr;
        fr.serial = fmt("QXR2020%07lld", 1000 + f);
        fr.name = fmt("SIMARRAY%02lld", f);
        fr.uid = make_wwn("50060160", 0xA0000000ULL + f);
        fr.addrs = {fmt("198.18.%lld.1", f % 250), fmt("198.18.%lld.2", f % 250)};
        st.frames.push_back(fr);
        Group local;
        local.frame = f;
        local.name = "SG_" + h.name;
        local.uid = make_wwn("8A0B0C0D", 0x100000ULL + f * 16);
        local.host = 0;
        Group mover;
        mover.frame = f;
        mover.name = "SG_" + o.mount_name;
        mover.uid = make_wwn("8A0B0C0D", 0x100001ULL + f * 16);
        mover.host = 1;
        std::vector<int> sources;
        for (int i = 0; i < o.luns; ++i) {
            Lun l;
            l.frame = f;
            l.num = num++;
            l.name = "LUN " + std::to_string(l.num);
            l.wwn = make_wwn("60060160", (static_cast<unsigned long long>(f) << 32) |
                                             static_cast<unsigned>(l.num));
            l.blocks = 2097152;
            l.snapname = "SL_" + std::to_string(l.num);
            l.snapdev = new_disk(st);
            l.smp = 10000 + l.num;
            l.smpdev = new_disk(st);
            add_devs(st, l, 0, o.multipath);
            local.pairs.push_back(Pair{static_cast<int>(local.pairs.size()), l.num});
            sources.push_back(l.num);
            st.luns.push_back(l);
        }
        // The last LUNs form the consistency groups, two each.
        for (int c = 0; c < o.cgs && static_cast<int>(sources.size()) >= 2 * (c + 1); ++c) {
            ConsistencyGroup cg;
            cg.frame = f;
            cg.name = "CG" + std::to_string(f) + "_" + std::to_string(c);
            for (int k = 0; k < 2; ++k) {
                int n = sources[sources.size() - 1 - 2 * c - k];
                cg.luns.insert(cg.luns.begin(), n);
                st.lun(f, n)->cg = cg.name;
            }
            st.cgs.push_back(cg);
        }
        for (int g = 0; g < o.clone_groups && !sources.empty(); ++g) {
            CloneGroup cg;
            cg.frame = f;
            cg.src = sources[g % sources.size()];
            cg.name = "CloneGrp_" + std::to_string(cg.src) +
                      (g >= static_cast<int>(sources.size()) ? "_" + std::to_string(g) : "");
            cg.uid = make_wwn("50060160", 0xC1000000ULL + f * 4096 + g);
            for (int c = 0; c < o.clones; ++c) {
                Lun l;
                l.frame = f;
                l.num = num++;
                l.name = "Clone LUN " + std::to_string(l.num);
                l.wwn = make_wwn("60060160", (static_cast<unsigned long long>(f) << 32) |
                                                 static_cast<unsigned>(l.num));
                l.blocks = 2097152;
                // Clones are visible on this host (so that one machine can play both
                // roles) and on the mount host.
                add_devs(st, l, 0, o.multipath);
                local.pairs.push_back(Pair{static_cast<int>(local.pairs.size()), l.num});
                if (o.mount_host) {
                    add_devs(st, l, 1, o.multipath);
                    mover.pairs.push_back(Pair{static_cast<int>(mover.pairs.size()), l.num});
                }
                st.luns.push_back(l);
                Clone cl;
                cl.id = fmt("%02llX00000000000000", c + 1);
                cl.lun = l.num;
                cg.clones.push_back(cl);
            }
            st.clonegroups.push_back(cg);
        }
        st.groups.push_back(local);
        if (o.mount_host) st.groups.push_back(mover);
        // The array's own software, and the host software it keeps a record
        // of under the names that the module's version survey looks for.
        const char* pk[][2] = {{"Base", "04.30.000.5.523"},    {"Quillset", "04.30.000.5.002"},
                               {"CloneSW", "04.30.000.5.002"}, {"AdvSnapshots", "05.32.000.5.011"},
                               {"TILLOCLI", "7.33.1.0.12"},    {"ZOVhadrix", "3.2.1"}};
        for (auto& p : pk) st.packages.push_back(Package{f, p[0], p[1], false, true});
    }
    for (int i = 0; i < o.foreign; ++i)
        st.foreign.push_back(
            ForeignDev{i == 0 ? "sda" : "vd" + disk_suffix(i), "ATA", "VIRTUAL-DISK"});
    return st;
}

void complete_state(State& st) {
    if (st.opt.seq < 1) st.opt.seq = 1;
    bool any_local = false;
    for (auto& h : st.hosts) any_local = any_local || h.local;
    if (!any_local && !st.hosts.empty()) st.hosts[0].local = true;
    for (size_t f = 0; f < st.frames.size(); ++f) {
        Frame& fr = st.frames[f];
        if (fr.serial.empty()) fr.serial = fmt("QXR2020%07lld", 1000 + static_cast<long long>(f));
        if (fr.name.empty()) fr.name = fmt("SIMARRAY%02lld", static_cast<long long>(f));
        if (fr.uid.empty()) fr.uid = make_wwn("50060160", 0xA0000000ULL + f);
    }
    for (size_t g = 0; g < st.groups.size(); ++g)
        if (st.groups[g].uid.empty()) st.groups[g].uid = make_wwn("8A0B0C0D", 0x200000ULL + g);
    for (size_t g = 0; g < st.clonegroups.size(); ++g) {
        CloneGroup& cg = st.clonegroups[g];
        if (cg.uid.empty()) cg.uid = make_wwn("50060160", 0xC2000000ULL + g);
        if (cg.name.empty()) cg.name = "CloneGrp_" + std::to_string(cg.src);
        for (size_t c = 0; c < cg.clones.size(); ++c)
            if (cg.clones[c].id.empty())
                cg.clones[c].id = fmt("%02llX00000000000000", static_cast<long long>(c + 1));
    }
    for (auto& l : st.luns) {
        if (l.wwn.empty())
            l.wwn = make_wwn("60060160", (static_cast<unsigned long long>(l.frame) << 32) |
                                             static_cast<unsigned>(l.num));
        if (l.name.empty()) l.name = "LUN " + std::to_string(l.num);
        if (l.blocks <= 0) l.blocks = 2097152;
        if (!l.snapname.empty() && l.snapdev.empty()) l.snapdev = new_disk(st);
        if (l.smp >= 0 && l.smpdev.empty()) l.smpdev = new_disk(st);
    }
    // A LUN in a host's storage group has a device on that host.
    for (const auto& g : st.groups) {
        if (g.host < 0 || g.host >= static_cast<int>(st.hosts.size())) continue;
        for (const auto& p : g.pairs) {
            Lun* l = st.lun(g.frame, p.alu);
            if (!l) continue;
            bool have = false;
            for (const auto& d : l->devs) have = have || d.host == g.host;
            if (!have) add_devs(st, *l, g.host, false);
        }
    }
}

// ------------------------------------------------------------ show

std::string show_state(const State& st) {
    std::string o;
    char buf[512];
    snprintf(buf, sizeof buf, "Options: sync_steps=%d secfile=%s vxdisk=%s hadrix=%s clock=%+lld\n",
             st.opt.sync_steps, st.opt.secfile ? "yes" : "no", st.opt.vxdisk ? "yes" : "no",
             st.opt.hadrix_installed ? "yes" : "no", st.opt.clock);
    o += buf;
    o += "Tool revisions: tilloseccli " + st.opt.rev_tillo + ", gelmot " + st.opt.rev_gelmot +
         ", hadrix " + st.opt.rev_hadrix + ", pirnet " + st.opt.rev_pirnet + "\n\n";
    for (size_t f = 0; f < st.frames.size(); ++f) {
        const Frame& fr = st.frames[f];
        snprintf(buf, sizeof buf, "Frame %zu: %s serial %s%s\n  addresses %s\n  uid %s\n", f,
                 fr.name.c_str(), fr.serial.c_str(), fr.down ? " (DOWN)" : "",
                 join(fr.addrs, ", ").c_str(), fr.uid.c_str());
        o += buf;
        for (const auto& p : st.packages)
            if (p.frame == static_cast<int>(f))
                o += "  software " + p.name + " " + p.rev + (p.commit ? " (commit required)" : "") +
                     (p.active ? "" : " (inactive)") + "\n";
    }
    o += "\n";
    for (const auto& h : st.hosts) {
        o += "Host " + h.name + " (" + h.addr + ")" + (h.local ? " local" : "") +
             (h.agent_up ? "" : " AGENT DOWN") + "\n";
        for (const auto& b : h.hbas) o += "  HBA " + b.dev + " " + b.uid + "\n";
    }
    o += "\n";
    for (const auto& g : st.groups) {
        snprintf(buf, sizeof buf,
                 "Storage group %s on frame %d, host %s, %zu LUNs (table form %d)\n",
                 g.name.c_str(), g.frame,
                 g.host >= 0 && g.host < static_cast<int>(st.hosts.size())
                     ? st.hosts[g.host].name.c_str()
                     : "-",
                 g.pairs.size(), g.form);
        o += buf;
    }
    o += "\n  frame   LUN  capacity  owner  devices\n";
    for (const auto& l : st.luns) {
        std::string devs;
        for (const auto& d : l.devs) {
            if (!devs.empty()) devs += "; ";
            devs +=
                (d.host < static_cast<int>(st.hosts.size()) ? st.hosts[d.host].name : "?") + ":";
            if (!d.pseudo.empty()) devs += d.pseudo + "=";
            devs += join(d.paths, "+");
        }
        std::string extra;
        if (!l.snapname.empty()) extra += " snap=" + l.snapname + "@" + l.snapdev;
        if (l.smp >= 0) extra += " smp=" + std::to_string(l.smp) + "@" + l.smpdev;
        if (!l.cg.empty()) extra += " cg=" + l.cg;
        snprintf(buf, sizeof buf, "  %5d %5d %9lld  %s  %s%s\n", l.frame, l.num, l.blocks,
                 l.trespassed ? "SP B" : "SP A", devs.c_str(), extra.c_str());
        o += buf;
    }
    if (!st.sessions.empty()) o += "\nSessions:\n";
    for (const auto& s : st.sessions)
        o += "  " + s.name + " frame " + std::to_string(s.frame) + " LUN " + std::to_string(s.lun) +
             (s.activated ? " activated" : "") +
             (s.rollbacks ? " rolled back " + std::to_string(s.rollbacks) + "x" : "") + "\n";
    if (!st.clonegroups.empty()) o += "\nClone groups:\n";
    for (const auto& g : st.clonegroups) {
        o += "  " + g.name + " (" + g.uid + ") frame " + std::to_string(g.frame) + " source LUN " +
             std::to_string(g.src) + "\n";
        for (const auto& c : g.clones)
            o += "    clone " + c.id + " LUN " + std::to_string(c.lun) + ": " + c.state + ", " +
                 c.cond + (c.fractured ? ", fractured" : "") + ", rate " + c.rate + ", " +
                 std::to_string(c.pct) + "%" + (c.op.empty() ? "" : " (" + c.op + " in progress)") +
                 "\n";
    }
    if (!st.cgs.empty()) o += "\nConsistency groups:\n";
    for (const auto& c : st.cgs) {
        std::vector<std::string> l;
        for (int n : c.luns) l.push_back(std::to_string(n));
        o += "  " + c.name + " frame " + std::to_string(c.frame) + ": LUNs " + join(l, ", ") + "\n";
    }
    if (!st.kvtsnaps.empty()) o += "\nAdvanced snapshots:\n";
    for (const auto& k : st.kvtsnaps)
        o += "  " + k.name + " of " + k.res +
             (k.attached.empty() ? "" : " attached at " + k.attached) + "\n";
    if (!st.foreign.empty()) o += "\nOther devices:\n";
    for (const auto& f : st.foreign) o += "  " + f.name + " " + f.vendor + " " + f.product + "\n";
    if (!st.faults.empty()) o += "\nFault rules:\n";
    for (size_t i = 0; i < st.faults.size(); ++i) {
        const Fault& f = st.faults[i];
        o += "  " + std::to_string(i) + ": " + f.tool + " " + f.kind +
             (f.match.empty() ? "" : " when \"" + f.match + "\"") +
             (f.arg.empty() ? "" : " arg \"" + f.arg + "\"") +
             (f.count >= 0 ? " (" + std::to_string(f.count) + " left)" : "") + "\n";
    }
    return o;
}

// ------------------------------------------------------------ folder

bool sync_folder(const std::string& dir, const State& st, const std::string& self_exe,
                 std::string& err) {
    mkdir(dir.c_str(), 0755);
    mkdir(dev_dir(dir).c_str(), 0755);
    std::string bin = dir + "/bin";
    mkdir(bin.c_str(), 0755);
    struct stat sb;
    if (stat(dev_dir(dir).c_str(), &sb) != 0 || !S_ISDIR(sb.st_mode)) {
        err = "cannot make " + dev_dir(dir) + ": " + strerror(errno);
        return false;
    }
    for (const auto& l : st.luns) {
        for (const auto& d : l.devs) {
            touch_dev(dir, d.pseudo);
            for (const auto& p : d.paths) touch_dev(dir, p);
        }
        touch_dev(dir, l.snapdev);
        touch_dev(dir, l.smpdev);
    }
    for (const auto& f : st.foreign) touch_dev(dir, f.name);
    // The bin folder mirrors what is installed: a missing tool has no entry, a
    // tool whose start fails is a directory (found, but exec refuses it).
    for (const auto& t : tool_names()) {
        std::string p = bin + "/" + t;
        bool missing =
            (t == "vxdisk" && !st.opt.vxdisk) || (t == "hadrix" && !st.opt.hadrix_installed);
        bool execfail = false;
        for (const auto& f : st.faults) {
            if (f.count == 0 || f.tool != t || !f.match.empty()) continue;
            missing = missing || f.kind == "missing";
            execfail = execfail || f.kind == "execfail";
        }
        if (lstat(p.c_str(), &sb) == 0) {
            if (S_ISDIR(sb.st_mode))
                rmdir(p.c_str());
            else
                unlink(p.c_str());
        }
        if (missing) continue;
        if (execfail) {
            mkdir(p.c_str(), 0755);
            continue;
        }
        if (!self_exe.empty() && symlink(self_exe.c_str(), p.c_str()) != 0) {
            err = "cannot link " + p + ": " + strerror(errno);
            return false;
        }
    }
    return true;
}

}  // namespace arraysim
