// Advanced snapshots through the loader's interface against a simulated
// array: sources by path without groups, a consistency group by WWN, the
// mount host's life, rollback, the failure paths; and the directory
// service's two questions for every subtype.
#include <regex>

#include "tests/integration/cow_fixture.h"

namespace {

using cowtest::Array;
using cowtest::Loader;

std::string as_literal(const std::string& s) {
    return std::regex_replace(s, std::regex("[.^$|()\\[\\]{}*+?\\\\]"), "\\$&");
}

class KvtLife : public ::testing::TestWithParam<cowtest::Shape> {
protected:
    void SetUp() override {
        array.reset(new Array(GetParam()));
        ASSERT_TRUE(array->ok()) << "simulated array";
        loader.reset(new Loader(array->frames()));
        ASSERT_TRUE(loader->ok()) << loader->text;
        loader->tech = "KVT-SNAP";
    }
    // The module asks every frame it was given about a LUN it knows only by
    // number (a WWN's LUN at enrolment, each source's LUN at prepare) and
    // keeps the last frame's answer, where a frame without the LUN answers
    // no mount point and an empty group. The lives take their LUNs from the
    // last frame, whose answer stands.
    int last_frame() const { return static_cast<int>(array->frames().size()) - 1; }
    // How many addresses a command about the array's objects goes to when
    // the module walks the frames until one answers: every address of the
    // frames before the object's, then the first of its own.
    size_t walk_to(int frame) const { return 2 * static_cast<size_t>(frame) + 1; }
    // The advanced snapshots frame `frame` holds.
    std::vector<std::string> snaps(int frame) {
        std::string out;
        array->admin({"tilloseccli", "-h", array->addr(frame), "snap", "-list"}, &out);
        std::vector<std::string> names;
        std::regex name("Name: +([^\\n]+)");
        for (std::sregex_iterator it(out.begin(), out.end(), name), end; it != end; ++it)
            names.push_back((*it)[1]);
        return names;
    }
    // A production object with the sources enrolled, by path or by WWN.
    ldr::ISnapshot* enrolled(const std::vector<std::string>& sources, bool byWwn) {
        ldr::ISnapshot* s = loader->production();
        if (s == nullptr) return nullptr;
        ldr::SSSourceList* list = byWwn ? nullptr : ldr::make_sources(sources);
        bool failed =
            byWwn ? loader->take(s->addComponentWWN(sources)) : loader->take(s->addComponent(list));
        delete list;
        if (failed) {
            loader->finish(s);
            return nullptr;
        }
        return s;
    }
    bool snap(ldr::ISnapshot* s, std::string& guid, std::string& details) {
        ldr::SSTaskId task = -1;
        ldr::SCSnapshotHandle* h = nullptr;
        bool ok = !loader->take(s->prepareForSnapshot(nullptr, nullptr, task)) &&
                  !loader->take(s->snapshot(nullptr, task)) &&
                  !loader->take(s->getSnapshotHandle(h));
        if (ok) {
            guid = reinterpret_cast<char*>(h->m_pguid);
            details = reinterpret_cast<char*>(h->m_pdetails);
            cowtest::module().freeSSObject(h);
        }
        s->end();  // empties the process's group table, as a loader's end does
        return ok;
    }
    std::unique_ptr<Array> array;
    std::unique_ptr<Loader> loader;
};

// Declares `var` as the first `n` LUNs of the last frame with a snapshot
// mount point and no consistency group, or skips the test on a shape that
// has fewer or whose last frame is down.
#define KVT_SOURCES(var, n)                                                                    \
    if (!array->up(last_frame()))                                                              \
        GTEST_SKIP() << GetParam().name << "'s last frame is down, and the module keeps that " \
                     << "frame's answer about a LUN";                                          \
    const std::vector<const Array::Lun*> var = array->kvt_sources(n, last_frame());            \
    if (var.size() < (n))                                                                      \
    GTEST_SKIP() << GetParam().name << " has " << var.size() << " ungrouped LUNs with a "      \
                 << "snapshot mount point on its last frame, the life needs " << (n)

TEST_P(KvtLife, UngroupedPathSourcesThenMountHostLife) {
    KVT_SOURCES(src, 2);
    ldr::ISnapshot* s = enrolled({src[0]->dev, src[1]->dev}, false);
    ASSERT_NE(s, nullptr) << loader->text;
    std::string guid, details;
    ASSERT_TRUE(snap(s, guid, details)) << loader->text << loader->errors;
    cowtest::module().freeSSObject(s);
    // One snapshot per source, named by the LUN; each record carries the SMP.
    std::string frames;
    for (const std::string& f : array->frames()) frames += (frames.empty() ? "" : ":") + f;
    std::regex form("KVTv1;" + as_literal(frames) + ";" + guid + "-[0-9]{12}0000\\|" +
                    as_literal(src[0]->dev) + "-" + src[0]->smp + ";" + guid + "-[0-9]{12}0001\\|" +
                    as_literal(src[1]->dev) + "-" + src[1]->smp);
    EXPECT_TRUE(std::regex_match(details, form)) << details;
    EXPECT_EQ(array->log_lines("snap -create -res " + src[0]->num + " ").size(),
              walk_to(src[0]->frame));
    EXPECT_EQ(array->log_lines("snap -create -res " + src[1]->num + " ").size(),
              walk_to(src[1]->frame));
    EXPECT_EQ(array->log_lines("flush -o " + src[0]->dev).size(), 1u);
    EXPECT_EQ(snaps(src[0]->frame).size(), 2u);

    ldr::ISnapshot* mh = loader->from_handle(guid, details);
    ASSERT_NE(mh, nullptr) << loader->text;
    ASSERT_FALSE(loader->take(mh->validate(nullptr))) << loader->text;
    EXPECT_EQ(mh->getSnapshotState(), ldr::VALID);
    // The handle's SMP is dropped with the source name's tail.
    ldr::SSSourceList* srcs = nullptr;
    ASSERT_FALSE(loader->take(mh->getSourceList(srcs)));
    EXPECT_EQ(ldr::names_of(srcs), (std::vector<std::string>{src[0]->dev, src[1]->dev}));
    ASSERT_FALSE(loader->take(mh->mount(srcs))) << loader->text;
    ldr::SSSourceList* paths = nullptr;
    ASSERT_FALSE(loader->take(mh->getSnapshotAccessPath(srcs, paths)));
    // Each snapshot shows at its source's snapshot mount point device.
    EXPECT_EQ(ldr::names_of(paths),
              (std::vector<std::string>{array->dev(src[0]->smpdev), array->dev(src[1]->smpdev)}));
    cowtest::module().freeSSObject(paths);
    ASSERT_FALSE(loader->take(mh->unmount(srcs))) << loader->text;
    EXPECT_EQ(mh->getSnapshotState(), ldr::UNINIT);
    EXPECT_EQ(array->log_lines("fenlok detach").size(), 2u);
    // An advanced snapshot can be deleted by the object that unmounted it.
    ASSERT_FALSE(loader->take(mh->deleteSnapshot())) << loader->text;
    EXPECT_EQ(mh->getSnapshotState(), ldr::ERROR);
    // The destroy stops at the first address, whose answer, whatever it
    // says, counts as done: snapshots on a later frame stay on the array.
    EXPECT_EQ(snaps(src[0]->frame).size(), src[0]->frame == 0 ? 0u : 2u);
    cowtest::module().freeSSObject(srcs);
    loader->finish(mh);
}

TEST_P(KvtLife, ConsistencyGroupByWwnIsOneSnapshotSharedByItsSources) {
    const Array::ConsistencyGroup* group = nullptr;
    for (const Array::ConsistencyGroup& g : array->consistency_groups())
        if (group == nullptr && g.frame == last_frame()) group = &g;
    if (group == nullptr)
        GTEST_SKIP() << GetParam().name << " has no consistency group on a last frame that "
                     << "answers: a group takes two LUNs";
    const Array::ConsistencyGroup& cg = *group;
    std::vector<std::string> wwns;
    for (const std::string& num : cg.luns) wwns.push_back(array->wwn(*array->lun(num)));
    ldr::ISnapshot* s = enrolled(wwns, true);
    ASSERT_NE(s, nullptr) << loader->text << loader->errors;
    std::string guid, details;
    ASSERT_TRUE(snap(s, guid, details)) << loader->text << loader->errors;
    cowtest::module().freeSSObject(s);
    EXPECT_EQ(array->log_lines("snap -create").size(), walk_to(cg.frame));
    EXPECT_EQ(array->log_lines("snap -create -res " + cg.name + " ").size(), walk_to(cg.frame));
    std::regex form("KVTv1;[^;]+;(" + guid + "-[0-9]{16})\\|[^;]+;(" + guid + "-[0-9]{16})\\|.+");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(details, m, form)) << details;
    EXPECT_EQ(m[1].str(), m[2].str());
    EXPECT_EQ(snaps(cg.frame), std::vector<std::string>{m[1].str()});

