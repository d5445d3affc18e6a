// The search for a device's SCSI generic node: a tape through sysfs
// (class/scsi_tape/NAME/device -> bus/scsi/devices/H:C:T:L/generic/dev),
// anything else through the identities listed in /proc/scsi/scsi.
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "drivers/cdi/cdi_priv.h"
#include "drivers/uscsi/uscsi.h"
#include "liblocal/kv_mem.h"

namespace {

const int kMaxLinkHops = 8;     // a loop of links must end
const size_t kProcMax = 65536;  // /proc/scsi/scsi is read once, up to this

std::string last_component(const std::string& p) {
    size_t s = p.find_last_of('/');
    return s == std::string::npos ? p : p.substr(s + 1);
}

bool read_link(const std::string& path, std::string& target) {
    char buf[PATH_MAX];
    ssize_t n = readlink(path.c_str(), buf, sizeof buf - 1);
    if (n < 0) return false;
    buf[n] = '\0';
    target = buf;
    return true;
}

bool is_symlink(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

// Reads at most max bytes of a small file; false if it can't be opened.
bool read_small_file(const char* path, size_t max, std::string& out) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    out.clear();
    char buf[4096];
    while (out.size() < max) {
        size_t want = max - out.size() < sizeof buf ? max - out.size() : sizeof buf;
        ssize_t n = read(fd, buf, want);
        if (n <= 0) break;
        out.append(buf, n);
    }
    close(fd);
    return true;
}

SNLP new_node(int num) {
    SNLP n = static_cast<SNLP>(xcalloc(1, sizeof(SNL)));
    n->sgnum = num;
    return n;
}

}  // namespace

void get_path_sysfs(char* out, size_t outlen) {
    const char* env = getenv("SYSFS_PATH");
    snprintf(out, outlen, "%s", env && env[0] == '/' ? env : "/sys");
}

int sg_node_name(char* out, size_t outlen, int num) {
    const char* prefix = uscsi_hooks().dev_sg_prefix ? uscsi_hooks().dev_sg_prefix : "/dev/sg";
    int n = snprintf(out, outlen, "%s%d", prefix, num);
    return n >= 0 && static_cast<size_t>(n) < outlen ? 0 : -1;
}

void cdi_sg_list_free(SNLP list) {
    while (list) {
        SNLP next = list->next;
        free(list);
        list = next;
    }
}

SNLP get_sysfs_sg_device(const char* device_file) {
    if (!device_file || !device_file[0]) return nullptr;
    char sysfs[4096];
    get_path_sysfs(sysfs, sizeof sysfs);

    std::string dev = device_file;
    std::string dir;
    for (int hop = 0;; hop++) {
        dir = std::string(sysfs) + "/class/scsi_tape/" + last_component(dev);
        DIR* d = opendir(dir.c_str());
        if (d) {
            closedir(d);
            break;
        }
        std::string target;
        if (hop >= kMaxLinkHops || !is_symlink(dev) || !read_link(dev, target)) {
            cdi_dprintf(3, "Unable to locate sysfs sg device for %s\n", device_file);
            return nullptr;
        }
        if (target[0] != '/') {
            size_t s = dev.find_last_of('/');
            target = (s == std::string::npos ? std::string() : dev.substr(0, s + 1)) + target;
        }
        dev = target;
    }

    std::string link;
    if (!read_link(dir + "/device", link)) {
        cdi_dprintf(3, "Unable to read \"device\" link for %s.\n", dir.c_str());
        return nullptr;
    }
    size_t s = link.find_last_of('/');
    if (s == std::string::npos) {
        cdi_dprintf(3, "Separator not found. Device path %s.\n", link.c_str());
        return nullptr;
    }
    std::string scsi_id = link.substr(s + 1);
    std::string devfile = std::string(sysfs) + "/bus/scsi/devices/" + scsi_id + "/generic/dev";
    std::string text;
    if (!read_small_file(devfile.c_str(), 64, text)) {
        cdi_dprintf(3, "Unable to open generic devices file. File path %s.\n", devfile.c_str());
        return nullptr;
    }
    if (text.empty()) {
        cdi_dprintf(3, "Cannot read device major:minor numbers for %s\n.", devfile.c_str());
        return nullptr;
    }
    unsigned major = 0, minor = 0;
    if (sscanf(text.c_str(), "%u:%u", &major, &minor) != 2 || minor > INT_MAX) {
        cdi_dprintf(3, "Unable to parse major:minor number for: %s; from buffer: %s\n",
                    devfile.c_str(), text.c_str());
        return nullptr;
    }
    SNLP node = new_node(static_cast<int>(minor));
    struct stat st;
    if (sg_node_name(node->sgname, sizeof node->sgname, node->sgnum) != 0 ||
        stat(node->sgname, &st) != 0) {
        cdi_dprintf(3, "Unable to stat() file %s. No /dev/sg will be returned.\n", node->sgname);
        free(node);
        return nullptr;
    }
    return node;
}

