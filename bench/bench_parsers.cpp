// The command layer's parsers on the listings of a large array (10,000 and
// 100,000 LUNs): volume map, storage-group listing with its HLU table,
// `getlun -uid`, clone-group listing and session listing, fed through a
// stream as a child's output is, under the "C" locale and under a UTF-8 one.
// Prints, besides Google Benchmark's table, one GOAL line per parser:
// lines per second, the UTF-8 to "C" ratio and the 100,000 to 10,000 ratio.
#include <locale.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_goals.h"
#include "storage/ssm/merlode/cli/zov_quillset.h"

namespace {

const char* const kFrame = "198.18.0.1";
const char* const kGroup = "SG_benchhost";

std::string this_host() {
    char buf[256] = {0};
    gethostname(buf, sizeof buf - 1);
    return buf;
}

std::string wwn_of(int lun) {
    char buf[64];
    snprintf(buf, sizeof buf, "60:06:01:60:00:00:00:00:00:00:00:01:%02X:%02X:%02X:%02X",
             (lun >> 24) & 0xff, (lun >> 16) & 0xff, (lun >> 8) & 0xff, lun & 0xff);
    return buf;
}

// sda, sdb, ..., sdz, sdaa, ... as the host names its disks.
std::string disk_of(int lun) {
    std::string letters;
    for (int n = lun + 1; n > 0; n = (n - 1) / 26)
        letters.insert(letters.begin(), char('a' + (n - 1) % 26));
    return "sd" + letters;
}

// ------------------------------------------------------------ listings

std::string volmap_listing(int luns) {
    std::string s;
    char buf[512];
    for (int i = 0; i < luns; i++) {
        snprintf(buf, sizeof buf,
                 "Device Id:               /dev/%s\nDevice Name:             %s\n"
                 "Device Mapping:          /mnt/d%d\nLOGICAL UNIT WWN:        %s\n"
                 "LOGICAL UNIT NUMBER:     %d\nTrespassed:              NO\n"
                 "LUN Capacity(Blocks):    2097152\n\n",
                 disk_of(i).c_str(), disk_of(i).c_str(), i, wwn_of(i).c_str(), i);
        s += buf;
    }
    return s;
}

// One group holding every LUN, this host's, as the last one listed.
std::string storagegroup_listing(int luns) {
    std::string s =
        "Storage Group Name:    other_sg\n"
        "Storage Group UID:     AA:BB:CC:DD:EE:FF:00:11:22:33:44:55:66:77:88:99\n"
        "HBA/SP Pairs:\n\n"
        "  HBA UID                                          SP Name     SPPort\n"
        "  -------                                          -------     ------\n"
        "  20:00:00:00:C9:77:00:02:10:00:00:00:C9:77:00:02   SP A         1\n\n"
        "HLU/ALU Pairs:\n\n"
        "  HLU Number     ALU Number\n"
        "  ----------     ----------\n"
        "    1               40\n"
        "Host name:             otherhost\n"
        "Shareable:             YES\n\n";
    s += std::string("Storage Group Name:    ") + kGroup + "\n";
    s += "Storage Group UID:     8A:2B:11:90:4C:5D:E1:11:9A:00:60:16:0B:7C:20:01\n"
         "HBA/SP Pairs:\n\n"
         "  HBA UID                                          SP Name     SPPort\n"
         "  -------                                          -------     ------\n"
         "  20:00:00:00:C9:5E:A1:01:10:00:00:00:C9:5E:A1:01   SP A         0\n\n"
         "HLU/ALU Pairs:\n\n"
         "  HLU Number     ALU Number\n"
         "  ----------     ----------\n";
    char buf[64];
    for (int i = 0; i < luns; i++) {
        snprintf(buf, sizeof buf, "    %-15d %d\n", i, i);
        s += buf;
    }
    s += "Host name:             " + this_host() + "\nShareable:             YES\n\n";
    return s;
}

std::string getlun_listing(int luns) {
    std::string s;
    char buf[160];
    for (int i = 0; i < luns; i++) {
        snprintf(buf, sizeof buf, "LOGICAL UNIT NUMBER %d\nUID:                        %s\n\n", i,
                 wwn_of(i).c_str());
        s += buf;
    }
    return s;
}

// Every LUN in a group: a source and its two clones, one in ten of the
// clones mid-synchronisation.
std::string clonegroup_listing(int luns) {
    std::string s;
    char buf[1024];
    for (int g = 0; g * 3 < luns; g++) {
        snprintf(buf, sizeof buf,
                 "Name:               CloneGrp_%d\n"
                 "CloneGroupUid:      50:06:01:60:00:00:00:00:00:00:00:00:%02X:%02X:%02X:%02X\n"
                 "InSync:             Yes\nSources:            %d\nClones:             2\n"
                 "CloneCount:         2\nQuiesceThreshold:   60\n",
                 g, (g >> 24) & 0xff, (g >> 16) & 0xff, (g >> 8) & 0xff, g & 0xff, 3 * g);
        s += buf;
        for (int c = 1; c <= 2; c++) {
            bool syncing = (g + c) % 10 == 0;
            snprintf(buf, sizeof buf,
                     "CloneID:            0%d00000000000000\nCloneState:         %s\n"
                     "CloneCondition:     %s\nAvailableForIO:     No\n"
                     "PercentSynced:      %d\nSyncRate:           %s\nCloneLUNs:          %d\n"
                     "CloneLUNWWNs:       %s\nIsFractured:        No\n",
                     c, syncing ? "Synchronizing" : "Synchronized",
                     syncing ? "Synchronizing" : "Normal", syncing ? 25 : 100,
                     syncing ? "3981" : "high", 3 * g + c, wwn_of(3 * g + c).c_str());
            s += buf;
        }
        s += "\n";
    }
    return s;
}

std::string session_listing(int luns) {
    std::string s;
    char name[128];
    for (int i = 0; i < luns; i++) {
        // The module's own names: a fixed length, the time stamp at the end.
        snprintf(name, sizeof name, "zovmerl-l%07d-cow", i);
        std::string n = name;
        n.resize(54, '-');
        s += "Name of the session:  " + n + "2024010210000001\n";
        s += "Session creation time:  Tue Jan  2 10:00:00 2024\n";
    }
    return s;
}

// ------------------------------------------------------------ parsers

void quiet_log(int, const char*, int, const char*, void*) {}

// One parser: the listing it reads, how it is called, and what the object
// must hold before each call (the array's tables that the module reads
// earlier in the same operation, which the parser consults).
struct Parser {
    const char* name;
    std::string (*listing)(int);
    std::function<void(zov_quillset&, int luns)> prepare;
    std::function<void(zov_quillset&, FILE*)> parse;
};

void known_wwns(zov_quillset& q, int luns) {
    q.m_arrayLunUID.clear();
    for (int i = 0; i < luns; i++) {
        ArrayLunUID u;
        for (char c : wwn_of(i))
            if (c != ':') u.lunUID += c;
        u.lunID = i;
        q.m_arrayLunUID.push_back(u);
    }
}

void host_group(zov_quillset& q, int luns) {
    q.m_storagegrouplist.clear();
    q.add_storagegroup(kFrame, "sp0", kGroup);
    for (int i = 0; i < luns; i++) q.add_hlualu(q.m_storagegrouplist.begin(), i, i);
}

const std::vector<Parser>& parsers() {
    static const std::vector<Parser> all = {
        {"volmap_wizard", volmap_listing,
         [](zov_quillset& q, int luns) {
             known_wwns(q, luns);
             q.m_volMapList.clear();
             q.m_mountToLun.clear();
         },
         [](zov_quillset& q, FILE* f) { q.processInitVolMap(f, CONFIGWIZARD); }},
        {"volmap_source", volmap_listing,
         [](zov_quillset& q, int luns) {
             known_wwns(q, luns);
             q.m_volMapList.clear();
         },
         [](zov_quillset& q, FILE* f) { q.processInitVolMap(f, "/dev/" + disk_of(7)); }},
        {"volmap_mount", volmap_listing,
         [](zov_quillset& q, int luns) {
             known_wwns(q, luns);
             q.m_volMapList.clear();
         },
         [](zov_quillset& q, FILE* f) { q.processProxyCloneInitVolMap(f, 7, 0); }},
        {"storagegroup", storagegroup_listing,
         [](zov_quillset& q, int) {
             q.m_storagegrouplist.clear();
             q.add_storagegroup(kFrame, "sp0", kGroup);
         },
         [](zov_quillset& q, FILE* f) { delete q.processStorageList(f, kFrame); }},
        {"storagegroup_mover", storagegroup_listing, [](zov_quillset&, int) {},
         [](zov_quillset& q, FILE* f) { delete q.processMoverUID(f, kFrame); }},
        {"getlun_uid", getlun_listing, [](zov_quillset& q, int) { q.m_arrayLunUID.clear(); },
         [](zov_quillset& q, FILE* f) { delete q.processInitArrayLunUID(f, kFrame); }},
        {"getlun_wwn_to_lun", getlun_listing, [](zov_quillset& q, int) { q.m_wwnToLun.clear(); },
         [](zov_quillset& q, FILE* f) { delete q.processConvertWWNToLun(f, kFrame); }},
        {"clonegroup_cloneable", clonegroup_listing, host_group,
         [](zov_quillset& q, FILE* f) { delete q.processGetCloneList(f, kFrame); }},
        {"clonegroup_clones", clonegroup_listing,
         [](zov_quillset& q, int) { q.m_clonestoragegrouplist.clear(); },
         [](zov_quillset& q, FILE* f) { delete q.processGetCloneGroupInfo(f, kFrame); }},
        {"clonegroup_counts", clonegroup_listing,
         [](zov_quillset& q, int) { q.m_cloneIdToCount.clear(); },
         [](zov_quillset& q, FILE* f) { delete q.processGetSourceCloneInfo(f, kFrame); }},
        {"sessions", session_listing, [](zov_quillset& q, int) { q.m_sessionList.clear(); },
         [](zov_quillset& q, FILE* f) { delete q.processSessionNames(f, kFrame); }},
    };
    return all;
}

struct Listing {
    std::string text;
    long lines = 0;
};

const Listing& listing_of(std::string (*make)(int), int luns) {
    static std::map<std::pair<void*, int>, Listing> made;
    Listing& l = made[{reinterpret_cast<void*>(make), luns}];
    if (l.text.empty()) {
        l.text = make(luns);
        for (char c : l.text) l.lines += c == '\n';
    }
    return l;
}

const char* const kLocales[] = {"C", "C.UTF-8"};

// Arguments: parser, LUNs, locale (0 "C", 1 UTF-8). The object is made under
// the locale, as a loader that set its own makes it.
void BM_Parse(benchmark::State& state) {
    const Parser& p = parsers()[state.range(0)];
    const int luns = static_cast<int>(state.range(1));
    if (setlocale(LC_ALL, kLocales[state.range(2)]) == nullptr) {
        state.SkipWithError("locale not installed");
        return;
    }
    const Listing& l = listing_of(p.listing, luns);
    zov_quillset q(quiet_log, nullptr);
    std::vector<std::string> frames{kFrame};
    delete q.init(frames, nullptr);
    // One parse before the timing: a 100,000-LUN listing is parsed only once
    // or twice in the time given, and its first parse also pays for the
    // process's first touch of the memory its records take, which the
    // 10,000-LUN runs, repeated many times, do not show.
    p.prepare(q, luns);
    if (FILE* f = fmemopen(const_cast<char*>(l.text.data()), l.text.size(), "r")) {
        p.parse(q, f);
        fclose(f);
    }
    for (auto _ : state) {
        state.PauseTiming();
        p.prepare(q, luns);
        FILE* f = fmemopen(const_cast<char*>(l.text.data()), l.text.size(), "r");
        state.ResumeTiming();
        p.parse(q, f);
        fclose(f);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * l.text.size()));
    state.counters["lines/s"] = benchmark::Counter(static_cast<double>(l.lines),
                                                   benchmark::Counter::kIsIterationInvariantRate);
    state.SetLabel(std::string(p.name) + (state.range(2) ? " UTF-8" : " C"));
    setlocale(LC_ALL, "C");
}

