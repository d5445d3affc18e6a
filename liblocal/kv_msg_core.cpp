// Message records: the per-thread rings, the two process pools, creation,
// copies and release. Rings need no lock (each thread has its own); the
// pools hold their mutex only to advance the index, the ring's size being
// the protection of the buffers themselves.
#include <errno.h>
#include <netdb.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "liblocal/kv_mem.h"
#include "liblocal/kv_msg.h"
#include "liblocal/kv_msg_internal.h"
#include "liblocal/kv_thread.h"
#include "liblocal/kv_trace.h"

static_assert(offsetof(errinfo, form) - offsetof(errinfo, MsgId) == offsetof(structext, form),
              "errinfo must end in a structext");
static_assert(offsetof(errinfo, argcount) - offsetof(errinfo, MsgId) ==
                  offsetof(structext, argcount),
              "errinfo must end in a structext");
static_assert(offsetof(errinfo, arglist) - offsetof(errinfo, MsgId) == offsetof(structext, arglist),
              "errinfo must end in a structext");
static_assert(offsetof(errinfo, MsgId) % alignof(structext) == 0,
              "errinfo must end in a structext");

namespace {

struct Pool {
    KVMutex lock;
    char* bufs[MSG_BUFFER_POOL_COUNT];
    int next;
    size_t size;
};

Pool g_msg_pool;  // Msg_buffer_pool under Msglock
Pool g_lit_pool;  // Msglit_buffer_pool under Msglitlock
KVOnce g_msg_once = KV_ONCE_INIT;
KVThreadStorage g_thread_key = nullptr;
int g_force_msg_id = 0;
int g_rrend_noenv = 0;
int g_pid = 0;
char g_host[64] = "unknown";
char* g_progname = nullptr;
KVMutex g_name_lock = nullptr;
std::atomic<int> g_activity{0};

// err_setall's record lends its text from the thread's own array, and the
// record may still be released the normal way (msg_free, err_free), on any
// thread. msg_free tells such a text from an owned one by this list of the
// threads that have used err_setall; while none has, it costs one load.
KVMutex g_setall_lock = nullptr;
MsgThread* g_setall_threads = nullptr;  // under g_setall_lock
std::atomic<int> g_setall_users{0};

bool is_setall_text(const char* p) {
    if (g_setall_users.load(std::memory_order_acquire) == 0) return false;
    bool found = false;
    kv_mutex_lock(g_setall_lock);
    for (MsgThread* t = g_setall_threads; t != nullptr && !found; t = t->setall_next)
        found = p == t->err_text;
    kv_mutex_unlock(g_setall_lock);
    return found;
}

void setall_unregister(MsgThread* t) {
    if (!t->setall_listed) return;
    kv_mutex_lock(g_setall_lock);
    for (MsgThread** pp = &g_setall_threads; *pp != nullptr; pp = &(*pp)->setall_next) {
        if (*pp == t) {
            *pp = t->setall_next;
            break;
        }
    }
    kv_mutex_unlock(g_setall_lock);
    t->setall_listed = false;
    g_setall_users.fetch_sub(1, std::memory_order_release);
}

void thread_state_free(void* p) {
    MsgThread* t = static_cast<MsgThread*>(p);
    if (t == nullptr) return;
    for (errinfo& e : t->ring) msg_free(&e);
    for (int i = 0; i < t->st_size; ++i) msg_structext_clear(&t->st_ring[i]);
    free(t->st_ring);
    msg_free(&t->tmperr);
    free(t->persistent);
    setall_unregister(t);
    free(t);
}

void find_host_name() {
    char name[256];
    if (gethostname(name, sizeof(name)) != 0) return;
    name[sizeof(name) - 1] = '\0';
    std::string canon = name;
    struct addrinfo hints;
    memset(&hints, 0, sizeof(hints));
    hints.ai_flags = AI_CANONNAME;
    hints.ai_socktype = SOCK_STREAM;
    struct addrinfo* res = nullptr;
    if (getaddrinfo(name, nullptr, &hints, &res) == 0 && res != nullptr) {
        if (res->ai_canonname != nullptr && *res->ai_canonname != '\0') canon = res->ai_canonname;
        freeaddrinfo(res);
    }
    size_t n = canon.size() < sizeof(g_host) - 1 ? canon.size() : sizeof(g_host) - 1;
    for (size_t i = 0; i < n; ++i) {
        char c = canon[i];
        g_host[i] = (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    }
    g_host[n] = '\0';
}

KVMutex new_mutex_until_made() {
    KVMutex m;
    while ((m = kv_mutex_new()) == nullptr) kv_thread_sleep(1000);
    return m;
}

void msg_once_routine() {
    g_pid = static_cast<int>(getpid());
    if (g_progname == nullptr) {
        const char* n = program_invocation_short_name;
        g_progname = xstrdup(n != nullptr && *n != '\0' ? n : "unknown");
    }
    find_host_name();
    g_force_msg_id = getenv("VMR_FORCE_MSG_ID") != nullptr;
    g_rrend_noenv = getenv("VMR_RREND_NOENV") != nullptr;
    g_msg_pool.lock = new_mutex_until_made();
    g_msg_pool.size = MSG_BUFFER_SIZE;
    g_lit_pool.lock = new_mutex_until_made();
    g_lit_pool.size = MSG_LIT_BUFFER_SIZE;
    g_name_lock = new_mutex_until_made();
    g_setall_lock = new_mutex_until_made();
    while ((g_thread_key = kv_threadstorage_new(thread_state_free)) == nullptr)
        kv_thread_sleep(1000);
}

// Each thread turns a ring of its own: a buffer is handed out and then
// written by its caller, and with one ring for the process busy threads
// wrapped it onto buffers other threads were still writing or reading.
struct ThreadRing {
    char* bufs[MSG_BUFFER_POOL_COUNT] = {};
    int next = 0;
    ~ThreadRing() {
        for (char* b : bufs) free(b);
    }
};
thread_local ThreadRing t_msg_ring;
thread_local ThreadRing t_lit_ring;

char* pool_take(Pool& pool) {
    msg_once_init();
    ThreadRing& ring = &pool == &g_lit_pool ? t_lit_ring : t_msg_ring;
    ring.next = (ring.next + 1) % MSG_BUFFER_POOL_COUNT;
    char*& b = ring.bufs[ring.next];
    if (b == nullptr) b = static_cast<char*>(xcalloc(1, pool.size));
    b[0] = '\0';
    return b;
}

// The structext ring's size: MSG_STRUCTURED_TEXT_POOL_SIZE from 64 to 127
// gives 64, 128 or more gives 128, anything else the default.
int structext_ring_size() {
    const char* v = getenv("MSG_STRUCTURED_TEXT_POOL_SIZE");
    if (v == nullptr) return MSG_STRUCTEXT_RING_SIZE;
    long n = strtol(v, nullptr, 10);
    if (n >= 128) {
        kv_trace(1, 0x1, "msg: structured text pool size 128\n");
        return 128;
    }
    if (n >= 64) {
        kv_trace(1, 0x1, "msg: structured text pool size 64\n");
        return 64;
    }
    kv_trace(1, 0x1, "msg: structured text pool size %d\n", MSG_STRUCTEXT_RING_SIZE);
    return MSG_STRUCTEXT_RING_SIZE;
}

char* copy_arg(int msgID, int* argdesc, const char* arg) {
    if (*argdesc == ARG_NESTED_ERRINFO) {
        const errinfo* nested = reinterpret_cast<const errinfo*>(arg);
        if (nested != nullptr) {
            std::string s;
            msg_stbuf_append(s, errinfo_structext(const_cast<errinfo*>(nested)));
            *argdesc = ARG_NESTED_STBUF;
            return xstrdup(s.c_str());
        }
    }
    if (arg == nullptr) {
        fprintf(stderr, "passing null into one of the msg creation calls with msg id %d\n", msgID);
        *argdesc = ARG_TEXT;
        return xstrdup("null");
    }
    return xstrdup(arg);
}

// Fills a structext from a format and its pairs.
void fill_structext(structext* st, int msgID, const char* form, va_list ap) {
    st->MsgId = msgID;
    st->form = xstrdup(form);
    st->argcount = get_num_args(form);
    st->arglist = nullptr;
    if (st->argcount == 0) return;
    st->arglist =
        static_cast<argtuple**>(xcalloc(static_cast<size_t>(st->argcount), sizeof(argtuple*)));
    for (int i = 0; i < st->argcount; ++i) {
        argtuple* a = static_cast<argtuple*>(xmalloc(sizeof(argtuple)));
        a->argdesc = va_arg(ap, int);
        const char* arg = va_arg(ap, const char*);
        a->arg = copy_arg(msgID, &a->argdesc, arg);
        st->arglist[i] = a;
    }
}

char* lit_printf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
char* lit_printf(const char* fmt, ...) {
    char* b = msg_lit_pool_buffer();
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(b, 512, fmt, ap);
    va_end(ap);
    return b;
}

}  // namespace

// ---- Process state ---------------------------------------------------------------------

void msg_once_init(void) {
    kv_once(&g_msg_once, msg_once_routine);
}
char* msg_pool_buffer(void) {
    return pool_take(g_msg_pool);
}
char* msg_lit_pool_buffer(void) {
    return pool_take(g_lit_pool);
}
int msg_force_msg_id(void) {
    msg_once_init();
    return g_force_msg_id;
}
int msg_rrend_noenv(void) {
    msg_once_init();
    return g_rrend_noenv;
}

void msg_set_activityID(int id) {
    g_activity.store(id);
}
void msg_set_act_id(int id) {
    g_activity.store(id);
}
int msg_get_act_id(void) {
    return g_activity.load();
}

void msg_set_program_name(const char* name) {
    msg_once_init();
    if (name == nullptr) return;
    const char* base = strrchr(name, '/');
    base = base != nullptr ? base + 1 : name;
    kv_mutex_lock(g_name_lock);
    // The old name is kept: a thread may be copying it right now.
    g_progname = xstrdup(base);
    kv_mutex_unlock(g_name_lock);
}

const char* msg_get_program_name(void) {
    msg_once_init();
    kv_mutex_lock(g_name_lock);
    const char* n = g_progname;
    kv_mutex_unlock(g_name_lock);
    return n;
}

const char* msg_get_host_name(void) {
    msg_once_init();
    return g_host;
}

MsgThread* msg_thread(void) {
    msg_once_init();
    MsgThread* t = static_cast<MsgThread*>(kv_threadstorage_get(g_thread_key));
    if (t != nullptr) return t;
    while ((t = static_cast<MsgThread*>(calloc(1, sizeof(MsgThread)))) == nullptr)
        kv_thread_sleep(2000);
    for (errinfo& e : t->ring) e.MsgId = MSG_FREE_SLOT;
    t->st_size = structext_ring_size();
    t->st_ring =
        static_cast<structext*>(xcalloc(static_cast<size_t>(t->st_size), sizeof(structext)));
    for (int i = 0; i < t->st_size; ++i) t->st_ring[i].MsgId = MSG_FREE_SLOT;
    t->ring_next = -1;
    t->st_next = -1;
    t->tmperr.MsgId = MSG_FREE_SLOT;
    kv_threadstorage_set(g_thread_key, t);
    return t;
}

void msg_setall_register(MsgThread* t) {
    if (t->setall_listed) return;
    kv_mutex_lock(g_setall_lock);
    t->setall_next = g_setall_threads;
    g_setall_threads = t;
    kv_mutex_unlock(g_setall_lock);
    t->setall_listed = true;
    g_setall_users.fetch_add(1, std::memory_order_release);
}

errinfo* msg_next_errinfo(void) {
    MsgThread* t = msg_thread();
    t->ring_next = (t->ring_next + 1) % MSG_ERRINFO_RING_SIZE;
    errinfo* e = &t->ring[t->ring_next];
    msg_free(e);  // a record the caller forgot is released here
    memset(e, 0, sizeof(*e));
    return e;
}

structext* msg_next_structext(void) {
    MsgThread* t = msg_thread();
    t->st_next = (t->st_next + 1) % t->st_size;
    structext* s = &t->st_ring[t->st_next];
    msg_structext_clear(s);
    memset(s, 0, sizeof(*s));
    return s;
}

void msg_fill_circumstances(errinfo* e) {
    msg_once_init();
    e->timestamp = static_cast<uint64_t>(time(nullptr));
    e->threadID = kv_thread_id();
    e->processID = static_cast<int>(getpid());
    e->activityID = g_activity.load();
    memcpy(e->hostName, g_host, sizeof(e->hostName));
    e->programName = xstrdup(msg_get_program_name());
}

structext* errinfo_structext(errinfo* err) {
    return err == nullptr ? nullptr : reinterpret_cast<structext*>(&err->MsgId);
}

// ---- Release and copies -----------------------------------------------------------------

void msg_structext_clear(structext* st) {
    if (st == nullptr) return;
    free(st->form);
    st->form = nullptr;
    if (st->arglist != nullptr) {
        for (int i = 0; i < st->argcount; ++i) {
            if (st->arglist[i] == nullptr) continue;
            free(st->arglist[i]->arg);
            free(st->arglist[i]);
        }
        free(st->arglist);
    }
    st->arglist = nullptr;
    st->argcount = 0;
    st->MsgId = MSG_FREE_SLOT;
}

void msg_structext_copy(structext* dst, const structext* src) {
    dst->MsgId = src->MsgId;
    dst->form = xstrdup(src->form);
    dst->argcount = src->arglist != nullptr && src->argcount > 0 ? src->argcount : 0;
    dst->arglist = nullptr;
    if (dst->argcount == 0) return;
    dst->arglist =
        static_cast<argtuple**>(xcalloc(static_cast<size_t>(dst->argcount), sizeof(argtuple*)));
    for (int i = 0; i < dst->argcount; ++i) {
        argtuple* a = static_cast<argtuple*>(xmalloc(sizeof(argtuple)));
        const argtuple* s = src->arglist[i];
        a->argdesc = s != nullptr ? s->argdesc : ARG_TEXT;
        a->arg = xstrdup(s != nullptr && s->arg != nullptr ? s->arg : "");
        dst->arglist[i] = a;
    }
}

void msg_free(errinfo* err) {
    if (err == nullptr) return;
    if (err->errstr != nullptr && !is_setall_text(err->errstr)) free(err->errstr);
    err->errstr = nullptr;
    free(err->programName);
    err->programName = nullptr;
    msg_structext_clear(errinfo_structext(err));
}

void err_free(errinfo* err) {
    msg_free(err);
}

void msg_structext_free(structext* strtxt) {
    msg_structext_clear(strtxt);
}
void msg_structext_depopulate(structext* strtxt) {
    msg_structext_clear(strtxt);
}

void err_dup2(errinfo* err, errinfo* newerr) {
    if (newerr == nullptr || err == newerr) return;
    if (err == nullptr) {
        memset(newerr, 0, sizeof(*newerr));
        return;
    }
    newerr->errnum = err->errnum;
    newerr->errstr = xstrdup(err->errstr);
    newerr->timestamp = err->timestamp;
    newerr->threadID = err->threadID;
    newerr->processID = err->processID;
    newerr->activityID = err->activityID;
    memcpy(newerr->hostName, err->hostName, sizeof(newerr->hostName));
    newerr->hostName[sizeof(newerr->hostName) - 1] = '\0';
    newerr->programName = xstrdup(err->programName);
    msg_structext_copy(errinfo_structext(newerr), errinfo_structext(err));
}

errinfo* err_dup(errinfo* src_err) {
    if (src_err == nullptr) return nullptr;
    errinfo tmp;
    err_dup2(src_err, &tmp);  // first, in case src_err is the slot to be taken
    errinfo* e = msg_next_errinfo();
    *e = tmp;
    return e;
}

errinfo* err_restore(errinfo* err) {
    if (err == nullptr) return nullptr;
    errinfo* e = err_dup(err);
    msg_free(err);
    return e;
}

errinfo* err_save(errinfo* err) {
    MsgThread* t = msg_thread();
    if (t->tmperr.form != nullptr || t->tmperr.errstr != nullptr)
        kv_trace(1, 0x1, "err_save: overwriting old tmperr <%s>\n",
                 t->tmperr.errstr != nullptr ? t->tmperr.errstr : "");
    if (err == &t->tmperr) return err;
    msg_free(&t->tmperr);
    memset(&t->tmperr, 0, sizeof(t->tmperr));
    err_dup2(err, &t->tmperr);
    return err != nullptr ? &t->tmperr : nullptr;
}

void err_conv2(errinfo* err, olderrinfo* newerr) {
    if (newerr == nullptr) return;
    if (err == nullptr) {
        newerr->errnum = 0;
        newerr->errstr = nullptr;
        return;
    }
    newerr->errnum = err->errnum;
    newerr->errstr = xstrdup(err->errstr);
}

// ---- Creation ----------------------------------------------------------------------------

namespace {
// Fills the ring record's code and text once its message is in place.
errinfo* finish_errinfo(errinfo* e, int errnum) {
    e->errnum = err_setsev(ERR_TYPE(errnum), ERR_SEV(errnum), ERR_NUM(errnum));
    msg_fill_circumstances(e);
    char* text = nullptr;
    i18n_render_structext(nullptr, 0, &text, nullptr, errinfo_structext(e));
    e->errstr = text != nullptr ? text : xstrdup("");
    return e;
}
}  // namespace

errinfo* msg_vcreate(int msgID, int errnum, const char* form, va_list ap) {
    if (form == nullptr) return nullptr;
    errinfo* e = msg_next_errinfo();
    fill_structext(errinfo_structext(e), msgID, form, ap);
    return finish_errinfo(e, errnum);
}

errinfo* msg_create(int msgID, int errnum, const char* form, ...) {
    if (form == nullptr) return nullptr;
    va_list ap;
    va_start(ap, form);
    errinfo* e = msg_vcreate(msgID, errnum, form, ap);
    va_end(ap);
    return e;
}

errinfo* msg_create_from_structext(int errnum, structext* srctxt) {
    if (srctxt == nullptr || srctxt->form == nullptr) return nullptr;
    structext copy;
    msg_structext_copy(&copy, srctxt);  // before the ring may reuse srctxt's slot
    errinfo* e = msg_next_errinfo();
    *errinfo_structext(e) = copy;
    return finish_errinfo(e, errnum);
}

errinfo* msg_create_from_olderrinfo(olderrinfo* oerr) {
    if (oerr == nullptr) return nullptr;
    return msg_create(0, oerr->errnum, "%s", ARG_TEXT, oerr->errstr != nullptr ? oerr->errstr : "");
}

errinfo* msg_create_from_mlit(int errnum, char* mlit) {
    if (mlit == nullptr) return nullptr;
    const char* colon = strchr(mlit, ':');
    if (colon == nullptr) return nullptr;
    // The id names the literal; the text after the colon is its format.
    errinfo* e = msg_next_errinfo();
    e->MsgId = atoi(mlit);
    e->form = xstrdup(colon + 1);
    return finish_errinfo(e, errnum);
}

structext* msg_vstructext_populate(structext* strtxt, int msgID, const char* form, va_list ap) {
    if (strtxt == nullptr || form == nullptr) return nullptr;
    fill_structext(strtxt, msgID, form, ap);
    return strtxt;
}

structext* msg_structext_populate(structext* strtxt, int msgID, const char* form, ...) {
    va_list ap;
    va_start(ap, form);
    structext* r = msg_vstructext_populate(strtxt, msgID, form, ap);
    va_end(ap);
    return r;
}

structext* msg_vstructext_create(int msgID, const char* form, va_list ap) {
    if (form == nullptr) return nullptr;
    structext* s = msg_next_structext();
    fill_structext(s, msgID, form, ap);
    return s;
}

structext* msg_structext_create(int msgID, const char* form, ...) {
    va_list ap;
    va_start(ap, form);
    structext* r = msg_vstructext_create(msgID, form, ap);
    va_end(ap);
    return r;
}

structext* msg_structext_new(int msgID, const char* form, int argcount, int* argdesc, char** arg) {
    if (form == nullptr) return nullptr;
    if (argcount < 0 || (argcount > 0 && (argdesc == nullptr || arg == nullptr))) argcount = 0;
    if (argcount > MSG_MAX_POSITIONS) argcount = MSG_MAX_POSITIONS;
    structext* s = msg_next_structext();
    s->MsgId = msgID;
    s->form = xstrdup(form);
    s->argcount = argcount;
    if (argcount == 0) return s;
    s->arglist = static_cast<argtuple**>(xcalloc(static_cast<size_t>(argcount), sizeof(argtuple*)));
    for (int i = 0; i < argcount; ++i) {
        argtuple* a = static_cast<argtuple*>(xmalloc(sizeof(argtuple)));
        a->argdesc = argdesc[i];
        a->arg = copy_arg(msgID, &a->argdesc, arg[i]);
        s->arglist[i] = a;
    }
    return s;
}

// ---- Numbers as text ---------------------------------------------------------------------

char* inttostr(int v) {
    return lit_printf("%d", v);
}
char* uinttostr(unsigned int v) {
    return lit_printf("%u", v);
}
char* longtostr(long v) {
    return lit_printf("%ld", v);
}
char* ulongtostr(unsigned long v) {
    return lit_printf("%lu", v);
}
char* floattostr(double v) {
    return lit_printf("%f", v);
}
char* ptrtostr(const void* v) {
    return lit_printf("%p", v);
}
char* chartostr(char v) {
    return lit_printf("%c", v);
}