namespace {

const char* type_text(int type) {
    switch (type) {
    case 0: return "Direct-Access";
    case 1: return "Sequential-Access";
    case 8: return "Medium Changer";
    case 12: return "RAID";
    default: return "to_be_filled_in";  // no entry carries it
    }
}

// The kernel prints identification fields at a fixed width, each
// unprintable byte as a blank; the identity is brought to the same form.
std::string printable_field(const char* p, size_t n) {
    std::string s(p, n);
    for (char& c : s)
        if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7e) c = ' ';
    return s;
}

// The n characters behind "key " in entry, blank-padded at a line end.
bool field_after(const std::string& entry, const char* key, size_t n, std::string& out) {
    size_t k = entry.find(key);
    if (k == std::string::npos) return false;
    size_t p = k + strlen(key);
    if (p < entry.size() && entry[p] == ' ') p++;
    out.clear();
    while (out.size() < n && p < entry.size() && entry[p] != '\n') out += entry[p++];
    out.resize(n, ' ');
    return true;
}

bool type_matches(const std::string& entry, int type) {
    size_t k = entry.find("Type:");
    if (k == std::string::npos) return false;
    size_t p = k + 5;
    while (p < entry.size() && entry[p] == ' ') p++;
    const char* want = type_text(type);
    size_t n = strlen(want);
    if (entry.compare(p, n, want) != 0) return false;
    return p + n >= entry.size() || entry[p + n] == ' ' || entry[p + n] == '\n' ||
           entry[p + n] == '\t';
}

bool entry_matches(const std::string& entry, const INQ* ip) {
    std::string v;
    if (!field_after(entry, "Vendor:", 8, v) || v != printable_field(ip->vendor, 8)) return false;
    if (!field_after(entry, "Model:", 16, v) || v != printable_field(ip->product, 16)) return false;
    if (!field_after(entry, "Rev:", 4, v) || v != printable_field(ip->rev, 4)) return false;
    return type_matches(entry, ip->iPerDevType);
}

}  // namespace

SNLP find_matching_scsi_devs_in(const char* text, const INQ* ip) {
    if (!text || !ip) return nullptr;
    // Cut the text into entries, each from a line that starts with "Host:".
    std::string all = text;
    std::vector<std::string> entries;
    size_t pos = 0;
    while (pos < all.size()) {
        size_t eol = all.find('\n', pos);
        size_t end = eol == std::string::npos ? all.size() : eol + 1;
        size_t first = all.find_first_not_of(" \t", pos);
        if (first != std::string::npos && first < end && all.compare(first, 5, "Host:") == 0)
            entries.emplace_back();
        if (!entries.empty()) entries.back().append(all, pos, end - pos);
        pos = end;
    }
    SNLP head = nullptr;
    SNLP* tail = &head;
    for (size_t i = 0; i < entries.size(); i++) {
        if (!entry_matches(entries[i], ip)) continue;
        // The entry's ordinal stands for the generic node's number; the
        // identity check on the node keeps a wrong guess harmless.
        SNLP n = new_node(static_cast<int>(i));
        if (sg_node_name(n->sgname, sizeof n->sgname, n->sgnum) != 0) {
            free(n);
            continue;
        }
        *tail = n;
        tail = &n->next;
    }
    return head;
}

SNLP find_matching_scsi_devs(const INQ* ip) {
    const char* path =
        uscsi_hooks().proc_scsi_path ? uscsi_hooks().proc_scsi_path : "/proc/scsi/scsi";
    std::string text;
    if (!read_small_file(path, kProcMax, text)) return nullptr;
    return find_matching_scsi_devs_in(text.c_str(), ip);
}
