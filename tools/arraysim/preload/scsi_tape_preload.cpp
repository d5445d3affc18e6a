// The preload layer's tape drives and changers: descriptors opened on a
// device the tape state knows are answered from that state, each ioctl one
// transaction under the tape lock, with a line per command in tape.log.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>

#include "tools/arraysim/preload/scsi_tape_preload.h"
#include "tools/arraysim/preload/tape_sim.h"

namespace arraysim {
namespace tape {

namespace {

std::mutex g_tape_mtx;
std::map<int, std::string>* g_tape_fds = nullptr;  // never freed: used until exit

std::string state_dir() {
    const char* d = getenv("ARRAYSIM_STATE");
    return d ? d : "";
}

void log_command(const std::string& dir, const std::string& dev, const Seen& s, int rc) {
    FILE* f = fopen((dir + "/tape.log").c_str(), "ae");
    if (!f) return;
    fprintf(f, "%s req=0x%lx", dev.c_str(), s.request);
    if (!s.cdb.empty()) {
        fputs(" cdb=", f);
        for (unsigned char b : s.cdb) fprintf(f, "%02x", b);
        fprintf(f, " dir=%d len=%u timeout=%u", s.direction, s.dxfer_len, s.timeout_ms);
    }
    if (s.mt_op >= 0) fprintf(f, " mt_op=%d count=%d", s.mt_op, s.mt_count);
    fprintf(f, " rc=%d\n", rc);
    fclose(f);
}

}  // namespace

bool preload_adopt(int fd, const std::string& name) {
    const std::string dir = state_dir();
    if (dir.empty()) return false;
    // A folder without tapes is left exactly as it is: no lock file made.
    if (access((dir + "/" + kTapeStateFile).c_str(), F_OK) != 0) return false;
    TapeState st;
    std::string err;
    {
        TapeLock lock(dir);
        if (!load(dir, st, err) || !known_device(st, name)) return false;
    }
    std::lock_guard<std::mutex> l(g_tape_mtx);
    if (!g_tape_fds) g_tape_fds = new std::map<int, std::string>;
    (*g_tape_fds)[fd] = name;
    return true;
}

bool preload_owns(int fd, std::string& name) {
    std::lock_guard<std::mutex> l(g_tape_mtx);
    if (!g_tape_fds) return false;
    auto it = g_tape_fds->find(fd);
    if (it == g_tape_fds->end()) return false;
    name = it->second;
    return true;
}

void preload_forget(int fd) {
    std::lock_guard<std::mutex> l(g_tape_mtx);
    if (g_tape_fds) g_tape_fds->erase(fd);
}

int preload_ioctl(const std::string& name, unsigned long req, void* arg) {
    const std::string dir = state_dir();
    TapeLock lock(dir);
    TapeState st;
    std::string err;
    if (!load(dir, st, err)) {
        errno = EIO;
        return -1;
    }
    Seen seen;
    int rc = device_ioctl(st, name, req, arg, &seen);
    const int saved = errno;
    save(dir, st, err);
    log_command(dir, name, seen, rc);
    errno = saved;
    return rc;
}

}  // namespace tape
}  // namespace arraysim
