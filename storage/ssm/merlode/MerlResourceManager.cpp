// The clone pool: the snap pool file read into resource elements, the
// matching of sources and tags, and the choice of a clone for a source.
#include "storage/ssm/merlode/MerlResourceManager.h"

#include <ctype.h>
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <atomic>

#include "liblocal/kv_error.h"
#include "liblocal/kv_msg.h"
#include "liblocal/kv_string.h"
#include "liblocal/kv_thread.h"
#include "liblocal/kv_time.h"
#include "storage/ssm/merlode/merl_globalfuncs.h"

static const char kFile[] = "storage/ssm/merlode/MerlResourceManager";

// While a candidate synchronises and none is usable, the search waits this
// long between looks.
static const uint32_t kSyncWaitMs = 60000;

static std::atomic<kv_time64_t (*)(kv_time64_t*)> g_clock{nullptr};

void merl_resource_set_clock_for_test(kv_time64_t (*clock)(kv_time64_t*)) {
    g_clock = clock;
}

static kv_time64_t now() {
    kv_time64_t (*clock)(kv_time64_t*) = g_clock.load();
    return clock != nullptr ? clock(nullptr) : kv_time(nullptr);
}

// An SSError of `code` made of a numbered message with no arguments.
static SSError* numbered_error(SSErrCode code, int msgId, const char* text) {
    errinfo* m = msg_create(msgId, 55000, "%s", ARG_TEXT, text);
    if (m == nullptr) return new SSError();
    SSError* e = new SSError(code, *m);
    msg_free(m);
    return e;
}

// The state words of the array are compared over the length of the word.
static bool is_word(const std::string& field, const char* word) {
    return strncmp(field.c_str(), word, strlen(word)) == 0;
}

static const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};

ResElement::~ResElement() {
    for (SnapResource* r : targetList) delete r;
}

MerlResourceManager::MerlResourceManager(SSLOG_FUNC_POINTER logFunc, void* logFuncContext)
    : m_snapPool(nullptr),
      m_snapPoolSpecified(0),
      m_snapResUsePolicy(nullptr),
      m_resInit(0),
      m_quillsetContext(nullptr),
      m_logFunc(logFunc),
      m_logFuncContext(logFuncContext),
      m_e(logFunc, logFuncContext) {}

MerlResourceManager::~MerlResourceManager() {
    free(m_snapPool);
    free(m_snapResUsePolicy);
    for (ResElement* e : m_ResourceList) delete e;
}

char* MerlResourceManager::get_snap_pool_file() {
    return strdup("/vmr/res/merlode.res");
}

// The value of MERL_<key> in `attrs`, or null when it is absent or empty.
static const char* merl_attr(attrlist* attrs, const char* key) {
    char* name = nullptr;
    i18n_sprintf(nullptr, &name, "%s_%s", "MERL", key);
    attrlist* a = name != nullptr ? attrlist_find(attrs, name) : nullptr;
    free(name);
    if (a == nullptr || a->values == nullptr || a->values->value[0] == '\0') return nullptr;
    return a->values->value;
}

SSError* MerlResourceManager::init(attrlist* attrs, zov_quillset* ctx) {
    if (ctx == nullptr) {
        m_quillsetContext = nullptr;
        return numbered_error(SS_EC_INVALID_PARAMETER, 61209, "Invalid Parameter");
    }
    m_quillsetContext = ctx;
    m_snapPoolSpecified = 0;
    free(m_snapPool);
    free(m_snapResUsePolicy);
    if (const char* pool = merl_attr(attrs, "SNAP_POOL")) {
        m_e.logprintf(9, kFile, __LINE__, "Using attr for Snap pool");
        m_snapPool = strdup(pool);
        m_snapPoolSpecified = 1;
    } else {
        m_e.logprintf(9, kFile, __LINE__, "Not using attr for Snap pool");
        m_snapPool = get_snap_pool_file();
    }
    m_e.logprintf(7, kFile, __LINE__, "Snap Pool = %s", m_snapPool);
    if (const char* policy = merl_attr(attrs, "RES_USE_POLICY")) {
        m_e.logprintf(9, kFile, __LINE__, "Using attr for Snap Res Use Policy");
        m_snapResUsePolicy = strdup(policy);
    } else {
        m_e.logprintf(9, kFile, __LINE__, "Not using attr for Snap Res Use Policy");
        m_snapResUsePolicy = strdup("ANY");
    }
    m_resInit = 0;
    return nullptr;
}

