// The state as one tool command reads it: LUN records kept as text until
// used, written back untouched, looked up through the index, and a malformed
// record found when it is first used.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/support/temp_dir.h"
#include "tools/arraysim/sim.h"
#include "tools/arraysim/text.h"

using namespace arraysim;

namespace {

class LazyState : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(tmp_.ok());
        dir_ = tmp_.path();
    }
    void put(const std::string& text) { ASSERT_TRUE(write_file_atomic(state_file(dir_), text)); }
    std::string text() {
        std::string s;
        read_file(state_file(dir_), s);
        return s;
    }
    zovtest::TempDir tmp_{"arraysim-lazy-"};
    std::string dir_;
};

// Written by hand: odd spacing and a comment inside a record, keys after the
// number in another order, an escaped WWN, no line feed at the very end.
const char* kHandMade =
    "arraysim-state 2\n"
    "frame name=A addrs=10.0.0.1,10.0.0.2\n"
    "host name=h addr=10.9.9.9 local=1\n"
    "lun frame=0 num=4 wwn=60:00%3A04 name=four   blocks=8\n"
    "# the device of four\n"
    "  dev host=0 paths=sdb\n"
    "lun frame=0 num=2 name=two wwn=60:02 blocks=8\n"
    "dev host=0 pseudo=zp paths=sdc,sdd\n"
    "lun frame=0 num=8 blocks=8\n"
    "lun num=9 frame=0 name=nine wwn=60:09\n"
    "session name=s frame=0 lun=4 created=1\n"
    "lun frame=0 num=7 name=seven wwn=60:07";

TEST_F(LazyState, UntouchedRecordsGoBackAsTheyWereRead) {
    put(kHandMade);
    State st;
    std::string err;
    ASSERT_TRUE(load_state_lazy(dir_, st, err)) << err;
    ASSERT_EQ(5u, st.luns.size());
    st.sessions.clear();
    ASSERT_TRUE(save_state(dir_, st, err)) << err;
    std::string out = text();
    EXPECT_NE(
        std::string::npos,
        out.find(
            "lun frame=0 num=4 wwn=60:00%3A04 name=four   blocks=8\n# the device of four\n  dev "
            "host=0 paths=sdb\n"
            "lun frame=0 num=2 name=two wwn=60:02 blocks=8\ndev host=0 pseudo=zp paths=sdc,sdd\n"))
        << out;
    EXPECT_NE(std::string::npos, out.find("lun frame=0 num=7 name=seven wwn=60:07\n")) << out;
    EXPECT_EQ(std::string::npos, out.find("session"));

    // The text written means what the hand-made one meant.
    State eager, back;
    ASSERT_TRUE(parse_state(kHandMade, strlen(kHandMade), eager, err)) << err;
    ASSERT_TRUE(load_state(dir_, back, err)) << err;
    ASSERT_EQ(eager.luns.size(), back.luns.size());
    for (size_t i = 0; i < eager.luns.size(); ++i) {
        EXPECT_EQ(eager.luns[i].num, back.luns[i].num);
        EXPECT_EQ(eager.luns[i].name, back.luns[i].name);
        EXPECT_EQ(eager.luns[i].wwn, back.luns[i].wwn);
        EXPECT_EQ(eager.luns[i].devs.size(), back.luns[i].devs.size());
    }
    EXPECT_EQ("60:00:04", back.luns[0].wwn);
    EXPECT_EQ("LUN 8", back.luns[2].name);  // what follows from the number
    EXPECT_EQ(default_lun_wwn(0, 8), back.luns[2].wwn);
    EXPECT_EQ((std::vector<std::string>{"sdc", "sdd"}), back.luns[1].devs[0].paths);
}

