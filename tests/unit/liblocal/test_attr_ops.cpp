// Attribute and value list operations: sorted insertion, the deliberate
// differences between similar calls, merging, removal and matching.
#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "liblocal/attrlist.h"

namespace {

std::string dump(attrlist* al) {
    std::string s;
    for (; al != nullptr; al = al->next) {
        s += al->name;
        s += "=";
        for (vallist* v = al->values; v != nullptr; v = v->next) {
            s += "[";
            s += v->value;
            s += "]";
        }
        s += " ";
    }
    return s;
}

std::string dumpv(vallist* vl) {
    std::string s;
    for (; vl != nullptr; vl = vl->next) s += std::string("[") + vl->value + "]";
    return s;
}

attrlist* build(std::initializer_list<std::pair<const char*, const char*>> kv) {
    attrlist* al = nullptr;
    for (auto& p : kv) attrlist_add(&al, p.first, p.second);
    return al;
}

vallist* vals(std::initializer_list<const char*> vs) {
    vallist* vl = nullptr;
    for (const char* v : vs) vallist_add(&vl, v);
    return vl;
}

TEST(AttrAdd, SortsByFoldedNameAndAppendsToExisting) {
    attrlist* al = nullptr;
    attrlist_add(&al, "zeta", "1");
    attrlist_add(&al, "Alpha", "a");
    attrlist_add(&al, "A_B", "x");
    attrlist_add(&al, "ALPHA", "b");  // same name folded: appended
    attrlist_add(&al, "mid", nullptr);
    EXPECT_EQ(dump(al), "Alpha=[a][b] A_B=[x] mid= zeta=[1] ");
    attrlist_free(al);
}

TEST(AttrAdd, EmptyValueDiffersBetweenNewAndExistingAttribute) {
    attrlist* al = nullptr;
    attrlist_add(&al, "X", "");
    ASSERT_NE(al, nullptr);
    EXPECT_EQ(al->values, nullptr);
    attrlist_add(&al, "X", "");
    ASSERT_NE(al->values, nullptr);
    EXPECT_STREQ(al->values->value, "");
    attrlist_add(&al, "X", nullptr);  // null adds nothing to an existing one
    EXPECT_EQ(vallist_count(al->values), 1);
    attrlist_free(al);
}

TEST(AttrAdd, AddEmptyGivesNewAttributeOneNodeEvenForNull) {
    attrlist* al = nullptr;
    attrlist_addempty(&al, "N", nullptr);
    attrlist_addempty(&al, "E", "");
    EXPECT_EQ(dump(al), "E=[] N=[] ");
    attrlist_addempty(&al, "N", nullptr);
    EXPECT_EQ(vallist_count(attrlist_find(al, "N")->values), 1);
    attrlist_free(al);
}

TEST(AttrSet, ReplaceReportsOnlyRealChanges) {
    attrlist* al = build({{"A", "1"}, {"B", nullptr}});
    EXPECT_EQ(attrlist_replace(&al, (char*)"A", (char*)"1"), 0);
    EXPECT_EQ(attrlist_replace(&al, (char*)"B", nullptr), 0);
    EXPECT_EQ(attrlist_replace(&al, (char*)"B", (char*)""), 1);  // empty on no values: a change
    EXPECT_EQ(attrlist_replace(&al, (char*)"a", (char*)"2"), 1);
    EXPECT_EQ(dump(al), "A=[2] B= ");
    attrlist_add(&al, "A", "3");
    EXPECT_EQ(attrlist_replace(&al, (char*)"A", (char*)"2"), 1);  // two values -> one
    EXPECT_EQ(dump(al), "A=[2] B= ");
    EXPECT_EQ(attrlist_replace(&al, (char*)"A", (char*)"2"), 0);
    attrlist_set(&al, (char*)"A", (char*)"");
    EXPECT_EQ(dump(al), "A= B= ");
    attrlist_free(al);
}

TEST(AttrSet, DefaultOnlyFillsMissingOrEmpty) {
    attrlist* al = build({{"A", "1"}, {"B", nullptr}});
    attrlist_default(&al, (char*)"A", (char*)"x");
    attrlist_default(&al, (char*)"B", (char*)"y");
    attrlist_default(&al, (char*)"C", (char*)"z");
    EXPECT_EQ(dump(al), "A=[1] B=[y] C=[z] ");
    attrlist_free(al);
}

TEST(AttrBuild, NamesValuesAndValuelessNames) {
    attrlist* al = attrlist_build((char*)"b", "1", "2", nullptr, (char*)"A", nullptr, (char*)"c",
                                  "", nullptr, nullptr);
    EXPECT_EQ(dump(al), "A= b=[1][2] c= ");
    attrlist_free(al);
    vallist* vl = vallist_build((char*)"x", "y", nullptr);
    EXPECT_EQ(dumpv(vl), "[x][y]");
    vallist_free(vl);
}

TEST(AttrMerge, BaseKeepsItsElementNewStaysUntouched) {
    attrlist* newl = build({{"a", "new"}, {"c", "new"}, {"e", "new"}});
    attrlist* base = build({{"A", "base"}, {"b", "base"}, {"e", "base"}});
    attrlist* a_base = attrlist_find(base, "a");
    attrlist_merge(&newl, &base);
    EXPECT_EQ(dump(base), "A=[base] b=[base] c=[new] e=[base] ");
    EXPECT_EQ(attrlist_find(base, "a"), a_base);  // the very element, not a copy
    EXPECT_EQ(dump(newl), "a=[new] c=[new] e=[new] ");
    EXPECT_NE(attrlist_find(base, "c"), attrlist_find(newl, "c"));
    attrlist_free(newl);
    attrlist_free(base);
}

TEST(AttrMerge, ListAddListSwapsEqualKeysAndLosesTheOld) {
    attrlist* n = build({{"b", "new"}, {"d", "new"}});
    attrlist* base = build({{"a", "old"}, {"b", "old"}, {"c", "old"}});
    attrlist* old_b = attrlist_find(base, "b");
    kv_list_t* lost = nullptr;
    list_addlist(reinterpret_cast<kv_list_t**>(&n), reinterpret_cast<kv_list_t**>(&base), &lost,
                 attr_cmpname);
    EXPECT_EQ(n, nullptr);
    EXPECT_EQ(dump(base), "a=[old] b=[new] c=[old] d=[new] ");
    EXPECT_EQ(reinterpret_cast<attrlist*>(lost), old_b);
    EXPECT_EQ(old_b->next, nullptr);
    attrlist_free(base);
    attrlist_free(reinterpret_cast<attrlist*>(lost));
}

TEST(AttrMerge, MergeOrAddMergesValuesExactlyAndAppendSkipsMissing) {
    attrlist* base = build({{"a", "x"}, {"b", "1"}});
    attrlist* n = build({{"A", "X"}, {"A", "x"}, {"c", "new"}});
    attrlist_merge_or_add(n, &base);
    EXPECT_EQ(dump(base), "a=[x][X] b=[1] c=[new] ");
    attrlist* more = build({{"b", "2"}, {"zz", "9"}});
    attrlist_append(more, base);
    EXPECT_EQ(dump(base), "a=[x][X] b=[1][2] c=[new] ");
    attrlist* sel = build({{"C", nullptr}, {"a", nullptr}, {"q", nullptr}});
    attrlist* copy = attrlist_copy(sel, base);
    EXPECT_EQ(dump(copy), "a=[x][X] c=[new] ");
    attrlist_free(base);
    attrlist_free(n);
    attrlist_free(more);
    attrlist_free(sel);
    attrlist_free(copy);
}

TEST(AttrRemove, RemovedElementsReplaceTheKeyList) {
    attrlist* base = build({{"a", "1"}, {"b", "2"}, {"c", "3"}, {"d", "4"}});
    attrlist* keys = build({{"B", "k"}, {"D", "k"}, {"x", "k"}});
    attrlist* b_elem = attrlist_find(base, "b");
    attrlist_remove(&keys, &base);
    EXPECT_EQ(dump(base), "a=[1] c=[3] ");
    EXPECT_EQ(dump(keys), "b=[2] d=[4] ");
    EXPECT_EQ(keys, b_elem);
    attrlist_free(keys);
    attrlist_free(base);
}

TEST(AttrRemove, IntersectKeepsOnlyNamedAndDeleteTakesOne) {
    attrlist* base = build({{"a", "1"}, {"b", "2"}, {"c", "3"}});
    attrlist* keys = build({{"A", nullptr}, {"C", nullptr}});
    attrlist_intersect(&keys, &base);
    EXPECT_EQ(dump(base), "a=[1] c=[3] ");
    EXPECT_EQ(dump(keys), "A= C= ");
    attr_delete(&base, (char*)"C");
    attr_delete(&base, (char*)"missing");
    EXPECT_EQ(dump(base), "a=[1] ");
    attr_delete(&base, (char*)"a");
    EXPECT_EQ(base, nullptr);
    attrlist_free(keys);
}

TEST(AttrCompare, EqualSubsetAndNameMatch) {
    attrlist* a = build({{"x", "V1"}, {"x", "v2"}, {"y", nullptr}});
    attrlist* b = build({{"X", "v1"}, {"X", "V2"}, {"Y", nullptr}});
    attrlist* c = build({{"X", "v2"}, {"X", "v1"}, {"Y", nullptr}});
    EXPECT_TRUE(attrlist_equal(a, b));
    EXPECT_FALSE(attrlist_equal(a, c));  // value order counts
    EXPECT_TRUE(attrlist_exact_name_match(a, c));
    EXPECT_TRUE(attrlist_exact_name_match(nullptr, nullptr));
    EXPECT_FALSE(attrlist_exact_name_match(a, nullptr));
    attrlist* sub = build({{"Y", nullptr}});
    EXPECT_TRUE(attrlist_subset(sub, a));
    EXPECT_TRUE(attrlist_subset(nullptr, a));
    EXPECT_FALSE(attrlist_subset(a, sub));
    attrlist_free(a);
    attrlist_free(b);
    attrlist_free(c);
    attrlist_free(sub);
}

TEST(AttrMatch, QueryNeedsValuesWhereAttrlistMatchDoesNot) {
    attrlist* al = build({{"name", "Host1"}, {"type", nullptr}});
    attrlist* q1 = build({{"NAME", "host1"}});
    attrlist* q2 = build({{"type", "disk"}});
    attrlist* q3 = build({{"other", nullptr}});
    EXPECT_TRUE(attrlist_match(q1, al));
    EXPECT_TRUE(query_match(q1, al));
    EXPECT_TRUE(attrlist_match(q2, al));
    EXPECT_FALSE(query_match(q2, al));
    EXPECT_FALSE(attrlist_match(q3, al));
    EXPECT_TRUE(attrlist_match(nullptr, al));
    EXPECT_TRUE(attrlist_match(nullptr, nullptr));
    EXPECT_FALSE(attrlist_match(q1, nullptr));
    attrlist_free(al);
    attrlist_free(q1);
    attrlist_free(q2);
    attrlist_free(q3);
}

TEST(AttrMatch, HasValUsesCTableFold) {
    attrlist* al = build({{"a", "Yes"}, {"a", "x_y"}});
    EXPECT_TRUE(attrlist_hasattr(al, "A", "YES"));
    EXPECT_FALSE(attrlist_hasattr(al, "A", "no"));
    EXPECT_TRUE(attrlist_hasattr_eitherval(al, (char*)"a", (char*)"no", (char*)"X_Y"));
    vallist* vl = vals({"q", "yes"});
    EXPECT_TRUE(attrlist_hasattr_valmatch(al, (char*)"a", vl));
    EXPECT_FALSE(attr_hasval(nullptr, "Yes"));
    EXPECT_FALSE(attr_hasval(al, nullptr));
    vallist_free(vl);
    attrlist_free(al);
}

TEST(AttrOrder, StableReorderAndSortByStrcasecmp) {
    attrlist* al = build({{"a", "1"}, {"b", "2"}, {"c", "3"}, {"d", "4"}});
    attrlist* order = nullptr;
    attrlist* o1 = attr_new("C", nullptr);
    o1->next = attr_new("a", nullptr);
    order = o1;
    attrlist_order(order, &al);
    EXPECT_EQ(dump(al), "c=[3] a=[1] b=[2] d=[4] ");
    attrlist_sort(&al);
    EXPECT_EQ(dump(al), "a=[1] b=[2] c=[3] d=[4] ");
    // strcasecmp puts '_' before letters, the C_table order after them.
    attrlist* u = build({{"AB", "1"}, {"A_", "2"}});
    EXPECT_EQ(dump(u), "AB=[1] A_=[2] ");
    attrlist_sort(&u);
    EXPECT_EQ(dump(u), "A_=[2] AB=[1] ");
    attrlist_free(u);
    attrlist_free(order);
    attrlist_free(al);
}

TEST(ValList, DeleteIsExactWhileFindFolds) {
    vallist* vl = vals({"a", "b"});
    EXPECT_NE(vallist_find(vl, "A"), nullptr);
    EXPECT_EQ(vallist_find_exact(vl, "A"), nullptr);
    EXPECT_EQ(vallist_delete(&vl, "A"), 0);
    EXPECT_EQ(dumpv(vl), "[a][b]");
    EXPECT_EQ(vallist_delete(&vl, "a"), 1);
    EXPECT_EQ(dumpv(vl), "[b]");
    vallist_free(vl);
}

TEST(ValList, AddSortFoldsAddSortExactDoesNot) {
    vallist* vl = nullptr;
    EXPECT_EQ(vallist_addsort(&vl, "b"), 1);
    EXPECT_EQ(vallist_addsort(&vl, "a"), 1);
    EXPECT_EQ(vallist_addsort(&vl, "A"), 0);
    EXPECT_EQ(dumpv(vl), "[a][b]");
    EXPECT_EQ(vallist_addsort_exact(&vl, "A"), 1);
    EXPECT_EQ(vallist_addsort_exact(&vl, "a"), 0);
    EXPECT_EQ(dumpv(vl), "[A][a][b]");
    // Whole lists compare the same two ways.
    vallist* upper = vals({"A", "A", "B"});
    EXPECT_EQ(vallist_cmp(vl, upper), 0);
    EXPECT_NE(vallist_cmp_exact(vl, upper), 0);
    vallist_free(upper);
    vallist_free(vl);
}

TEST(ValList, PositionsInsertAndGuardedRemove) {
    vallist* vl = vals({"a", "b", "c"});
    vallist_pos_insert(&vl, (char*)"x", 2);
    vallist_pos_insert(&vl, (char*)"z", 99);
    vallist_pos_insert(&vl, (char*)"h", 1);
    EXPECT_EQ(dumpv(vl), "[h][a][x][b][c][z]");
    EXPECT_EQ(vallist_find_pos(vl, (char*)"X"), 3);
    EXPECT_EQ(vallist_find_pos(vl, (char*)"q"), -1);
    EXPECT_STREQ(vallist_pos_value(vl, 6), "z");
    EXPECT_EQ(vallist_pos_value(vl, 7), nullptr);
    EXPECT_EQ(vallist_pos_value(vl, 0), nullptr);
    vallist_pos_remove(&vl, (char*)"nope", 3);  // guarded by the value
    EXPECT_EQ(vallist_count(vl), 6);
    vallist_pos_remove(&vl, (char*)"X", 3);
    vallist_pos_remove(&vl, nullptr, 1);
    EXPECT_EQ(dumpv(vl), "[a][b][c][z]");
    vallist_free(vl);
}

TEST(ValList, StaleOrEmptyTailHints) {
    vallist* h = nullptr;
    vallist* t = nullptr;
    vallist_add2(&h, &t, "a");
    vallist_add(&h, "b");  // the hint is now stale
    vallist_add2(&h, &t, "c");
    EXPECT_EQ(dumpv(h), "[a][b][c]");
    EXPECT_STREQ(t->value, "c");

    static std::string traced;
    attr_trace_fn old = attrlist_set_trace_hook([](int level, unsigned mask, const char* text) {
        traced = std::to_string(level) + "/" + std::to_string(mask) + ":" + text;
    });
    vallist* empty = nullptr;
    vallist_add2(&empty, &t, "x");  // a tail hint with an empty head
    EXPECT_EQ(empty, nullptr);
    EXPECT_EQ(traced, "9/256:vallist_add2(): invalid input\n");
    attrlist_set_trace_hook(old);
    vallist_free(h);
}

TEST(ValList, SortWithAndWithoutDuplicates) {
    vallist* vl = vals({"b", "A", "a", "c", "B"});
    EXPECT_EQ(vallist_sort(&vl, nullptr, 1), 3);
    EXPECT_EQ(vallist_count(vl), 3);
    vallist_free(vl);
    vl = vals({"b", "A", "a", "B"});
    EXPECT_EQ(vallist_sort(&vl, val_cmp_exact, 0), 4);
    EXPECT_EQ(dumpv(vl), "[A][B][a][b]");
    vallist_free(vl);
}

TEST(ValList, MergeIntersectAndDiff) {
    vallist* base = vals({"a"});
    vallist* add = vals({"A", "a", "b"});
    vallist_merge(add, &base);  // exact comparison: "A" is new
    EXPECT_EQ(dumpv(base), "[a][A][b]");
    vallist* empty = nullptr;
    vallist_merge(add, &empty);
    EXPECT_EQ(dumpv(empty), "[A][a][b]");

    vallist* keep = vals({"x", "B", "a"});
    vallist_intersect(keep, &base);  // reversed order of `keep`
    EXPECT_EQ(dumpv(base), "[a][B]");

    vallist* old = vals({"1", "2"});
    vallist* nw = vals({"2", "3"});
    vallist* change = vals({"1", "9"});
    EXPECT_EQ(vallist_diff_apply(old, nw, &change, 0), 1);
    EXPECT_EQ(dumpv(change), "[9][3]");
    vallist* c1 = vals({"1"});
    vallist_diff_apply(old, nw, &c1, 1);  // only additions
    EXPECT_EQ(dumpv(c1), "[1][3]");
    vallist* c2 = vals({"1"});
    vallist_diff_apply(old, nw, &c2, 2);  // only removals
    EXPECT_EQ(dumpv(c2), "");
    EXPECT_EQ(vallist_diff_apply(old, nw, nullptr, 0), 0);
    for (vallist* v : {base, add, empty, keep, old, nw, change, c1, c2}) vallist_free(v);
}

TEST(ValList, FindUniquePicksSmallestMissing) {
    vallist* a = vals({"pear", "fig", "apple"});
    vallist* b = vals({"apple"});
    vallist* u = vallist_find_unique(a, b);
    ASSERT_NE(u, nullptr);
    EXPECT_STREQ(u->value, "fig");
    EXPECT_EQ(vallist_find_unique(a, nullptr), a);
    vallist* all = vals({"fig", "pear", "apple"});
    EXPECT_EQ(vallist_find_unique(a, all), nullptr);
    vallist_free(a);
    vallist_free(b);
    vallist_free(all);
}

TEST(ValList, MatchAndPatternMatch) {
    vallist* q = vals({"X", "y"});
    vallist* a = vals({"z", "x"});
    EXPECT_TRUE(vallist_match(q, a));
    EXPECT_TRUE(vallist_match(nullptr, a));
    EXPECT_TRUE(vallist_match(q, nullptr));
    vallist* nomatch = vals({"q"});
    EXPECT_FALSE(vallist_match(q, nomatch));

    vallist* star = vals({"*"});
    EXPECT_TRUE(vallist_patmatch(star, a));
    EXPECT_TRUE(vallist_patmatch(star, nullptr));
    vallist* pat = vals({"^HOST[0-9]+$"});
    vallist* hosts = vals({"web", "Host12"});
    EXPECT_TRUE(vallist_patmatch(pat, hosts));
    EXPECT_FALSE(vallist_patmatch(pat, a));
    vallist* bad = vals({"(unclosed"});
    EXPECT_FALSE(vallist_patmatch(bad, hosts));
    for (vallist* v : {q, a, nomatch, star, pat, hosts, bad}) vallist_free(v);
}

TEST(ValCsv, JoinWithLimitAndSplitWithTrim) {
    char* s = vallist_to_csv(nullptr, 0);
    EXPECT_STREQ(s, "<empty>");
    free(s);
    vallist* vl = vals({"alpha", "beta", "gamma"});
    s = vallist_to_csv(vl, 0);
    EXPECT_STREQ(s, "alpha, beta, gamma");
    free(s);
    s = vallist_to_csv(vl, 11);  // "alpha, beta" is 11
    EXPECT_STREQ(s, "alpha, beta, ...");
    free(s);
    s = vallist_to_csv(vl, 3);  // the first value stays even when too long
    EXPECT_STREQ(s, "alpha, ...");
    free(s);
    vallist_free(vl);

    char in[] = " a ,, b\t,c d ,  ,";
    vl = vallist_new_from_csv(in);
    EXPECT_EQ(dumpv(vl), "[a][b][c d]");
    vallist_free(vl);
    char empty[] = "";
    EXPECT_EQ(vallist_new_from_csv(empty), nullptr);
}

}  // namespace
