// merlsnap demo: a snapshot's two lives against a freshly made simulated
// array. The first stage makes the array and starts merlsnap again with the
// simulator's tools first on PATH and its device layer preloaded (a preload
// only takes effect at process start); the second stage tells the story.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tools/merlsnap/locate.h"
#include "tools/merlsnap/merlsnap.h"

namespace {

// The simulator's folder: beside an installed merlsnap, or the build's.
const std::string kSimFolder = arraysim_folder();
const char* const kSimDir = kSimFolder.c_str();

int run_and_wait(const std::vector<std::string>& args, bool quiet) {
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    if (quiet) posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0) return 127;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {}
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

void remove_tree(const std::string& dir) {
    run_and_wait({"/bin/rm", "-rf", dir}, true);
}

std::string self_path() {
    char buf[PATH_MAX + 1];
    ssize_t n = readlink("/proc/self/exe", buf, PATH_MAX);
    if (n <= 0) return "";
    buf[n] = '\0';
    return buf;
}

void heading(const Context& c, const char* text) {
    if (!c.opt.json) printf("\n== %s\n", text);
}

// One operation of the story, with the demo's settings.
int stage(Context& c, const std::string& command, const std::vector<std::string>& devices) {
    Context sub;
    sub.opt = c.opt;
    sub.opt.command = command;
    sub.opt.devices = devices;
    sub.sink = c.sink;
    sub.sink.held.clear();
    sub.report = Report(c.opt.json);
    wire_context(sub);
    return run_command(sub);
}

// A COW snapshot's two lives.
int cow_life(Context& c, const std::string& dev) {
    c.opt.tech = "COW";
    heading(c, "COW, on the production host: can these disks be snapped?");
    if (!c.opt.json)
        printf(
            "  sdd and sdg are array disks set up for COW sessions; sdn is an array disk\n"
            "  without that set-up, so the module must say no to it.\n");
    stage(c, "supported", {dev + "sdd", dev + "sdg", dev + "sdn"});

    heading(c, "COW, on the production host: take the snapshot");
    if (!c.opt.json)
        printf(
            "  The module enrols both disks, names one copy-on-write session per disk,\n"
            "  starts the sessions on the array and hands back a handle.\n");
    int rc = stage(c, "snapshot", {dev + "sdd", dev + "sdg"});
    if (rc != EXIT_OK) return rc;

    heading(c, "COW, on the mount host: find the snapshot again from its handle");
    if ((rc = stage(c, "status", {})) != EXIT_OK) return rc;

    heading(c, "COW, on the mount host: read the snapshot");
    if (!c.opt.json)
        printf(
            "  Each session is activated and appears as a device of this host; a backup\n"
            "  would read those devices now. Then they are released.\n");
    if ((rc = stage(c, "path", {})) != EXIT_OK) return rc;

    heading(c, "COW: roll the first disk back to the snapshot");
    if ((rc = stage(c, "rollback", {dev + "sdd"})) != EXIT_OK) return rc;

    heading(c, "COW: delete the snapshot");
    return stage(c, "delete", {});
}

// A mirror snapshot's two lives, with a clone that must synchronise first.
int mirror_life(Context& c, const std::string& dir, const std::string& dev) {
    c.opt.tech = "MIRROR";
    // The first clone of sdd was split off by an earlier backup: it must be
    // synchronised again before it can serve.
    run_and_wait(
        {std::string(kSimDir) + "/arraysim", "--state", dir, "set", "clone", "CloneGrp_0",
         "0100000000000000", "state=Consistent", "cond=Administratively Fractured", "fractured=1"},
        true);
    heading(c, "MIRROR, on the production host: which clones would serve?");
    if (!c.opt.json)
        printf(
            "  Each disk has a clone group on the array. The first clone of sdd is\n"
            "  split off and must be synchronised again before it can serve.\n");
    stage(c, "pool", {dev + "sdd", dev + "sdg"});

    heading(c, "MIRROR, on the production host: take the snapshot");
    if (!c.opt.json)
        printf(
            "  The module reserves one clone per disk, waits for the synchronisation,\n"
            "  then splits both clones off in one consistent fracture.\n");
    int rc = stage(c, "snapshot", {dev + "sdd", dev + "sdg"});
    if (rc != EXIT_OK) return rc;

    heading(c, "MIRROR, on the mount host: validate and read the clones");
    if ((rc = stage(c, "path", {})) != EXIT_OK) return rc;

    heading(c, "MIRROR: restore both disks from their clones");
    if (!c.opt.json)
        printf(
            "  Each clone is copied back onto its disk by the array; merlsnap polls\n"
            "  until every clone is back in sync.\n");
    if ((rc = stage(c, "rollback", {})) != EXIT_OK) return rc;

    heading(c, "MIRROR: delete the snapshot");
    if (!c.opt.json)
        printf(
            "  The restore spent the snapshot; a fresh one is taken and deleted, which\n"
            "  releases its clones and starts their synchronisation again.\n");
    if ((rc = stage(c, "snapshot", {dev + "sdg"})) != EXIT_OK) return rc;
    return stage(c, "delete", {});
}

// The WWN of simulated LUN `lun`, without colons, as the array lists it.
std::string lun_wwn(const std::string& dir, int lun) {
    // The state folder reaches the tool through the environment, as it does
    // the module's children.
    (void)dir;
    std::string cmd = "'" + std::string(kSimDir) + "/arraysim' tilloseccli -h 198.18.0.1 " +
                      "lun -list -l " + std::to_string(lun) + " -uid";
    std::string wwn;
    if (FILE* p = popen(cmd.c_str(), "r")) {
        char line[512];
        while (fgets(line, sizeof(line), p) != nullptr)
            if (strncmp(line, "UID:", 4) == 0)
                for (const char* q = line + 4; *q != '\0' && *q != '\n'; q++)
                    if (*q != ':' && *q != ' ') wwn += *q;
        pclose(p);
    }
    return wwn;
}

// Advanced snapshots: two disks on their own, then a consistency group of
// two LUNs given by WWN, as a distributed application's.
int kvt_life(Context& c, const std::string& dir, const std::string& dev) {
    c.opt.tech = "KVT-SNAP";
    heading(c, "KVT-SNAP, on the production host: advanced snapshots of two disks");
    if (!c.opt.json)
        printf(
            "  Each disk has a snapshot mount point on the array; the module makes one\n"
            "  advanced snapshot per disk and the handle names them.\n");
    int rc = stage(c, "snapshot", {dev + "sdd", dev + "sdg"});
    if (rc != EXIT_OK) return rc;
    heading(c, "KVT-SNAP, on the mount host: read the snapshots at their mount points");
    if ((rc = stage(c, "path", {})) != EXIT_OK) return rc;
    heading(c, "KVT-SNAP: roll both disks back, then delete the snapshots");
    if ((rc = stage(c, "rollback", {})) != EXIT_OK) return rc;
    if ((rc = stage(c, "delete", {})) != EXIT_OK) return rc;

    heading(c, "KVT-SNAP: a consistency group of two LUNs, given by WWN");
    if (!c.opt.json)
        printf(
            "  LUNs 2 and 3 form a consistency group: one snapshot covers both, taken\n"
            "  in one command, and both sources of the handle name it.\n");
    c.opt.wwn = true;
    rc = stage(c, "snapshot", {lun_wwn(dir, 2), lun_wwn(dir, 3)});
    c.opt.wwn = false;
    if (rc != EXIT_OK) return rc;
    if ((rc = stage(c, "status", {})) != EXIT_OK) return rc;
    return stage(c, "delete", {});
}

int second_stage(Context& c) {
    const std::string dir = c.opt.demo_stage;
    const std::string dev = dir + "/dev/";
    c.opt.frames = {"198.18.0.1:198.18.0.2"};
    c.opt.handle_file = dir + "/snapshot.handle";
    c.opt.poll_interval = 0;  // the simulated array advances on each query

    const std::string only = c.opt.tech_given ? c.opt.tech : "";
    int rc = EXIT_OK;
    if (only.empty() || strcasecmp(only.c_str(), "COW") == 0) rc = cow_life(c, dev);
    if (rc == EXIT_OK && (only.empty() || strcasecmp(only.c_str(), "MIRROR") == 0))
        rc = mirror_life(c, dir, dev);
    if (rc == EXIT_OK && (only.empty() || strcasecmp(only.c_str(), "KVT-SNAP") == 0))
        rc = kvt_life(c, dir, dev);
    if (rc != EXIT_OK) return rc;
    if (!c.opt.json) {
        int commands = 0;
        if (FILE* f = fopen((dir + "/commands.log").c_str(), "r")) {
            for (int ch; (ch = fgetc(f)) != EOF;) commands += ch == '\n';
            fclose(f);
        }
        printf(
            "\nThe array answered %d commands of its tools for all of this; the\n"
            "snapshots are gone. The demo ran %s.\n",
            commands, c.opt.keep ? ("in " + dir + ", which is kept").c_str() : "and cleaned up");
    }
    return EXIT_OK;
}

}  // namespace

