// The file merlsnap keeps a snapshot handle in: the technology and the
// handle's two texts, one per line, then their length and MD5 digest, so a
// file cut short or altered is refused. Not thread-safe (plain file I/O).
#pragma once

#include <string>

struct HandleFile {
    std::string tech;     // "COW", "MIRROR" or "KVT-SNAP"
    std::string guid;     // the handle's identity text
    std::string details;  // the handle's details text
};

// Both return false with `why` set on failure.
bool write_handle_file(const std::string& path, const HandleFile& h, std::string& why);
bool read_handle_file(const std::string& path, HandleFile& h, std::string& why);
