// merlsnap's commands: each opens the module, makes the service objects a
// loader would, and walks them through one part of a snapshot's life.
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <time.h>
#include <unistd.h>

#include <errno.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <map>

#include "tools/merlsnap/handle_file.h"
#include "tools/merlsnap/merlsnap.h"
#include "tools/merlsnap/progress.h"

namespace {

struct CommandInfo {
    const char* name;
    const char* help;
};

const CommandInfo k_commands[] = {
    {"info",
     "usage: merlsnap info [--frame ADDR]...\n"
     "Loads the module as a backup product does and shows its interface version,\n"
     "the services it offers and its snapshot technologies.\n"},
    {"supported",
     "usage: merlsnap supported --frame ADDR... [--tech TECH] DEVICE...\n"
     "Asks, for each device, whether it lies on the array and can be snapped by\n"
     "the technology. Exit code 5 when any device cannot.\n"},
    {"snapshot",
     "usage: merlsnap snapshot --frame ADDR... --mount-host HOST --handle FILE\n"
     "                         [--tech TECH] [--attr NAME=VALUE]... [--wwn] DEVICE...\n"
     "Takes a snapshot of the devices on the production host: enrols them,\n"
     "prepares (a mirror waits for its synchronisation, showing progress), splits\n"
     "the snapshot off, and writes its handle to FILE for the mount host. With\n"
     "--wwn the sources are LUN WWNs (32 hexadecimal digits, no colons), as a\n"
     "distributed application's; KVT-SNAP wants those in a consistency group.\n"
     "A device whose name holds a \"-\" is refused before any work: the mount\n"
     "host reads a source's name only up to its first \"-\".\n"},
    {"validate",
     "usage: merlsnap validate --handle FILE\n"
     "Checks on the mount host that the snapshot named by the handle is still\n"
     "whole on the array.\n"},
    {"mount",
     "usage: merlsnap mount --handle FILE [--run COMMAND] [DEVICE...]\n"
     "Makes the snapshot of the sources (all of them by default) readable on\n"
     "this host, shows the device each one can be read from, and keeps it so\n"
     "until COMMAND ends (it gets the devices in $MERLSNAP_DEVICES) or, without\n"
     "--run, until standard input ends (Enter on a terminal); then releases it.\n"},
    {"path",
     "usage: merlsnap path --handle FILE [DEVICE...]\n"
     "Shows on which device of this host each source's snapshot can be read:\n"
     "mounts, shows the devices and releases them again.\n"},
    {"unmount",
     "usage: merlsnap unmount --handle FILE [DEVICE...]\n"
     "Checks that the snapshot can be mounted on this host and released again.\n"
     "A snapshot is always released by the command that mounted it; one left\n"
     "mounted by an interrupted merlsnap is removed with `delete`.\n"},
    {"delete",
     "usage: merlsnap delete --handle FILE\n"
     "Deletes the snapshot on the array. The handle file is kept.\n"},
    {"rollback",
     "usage: merlsnap rollback --handle FILE [DEVICE...]\n"
     "Restores the sources (all of them by default) from the snapshot. The\n"
     "sources' file systems must not be in use.\n"},
    {"status",
     "usage: merlsnap status --handle FILE\n"
     "Shows the snapshot's state, its technology and its sources.\n"},
    {"pool",
     "usage: merlsnap pool --frame ADDR... [--attr MERL_SNAP_POOL=FILE]\n"
     "                     [--attr MERL_RES_USE_POLICY=ANY|FREE|EXISTING] DEVICE...\n"
     "Shows, for each source, the clones of its clone group with their state and\n"
     "reservation, the snap pool file's entries for it, and the clone a mirror\n"
     "snapshot would take. Changes nothing. Exit code 5 when a source has none.\n"},
    {"demo",
     "usage: merlsnap demo [--tech TECH] [--keep] [--json]\n"
     "Makes a fresh simulated array in a temporary folder and takes a snapshot\n"
     "through its whole life: on the production host (check, enrol, prepare,\n"
     "snapshot, handle) and then on the mount host from the handle (validate,\n"
     "mount, read path, unmount, delete), then a rollback. --keep leaves the\n"
     "simulated array's folder in place.\n"},
};

const char* state_name(SCSnapshotState s) {
    switch (s) {
    case SSHOT_STATE_UNINIT: return "not initialised";
    case SSHOT_STATE_INIT: return "initialised";
    case SSHOT_STATE_PREPARE_IN_PROGRESS: return "preparing";
    case SSHOT_STATE_PREPARED: return "prepared";
    case SSHOT_STATE_SNAP_IN_PROGRESS: return "snapping";
    case SSHOT_STATE_VALID: return "valid";
    case SSHOT_STATE_READY: return "mounted";
    case SSHOT_STATE_ERROR: return "finished";
    }
    return "unknown";
}

std::string local_host_name() {
    char buf[HOST_NAME_MAX + 1] = {0};
    if (gethostname(buf, sizeof(buf) - 1) != 0) return "localhost";
    return buf;
}

// Fails the command with the module's last error.
int module_failure(Context& c) {
    c.report.finish(c.opt.command, EXIT_MODULE_ERROR, c.module.error());
    return EXIT_MODULE_ERROR;
}

bool open_module(Context& c) {
    attrlist* attrs = build_attrs(c.opt);
    bool ok = c.module.open(c.opt.module, attrs);
    attrlist_free(attrs);
    return ok;
}

// Keeps a mounted snapshot until --run's command ends or, without one, until
// standard input reaches its end (Enter on a terminal). False when the
// command failed or could not start.
bool hold_mounted(Context& c, const std::string& devices) {
    if (!c.opt.run.empty()) {
        c.report.step("Running: " + c.opt.run);
        fflush(stdout);
        setenv("MERLSNAP_DEVICES", devices.c_str(), 1);
        char sh[] = "/bin/sh", dash_c[] = "-c";
        std::string cmdline = c.opt.run;
        char* argv[] = {sh, dash_c, &cmdline[0], nullptr};
        pid_t pid = -1;
        int status = 0;
        if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, argv, environ) != 0) {
            c.report.fact("run-status", "could not start");
            return false;
        }
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {}
        if (WIFSIGNALED(status)) {
            c.report.fact("run-status",
                          std::string("killed by signal ") + std::to_string(WTERMSIG(status)));
            return false;
        }
        c.report.fact("run-status", std::to_string(WEXITSTATUS(status)));
        return WEXITSTATUS(status) == 0;
    }
    if (isatty(0)) {
        printf("  The snapshot stays mounted; press Enter to release it.\n");
        fflush(stdout);
    }
    int ch;
    while ((ch = getchar()) != EOF && ch != '\n') {}
    return true;
}

