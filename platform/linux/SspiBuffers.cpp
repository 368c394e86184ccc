#include "platform/linux/SspiBuffers.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>
#include <unordered_set>

#include "foundation/LocalTime.h"
#include "foundation/SString.h"

namespace ostrel::platform::linuxport {

namespace {

// Attribute bits a buffer type may carry (read-only and the like).
constexpr ULONG kBufferAttributes = 0xF0000000u;

// The first token buffer of a well-formed description; null otherwise.
PSecBuffer TokenBuffer(PSecBufferDesc i_pDesc) {
    if (i_pDesc == nullptr || i_pDesc->ulVersion != SECBUFFER_VERSION || i_pDesc->pBuffers == nullptr) {
        return nullptr;
    }
    for (ULONG i = 0; i < i_pDesc->cBuffers; ++i) {
        if ((i_pDesc->pBuffers[i].BufferType & ~kBufferAttributes) == SECBUFFER_TOKEN) {
            return &i_pDesc->pBuffers[i];
        }
    }
    return nullptr;
}

struct HandedOut {
    std::mutex m_lock;
    std::unordered_set<void*> m_live;
};

HandedOut& Buffers() {
    static HandedOut s_buffers;
    return s_buffers;
}
// Made when the library loads, so that it ends after whatever holds such buffers.
[[maybe_unused]] const bool g_bBuffersMade = (Buffers(), true);

}  // namespace

SECURITY_STATUS InputToken(PSecBufferDesc i_pInput, gss_buffer_desc& o_token) {
    const PSecBuffer pToken = TokenBuffer(i_pInput);
    if (pToken == nullptr || pToken->pvBuffer == nullptr || pToken->cbBuffer == 0 ||
        pToken->cbBuffer > kMaxInputTokenSize) {
        return SEC_E_INVALID_TOKEN;
    }
    o_token = {pToken->cbBuffer, pToken->pvBuffer};
    return SEC_E_OK;
}

SECURITY_STATUS OutputBuffer::Take(PSecBufferDesc i_pOutput, bool i_bAllocate) {
    m_pBuffer = TokenBuffer(i_pOutput);
    if (m_pBuffer == nullptr) {
        return SEC_E_INVALID_TOKEN;
    }
    m_bAllocate = i_bAllocate;
    m_nCapacity = m_pBuffer->pvBuffer != nullptr ? m_pBuffer->cbBuffer : 0;
    if (m_bAllocate) {
        m_pBuffer->pvBuffer = nullptr;
    }
    m_pBuffer->cbBuffer = 0;
    return SEC_E_OK;
}

SECURITY_STATUS OutputBuffer::Write(const gss_buffer_desc& i_token) {
    if (i_token.length == 0) {
        return SEC_E_OK;
    }
    if (m_bAllocate) {
        m_pBuffer->pvBuffer = AllocateContextBuffer(i_token.length);
        if (m_pBuffer->pvBuffer == nullptr) {
            return SEC_E_INSUFFICIENT_MEMORY;
        }
        m_bAllocated = true;
    } else if (i_token.length > m_nCapacity) {
        return SEC_E_BUFFER_TOO_SMALL;
    }
    std::memcpy(m_pBuffer->pvBuffer, i_token.value, i_token.length);
    m_pBuffer->cbBuffer = static_cast<ULONG>(i_token.length);
    return SEC_E_OK;
}

void* AllocateContextBuffer(size_t i_nBytes) noexcept {
    void* pBuffer = std::calloc(1, i_nBytes == 0 ? 1 : i_nBytes);
    if (pBuffer == nullptr) {
        return nullptr;
    }
    try {
        HandedOut& buffers = Buffers();
        std::lock_guard<std::mutex> guard(buffers.m_lock);
        buffers.m_live.insert(pBuffer);
    } catch (const std::bad_alloc&) {
        std::free(pBuffer);
        return nullptr;
    }
    return pBuffer;
}

bool FreeContextBufferMemory(void* i_pBuffer) noexcept {
    HandedOut& buffers = Buffers();
    {
        std::lock_guard<std::mutex> guard(buffers.m_lock);
        if (buffers.m_live.erase(i_pBuffer) == 0) {
            return false;
        }
    }
    std::free(i_pBuffer);
    return true;
}

SecretBytes IdentityText(const void* i_pText, ULONG i_nLength, bool i_bWide) {
    SecretBytes text(static_cast<size_t>(i_nLength) * 3);
    if (!i_bWide) {
        const char* pBytes = static_cast<const char*>(i_pText);
        for (ULONG i = 0; i < i_nLength; ++i) {
            text.Append(pBytes[i]);
        }
        return text;
    }
    const WCHAR* pUnits = static_cast<const WCHAR*>(i_pText);
    for (ULONG i = 0; i < i_nLength; ++i) {
        uint32_t nCode = pUnits[i];
        const bool bHigh = nCode >= 0xD800 && nCode < 0xDC00;
        if (bHigh && i + 1 < i_nLength && pUnits[i + 1] >= 0xDC00 && pUnits[i + 1] < 0xE000) {
            nCode = 0x10000 + ((nCode - 0xD800) << 10) + (pUnits[++i] - 0xDC00);
        } else if (nCode >= 0xD800 && nCode < 0xE000) {
            nCode = 0xFFFD;  // half of a pair
        }
        Tarvik500::EncodeUtf8(nCode, [&](char c) { text.Append(c); });
    }
    return text;
}

TimeStamp LocalTimeStamp(int64_t i_nSeconds) {
    constexpr int64_t kSecondsFrom1601To1970 = 11644473600;
    constexpr int64_t kTicksPerSecond = 10000000;
    std::tm fields{};
    const int64_t nOffset = Tarvik500::BreakDownLocalTime(i_nSeconds, fields) ? fields.tm_gmtoff : 0;
    TimeStamp stamp{};
    stamp.QuadPart = (i_nSeconds + nOffset + kSecondsFrom1601To1970) * kTicksPerSecond;
    return stamp;
}

TimeStamp NeverExpires() {
    TimeStamp stamp{};
    stamp.QuadPart = 0x7FFFFFFFFFFFFFFF;
    return stamp;
}

}  // namespace ostrel::platform::linuxport
