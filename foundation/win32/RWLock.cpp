#include "foundation/Locks.h"

#include <windows.h>

namespace Tarvik500 {

static_assert(sizeof(SRWLOCK) == sizeof(void*), "CRWLock keeps the lock in one pointer");

void CRWLock::lockRead() { ::AcquireSRWLockShared(reinterpret_cast<PSRWLOCK>(&m_pSlim)); }
void CRWLock::unlockRead() { ::ReleaseSRWLockShared(reinterpret_cast<PSRWLOCK>(&m_pSlim)); }
void CRWLock::lockWrite() { ::AcquireSRWLockExclusive(reinterpret_cast<PSRWLOCK>(&m_pSlim)); }
void CRWLock::unlockWrite() { ::ReleaseSRWLockExclusive(reinterpret_cast<PSRWLOCK>(&m_pSlim)); }

}  // namespace Tarvik500
