// Host identity: name matching through the host cache, its time limits on a
// fake clock, the clients' cache, and the name-service wrappers. Names come
// from an /etc/hosts-style fixture through a fake resolver (loopback only).
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "host_fake_resolver.h"
#include "liblocal/kv_clu.h"
#include "liblocal/kv_host.h"
#include "liblocal/kv_msg.h"
#include "tests/support/fixture.h"

namespace {

kv_time64_t g_now = 1000000;
kv_time64_t fake_clock() {
    return g_now;
}

class HostCache : public ::testing::Test {
protected:
    void SetUp() override {
        g_now = 1000000;
        kv_host_set_clock(fake_clock);
        // No cluster tools here: the host is a plain machine.
        clu_paths none = {"/nonexistent/kcmap", "/nonexistent/kcmap.out", "/nonexistent/conf",
                          "/nonexistent/bin", "/nonexistent/mtab"};
        clu_set_paths_for_test(&none);
        clu_reset_for_test();
        fake_resolver::load(zovtest::source_dir() + "/tests/fixtures/hosts/hosts");
        ASSERT_FALSE(fake_resolver::table().empty()) << "fixture not found; set ZOV_SOURCE_DIR";
        fake_resolver::interfaces() = {"127.0.0.1", "::1", "127.0.1.1", "0.0.0.0"};
        fake_resolver::no_reverse().clear();
        fake_resolver::on_call() = nullptr;
        fake_resolver::install();
        fake_resolver::gai_calls().clear();
    }
    void TearDown() override {
        kv_host_set_resolver(nullptr);
        kv_host_set_clock(nullptr);
        kv_host_set_cache_limits(0, 0);
        free_client_hostlist_cache();
        clu_set_paths_for_test(nullptr);
        clu_reset_for_test();
    }
};

TEST_F(HostCache, IsMyname_NullAndLocalhostNeedNoLookup) {
    EXPECT_EQ(is_myname(nullptr), 1);
    EXPECT_EQ(is_myname("LOCALHOST"), 1);
    EXPECT_EQ(fake_resolver::total_gai(), 0);
}

TEST_F(HostCache, ShortAndFullNameOfThisMachineAreOneHost) {
    EXPECT_EQ(samehost("vm", "vm.example.test"), 1);
    EXPECT_EQ(samehost("VM.example.test", "localhost"), 1);
    EXPECT_EQ(samehost("127.0.1.1", "vm"), 1);
    EXPECT_EQ(is_myname("vm"), 1);
    EXPECT_EQ(is_myname("vm.EXAMPLE.test"), 1);
    EXPECT_EQ(is_myname("127.0.0.1"), 1);
    EXPECT_EQ(is_myname("db"), 0);
    char* p = get_primaryhostname("vm");
    ASSERT_NE(p, nullptr);
    EXPECT_STREQ(p, "vm.example.test");
    free(p);
    char name[64];
    EXPECT_STREQ(kv_getlocalhost(name, sizeof name), "vm.example.test");
}

TEST_F(HostCache, OtherHostsGroupByMachine) {
    EXPECT_EQ(samehost("db", "dbalias"), 1);
    EXPECT_EQ(samehost("db.example.test", "127.0.2.11"), 1);  // second address of db
    EXPECT_EQ(samehost("db", "web"), 0);
    EXPECT_EQ(samehost("db", "nosuch"), 0);
    EXPECT_EQ(samehost("nosuch", "nosuch.too"), 0);
    EXPECT_EQ(samehost("Same", "sAME"), 1);  // equal names need no lookup
    EXPECT_EQ(samehost(nullptr, nullptr), 1);
    const char* p = "x";
    EXPECT_EQ(samehost(p, p), 1);
    EXPECT_EQ(is_validhostname("web"), 1);
    EXPECT_EQ(is_validhostname("nosuch"), 0);
    EXPECT_EQ(get_primaryhostname("nosuch"), nullptr);
    char* prim = get_primaryhostname("dbalias");
    EXPECT_STREQ(prim, "db.example.test");
    free(prim);
}

TEST_F(HostCache, UnknownHostIsRememberedForFiveMinutes) {
    EXPECT_EQ(is_validhostname("nosuch"), 0);
    int calls = fake_resolver::gai_calls()["nosuch"];
    EXPECT_GE(calls, 1);
    g_now += 299;
    EXPECT_EQ(is_validhostname("nosuch"), 0);
    EXPECT_EQ(fake_resolver::gai_calls()["nosuch"], calls);
    g_now += 2;
    EXPECT_EQ(is_validhostname("nosuch"), 0);
    EXPECT_GT(fake_resolver::gai_calls()["nosuch"], calls);
}

TEST_F(HostCache, FoundHostLivesHalfAnHour) {
    EXPECT_EQ(is_validhostname("web"), 1);
    int calls = fake_resolver::gai_calls()["web"];
    g_now += 1799;
    EXPECT_EQ(samehost("web", "web.example.test"), 1);
    EXPECT_EQ(fake_resolver::gai_calls()["web"], calls);
    g_now += 2;
    EXPECT_EQ(is_validhostname("web"), 1);
    EXPECT_GT(fake_resolver::gai_calls()["web"], calls);
}

TEST_F(HostCache, ANameThatMovesLeavesItsOldGroup) {
    EXPECT_EQ(samehost("db", "dbalias"), 1);
    // The table changes: dbalias now names the web machine.
    for (auto& l : fake_resolver::table()) {
        if (l.ip == "127.0.2.10") l.names = {"db.example.test", "db"};
        if (l.ip == "127.0.2.20") l.names = {"web.example.test", "web", "dbalias"};
    }
    g_now += 1801;
    EXPECT_EQ(samehost("dbalias", "web"), 1);
    EXPECT_EQ(samehost("db", "dbalias"), 0);
}

TEST_F(HostCache, DebugFlushForgetsAnswers) {
    EXPECT_EQ(is_validhostname("web"), 1);
    int calls = fake_resolver::gai_calls()["web"];
    EXPECT_EQ(is_validhostname("web"), 1);
    EXPECT_EQ(fake_resolver::gai_calls()["web"], calls);
    kv_host_request_flush(1);
    EXPECT_EQ(is_validhostname("web"), 1);
    EXPECT_GT(fake_resolver::gai_calls()["web"], calls);

    ASSERT_EQ(client_list_add_client("c1", nullptr), 0);
    kv_host_request_flush(1);
    EXPECT_EQ(sameclient("c1", "C1"), 1);
    char* p = get_primaryclientname("c1");
    EXPECT_STREQ(p, "c1");  // level 1 keeps the clients
    free(p);
    kv_host_request_flush(9);
    EXPECT_EQ(get_primaryclientname("c1"), nullptr);
}

TEST_F(HostCache, ClientListMatchesOnlyConfiguredNames) {
    const char* aliases[] = {"c1-backup", "10.0.0.1", nullptr};
    ASSERT_EQ(client_list_add_client("client1", aliases), 0);
    EXPECT_EQ(sameclient("client1", "C1-BACKUP"), 1);
    EXPECT_EQ(sameclient("10.0.0.1", "c1-backup"), 1);
    EXPECT_EQ(sameclient("client1", "other"), 0);
    EXPECT_EQ(sameclient(nullptr, nullptr), 0);
    EXPECT_EQ(fake_resolver::total_gai(), 0);  // no DNS for clients
    char* p = get_primaryclientname("c1-backup");
    EXPECT_STREQ(p, "client1");
    free(p);

    kvui_t id;
    kvui_create(&id, KVUI_CLIENT, 7);
    EXPECT_EQ(cache_client_id((char*)"c1-backup", &id), 0);
    kvui_t back;
    memset(&back, 0, sizeof back);
    EXPECT_EQ(get_cached_client_id((char*)"client1", &back), 0);
    EXPECT_EQ(memcmp(&id, &back, sizeof id), 0);
    EXPECT_EQ(get_cached_client_id((char*)"missing", &back), -1);

    client_list_remove_byname("client1");
    EXPECT_EQ(sameclient("client1", "c1-backup"), 0);
    EXPECT_EQ(get_primaryclientname("c1-backup"), nullptr);
}

TEST_F(HostCache, PrintNamesEveryEntryWithItsStatus) {
    EXPECT_EQ(is_validhostname("nosuch"), 0);
    ASSERT_EQ(client_list_add_client("cl", nullptr), 0);
    char* data = nullptr;
    size_t size = 0;
    FILE* fp = open_memstream(&data, &size);
    print_dns_cache_to(fp);
    fclose(fp);
    std::string out(data, size);
    free(data);
    EXPECT_EQ(out.find("DNS cache:\n"), 0u);
    EXPECT_NE(out.find("host: nosuch, status: STATUS_UNKNOWN_HOST, head: nosuch\n"),
              std::string::npos);
    EXPECT_NE(out.find("host: vm, status: STATUS_OK, head: vm.example.test\n"), std::string::npos);
    EXPECT_NE(out.find("Clients cache:\nhost: cl, status: STATUS_OK, head: cl\n"),
              std::string::npos);
}

TEST_F(HostCache, AddrinfoCachesSuccessAndFailure) {
    addrinfo hints;
    memset(&hints, 0, sizeof hints);
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_CANONNAME;
    addrinfo* res = nullptr;
    ASSERT_EQ(kv_getaddrinfo("db.example.test", "80", &hints, &res), 0);
    ASSERT_NE(res, nullptr);
    EXPECT_STREQ(res->ai_canonname, "db.example.test");
    EXPECT_NE(res->ai_next, nullptr);  // both addresses
    EXPECT_EQ(ntohs(reinterpret_cast<sockaddr_in*>(res->ai_addr)->sin_port),
              0);  // the fake sets none
    kv_freeaddrinfo(res);
    ASSERT_EQ(kv_getaddrinfo("db.example.test", "80", &hints, &res), 0);
    kv_freeaddrinfo(res);
    EXPECT_EQ(fake_resolver::gai_calls()["db.example.test"], 1);

    EXPECT_EQ(kv_getaddrinfo("nosuch", nullptr, &hints, &res), EAI_NONAME);
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(kv_getaddrinfo("nosuch", nullptr, &hints, &res), EAI_NONAME);
    EXPECT_EQ(fake_resolver::gai_calls()["nosuch"], 1);
    g_now += 301;
    EXPECT_EQ(kv_getaddrinfo("nosuch", nullptr, &hints, &res), EAI_NONAME);
    EXPECT_EQ(fake_resolver::gai_calls()["nosuch"], 2);

    // The any-address needs no resolver at all.
    ASSERT_EQ(kv_getaddrinfo("0.0.0.0", "22", &hints, &res), 0);
    EXPECT_EQ(res->ai_family, AF_INET);
    EXPECT_EQ(ntohs(reinterpret_cast<sockaddr_in*>(res->ai_addr)->sin_port), 22);
    kv_freeaddrinfo(res);
    ASSERT_EQ(kv_getaddrinfo("::", nullptr, &hints, &res), 0);
    EXPECT_EQ(res->ai_family, AF_INET6);
    kv_freeaddrinfo(res);
    EXPECT_EQ(fake_resolver::gai_calls().count("0.0.0.0"), 0u);

    // A numeric query gets its canonical name through the reverse lookup.
    ASSERT_EQ(kv_getaddrinfo("127.0.2.20", nullptr, &hints, &res), 0);
    EXPECT_STREQ(res->ai_canonname, "web.example.test");
    kv_freeaddrinfo(res);
}

TEST_F(HostCache, NameinfoIsCached) {
    sockaddr_in sa;
    memset(&sa, 0, sizeof sa);
    sa.sin_family = AF_INET;
    inet_pton(AF_INET, "127.0.2.20", &sa.sin_addr);
    char node[256];
    int before = fake_resolver::gni_calls().load();
    ASSERT_EQ(kv_getnameinfo(reinterpret_cast<sockaddr*>(&sa), sizeof sa, node, sizeof node,
                             nullptr, 0, NI_NAMEREQD),
              0);
    EXPECT_STREQ(node, "web.example.test");
    ASSERT_EQ(kv_getnameinfo(reinterpret_cast<sockaddr*>(&sa), sizeof sa, node, sizeof node,
                             nullptr, 0, NI_NAMEREQD),
              0);
    EXPECT_EQ(fake_resolver::gni_calls().load(), before + 1);
}

struct Report {
    int id, errnum, dest;
    std::string text;
    bool under_host_lock;
};
std::vector<Report> g_reports;
void report_hook(int dest, errinfo* m) {
    g_reports.push_back({m->MsgId, m->errnum, dest, m->errstr, kv_host_lock_held() != 0});
}

// The failed reverse lookup is reported through the logging hook, once the
// host lock is let go (a hook may ask about names itself); the console
// gets nothing, and the cached answer reports nothing again.
TEST_F(HostCache, MachineWithoutReverseNameIsUnknownAndReported) {
    fake_resolver::no_reverse() = {"127.0.2.60"};
    g_reports.clear();
    msg_set_post_func(report_hook);
    testing::internal::CaptureStderr();
    EXPECT_EQ(is_validhostname("noreverse-only"), 0);
    EXPECT_EQ(is_validhostname("noreverse-only"), 0);
    std::string console = testing::internal::GetCapturedStderr();
    msg_set_post_func(nullptr);
    ASSERT_EQ(g_reports.size(), 1u);
    EXPECT_EQ(g_reports[0].id, 82666);
    EXPECT_EQ(g_reports[0].errnum, 12000);
    EXPECT_EQ(g_reports[0].dest, MSG_DEST_LOGONLY);
    EXPECT_EQ(g_reports[0].text.rfind("Reverse DNS lookup failed for noreverse-only: ", 0), 0u);
    EXPECT_FALSE(g_reports[0].under_host_lock);
    EXPECT_EQ(console.find("Reverse DNS"), std::string::npos);
}

// The table at its limit: each lookup adds a group of three names (the
// canonical name, the address, the short name). The names sort before their
// addresses and are looked up in falling order, so the group being built
// always stands first in the table, where a hard trim starts.
TEST_F(HostCache, FullTableKeepsTheGroupBeingBuilt) {
    kv_host_set_cache_limits(2048, 0);
    const int hosts = 1500;  // 4500 names: the table trims several times
    char ip[64], name[32], full[64];
    for (int i = hosts; i > 0; --i) {
        snprintf(ip, sizeof ip, "fd00::%x", i);
        snprintf(name, sizeof name, "c%05d", i);
        snprintf(full, sizeof full, "%s.example.test", name);
        fake_resolver::table().push_back({ip, {full, name}});
    }
    for (int i = hosts; i > 0; --i) {
        snprintf(ip, sizeof ip, "fd00::%x", i);
        snprintf(name, sizeof name, "c%05d", i);
        snprintf(full, sizeof full, "%s.example.test", name);
        char* p = get_primaryhostname(name);
        ASSERT_NE(p, nullptr) << name;
        EXPECT_STREQ(p, full);
        free(p);
        ASSERT_EQ(samehost(name, ip), 1) << name;
    }
    // This machine's group is never trimmed.
    EXPECT_EQ(is_myname("vm"), 1);
}

// However many interfaces the machine has, each one's address is this
// host's, and its reverse name an alias of this machine.
TEST_F(HostCache, EveryInterfaceCountsHoweverMany) {
    fake_resolver::interfaces() = {"127.0.0.1"};
    char ip[32], name[64];
    for (int i = 1; i <= 100; ++i) {
        snprintf(ip, sizeof ip, "10.9.0.%d", i);
        snprintf(name, sizeof name, "if%d.example.test", i);
        fake_resolver::interfaces().push_back(ip);
        fake_resolver::table().push_back({ip, {name}});
    }
    char** list = nullptr;
    ASSERT_EQ(kv_get_ipaddresses(&list), 101);
    EXPECT_STREQ(list[100], "10.9.0.100");
    for (char** p = list; *p != nullptr; p++) free(*p);
    free(list);
    sockaddr_storage ss;
    ASSERT_EQ(kv_inet_pton("10.9.0.100", &ss), 1);
    EXPECT_EQ(kv_is_myaddress(reinterpret_cast<sockaddr*>(&ss)), 1);
    EXPECT_EQ(is_myname("if100.example.test"), 1);
    EXPECT_EQ(samehost("10.9.0.99", "vm"), 1);
}

// The answer caches of kv_getaddrinfo and kv_getnameinfo let expired answers
// go and stay bounded however many names are asked.
TEST_F(HostCache, AnswerCachesDropExpiredAnswersAndStayBounded) {
    addrinfo hints;
    memset(&hints, 0, sizeof hints);
    addrinfo* res = nullptr;
    char name[32];
    size_t addrs = 0, names = 0;
    for (int i = 0; i < 20000; ++i) {
        snprintf(name, sizeof name, "gone%d", i);
        ASSERT_EQ(kv_getaddrinfo(name, nullptr, &hints, &res), EAI_NONAME);
        sockaddr_in sa;
        memset(&sa, 0, sizeof sa);
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(0x0A000000u + (uint32_t)i);
        char node[64];
        kv_getnameinfo(reinterpret_cast<sockaddr*>(&sa), sizeof sa, node, sizeof node, nullptr, 0,
                       NI_NAMEREQD);
        kv_host_addr_cache_counts(&addrs, &names);
        ASSERT_LE(addrs, 8192u) << i;
        ASSERT_LE(names, 8192u) << i;
    }
    EXPECT_GT(addrs, 1000u);  // still a cache
    // Once their five minutes are over, the failures go at the next answer.
    g_now += 301;
    ASSERT_EQ(kv_getaddrinfo("gone-late", nullptr, &hints, &res), EAI_NONAME);
    kv_host_addr_cache_counts(&addrs, nullptr);
    EXPECT_EQ(addrs, 1u);
}

// The system's own resolver, on names this machine always has.
TEST(HostSystemResolver, LoopbackResolvesAndReverses) {
    kv_host_set_resolver(nullptr);
    addrinfo hints;
    memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_INET;
    addrinfo* res = nullptr;
    ASSERT_EQ(kv_getaddrinfo("127.0.0.1", nullptr, &hints, &res), 0);
    ASSERT_NE(res, nullptr);
    EXPECT_EQ(res->ai_family, AF_INET);
    kv_freeaddrinfo(res);
    sockaddr_in sa;
    memset(&sa, 0, sizeof sa);
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    char node[256];
    ASSERT_EQ(kv_getnameinfo(reinterpret_cast<sockaddr*>(&sa), sizeof sa, node, sizeof node,
                             nullptr, 0, NI_NUMERICHOST),
              0);
    EXPECT_STREQ(node, "127.0.0.1");
    char name[256];
    EXPECT_EQ(kv_gethostname(name, sizeof name), 0);
    EXPECT_NE(name[0], '\0');
}

}  // namespace

