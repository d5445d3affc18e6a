// merlsnap's loader: dlopen, the four entry points, subsystem and directory service.
#include "tools/merlsnap/module.h"

#include "tools/merlsnap/report.h"

#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

Module::~Module() {
    close();
}

std::string ReleaseWatch::see(const char* msg) {
    // The module traces each release it asks for with its command line, and
    // the tool's answer only when the array refused it.
    static const char kAsk[] = " deactivate -s ";
    const char* ask = strstr(msg, kAsk);
    if (ask != nullptr && strstr(msg, "esv_spawn") != nullptr) {
        std::string session(ask + sizeof(kAsk) - 1);
        session = session.substr(0, session.find_first_of(" \r\n"));
        if (session != m_session) {
            m_session = session;
            m_told = false;
        }
        return "";
    }
    if (m_told || m_session.empty() || strstr(msg, "processDeactivate: line:") == nullptr)
        return "";
    m_told = true;
    return "waiting for the array to release snapshot session " + m_session +
           ": it refused, and the module asks again every 5 seconds, up to 4 times";
}

void module_log(int level, const char* file, int line, const char* msg, void* ctx) {
    LogSink* sink = static_cast<LogSink*>(ctx);
    if (sink == nullptr || msg == nullptr) return;
    if (sink->watch != nullptr) sink->watch(msg, sink->watch_ctx);
    const std::string told = sink->release.see(msg);
    if (!told.empty() && sink->notice) sink->notice(told);
    if (sink->quiet || level > sink->level) return;
    std::string text = "[" + std::to_string(level) + "] " + (file != nullptr ? file : "") + ":" +
                       std::to_string(line) + " " + msg;
    if (!text.empty() && text.back() == '\n') text.pop_back();
    if (sink->hold) {
        sink->held.push_back(text);
        if (sink->held.size() > LogSink::kHeldLines) sink->held.pop_front();
    } else if (sink->file != nullptr) {
        fprintf(sink->file, "%s\n", text.c_str());  // a log file keeps every line whole
    } else {
        fprintf(stderr, "%s\n", cap_text(text).c_str());
    }
}

bool Module::open(const std::string& path, attrlist* attrs) {
    m_handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (m_handle == nullptr) {
        const char* why = dlerror();
        m_error = "cannot load " + path + ": " + (why != nullptr ? why : "unknown reason");
        return false;
    }
    m_instantiate =
        reinterpret_cast<SSError* (*)(StorageSubsystem*&)>(dlsym(m_handle, "instantiateSS"));
    m_free = reinterpret_cast<void (*)(SSObject*)>(dlsym(m_handle, "freeSSObject"));
    m_version = reinterpret_cast<SSAPIVersion (*)()>(dlsym(m_handle, "getSSAPIVersion"));
    if (m_instantiate == nullptr || m_free == nullptr || m_version == nullptr ||
        dlsym(m_handle, "freeSSAttrlist") == nullptr) {
        m_error = path + " is not a snapshot provider module (an entry point is missing)";
        return false;
    }
    if (failed(m_instantiate(m_ss), "instantiateSS")) return false;
    if (failed(m_ss->init(nullptr, &module_log, m_sink), "StorageSubsystem::init")) return false;
    if (failed(m_ss->getDirectoryService(SS_SERV_SNAPSHOT, m_ds), "getDirectoryService"))
        return false;
    return !failed(m_ds->init(attrs), "SSDirectoryService::init");
}

void Module::close() {
    if (m_ds != nullptr) {
        free_object(m_ds->deInit());
        free_object(m_ds);
        m_ds = nullptr;
    }
    if (m_ss != nullptr) {
        m_ss->deInit();
        free_object(m_ss);
        m_ss = nullptr;
    }
    // The module stays loaded: unloading a library that other threads of a
    // host may still call into is what loaders avoid too.
}

SSAPIVersion Module::api_version() const {
    SSAPIVersion v{0, 0};
    if (m_version != nullptr) v = m_version();
    return v;
}

ISnapshot* Module::service(const std::string& tech) {
    IService* obj = nullptr;
    if (failed(m_ds->getServiceInstance(tech.c_str(), obj), "getServiceInstance")) return nullptr;
    if (obj == nullptr) {
        m_error = "the module offers no " + tech + " service";
        m_errorCode = SS_EC_SNAPSHOT_NOT_SUPPORTED;
        return nullptr;
    }
    return static_cast<ISnapshot*>(obj);
}

void Module::free_object(SSObject* o) {
    if (o != nullptr && m_free != nullptr) m_free(o);
}

bool Module::failed(SSError* e, const std::string& what) {
    if (e == nullptr) return false;
    m_error = what + ": " + e->getErrMsg();
    m_errorCode = static_cast<int>(e->getErrCode());
    free_object(e);
    return true;
}

void attrs_add(attrlist** al, const std::string& name, const std::string& value) {
    attrlist* a = attrlist_find(*al, name.c_str());
    vallist* vals = a != nullptr ? vallist_dup(a->values) : nullptr;
    vallist** tail = &vals;
    while (*tail != nullptr) tail = &(*tail)->next;
    *tail = val_new(value.c_str());
    attrlist_setlist(al, name.c_str(), vals);
    vallist_free(vals);
}

SSSourceList* make_source_list(const std::vector<std::string>& names) {
    SSSourceList* head = nullptr;
    SSSourceList** tail = &head;
    for (const std::string& n : names) {
        SSSourceList* node = new SSSourceList;
        node->ssSource = strdup(n.c_str());
        *tail = node;
        tail = &node->next;
    }
    return head;
}

std::vector<std::string> source_names(const SSSourceList* list) {
    std::vector<std::string> out;
    for (const SSSourceList* s = list; s != nullptr; s = s->next)
        out.push_back(s->ssSource != nullptr ? s->ssSource : "");
    return out;
}