// ------------------------------------------------------------ the pool file

SSError* MerlResourceManager::parseMerlResourceDev(char* buf, MerlResourceDev& deviceName) {
    std::string text = buf != nullptr ? buf : "";
    if (text.compare(0, 4, "/dev") == 0) {
        deviceName.isMerlLun = 0;
        deviceName.dev = text;
        return nullptr;
    }
    deviceName.isMerlLun = 1;
    size_t colon = text.find(':');
    if (colon == std::string::npos) {
        deviceName.dev = text;
    } else {
        deviceName.merlid = text.substr(0, colon);
        deviceName.dev = text.substr(colon + 1);
    }
    // A LUN must be a number: a word in its place would otherwise read as
    // LUN 0 and could pick an unrelated clone.
    bool numeric = !deviceName.dev.empty();
    for (char c : deviceName.dev)
        if (!isdigit(static_cast<unsigned char>(c))) numeric = false;
    if ((colon != std::string::npos && deviceName.merlid.empty()) || !numeric)
        return numbered_error(SS_EC_INVALID_POOL_ENTRY, 61212, "Invalid Entry in Snap Pool");
    return nullptr;
}

// A number of a pool file's time value. Far beyond any day it is held at a
// bound (a million hours), where it still matches no time of day, so that
// the window arithmetic below can never overflow.
static long clock_field(const char* text) {
    const long bound = 1L << 20;
    long v = strtol(text, nullptr, 10);
    return v > bound ? bound : v < -bound ? -bound : v;
}

// hours * 60 + the hours again: the minutes of a time value play no part in
// the window's length.
static long gap_units(const char* value) {
    long v = clock_field(value) * 60;
    std::string hours = value;
    hours = hours.substr(0, hours.find(':'));
    return v + clock_field(hours.c_str());
}

void MerlResourceManager::setTag(char** tokens, int count) {
    static const char* const fname = "MerlResourceManager::buildResourceList";
    m_tag = Tag();
    m_tagValues.clear();
    m_tag.name = tokens[0];
    for (int i = 1; i < count; i++) m_tagValues.push_back(tokens[i]);
    const bool day = strcasecmp(tokens[0], "Day") == 0;
    for (const std::string& v : m_tagValues) {
        if (day) {
            bool known = false;
            for (const char* d : kDays)
                if (strcasecmp(d, v.c_str()) == 0) known = true;
            if (!known)
                m_e.logprintf(
                    7, kFile, __LINE__,
                    "%s : Day value [%s] is not a day name: targets tagged with it never match",
                    fname, v.c_str());
        } else {
            char* end = nullptr;
            long h = strtol(v.c_str(), &end, 10);
            long m = *end == ':' ? strtol(end + 1, nullptr, 10) : 0;
            if (end == v.c_str() || h < 0 || h > 23 || m < 0 || m > 59)
                m_e.logprintf(
                    7, kFile, __LINE__,
                    "%s : Time value [%s] is not a time of day: targets tagged with it may "
                    "never match",
                    fname, v.c_str());
        }
    }
    if (!day && m_tagValues.size() >= 2)
        m_tag.gap = static_cast<int>(
            labs(gap_units(m_tagValues[0].c_str()) - gap_units(m_tagValues[1].c_str())));
}

// Leading and trailing white space off, in place.
static char* trim(char* s) {
    while (*s != '\0' && isspace(static_cast<unsigned char>(*s))) s++;
    size_t n = strlen(s);
    while (n > 0 && isspace(static_cast<unsigned char>(s[n - 1]))) s[--n] = '\0';
    return s;
}

