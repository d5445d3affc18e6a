// Keeps every line a log callback is given, with its level (or message
// number). Adding is thread-safe; read the lines once the writers are done.
#pragma once

#include <limits.h>

#include <mutex>
#include <string>
#include <vector>

namespace zovtest {

struct LoggedLine {
    int level;
    std::string text;
};

class LogCapture {
public:
    // Levels run below zero too, so "any level" is a value no logger uses.
    static constexpr int kAnyLevel = INT_MIN;

    // The module's log callback; pass `this` as its context.
    static void fn(int level, const char*, int, const char* text, void* ctx) {
        static_cast<LogCapture*>(ctx)->add(level, text);
    }
    void add(int level, const char* text);
    void clear();
    // Lines holding `needle`, at `level` unless it is kAnyLevel.
    int count(const std::string& needle, int level = kAnyLevel) const;
    bool has(const std::string& needle, int level = kAnyLevel) const {
        return count(needle, level) > 0;
    }
    bool has_level(int level) const { return count("", level) > 0; }

    std::vector<LoggedLine> lines;

private:
    mutable std::mutex m_mu;
};

}  // namespace zovtest