// A service object made from a handle file, initialised as on a mount host.
struct MountHostObject {
    ISnapshot* svc = nullptr;
    HandleFile handle;
};

// Validates too, but for a status (which reports validity itself) and a COW
// rollback (which runs from any state); a mirror rolls back only from a
// validated snapshot.
int load_from_handle(Context& c, MountHostObject& m, const std::string& cmd) {
    std::string why;
    if (c.opt.handle_file.empty()) {
        c.report.finish(c.opt.command, EXIT_USAGE, "--handle FILE is required");
        return EXIT_USAGE;
    }
    if (!read_handle_file(c.opt.handle_file, m.handle, why)) {
        c.report.finish(c.opt.command, EXIT_HANDLE_FILE, why);
        return EXIT_HANDLE_FILE;
    }
    if (!open_module(c)) return EXIT_NO_MODULE;
    m.svc = c.module.service(m.handle.tech);
    if (m.svc == nullptr) return module_failure(c);
    SCSnapshotHandle h;
    h.m_pguid = reinterpret_cast<unsigned char*>(strdup(m.handle.guid.c_str()));
    h.m_guidLen = m.handle.guid.size();
    h.m_pdetails = reinterpret_cast<unsigned char*>(strdup(m.handle.details.c_str()));
    h.m_detailLen = m.handle.details.size();
    SCInitStruct is;
    is.snapshotHandle = &h;
    attrlist* attrs = build_attrs(c.opt);
    is.attributes = attrs;
    bool failed = c.module.failed(m.svc->init(&is), "init");
    attrlist_free(attrs);
    if (failed) return module_failure(c);
    c.report.step("Read the " + m.handle.tech + " snapshot's handle from " + c.opt.handle_file);
    const bool mirror = strcasecmp(m.handle.tech.c_str(), "MIRROR") == 0;
    if (cmd != "status" && (cmd != "rollback" || mirror)) {
        if (c.module.failed(m.svc->validate(nullptr), "validate")) return module_failure(c);
        c.report.step("The snapshot is whole on the array");
    }
    return EXIT_OK;
}