TEST_F(LazyState, ARecordUsedIsWrittenAfreshAndTheRestStays) {
    put(kHandMade);
    State st;
    std::string err;
    ASSERT_TRUE(load_state_lazy(dir_, st, err)) << err;
    Lun* l = st.lun(0, 2);
    ASSERT_NE(nullptr, l);
    l->trespassed = true;
    l->devs[0].paths.push_back("sde");
    ASSERT_TRUE(save_state(dir_, st, err)) << err;
    std::string out = text();
    EXPECT_NE(std::string::npos,
              out.find("lun frame=0 num=2 name=two wwn=60:02 blocks=8 trespassed=1\n"
                       "dev host=0 pseudo=zp paths=sdc,sdd,sde\n"))
        << out;
    EXPECT_NE(std::string::npos, out.find("# the device of four\n"));
    State back;
    ASSERT_TRUE(load_state(dir_, back, err)) << err;
    EXPECT_TRUE(back.lun(0, 2)->trespassed);
    EXPECT_FALSE(back.lun(0, 4)->trespassed);
}

TEST_F(LazyState, FieldsReadFromTheTextMatchTheParsedRecord) {
    put(kHandMade);
    State st;
    std::string err;
    ASSERT_TRUE(load_state_lazy(dir_, st, err)) << err;
    const LunTable& luns = st.luns;
    std::string w;
    luns.append_wwn(0, w);
    EXPECT_EQ("60:00:04", w);  // unescaped
    for (size_t i = 0; i < luns.size(); ++i) {
        std::string from_text;
        luns.append_wwn(i, from_text);
        EXPECT_EQ(luns[i].wwn, from_text);
        EXPECT_EQ(luns[i].frame, luns.frame_at(i));
        EXPECT_EQ(luns[i].num, luns.num_at(i));
    }
}

void expect_same_lun(const Lun& a, const Lun& b) {
    EXPECT_EQ(a.frame, b.frame);
    EXPECT_EQ(a.num, b.num);
    EXPECT_EQ(a.name, b.name);
    EXPECT_EQ(a.wwn, b.wwn);
    EXPECT_EQ(a.blocks, b.blocks);
    EXPECT_EQ(a.trespassed, b.trespassed);
    EXPECT_EQ(a.mount, b.mount);
    EXPECT_EQ(a.snapname, b.snapname);
    EXPECT_EQ(a.snapdev, b.snapdev);
    EXPECT_EQ(a.smp, b.smp);
    EXPECT_EQ(a.smpdev, b.smpdev);
    EXPECT_EQ(a.cg, b.cg);
    ASSERT_EQ(a.devs.size(), b.devs.size()) << a.num;
    for (size_t i = 0; i < a.devs.size(); ++i) {
        EXPECT_EQ(a.devs[i].host, b.devs[i].host);
        EXPECT_EQ(a.devs[i].pseudo, b.devs[i].pseudo);
        EXPECT_EQ(a.devs[i].paths, b.devs[i].paths);
    }
}

// Records read in one pass (peeked one after another into the same record,
// or kept) mean what the line-by-line reader makes of them: a full record
// first, so that a field left over from it would show; every key, escapes,
// a repeated key, signs, and records in other layouts between them.
TEST_F(LazyState, OnePassRecordsMatchTheLineByLineReader) {
    for (const char* version : {"2", "1"}) {
        std::string t = std::string("arraysim-state ") + version +
                        "\n"
                        "frame name=A addrs=10.0.0.1,10.0.0.2\n"
                        "host name=h addr=10.9.9.9 local=1\n"
                        "lun frame=0 num=1 name=one%20x wwn=60:01 blocks=9 trespassed=1 "
                        "mount=/m%3D1 snapname=SL snapdev=sdq smp=-3 smpdev=sdr cg=CG1\n"
                        "dev host=0 pseudo=zp0 paths=sdb,,sd%2Cc\n"
                        "dev host=1 paths=sdd\n"
                        "lun frame=0 num=2 blocks=+7 num=3\n"
                        "lun frame=0 num=4 blocks=1 \n"
                        "lun frame=1 num=5\n"
                        "dev  host=0 paths=sde\n"
                        "lun frame=1 num=6 blocks=2\n";
        put(t);
        State eager, lazy, kept;
        std::string err;
        ASSERT_TRUE(parse_state(t.data(), t.size(), eager, err)) << err;
        ASSERT_TRUE(load_state_lazy(dir_, lazy, err)) << err;
        ASSERT_TRUE(load_state_lazy(dir_, kept, err)) << err;
        ASSERT_EQ(eager.luns.size(), lazy.luns.size());
        for (size_t i = 0; i < eager.luns.size(); ++i) {
            expect_same_lun(eager.luns[i], lazy.luns.peek(i));
            expect_same_lun(eager.luns[i], kept.luns[i]);
        }
        EXPECT_EQ("one x", eager.luns[0].name);
        EXPECT_EQ(3, eager.luns[1].num);
    }
}

