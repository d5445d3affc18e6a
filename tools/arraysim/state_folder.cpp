// The state's folder: its files, the lock that makes each invocation one
// transaction, atomic writes and the command log.
#include "tools/arraysim/state.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tools/arraysim/state_text.h"

namespace arraysim {

using text::Out;
using text::write_all;

std::string state_dir_from_env() {
    const char* v = getenv(kStateEnv);
    return v && *v ? std::string(v) : std::string();
}

std::string state_file(const std::string& dir) {
    return dir + "/state";
}
std::string dev_dir(const std::string& dir) {
    return dir + "/dev";
}

FolderLock::FolderLock(const std::string& dir) {
    std::string path = dir + "/lock";
    fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ < 0) return;
    struct flock fl;
    memset(&fl, 0, sizeof fl);
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    while (fcntl(fd_, F_SETLKW, &fl) < 0) {
        if (errno != EINTR) {
            close(fd_);
            fd_ = -1;
            return;
        }
    }
}

FolderLock::~FolderLock() {
    // Closing the descriptor releases the fcntl lock.
    if (fd_ >= 0) close(fd_);
}

bool read_file(const std::string& path, std::string& out) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat sb;
    out.clear();
    // Read straight into the string: the state is a megabyte with thousands of LUNs.
    size_t cap =
        fstat(fd, &sb) == 0 && sb.st_size > 0 ? static_cast<size_t>(sb.st_size) + 1 : 65536;
    size_t have = 0;
    for (;;) {
        if (have == out.size()) out.resize(std::max(cap, out.size() * 2));
        ssize_t n = read(fd, &out[have], out.size() - have);
        if (n < 0) {
            if (errno == EINTR) continue;
            int e = errno;
            close(fd);
            out.clear();
            errno = e;
            return false;
        }
        if (n == 0) break;
        have += static_cast<size_t>(n);
    }
    out.resize(have);
    close(fd);
    return true;
}

namespace text {
bool write_all(int fd, const char* p, size_t n) {
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}
}  // namespace text

bool write_file_atomic(const std::string& path, const std::string& data) {
    std::string tmp = path + ".tmp";
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    bool ok = write_all(fd, data.data(), data.size());
    if (close(fd) != 0) ok = false;
    if (!ok || rename(tmp.c_str(), path.c_str()) != 0) {
        unlink(tmp.c_str());
        return false;
    }
    return true;
}

bool load_state(const std::string& dir, State& st, std::string& err) {
    std::string data;
    if (!read_file(state_file(dir), data)) {
        err = "cannot read " + state_file(dir) + ": " + strerror(errno) +
              " (make one with \"arraysim init\")";
        return false;
    }
    return parse_state(data.data(), data.size(), st, err);
}

bool load_state_lazy(const std::string& dir, State& st, std::string& err) {
    // The file is mapped rather than read: a megabyte read into fresh memory
    // costs a page fault per page, a populated mapping of the cached file does
    // not. Writers replace the file by renaming, so the mapping stays whole.
    std::string path = state_file(dir);
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat sb;
    if (fd < 0 || fstat(fd, &sb) != 0) {
        err = "cannot read " + path + ": " + strerror(errno) + " (make one with \"arraysim init\")";
        if (fd >= 0) close(fd);
        return false;
    }
    st = State();
    size_t len = static_cast<size_t>(sb.st_size);
    void* m = len ? mmap(nullptr, len, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0) : MAP_FAILED;
    close(fd);
    if (m == MAP_FAILED) {
        auto data = std::make_shared<std::string>();
        if (!read_file(path, *data)) {
            err = "cannot read " + path + ": " + strerror(errno) +
                  " (make one with \"arraysim init\")";
            return false;
        }
        st.luns.hold_text(data);
        return text::parse_text(data->data(), data->size(), st, err, true);
    }
    st.luns.hold_text(std::shared_ptr<const void>(
        m, [len](const void* p) { munmap(const_cast<void*>(p), len); }));
    return text::parse_text(static_cast<const char*>(m), len, st, err, true);
}

bool save_state(const std::string& dir, const State& st, std::string& err) {
    std::string path = state_file(dir);
    std::string tmp = path + ".tmp";
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    bool ok = fd >= 0;
    if (ok) {
        Out o;
        o.fd = fd;
        o.s.reserve(65536 + 4096);
        text::format_into(st, o);
        o.flush();
        ok = o.ok;
        if (close(fd) != 0) ok = false;
        if (ok && rename(tmp.c_str(), path.c_str()) != 0) ok = false;
        int e = errno;
        if (!ok) unlink(tmp.c_str());
        errno = e;
    }
    if (!ok) {
        err = "cannot write " + path + ": " + strerror(errno);
        return false;
    }
    return true;
}

void append_log(const std::string& dir, const std::string& line) {
    std::string path = dir + "/commands.log";
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return;
    std::string l = line;
    for (auto& c : l)
        if (c == '\n') c = ' ';
    l += '\n';
    write_all(fd, l.data(), l.size());
    close(fd);
}

}  // namespace arraysim
