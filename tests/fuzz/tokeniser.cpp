// The line tokenizer, with and without its doubled-quote reading, at blanks
// and at a separator set taken from the input's first byte.
#include <stdlib.h>

#include "liblocal/kv_msg.h"
#include "liblocal/kv_string.h"
#include "tests/fuzz/fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    char ifs[3] = {static_cast<char>(data[0]), ',', '\0'};
    for (int qq = 0; qq <= 1; qq++) {
        for (char* sep : {static_cast<char*>(nullptr), ifs}) {
            std::vector<char> line = fuzz::c_text(data + 1, size - 1);
            int n = 0;
            char** tokens = nullptr;
            if (errinfo* e = tokenize(line.data(), &n, &tokens, sep, qq)) msg_free(e);
            free(tokens);
        }
    }
    return 0;
}
