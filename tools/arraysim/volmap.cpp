// The host agent's volume map ("server -volmap"): one block of keyed lines per
// device a host sees, and the names the host gives snapshot devices.
#include <cstring>

#include "tools/arraysim/text.h"
#include "tools/arraysim/tools_internal.h"

namespace arraysim {

namespace {

// The keys of a block, each padded as kv lays it out for a width of 24, so
// that thousands of blocks cost appends only.
struct BlockKeys {
    std::string id, name, mapping, wwn, num, tres, cap, owner;
    BlockKeys() {
        auto key = [](const char* k) {
            std::string s;
            kv(s, k, std::string(), 24);
            s.pop_back();
            return s;
        };
        id = key("Device Id");
        name = key("Device Name");
        mapping = key("Device Mapping");
        wwn = key("LOGICAL UNIT WWN");
        num = key("LOGICAL UNIT NUMBER");
        tres = key("Trespassed");
        cap = key("LUN Capacity(Blocks)");
        owner = key("Current Owner");
    }
};

void block(std::string& o, const BlockKeys& k, const std::string& id, const std::string& name,
           const Lun& l) {
    o += k.id;
    o += id;
    o += '\n';
    o += k.name;
    o += name;
    o += '\n';
    // A device that is mounted nowhere has an empty mapping: the value is
    // what tells the mount table apart from the devices still free.
    if (l.mount.empty()) {
        o += "Device Mapping:\n";
    } else {
        o += k.mapping;
        o += l.mount;
        o += '\n';
    }
    o += k.wwn;
    o += l.wwn;
    o += '\n';
    o += k.num;
    append_int(o, l.num);
    o += '\n';
    o += k.tres;
    o += l.trespassed ? "YES\n" : "NO\n";
    o += k.cap;
    append_int(o, l.blocks);
    o += '\n';
    o += k.owner;
    o += l.trespassed ? "SP B\n\n" : "SP A\n\n";
}

}  // namespace

std::string snapshot_device_id(const std::string& snapdev) {
    // Snapshot devices are named by slice; disk names never end in a digit,
    // so no disk's id can be taken for a snapshot's.
    return snapdev + kSnapshotSlice;
}

std::string snapshot_device_text(const State& st, const std::string& dir,
                                 const std::string& snapdev) {
    if (st.opt.gelmot_form == "path") return dev_path(dir, snapdev);
    return kRawSnapshotDir + snapshot_device_id(snapdev);
}

void print_volmap(const State& st, const std::string&, int frame, int host, std::string& o) {
    static const BlockKeys k;
    for (const auto& g : st.groups) {
        if (g.frame != frame || g.host != host) continue;
        reserve_filled(o, g.pairs.size() * 330);
        for (const auto& p : g.pairs) {
            const Lun* l = st.peek_lun(frame, p.alu);
            if (!l) continue;
            for (const auto& d : l->devs) {
                if (d.host != host) continue;
                // A multipath LUN shows each path under its pseudo device's id;
                // a plain device is its own id.
                for (const auto& path : d.paths)
                    block(o, k, d.pseudo.empty() ? path : d.pseudo, path, *l);
            }
        }
    }
    // A session's snapshot device is a device of the host that runs the
    // tools from the start of the session, so that a map read before the
    // activation already knows it.
    if (host != st.local_host()) return;
    for (const auto& s : st.sessions) {
        if (s.frame != frame) continue;
        const Lun* l = st.lun(s.frame, s.lun);
        if (!l || l->snapdev.empty()) continue;
        Lun shown = *l;
        shown.mount.clear();
        block(o, k, snapshot_device_id(l->snapdev), l->snapdev, shown);
    }
}

}  // namespace arraysim
