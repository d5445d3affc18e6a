// The capture's counting, shared by every test that reads a log.
#include "tests/support/log_capture.h"

namespace zovtest {

void LogCapture::add(int level, const char* text) {
    std::lock_guard<std::mutex> g(m_mu);
    lines.push_back({level, text != nullptr ? text : ""});
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> g(m_mu);
    lines.clear();
}

int LogCapture::count(const std::string& needle, int level) const {
    std::lock_guard<std::mutex> g(m_mu);
    int n = 0;
    for (const LoggedLine& l : lines)
        if ((level == kAnyLevel || l.level == level) && l.text.find(needle) != std::string::npos)
            n++;
    return n;
}

}  // namespace zovtest
