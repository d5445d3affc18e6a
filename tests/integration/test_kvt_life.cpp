// Advanced snapshots through the loader's interface against a simulated
// array: sources by path without groups, a consistency group by WWN, the
// mount host's life, rollback, the failure paths; and the directory
// service's two questions for every subtype.
#include <regex>

#include "tests/integration/cow_fixture.h"

namespace {

using cowtest::Array;
using cowtest::Loader;

class KvtLife : public ::testing::Test {
protected:
    KvtLife() : array({"--frames", "1", "--luns", "4"}) {}
    void SetUp() override {
        ASSERT_TRUE(array.ok()) << "simulated array";
        loader.reset(new Loader);
        ASSERT_TRUE(loader->ok()) << loader->text;
        loader->tech = "KVT-SNAP";
    }
    // A LUN's WWN in the colon-free form the loader hands over.
    std::string wwn(int lun) {
        std::string out;
        array.admin(
            {"tilloseccli", "-h", "198.18.0.1", "lun", "-list", "-l", std::to_string(lun), "-uid"},
            &out);
        size_t at = out.find("UID:");
        std::string w;
        for (char c : out.substr(out.find_first_not_of(" ", at + 4)))
            if (c == '\n')
                break;
            else if (c != ':')
                w += c;
        return w;
    }
    std::vector<std::string> snaps() {
        std::string out;
        array.admin({"tilloseccli", "-h", "198.18.0.1", "snap", "-list"}, &out);
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
    Array array;
    std::unique_ptr<Loader> loader;
};

TEST_F(KvtLife, UngroupedPathSourcesThenMountHostLife) {
    ldr::ISnapshot* s = enrolled({array.dev("sdd"), array.dev("sdg")}, false);
    ASSERT_NE(s, nullptr) << loader->text;
    std::string guid, details;
    ASSERT_TRUE(snap(s, guid, details)) << loader->text << loader->errors;
    cowtest::module().freeSSObject(s);
    // One snapshot per source, named by the LUN; each record carries the SMP.
    std::regex form("KVTv1;198\\.18\\.0\\.1:198\\.18\\.0\\.2;" + guid + "-[0-9]{12}0000\\|" +
                    array.dev("sdd") + "-10000;" + guid + "-[0-9]{12}0001\\|" + array.dev("sdg") +
                    "-10001");
    EXPECT_TRUE(std::regex_match(details, form)) << details;
    EXPECT_EQ(array.log_lines("snap -create -res 0 ").size(), 1u);
    EXPECT_EQ(array.log_lines("snap -create -res 1 ").size(), 1u);
    EXPECT_EQ(array.log_lines("flush -o " + array.dev("sdd")).size(), 1u);
    EXPECT_EQ(snaps().size(), 2u);

    ldr::ISnapshot* mh = loader->from_handle(guid, details);
    ASSERT_NE(mh, nullptr) << loader->text;
    ASSERT_FALSE(loader->take(mh->validate(nullptr))) << loader->text;
    EXPECT_EQ(mh->getSnapshotState(), ldr::VALID);
    // The handle's SMP is dropped with the source name's tail.
    ldr::SSSourceList* srcs = nullptr;
    ASSERT_FALSE(loader->take(mh->getSourceList(srcs)));
    EXPECT_EQ(ldr::names_of(srcs), (std::vector<std::string>{array.dev("sdd"), array.dev("sdg")}));
    ASSERT_FALSE(loader->take(mh->mount(srcs))) << loader->text;
    ldr::SSSourceList* paths = nullptr;
    ASSERT_FALSE(loader->take(mh->getSnapshotAccessPath(srcs, paths)));
    // Each snapshot shows at its source's snapshot mount point device.
    EXPECT_EQ(ldr::names_of(paths), (std::vector<std::string>{array.dev("sdc"), array.dev("sdf")}));
    cowtest::module().freeSSObject(paths);
    ASSERT_FALSE(loader->take(mh->unmount(srcs))) << loader->text;
    EXPECT_EQ(mh->getSnapshotState(), ldr::UNINIT);
    EXPECT_EQ(array.log_lines("fenlok detach").size(), 2u);
    // An advanced snapshot can be deleted by the object that unmounted it.
    ASSERT_FALSE(loader->take(mh->deleteSnapshot())) << loader->text;
    EXPECT_EQ(mh->getSnapshotState(), ldr::ERROR);
    EXPECT_TRUE(snaps().empty());
    cowtest::module().freeSSObject(srcs);
    loader->finish(mh);
}

TEST_F(KvtLife, ConsistencyGroupByWwnIsOneSnapshotSharedByItsSources) {
    ldr::ISnapshot* s = enrolled({wwn(2), wwn(3)}, true);
    ASSERT_NE(s, nullptr) << loader->text << loader->errors;
    std::string guid, details;
    ASSERT_TRUE(snap(s, guid, details)) << loader->text << loader->errors;
    cowtest::module().freeSSObject(s);
    EXPECT_EQ(array.log_lines("snap -create").size(), 1u);
    EXPECT_EQ(array.log_lines("snap -create -res CG0_0 ").size(), 1u);
    std::regex form("KVTv1;[^;]+;(" + guid + "-[0-9]{16})\\|[^;]+;(" + guid + "-[0-9]{16})\\|.+");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(details, m, form)) << details;
    EXPECT_EQ(m[1].str(), m[2].str());
    EXPECT_EQ(snaps(), std::vector<std::string>{m[1].str()});

