// Test child for the gateway: prints its argument count, each argument in
// brackets and the PATH it was given, so tests see exactly what was run.
#include <stdio.h>
#include <stdlib.h>

int main(int argc, char** argv) {
    printf("argc=%d\n", argc);
    for (int i = 1; i < argc; i++) printf("[%s]\n", argv[i]);
    const char* path = getenv("PATH");
    printf("PATH=%s\n", path != nullptr ? path : "(unset)");
    fprintf(stderr, "stderr line\r\n");
    return 0;
}
