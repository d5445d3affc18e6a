// The process-wide map of prepared fracture commands, under its own lock.
#include "storage/ssm/merlode/clone_frac.h"

CloneFractureMap cloneToFrac;

bool CloneFractureMap::insert(const std::string& details,
                              const std::vector<std::string>& commands) {
    std::lock_guard<std::mutex> lk(m_mtx);
    return m_map.insert(std::make_pair(details, commands)).second;
}

bool CloneFractureMap::find(const std::string& details, std::vector<std::string>& commands) const {
    std::lock_guard<std::mutex> lk(m_mtx);
    auto it = m_map.find(details);
    if (it == m_map.end()) return false;
    commands = it->second;
    return true;
}

void CloneFractureMap::erase(const std::string& details) {
    std::lock_guard<std::mutex> lk(m_mtx);
    m_map.erase(details);
}

size_t CloneFractureMap::size() const {
    std::lock_guard<std::mutex> lk(m_mtx);
    return m_map.size();
}