SSError* MerlResourceManager::buildResourceList() {
    static const char* const fname = "MerlResourceManager::buildResourceList";
    FILE* fp = fopen(m_snapPool != nullptr ? m_snapPool : "", "r");
    if (fp == nullptr) {
        const char* why = kv_strerror(errno);
        if (m_snapPoolSpecified == 1) {
            m_e.logprintf(0, kFile, __LINE__,
                          "%s : Could not open user specified snap pool file [%s]. %s", fname,
                          m_snapPool, why);
            errinfo* m =
                msg_create(92377, 55000, "Could not open user specified snap pool file '%s'. %s",
                           ARG_TEXT, m_snapPool, ARG_TEXT, why);
            SSError* e = m != nullptr ? new SSError(SS_EC_INVALID_SNAP_POOL, *m) : new SSError();
            if (m == nullptr) e->setErrCode(SS_EC_INVALID_SNAP_POOL);
            msg_free(m);
            return e;
        }
        m_e.logprintf(7, kFile, __LINE__,
                      "%s : Could not open snap pool file [%s]. %s. Working with no resource list.",
                      fname, m_snapPool, why);
        return nullptr;
    }
    m_tag = Tag();
    m_tagValues.clear();
    char buf[1024];
    while (fgets(buf, sizeof(buf), fp) != nullptr) {
        m_e.logprintf(7, kFile, __LINE__, "%s : Line read [%s]\n", fname, buf);
        char* line = trim(buf);
        if (*line == '\0' || *line == '#') continue;
        int count = 0;
        char** tokens = nullptr;
        errinfo* terr = tokenize(line, &count, &tokens, nullptr, 0);
        if (terr != nullptr || tokens == nullptr || count <= 0) {
            if (terr != nullptr)
                m_e.logprintf(7, kFile, __LINE__, "%s : %s", fname,
                              terr->errstr != nullptr ? terr->errstr : "");
            free(tokens);
            continue;
        }
        if (strcasecmp(tokens[0], "Day") == 0 || strcasecmp(tokens[0], "Time") == 0) {
            setTag(tokens, count);
            free(tokens);
            continue;
        }
        ResElement* elem = new ResElement();
        if (SSError* e = parseMerlResourceDev(tokens[0], elem->source)) {
            m_e.logprintf(7, kFile, __LINE__, "%s", e->getErrMsg());
            delete e;
            delete elem;
            free(tokens);
            continue;
        }
        if (elem->source.isMerlLun == 1 && elem->source.merlid.empty()) {
            m_e.logprintf(7, kFile, __LINE__,
                          "Source token %s requires format like TRELMID:TRELMDEV", tokens[0]);
            delete elem;
            free(tokens);
            continue;
        }
        for (int place = 1; place < count; place++) {
            if (strcmp(tokens[place], "-") == 0) continue;
            SnapResource* target = new SnapResource();
            if (SSError* e = parseMerlResourceDev(tokens[place], target->res)) {
                m_e.logprintf(7, kFile, __LINE__, "%s", e->getErrMsg());
                delete e;
                delete target;
                continue;
            }
            if (target->res.isMerlLun == 1 && target->res.merlid.empty() &&
                elem->source.isMerlLun == 1)
                target->res.merlid = elem->source.merlid;
            if (!m_tag.name.empty() && static_cast<size_t>(place) <= m_tagValues.size()) {
                target->tag.name = m_tag.name;
                target->tag.value = m_tagValues[place - 1];
                target->tag.gap = m_tag.gap;
            }
            elem->targetList.push_back(target);
        }
        m_e.logprintf(7, kFile, __LINE__, "Adding Snap Resource");
        printResElem(elem);
        m_ResourceList.push_back(elem);
        free(tokens);
    }
    fclose(fp);
    m_e.logprintf(7, kFile, __LINE__, "Leaving %s", fname);
    return nullptr;
}

int MerlResourceManager::matchDevice(snapdevice* srcVol, MerlResourceDev& deviceName) {
    if (srcVol == nullptr) return 0;
    if (deviceName.isMerlLun == 1) {
        if (deviceName.merlid.empty() || deviceName.dev.empty()) return 0;
        return strtol(deviceName.dev.c_str(), nullptr, 10) == srcVol->srcDev.merllun &&
               strcasecmp(deviceName.merlid.c_str(), srcVol->srcDev.merlid.c_str()) == 0;
    }
    return !deviceName.dev.empty() && deviceName.dev == srcVol->srcName;
}

