// Where merlsnap finds the module and the array simulator when it is not
// told: an installed tree first, the build folder for the build's own merlsnap.
#include "tools/merlsnap/locate.h"

#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

namespace {

std::string self_exe() {
    char buf[PATH_MAX + 1];
    ssize_t n = readlink("/proc/self/exe", buf, PATH_MAX);
    if (n <= 0) return "";
    buf[n] = '\0';
    return buf;
}

bool same_file(const std::string& a, const std::string& b) {
    struct stat sa, sb;
    if (a.empty() || b.empty() || stat(a.c_str(), &sa) != 0 || stat(b.c_str(), &sb) != 0)
        return false;
    return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

// `rel` taken from `dir` ("/usr/bin" and "../lib/zovmerl" give
// "/usr/lib/zovmerl"), so that messages name the file plainly.
std::string join_path(const std::string& dir, const std::string& rel) {
    std::vector<std::string> parts;
    auto add = [&parts](const std::string& path) {
        std::string::size_type i = 0;
        while (i <= path.size()) {
            std::string::size_type j = path.find('/', i);
            if (j == std::string::npos) j = path.size();
            std::string p = path.substr(i, j - i);
            if (p == "..") {
                if (!parts.empty()) parts.pop_back();
            } else if (!p.empty() && p != ".") {
                parts.push_back(p);
            }
            i = j + 1;
        }
    };
    add(dir);
    add(rel);
    std::string out;
    for (const std::string& p : parts) out += "/" + p;
    return out.empty() ? "/" : out;
}

// `leaf` in the plug-in folder of the tree merlsnap is installed in.
std::string installed(const std::string& exe, const char* leaf) {
    std::string::size_type slash = exe.rfind('/');
    std::string dir = slash == std::string::npos || slash == 0 ? "/" : exe.substr(0, slash);
    return join_path(join_path(dir, MERLSNAP_PLUGIN_REL), leaf);
}

// The installed copy when it is there. Only the build folder's own merlsnap
// falls back to the build's copy: an installed or unpacked one that lacks a
// file names the file it lacks, instead of quietly running the build folder's
// copy, which would hide a file missing from a package on the machine that
// built it.
std::string pick(const char* leaf, const char* built) {
    const std::string exe = self_exe();
    const std::string mine = installed(exe, leaf);
    if (access(mine.c_str(), F_OK) == 0) return mine;
    if (*built != '\0' && same_file(exe, MERLSNAP_BUILD_EXE)) return built;
    return mine;
}

}  // namespace

std::string default_module_path() {
    return pick("libzovmerl.so", MERLSNAP_DEFAULT_MODULE);
}

std::string arraysim_folder() {
    return pick("arraysim", MERLSNAP_ARRAYSIM_DIR);
}

void allow_preload_before_sanitizer() {
#if defined(__SANITIZE_ADDRESS__)
    const char* now = getenv("ASAN_OPTIONS");
    std::string opts = now != nullptr ? now : "";
    if (opts.find("verify_asan_link_order") != std::string::npos) return;
    opts += std::string(opts.empty() ? "" : ":") + "verify_asan_link_order=0";
    setenv("ASAN_OPTIONS", opts.c_str(), 1);
#endif
}
