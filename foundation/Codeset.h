// Byte buffers and conversion of wide text to and from an explicit code set.
#pragma once

#include <cstddef>
#include <memory>

#include "SString.h"

namespace Tarvik500 {

// Shared, zero-terminated bytes: copies share one buffer.
class SSimpleBuffer {
public:
    SSimpleBuffer() = default;
    SSimpleBuffer(const char* i_pBytes, size_t i_nBytes);
    virtual ~SSimpleBuffer() = default;
    const char* data() const { return m_pBytes ? m_pBytes.get() : ""; }
    size_t size() const { return m_nBytes; }

private:
    std::shared_ptr<char[]> m_pBytes;
    size_t m_nBytes = 0;
};

enum ExplicitCodeset { ECS_UTF8 = 1 };

class MBCSCodesetConverter {
public:
    static SSimpleBuffer TToExplicitCodeset(const SWCharString& i_ssText, ExplicitCodeset i_eCodeset);
    static SWCharString ExplicitCodesetToT(const char* i_pText, ExplicitCodeset i_eCodeset);
};

}  // namespace Tarvik500
