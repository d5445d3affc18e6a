// cloneToFrac: the fracture commands of every prepared mirror snapshot of
// this process, kept under the snapshot's handle details from its prepare
// until its snapshot takes them. Loader threads prepare and snap different
// objects at once, so every access holds the map's own mutex; what the map
// holds, and when, is the same as without one.
#pragma once

#include <stddef.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

class CloneFractureMap {
public:
    // Stores `commands` under `details`; a key that is there keeps its old
    // commands. True when stored.
    bool insert(const std::string& details, const std::vector<std::string>& commands);
    // Copies the commands of `details` into `commands`; false when there are none.
    bool find(const std::string& details, std::vector<std::string>& commands) const;
    void erase(const std::string& details);
    size_t size() const;

private:
    mutable std::mutex m_mtx;
    std::map<std::string, std::vector<std::string>> m_map;
};

// One for the process, destroyed at unload.
extern CloneFractureMap cloneToFrac;
