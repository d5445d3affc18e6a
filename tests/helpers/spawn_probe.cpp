// A child for the spawner's tests: reports what it sees (arguments,
// environment, descriptors, signals, directory, ids) or behaves badly on
// request (exit codes, binary output, silence, death by signal).
#include <dirent.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

extern char** environ;

namespace {

std::string link_of(int fd) {
    char path[64], buf[PATH_MAX];
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    ssize_t n = readlink(path, buf, sizeof buf - 1);
    if (n < 0) return "closed";
    buf[n] = '\0';
    return buf;
}

void print_fds() {
    DIR* d = opendir("/proc/self/fd");
    if (d == nullptr) return;
    int self = dirfd(d);
    std::vector<int> fds;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        int fd = atoi(e->d_name);
        if (fd != self) fds.push_back(fd);
    }
    closedir(d);
    for (int fd : fds) printf("fd %d\n", fd);
}

const char* disposition(int sig) {
    struct sigaction sa;
    sigaction(sig, nullptr, &sa);
    if (sa.sa_handler == SIG_DFL) return "default";
    if (sa.sa_handler == SIG_IGN) return "ignore";
    return "handler";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    std::string cmd = argv[1];
    if (cmd == "args") {
        for (int i = 0; i < argc; ++i) printf("%s\n", argv[i]);
    } else if (cmd == "argc") {
        printf("%d\n", argc);
    } else if (cmd == "env") {
        for (char** e = environ; *e; ++e) printf("%s\n", *e);
    } else if (cmd == "cwd") {
        char buf[PATH_MAX];
        printf("%s\n", getcwd(buf, sizeof buf) ? buf : "?");
    } else if (cmd == "fds") {
        print_fds();
    } else if (cmd == "links") {
        for (int fd = 0; fd < 3; ++fd) printf("%d %s\n", fd, link_of(fd).c_str());
    } else if (cmd == "signals") {
        sigset_t cur;
        sigprocmask(SIG_SETMASK, nullptr, &cur);
        int blocked = 0;
        for (int s = 1; s < 32; ++s) blocked += sigismember(&cur, s);
        printf("blocked %d\n", blocked);
        printf("INT %s\nTERM %s\nCHLD %s\nUSR1 %s\nPIPE %s\n", disposition(SIGINT),
               disposition(SIGTERM), disposition(SIGCHLD), disposition(SIGUSR1),
               disposition(SIGPIPE));
    } else if (cmd == "session") {
        printf("%s\n", getsid(0) == getpid() ? "leader" : "member");
    } else if (cmd == "ids") {
        printf("%d %d\n", static_cast<int>(getuid()), static_cast<int>(getgid()));
    } else if (cmd == "exit") {
        return argc > 2 ? atoi(argv[2]) : 0;
    } else if (cmd == "lines") {
        int n = argc > 2 ? atoi(argv[2]) : 3;
        for (int i = 1; i <= n; ++i) printf("line %d\n", i);
    } else if (cmd == "mixed") {
        for (int i = 1; i <= 3; ++i) {
            printf("out %d\n", i);
            fflush(stdout);
            fprintf(stderr, "err %d\n", i);
        }
    } else if (cmd == "binary") {
        for (int c = 0; c < 256; ++c) putchar(c);
    } else if (cmd == "silent") {
    } else if (cmd == "kill") {
        fflush(stdout);
        raise(SIGKILL);
    } else if (cmd == "cat") {
        int c;
        while ((c = getchar()) != EOF) putchar(c);
    } else {
        return 3;
    }
    return 0;
}
