// merlsnap demo: a snapshot's two lives against a freshly made simulated array.
#include "tools/merlsnap/merlsnap.h"

int cmd_demo(Context& c) {
    c.report.finish("demo", EXIT_USAGE, "the demo needs the array simulator");
    return EXIT_USAGE;
}
