// Cluster awareness: the probe of both back ends with stand-in tools, the
// plain-machine case, name matching, and the lock order with the host cache.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>

#include "host_fake_resolver.h"
#include "liblocal/kv_clu.h"
#include "liblocal/kv_host.h"
#include "tests/support/fixture.h"
#include "tests/support/temp_dir.h"

namespace {

// A scratch folder with stand-in cluster tools (tiny shell scripts).
class CluFixture : public ::testing::Test {
protected:
    zovtest::TempDir tmp{"clu_test_"};
    std::string dir;
    std::string marker;

    void SetUp() override {
        ASSERT_TRUE(tmp.ok());
        dir = tmp.path();
        marker = dir + "/ran";
        mkdir((dir + "/conf").c_str(), 0755);
        mkdir((dir + "/bin").c_str(), 0755);
        paths = {nullptr, nullptr, nullptr, nullptr, nullptr};
        kcmap = dir + "/kcmap";
        cache = dir + "/kcmap.out";
        conf = dir + "/conf";
        bin = dir + "/bin";
        mtab = dir + "/mtab";
        paths.kcmap = kcmap.c_str();
        paths.kcmap_cache = cache.c_str();
        paths.conf_dir = conf.c_str();
        paths.cmview_dir = bin.c_str();
        paths.mtab = mtab.c_str();
        clu_set_paths_for_test(&paths);
        clu_reset_for_test();
        unsetenv("NO_CLU_QUERY");
        unsetenv("VMR_KC_TYPE");
    }
    void TearDown() override {
        clu_set_paths_for_test(nullptr);
        clu_reset_for_test();
        unsetenv("NO_CLU_QUERY");
    }
    void script(const std::string& path, const std::string& body) {
        std::ofstream f(path);
        f << "#!/bin/sh\necho x >> '" << marker << "'\n" << body;
        f.close();
        chmod(path.c_str(), 0755);
    }
    void write(const std::string& path, const std::string& text) {
        std::ofstream f(path);
        f << text;
    }
    bool tool_ran() { return access(marker.c_str(), F_OK) == 0; }

    void lc_cluster() {
        script(kcmap,
               "cat <<'END'\n"
               "clu_type: generic\n"
               "clu_name: c1\n"
               "interface version: 1\n"
               "nodename: vm\n"
               "hostname: vip.example.test\n"
               "local: yes\n"
               "owned paths: /srv/vip, /srv/vip/deep\n"
               "hostname: far.example.test\n"
               "local: no\n"
               "owned paths: /srv\n"
               "END\n");
    }