// What each service object and directory service paid when its command
// layer started: the 59 expressions compiled.
void BM_CompileExpressions(benchmark::State& state) {
    for (auto _ : state) {
        regex_t rows[ZOV_QUILLSET_NUM_REGEX];
        for (int i = 0; i < ZOV_QUILLSET_NUM_REGEX; i++)
            regcomp(&rows[i], zov_quillset_pattern(i), REG_EXTENDED);
        for (regex_t& r : rows) regfree(&r);
    }
}

// What it pays now: the object made and started (the tool located, the
// process's table looked up).
void BM_CommandLayerStart(benchmark::State& state) {
    std::vector<std::string> frames{kFrame};
    for (auto _ : state) {
        zov_quillset q(quiet_log, nullptr);
        delete q.init(frames, nullptr);
        benchmark::DoNotOptimize(q.m_cp);
    }
}

void register_all() {
    benchmark::RegisterBenchmark("BM_CompileExpressions", BM_CompileExpressions)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("BM_CommandLayerStart", BM_CommandLayerStart)
        ->Unit(benchmark::kMicrosecond);
    for (int p = 0; p < static_cast<int>(parsers().size()); p++)
        for (int luns : {10000, 100000})
            for (int loc : {0, 1})
                benchmark::RegisterBenchmark("BM_Parse", BM_Parse)
                    ->Args({p, luns, loc})
                    ->Unit(benchmark::kMillisecond)
                    ->MinTime(0.2);
}