// The source names a handle's details carry, as the module reads them.
std::vector<std::string> handle_sources(const std::string& details) {
    std::vector<std::string> out;
    size_t pos = details.find(';');                                     // after the tag
    pos = pos == std::string::npos ? pos : details.find(';', pos + 1);  // after the frames
    while (pos != std::string::npos) {
        size_t next = details.find(';', pos + 1);
        std::string rec =
            details.substr(pos + 1, next == std::string::npos ? std::string::npos : next - pos - 1);
        size_t bar = rec.find('|');
        if (bar != std::string::npos) {
            std::string src = rec.substr(bar + 1);
            out.push_back(src.substr(0, src.find('-')));
        }
        pos = next;
    }
    return out;
}

std::vector<std::string> sources_or_all(Context& c, ISnapshot* s) {
    if (!c.opt.devices.empty()) return c.opt.devices;
    SSSourceList* list = nullptr;
    if (c.module.failed(s->getSourceList(list), "getSourceList")) return {};
    std::vector<std::string> names = source_names(list);
    delete list;
    return names;
}

void finish_object(Context& c, ISnapshot* s) {
    if (s == nullptr) return;
    s->end();
    c.module.free_object(s);
}

int cmd_info(Context& c) {
    if (!open_module(c)) {
        c.report.finish("info", EXIT_NO_MODULE, c.module.error());
        return EXIT_NO_MODULE;
    }
    SSAPIVersion v = c.module.api_version();
    c.report.fact("module", c.opt.module);
    c.report.fact("interface",
                  std::to_string(v.m_majorVersion) + "." + std::to_string(v.m_minorVersion));
    SSServiceType* types = nullptr;
    int n = 0;
    if (c.module.failed(c.module.subsystem()->querySupportedServices(types, n),
                        "querySupportedServices"))
        return module_failure(c);
    for (int i = 0; i < n; i++)
        c.report.item("service", types[i] == SS_SERV_SNAPSHOT ? "snapshot" : "other");
    char** subs = nullptr;
    if (c.module.failed(c.module.directory()->querySupportedServiceSubType(subs, n),
                        "querySupportedServiceSubType"))
        return module_failure(c);
    for (int i = 0; i < n; i++) {
        SSAPIVersion tv{0, 0};
        SSStorageStackLevel lvl = SS_LEVEL_DISK;
        if (c.module.failed(c.module.directory()->getAPIVersion(subs[i], tv), "getAPIVersion") ||
            c.module.failed(c.module.directory()->getStorageStackLevel(subs[i], lvl),
                            "getStorageStackLevel"))
            return module_failure(c);
        c.report.item("technology", std::string(subs[i]) + " (API " +
                                        std::to_string(tv.m_majorVersion) + "." +
                                        std::to_string(tv.m_minorVersion) + ", " +
                                        (lvl == SS_LEVEL_DISK ? "disks" : "volumes") + ")");
    }
    c.report.finish("info", EXIT_OK, "");
    return EXIT_OK;
}

