// Cost of the message calls that every failure path takes: creating a ring
// record, rendering into a pool buffer, and the text forms.
#include <stdlib.h>

#include <benchmark/benchmark.h>

#include "liblocal/kv_msg.h"

static void BM_MsgCreate(benchmark::State& state) {
    for (auto _ : state) {
        errinfo* e = msg_create(84890, 35021,
                                "Attribute '%s' has a name that is longer than the maximum size "
                                "[%d characters] allowed",
                                ARG_ATTRNAME, "SOME_ATTRIBUTE_NAME", ARG_INT, "63");
        benchmark::DoNotOptimize(e);
        msg_free(e);
    }
}
BENCHMARK(BM_MsgCreate);

static void BM_RenderString(benchmark::State& state) {
    for (auto _ : state) {
        char* r = render_string(0, nullptr, "%s: %2$-20s %3$d", ARG_TEXT,
                                "SCMerlodeQuillset::snapshot", ARG_PATH, "/dev/sdb", ARG_INT, "42");
        benchmark::DoNotOptimize(r);
    }
}
BENCHMARK(BM_RenderString);

static void BM_RenderWideColumns(benchmark::State& state) {
    for (auto _ : state) {
        char* r = render_string(0, nullptr, "[%-30.20s]", ARG_TEXT,
                                "\xe6\xbc\xa2\xe5\xad\x97 mixed \xc3\xa9t\xc3\xa9 text");
        benchmark::DoNotOptimize(r);
    }
}
BENCHMARK(BM_RenderWideColumns);

static void BM_StbufRoundTrip(benchmark::State& state) {
    structext* st = msg_structext_create(7, "copy %s to %s: %d", ARG_PATH, "/a/b", ARG_HOSTNAME,
                                         "host1", ARG_INT, "5");
    for (auto _ : state) {
        char* sb = msg_structext_to_stbuf(st);
        structext* back = msg_stbuf_to_structext(sb);
        benchmark::DoNotOptimize(back);
        free(sb);
    }
}
BENCHMARK(BM_StbufRoundTrip);

BENCHMARK_MAIN();