    clu_paths paths;
    std::string kcmap, cache, conf, bin, mtab;
};

TEST_F(CluFixture, NoCluQueryTrueStartsNoTool) {
    lc_cluster();
    setenv("NO_CLU_QUERY", "true", 1);
    clu_init();
    EXPECT_FALSE(tool_ran());
    EXPECT_EQ(clu_is_cluster_host(), 0);
    EXPECT_EQ(clu_is_localvirthost("vip.example.test"), 0);
}

TEST_F(CluFixture, WithoutToolsTheHostIsPlainAndChildrenSkipTheProbe) {
    clu_init();
    EXPECT_EQ(Clu_cluster_type, 0);
    EXPECT_EQ(clu_is_cluster_host(), 0);
    EXPECT_EQ(clu_is_localvirthost("anything"), 0);
    EXPECT_EQ(clu_get_local_vhost_list(1), nullptr);
    const char* v = getenv("NO_CLU_QUERY");
    ASSERT_NE(v, nullptr);
    EXPECT_STREQ(v, "TRUE");
}

TEST_F(CluFixture, LcBackEndFindsLocalVirtualHostsAndPathOwners) {
    lc_cluster();
    clu_init();
    EXPECT_TRUE(tool_ran());
    EXPECT_EQ(Clu_cluster_type, 2);
    EXPECT_EQ(clu_is_cluster_host(), 1);
    EXPECT_EQ(clu_is_localvirthost("vip.example.test"), 1);
    EXPECT_EQ(clu_is_localvirthost("VIP"), 1);  // short form of the qualified name
    EXPECT_EQ(clu_is_localvirthost("far.example.test"), 0);
    EXPECT_EQ(clu_is_localvirthost(""), 0);
    char* first = clu_get_local_vhost_list(1);
    ASSERT_NE(first, nullptr);
    EXPECT_STREQ(first, "vip.example.test");
    EXPECT_EQ(clu_get_local_vhost_list(0), nullptr);

    char host[64];
    EXPECT_STREQ(clu_pathl_gethost("/srv/vip/deep/file", host, sizeof host), "vip.example.test");
    EXPECT_STREQ(clu_pathl_gethost("/srv/other", host, sizeof host), "far.example.test");
    EXPECT_EQ(clu_pathl_gethost("/srvx", host, sizeof host), nullptr);
    EXPECT_EQ(clu_pathl_gethost("/home", host, sizeof host), nullptr);
}

TEST_F(CluFixture, LcCacheFileServesLaterProbes) {
    lc_cluster();
    clu_init();
    ASSERT_EQ(access(cache.c_str(), R_OK), 0);
    unlink(marker.c_str());
    script(kcmap, "exit 1\n");  // a broken tool: the cache still answers
    clu_reset_for_test();
    clu_init();
    EXPECT_FALSE(tool_ran());
    EXPECT_EQ(clu_is_localvirthost("vip.example.test"), 1);
}

TEST_F(CluFixture, LcTypeMustMatchWhenAsked) {
    lc_cluster();
    setenv("VMR_KC_TYPE", "other", 1);
    clu_init();
    EXPECT_EQ(Clu_cluster_type, 0);
    unsetenv("VMR_KC_TYPE");
}

TEST_F(CluFixture, NativeBackEndNeedsItsConfFileAndReadsPackages) {
    char node[256];
    gethostname(node, sizeof node);
    std::string n = node;
    n = n.substr(0, n.find('.'));
    script(bin + "/cmviewcl", "if [ \"$2\" = node ]; then echo 'NODE STATUS STATE'; echo '" + n +
                                  " up running'; exit 0; fi\n"
                                  "echo 'PACKAGE STATUS STATE AUTO_RUN NODE'\n"
                                  "echo 'pkgA up running enabled " +
                                  n +
                                  "'\n"
                                  "echo 'pkgB up running enabled othernode'\n");
    mkdir((conf + "/pkgA").c_str(), 0755);
    write(conf + "/pkgA/pkgA.conf", "ip_address 127.0.3.1\nfs_directory /data/a\n");
    write(mtab, "/dev/sda1 /data/a ext4 rw 0 0\n");

    // Without the delimiter file the tool is never asked.
    clu_init();
    EXPECT_EQ(Clu_cluster_type, 0);
    EXPECT_FALSE(tool_ran());

    write(conf + "/.vmr_cluster", "VMR_CLUSTER_DELIMITER=:\n");
    unsetenv("NO_CLU_QUERY");
    clu_reset_for_test();
    clu_init();
    EXPECT_TRUE(tool_ran());
    EXPECT_EQ(Clu_cluster_type, 1);
    EXPECT_EQ(clu_is_localvirthost("pkgA"), 1);
    EXPECT_EQ(clu_is_localvirthost("127.0.3.1"), 1);
    EXPECT_EQ(clu_is_localvirthost("pkgB"), 0);
    char host[64];
    EXPECT_STREQ(clu_pathl_gethost("/data/a/x", host, sizeof host), "pkgA");
}

TEST_F(CluFixture, WithoutAClusterThePathAndMountCallsSayNoAndStartNothing) {
    lc_cluster();
    setenv("NO_CLU_QUERY", "TRUE", 1);
    write(mtab, "/dev/a /srv/vip ext4 rw 0 0\n/dev/c /srv gfs2 rw 0 0\n");
    EXPECT_EQ(clu_pathl_getmounts(), 0);
    EXPECT_EQ(clu_pathl_addvirthosts(), 0);
    clu_mntent_pos_t pos;
    memset(&pos, 0, sizeof pos);
    EXPECT_EQ(clu_get_vhost_mntent(&pos), nullptr);
    char name[64];
    EXPECT_EQ(clu_dflt_name(name, sizeof name), nullptr);
    EXPECT_EQ(clu_has_cfs(), 0);
    EXPECT_EQ(clu_pathl_hostpath_match("vip.example.test", "/srv/vip"), 0);
    EXPECT_FALSE(tool_ran());
}

TEST_F(CluFixture, PathListNormalizesDropsRepeatsAndPicksTheLongestOwner) {
    char out[64];
    EXPECT_STREQ(clu_pathl_normalize("//a/./b/../c/", out, sizeof out), "/a/c");
    EXPECT_STREQ(clu_pathl_normalize("/../..", out, sizeof out), "/");
    EXPECT_STREQ(clu_pathl_normalize("/a/b", out, 5), "/a/b");
    EXPECT_EQ(clu_pathl_normalize("/a/bc", out, 5), nullptr);  // no room for the terminator
    EXPECT_EQ(clu_pathl_normalize("rel/x", out, sizeof out), nullptr);
    EXPECT_EQ(clu_pathl_normalize("", out, sizeof out), nullptr);

    clu_pathl_addpath("/srv", "h2");
    clu_pathl_addpath("/srv//x/", "h1");
    clu_pathl_addpath("/srv/x", "h1");  // the same pair once normalized
    clu_pathl_addpath("relative", "h3");
    EXPECT_EQ(clu_pathl_finalize(), 2);
    char host[64];
    EXPECT_STREQ(clu_pathl_gethost("/srv/x/y", host, sizeof host), "h1");
    EXPECT_EQ(clu_pathl_hostpath_match("h1", "/srv/x/y"), 1);
    EXPECT_EQ(clu_pathl_hostpath_match("H1.example.test", "/srv/x"), 1);
    EXPECT_EQ(clu_pathl_hostpath_match("h2", "/srv/x/y"), 0);  // a longer prefix is h1's
    EXPECT_EQ(clu_pathl_hostpath_match("h2", "/srv/xy"), 1);
    EXPECT_EQ(clu_pathl_hostpath_match("h3", "relative"), 0);
    EXPECT_EQ(clu_pathl_hostpath_match("h2", "/home"), 0);
    clu_pathl_free();
    EXPECT_EQ(clu_pathl_gethost("/srv/x/y", host, sizeof host), nullptr);
}

TEST_F(CluFixture, LcClusterFactsMountsAndVirtualHostPaths) {
    lc_cluster();
    write(mtab,
          "/dev/a /srv/vip/deep/m ext4 rw 0 0\n"
          "/dev/b /home ext4 rw 0 0\n"
          "/dev/c /srv/shared gfs2 rw,noatime 0 0\n");
    clu_init();
    ASSERT_EQ(Clu_cluster_type, 2);
    char name[64];
    EXPECT_STREQ(clu_dflt_name(name, sizeof name), "c1");

    clu_mntent_pos_t pos;
    memset(&pos, 0, sizeof pos);
    kv_mntent* m = clu_get_vhost_mntent(&pos);
    ASSERT_NE(m, nullptr);
    EXPECT_STREQ(m->mnt_dir, "/srv/vip/deep/m");
    EXPECT_STREQ(m->mnt_fsname, "/dev/a");
    EXPECT_STREQ(m->mnt_vhost, "vip.example.test");
    m = clu_get_vhost_mntent(&pos);  // /home belongs to no virtual host
    ASSERT_NE(m, nullptr);
    EXPECT_STREQ(m->mnt_dir, "/srv/shared");
    EXPECT_STREQ(m->mnt_type, "gfs2");
    EXPECT_STREQ(m->mnt_opts, "rw,noatime");
    EXPECT_STREQ(m->mnt_vhost, "far.example.test");
    EXPECT_EQ(clu_get_vhost_mntent(&pos), nullptr);
    EXPECT_EQ(clu_get_vhost_mntent(&pos), nullptr);

    EXPECT_EQ(clu_has_cfs(), 1);
    write(mtab, "/dev/c /home gfs2 rw 0 0\n/dev/a /srv/vip ext4 rw 0 0\n");
    EXPECT_EQ(clu_has_cfs(), 0);  // a shared type outside the cluster's paths doesn't count

    // Only the virtual host active here brings its paths; twice adds nothing.
    EXPECT_EQ(clu_pathl_addvirthosts(), 2);
    EXPECT_EQ(clu_pathl_addvirthosts(), 0);
    EXPECT_EQ(clu_pathl_hostpath_match("vip", "/srv/vip/deep/f"), 1);
    write(mtab,
          "/dev/a /srv/vip ext4 rw 0 0\n/dev/b /srv/vip/deep/m ext4 rw 0 0\n/dev/c /home ext4 rw 0 "
          "0\n");
    EXPECT_EQ(clu_pathl_getmounts(), 1);  // /srv/vip is already listed, /home is nobody's
    char host[64];
    EXPECT_STREQ(clu_pathl_gethost("/srv/vip/deep/m/f", host, sizeof host), "vip.example.test");
    EXPECT_EQ(clu_pathl_getmounts(), 0);
    clu_pathl_free();

    EXPECT_EQ(clu_is_localvirthost("inst1"), 0);
    setenv("VMR_INSTANCE_NAME", "inst1.example.test", 1);
    EXPECT_STREQ(clu_get_vmrinstname(), "inst1.example.test");
    EXPECT_EQ(clu_is_localvirthost("inst1"), 1);
    unsetenv("VMR_INSTANCE_NAME");
    EXPECT_EQ(clu_get_vmrinstname(), nullptr);
}

TEST(CluMatch, ShortNameEqualsQualifiedName) {
    EXPECT_EQ(clu_hosts_matchbyname("vm", "vm.example.test", nullptr), 1);
    EXPECT_EQ(clu_hosts_matchbyname("VM.example.test", "vm", nullptr), 1);
    EXPECT_EQ(clu_hosts_matchbyname("vm.a.test", "vm.b.test", nullptr), 0);  // both qualified
    EXPECT_EQ(clu_hosts_matchbyname("vm", "vmx.example.test", nullptr), 0);
    EXPECT_EQ(clu_hosts_matchbyname("", "", nullptr), 0);
    EXPECT_EQ(clu_hosts_matchbyname(nullptr, nullptr, nullptr), 0);
    const char* p = "same";
    EXPECT_EQ(clu_hosts_matchbyname(p, p, nullptr), 1);
    EXPECT_EQ(clu_hosts_matchbyname("a", "b", [](const char*, const char*) { return 1; }), 1);
}

// Cluster and host cache together: lock order and the floating name.
class CluWithHosts : public CluFixture {
protected:
    void SetUp() override {
        CluFixture::SetUp();
        fake_resolver::load(zovtest::source_dir() + "/tests/fixtures/hosts/hosts");
        ASSERT_FALSE(fake_resolver::table().empty());
        // The floating address of the virtual host sits on an interface here.
        fake_resolver::interfaces() = {"127.0.0.1", "127.0.1.1", "127.0.2.50"};
        fake_resolver::no_reverse().clear();
        fake_resolver::install();
        lc_cluster();
    }
    void TearDown() override {
        fake_resolver::on_call() = nullptr;
        kv_host_set_resolver(nullptr);
        CluFixture::TearDown();
    }
};

TEST_F(CluWithHosts, FloatingNameIsMineButNeverAnAliasOfTheMachine) {
    EXPECT_EQ(is_myname("vip.example.test"), 1);
    EXPECT_EQ(samehost("vip.example.test", "vm"), 0);
    char* p = get_primaryhostname("vip.example.test");
    ASSERT_NE(p, nullptr);
    EXPECT_STREQ(p, "vip.example.test");
    free(p);
    EXPECT_EQ(samehost("127.0.2.50", "vm"), 0);
    EXPECT_EQ(is_myname("vm"), 1);
}

std::atomic<int> g_bad_order{0};
std::atomic<int> g_calls{0};
void check_dns_locks() {
    g_calls++;
    // Name lookups run under Myname_mutex and never under Kvclus_mutex.
    if (clu_lock_held()) g_bad_order++;
}

TEST_F(CluWithHosts, LockOrderIsHostCacheThenCluster) {
    fake_resolver::on_call() = check_dns_locks;
    g_bad_order = 0;
    std::atomic<int> similar_under_lock{0};
    static std::atomic<int>* flag;
    flag = &similar_under_lock;
    auto similar = [](const char* a, const char* b) {
        if (clu_lock_held()) (*flag)++;
        return clu_hostname_cmp(a, b);
    };
    // Both sides at once: a lock-order inversion would deadlock here.
    std::thread t1([] {
        for (int i = 0; i < 200; i++) {
            kv_host_request_flush(1);
            is_myname("vip.example.test");
            samehost("db", "dbalias");
        }
    });
    std::thread t2([&] {
        for (int i = 0; i < 200; i++) {
            clu_is_localvirthost("vip");
            clu_hosts_matchbyname("db", "dbalias", similar);
        }
    });
    t1.join();
    t2.join();
    EXPECT_GT(g_calls.load(), 0);
    EXPECT_EQ(g_bad_order.load(), 0);
    EXPECT_EQ(similar_under_lock.load(), 0);
    EXPECT_EQ(clu_hosts_matchbyname("db", "dbalias", similar), 1);
}

}  // namespace
