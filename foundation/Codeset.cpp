#include "Codeset.h"

#include <cstring>

namespace Tarvik500 {

SSimpleBuffer::SSimpleBuffer(const char* i_pBytes, size_t i_nBytes)
    : m_pBytes(std::make_shared<char[]>(i_nBytes + 1)), m_nBytes(i_nBytes) {
    if (i_nBytes > 0) {
        std::memcpy(m_pBytes.get(), i_pBytes, i_nBytes);
    }
    m_pBytes[i_nBytes] = 0;
}

// UTF-8 is the one code set there is; like ToAnsiString, what cannot be
// converted comes out as "?" rather than as a failure.
SSimpleBuffer MBCSCodesetConverter::TToExplicitCodeset(const SWCharString& i_ssText, ExplicitCodeset i_eCodeset) {
    SAnsiString converted;
    if (i_eCodeset != ECS_UTF8 || !converted.copyFrom(i_ssText.c_str())) {
        return SSimpleBuffer("?", 1);
    }
    return SSimpleBuffer(converted.c_str(), converted.getNChars());
}

SWCharString MBCSCodesetConverter::ExplicitCodesetToT(const char* i_pText, ExplicitCodeset i_eCodeset) {
    SWCharString converted;
    if (i_eCodeset != ECS_UTF8 || !converted.copyFrom(i_pText)) {
        return SWCharString(OSTREL_T("?"));
    }
    return converted;
}

}  // namespace Tarvik500
