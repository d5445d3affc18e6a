// An environment variable set (or removed) for the life of one object.
// Not thread-safe: the environment is the process's.
#pragma once

#include <string>

namespace zovtest {

class ScopedEnv {
public:
    // With a null value the variable is removed.
    ScopedEnv(const char* name, const char* value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    void apply(const char* value);
    std::string m_name;
    std::string m_old;
    bool m_had = false;
};

}  // namespace zovtest
