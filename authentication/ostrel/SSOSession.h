// One login while it is negotiated, and the name the host holds it by.
#pragma once

#include <cstdint>

#include "Parameters.h"
#include "foundation/RefCount.h"

namespace ostrel {

class StaticToken;

class SSOSession : public CRefCount {
public:
    // The decimal text of a session's own number; the empty text is 0, no session.
    class SessionIdentifier {
    public:
        explicit SessionIdentifier(const SSOSession* i_pSession) : m_nId(i_pSession->m_nId) {}
        explicit SessionIdentifier(const SWCharString& i_ssKey);
        bool operator<(const SessionIdentifier& i_other) const { return m_nId < i_other.m_nId; }
        SWCharString ToString() const;
        uint64_t GetId() const { return m_nId; }

    private:
        uint64_t m_nId = 0;
    };

    explicit SSOSession(const ParasSeq* i_pParas);

    // Makes the finished context's token and gives up the session's claim on
    // the mechanism's handle. Called once, after the login has finished.
    virtual CSmartRefCountPtr<StaticToken> GetStaticToken() = 0;

    SWCharString GetProvider() const { return m_ssProvider; }
    Parameters& GetParameters() { return m_Parameters; }

    uint16_t m_nPass = 0;

protected:
    ~SSOSession() override = default;

    SWCharString m_ssProvider;
    Parameters m_Parameters;

private:
    const uint64_t m_nId;  // never 0, never another session's, in the process's life
};

using SSOSessionPtr = CSmartRefCountPtr<SSOSession>;

}  // namespace ostrel