std::string run_name(int p, int luns, int loc) {
    return "BM_Parse/" + std::to_string(p) + "/" + std::to_string(luns) + "/" + std::to_string(loc);
}

int judge(const bench_goals::KeepingReporter& rep) {
    using bench_goals::fmt;
    bench_goals::Verdict v;
    double compile = rep.cpu_s("BM_CompileExpressions"), start = rep.cpu_s("BM_CommandLayerStart");
    v.info("command layer start, per object",
           fmt(start * 1e6, 0) + " us CPU; compiling the 59 expressions, which each object did " +
               "before they were shared: " + fmt(compile * 1e6, 0) + " us CPU");
    for (int p = 0; p < static_cast<int>(parsers().size()); p++) {
        const Parser& parser = parsers()[p];
        double c100 = rep.cpu_s(run_name(p, 100000, 0));
        double u100 = rep.cpu_s(run_name(p, 100000, 1));
        double c10 = rep.cpu_s(run_name(p, 10000, 0));
        if (c100 <= 0 || u100 <= 0 || c10 <= 0) {
            v.row(std::string("parser ") + parser.name, "did not run", "runs", false);
            continue;
        }
        const Listing& l = listing_of(parser.listing, 100000);
        double lps_c = l.lines / c100, lps_u = l.lines / u100;
        double mbs = l.text.size() / c100 / 1e6;
        double locale_ratio = u100 / c100, scale_ratio = c100 / c10;
        bool met = lps_c >= 1e6 && lps_u >= 1e6 && locale_ratio <= 1.5 && scale_ratio <= 15;
        v.row(std::string("parser ") + parser.name + " (100,000 LUNs, " + std::to_string(l.lines) +
                  " lines)",
              fmt(lps_c / 1e6) + " M lines/s " + fmt(mbs, 0) + " MB/s; UTF-8 " + fmt(lps_u / 1e6) +
                  " M lines/s, x" + fmt(locale_ratio) + "; 100k/10k x" + fmt(scale_ratio, 1),
              ">= 1 M lines/s; UTF-8/C <= 1.5; 100k/10k <= 15", met);
    }
    return v.missed;
}

}  // namespace

int main(int argc, char** argv) {
    register_all();
    return bench_goals::run_and_judge(argc, argv, &judge);
}
