// The loader side of merlsnap: opens the snapshot module with dlopen and
// drives it through the provider interface, as the backup product does.
// Not thread-safe; one Module per thread.
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "liblocal/attrlist.h"
#include "storage/ssm/client/ISnapshot.h"
#include "storage/ssm/client/StorageSubsystem.h"

// Notices a release the array refuses: the module then tries again every
// few seconds, and a person should know what the silence is.
class ReleaseWatch {
public:
    // Returns the words to show when `msg` tells of a refusal, else "".
    std::string see(const char* msg);

private:
    std::string m_session;  // the session whose release is running
    bool m_told = false;    // its refusal was shown
};

// How the module's log lines are shown.
struct LogSink {
    int level = 5;         // lines up to this level are kept
    FILE* file = nullptr;  // where they go (stderr when null)
    bool quiet = false;    // keep none
    // Holds lines back instead of showing them: a command that works then
    // shows only its outcome, one that fails shows them with its error.
    bool hold = false;
    std::deque<std::string> held;  // the last lines held, up to kHeldLines
    static constexpr size_t kHeldLines = 200;
    // Sees every line, shown or not (progress reads the module's steps).
    void (*watch)(const char* msg, void* ctx) = nullptr;
    void* watch_ctx = nullptr;
    ReleaseWatch release;
    std::function<void(const std::string&)> notice;  // where waits are told
};

// The log function merlsnap gives the module (and the pool's command layer);
// `ctx` is a LogSink.
void module_log(int level, const char* file, int line, const char* msg, void* ctx);

class Module {
public:
    explicit Module(LogSink* sink) : m_sink(sink) {}
    ~Module();

    // Loads the module and makes the subsystem and a directory service
    // initialised with `attrs`. On failure `error()` says why.
    bool open(const std::string& path, attrlist* attrs);
    void close();

    SSAPIVersion api_version() const;
    StorageSubsystem* subsystem() { return m_ss; }
    SSDirectoryService* directory() { return m_ds; }

    // A new service object of `tech`, or null with error() set.
    ISnapshot* service(const std::string& tech);
    void free_object(SSObject* o);

    // Takes an error of the module: remembers its text and frees it.
    // True when there was one.
    bool failed(SSError* e, const std::string& what);
    const std::string& error() const { return m_error; }
    int error_code() const { return m_errorCode; }

private:
    LogSink* m_sink;
    void* m_handle = nullptr;
    SSError* (*m_instantiate)(StorageSubsystem*&) = nullptr;
    void (*m_free)(SSObject*) = nullptr;
    SSAPIVersion (*m_version)() = nullptr;
    StorageSubsystem* m_ss = nullptr;
    SSDirectoryService* m_ds = nullptr;
    std::string m_error;
    int m_errorCode = 0;
};

// Appends a value to an attribute of the list, creating it if needed.
void attrs_add(attrlist** al, const std::string& name, const std::string& value);

// A source list of the interface from plain names; the caller deletes it.
SSSourceList* make_source_list(const std::vector<std::string>& names);
std::vector<std::string> source_names(const SSSourceList* list);
