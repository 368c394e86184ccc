// A fuzzer's bytes read as what a host hands the plug-in, and what a careful host does with what it gets back.
#pragma once

#include <algorithm>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "ostrel/ostrel.h"

// The next line of io_rest, without its '\n'.
inline std::string RawLine(std::string_view& io_rest) {
    const std::string line(io_rest.substr(0, io_rest.find('\n')));
    io_rest.remove_prefix(std::min(line.size() + 1, io_rest.size()));
    return line;
}
// The same as 16-bit text: 0xFF and the two bytes after it are one unit of any value (surrogates, beyond Latin-1).
inline std::u16string Line(std::string_view& io_rest) {
    const std::string raw = RawLine(io_rest);
    std::u16string line;
    for (size_t i = 0; i < raw.size(); i += raw[i] == '\xFF' && i + 2 < raw.size() ? 3 : 1) {
        line += raw[i] == '\xFF' && i + 2 < raw.size() ? static_cast<char16_t>(raw[i + 1] << 8 | (raw[i + 2] & 0xFF))
                                                       : static_cast<char16_t>(raw[i] & 0xFF);
    }
    return line;
}

// Lines up to an empty one, each a type digit and key=value: without '=' the value is NULL, an empty key is NULL.
struct Sequence {
    explicit Sequence(std::string_view& io_rest) {
        for (std::u16string line; !(line = Line(io_rest)).empty();) {
            const size_t eq = line.find(u'=', 1);
            std::u16string& key = texts.emplace_back(line.substr(1, eq == line.npos ? eq : eq - 1));
            std::u16string* pValue = eq == line.npos ? nullptr : &texts.emplace_back(line.substr(eq + 1));
            elements.push_back({key.empty() ? nullptr : key.data(), static_cast<uint32_t>(line[0] - u'0'), 0,
                                pValue != nullptr ? pValue->data() : nullptr, nullptr});
        }
        for (size_t i = 0; i + 1 < elements.size(); ++i) elements[i].next = &elements[i + 1];
    }
    const ParasSeq* Head() const { return elements.empty() ? nullptr : elements.data(); }

    std::deque<std::u16string> texts;  // stays where it is as it grows
    std::vector<ParasSeq> elements;
};

// Reads every unit of what the plug-in handed out, so that a short or dangling string is caught.
inline volatile unsigned g_nTouched = 0;
inline void Touch(const ostrel_char* i_pText) {
    while (i_pText != nullptr && *i_pText != 0) g_nTouched = g_nTouched + *i_pText++;
}
inline void Touch(const ParasSeq* i_pSeq) {
    for (; i_pSeq != nullptr; i_pSeq = i_pSeq->next) Touch(i_pSeq->key), Touch(i_pSeq->value);
}

// A failure's record fetched, read with its message's text, and given back; the status passes through.
inline unsigned Check(unsigned i_nStatus) {
    Plugin_Exception_Struct* pError = nullptr;
    if (i_nStatus >= SSO_STATUS_FAILURE && SSOGetError(i_nStatus, &pError) == SSO_STATUS_OK) {
        for (const SubstString* p = pError->pSubstStrings; p != nullptr; p = p->next) Touch(p->data);
        ostrel_char* pText = nullptr;
        SSOGetMessageContent(pError->messageId, &pText);
        Touch(pText), SSOFreeString(pText), SSOFreeError(pError);
    }
    return i_nStatus;
}

// One pass of a server login, everything it hands out read and given back; its status and key.
inline std::pair<unsigned, std::u16string> Accept(const std::u16string& i_key, const ostrel_char* i_pProvider,
                                                  const void* i_pToken, size_t i_nLength) {
    void* pBuffer = nullptr;
    size_t nLength = 0;
    ParasSeq* pParams = nullptr;
    ostrel_char* pKey = nullptr;
    const unsigned nStatus =
        Check(SSOAcceptLogin(i_key.c_str(), i_pProvider, i_pToken, i_nLength, &pBuffer, &nLength, &pParams, &pKey));
    for (size_t i = 0; pBuffer != nullptr && i < nLength; ++i) g_nTouched = g_nTouched + static_cast<char*>(pBuffer)[i];
    std::pair<unsigned, std::u16string> pass(nStatus, pKey != nullptr ? pKey : u"");
    Touch(pParams), SSOFreeString(pKey), SSOFreeParameters(pParams), SSOFreeBuffer(pBuffer);
    return pass;
}

// The package started and the provider set up for server logins that end in the cache; 0 when both succeed.
inline int InitPackage(const ostrel_char* i_pProvider) {
    std::string_view settings = "1SI_SERVER_SSPI_SPN=HTTP/localhost\n3SI_CACHE_SECCONTEXT=1\n";
    return SSOInitPackage() == SSO_STATUS_OK && SSOInitProvider(i_pProvider, Sequence(settings).Head()) == 0 ? 0 : 1;
}
