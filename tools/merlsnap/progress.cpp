// Progress display and Ctrl-C handling of merlsnap's waits.
#include "tools/merlsnap/progress.h"

#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

namespace {

volatile sig_atomic_t g_interrupts = 0;

void on_interrupt(int) {
    g_interrupts = g_interrupts + 1;
}

// The module checks the sources of a task in order and stops at the first
// one still at work; its trace says which it checked.
struct SourceCounter {
    int checked = 0;
    static void watch(const char* msg, void* ctx) {
        if (strstr(msg, "has completed its") != nullptr)
            static_cast<SourceCounter*>(ctx)->checked++;
    }
};

double now_seconds() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

void pause_seconds(double s) {
    if (s <= 0) return;
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(s);
    ts.tv_nsec = static_cast<long>((s - static_cast<double>(ts.tv_sec)) * 1e9);
    nanosleep(&ts, nullptr);  // a Ctrl-C cuts it short, which is what we want
}

class Display {
public:
    Display(Context& c, const char* what, size_t sources)
        : m_c(c), m_what(what), m_sources(sources), m_tty(!c.opt.json && isatty(1)) {}

    void show(size_t done, double elapsed, int polls, bool finished) {
        size_t pct = m_sources == 0 ? 100 : done * 100 / m_sources;
        char line[256];
        snprintf(line, sizeof(line), "%s: %zu of %zu source(s) done (%zu%%), %.0f s, %d poll(s)",
                 m_what, done, m_sources, pct, elapsed, polls);
        if (m_c.opt.json) {
            if (done != m_lastDone || finished) m_c.report.item("progress", line);
        } else if (m_tty) {
            const int width = 24;
            int filled = static_cast<int>(pct * width / 100);
            printf("\r  [%.*s%*s] %s%s", filled, "########################", width - filled, "",
                   line, finished ? "\n" : "");
            fflush(stdout);
        } else if (done != m_lastDone || polls == 1 || finished) {
            printf("  %s\n", line);
            fflush(stdout);
        }
        m_lastDone = done;
    }
    void end_line() {
        if (m_tty) printf("\n");
    }

private:
    Context& m_c;
    const char* m_what;
    size_t m_sources;
    bool m_tty;
    size_t m_lastDone = static_cast<size_t>(-1);
};

}  // namespace

bool interrupted() {
    return g_interrupts > 0;
}

WaitResult wait_for_task(Context& c, ISnapshot* s, const char* what, size_t sources,
                         bool finish_on_interrupt, const std::string& last_words) {
    SSTaskId task = 0;
    if (c.module.failed(s->getCurrentTask(task), "getCurrentTask")) return WAIT_FAILED;
    struct sigaction sa, old;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = on_interrupt;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, &old);
    SourceCounter counter;
    c.sink.watch = &SourceCounter::watch;
    c.sink.watch_ctx = &counter;
    Display display(c, what, sources);
    const double start = now_seconds();
    WaitResult result = WAIT_FAILED;
    bool told = false;
    for (int polls = 1;; polls++) {
        counter.checked = 0;
        SSTaskStatus st = SS_TASK_ERROR;
        SSError* taskErr = nullptr;
        if (c.module.failed(s->getTaskStatus(task, st, taskErr), "getTaskStatus") ||
            c.module.failed(taskErr, what))
            break;
        if (st == SS_TASK_ERROR) {
            c.report.finish(c.opt.command, EXIT_MODULE_ERROR,
                            std::string(what) + " failed on the array");
            break;
        }
        const bool finished = st == SS_TASK_DONE;
        // Every source checked before the one still at work is done.
        size_t done =
            finished ? sources : static_cast<size_t>(counter.checked > 0 ? counter.checked - 1 : 0);
        display.show(done > sources ? sources : done, now_seconds() - start, polls, finished);
        if (finished) {
            result = WAIT_DONE;
            break;
        }
        if (g_interrupts > 0 && !finish_on_interrupt) {
            display.end_line();
            result = WAIT_INTERRUPTED;
            break;
        }
        if (g_interrupts > 1) {
            display.end_line();
            fprintf(stderr, "merlsnap: %s\n", last_words.c_str());
            sigaction(SIGINT, &old, nullptr);
            raise(SIGINT);
            _exit(130);
        }
        if (g_interrupts == 1 && !told) {
            display.end_line();
            fprintf(stderr,
                    "merlsnap: interrupted: waiting for the %s to end so that nothing is left "
                    "behind on the array (Ctrl-C again to stop now)\n",
                    what);
            told = true;
        }
        pause_seconds(c.opt.poll_interval);
    }
    c.sink.watch = nullptr;
    c.sink.watch_ctx = nullptr;
    sigaction(SIGINT, &old, nullptr);
    return result;
}
