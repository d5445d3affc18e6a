// The foundation's structured message forms as they arrive from elsewhere:
// a stored log line, a structured text buffer, a message literal and a
// numbered literal.
#include <stdlib.h>

#include "liblocal/kv_msg.h"
#include "tests/fuzz/fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<char> text = fuzz::c_text(data, size);
    std::vector<char> scratch = text;
    render_logline(nullptr, scratch.data());
    scratch = text;
    render_stbuf(nullptr, scratch.data());
    scratch = text;
    if (errinfo* e = msg_create_from_stbuf(0, scratch.data())) msg_free(e);
    scratch = text;
    if (errinfo* e = msg_create_from_mlit(0, scratch.data())) msg_free(e);
    scratch = text;
    free(msg_idlit_to_stbuf(scratch.data()));
    return 0;
}
