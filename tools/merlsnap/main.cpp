// merlsnap: a small loader for people and scripts. It opens the snapshot
// module the way the backup product does and runs one operation.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tools/merlsnap/locate.h"
#include "tools/merlsnap/merlsnap.h"

namespace {

const char* k_usage =
    "usage: merlsnap [options] COMMAND [DEVICE...]\n"
    "\n"
    "Drives the Merlode snapshot module the way a backup product does.\n"
    "\n"
    "commands:\n"
    "  info        show the module's interface version and technologies\n"
    "  supported   ask whether devices can be snapped by a technology\n"
    "  snapshot    take a snapshot of devices and keep its handle in a file\n"
    "  validate    check, on the mount host, that a snapshot is still whole\n"
    "  mount       make a snapshot readable on the mount host; shows its devices\n"
    "  path        show on which mount-host device each source can be read\n"
    "  unmount     release a mounted snapshot\n"
    "  delete      delete a snapshot on the array\n"
    "  rollback    restore sources from a snapshot\n"
    "  status      show a snapshot's state and sources\n"
    "  pool        show the clones a mirror snapshot of devices could take\n"
    "  demo        all of this against a freshly made simulated array\n"
    "\n"
    "options:\n"
    "  --frame ADDR        an array frame address (repeatable)\n"
    "  --mount-host NAME   the host that mounts snapshots (VMR_DATA_MOVER)\n"
    "  --attr NAME=VALUE   a further attribute for the module (repeatable)\n"
    "  --tech TECH         COW (default), MIRROR or KVT-SNAP\n"
    "  --handle FILE       the file a snapshot's handle is written to / read from\n"
    "  --module PATH       the module to load (default: $MERLSNAP_MODULE, else the\n"
    "                      one installed with merlsnap, in " MERLSNAP_PLUGIN_REL
    " from its folder)\n"
    "  --log-level N       show the module's log lines up to level N as they come\n"
    "                      (default: none while it works; those up to level 3 when\n"
    "                      the command fails)\n"
    "  --log-file PATH     write the module's log lines there instead of stderr\n"
    "  --poll SECONDS      wait between progress queries of long array work (default 1)\n"
    "  --run COMMAND       mount: what to run while the snapshot is mounted\n"
    "  --wwn               snapshot: the devices are LUN WWNs (no colons)\n"
    "  --json              print the result as one JSON object\n"
    "  --help              this text; `merlsnap COMMAND --help` for one command\n"
    "  --version           merlsnap's version (that of the module it comes with)\n"
    "\n"
    "exit codes: 0 success, 1 the module reported an error, 2 bad usage,\n"
    "            3 the module could not be loaded, 4 a handle file could not be\n"
    "            read or written or is damaged, 5 a device cannot be snapped\n"
    "            (supported), 6 mount's --run COMMAND failed, 130 interrupted\n";

bool parse(int argc, char** argv, Options& o, std::string& why) {
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= argc) {
                why = a + " needs a value";
                return false;
            }
            out = argv[++i];
            return true;
        };
        std::string v;
        if (a == "--help" || a == "-h") {
            o.help = true;
        } else if (a == "--version") {
            o.version = true;
        } else if (a == "--json") {
            o.json = true;
        } else if (a == "--wwn") {
            o.wwn = true;
        } else if (a == "--keep") {
            o.keep = true;
        } else if (a == "--module") {
            if (!value(o.module)) return false;
        } else if (a == "--frame") {
            if (!value(v)) return false;
            o.frames.push_back(v);
        } else if (a == "--mount-host") {
            if (!value(o.mount_host)) return false;
        } else if (a == "--tech") {
            if (!value(o.tech)) return false;
            o.tech_given = true;
        } else if (a == "--handle") {
            if (!value(o.handle_file)) return false;
        } else if (a == "--run") {
            if (!value(o.run)) return false;
        } else if (a == "--demo-stage") {
            if (!value(o.demo_stage)) return false;
        } else if (a == "--log-file") {
            if (!value(o.log_file)) return false;
        } else if (a == "--attr") {
            if (!value(v)) return false;
            std::string::size_type eq = v.find('=');
            if (eq == std::string::npos || eq == 0) {
                why = "--attr takes NAME=VALUE";
                return false;
            }
            o.attrs.emplace_back(v.substr(0, eq), v.substr(eq + 1));
        } else if (a == "--log-level" || a == "--poll") {
            if (!value(v)) return false;
            char* end = nullptr;
            double d = strtod(v.c_str(), &end);
            if (end == v.c_str() || *end != '\0' || d < 0) {
                why = a + " takes a number";
                return false;
            }
            if (a == "--poll")
                o.poll_interval = d;
            else {
                o.log_level = static_cast<int>(d);
                o.log_level_given = true;
            }
        } else if (a.size() > 1 && a[0] == '-') {
            why = "unknown option " + a;
            return false;
        } else if (o.command.empty()) {
            o.command = a;
        } else {
            o.devices.push_back(a);
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    // Steps and the module's log lines (standard error) stay in order.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Context c;
    std::string why;
    if (!parse(argc, argv, c.opt, why)) {
        fprintf(stderr, "merlsnap: %s\n\n%s", why.c_str(), k_usage);
        return EXIT_USAGE;
    }
    if (c.opt.version) {
        printf("merlsnap %s\n", MERLSNAP_VERSION);
        return EXIT_OK;
    }
    if (c.opt.command.empty() || c.opt.command == "help") {
        fputs(k_usage, c.opt.command.empty() && !c.opt.help ? stderr : stdout);
        return c.opt.command.empty() && !c.opt.help ? EXIT_USAGE : EXIT_OK;
    }
    const char* help = command_help(c.opt.command);
    if (help == nullptr) {
        fprintf(stderr, "merlsnap: unknown command '%s'\n\n%s", c.opt.command.c_str(), k_usage);
        return EXIT_USAGE;
    }
    if (c.opt.help) {
        fputs(help, stdout);
        return EXIT_OK;
    }
    if (c.opt.module.empty()) {
        const char* env = getenv("MERLSNAP_MODULE");
        c.opt.module = env != nullptr ? env : default_module_path();
    }
    c.sink.level = c.opt.log_level;
    // Unasked, the module's lines (a walk over the frames logs every address
    // that does not hold a LUN as an error) wait until the command fails.
    c.sink.hold = !c.opt.log_level_given && c.opt.log_file.empty();
    if (!c.opt.log_file.empty()) {
        c.sink.file = fopen(c.opt.log_file.c_str(), "a");
        if (c.sink.file == nullptr) {
            fprintf(stderr, "merlsnap: cannot open log file %s: %s\n", c.opt.log_file.c_str(),
                    strerror(errno));
            return EXIT_USAGE;
        }
    }
    c.report = Report(c.opt.json);
    wire_context(c);
    int rc = c.opt.command == "demo" ? cmd_demo(c) : run_command(c);
    if (c.sink.file != nullptr) fclose(c.sink.file);
    return rc;
}