    // Restore from the mount host's object: both sources name the snapshot.
    ldr::ISnapshot* r = loader->from_handle(guid, details);
    ASSERT_NE(r, nullptr);
    ldr::SSSourceList* srcs = nullptr;
    ASSERT_FALSE(loader->take(r->validate(nullptr)));
    ASSERT_FALSE(loader->take(r->getSourceList(srcs)));
    ldr::SSTaskId task = -1;
    ASSERT_FALSE(loader->take(r->rollBack(srcs, nullptr, task))) << loader->text;
    EXPECT_EQ(array->log_lines("snap -restore -id " + m[1].str()).size(), 2 * walk_to(cg.frame));
    cowtest::module().freeSSObject(srcs);
    ASSERT_FALSE(loader->take(r->deleteSnapshot()));
    loader->finish(r);
}

TEST_P(KvtLife, SourcesTheRuleOfGroupsRefuses) {
    struct Case {
        const char* what;
        std::vector<std::string> sources;
        bool byWwn;
    };
    std::vector<Case> cases = {
        {"a LUN without a snapshot mount point", {array->unconfigured_device()}, false},
    };
    // A shape with a single source has no group to break the rule with.
    if (!array->consistency_groups().empty())
        cases.push_back({"a grouped LUN given by path",
                         {array->lun(array->consistency_groups()[0].luns[0])->dev},
                         false});
    const std::vector<const Array::Lun*> last = array->kvt_sources(1, last_frame());
    if (array->up(last_frame()) && !last.empty())
        cases.push_back({"a WWN outside any group", {array->wwn(*last[0])}, true});
    for (const Case& c : cases) {
        EXPECT_EQ(enrolled(c.sources, c.byWwn), nullptr) << c.what;
        EXPECT_NE(loader->code, 0) << c.what;
    }
    // An ungrouped LUN of an earlier frame, given by WWN, gets the last
    // frame's answer: an empty group, which counts as a group, so it is let
    // in.
    if (array->frames().size() > 1) {
        const std::vector<const Array::Lun*> early = array->kvt_sources(1, 0);
        ASSERT_EQ(early.size(), 1u);
        ldr::ISnapshot* s = enrolled({array->wwn(*early[0])}, true);
        EXPECT_NE(s, nullptr) << loader->text;
        loader->finish(s);
    }
    EXPECT_TRUE(array->log_lines("snap -create").empty());
}

