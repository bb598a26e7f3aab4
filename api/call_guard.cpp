#include "api/call_guard.h"

#include "support/log.h"

namespace zor::api {

namespace {
constexpr char kLogModule[] = "ZOR_focuser";
}

void logException(const char *func, const char *what)
{
    logInfoFormatted(kLogModule, __LINE__, func, "exception: %s", what);
}

FamilyLock::FamilyLock(LockRecord &record, int family) : m_record(record), m_family(family)
{
    ++m_record.Busy[m_family];
    if (m_record.Initialised) {
        pthread_mutex_lock(&m_record.Mutex[m_family].mutex);
        m_locked = true;
    }
}

FamilyLock::~FamilyLock()
{
    if (m_locked)
        pthread_mutex_unlock(&m_record.Mutex[m_family].mutex);
    --m_record.Busy[m_family];
}

} // namespace zor::api
