// A resolver for tests that answers from an /etc/hosts-style table and
// counts its calls; no query leaves the process.
#pragma once

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <atomic>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "liblocal/kv_host.h"

namespace fake_resolver {

struct Line {
    std::string ip;
    std::vector<std::string> names;  // first is the canonical name
};

inline std::vector<Line>& table() {
    static std::vector<Line> t;
    return t;
}
inline std::vector<std::string>& interfaces() {
    static std::vector<std::string> v;
    return v;
}
inline std::map<std::string, int>& gai_calls() {
    static std::map<std::string, int> m;
    return m;
}
inline std::atomic<int>& gni_calls() {
    static std::atomic<int> n{0};
    return n;
}
// Lines whose reverse lookup is refused (to model a missing PTR record).
inline std::vector<std::string>& no_reverse() {
    static std::vector<std::string> v;
    return v;
}
// Called on every resolver entry, for lock checks.
inline void (*&on_call())() {
    static void (*fn)() = nullptr;
    return fn;
}

inline void load(const std::string& path) {
    table().clear();
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream ss(line);
        Line l;
        ss >> l.ip;
        std::string n;
        while (ss >> n) l.names.push_back(n);
        if (!l.names.empty()) table().push_back(l);
    }
}

inline bool fill_sockaddr(const std::string& ip, sockaddr_storage* ss, socklen_t* len) {
    memset(ss, 0, sizeof *ss);
    sockaddr_in* s4 = reinterpret_cast<sockaddr_in*>(ss);
    sockaddr_in6* s6 = reinterpret_cast<sockaddr_in6*>(ss);
    if (inet_pton(AF_INET, ip.c_str(), &s4->sin_addr) == 1) {
        s4->sin_family = AF_INET;
        *len = sizeof *s4;
        return true;
    }
    if (inet_pton(AF_INET6, ip.c_str(), &s6->sin6_addr) == 1) {
        s6->sin6_family = AF_INET6;
        *len = sizeof *s6;
        return true;
    }
    return false;
}

inline addrinfo* node(const std::string& ip, const char* canon, const addrinfo* hints) {
    addrinfo* a = static_cast<addrinfo*>(calloc(1, sizeof(addrinfo)));
    sockaddr_storage* ss = static_cast<sockaddr_storage*>(calloc(1, sizeof(sockaddr_storage)));
    socklen_t len = 0;
    fill_sockaddr(ip, ss, &len);
    a->ai_family = ss->ss_family;
    a->ai_addr = reinterpret_cast<sockaddr*>(ss);
    a->ai_addrlen = len;
    if (hints != nullptr) {
        a->ai_socktype = hints->ai_socktype;
        a->ai_protocol = hints->ai_protocol;
    }
    if (canon != nullptr) a->ai_canonname = strdup(canon);
    return a;
}

inline void fake_freeaddrinfo(addrinfo* a) {
    while (a != nullptr) {
        addrinfo* n = a->ai_next;
        free(a->ai_addr);
        free(a->ai_canonname);
        free(a);
        a = n;
    }
}

inline int fake_getaddrinfo(const char* host, const char*, const addrinfo* hints, addrinfo** res) {
    if (on_call() != nullptr) on_call()();
    *res = nullptr;
    if (host == nullptr) return EAI_NONAME;
    gai_calls()[host]++;
    if (hints != nullptr && (hints->ai_flags & AI_NUMERICHOST) != 0) {
        sockaddr_storage ss;
        socklen_t len;
        if (!fill_sockaddr(host, &ss, &len)) return EAI_NONAME;
        *res = node(host, nullptr, hints);
        return 0;
    }
    addrinfo** tail = res;
    std::string canon;
    for (const Line& l : table()) {
        bool hit = strcasecmp(l.ip.c_str(), host) == 0;
        for (const std::string& n : l.names) hit = hit || strcasecmp(n.c_str(), host) == 0;
        if (!hit) continue;
        if (canon.empty()) canon = l.names[0];
        *tail =
            node(l.ip,
                 tail == res && hints != nullptr && (hints->ai_flags & AI_CANONNAME) ? canon.c_str()
                                                                                     : nullptr,
                 hints);
        tail = &(*tail)->ai_next;
    }
    return *res != nullptr ? 0 : EAI_NONAME;
}

inline int fake_getnameinfo(const sockaddr* sa, socklen_t, char* node, socklen_t nodelen,
                            char* serv, socklen_t servlen, int flags) {
    if (on_call() != nullptr) on_call()();
    gni_calls()++;
    char text[INET6_ADDRSTRLEN] = "";
    if (sa->sa_family == AF_INET)
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(sa)->sin_addr, text, sizeof text);
    else if (sa->sa_family == AF_INET6)
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(sa)->sin6_addr, text,
                  sizeof text);
    else
        return EAI_FAMILY;
    if (serv != nullptr && servlen > 0) serv[0] = '\0';
    if (node == nullptr) return 0;
    if (flags & NI_NUMERICHOST) {
        snprintf(node, nodelen, "%s", text);
        return 0;
    }
    for (const std::string& nr : no_reverse())
        if (nr == text) return EAI_NONAME;
    for (const Line& l : table()) {
        if (l.ip == text) {
            snprintf(node, nodelen, "%s", l.names[0].c_str());
            return 0;
        }
    }
    if (flags & NI_NAMEREQD) return EAI_NONAME;
    snprintf(node, nodelen, "%s", text);
    return 0;
}

inline int fake_gethostname(char* name, size_t len) {
    snprintf(name, len, "VM");
    return 0;
}

inline int fake_ifaddrs(sockaddr_storage* out, int max) {
    int n = 0;
    for (const std::string& ip : interfaces()) {
        if (n >= max) break;
        socklen_t len;
        if (fill_sockaddr(ip, &out[n], &len)) n++;
    }
    return n;
}

inline void install() {
    kv_host_resolver r;
    r.getaddrinfo = fake_getaddrinfo;
    r.freeaddrinfo = fake_freeaddrinfo;
    r.getnameinfo = fake_getnameinfo;
    r.gethostname = fake_gethostname;
    r.ifaddrs = fake_ifaddrs;
    kv_host_set_resolver(&r);
}

inline int total_gai() {
    int n = 0;
    for (auto& e : gai_calls()) n += e.second;
    return n;
}

}  // namespace fake_resolver