TEST_P(KvtLife, ArrayFailuresEndInTheirErrors) {
    KVT_SOURCES(src, 1);
    const std::string source = src[0]->dev;
    // The array refuses the create: the snapshot call itself succeeds, and
    // validate finds it missing and cleans up.
    array->admin({"fault", "add", "tilloseccli", "refuse", "--match", "-create"});
    ldr::ISnapshot* s = enrolled({source}, false);
    ASSERT_NE(s, nullptr) << loader->text;
    std::string guid, details;
    ASSERT_TRUE(snap(s, guid, details)) << loader->text;
    cowtest::module().freeSSObject(s);
    array->admin({"fault", "clear"});
    ldr::ISnapshot* mh = loader->from_handle(guid, details);
    ASSERT_NE(mh, nullptr);
    EXPECT_TRUE(loader->take(mh->validate(nullptr)));
    EXPECT_EQ(loader->code, 21);
    EXPECT_NE(loader->text.find("Failed to validate session name"), std::string::npos);
    EXPECT_EQ(array->log_lines("snap -destroy").size(), 1u);
    loader->finish(mh);

    // A real snapshot; the host tool's attach prints nothing it can use.
    s = enrolled({source}, false);
    ASSERT_NE(s, nullptr);
    ASSERT_TRUE(snap(s, guid, details)) << loader->text;
    cowtest::module().freeSSObject(s);
    mh = loader->from_handle(guid, details);
    ASSERT_NE(mh, nullptr);
    ASSERT_FALSE(loader->take(mh->validate(nullptr)));
    array->admin({"fault", "add", "fenlok", "garbage"});
    ldr::SSSourceList* srcs = ldr::make_sources({source});
    EXPECT_TRUE(loader->take(mh->mount(srcs)));
    EXPECT_EQ(loader->code, 19);
    EXPECT_EQ(mh->getSnapshotState(), ldr::VALID);
    array->admin({"fault", "clear"});
    // A source the snapshot does not have.
    ldr::SSSourceList* other = ldr::make_sources({array->other_device({source})});
    EXPECT_TRUE(loader->take(mh->mount(other)));
    EXPECT_EQ(loader->code, 4);
    delete other;
    // The snapshot destroyed behind the module's back: the restore is asked
    // for the source -1 and refused.
    const std::vector<std::string> held = snaps(src[0]->frame);
    ASSERT_EQ(held.size(), 1u);
    array->admin({"tilloseccli", "-h", array->addr(src[0]->frame), "snap", "-destroy", "-id",
                  held[0], "-o"});
    ldr::SSTaskId task = -1;
    EXPECT_TRUE(loader->take(mh->rollBack(srcs, nullptr, task)));
    EXPECT_EQ(loader->code, 33);
    // Every address of every frame the loader named is asked before the
    // refusal stands, a frame that is down included.
    EXPECT_EQ(array->log_lines("-res -1 -o").size(), 2 * array->frames().size());
    delete srcs;
    loader->finish(mh);
}

