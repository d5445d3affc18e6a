// Records and core calls of attribute and value lists: layout, lookup, copy,
// the name order and the yes/no reading.
#include <gtest/gtest.h>
#include <malloc.h>
#include <stddef.h>
#include <string.h>

#include <string>

#include "liblocal/attrlist.h"

namespace {

// Allocation sizes: under ASan malloc_usable_size is the requested size; the
// system allocator rounds up by less than two words.
void expect_alloc_size(void* p, size_t want) {
    size_t got = malloc_usable_size(p);
    EXPECT_GE(got, want);
    EXPECT_LT(got, want + 2 * sizeof(void*) + 1);
}

std::string names(attrlist* al) {
    std::string s;
    for (; al != nullptr; al = al->next) s += std::string(al->name) + " ";
    return s;
}

TEST(AttrLayout, RecordsKeepNextFirstAndTextInline) {
    EXPECT_EQ(offsetof(vallist, next), 0u);
    EXPECT_EQ(offsetof(vallist, value), sizeof(void*));
    EXPECT_EQ(offsetof(attrlist, next), 0u);
    EXPECT_EQ(offsetof(attrlist, values), sizeof(void*));
    EXPECT_EQ(offsetof(attrlist, name), 2 * sizeof(void*));
    EXPECT_EQ(sizeof(((attrlist*)nullptr)->name), 65u);
}

TEST(AttrLayout, ValueNodeIsOneAllocationOfExactSize) {
    vallist* v = val_new("hello");
    EXPECT_STREQ(v->value, "hello");
    expect_alloc_size(v, offsetof(vallist, value) + 6);
    // One allocation: free() of the node alone must release everything
    // (a leak here shows under the leak checker).
    free(v);

    vallist* z = val_new(nullptr);
    EXPECT_EQ(z->next, nullptr);
    EXPECT_STREQ(z->value, "");
    expect_alloc_size(z, offsetof(vallist, value) + 1);
    val_free(z);
}

TEST(AttrLayout, AttributeIsSizedToItsNameWhateverTheLength) {
    attrlist* a = attr_new("ab", "v");
    expect_alloc_size(a, offsetof(attrlist, name) + 3);
    EXPECT_LT(malloc_usable_size(a), sizeof(attrlist));
    attrlist_free(a);

    std::string longname(200, 'n');
    attrlist* b = attr_new(longname.c_str(), nullptr);
    EXPECT_EQ(std::string(b->name), longname);
    expect_alloc_size(b, offsetof(attrlist, name) + 201);
    attrlist* c = attr_dup(b);
    EXPECT_EQ(std::string(c->name), longname);
    attrlist_free(b);
    attrlist_free(c);
}

TEST(CTable, NameOrderIsUpperCasedSpellingByteValues) {
    EXPECT_EQ(attr_namecmp("foo", "FOO"), 0);
    // Letters fold below '_' (95): "A_" > "AZ" and "a_" > "Az".
    EXPECT_GT(attr_namecmp("A_", "AZ"), 0);
    EXPECT_GT(attr_namecmp("a_", "az"), 0);
    EXPECT_EQ(attr_namecmp("_", "Z"), '_' - 'Z');
    EXPECT_LT(attr_namecmp("AB", "ABC"), 0);
    // High bytes compare unsigned and unfolded.
    EXPECT_GT(attr_namecmp("\xc3\xa9", "z"), 0);
    EXPECT_NE(attr_namecmp("\xc3\xa9", "\xc3\x89"), 0);
    EXPECT_EQ(attr_namecmp(nullptr, ""), 0);
}

TEST(AttrFind, FoldedByDefaultExactWithModeOneAndWholeList) {
    attrlist* al = nullptr;
    attrlist_setlist(&al, "Foo", nullptr);
    EXPECT_NE(attrlist_find(al, "FOO"), nullptr);
    EXPECT_NE(attrlist_find(al, "foo"), nullptr);
    EXPECT_EQ(attrlist_case_find(al, "foo", 1), nullptr);
    EXPECT_NE(attrlist_case_find(al, "Foo", 1), nullptr);
    EXPECT_EQ(attrlist_find(al, nullptr), nullptr);
    EXPECT_EQ(attrlist_find(nullptr, "Foo"), nullptr);
    // Lists that attrlist_order left out of order are walked whole.
    attrlist* unordered = attr_new("ZZZ", "1");
    unordered->next = attr_new("AAA", "2");
    EXPECT_STREQ(attrlist_getvalue(unordered, (char*)"aaa"), "2");
    attrlist_free(unordered);
    attrlist_free(al);
}

TEST(AttrGetValue, DistinguishesNoValueFromEmptyValue) {
    // A new attribute with an empty value has no values at all; a null
    // name is the empty name.
    attrlist* blank = attr_new(nullptr, "");
    EXPECT_STREQ(blank->name, "");
    EXPECT_EQ(blank->values, nullptr);
    attrlist_free(blank);
    attrlist* al = attr_new("NOVAL", nullptr);
    al->next = attr_new("EMPTY", nullptr);
    al->next->values = val_new("");
    EXPECT_EQ(attrlist_getvalue(al, (char*)"NOVAL"), nullptr);
    char* v = attrlist_getvalue(al, (char*)"empty");
    ASSERT_NE(v, nullptr);
    EXPECT_STREQ(v, "");
    EXPECT_EQ(attrlist_getvalue(al, (char*)"missing"), nullptr);
    EXPECT_EQ(attrlist_getvalue(al, nullptr), nullptr);
    EXPECT_EQ(attrlist_getvalue(nullptr, (char*)"NOVAL"), nullptr);
    attrlist_free(al);
}

TEST(AttrSetList, InsertsSortedAndReplacesValuesByCopy) {
    vallist* vals = val_new("a");
    vals->next = val_new("b");
    attrlist* al = nullptr;
    attrlist_setlist(&al, "m", vals);
    attrlist_setlist(&al, "Z", nullptr);
    attrlist_setlist(&al, "a_x", vals);
    attrlist_setlist(&al, "AB", vals);
    EXPECT_EQ(names(al), "AB a_x m Z ");

    vallist* one = val_new("only");
    attrlist* e = attrlist_setlist(&al, "M", one);
    EXPECT_STREQ(e->name, "m");  // the existing element keeps its spelling
    ASSERT_NE(e->values, nullptr);
    EXPECT_STREQ(e->values->value, "only");
    EXPECT_EQ(e->values->next, nullptr);
    EXPECT_NE(e->values, one);  // a copy
    EXPECT_EQ(names(al), "AB a_x m Z ");
    attrlist_free(al);
    vallist_free(vals);
    vallist_free(one);
}

TEST(AttrDup, DeepCopyOfChainKeepsOrderAndSharesNothing) {
    attrlist* al = nullptr;
    attrlist_setlist(&al, "B", nullptr);
    vallist* v = val_new("x");
    v->next = val_new("y");
    attrlist_setlist(&al, "A", v);
    vallist_free(v);
    attrlist* copy = attrlist_dup(al);
    EXPECT_EQ(names(copy), "A B ");
    EXPECT_NE(copy->values, al->values);
    EXPECT_STREQ(copy->values->next->value, "y");
    EXPECT_EQ(copy->next->values, nullptr);
    attrlist* one = attr_dup(al);
    EXPECT_EQ(one->next, nullptr);
    EXPECT_EQ(attrlist_dup(nullptr), nullptr);
    attrlist_free(al);
    attrlist_free(copy);
    attrlist_free(one);
}

TEST(AttrToBool, OnlyFalseNoAndLoneZeroAreFalse) {
    struct Case {
        const char* v;
        int want;
    } cases[] = {{"False", 0}, {"FALSE", 0}, {"no", 0}, {"No", 0},  {"0", 0},
                 {"00", 1},    {"01", 1},    {"", 1},   {"off", 1}, {"Yes", 1},
                 {"true", 1},  {"1", 1},     {"n", 1},  {"f", 1},   {"nope", 1}};
    for (const Case& c : cases) {
        attrlist* a = attr_new("B", nullptr);
        a->values = val_new(c.v);
        EXPECT_EQ(attr_to_bool(a, 7), c.want) << "'" << c.v << "'";
        attrlist_free(a);
    }
    attrlist* none = attr_new("B", nullptr);
    EXPECT_EQ(attr_to_bool(none, 7), 7);
    EXPECT_EQ(attr_to_bool(nullptr, 0), 0);
    // Only the first value counts.
    none->values = val_new("yes");
    none->values->next = val_new("no");
    EXPECT_EQ(attr_to_bool(none, 0), 1);
    attrlist_free(none);
}

}  // namespace
