// Test aids for the array gateway: a log sink that keeps every line, streams
// over fixture text, scoped environment variables and temporary folders.
// Not thread-safe; each test owns its own instances.
#pragma once

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "liblocal/kv_env.h"

struct LoggedLine {
    int level;
    std::string text;
};

// Collects what the module logs; pass `fn` and `this` as the log pair.
class LogCapture {
public:
    static void fn(int level, const char*, int, const char* text, void* ctx) {
        static_cast<LogCapture*>(ctx)->lines.push_back({level, text != nullptr ? text : ""});
    }
    bool has(const std::string& needle, int level = -1) const {
        for (const auto& l : lines)
            if (l.text.find(needle) != std::string::npos && (level < 0 || l.level == level))
                return true;
        return false;
    }
    int count(const std::string& needle) const {
        int n = 0;
        for (const auto& l : lines)
            if (l.text.find(needle) != std::string::npos) n++;
        return n;
    }
    std::vector<LoggedLine> lines;
};

// A read stream over `text` (which may be empty or hold NUL bytes); the
// caller fcloses it.
inline FILE* stream_of(const std::string& text) {
    int fds[2];
    if (text.size() < 60000 && pipe(fds) == 0) {
        if (!text.empty() && write(fds[1], text.data(), text.size()) != (ssize_t)text.size()) {
            close(fds[0]);
            close(fds[1]);
            return nullptr;
        }
        close(fds[1]);
        return fdopen(fds[0], "r");
    }
    FILE* f = tmpfile();
    if (f == nullptr) return nullptr;
    fwrite(text.data(), 1, text.size(), f);
    rewind(f);
    return f;
}

inline std::string source_dir() {
    const char* s = getenv("ZOV_SOURCE_DIR");
#ifdef ZOV_TEST_SOURCE_DIR
    if (s == nullptr) s = ZOV_TEST_SOURCE_DIR;
#endif
    return s != nullptr ? s : ".";
}

inline std::string build_dir() {
    const char* s = getenv("ZOV_BUILD_DIR");
    return s != nullptr ? s : ".";
}

// The text of tests/fixtures/<rel>.
inline std::string fixture(const std::string& rel) {
    std::ifstream in(source_dir() + "/tests/fixtures/" + rel, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// Sets (or, with null, removes) a variable for the life of the object and
// tells the spawner's saved copy of the environment, which children inherit.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : m_name(name) {
        const char* old = getenv(name);
        m_had = old != nullptr;
        if (m_had) m_old = old;
        apply(value);
    }
    ~ScopedEnv() { apply(m_had ? m_old.c_str() : nullptr); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    void apply(const char* value) {
        if (value != nullptr)
            setenv(m_name.c_str(), value, 1);
        else
            unsetenv(m_name.c_str());
        kv_env_init_from_environ();
    }
    std::string m_name;
    std::string m_old;
    bool m_had = false;
};

// A fresh folder under TMPDIR, removed with its contents at the end.
class TempDir {
public:
    TempDir() {
        const char* t = getenv("TMPDIR");
        std::string tmpl = std::string(t != nullptr ? t : "/tmp") + "/gwtest.XXXXXX";
        std::vector<char> buf(tmpl.begin(), tmpl.end());
        buf.push_back('\0');
        if (mkdtemp(buf.data()) != nullptr) m_path = buf.data();
    }
    ~TempDir() {
        if (!m_path.empty()) {
            std::string cmd = "rm -rf '" + m_path + "'";
            if (system(cmd.c_str()) != 0) {}
        }
    }
    const std::string& path() const { return m_path; }
    // An executable file `name` in the folder (a copy of /bin/true).
    std::string add_exe(const std::string& name) const {
        std::string p = m_path + "/" + name;
        std::ifstream src("/bin/true", std::ios::binary);
        std::ofstream dst(p, std::ios::binary);
        dst << src.rdbuf();
        dst.close();
        chmod(p.c_str(), 0755);
        return p;
    }

private:
    std::string m_path;
};

// Number of descriptors this process has open.
inline int open_fd_count() {
    int n = 0;
    for (int fd = 0; fd < 4096; fd++)
        if (fcntl(fd, F_GETFD) != -1) n++;
    return n;
}
