// "arraysim tape ...": makes and changes the fake tape drives, changers and
// media of a state folder, one transaction under the tape lock each.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "tools/arraysim/preload/tape_sim.h"

namespace arraysim {
namespace tape {

namespace {

const char* kTapeHelp =
    "Usage: arraysim tape <command>   (state folder: $ARRAYSIM_STATE or --state DIR)\n"
    "  init [--drives N] [--slots N]     drives nst0.. (the first loaded), changer sch0\n"
    "  show                              print the tape state\n"
    "  set drive NAME KEY=VALUE...       volume threaded pos wp... (see docs/cditool.md)\n"
    "  set medium TAG KEY=VALUE...       wp density capacity items (R512*3,F,...)\n"
    "  set changer NAME KEY=VALUE...     slots (A|-|C) drives ie ua reserved_other\n"
    "  add drive|medium|changer NAME\n";

void touch(const std::string& path) {
    int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    if (fd >= 0) ::close(fd);
}

std::string tag(int i) {
    char b[16];
    snprintf(b, sizeof b, "TAPE%03d", i);
    return b;
}

// KEY=VALUE words are applied by appending them to the record's line and
// reading it again: the reader takes the last value of a key.
bool apply(TapeState& st, const std::string& kind, const std::string& name,
           const std::vector<std::string>& kv, std::string& err) {
    std::string text = to_text(st), out;
    bool found = false;
    size_t i = 0;
    while (i < text.size()) {
        size_t j = text.find('\n', i);
        std::string line = text.substr(i, j - i);
        i = j == std::string::npos ? text.size() : j + 1;
        std::string head = kind + " ";
        if (line.compare(0, head.size(), head) == 0) {
            size_t sp = line.find(' ', head.size());
            if (line.substr(head.size(), sp - head.size()) == name) {
                found = true;
                for (const auto& w : kv) {
                    if (w.find('=') == std::string::npos) {
                        err = "expected KEY=VALUE, got \"" + w + "\"";
                        return false;
                    }
                    line += " " + w;
                }
            }
        }
        out += line + "\n";
    }
    if (!found) {
        err = "no " + kind + " " + name;
        return false;
    }
    return from_text(out, st, err);
}

}  // namespace

int run_tape_admin(const std::vector<std::string>& args_in, std::string& out, std::string& err) {
    std::vector<std::string> args = args_in;
    std::string dir = getenv("ARRAYSIM_STATE") ? getenv("ARRAYSIM_STATE") : "";
    for (size_t i = 0; i + 1 < args.size(); i++)
        if (args[i] == "--state") {
            dir = args[i + 1];
            args.erase(args.begin() + static_cast<long>(i),
                       args.begin() + static_cast<long>(i) + 2);
            break;
        }
    if (args.empty() || args[0] == "--help" || args[0] == "help") {
        out = kTapeHelp;
        return args.empty() ? 2 : 0;
    }
    if (dir.empty()) {
        err = "arraysim tape: no state folder: set ARRAYSIM_STATE or give --state DIR\n";
        return 2;
    }
    // Device files are made after the lock is let go: under the preload
    // layer their opening asks the tape state, which takes the same lock.
    std::vector<std::string> to_touch;
    std::unique_ptr<TapeLock> lock(new TapeLock(dir));
    TapeState st;
    if (!load(dir, st, err)) {
        err += "\n";
        return 1;
    }
    const std::string& cmd = args[0];
    if (cmd == "show") {
        out = to_text(st);
        return 0;
    }
    if (cmd == "init") {
        int drives = 1, slots = 4;
        for (size_t i = 1; i + 1 < args.size(); i += 2) {
            if (args[i] == "--drives") drives = atoi(args[i + 1].c_str());
            if (args[i] == "--slots") slots = atoi(args[i + 1].c_str());
        }
        if (drives < 0 || drives > 64 || slots < 0 || slots > 4096) {
            err = "arraysim tape init: --drives 0..64, --slots 0..4096\n";
            return 2;
        }
        st = TapeState();
        mkdir((dir + "/dev").c_str(), 0755);
        Changer ch;
        ch.name = "sch0";
        ch.serial = "SIMCHG0001";
        for (int i = 0; i < drives; i++) {
            Drive d;
            d.name = "nst" + std::to_string(i);
            d.serial = "SIMDRV" + std::to_string(1000 + i);
            ch.drives.push_back(d.name);
            st.drives.push_back(d);
            to_touch.push_back(dir + "/dev/" + d.name);
        }
        for (int i = 0; i < drives + slots; i++) st.media[tag(i)] = Medium();
        if (drives > 0) {
            st.drives[0].volume = tag(0);
            st.drives[0].threaded = true;
        }
        for (int i = 0; i < slots; i++) ch.slots.push_back(tag(drives + i));
        st.changers.push_back(ch);
        to_touch.push_back(dir + "/dev/" + ch.name);
    } else if (cmd == "set" && args.size() >= 3) {
        std::vector<std::string> kv(args.begin() + 3, args.end());
        if (kv.empty()) {
            err = "arraysim tape set: nothing to set: give KEY=VALUE\n";
            return 2;
        }
        if (!apply(st, args[1], args[2], kv, err)) {
            err = "arraysim tape set: " + err + "\n";
            return 1;
        }
    } else if (cmd == "add" && args.size() == 3) {
        const std::string& kind = args[1];
        const std::string& name = args[2];
        if (kind == "medium") {
            st.media[name] = Medium();
        } else if (kind == "drive" && !known_device(st, name)) {
            Drive d;
            d.name = name;
            st.drives.push_back(d);
            to_touch.push_back(dir + "/dev/" + name);
        } else if (kind == "changer" && !known_device(st, name)) {
            Changer c;
            c.name = name;
            st.changers.push_back(c);
            to_touch.push_back(dir + "/dev/" + name);
        } else {
            err = "arraysim tape add: cannot add " + kind + " " + name + "\n";
            return 1;
        }
    } else {
        err = std::string("arraysim tape: unknown command\n") + kTapeHelp;
        return 2;
    }
    if (!save(dir, st, err)) {
        err += "\n";
        return 1;
    }
    lock.reset();
    for (const auto& p : to_touch) touch(p);
    return 0;
}

}  // namespace tape
}  // namespace arraysim