SSError* MerlResourceManager::matchTag(SnapResource*& snapRes, int& match) {
    match = 0;
    if (snapRes == nullptr) return nullptr;
    const Tag& tag = snapRes->tag;
    if (tag.name.empty()) {
        m_e.logprintf(7, kFile, __LINE__, "untagged target");
        match = 1;
        return nullptr;
    }
    // The local time as ctime prints it: day, month, date, time, year.
    std::vector<std::string> words;
    std::string word;
    for (const char* p = kv_ctime(now()); *p != '\0'; p++) {
        if (isspace(static_cast<unsigned char>(*p))) {
            if (!word.empty()) words.push_back(word);
            word.clear();
        } else {
            word += *p;
        }
    }
    if (!word.empty()) words.push_back(word);
    const std::string day = words.size() > 0 ? words[0] : "";
    const std::string tod = words.size() > 3 ? words[3] : "";
    if (strcasecmp(tag.name.c_str(), "Day") == 0) {
        match = strcasecmp(tag.value.c_str(), day.c_str()) == 0 ? 1 : 0;
        m_e.logprintf(7, kFile, __LINE__, "Day match = %s", match ? "TRUE" : "FALSE");
    } else if (strcasecmp(tag.name.c_str(), "Time") == 0) {
        char* end = nullptr;
        long h = strtol(tod.c_str(), &end, 10);
        long m = *end == ':' ? strtol(end + 1, nullptr, 10) : 0;
        long todMin = h * 60 + m;
        m_e.logprintf(7, kFile, __LINE__, "timeTag = %s gap = %d", tag.value.c_str(), tag.gap);
        std::string rest = tag.value;
        std::string first = merl_space::nextToken(rest, ":");
        long tagMin = clock_field(first.c_str()) * 60;
        if (!rest.empty()) tagMin += clock_field(merl_space::nextToken(rest, ":").c_str());
        m_e.logprintf(7, kFile, __LINE__, "tagMin = %d todMin= %d", static_cast<int>(tagMin),
                      static_cast<int>(todMin));
        match = todMin >= tagMin && todMin < tagMin + tag.gap ? 1 : 0;
        m_e.logprintf(7, kFile, __LINE__, "Time match = %s", match ? "TRUE" : "FALSE");
    } else {
        m_e.logprintf(7, kFile, __LINE__, "tagged match");
        match = 1;
    }
    return nullptr;
}

void MerlResourceManager::printMerlResourceDev(MerlResourceDev& dev) {
    m_e.logprintf(7, kFile, __LINE__, "Device - isMerlLun : %d  dev : %s  merlid : %s",
                  dev.isMerlLun, dev.dev.c_str(), dev.merlid.c_str());
}

void MerlResourceManager::printTag(Tag& tag) {
    m_e.logprintf(7, kFile, __LINE__, "Tag - Name : %s  Value : %s  Gap : %d", tag.name.c_str(),
                  tag.value.c_str(), tag.gap);
}

void MerlResourceManager::printResElem(ResElement* elem) {
    if (elem == nullptr) return;
    m_e.logprintf(7, kFile, __LINE__, "Source :");
    printMerlResourceDev(elem->source);
    for (SnapResource* t : elem->targetList) {
        m_e.logprintf(7, kFile, __LINE__, "Target :");
        printMerlResourceDev(t->res);
        printTag(t->tag);
    }
}

// ------------------------------------------------------------ the choice