namespace {

TEST(HostNumeric, MappedIpv4ReadsAsIpv4AndOtherFamiliesFail) {
    kv_host_set_resolver(nullptr);
    sockaddr_storage ss;
    ASSERT_EQ(kv_inet_pton("::FFFF:127.0.0.1", &ss), 1);
    char text[64];
    ASSERT_NE(kv_inet_ntop(reinterpret_cast<sockaddr*>(&ss), text, sizeof text), nullptr);
    EXPECT_STREQ(text, "127.0.0.1");
    ASSERT_EQ(kv_inet_pton("fd00::2", &ss), 1);
    ASSERT_NE(kv_inet_ntop(reinterpret_cast<sockaddr*>(&ss), text, sizeof text), nullptr);
    EXPECT_STREQ(text, "fd00::2");
    EXPECT_EQ(kv_inet_pton("not-an-address", &ss), 0);
    sockaddr bad;
    memset(&bad, 0, sizeof bad);
    bad.sa_family = AF_UNIX;
    errno = 0;
    EXPECT_EQ(kv_inet_ntop(&bad, text, sizeof text), nullptr);
    EXPECT_EQ(errno, EAFNOSUPPORT);
    char tiny[4];
    ASSERT_EQ(kv_inet_pton("127.0.0.1", &ss), 1);
    EXPECT_EQ(kv_inet_ntop(reinterpret_cast<sockaddr*>(&ss), tiny, sizeof tiny), nullptr);
}

TEST_F(HostCache, MyAddressesAreLoopbackAndInterfaces) {
    sockaddr_storage ss;
    ASSERT_EQ(kv_inet_pton("127.0.9.9", &ss), 1);
    EXPECT_EQ(kv_is_myaddress(reinterpret_cast<sockaddr*>(&ss)), 1);
    ASSERT_EQ(kv_inet_pton("127.0.1.1", &ss), 1);
    EXPECT_EQ(kv_is_myaddress(reinterpret_cast<sockaddr*>(&ss)), 1);
    fake_resolver::interfaces() = {"::1", "10.1.2.3"};
    ASSERT_EQ(kv_inet_pton("10.1.2.3", &ss), 1);
    EXPECT_EQ(kv_is_myaddress(reinterpret_cast<sockaddr*>(&ss)), 1);
    ASSERT_EQ(kv_inet_pton("10.1.2.4", &ss), 1);
    EXPECT_EQ(kv_is_myaddress(reinterpret_cast<sockaddr*>(&ss)), 0);
    sockaddr_storage one;
    ASSERT_EQ(kv_get_ifaddress(&one), 0);
    char text[64];
    EXPECT_STREQ(kv_inet_ntop(reinterpret_cast<sockaddr*>(&one), text, sizeof text), "10.1.2.3");
    char** list = nullptr;
    ASSERT_EQ(kv_get_ipaddresses(&list), 2);
    EXPECT_STREQ(list[0], "::1");
    EXPECT_STREQ(list[1], "10.1.2.3");
    EXPECT_EQ(list[2], nullptr);
    for (char** p = list; *p != nullptr; p++) free(*p);
    free(list);
}

}  // namespace