TEST_F(LazyState, AMalformedLunIsFoundWhenUsedAndEagerReadersStillRefuseIt) {
    std::string bad =
        "arraysim-state 1\nframe name=A addrs=10.0.0.1\nlun frame=0 num=1 name=ok\n"
        "lun frame=0 num=2 name=bad bogus=1\ndev host=0 paths=sdb\nlun frame=0 num=3\ndev host=x\n";
    put(bad);
    State st;
    std::string err;
    ASSERT_TRUE(load_state_lazy(dir_, st, err)) << err;
    EXPECT_EQ("ok", st.lun(0, 1)->name);
    EXPECT_EQ(2, st.luns.num_at(1));
    try {
        (void)st.luns[1];
        ADD_FAILURE() << "no error for a bad key";
    } catch (const StateError& e) {
        EXPECT_STREQ("malformed state line 4: lun frame=0 num=2 name=bad bogus=1", e.what());
    }
    EXPECT_THROW(st.lun(0, 3), StateError);  // its dev line, line 7
    EXPECT_FALSE(st.luns.materialize_all(err));
    EXPECT_NE(std::string::npos, err.find("line 4")) << err;

    State eager;
    EXPECT_FALSE(parse_state(bad.data(), bad.size(), eager, err));
    EXPECT_NE(std::string::npos, err.find("line 4")) << err;
    EXPECT_FALSE(load_state(dir_, eager, err));

    // A dev line with no LUN line above it is refused at once.
    put("arraysim-state 1\ndev host=0 paths=sdb\n");
    EXPECT_FALSE(load_state_lazy(dir_, st, err));
    EXPECT_NE(std::string::npos, err.find("line 2")) << err;
}

// A dev line belongs to the LUN line above it even with another record
// between them, read lazily or not; the records around stay in order.
TEST_F(LazyState, ADevLineAfterAnotherRecordStillBelongsToTheLunAbove) {
    std::string text =
        "arraysim-state 2\nframe name=A addrs=10.0.0.1\n"
        "lun frame=0 num=1 blocks=8\nlun frame=0 num=2 blocks=8\n"
        "session name=s frame=0 lun=2 created=1\n"
        "dev host=0 paths=sdz\n"
        "lun frame=0 num=3 blocks=8\n";
    put(text);
    State lazy, eager;
    std::string err;
    ASSERT_TRUE(load_state_lazy(dir_, lazy, err)) << err;
    ASSERT_TRUE(parse_state(text.data(), text.size(), eager, err)) << err;
    ASSERT_EQ(3u, lazy.luns.size());
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(eager.luns[i].num, lazy.luns[i].num);
        EXPECT_EQ(eager.luns[i].devs.size(), lazy.luns[i].devs.size()) << i;
    }
    EXPECT_EQ(1u, lazy.luns[1].devs.size());
    EXPECT_EQ(1u, lazy.sessions.size());
}

