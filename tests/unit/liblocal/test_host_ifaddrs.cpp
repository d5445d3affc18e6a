// This machine's interface list against the address checks built on it, and
// the once-per-process start-up check that reports instead of exiting.
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <set>
#include <string>

#include "liblocal/kv_host.h"

namespace {

size_t count_of(const std::string& hay, const std::string& needle) {
    size_t n = 0;
    for (size_t p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + 1)) n++;
    return n;
}

TEST(HostIfaddrs, LoopbackIsListedAndEveryAddressIsMine) {
    kv_host_set_resolver(nullptr);  // the system's interfaces on both sides
    EXPECT_EQ(kv_get_ifaddresses(nullptr), -1);
    testing::internal::CaptureStdout();
    KVIfaddrs* list = nullptr;
    int rc = kv_get_ifaddresses(&list);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");  // traces never reach stdout
    ASSERT_EQ(rc, 0);
    ASSERT_NE(list, nullptr);

    bool lo4 = false;
    std::set<std::string> texts;
    for (KVIfaddrs* p = list; p != nullptr; p = p->ifa_next) {
        ASSERT_TRUE(p->ifa_addr.ss_family == AF_INET || p->ifa_addr.ss_family == AF_INET6)
            << p->ifa_name;
        EXPECT_NE(p->ifa_name[0], '\0');
        const sockaddr* sa = reinterpret_cast<const sockaddr*>(&p->ifa_addr);
        EXPECT_EQ(kv_is_myaddress(sa), 1) << p->ifa_name;
        char text[NI_MAXHOST];
        ASSERT_NE(kv_inet_ntop(sa, text, sizeof text), nullptr);
        texts.insert(text);
        if (strcmp(text, "127.0.0.1") == 0) {
            lo4 = true;
            EXPECT_NE(p->ifa_flags & IFF_LOOPBACK, 0u);
            EXPECT_EQ(p->ifa_hwaddr_valid, 1);  // a loopback has an all-zero one
            static const unsigned char zero[6] = {0, 0, 0, 0, 0, 0};
            EXPECT_EQ(memcmp(p->ifa_hwaddr, zero, 6), 0);
        }
    }
    EXPECT_TRUE(lo4);

    // The text list and the record list are two views of one set.
    char** addrs = nullptr;
    int n = kv_get_ipaddresses(&addrs);
    ASSERT_GE(n, 1);
    for (int i = 0; i < n; i++) {
        EXPECT_EQ(texts.count(addrs[i]), 1u) << addrs[i];
        free(addrs[i]);
    }
    free(addrs);

    // Each call hands out its own copy of the cached list.
    KVIfaddrs* again = nullptr;
    ASSERT_EQ(kv_get_ifaddresses(&again), 0);
    EXPECT_NE(again, list);
    kv_free_ifaddresses(list);
    ASSERT_NE(again, nullptr);
    EXPECT_NE(again->ifa_name[0], '\0');  // still readable after the first is freed
    kv_free_ifaddresses(again);
    kv_free_ifaddresses(nullptr);
}

int no_gai(const char*, const char*, const struct addrinfo*, struct addrinfo**) {
    return EAI_NONAME;
}
int odd_hostname(char* name, size_t len) {
    snprintf(name, len, "NoSuchHost-Kv");
    return 0;
}

TEST(HostSocketOnce, UnresolvableNamesAreReportedOnceAndTheProcessGoesOn) {
    kv_host_resolver r;
    memset(&r, 0, sizeof r);
    r.getaddrinfo = no_gai;
    r.gethostname = odd_hostname;
    kv_host_set_resolver(&r);
    testing::internal::CaptureStderr();
    _kv_socket_once();
    _kv_socket_once();
    std::string err = testing::internal::GetCapturedStderr();
    kv_host_set_resolver(nullptr);
    EXPECT_EQ(
        count_of(err,
                 "Failed to resolve hostname nosuchhost-kv to an internet address. Please verify "
                 "a mapping for /etc/hosts"),
        1u)
        << err;
    int fd = socket(AF_INET6, SOCK_STREAM, 0);
    size_t want6 = fd >= 0 ? 1 : 0;  // no IPv6 at all: nothing to check
    if (fd >= 0) close(fd);
    EXPECT_EQ(
        count_of(err,
                 "Failed to resolve the IPv6 localhost address ::1. Please verify an entry for the "
                 "IPv6 localhost\n"),
        want6)
        << err;
}

}  // namespace