int cmd_demo(Context& c) {
    if (!c.opt.demo_stage.empty()) return second_stage(c);

    // No dash in the folder's name: a handle read on the mount host cuts a
    // source's name at its first dash.
    char tmpl[] = "/tmp/merlsnapdemoXXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        c.report.finish("demo", EXIT_USAGE,
                        std::string("cannot make a folder: ") + strerror(errno));
        return EXIT_USAGE;
    }
    const std::string dir = tmpl;
    setenv("ARRAYSIM_STATE", dir.c_str(), 1);
    if (!c.opt.json)
        printf(
            "Making a simulated array in %s: 2 frames, 4 disks each, a production\n"
            "host (this one) and a mount host.\n",
            dir.c_str());
    fflush(stdout);
    int rc = run_and_wait(
        {std::string(kSimDir) + "/arraysim", "init", "--frames", "2", "--luns", "4"}, true);
    if (rc != 0) {
        c.report.finish(
            "demo", EXIT_USAGE,
            std::string("the array simulator ") + kSimDir + "/arraysim could not make an array");
        remove_tree(dir);
        return EXIT_USAGE;
    }
    std::string path =
        dir + "/bin:" + (getenv("PATH") != nullptr ? getenv("PATH") : "/usr/bin:/bin");
    setenv("PATH", path.c_str(), 1);
    std::string preload = std::string(kSimDir) + "/libarraysim_scsi.so";
    setenv("LD_PRELOAD", preload.c_str(), 1);

    allow_preload_before_sanitizer();
    std::vector<std::string> args = {self_path(), "demo",     "--demo-stage",
                                     dir,         "--module", c.opt.module};
    if (c.opt.log_level_given)
        args.insert(args.end(), {"--log-level", std::to_string(c.opt.log_level)});
    if (c.opt.json) args.push_back("--json");
    if (c.opt.tech_given) args.insert(args.end(), {"--tech", c.opt.tech});
    if (!c.opt.log_file.empty()) args.insert(args.end(), {"--log-file", c.opt.log_file});
    rc = run_and_wait(args, false);
    if (!c.opt.keep) remove_tree(dir);
    return rc;
}
