// The attribute-list text form: parsed, written back by the writer and
// parsed again (the writer meets whatever names and values a parse made).
#include "liblocal/attrlist.h"
#include "tests/fuzz/fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<char> text = fuzz::c_text(data, size);
    attrlist* al = attrlist_parse_text(text.data());
    size_t sizing = 0;
    const size_t need = attrlist_build_str(al, nullptr, &sizing);
    if (need > 0) {
        std::vector<char> out(need + 1, '\0');
        size_t have = out.size();
        attrlist_build_str(al, out.data(), &have);
        attrlist_free(attrlist_parse_text(out.data()));
    }
    attrlist_free(al);
    return 0;
}
