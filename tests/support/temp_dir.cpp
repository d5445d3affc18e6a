// Scratch folders without a shell: the removal walks the tree itself.
#include "tests/support/temp_dir.h"

#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <vector>

namespace zovtest {

TempDir::TempDir(const std::string& prefix, const std::string& base) {
    std::string root = base;
    if (root.empty()) {
        const char* t = getenv("TMPDIR");
        root = t != nullptr && *t != '\0' ? t : "/tmp";
    }
    std::string tmpl = root + "/" + prefix + "XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) != nullptr) m_path = buf.data();
}

TempDir::~TempDir() {
    if (!m_path.empty()) remove_tree(m_path);
}

std::string TempDir::write(const std::string& name, const std::string& text) const {
    std::string p = file(name);
    std::ofstream(p, std::ios::binary | std::ios::trunc) << text;
    return p;
}

namespace {

// A test may leave a folder it made unreadable to check a refusal.
int open_up(const char* p, const struct stat* st, int type, struct FTW*) {
    if (type == FTW_D || type == FTW_DNR) chmod(p, (st->st_mode & 07777) | S_IRWXU);
    return 0;
}

int drop(const char* p, const struct stat*, int type, struct FTW*) {
    bool dir = type == FTW_DP || type == FTW_D || type == FTW_DNR;
    return (dir ? rmdir(p) : unlink(p)) == 0 ? 0 : -1;
}

}  // namespace

bool remove_tree(const std::string& path) {
    chmod(path.c_str(), S_IRWXU);
    nftw(path.c_str(), open_up, 16, FTW_PHYS);
    return nftw(path.c_str(), drop, 16, FTW_DEPTH | FTW_PHYS) == 0;
}

}  // namespace zovtest
