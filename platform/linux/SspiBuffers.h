// What the security package reads from and writes into its callers' memory:
// the token buffers of buffer descriptions, memory it hands out for
// FreeContextBuffer, text of an identity, and time stamps.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ostrel_platform/GssApi.h"
#include "ostrel_platform/SspiTypes.h"
#include "platform/linux/KerberosObjects.h"

namespace ostrel::platform::linuxport {

// cbMaxToken, as current Windows has it for Kerberos.
inline constexpr ULONG kMaxTokenSize = 48000;
// Windows' own ceiling for an incoming Kerberos token (its largest MaxTokenSize).
inline constexpr ULONG kMaxInputTokenSize = 65535;

// The token buffer of an input description, as the library takes it.
// SEC_E_INVALID_TOKEN for a malformed description, no token, an empty or an oversized one.
SECURITY_STATUS InputToken(PSecBufferDesc i_pInput, gss_buffer_desc& o_token);
// The token buffer of an output description, for one pass. It says "no token"
// from the start, so that a pass that fails hands nothing out.
class OutputBuffer {
public:
    // SEC_E_INVALID_TOKEN when the description has no token buffer. With
    // i_bAllocate the token goes into memory of ours (FreeContextBuffer).
    SECURITY_STATUS Take(PSecBufferDesc i_pOutput, bool i_bAllocate);
    // SEC_E_BUFFER_TOO_SMALL when the caller's buffer cannot hold the token,
    // SEC_E_INSUFFICIENT_MEMORY when no memory is left for it.
    SECURITY_STATUS Write(const gss_buffer_desc& i_token);
    bool Allocated() const { return m_bAllocated; }

private:
    PSecBuffer m_pBuffer = nullptr;
    ULONG m_nCapacity = 0;
    bool m_bAllocate = false;
    bool m_bAllocated = false;
};

// Zeroed memory that only FreeContextBuffer takes back; null when none is left.
void* AllocateContextBuffer(size_t i_nBytes) noexcept;
// False for anything not handed out (and not yet taken back) here.
bool FreeContextBufferMemory(void* i_pBuffer) noexcept;

// Text of an identity as UTF-8: i_bWide says 16-bit units, else bytes taken as they are.
SecretBytes IdentityText(const void* i_pText, ULONG i_nLength, bool i_bWide);

// Seconds since 1970 as a FILETIME in local time, the way SSPI reports times.
TimeStamp LocalTimeStamp(int64_t i_nSeconds);
// The largest stamp: no end.
TimeStamp NeverExpires();

}  // namespace ostrel::platform::linuxport