SSError* MerlResourceManager::allocateResource(snapdevice* srcVol, std::string dataMover) {
    static const char* const fname = "MerlResourceManager::allocateResource";
    if (srcVol == nullptr || m_quillsetContext == nullptr)
        return numbered_error(SS_EC_INVALID_PARAMETER, 61209, "Invalid Parameter");
    if (m_resInit == 0) {
        SSError* err = buildResourceList();
        if (err != nullptr) {
            m_e.logprintf(7, kFile, __LINE__, "%s : buildResourceList returned %d", fname,
                          static_cast<int>(err->getErrCode()));
            if (err->getErrCode() != SS_EC_INVALID_SNAP_POOL) return err;
            delete err;
        }
        m_resInit = 1;
    }
    MerlDev& srcDev = srcVol->srcDev;
    m_e.logprintf(7, kFile, __LINE__, "%s : source [%s], LUN %d", fname, srcVol->srcName.c_str(),
                  srcDev.merllun);

    m_cloneList.clear();
    if (SSError* err = m_quillsetContext->getCloneGroupInfo(srcDev.merllun, m_cloneList)) {
        m_e.logprintf(7, kFile, __LINE__, "%s: getCloneGroupInfo() call failed for lun %d", fname,
                      srcDev.merllun);
        return err;
    }
    m_storGrpLunList.clear();
    if (SSError* err = m_quillsetContext->getStorageGroupLunList(dataMover, m_storGrpLunList)) {
        m_e.logprintf(3, kFile, __LINE__, "%s: getStorageGroupLunList() call failed for %s", fname,
                      dataMover.c_str());
        return err;
    }
    srcVol->cloneDev.merllun = -1;
    srcVol->cloneDev.syncReq = 0;

    SSError* err = nullptr;
    MerlDev candidate;
    int found = 0;
    bool srcResSpecified = false;
    for (ResElement* elem : m_ResourceList) {
        if (found) break;
        m_e.logprintf(7, kFile, __LINE__, "Checking next resource :\n");
        printMerlResourceDev(elem->source);
        if (matchDevice(srcVol, elem->source) != 1) continue;
        m_e.logprintf(7, kFile, __LINE__, "found resource for source disk");
        srcResSpecified = true;
        for (SnapResource* target : elem->targetList) {
            m_e.logprintf(7, kFile, __LINE__, "Checking target :");
            printMerlResourceDev(target->res);
            int match = 0;
            delete matchTag(target, match);
            if (!match) {
                m_e.logprintf(7, kFile, __LINE__, "Tag doesn't match .. skipping\n");
                continue;
            }
            candidate = MerlDev();
            delete snapResToMerlDev(target, candidate);
            if (candidate.merlid.empty()) candidate.merlid = srcDev.merlid;
            // A target that cannot be checked is passed over; the next may do.
            delete findValidClone(srcDev, candidate, found, 1);
            if (found) {
                m_e.logprintf(
                    7, kFile, __LINE__,
                    "%s : Here is the clone we found to be suitable, merlid [%s], merllun [%d]\n",
                    fname, candidate.merlid.c_str(), candidate.merllun);
                break;
            }
        }
    }
    if (!srcResSpecified) {
        m_e.logprintf(
            7, kFile, __LINE__,
            "No resource file entry found for source lun [%d], getting first available clone lun "
            "that is qualified.",
            srcDev.merllun);
        candidate = MerlDev();
        err = findValidClone(srcDev, candidate, found, 0);
    }
    if (found) {
        assignCloneToSource(srcVol, candidate);
        srcVol->frameIp = candidate.frameIp;
        m_e.logprintf(
            7, kFile, __LINE__,
            "%s : Found a clone, copying info to srcVol, lun [%d], clonegrp [%s], cloneid [%s], "
            "syncreq [%d]",
            fname, srcVol->cloneDev.merllun, srcVol->cloneDev.merlgrp.c_str(),
            srcVol->cloneDev.cloneid.c_str(), srcVol->cloneDev.syncReq);
    } else {
        m_e.logprintf(7, kFile, __LINE__, "No candidate clone found for source lun [%d].",
                      srcDev.merllun);
        if (err == nullptr) {
            err = numbered_error(SS_EC_INVALID_CONFIGURATION, 61210, "No Matching Device Found");
            m_e.logprintf(3, kFile, __LINE__, "%s", err->getErrMsg());
        }
    }
    m_e.logprintf(7, kFile, __LINE__, "Leaving %s", fname);
    return err;
}

