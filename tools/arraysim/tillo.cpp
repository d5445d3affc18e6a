// The array's command line tool, tilloseccli: "-h <address> <subcommand>".
// Each listing prints the lines and keys that the module's parsers read;
// each change prints nothing on success and a refusal text otherwise.
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "tools/arraysim/args.h"
#include "tools/arraysim/sim.h"
#include "tools/arraysim/text.h"
#include "tools/arraysim/tools_internal.h"

namespace arraysim {

namespace {

// A command of the tool on one frame (-1 for those that need none).
struct Cmd : ToolArgs {
    Cmd(State& state, const std::string& folder, const std::vector<std::string>& words, int f,
        const std::string& address, ToolResult& result)
        : ToolArgs(words, 0, result), st(state), dir(folder), frame(f), addr(address) {}
    State& st;
    const std::string& dir;
    int frame;
    std::string addr;
};

const char* kChangeFailed = "Error: %s command failed\n";

std::string failed_text(const char* cmd, const std::string& why) {
    char buf[256];
    snprintf(buf, sizeof buf, kChangeFailed, cmd);
    return std::string(buf) + why + "\n";
}

// ------------------------------------------------------------ identity

void cmd_getlun(Cmd& c) {
    if (!c.check(1, {{"-uid", 0}})) return;
    std::string& o = c.r.out;
    // Runs on every device lookup: read the two fields it shows without
    // parsing the whole LUN records.
    const LunTable& luns = c.st.luns;
    bool uid = c.has("-uid");
    std::string uid_key;  // "UID:" and its padding, as kv lays it out
    kv(uid_key, "UID", std::string(), 28);
    uid_key.pop_back();
    // Room for this frame's LUNs only: pages made ready and left unused
    // cost as much as faults.
    size_t shown = 0;
    for (size_t i = 0; i < luns.size(); ++i) shown += luns.frame_at(i) == c.frame;
    reserve_filled(o, shown * (uid ? 104 : 28));
    for (size_t i = 0; i < luns.size(); ++i) {
        if (luns.frame_at(i) != c.frame) continue;
        o += "LOGICAL UNIT NUMBER ";
        append_int(o, luns.num_at(i));
        o += '\n';
        if (uid) {
            o += uid_key;
            luns.append_wwn(i, o);
            o += '\n';
        }
        o += '\n';
    }
}

void print_lun_brief(Cmd& c, const Lun& l, bool uid, bool smp, bool cg) {
    std::string& o = c.r.out;
    o += "LOGICAL UNIT NUMBER " + std::to_string(l.num) + "\n";
    kv(o, "Name", l.name, 10);
    if (uid) kv(o, "UID", l.wwn, 10);
    if (smp) kv(o, "Snapshot Mount Points", l.smp >= 0 ? std::to_string(l.smp) : "N/A", 10);
    if (cg) kv(o, "Consistency Group", l.cg.empty() ? "N/A" : l.cg, 10);
    o += '\n';
}

void cmd_lun(Cmd& c) {
    if (c.a.size() < 2 || !iequals(c.a[1], "-list")) {
        c.fail(
            "Error: lun: expected -list.\nUsage: lun -list [-l <number>] [-uid] [-snapMountPoints] "
            "[-belongsToCG]");
        return;
    }
    if (!c.check(2, {{"-l", 1}, {"-uid", 0}, {"-snapMountPoints", 0}, {"-belongsToCG", 0}})) return;
    bool uid = c.has("-uid"), smp = c.has("-snapMountPoints"), cg = c.has("-belongsToCG");
    std::string n;
    if (c.value("-l", n)) {
        const Lun* l = is_number(n) ? c.st.lun(c.frame, atoi(n.c_str())) : nullptr;
        if (!l) {
            c.fail("Could not retrieve the specified (pool lun). The (pool lun) may not exist.");
            return;
        }
        print_lun_brief(c, *l, uid, smp, cg);
        return;
    }
    for (const auto& l : c.st.luns)
        if (l.frame == c.frame) print_lun_brief(c, l, uid, smp, cg);
}

void cmd_arrayname(Cmd& c) {
    if (!c.check(1, {})) return;
    kv(c.r.out, "Array Name", c.st.frames[c.frame].name, 12);
}

void cmd_getarrayuid(Cmd& c) {
    if (!c.check(1, {})) return;
    // A table of the storage processor that answered: its host name and the
    // frame's serial number.
    char buf[512];
    snprintf(buf, sizeof buf, "%-24s  %s\n%-24s  %s\n%-24s  %s\n", "Hostname", "Serial Number",
             "------------------------", "--------------------",
             c.st.sp_host_name(c.frame, c.addr).c_str(), c.st.frames[c.frame].serial.c_str());
    c.r.out += buf;
}

// ------------------------------------------------------------ host agent

const char* kAgentDown = "Agent not running on host %s. The request could not be completed.\n";

void cmd_server(Cmd& c) {
    bool update = c.has("-update"), volmap = c.has("-volmap");
    if (update == volmap) {
        c.fail(
            "Error: server: expected -update or -volmap.\nUsage: server -update -host <host> "
            "[-rescanDevices] [-o]\n"
            "       server -volmap -host <host> [-local]");
        return;
    }
    if (!c.check(1, {{"-update", 0},
                     {"-volmap", 0},
                     {"-host", 1},
                     {"-rescanDevices", 0},
                     {"-o", 0},
                     {"-local", 0}}))
        return;
    std::string hname;
    if (!c.value("-host", hname)) {
        c.fail("Error: server: -host <host> is required.");
        return;
    }
    int h = c.st.host_by_name_or_addr(hname);
    if (h < 0) {
        c.fail("Error: host " + hname + " is not registered with this storage system.");
        return;
    }
    const Host& host = c.st.hosts[h];
    if (!host.agent_up) {
        char buf[512];
        snprintf(buf, sizeof buf, kAgentDown, hname.c_str());
        c.fail(buf);
        return;
    }
    if (update) return;  // a rescan says nothing when it works
    print_volmap(c.st, c.dir, c.frame, h, c.r.out);
}

// ------------------------------------------------------------ storage groups

void print_group(Cmd& c, const Group& g, bool with_host) {
    std::string& o = c.r.out;
    kv(o, "Storage Group Name", g.name, 23);
    kv(o, "Storage Group UID", g.uid, 23);
    o += "HBA/SP Pairs:\n\n";
    char buf[512];
    snprintf(buf, sizeof buf, "  %-48s %-11s %s\n  %-48s %-11s %s\n", "HBA UID", "SP Name",
             "SPPort", "-------", "-------", "------");
    o += buf;
    if (g.host >= 0 && g.host < static_cast<int>(c.st.hosts.size())) {
        const Frame& f = c.st.frames[g.frame];
        for (const auto& hba : c.st.hosts[g.host].hbas)
            for (size_t sp = 0; sp < f.addrs.size() && sp < 2; ++sp) {
                snprintf(buf, sizeof buf, "  %-48s %-11s %d\n", hba.uid.c_str(),
                         sp ? "SP B" : "SP A", 0);
                o += buf;
            }
    }
    o += "\nHLU/ALU Pairs:\n\n";
    o += "  HLU Number     ALU Number\n  ----------     ----------\n";
    // A group holds thousands of LUNs: its rows are laid out by hand, as
    // "    %-15d%d" and " %d     %s" would.
    reserve_filled(o, g.pairs.size() * (g.form == 1 ? 28 : 84));
    if (g.form == 1) {
        for (const auto& p : g.pairs) {
            o += "    ";
            size_t at = o.size();
            append_int(o, p.hlu);
            if (o.size() - at < 15) o.append(15 - (o.size() - at), ' ');
            append_int(o, p.alu);
            o += '\n';
        }
    } else {
        o += "\n  HLU No.  LUN UID\n  -------  -----------------------------------------------\n";
        // Form 2 has one blank ahead of the number, which the row expression
        // captures; form 3 keeps the header's indentation, and there the
        // capture starts at the second blank and comes out empty.
        const char* lead = g.form == 3 ? "  " : " ";
        for (const auto& p : g.pairs) {
            long li = c.st.luns.find(g.frame, p.alu);
            o += lead;
            append_int(o, p.hlu);
            o += "     ";
            if (li >= 0)
                c.st.luns.append_wwn(static_cast<size_t>(li), o);
            else
                o += "00:00:00:00:00:00:00:00:00:00:00:00:00:00:00:00";
            o += '\n';
        }
    }
    if (with_host && g.host >= 0 && g.host < static_cast<int>(c.st.hosts.size()))
        kv(o, "Host name", c.st.hosts[g.host].name, 12);
    kv(o, "Shareable", "YES", 23);
    o += '\n';
}

void cmd_storagegroup(Cmd& c) {
    std::string gname;
    if (c.has("-list")) {
        if (!c.check(1, {{"-list", 0}, {"-host", 0}, {"-gname", 1}})) return;
        bool filter = c.value("-gname", gname);
        bool any = false;
        for (const auto& g : c.st.groups) {
            if (g.frame != c.frame || (filter && g.name != gname)) continue;
            print_group(c, g, c.has("-host"));
            any = true;
        }
        if (filter && !any)
            c.fail(
                "Error: storagegroup command failed\nThe group name or UID does not match any "
                "storage groups for this array.");
        return;
    }
    bool add = c.has("-addhlu"), rem = c.has("-removehlu");
    if (!add && !rem) {
        c.fail(
            "Error: storagegroup: expected -list, -addhlu or -removehlu.\n"
            "Usage: storagegroup -list [-host] [-gname <name>]\n"
            "       storagegroup -addhlu -gname <name> -hlu <hlu> -alu <alu>\n"
            "       storagegroup -removehlu -gname <name> -hlu <hlu> [-o]");
        return;
    }
    if (add && !c.check(1, {{"-addhlu", 0}, {"-gname", 1}, {"-hlu", 1}, {"-alu", 1}})) return;
    if (rem && !c.check(1, {{"-removehlu", 0}, {"-gname", 1}, {"-hlu", 1}, {"-o", 0}})) return;
    std::string hlu_s, alu_s;
    if (!c.value("-gname", gname) || !c.value("-hlu", hlu_s) || (add && !c.value("-alu", alu_s))) {
        c.fail(add ? "Error: storagegroup -addhlu requires -gname, -hlu and -alu."
                   : "Error: storagegroup -removehlu requires -gname and -hlu.");
        return;
    }
    if (!is_number(hlu_s) || (add && !is_number(alu_s))) {
        c.fail(failed_text("storagegroup", "Invalid HLU or ALU number."));
        return;
    }
    int gi = c.st.group_by_name(c.frame, gname);
    if (gi < 0) {
        c.fail(
            failed_text("storagegroup",
                        "The group name or UID does not match any storage groups for this array."));
        return;
    }
    Group& g = c.st.groups[gi];
    int hlu = atoi(hlu_s.c_str());
    if (add) {
        int alu = atoi(alu_s.c_str());
        if (hlu > 255) {
            c.fail(failed_text("storagegroup", "The HLU number must be between 0 and 255."));
            return;
        }
        Lun* l = c.st.lun(c.frame, alu);
        if (!l) {
            c.fail(failed_text("storagegroup", "The specified ALU does not exist."));
            return;
        }
        for (const auto& p : g.pairs) {
            if (p.hlu == hlu) {
                c.fail(failed_text("storagegroup",
                                   "The requested host LUN number is already in use."));
                return;
            }
            if (p.alu == alu) {
                c.fail(failed_text("storagegroup", "The LUN is already in this storage group."));
                return;
            }
        }
        g.pairs.push_back(Pair{hlu, alu});
        if (g.host >= 0) make_host_devs(c.st, c.dir, *l, g.host);
        c.r.changed = true;
        return;
    }
    for (size_t i = 0; i < g.pairs.size(); ++i) {
        if (g.pairs[i].hlu != hlu) continue;
        int alu = g.pairs[i].alu;
        g.pairs.erase(g.pairs.begin() + i);
        Lun* l = c.st.lun(c.frame, alu);
        if (l && g.host >= 0) {
            bool still = false;  // the LUN may reach the host through another group
            for (const auto& g2 : c.st.groups)
                if (g2.host == g.host && g2.frame == c.frame)
                    for (const auto& p : g2.pairs) still = still || p.alu == alu;
            if (!still) drop_host_devs(c.st, c.dir, *l, g.host);
        }
        c.r.changed = true;
        return;
    }
    c.fail(failed_text("storagegroup", "The specified HLU is not in this storage group."));
}

void cmd_port(Cmd& c) {
    if (!c.has("-list")) {
        c.fail("Error: port: expected -list.\nUsage: port -list [-hba]");
        return;
    }
    if (!c.check(1, {{"-list", 0}, {"-hba", 0}})) return;
    std::string& o = c.r.out;
    const Frame& f = c.st.frames[c.frame];
    for (size_t h = 0; h < c.st.hosts.size(); ++h) {
        const Host& host = c.st.hosts[h];
        const Group* g = nullptr;
        for (const auto& gr : c.st.groups)
            if (gr.frame == c.frame && gr.host == static_cast<int>(h)) {
                g = &gr;
                break;
            }
        for (const auto& hba : host.hbas) {
            o += "Information about each HBA:\n\n";
            kv(o, "HBA UID", hba.uid, 25);
            kv(o, "Server Name", host.name, 25);
            kv(o, "Server IP Address", host.addr, 25);
            kv(o, "HBA Model Description", "N/A", 25);
            kv(o, "HBA Vendor Description", "N/A", 25);
            o += "Information about each port of this HBA:\n\n";
            if (!g) continue;  // logged in nowhere on this array
            for (size_t sp = 0; sp < f.addrs.size() && sp < 2; ++sp) {
                o += "    ";
                kv(o, "SP Name", sp ? "SP B" : "SP A", 23);
                o += "    ";
                kv(o, "SP Port ID", "0", 23);
                o += "    ";
                kv(o, "HBA Devicename", hba.dev, 23);
                o += "    ";
                kv(o, "Trusted", "NO", 23);
                o += "    ";
                kv(o, "Logged In", "YES", 23);
                o += "    ";
                kv(o, "Defined", "YES", 23);
                o += "    ";
                kv(o, "StorageGroup Name", g->name, 23);
                o += '\n';
            }
        }
    }
}

// ------------------------------------------------------------ software

void cmd_ndu(Cmd& c) {
    if (!c.has("-list")) {
        c.fail("Error: ndu: expected -list.\nUsage: ndu -list");
        return;
    }
    if (!c.check(1, {{"-list", 0}})) return;
    std::string& o = c.r.out;
    for (const auto& p : c.st.packages) {
        if (p.frame != c.frame) continue;
        kv(o, "Name of the software package", p.name, 36);
        kv(o, "Revision of the software package", p.rev, 36);
        kv(o, "Commit Required", p.commit ? "YES" : "NO", 36);
        kv(o, "Revert Possible", "NO", 36);
        kv(o, "Active State", p.active ? "YES" : "NO", 36);
        kv(o, "Is installation completed", "YES", 36);
        o += '\n';
    }
}

// ------------------------------------------------------------ flush

void cmd_flush(Cmd& c) {
    // "flush -o <device>": the host's buffers; the array has nothing to say.
    if (c.a.size() < 2) {
        c.fail("Error: flush: a device name is required.\nUsage: flush [-o] <device>");
        return;
    }
    for (size_t i = 1; i < c.a.size(); ++i)
        if (c.a[i][0] == '-' && !iequals(c.a[i], "-o")) {
            c.fail("Error: unrecognized switch or argument: " + c.a[i]);
            return;
        }
}

}  // namespace

static const char* kUsage =
    "Usage: tilloseccli [-User <name> -Password <password> -Scope <0|1|2>] -h <address> <command>\n"
    "Commands: getlun, lun, arrayname, getarrayuid, server, storagegroup, port, ndu, quillset, "
    "snap, flush\n";

void run_tillo(State& st, const std::string& dir, const std::vector<std::string>& args,
               ToolResult& r) {
    std::string addr;
    size_t i = 0;
    // Global switches come first; user and scope are accepted and not checked.
    while (i < args.size()) {
        const std::string& s = args[i];
        if (iequals(s, "-h") || iequals(s, "-address")) {
            if (i + 1 >= args.size()) {
                r.out =
                    "Error: switch -h requires a storage system address.\n" + std::string(kUsage);
                r.status = 2;
                return;
            }
            addr = args[i + 1];
            i += 2;
        } else if (iequals(s, "-user") || iequals(s, "-password") || iequals(s, "-scope") ||
                   iequals(s, "-secfilepath") || iequals(s, "-port") || iequals(s, "-timeout")) {
            if (i + 1 >= args.size()) {
                r.out = "Error: switch " + s + " requires a value.\n";
                r.status = 2;
                return;
            }
            i += 2;
        } else {
            break;
        }
    }
    if (i >= args.size()) {
        r.out = "Error: no command given.\n" + std::string(kUsage);
        r.status = 2;
        return;
    }
    std::vector<std::string> a(args.begin() + i, args.end());
    if (iequals(a[0], "-help") || iequals(a[0], "help")) {
        r.out = "Tilloseccli Revision " + st.opt.rev_tillo + "\n" + kUsage;
        return;
    }
    if (iequals(a[0], "flush")) {
        Cmd c{st, dir, a, -1, addr, r};
        cmd_flush(c);
        return;
    }
    if (!st.opt.secfile) {
        r.out =
            "Security file not found. Add a user security file with -AddUserSecurity and try "
            "again.\n";
        r.status = 1;
        return;
    }
    if (addr.empty()) {
        r.out = "Error: the storage system address (-h) is required.\n" + std::string(kUsage);
        r.status = 2;
        return;
    }
    int frame = st.frame_by_addr(addr);
    if (frame < 0 || st.frames[frame].down) {
        r.out = "Error: Could not connect to the storage system at " + addr +
                ". Check the address and that the system is running.\n";
        r.status = 3;
        return;
    }
    Cmd c{st, dir, a, frame, addr, r};
    const std::string& sub = a[0];
    if (iequals(sub, "getlun"))
        cmd_getlun(c);
    else if (iequals(sub, "lun"))
        cmd_lun(c);
    else if (iequals(sub, "arrayname"))
        cmd_arrayname(c);
    else if (iequals(sub, "getarrayuid"))
        cmd_getarrayuid(c);
    else if (iequals(sub, "server"))
        cmd_server(c);
    else if (iequals(sub, "storagegroup"))
        cmd_storagegroup(c);
    else if (iequals(sub, "port"))
        cmd_port(c);
    else if (iequals(sub, "ndu"))
        cmd_ndu(c);
    else if (iequals(sub, "quillset"))
        run_quillset(st, dir, frame, addr, a, r);
    else if (iequals(sub, "snap"))
        run_snap(st, dir, frame, addr, a, r);
    else {
        r.out = "Error: unknown command: " + sub + "\n" + kUsage;
        r.status = 2;
    }
}

}  // namespace arraysim
