// Text form of the state, its folder, the lock and the command log.
// The reader is hand-written on purpose: every tool invocation parses the whole
// state, and with thousands of LUNs a stream-based reader costs ten times more.
#include "tools/arraysim/state.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace arraysim {

// ---------------------------------------------------------------- lookups

int State::frame_by_addr(const std::string& addr) const {
  for (size_t f = 0; f < frames.size(); ++f)
    for (const auto& a : frames[f].addrs)
      if (a == addr) return static_cast<int>(f);
  return -1;
}

static bool iequal(const std::string& a, const std::string& b) {
  return a.size() == b.size() && strncasecmp(a.c_str(), b.c_str(), a.size()) == 0;
}

int State::host_by_name_or_addr(const std::string& key) const {
  for (size_t h = 0; h < hosts.size(); ++h)
    if (iequal(hosts[h].name, key) || hosts[h].addr == key) return static_cast<int>(h);
  return -1;
}

int State::local_host() const {
  for (size_t h = 0; h < hosts.size(); ++h)
    if (hosts[h].local) return static_cast<int>(h);
  return hosts.empty() ? -1 : 0;
}

Lun* State::lun(int frame, int num) {
  for (auto& l : luns)
    if (l.frame == frame && l.num == num) return &l;
  return nullptr;
}

const Lun* State::lun(int frame, int num) const {
  for (const auto& l : luns)
    if (l.frame == frame && l.num == num) return &l;
  return nullptr;
}

Lun* State::lun_any_frame(int num) {
  for (auto& l : luns)
    if (l.num == num) return &l;
  return nullptr;
}

int State::group_by_name(int frame, const std::string& name) const {
  for (size_t g = 0; g < groups.size(); ++g)
    if (groups[g].frame == frame && groups[g].name == name) return static_cast<int>(g);
  return -1;
}

CloneGroup* State::clonegroup(int frame, const std::string& key) {
  for (auto& g : clonegroups)
    if (g.frame == frame && (iequal(g.uid, key) || g.name == key)) return &g;
  return nullptr;
}

Session* State::session(const std::string& name) {
  for (auto& s : sessions)
    if (s.name == name) return &s;
  return nullptr;
}

KvtSnap* State::kvtsnap(int frame, const std::string& name) {
  for (auto& k : kvtsnaps)
    if (k.frame == frame && k.name == name) return &k;
  return nullptr;
}

ConsistencyGroup* State::cg(int frame, const std::string& name) {
  for (auto& c : cgs)
    if (c.frame == frame && c.name == name) return &c;
  return nullptr;
}

std::string State::owner_addr(const Lun& l) const {
  if (l.frame < 0 || l.frame >= static_cast<int>(frames.size())) return "0.0.0.0";
  const Frame& f = frames[l.frame];
  if (f.addrs.empty()) return "0.0.0.0";
  if (l.trespassed && f.addrs.size() > 1) return f.addrs[1];
  return f.addrs[0];
}

// ---------------------------------------------------------------- escaping

static bool needs_escape(unsigned char c) {
  return c <= ' ' || c == '%' || c == '=' || c == ',' || c == 0x7f;
}