int cmd_supported(Context& c) {
    if (c.opt.devices.empty()) {
        c.report.finish("supported", EXIT_USAGE, "name at least one device");
        return EXIT_USAGE;
    }
    if (!open_module(c)) {
        c.report.finish("supported", EXIT_NO_MODULE, c.module.error());
        return EXIT_NO_MODULE;
    }
    int rc = EXIT_OK;
    for (const std::string& d : c.opt.devices) {
        int yes = 0;
        std::string dev = d;
        if (c.module.failed(
                c.module.directory()->isServiceSupported(&dev[0], c.opt.tech.c_str(), nullptr, yes),
                "isServiceSupported")) {
            c.report.item("unsupported", d + " (" + c.module.error() + ")");
            rc = EXIT_NOT_SUPPORTED;
        } else if (yes > 0) {
            c.report.item("supported", d);
        } else {
            c.report.item("unsupported", d);
            rc = EXIT_NOT_SUPPORTED;
        }
    }
    c.report.finish("supported", rc,
                    rc == EXIT_OK ? "" : "not every device can be snapped by " + c.opt.tech);
    return rc;
}

int cmd_snapshot(Context& c) {
    if (c.opt.devices.empty() || c.opt.handle_file.empty()) {
        c.report.finish("snapshot", EXIT_USAGE,
                        "snapshot needs --handle FILE and at least one device");
        return EXIT_USAGE;
    }
    for (const std::string& d : c.opt.devices) {
        if (c.opt.wwn || d.find('-') == std::string::npos) continue;
        // The handle keeps the name whole, but the mount host reads it only
        // up to its first "-": such a snapshot could be taken, never mounted.
        c.report.finish("snapshot", EXIT_USAGE,
                        d + " holds a \"-\" in its name: a snapshot of it could not be "
                            "mounted, because the mount host reads a source's name only up to "
                            "its first \"-\". Name the device by a path without one (such as "
                            "/dev/sdX, or a link of your own). Nothing was done.");
        return EXIT_USAGE;
    }
    if (!open_module(c)) {
        c.report.finish("snapshot", EXIT_NO_MODULE, c.module.error());
        return EXIT_NO_MODULE;
    }
    ISnapshot* s = c.module.service(c.opt.tech);
    if (s == nullptr) return module_failure(c);
    int rc = EXIT_OK;
    SCInitStruct is;
    attrlist* attrs = build_attrs(c.opt);
    is.attributes = attrs;
    SSSourceList* srcs = make_source_list(c.opt.devices);
    SSTaskId task = 0;
    SCSnapshotHandle* h = nullptr;
    do {
        if (c.module.failed(s->init(&is), "init")) {
            rc = EXIT_MODULE_ERROR;
            break;
        }
        c.report.step("Connected to the array and checked the host's array tools");
        if (c.opt.wwn ? c.module.failed(s->addComponentWWN(c.opt.devices), "addComponentWWN")
                      : c.module.failed(s->addComponent(srcs), "addComponent")) {
            rc = EXIT_MODULE_ERROR;
            break;
        }
        c.report.step("Enrolled " + std::to_string(c.opt.devices.size()) + " source device(s)");
        if (c.module.failed(s->prepareForSnapshot(nullptr, nullptr, task), "prepareForSnapshot")) {
            rc = EXIT_MODULE_ERROR;
            break;
        }
        if (s->getSnapshotState() == SSHOT_STATE_PREPARE_IN_PROGRESS &&
            wait_for_task(c, s, "synchronisation", c.opt.devices.size(), true,
                          "stopped while the clones synchronise: they stay reserved; a snapshot "
                          "of the same devices that is then deleted releases them") != WAIT_DONE) {
            rc = EXIT_MODULE_ERROR;
            break;
        }
        c.report.step("Prepared the snapshot");
        if (c.module.failed(s->snapshot(nullptr, task), "snapshot")) {
            rc = EXIT_MODULE_ERROR;
            break;
        }
        c.report.step("Took the snapshot");
        if (c.module.failed(s->getSnapshotHandle(h), "getSnapshotHandle")) {
            rc = EXIT_MODULE_ERROR;
            break;
        }
        HandleFile hf{c.opt.tech, reinterpret_cast<char*>(h->m_pguid),
                      reinterpret_cast<char*>(h->m_pdetails)};
        std::string why;
        if (!write_handle_file(c.opt.handle_file, hf, why)) {
            c.report.finish("snapshot", EXIT_HANDLE_FILE, why);
            rc = -EXIT_HANDLE_FILE;
            break;
        }
        c.report.step("Kept the snapshot's handle in " + c.opt.handle_file);
        c.report.fact("handle", c.opt.handle_file);
        c.report.fact("identity", hf.guid);
        if (interrupted()) {
            // Ctrl-C came while the clones synchronised: the snapshot was
            // finished only so that deleting it frees every clone again.
            if (c.module.failed(s->deleteSnapshot(), "deleteSnapshot")) {
                rc = EXIT_MODULE_ERROR;
                break;
            }
            c.report.step("Interrupted: the snapshot was deleted again, no clone stays reserved");
            c.report.finish("snapshot", EXIT_INTERRUPTED, "interrupted");
            rc = -EXIT_INTERRUPTED;
        }
    } while (false);
    c.module.free_object(h);
    delete srcs;
    attrlist_free(attrs);
    finish_object(c, s);
    if (rc < 0) return -rc;
    if (rc != EXIT_OK) return module_failure(c);
    c.report.finish("snapshot", EXIT_OK, "");
    return EXIT_OK;
}

