// The lowest layer of the array gateway: finding a tool (CMD), the pipe that
// carries a child's output (Pipe), the line reader, and the start of one
// command line as a child process, which zov_quillset::esv_spawn wraps.
#include "storage/ssm/merlode/cli/cmd_pipe.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "liblocal/kv_env.h"
#include "liblocal/kv_error.h"
#include "liblocal/kv_file.h"
#include "liblocal/kv_msg.h"
#include "liblocal/kv_print.h"
#include "liblocal/kv_spawn.h"
#include "liblocal/kv_thread.h"
#include "storage/ssm/merlode/merl_globalfuncs.h"

static const char* const kFile = "storage/ssm/merlode/cli/cmd_pipe";

const char* const CMD_DEFAULT_SEARCH_PATH =
    "/etc:/sbin:/opt/Tillo/bin:/opt/ZOVhadrix/bin:/usr/gelmot:/usr/sbin:/usr/bin:/usr/fenlok";

// ---------------------------------------------------------------- CMD

CMD::CMD() {
    AddSystemPath();
    AddDirectories(CMD_DEFAULT_SEARCH_PATH);
}

CMD::CMD(const char* extrapaths) {
    AddDirectories(extrapaths);
    AddSystemPath();
    AddDirectories(CMD_DEFAULT_SEARCH_PATH);
}

void CMD::AddDirectories(const char* dirs) {
    if (dirs == nullptr || *dirs == '\0') return;
    char* copy = strdup(dirs);
    if (copy == nullptr) return;
    char* save = nullptr;
    for (char* piece = strtok_r(copy, " :", &save); piece != nullptr;
         piece = strtok_r(nullptr, " :", &save))
        m_paths.push_back(piece);
    free(copy);
}

void CMD::AddSystemPath() {
    AddDirectories(kv_getenv("PATH"));
}

std::string CMD::findCmdPath(std::string cmd) {
    for (const fcmd& f : m_foundCmds)
        if (f.cmd == cmd) return f.fullpath;
    for (const std::string& dir : m_paths) {
        std::string full = dir + "/" + cmd;
        if (kv_access(full.c_str(), X_OK) == 0) {
            m_foundCmds.push_back(fcmd{cmd, full});
            return full;
        }
    }
    return std::string();
}

// ---------------------------------------------------------------- Pipe

Pipe::Pipe(SSLOG_FUNC_POINTER fpLog, void* logCtx)
    : m_e(fpLog, logCtx), m_ffd(nullptr), m_readIsOpen(0), m_writeIsOpen(0) {
    m_pipefds[0] = -1;
    m_pipefds[1] = -1;
}

Pipe::~Pipe() {
    if (m_readIsOpen) fclose(m_ffd);
    if (m_writeIsOpen) close(m_pipefds[1]);
}

SSError* Pipe::init() {
    // Close-on-exec keeps these ends out of children that other threads of
    // the host start; spawn's dup2 into the child's 1 and 2 clears the flag
    // on the copies the child needs.
    if (pipe2(m_pipefds, O_CLOEXEC) != 0)
        return m_e.generr(kFile, __LINE__, nullptr, SS_EC_INTERNAL_ERROR,
                          "%s: Failed to create pipe for external process I/O, %s",
                          "Pipe::constructor", kv_strerror(errno));
    m_ffd = fdopen(m_pipefds[0], "r");
    m_readIsOpen = 1;
    m_writeIsOpen = 1;
    if (m_ffd == nullptr) {
        // Without a stream the read end could not be closed through it.
        close(m_pipefds[0]);
        m_readIsOpen = 0;
    }
    return nullptr;
}

void Pipe::pclose(int fd) {
    if (fd == m_pipefds[0]) {
        if (m_readIsOpen) fclose(m_ffd);
        m_ffd = nullptr;
        m_readIsOpen = 0;
    } else {
        if (m_writeIsOpen) close(m_pipefds[1]);
        m_writeIsOpen = 0;
    }
}

// ---------------------------------------------------------------- esv_spawn

// Directories a child must find even when the caller's PATH lacks them.
static const char* const kMustHavePaths = "/usr/sbin:/usr/bin:/etc:/sbin:/bin";
// Room for the arguments of one command line.
static const int kMaxArgs = 1024;

static std::vector<std::string> split_colons(const std::string& text) {
    std::vector<std::string> out;
    size_t start = 0;
    while (true) {
        size_t colon = text.find(':', start);
        out.push_back(
            text.substr(start, colon == std::string::npos ? std::string::npos : colon - start));
        if (colon == std::string::npos) break;
        start = colon + 1;
    }
    return out;
}