std::string escape_value(const std::string& v) {
  std::string out;
  out.reserve(v.size());
  static const char hex[] = "0123456789ABCDEF";
  for (unsigned char c : v) {
    if (needs_escape(c)) {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

static int hexval(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

std::string unescape_value(const char* p, size_t n) {
  std::string out;
  out.reserve(n);
  for (size_t i = 0; i < n; ++i) {
    if (p[i] == '%' && i + 2 < n) {
      int a = hexval(p[i + 1]);
      int b = hexval(p[i + 2]);
      if (a >= 0 && b >= 0) {
        out += static_cast<char>(a * 16 + b);
        i += 2;
        continue;
      }
    }
    out += p[i];
  }
  return out;
}

// ---------------------------------------------------------------- parsing

namespace {

struct Token {
  const char* key;
  size_t klen;
  const char* val;
  size_t vlen;
  bool is(const char* k) const { return strlen(k) == klen && memcmp(k, key, klen) == 0; }
  std::string str() const {
    // Most values need no unescaping; skip the slow path for them.
    if (!memchr(val, '%', vlen)) return std::string(val, vlen);
    return unescape_value(val, vlen);
  }
};

bool to_ll(const Token& t, long long& out) {
  if (t.vlen == 0 || t.vlen > 20) return false;
  char buf[24];
  memcpy(buf, t.val, t.vlen);
  buf[t.vlen] = 0;
  char* end = nullptr;
  errno = 0;
  long long v = strtoll(buf, &end, 10);
  if (errno || *end) return false;
  out = v;
  return true;
}

bool to_int(const Token& t, int& out) {
  long long v;
  if (!to_ll(t, v) || v < -2147483647LL || v > 2147483647LL) return false;
  out = static_cast<int>(v);
  return true;
}

bool to_bool(const Token& t, bool& out) {
  if (t.vlen == 1 && (t.val[0] == '0' || t.val[0] == '1')) {
    out = t.val[0] == '1';
    return true;
  }
  return false;
}

std::vector<std::string> to_list(const Token& t) {
  std::vector<std::string> out;
  size_t start = 0;
  for (size_t i = 0; i <= t.vlen; ++i) {
    if (i == t.vlen || t.val[i] == ',') {
      if (i > start) out.push_back(unescape_value(t.val + start, i - start));
      start = i + 1;
    }
  }
  return out;
}

bool to_int_list(const Token& t, std::vector<int>& out) {
  out.clear();
  for (const auto& s : to_list(t)) {
    char* end = nullptr;
    long v = strtol(s.c_str(), &end, 10);
    if (*end || s.empty()) return false;
    out.push_back(static_cast<int>(v));
  }
  return true;
}

bool parse_pairs(const Token& t, std::vector<Pair>& out) {
  out.clear();
  for (const auto& s : to_list(t)) {
    Pair p;
    if (sscanf(s.c_str(), "%d:%d", &p.hlu, &p.alu) != 2) return false;
    out.push_back(p);
  }
  return true;
}

// Splits one line into its kind and key=value tokens. Returns false on a
// token without '='.
bool split_line(const char* p, const char* end, std::string& kind, std::vector<Token>& toks) {
  toks.clear();
  while (p < end && *p == ' ') ++p;
  const char* k = p;
  while (p < end && *p != ' ') ++p;
  kind.assign(k, p - k);
  while (p < end) {
    while (p < end && *p == ' ') ++p;
    if (p >= end) break;
    const char* s = p;
    while (p < end && *p != ' ') ++p;
    const char* eq = static_cast<const char*>(memchr(s, '=', p - s));
    if (!eq) return false;
    toks.push_back(Token{s, static_cast<size_t>(eq - s), eq + 1, static_cast<size_t>(p - eq - 1)});
  }
  return true;
}

#define NUM(field)                 \
  if (t.is(#field)) {              \
    if (!to_int(t, r.field)) return false; \
    continue;                      \
  }
#define LNUM(field)                \
  if (t.is(#field)) {              \
    if (!to_ll(t, r.field)) return false; \
    continue;                      \
  }
#define STR(field)                 \
  if (t.is(#field)) {              \
    r.field = t.str();             \
    continue;                      \
  }
#define BOOL(field)                \
  if (t.is(#field)) {              \
    if (!to_bool(t, r.field)) return false; \
    continue;                      \
  }

bool parse_record(const std::string& kind, const std::vector<Token>& toks, State& st) {
  if (kind == "lun") {
    Lun r;
    for (const auto& t : toks) {
      NUM(frame) NUM(num) STR(name) STR(wwn) LNUM(blocks) BOOL(trespassed) STR(mount)
      STR(snapname) STR(snapdev) NUM(smp) STR(smpdev) STR(cg)
      return false;
    }
    st.luns.push_back(std::move(r));
    return true;
  }
  if (kind == "dev") {
    if (st.luns.empty()) return false;
    HostDev r;
    for (const auto& t : toks) {
      NUM(host) STR(pseudo)
      if (t.is("paths")) {
        r.paths = to_list(t);
        continue;
      }
      return false;
    }
    st.luns.back().devs.push_back(std::move(r));
    return true;
  }
  if (kind == "clone") {
    if (st.clonegroups.empty()) return false;
    Clone r;
    for (const auto& t : toks) {
      STR(id) NUM(lun) STR(state) STR(cond) BOOL(fractured) STR(rate) NUM(pct) STR(op)
      return false;
    }
    st.clonegroups.back().clones.push_back(std::move(r));
    return true;
  }
  if (kind == "frame") {
    Frame r;
    for (const auto& t : toks) {
      STR(name) STR(serial) STR(uid) BOOL(down)
      if (t.is("addrs")) {
        r.addrs = to_list(t);
        continue;
      }
      return false;
    }
    st.frames.push_back(std::move(r));
    return true;
  }
  if (kind == "host") {
    Host r;
    for (const auto& t : toks) {
      STR(name) STR(addr) BOOL(local)
      if (t.is("agent")) {
        if (!to_bool(t, r.agent_up)) return false;
        continue;
      }
      return false;
    }
    st.hosts.push_back(std::move(r));
    return true;
  }
  if (kind == "hba") {
    if (st.hosts.empty()) return false;
    Hba r;
    for (const auto& t : toks) {
      STR(uid) STR(dev)
      return false;
    }
    st.hosts.back().hbas.push_back(std::move(r));
    return true;
  }
  if (kind == "group") {
    Group r;
    for (const auto& t : toks) {
      NUM(frame) STR(name) STR(uid) NUM(host) NUM(form)
      if (t.is("pairs")) {
        if (!parse_pairs(t, r.pairs)) return false;
        continue;
      }
      return false;
    }
    st.groups.push_back(std::move(r));
    return true;
  }
  if (kind == "session") {
    Session r;
    for (const auto& t : toks) {
      STR(name) NUM(frame) NUM(lun) LNUM(created) BOOL(activated) NUM(rollbacks)
      return false;
    }
    st.sessions.push_back(std::move(r));
    return true;
  }
  if (kind == "clonegroup") {
    CloneGroup r;
    for (const auto& t : toks) {
      NUM(frame) STR(name) STR(uid) NUM(src)
      return false;
    }
    st.clonegroups.push_back(std::move(r));
    return true;
  }
  if (kind == "kvtsnap") {
    KvtSnap r;
    for (const auto& t : toks) {
      NUM(frame) STR(name) STR(res) LNUM(created) STR(attached) NUM(restores)
      if (t.is("sources")) {
        if (!to_int_list(t, r.sources)) return false;
        continue;
      }
      return false;
    }
    st.kvtsnaps.push_back(std::move(r));
    return true;
  }
  if (kind == "cg") {
    ConsistencyGroup r;
    for (const auto& t : toks) {
      NUM(frame) STR(name)
      if (t.is("luns")) {
        if (!to_int_list(t, r.luns)) return false;
        continue;
      }
      return false;
    }
    st.cgs.push_back(std::move(r));
    return true;
  }
  if (kind == "package") {
    Package r;
    for (const auto& t : toks) {
      NUM(frame) STR(name) STR(rev) BOOL(commit) BOOL(active)
      return false;
    }
    st.packages.push_back(std::move(r));
    return true;
  }
  if (kind == "foreign") {
    ForeignDev r;
    for (const auto& t : toks) {
      STR(name) STR(vendor) STR(product)
      return false;
    }
    st.foreign.push_back(std::move(r));
    return true;
  }
  if (kind == "fault") {
    Fault r;
    for (const auto& t : toks) {
      STR(tool) STR(match) STR(kind) STR(arg) NUM(count)
      return false;
    }
    st.faults.push_back(std::move(r));
    return true;
  }
  if (kind == "option") {
    Options& r = st.opt;
    for (const auto& t : toks) {
      NUM(sync_steps) BOOL(secfile) BOOL(vxdisk) STR(rev_tillo) STR(rev_gelmot) STR(rev_hadrix)
      STR(rev_pirnet) BOOL(hadrix_installed) LNUM(clock) NUM(seq)
      return false;
    }
    return true;
  }
  return false;
}

#undef NUM
#undef LNUM
#undef STR
#undef BOOL

}  // namespace

bool parse_state(const char* data, size_t len, State& st, std::string& err) {
  st = State();
  const char* p = data;
  const char* end = data + len;
  const char* nl = static_cast<const char*>(memchr(p, '\n', end - p));
  const char* hend = nl ? nl : end;
  size_t hl = strlen(kStateHeader);
  if (static_cast<size_t>(hend - p) <= hl + 1 || memcmp(p, kStateHeader, hl) != 0 || p[hl] != ' ') {
    err = "not an arraysim state file (no \"" + std::string(kStateHeader) + "\" header line)";
    return false;
  }
  int version = atoi(std::string(p + hl + 1, hend).c_str());
  if (version != kStateVersion) {
    err = "state file format version " + std::to_string(version) + " is not supported (this arraysim reads version " +
          std::to_string(kStateVersion) + "); make the state again with \"arraysim init\"";
    return false;
  }
  p = nl ? nl + 1 : end;
  std::string kind;
  std::vector<Token> toks;
  int lineno = 1;
  while (p < end) {
    ++lineno;
    nl = static_cast<const char*>(memchr(p, '\n', end - p));
    const char* le = nl ? nl : end;
    const char* q = p;
    while (q < le && (*q == ' ' || *q == '\t' || *q == '\r')) ++q;
    if (q < le && *q != '#') {
      const char* te = le;
      while (te > q && (te[-1] == '\r' || te[-1] == ' ')) --te;
      if (!split_line(q, te, kind, toks) || !parse_record(kind, toks, st)) {
        err = "malformed state line " + std::to_string(lineno) + ": " + std::string(q, te);
        return false;
      }
    }
    p = nl ? nl + 1 : end;
  }
  return true;
}

// ---------------------------------------------------------------- formatting

namespace {

struct Out {
  std::string s;
  void kind(const char* k) { s += k; }
  void str(const char* k, const std::string& v) {
    s += ' ';
    s += k;
    s += '=';
    s += escape_value(v);
  }
  void num(const char* k, long long v) {
    s += ' ';
    s += k;
    s += '=';
    s += std::to_string(v);
  }
  void flag(const char* k, bool v) {
    s += ' ';
    s += k;
    s += v ? "=1" : "=0";
  }
  void list(const char* k, const std::vector<std::string>& v) {
    s += ' ';
    s += k;
    s += '=';
    for (size_t i = 0; i < v.size(); ++i) {
      if (i) s += ',';
      s += escape_value(v[i]);
    }
  }
  void ints(const char* k, const std::vector<int>& v) {
    s += ' ';
    s += k;
    s += '=';
    for (size_t i = 0; i < v.size(); ++i) {
      if (i) s += ',';
      s += std::to_string(v[i]);
    }
  }
  void end() { s += '\n'; }
};

}  // namespace

std::string format_state(const State& st) {
  Out o;
  o.s.reserve(256 + st.luns.size() * 200);
  o.s += kStateHeader;
  o.s += ' ';
  o.s += std::to_string(kStateVersion);
  o.s += '\n';
  const Options& p = st.opt;
  o.kind("option");
  o.num("sync_steps", p.sync_steps);
  o.flag("secfile", p.secfile);
  o.flag("vxdisk", p.vxdisk);
  o.str("rev_tillo", p.rev_tillo);
  o.str("rev_gelmot", p.rev_gelmot);
  o.str("rev_hadrix", p.rev_hadrix);
  o.str("rev_pirnet", p.rev_pirnet);
  o.flag("hadrix_installed", p.hadrix_installed);
  o.num("clock", p.clock);
  o.num("seq", p.seq);
  o.end();
  for (const auto& f : st.frames) {
    o.kind("frame");
    o.str("name", f.name);
    o.str("serial", f.serial);
    o.str("uid", f.uid);
    o.list("addrs", f.addrs);
    o.flag("down", f.down);
    o.end();
  }
  for (const auto& h : st.hosts) {
    o.kind("host");
    o.str("name", h.name);
    o.str("addr", h.addr);
    o.flag("agent", h.agent_up);
    o.flag("local", h.local);
    o.end();
    for (const auto& b : h.hbas) {
      o.kind("hba");
      o.str("uid", b.uid);
      o.str("dev", b.dev);
      o.end();
    }
  }
  for (const auto& g : st.groups) {
    o.kind("group");
    o.num("frame", g.frame);
    o.str("name", g.name);
    o.str("uid", g.uid);
    o.num("host", g.host);
    o.num("form", g.form);
    o.s += " pairs=";
    for (size_t i = 0; i < g.pairs.size(); ++i) {
      if (i) o.s += ',';
      o.s += std::to_string(g.pairs[i].hlu);
      o.s += ':';
      o.s += std::to_string(g.pairs[i].alu);
    }
    o.end();
  }
  for (const auto& l : st.luns) {
    o.kind("lun");
    o.num("frame", l.frame);
    o.num("num", l.num);
    o.str("name", l.name);
    o.str("wwn", l.wwn);
    o.num("blocks", l.blocks);
    o.flag("trespassed", l.trespassed);
    if (!l.mount.empty()) o.str("mount", l.mount);
    if (!l.snapname.empty()) {
      o.str("snapname", l.snapname);
      o.str("snapdev", l.snapdev);
    }
    if (l.smp >= 0) {
      o.num("smp", l.smp);
      o.str("smpdev", l.smpdev);
    }
    if (!l.cg.empty()) o.str("cg", l.cg);
    o.end();
    for (const auto& d : l.devs) {
      o.kind("dev");
      o.num("host", d.host);
      if (!d.pseudo.empty()) o.str("pseudo", d.pseudo);
      o.list("paths", d.paths);
      o.end();
    }
  }
  for (const auto& s : st.sessions) {
    o.kind("session");
    o.str("name", s.name);
    o.num("frame", s.frame);
    o.num("lun", s.lun);
    o.num("created", s.created);
    o.flag("activated", s.activated);
    o.num("rollbacks", s.rollbacks);
    o.end();
  }
  for (const auto& g : st.clonegroups) {
    o.kind("clonegroup");
    o.num("frame", g.frame);
    o.str("name", g.name);
    o.str("uid", g.uid);
    o.num("src", g.src);
    o.end();
    for (const auto& c : g.clones) {
      o.kind("clone");
      o.str("id", c.id);
      o.num("lun", c.lun);
      o.str("state", c.state);
      o.str("cond", c.cond);
      o.flag("fractured", c.fractured);
      o.str("rate", c.rate);
      o.num("pct", c.pct);
      o.str("op", c.op);
      o.end();
    }
  }
  for (const auto& k : st.kvtsnaps) {
    o.kind("kvtsnap");
    o.num("frame", k.frame);
    o.str("name", k.name);
    o.str("res", k.res);
    o.ints("sources", k.sources);
    o.num("created", k.created);
    o.str("attached", k.attached);
    o.num("restores", k.restores);
    o.end();
  }
  for (const auto& c : st.cgs) {
    o.kind("cg");
    o.num("frame", c.frame);
    o.str("name", c.name);
    o.ints("luns", c.luns);
    o.end();
  }
  for (const auto& pk : st.packages) {
    o.kind("package");
    o.num("frame", pk.frame);
    o.str("name", pk.name);
    o.str("rev", pk.rev);
    o.flag("commit", pk.commit);
    o.flag("active", pk.active);
    o.end();
  }
  for (const auto& f : st.foreign) {
    o.kind("foreign");
    o.str("name", f.name);
    o.str("vendor", f.vendor);
    o.str("product", f.product);
    o.end();
  }
  for (const auto& f : st.faults) {
    o.kind("fault");
    o.str("tool", f.tool);
    o.str("match", f.match);
    o.str("kind", f.kind);
    o.str("arg", f.arg);
    o.num("count", f.count);
    o.end();
  }
  return o.s;
}

// ---------------------------------------------------------------- folder

std::string state_dir_from_env() {
  const char* v = getenv(kStateEnv);
  return v && *v ? std::string(v) : std::string();
}

std::string state_file(const std::string& dir) { return dir + "/state"; }
std::string dev_dir(const std::string& dir) { return dir + "/dev"; }

FolderLock::FolderLock(const std::string& dir) {
  std::string path = dir + "/lock";
  fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd_ < 0) return;
  struct flock fl;
  memset(&fl, 0, sizeof fl);
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  while (fcntl(fd_, F_SETLKW, &fl) < 0) {
    if (errno != EINTR) {
      close(fd_);
      fd_ = -1;
      return;
    }
  }
}

FolderLock::~FolderLock() {
  // Closing the descriptor releases the fcntl lock.
  if (fd_ >= 0) close(fd_);
}

bool read_file(const std::string& path, std::string& out) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat sb;
  out.clear();
  if (fstat(fd, &sb) == 0 && sb.st_size > 0) out.reserve(static_cast<size_t>(sb.st_size) + 1);
  char buf[65536];
  for (;;) {
    ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR) continue;
      close(fd);
      return false;
    }
    if (n == 0) break;
    out.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  return true;
}

static bool write_all(int fd, const char* p, size_t n) {
  while (n > 0) {
    ssize_t w = write(fd, p, n);
    if (w < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    p += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

bool write_file_atomic(const std::string& path, const std::string& data) {
  std::string tmp = path + ".tmp";
  int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  bool ok = write_all(fd, data.data(), data.size());
  if (close(fd) != 0) ok = false;
  if (!ok || rename(tmp.c_str(), path.c_str()) != 0) {
    unlink(tmp.c_str());
    return false;
  }
  return true;
}

bool load_state(const std::string& dir, State& st, std::string& err) {
  std::string data;
  if (!read_file(state_file(dir), data)) {
    err = "cannot read " + state_file(dir) + ": " + strerror(errno) + " (make one with \"arraysim init\")";
    return false;
  }
  return parse_state(data.data(), data.size(), st, err);
}

bool save_state(const std::string& dir, const State& st, std::string& err) {
  if (!write_file_atomic(state_file(dir), format_state(st))) {
    err = "cannot write " + state_file(dir) + ": " + strerror(errno);
    return false;
  }
  return true;
}

void append_log(const std::string& dir, const std::string& line) {
  std::string path = dir + "/commands.log";
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return;
  std::string l = line;
  for (auto& c : l)
    if (c == '\n') c = ' ';
  l += '\n';
  write_all(fd, l.data(), l.size());
  close(fd);
}

}  // namespace arraysim
