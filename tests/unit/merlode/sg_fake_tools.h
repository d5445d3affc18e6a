// Fake array and host tools for operation tests of zov_quillset: small
// shell scripts in a private folder that record each command line and print
// what the test gave them. Not thread-safe; one per test.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace sgtest {

class FakeTools {
public:
    FakeTools() {
        char tmpl[] = "/tmp/zov_sg_fake.XXXXXX";
        const char* d = mkdtemp(tmpl);
        EXPECT_NE(d, nullptr);
        dir_ = d ? d : "/tmp";
    }
    ~FakeTools() {
        std::string cmd = "rm -rf '" + dir_ + "'";
        if (system(cmd.c_str()) != 0) {
        }
    }
    const std::string& dir() const { return dir_; }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }

    // A tool `name` whose shell `body` runs after its command line is logged
    // as "name arg1 arg2 ..."; $D is the folder.
    std::string tool(const std::string& name, const std::string& body) {
        std::string p = path(name);
        std::ofstream out(p);
        out << "#!/bin/sh\nD='" << dir_ << "'\necho \"" << name << " $*\" >> \"$D/commands.log\"\n"
            << body << "\n";
        out.close();
        chmod(p.c_str(), 0755);
        return p;
    }
    void write(const std::string& name, const std::string& text) {
        std::ofstream out(path(name));
        out << text;
    }
    std::string read(const std::string& name) const {
        std::ifstream in(path(name));
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    std::vector<std::string> commands() const {
        std::vector<std::string> v;
        std::istringstream in(read("commands.log"));
        for (std::string l; std::getline(in, l);) v.push_back(l);
        return v;
    }

private:
    std::string dir_;
};

}  // namespace sgtest