// validate, mount, path, unmount, delete, status: the mount host's life.
int cmd_mount_host(Context& c) {
    const std::string& cmd = c.opt.command;
    MountHostObject m;
    int rc = load_from_handle(c, m, cmd);
    if (rc != EXIT_OK) {
        finish_object(c, m.svc);
        if (rc == EXIT_NO_MODULE) c.report.finish(cmd, rc, c.module.error());
        return rc;
    }
    ISnapshot* s = m.svc;
    bool failed = false;
    bool run_ok = true;
    if (cmd == "mount" || cmd == "path" || cmd == "unmount") {
        // An object can only release what it mounted itself, so the mount,
        // the reading and the release happen within this one command.
        std::vector<std::string> names = sources_or_all(c, s);
        SSSourceList* list = make_source_list(names);
        failed = c.module.failed(s->mount(list), "mount");
        if (!failed) {
            SSSourceList* paths = nullptr;
            // The module consumes the list it is given on one failure path.
            SSSourceList* ask = make_source_list(names);
            failed = c.module.failed(s->getSnapshotAccessPath(ask, paths), "getSnapshotAccessPath");
            if (!failed) delete ask;
            std::vector<std::string> dsts = source_names(paths);
            delete paths;
            std::string devices;
            for (size_t i = 0; i < names.size() && i < dsts.size(); i++) {
                c.report.item("access", names[i] + " -> " + dsts[i]);
                devices += (devices.empty() ? "" : " ") + dsts[i];
            }
            if (!failed) {
                c.report.step("The snapshot is readable on this host");
                if (cmd == "mount") run_ok = hold_mounted(c, devices);
            }
        }
        if (!failed) {
            failed = c.module.failed(s->unmount(list), "unmount");
            if (!failed) c.report.step("Released the snapshot's devices on this host");
        }
        delete list;
    } else if (cmd == "delete") {
        failed = c.module.failed(s->deleteSnapshot(), "deleteSnapshot");
        if (!failed) c.report.step("Deleted the snapshot on the array");
    } else if (cmd == "rollback") {
        // A rollback starts from the handle without validating, so the
        // sources come from the command line or, failing that, the handle.
        std::vector<std::string> names = c.opt.devices;
        if (names.empty()) names = handle_sources(m.handle.details);
        SSSourceList* list = make_source_list(names);
        SSTaskId task = 0;
        failed = c.module.failed(s->rollBack(list, nullptr, task), "rollBack");
        const bool whole = handle_sources(m.handle.details).size() <= names.size();
        if (!failed && strcasecmp(m.handle.tech.c_str(), "MIRROR") == 0 && !whole) {
            // The module calls a restore done only when every clone of the
            // snapshot is back in sync, which a partial restore never makes so.
            c.report.step(
                "The restore runs on the array; with only some of the snapshot's "
                "sources it is not awaited: `merlsnap status --handle " +
                c.opt.handle_file + "` shows the array's work");
        } else if (!failed && strcasecmp(m.handle.tech.c_str(), "MIRROR") == 0) {
            WaitResult w = wait_for_task(c, s, "restore", names.size(), false, "");
            if (w == WAIT_INTERRUPTED) {
                c.report.step(
                    "Interrupted: the restore goes on on the array; `merlsnap status "
                    "--handle " +
                    c.opt.handle_file + "` tells when it has ended");
                delete list;
                finish_object(c, s);
                c.report.finish(cmd, EXIT_INTERRUPTED, "interrupted");
                return EXIT_INTERRUPTED;
            }
            failed = w != WAIT_DONE;
        }
        if (!failed) c.report.step("Restored the sources from the snapshot");
        delete list;
    } else if (cmd == "status") {
        bool valid = !c.module.failed(s->validate(nullptr), "validate");
        c.report.fact("technology", m.handle.tech);
        c.report.fact("state", state_name(s->getSnapshotState()));
        c.report.fact("valid", valid ? "yes" : "no: " + c.module.error());
        if (strcasecmp(m.handle.tech.c_str(), "MIRROR") == 0) {
            // A restore's progress is read from the clones themselves, so any
            // object made from the handle can tell it.
            SSTaskStatus ts = SS_TASK_ERROR;
            SSError* taskErr = nullptr;
            if (!c.module.failed(s->getTaskStatus(3, ts, taskErr), "getTaskStatus") &&
                !c.module.failed(taskErr, "restore"))
                c.report.fact("array work", ts == SS_TASK_IN_PROGRESS
                                                ? "a restore or synchronisation is running"
                                                : "none running");
        }
        for (const std::string& n : handle_sources(m.handle.details)) c.report.item("source", n);
    }
    finish_object(c, s);
    if (failed) return module_failure(c);
    if (!run_ok) {
        // Released all the same: the failure is the command's, passed on.
        c.report.finish(cmd, EXIT_RUN_FAILED, "the command run while mounted failed: " + c.opt.run);
        return EXIT_RUN_FAILED;
    }
    c.report.finish(cmd, EXIT_OK, "");
    return EXIT_OK;
}

}  // namespace

attrlist* build_attrs(const Options& o) {
    attrlist* al = nullptr;
    for (const std::string& f : o.frames) attrs_add(&al, "FRAME_IP", f);
    attrs_add(&al, "VMR_DATA_MOVER", o.mount_host.empty() ? local_host_name() : o.mount_host);
    for (const auto& a : o.attrs) attrs_add(&al, a.first, a.second);
    return al;
}

void wire_context(Context& c) {
    c.report.attach_held_log(&c.sink.held);
    c.sink.notice = [&c](const std::string& text) {
        if (c.opt.json) {
            c.report.item("wait", text);
        } else {
            printf("  %s\n", text.c_str());
            fflush(stdout);
        }
    };
}

const char* command_help(const std::string& command) {
    for (const CommandInfo& ci : k_commands)
        if (command == ci.name) return ci.help;
    return nullptr;
}

int run_command(Context& c) {
    const std::string& cmd = c.opt.command;
    if (cmd == "info") return cmd_info(c);
    if (cmd == "supported") return cmd_supported(c);
    if (cmd == "snapshot") return cmd_snapshot(c);
    if (cmd == "pool") return cmd_pool(c);
    return cmd_mount_host(c);
}
