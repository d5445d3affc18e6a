// A scratch folder that lives as long as its object, removed with whatever
// the test left in it (read-only folders included). Not thread-safe.
#pragma once

#include <string>

namespace zovtest {

class TempDir {
public:
    // A new folder "<base>/<prefix>XXXXXX"; base defaults to TMPDIR or /tmp.
    // ok() says whether it was made.
    explicit TempDir(const std::string& prefix = "zovtest", const std::string& base = "");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    bool ok() const { return !m_path.empty(); }
    const std::string& path() const { return m_path; }
    // "<path>/<name>"; nothing is made.
    std::string file(const std::string& name) const { return m_path + "/" + name; }
    // Writes `text` to <path>/<name> and returns that path.
    std::string write(const std::string& name, const std::string& text) const;

private:
    std::string m_path;
};

// Removes a file or a whole tree; true when nothing is left.
bool remove_tree(const std::string& path);

}  // namespace zovtest