// The directory service's two questions, for every subtype.
TEST_P(KvtLife, SupportAndInstancesForEverySubtype) {
    // A source with every technology configured, and a LUN with none.
    const std::vector<Array::MirrorSource> mirrored = array->mirror_sources(1);
    ASSERT_EQ(mirrored.size(), 1u);
    const Array::Lun& full = *mirrored[0].lun;
    ASSERT_TRUE(full.cow && !full.smp.empty());
    const std::string none = array->unconfigured_device();
    struct Case {
        const char* subtype;
        std::string device;
        int answer;
    };
    const std::vector<Case> cases = {
        {"COW", full.dev, 1},    {"cow", full.dev, 1},   {"COW", none, 0},
        {"MIRROR", full.dev, 1}, {"mirror", none, 0},    {"KVT-SNAP", full.dev, 1},
        {"kvt-snap", none, 0},   {"CLONE", full.dev, 0},
    };
    for (const Case& c : cases) {
        int yes = -1;
        std::string dev = c.device;
        EXPECT_FALSE(
            loader->take(loader->ds()->isServiceSupported(&dev[0], c.subtype, nullptr, yes)))
            << c.subtype << " " << loader->text;
        EXPECT_EQ(yes, c.answer) << c.subtype << " " << c.device;
    }
    // A device of another vendor is an error, not a plain no.
    int yes = -1;
    std::string foreign = array->foreign_device();
    EXPECT_TRUE(loader->take(loader->ds()->isServiceSupported(&foreign[0], "COW", nullptr, yes)));
    EXPECT_EQ(yes, 0);

    for (const char* sub : {"COW", "MIRROR", "KVT-SNAP", "kvt-snap"}) {
        ldr::IService* obj = nullptr;
        EXPECT_FALSE(loader->take(loader->ds()->getServiceInstance(sub, obj))) << sub;
        ASSERT_NE(obj, nullptr) << sub;
        cowtest::module().freeSSObject(obj);
    }
    ldr::IService* keep = reinterpret_cast<ldr::IService*>(0x1);
    EXPECT_FALSE(loader->take(loader->ds()->getServiceInstance("CLONE", keep)));
    EXPECT_EQ(keep, reinterpret_cast<ldr::IService*>(0x1));
}

COWTEST_OVER_SHAPES(KvtLife);

}  // namespace