// A group's pairs stay text until used: written back as read when
// untouched, afresh when changed, and a malformed list found when used.
TEST_F(LazyState, GroupPairsAreReadWhenUsed) {
    const char* groups =
        "arraysim-state 2\nframe name=A addrs=10.0.0.1\n"
        "group frame=0 name=g pairs=0:10,,1:2 host=-1\n"
        "group frame=0 name=bad pairs=1:2x\n";
    put(groups);
    State st;
    std::string err;
    ASSERT_TRUE(load_state_lazy(dir_, st, err)) << err;
    EXPECT_EQ("bad", st.groups[1].name);
    ASSERT_TRUE(save_state(dir_, st, err)) << err;
    EXPECT_NE(std::string::npos, text().find(" pairs=0:10,,1:2\n")) << text();

    put(groups);
    ASSERT_TRUE(load_state_lazy(dir_, st, err)) << err;
    ASSERT_EQ(2u, st.groups[0].pairs.size());
    EXPECT_EQ(2, st.groups[0].pairs[1].alu);
    st.groups[0].pairs.push_back(Pair{5, 6});
    try {
        (void)st.groups[1].pairs.size();
        ADD_FAILURE() << "no error for a bad pair";
    } catch (const StateError& e) {
        EXPECT_STREQ("malformed state line 4: group frame=0 name=bad pairs=1:2x", e.what());
    }
    st.groups.pop_back();
    ASSERT_TRUE(save_state(dir_, st, err)) << err;
    EXPECT_NE(std::string::npos, text().find(" pairs=0:10,1:2,5:6\n")) << text();

    State eager;
    put("arraysim-state 2\ngroup frame=0 name=bad pairs=1:2x\n");
    EXPECT_FALSE(load_state(dir_, eager, err));
}

// Version 1 files are still read, with their meaning: a LUN line without a
// name or WWN has none. Written again they become version 2 and say so.
TEST_F(LazyState, AVersionOneFileKeepsItsMeaningWhenWrittenAgain) {
    const char* v1 =
        "arraysim-state 1\n"
        "frame name=A addrs=10.0.0.1\n"
        "lun frame=0 num=1 blocks=8 trespassed=0\n"
        "lun frame=0 num=2 name=LUN%202 wwn=60:06:01:60:00:00:00:00:00:00:00:00:00:00:00:02 "
        "blocks=8 trespassed=0\n";
    put(v1);
    State st;
    std::string err;
    ASSERT_TRUE(load_state_lazy(dir_, st, err)) << err;
    std::string w;
    st.luns.append_wwn(0, w);
    EXPECT_EQ("", w);
    EXPECT_EQ("", st.luns[0].name);
    ASSERT_TRUE(save_state(dir_, st, err)) << err;
    EXPECT_EQ(
        "lun frame=0 num=1 name= wwn= blocks=8 trespassed=0\n"
        "lun frame=0 num=2 blocks=8 trespassed=0\n",
        text().substr(text().find("lun ")));
    EXPECT_EQ(0u, text().find("arraysim-state 2\n"));
    State back;
    ASSERT_TRUE(load_state(dir_, back, err)) << err;
    EXPECT_EQ("", back.luns[0].wwn);
    EXPECT_EQ("LUN 2", back.luns[1].name);
    EXPECT_EQ("60:06:01:60:00:00:00:00:00:00:00:00:00:00:00:02", back.luns[1].wwn);

    put("arraysim-state 3\nframe name=A\n");
    EXPECT_FALSE(load_state_lazy(dir_, st, err));
    EXPECT_NE(std::string::npos,
              err.find("version 3 is not supported (this arraysim reads versions 1 to 2)"))
        << err;
}

// A WWN left out of the file must come back as the one init made.
TEST(LunDefaults, DerivedWwnIsTheOneInitMakes) {
    for (int f : {0, 1, 7, 255, 256, 70000})
        for (int n : {0, 1, 255, 256, 65535, 1 << 24, 2147483647})
            EXPECT_EQ(make_wwn("60060160", (static_cast<unsigned long long>(f) << 32) |
                                               static_cast<unsigned>(n)),
                      default_lun_wwn(f, n))
                << f << " " << n;
    EXPECT_EQ("LUN 12", default_lun_name(12));
}