int read_child_line(std::string& buf, FILE* stream) {
    buf.clear();
    if (stream == nullptr) return 0;
    char line[1024];
    for (int attempt = 0; attempt <= 10; attempt++) {
        // fgets ends what it read with a NUL; clearing the buffer first cost
        // more than reading a short line.
        line[0] = '\0';
        errno = 0;
        if (kv_fgets(line, sizeof(line), stream) != nullptr) {
            buf = line;
            return 1;
        }
        if (feof(stream)) return 0;
        if (errno != EINTR) return 0;
        if (attempt == 10) break;
        clearerr(stream);
        kv_thread_sleep(1000);
    }
    return 0;
}

SSError* spawn_command_line(MerlError& log, std::string& pathEnv, Pipe* pp, int* pidp,
                            const char* text) {
    static const char* const fname = "zov_quillset::esv_spawn";
    std::string fullcmd_str(text);
    std::string argstring(text);
    log.logprintf(9, kFile, __LINE__, "%s, cmd:%s", fname, text);

    Pipe localPipe(log.m_fpLog, log.m_logCtx);
    int dupfdset[3] = {-1, -1, -1};
    if (pp != nullptr) {
        dupfdset[1] = dupfdset[2] = pp->getwrite_fd();
    } else {
        SSError* err = localPipe.init();
        if (err != nullptr) return err;
        dupfdset[1] = dupfdset[2] = localPipe.getwrite_fd();
    }

    if (pathEnv.empty()) {
        const char* native = kv_getenv("PATH");
        if (native == nullptr) {
            pathEnv = std::string("PATH=") + kMustHavePaths;
            log.logprintf(9, kFile, __LINE__, "%s, native path was null, now have [%s]", fname,
                          pathEnv.c_str());
        } else {
            pathEnv = std::string("PATH=") + native;
            std::vector<std::string> have = split_colons(native);
            for (const std::string& must : split_colons(kMustHavePaths)) {
                bool found = false;
                for (const std::string& h : have)
                    if (h == must) found = true;
                if (!found) pathEnv += ":" + must;
            }
            log.logprintf(9, kFile, __LINE__, "%s, modified path [%s]", fname, pathEnv.c_str());
        }
    }
    char* envp[2] = {strdup(pathEnv.c_str()), nullptr};

    // No quoting: the tools' arguments never hold blanks.
    std::vector<std::string> arg(kMaxArgs);
    int count = 0;
    while (!argstring.empty()) {
        arg[count] = merl_space::nextToken(argstring, " ");
        count++;
        if (count > kMaxArgs - 1) break;
    }
    // Equality on purpose: a line of exactly 1023 words is refused, a longer
    // one runs with its first 1024.
    if (count == kMaxArgs - 1) {
        free(envp[0]);
        return log.generr(kFile, __LINE__, nullptr, SS_EC_INTERNAL_ERROR, "%s:: too many arguments",
                          fname);
    }
    std::vector<char*> argv(kMaxArgs + 1, nullptr);
    for (int i = 0; i < count; i++) argv[i] = &arg[i][0];
    argv[count] = nullptr;

    pid_t pid = spawn(SPAWN_ASYNC, argv.data(), nullptr, 0, dupfdset, envp);
    if (pidp != nullptr) *pidp = pid;
    if (pid < 0) {
        int saved = errno;
        free(envp[0]);
        log.logprintf(1, kFile, __LINE__, "%s: Failed spawn of \"%s\", err: %s", fname,
                      fullcmd_str.c_str(), kv_strerror(saved));
        return log.generr(kFile, __LINE__, nullptr, SS_EC_INTERNAL_ERROR,
                          "%s: Spawn of external command failed", fname);
    }
    free(envp[0]);

    if (pp != nullptr) {
        log.logprintf(7, kFile, __LINE__, "Exiting : %s", fname);
        return nullptr;
    }

    localPipe.pclose(localPipe.getwrite_fd());
    FILE* in = localPipe.getread_strm();
    int lines = 0;
    std::string line;
    while (in != nullptr && read_child_line(line, in)) {
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
        lines++;
        log.logprintf(9, kFile, __LINE__, "%s, spawned output [%s]", fname, line.c_str());
    }
    log.logprintf(9, kFile, __LINE__, "%s: processed %d lines", fname, lines);
    log.logprintf(7, kFile, __LINE__, "Exiting : %s", fname);
    return nullptr;
}
