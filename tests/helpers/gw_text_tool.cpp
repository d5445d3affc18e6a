// Test child for the gateway: writes the bytes of the file named by
// GW_TEXT_FILE to its standard output as they stand (NUL bytes, carriage
// returns, a last line without its line feed) and ignores its arguments. No
// variable or no file: it prints nothing.
#include <stdio.h>
#include <stdlib.h>

int main() {
    const char* name = getenv("GW_TEXT_FILE");
    FILE* in = name != nullptr ? fopen(name, "rb") : nullptr;
    if (in == nullptr) return 0;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, in)) > 0) fwrite(buf, 1, n, stdout);
    fclose(in);
    return 0;
}
