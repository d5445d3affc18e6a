// The bottom of the command layer: CMD, the tool locator with its cache of
// hits; Pipe, one anonymous pipe whose read end is a stream; the line reader;
// and the start of one command line as a child. Nothing here is thread-safe:
// each object lives inside one zov_quillset (or one command) that a single
// thread uses at a time.
#pragma once

#include <stdio.h>

#include <string>
#include <vector>

#include "storage/ssm/client/SSError.h"
#include "storage/ssm/client/SSTypes.h"
#include "storage/ssm/merlode/merl_err.h"

// One cached location of a tool.
struct fcmd {
    std::string cmd;       // the bare tool name
    std::string fullpath;  // where it was found
};

// Finds a tool's executable in a list of directories. Only hits are cached:
// a tool that is missing is searched for again on each call.
class CMD {
public:
    // The directories of PATH, then the default search path.
    CMD();
    // `extrapaths` first, then PATH, then the default search path.
    explicit CMD(const char* extrapaths);

    // Appends every piece of `dirs` cut at blanks and colons; null or empty
    // text adds nothing.
    void AddDirectories(const char* dirs);
    // AddDirectories of the environment's PATH; an unset PATH adds nothing.
    void AddSystemPath();
    // The full path of the first executable `cmd` in search order, or "".
    std::string findCmdPath(std::string cmd);

    const std::vector<std::string>& paths() const { return m_paths; }

private:
    std::vector<std::string> m_paths;  // search order; duplicates kept
    std::vector<fcmd> m_foundCmds;     // hits, in the order found
};

// Default directories searched behind the caller's own PATH.
extern const char* const CMD_DEFAULT_SEARCH_PATH;

// One pipe for a child's mixed standard output and error. The constructor
// leaves the descriptors alone so that destroying a Pipe that never reached
// init is harmless. Not copied, not shared between threads.
class Pipe {
public:
    Pipe(SSLOG_FUNC_POINTER fpLog, void* logCtx);
    ~Pipe();
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    // Creates the pipe and the read stream; null on success.
    SSError* init();
    // The read descriptor closes the stream; any other value closes the
    // write end.
    void pclose(int fd);

    int getread_fd() const { return m_pipefds[0]; }
    int getwrite_fd() const { return m_pipefds[1]; }
    FILE* getread_strm() const { return m_ffd; }

private:
    MerlError m_e;
    int m_pipefds[2];
    FILE* m_ffd;
    int m_readIsOpen;
    int m_writeIsOpen;
};

// One line of a child's output into `buf`, line feed kept; a line longer
// than 1023 bytes arrives in pieces. 1 when `buf` holds a line, 0 at the end
// (an interrupted read is retried ten times, a second apart).
int read_child_line(std::string& buf, FILE* stream);

// Starts one child for `text`, a whole command line cut at blanks with no
// quoting. `pathEnv` is the "PATH=" entry children get; it is worked out on
// the first call (the caller's PATH and the directories a tool needs) and
// kept by the caller for the next. With `pp` the output goes there and the
// caller reads it after closing its write end; without, it is read into the
// log here. The child's pid goes to `pidp`; the caller reaps it.
SSError* spawn_command_line(MerlError& log, std::string& pathEnv, Pipe* pp, int* pidp,
                            const char* text);
