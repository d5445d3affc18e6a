// The guard also tells the spawner's saved copy of the environment, since
// that copy, not environ, is what children inherit.
#include "tests/support/scoped_env.h"

#include <stdlib.h>

#include "liblocal/kv_env.h"

namespace zovtest {

ScopedEnv::ScopedEnv(const char* name, const char* value) : m_name(name) {
    const char* old = getenv(name);
    m_had = old != nullptr;
    if (m_had) m_old = old;
    apply(value);
}

ScopedEnv::~ScopedEnv() {
    apply(m_had ? m_old.c_str() : nullptr);
}

void ScopedEnv::apply(const char* value) {
    if (value != nullptr)
        setenv(m_name.c_str(), value, 1);
    else
        unsetenv(m_name.c_str());
    kv_env_init_from_environ();
}

}  // namespace zovtest
