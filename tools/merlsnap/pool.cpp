// merlsnap pool: for each source, the clones of its clone group as the array
// lists them, the pool file's entries for it, and the clone a mirror
// snapshot would take under the use policy. It answers the question an
// administrator asks first when a mirror snapshot is refused, and changes
// nothing on the array: it asks with the module's own command layer and
// pool, compiled in.
#include <string.h>

#include <memory>

#include "storage/ssm/merlode/MerlResourceManager.h"
#include "tools/merlsnap/merlsnap.h"

namespace {

bool starts(const std::string& s, const char* w) {
    return s.compare(0, strlen(w), w) == 0;
}

// What the clone search makes of a clone's state words.
std::string verdict(const cloneInfo& c, int reserved) {
    bool fractured = (starts(c.cloneState, "Consistent") || starts(c.cloneState, "Out-of-sync")) &&
                     starts(c.cloneCondition, "Administratively Fractured") &&
                     starts(c.cloneIsFractured, "Yes");
    bool inSync = (starts(c.cloneState, "Consistent") || starts(c.cloneState, "Synchronized")) &&
                  starts(c.cloneCondition, "Normal") && starts(c.cloneIsFractured, "No");
    if (fractured)
        return reserved ? "reserved by a snapshot" : "free, fractured (synchronised first)";
    if (inSync) return "in sync";
    if (starts(c.cloneState, "Synchronizing") && starts(c.cloneCondition, "Synchronizing"))
        return "synchronising (the search waits for it)";
    return "unusable";
}

}  // namespace

int cmd_pool(Context& c) {
    if (c.opt.devices.empty() || c.opt.frames.empty()) {
        c.report.finish("pool", EXIT_USAGE, "pool needs --frame and at least one device");
        return EXIT_USAGE;
    }
    attrlist* attrs = build_attrs(c.opt);
    std::vector<std::string> frames;
    for (const std::string& f : c.opt.frames) {
        std::string rest = f;
        while (!rest.empty()) frames.push_back(merl_space::nextToken(rest, ":"));
    }
    zov_quillset q(&module_log, &c.sink);
    if (c.module.failed(q.init(frames, attrs), "zov_quillset::init")) {
        attrlist_free(attrs);
        c.report.finish("pool", EXIT_MODULE_ERROR, c.module.error());
        return EXIT_MODULE_ERROR;
    }
    MerlResourceManager pool(&module_log, &c.sink);
    delete pool.init(attrs, &q);
    c.report.fact("pool file", std::string(pool.m_snapPool) +
                                   (pool.m_snapPoolSpecified ? " (from MERL_SNAP_POOL)" : ""));
    c.report.fact("policy", pool.m_snapResUsePolicy);
    if (SSError* e = pool.buildResourceList()) {
        c.report.item("warning", e->getErrMsg());
        delete e;
    }
    pool.m_resInit = 1;
    std::string serial;
    delete q.getFrameSN(serial);
    c.report.fact("array identity", serial);

    int rc = EXIT_OK;
    for (const std::string& dev : c.opt.devices) {
        snapdevice sd;
        sd.srcName = dev;
        sd.srcDev.merllun = q.getSrcLun(dev);
        sd.srcDev.merlid = serial;
        if (sd.srcDev.merllun < 0) {
            c.report.item("source", dev + ": not a LUN of the array");
            rc = EXIT_NOT_SUPPORTED;
            continue;
        }
        c.report.item("source", dev + ": LUN " + std::to_string(sd.srcDev.merllun));
        std::vector<cloneInfo> clones;
        delete q.getCloneGroupInfo(sd.srcDev.merllun, clones);
        if (clones.empty()) c.report.item("candidate", dev + ": no clone group");
        bool syncing = false, usable = false;
        for (const cloneInfo& ci : clones) {
            int reserved = 0;
            delete q.getCloneRsvd(ci.cloneGrpId, ci.cloneId, reserved);
            std::string v = verdict(ci, reserved);
            syncing = syncing || v.compare(0, 13, "synchronising") == 0;
            usable = usable || v == "in sync" || v.compare(0, 4, "free") == 0;
            c.report.item("candidate", dev + ": clone " + ci.cloneId + " LUN " +
                                           std::to_string(ci.cloneLun) + " in " + ci.cloneGrpName +
                                           ": " + ci.cloneState + ", " + ci.cloneCondition +
                                           ", fractured " + ci.cloneIsFractured + "; " + v);
        }
        for (ResElement* e : pool.m_ResourceList)
            if (pool.matchDevice(&sd, e->source) == 1)
                for (SnapResource* t : e->targetList)
                    c.report.item("pool entry", dev + ": LUN " + t->res.dev +
                                                    (t->tag.name.empty() ? std::string()
                                                                         : " when " + t->tag.name +
                                                                               " " + t->tag.value));
        if (syncing && !usable) {
            // The module's search would wait here a minute at a time.
            c.report.item("choice", dev +
                                        ": none yet; the snapshot would wait for the clone that "
                                        "is synchronising");
            continue;
        }
        SSError* err =
            pool.allocateResource(&sd, c.opt.mount_host.empty() ? "localhost" : c.opt.mount_host);
        if (err != nullptr) {
            c.report.item("choice", dev + ": none: " + err->getErrMsg());
            rc = EXIT_NOT_SUPPORTED;
            delete err;
        } else {
            c.report.item("choice", dev + ": clone " + sd.cloneDev.cloneid + " LUN " +
                                        std::to_string(sd.cloneDev.merllun) +
                                        (sd.cloneDev.syncReq ? " (synchronised first)" : ""));
        }
    }
    attrlist_free(attrs);
    c.report.finish("pool", rc, rc == EXIT_OK ? "" : "not every source has a clone to take");
    return rc;
}