    // Restore from the mount host's object: both sources name the snapshot.
    ldr::ISnapshot* r = loader->from_handle(guid, details);
    ASSERT_NE(r, nullptr);
    ldr::SSSourceList* srcs = nullptr;
    ASSERT_FALSE(loader->take(r->validate(nullptr)));
    ASSERT_FALSE(loader->take(r->getSourceList(srcs)));
    ldr::SSTaskId task = -1;
    ASSERT_FALSE(loader->take(r->rollBack(srcs, nullptr, task))) << loader->text;
    EXPECT_EQ(array.log_lines("snap -restore -id " + m[1].str()).size(), 2u);
    cowtest::module().freeSSObject(srcs);
    ASSERT_FALSE(loader->take(r->deleteSnapshot()));
    loader->finish(r);
}

TEST_F(KvtLife, SourcesTheRuleOfGroupsRefuses) {
    struct Case {
        const char* what;
        std::vector<std::string> sources;
        bool byWwn;
    };
    const std::vector<Case> cases = {
        {"a grouped LUN given by path", {array.dev("sdj")}, false},
        {"a WWN outside any group", {wwn(0)}, true},
        {"a LUN without a snapshot mount point", {array.dev("sdn")}, false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(enrolled(c.sources, c.byWwn), nullptr) << c.what;
        EXPECT_NE(loader->code, 0) << c.what;
    }
    EXPECT_TRUE(array.log_lines("snap -create").empty());
}

TEST_F(KvtLife, ArrayFailuresEndInTheirErrors) {
    // The array refuses the create: the snapshot call itself succeeds, and
    // validate finds it missing and cleans up.
    array.admin({"fault", "add", "tilloseccli", "refuse", "--match", "-create"});
    ldr::ISnapshot* s = enrolled({array.dev("sdd")}, false);
    ASSERT_NE(s, nullptr);
    std::string guid, details;
    ASSERT_TRUE(snap(s, guid, details)) << loader->text;
    cowtest::module().freeSSObject(s);
    array.admin({"fault", "clear"});
    ldr::ISnapshot* mh = loader->from_handle(guid, details);
    ASSERT_NE(mh, nullptr);
    EXPECT_TRUE(loader->take(mh->validate(nullptr)));
    EXPECT_EQ(loader->code, 21);
    EXPECT_NE(loader->text.find("Failed to validate session name"), std::string::npos);
    EXPECT_EQ(array.log_lines("snap -destroy").size(), 1u);
    loader->finish(mh);

    // A real snapshot; the host tool's attach prints nothing it can use.
    s = enrolled({array.dev("sdd")}, false);
    ASSERT_NE(s, nullptr);
    ASSERT_TRUE(snap(s, guid, details)) << loader->text;
    cowtest::module().freeSSObject(s);
    mh = loader->from_handle(guid, details);
    ASSERT_FALSE(loader->take(mh->validate(nullptr)));
    array.admin({"fault", "add", "fenlok", "garbage"});
    ldr::SSSourceList* srcs = ldr::make_sources({array.dev("sdd")});
    EXPECT_TRUE(loader->take(mh->mount(srcs)));
    EXPECT_EQ(loader->code, 19);
    EXPECT_EQ(mh->getSnapshotState(), ldr::VALID);
    array.admin({"fault", "clear"});
    // A source the snapshot does not have.
    ldr::SSSourceList* other = ldr::make_sources({array.dev("sdg")});
    EXPECT_TRUE(loader->take(mh->mount(other)));
    EXPECT_EQ(loader->code, 4);
    delete other;
    // The snapshot destroyed behind the module's back: the restore is asked
    // for the source -1 and refused.
    array.admin(
        {"tilloseccli", "-h", "198.18.0.1", "snap", "-destroy", "-id", snaps().at(0), "-o"});
    ldr::SSTaskId task = -1;
    EXPECT_TRUE(loader->take(mh->rollBack(srcs, nullptr, task)));
    EXPECT_EQ(loader->code, 33);
    // Each of the frame's two addresses is asked before the refusal stands.
    EXPECT_EQ(array.log_lines("-res -1 -o").size(), 2u);
    delete srcs;
    loader->finish(mh);
}

// The directory service's two questions, for every subtype.
TEST_F(KvtLife, SupportAndInstancesForEverySubtype) {
    struct Case {
        const char* subtype;
        const char* device;
        int answer;
    };
    const std::vector<Case> cases = {
        {"COW", "sdd", 1},    {"cow", "sdd", 1},      {"COW", "sdn", 0},      {"MIRROR", "sdd", 1},
        {"mirror", "sdn", 0}, {"KVT-SNAP", "sdd", 1}, {"kvt-snap", "sdn", 0}, {"CLONE", "sdd", 0},
    };
    for (const Case& c : cases) {
        int yes = -1;
        std::string dev = array.dev(c.device);
        EXPECT_FALSE(
            loader->take(loader->ds()->isServiceSupported(&dev[0], c.subtype, nullptr, yes)))
            << c.subtype << " " << loader->text;
        EXPECT_EQ(yes, c.answer) << c.subtype << " " << c.device;
    }
    // A device of another vendor is an error, not a plain no.
    int yes = -1;
    std::string foreign = array.dev("sda");
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

}  // namespace