SSError* MerlResourceManager::findValidClone(MerlDev& source, MerlDev& candidateClone,
                                             int& cloneInValidState, int findSpecificClone) {
    static const char* const fname = "MerlResourceManager::findValidClone";
    cloneInValidState = 0;
    int cloneSynchronizing = 0;
    SSError* err = nullptr;
    const std::string policy = m_snapResUsePolicy != nullptr ? m_snapResUsePolicy : "";
    while (true) {
        for (const cloneInfo& c : m_cloneList) {
            m_e.logprintf(
                7, kFile, __LINE__,
                "%s: Checking clone candidate : SrcLun [%d], CloneLun [%d], ID [%s], Grp [%s], "
                "GrpID [%s], State [%s], Condition [%s], Fractured [%s], frameIp [%s]\n\n",
                fname, c.lun, c.cloneLun, c.cloneId.c_str(), c.cloneGrpName.c_str(),
                c.cloneGrpId.c_str(), c.cloneState.c_str(), c.cloneCondition.c_str(),
                c.cloneIsFractured.c_str(), c.frameIp.c_str());
            if (findSpecificClone == 1 && c.cloneLun != candidateClone.merllun) {
                m_e.logprintf(
                    7, kFile, __LINE__,
                    "%s : Specific clone lun [%d] specified, but candidate does not match, "
                    "checking next candidate.",
                    fname, candidateClone.merllun);
                continue;
            }
            if (c.lun != source.merllun) continue;
            const bool validFractured =
                (is_word(c.cloneState, "Consistent") || is_word(c.cloneState, "Out-of-sync")) &&
                is_word(c.cloneCondition, "Administratively Fractured") &&
                is_word(c.cloneIsFractured, "Yes");
            const bool validUnfractured =
                (is_word(c.cloneState, "Consistent") || is_word(c.cloneState, "Synchronized")) &&
                is_word(c.cloneCondition, "Normal") && is_word(c.cloneIsFractured, "No");
            if (!validFractured && !validUnfractured) {
                if (is_word(c.cloneState, "Synchronizing") &&
                    is_word(c.cloneCondition, "Synchronizing") &&
                    is_word(c.cloneIsFractured, "No")) {
                    m_e.logprintf(
                        7, kFile, __LINE__,
                        "%s : CloneLun [%d] is resynchronizing and must complete before it can be "
                        "used.",
                        fname, c.cloneLun);
                    cloneSynchronizing = 1;
                } else {
                    m_e.logprintf(7, kFile, __LINE__,
                                  "%s : Clone is un-usable, state [%s], fractured [%s].", fname,
                                  c.cloneState.c_str(), c.cloneIsFractured.c_str());
                }
                continue;
            }
            int isLocked = 0;
            err = m_quillsetContext->getCloneRsvd(c.cloneGrpId, c.cloneId, isLocked);
            if (err != nullptr) {
                m_e.logprintf(7, kFile, __LINE__, "%s : getCloneRsvd() command failed.", fname);
                break;
            }
            // A reservation means something only on a fractured clone.
            if (validFractured && isLocked) {
                m_e.logprintf(7, kFile, __LINE__, "%s : Clone is locked and not available.", fname);
                continue;
            }
            if (validFractured && policy == "EXISTING") {
                m_e.logprintf(
                    7, kFile, __LINE__,
                    "%s : Clone cannot be used because it is fractured and the res_use_policy is "
                    "set to EXISTING.",
                    fname);
                continue;
            }
            if (validUnfractured && policy == "FREE") {
                m_e.logprintf(
                    7, kFile, __LINE__,
                    "%s : Clone cannot be used because it is un-fractured and the res_use_policy "
                    "is set to FREE.",
                    fname);
                continue;
            }
            err = verifyDataMoverAccess(c.cloneLun);
            if (err != nullptr) break;
            candidateClone.merlgrp = c.cloneGrpId;
            candidateClone.cloneid = c.cloneId;
            candidateClone.merllun = c.cloneLun;
            candidateClone.frameIp = c.frameIp;
            candidateClone.syncReq = validFractured ? 1 : 0;
            cloneInValidState = 1;
            break;
        }
        if (err != nullptr || cloneInValidState || !cloneSynchronizing) break;
        m_e.logprintf(
            0, kFile, __LINE__,
            "%s : No valid clone found, but at least one is in the process of synchronizing. Will "
            "sleep for 1 minute then recheck.",
            fname);
        kv_thread_sleep(kSyncWaitMs);
        m_cloneList.clear();
        err = m_quillsetContext->getCloneGroupInfo(source.merllun, m_cloneList);
        if (err != nullptr) {
            m_e.logprintf(3, kFile, __LINE__, "%s: getCloneGroupInfo() call failed for lun %d",
                          fname, source.merllun);
            break;
        }
    }
    if (err != nullptr) m_e.logprintf(0, kFile, __LINE__, "%s", err->getErrMsg());
    return err;
}

SSError* MerlResourceManager::verifyDataMoverAccess(int cloneLun) {
    m_e.logprintf(7, kFile, __LINE__, "Entering %s : searching for clone lun [%d]",
                  "MerlResourceManager::verifyDataMoverAccess", cloneLun);
    return nullptr;
}

SSError* MerlResourceManager::snapResToMerlDev(SnapResource* res, MerlDev& dev) {
    if (res == nullptr) return nullptr;
    dev.merlid = res->res.merlid;
    dev.merllun = static_cast<int>(strtol(res->res.dev.c_str(), nullptr, 10));
    m_e.logprintf(7, kFile, __LINE__, "snapResToMerlDev() results : merlid [%s], merllun [%d]",
                  dev.merlid.empty() ? "<NULL>" : dev.merlid.c_str(), dev.merllun);
    return nullptr;
}

int MerlResourceManager::assignCloneToSource(snapdevice* srcVol, MerlDev clone) {
    if (srcVol == nullptr) return 0;
    srcVol->cloneDev.merllun = clone.merllun;
    srcVol->cloneDev.merlgrp = clone.merlgrp;
    srcVol->cloneDev.cloneid = clone.cloneid;
    srcVol->cloneDev.syncReq = clone.syncReq;
    srcVol->cloneDev.frameIp = clone.frameIp;
    return 0;
}