TEST(LunTableIndex, FindsTheFirstMatchAndFollowsChanges) {
    LunTable t;
    auto add = [&](int f, int n, const char* name) {
        Lun l;
        l.frame = f;
        l.num = n;
        l.name = name;
        t.push_back(l);
    };
    add(1, 5, "a");
    add(0, 9, "b");
    add(0, 5, "c");
    add(1, 5, "dup");
    EXPECT_EQ(0, t.find(1, 5));  // the first of two, as a scan would find
    EXPECT_EQ(2, t.find(0, 5));
    EXPECT_EQ(-1, t.find(0, 6));
    EXPECT_EQ(-1, t.find(-1, 5));
    add(0, 6, "e");  // added after the index was made
    EXPECT_EQ(4, t.find(0, 6));
    t[1].num = 77;  // renumbered through a reference
    EXPECT_EQ(1, t.find(0, 77));
    EXPECT_EQ(-1, t.find(0, 9));

    LunTable copy = t;  // a deep copy: changing one leaves the other
    copy[0].name = "changed";
    EXPECT_EQ("a", t[0].name);
    size_t n = 0;
    for (const Lun& l : copy) n += l.frame == 0;
    EXPECT_EQ(3u, n);
}

// Records in (frame, number) order, as arraysim writes them, are searched
// in place: the first of equal ones, and a renumbered one still found.
TEST(LunTableIndex, RecordsInOrderAreTheirOwnIndex) {
    LunTable t;
    for (int n : {1, 2, 2, 3, 7}) {
        Lun l;
        l.num = n;
        l.name = "n" + std::to_string(t.size());
        t.push_back(l);
    }
    Lun other;
    other.frame = 1;
    other.num = 0;
    t.push_back(other);
    EXPECT_EQ(1, t.find(0, 2));
    EXPECT_EQ(4, t.find(0, 7));
    EXPECT_EQ(5, t.find(1, 0));
    EXPECT_EQ(-1, t.find(0, 4));
    EXPECT_EQ(-1, t.find(0, 8));
    EXPECT_EQ(-1, t.find(1, 1));
    t[0].num = 9;  // now out of order
    EXPECT_EQ(0, t.find(0, 9));
    EXPECT_EQ(-1, t.find(0, 1));
    EXPECT_EQ(3, t.find(0, 3));
}

TEST(StateLists, LongNumberListsAndPairsReadStrictly) {
    State st;
    std::string err;
    const char* ok =
        "arraysim-state 1\ngroup frame=0 pairs=0:10,,1:-2,255:2147483647\ncg frame=0 luns=1,,2\n";
    ASSERT_TRUE(parse_state(ok, strlen(ok), st, err)) << err;
    ASSERT_EQ(3u, st.groups[0].pairs.size());
    EXPECT_EQ(-2, st.groups[0].pairs[1].alu);
    EXPECT_EQ(2147483647, st.groups[0].pairs[2].alu);
    EXPECT_EQ((std::vector<int>{1, 2}), st.cgs[0].luns);
    for (const char* bad :
         {"arraysim-state 1\ngroup pairs=1:2147483648\n", "arraysim-state 1\ngroup pairs=1:\n",
          "arraysim-state 1\ngroup pairs=:1\n", "arraysim-state 1\ngroup pairs=1:2x\n",
          "arraysim-state 1\ncg luns=1,a\n", "arraysim-state 1\nlun num=99999999999999999999\n",
          "arraysim-state 1\nlun num=-\n"}) {
        EXPECT_FALSE(parse_state(bad, strlen(bad), st, err)) << bad;
    }
}

}  // namespace
