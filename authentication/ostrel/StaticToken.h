// A finished security context: what the context cache keeps.
#pragma once

#include <atomic>
#include <cstdint>

#include "foundation/DateTime.h"
#include "foundation/Locks.h"
#include "foundation/RefCount.h"
#include "foundation/SString.h"

namespace ostrel {
using namespace Tarvik500;

class SSOHandler;

class StaticToken : public CRefCount {
public:
    virtual void Impersonate() = 0;
    virtual void Revert() = 0;
    // The mechanism's own credential has run out at i_now.
    virtual bool Expired(const SDateTime& i_now) = 0;
    // Replaces the credential in place; true on success.
    virtual bool RenegotiateImpl() = 0;
    virtual STimeSpan GetRemainingLifetime(const SDateTime& i_now) = 0;
    virtual STimeSpan GetLifetime() = 0;

    // The configured limit, counted from creation; no renewal moves it.
    bool ExpiredByConfiguration(const SDateTime& i_now);
    // True only if a renegotiation took place and succeeded. Never throws.
    bool Renegotiate(const SDateTime& i_now);
    bool IsImpersonated();
    // The whole expiry test, the mechanism's first.
    bool IsExpired(const SDateTime& i_now) { return Expired(i_now) || ExpiredByConfiguration(i_now); }

    const SWCharString& GetProvider() const { return m_ssProvider; }
    SDateTime GetCreated() const { return m_dtCreated; }
    // The number of the key the cache gives this token: the same on every insert.
    uint64_t GetKey() const { return m_nKey; }
    // The provider's handler, found by name once and kept, so that the expiry
    // test takes no process-wide lock. Throws as the factory does.
    SSOHandler& Handler();

protected:
    StaticToken();
    ~StaticToken() override;

    SWCharString m_ssProvider;
    SDateTime m_dtCreated;
    SDateTime m_dtRenewed;
    uint16_t m_nImpersonations = 0;
    CRWLock m_Lock;

private:
    const uint64_t m_nKey;
    std::atomic<SSOHandler*> m_pHandler{nullptr};  // holds a reference once set
};

}  // namespace ostrel
