// What a host needs to drive the plug-in: load it by path, resolve the C functions,
// convert its 16-bit text, and put its statuses and error records into words.
// Header-only so that each example stays a single, readable translation unit.
#pragma once

#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <cstddef>
#include <fstream>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "ostrel/ostrel.h"

namespace ostrel_example {

class Plugin {
public:
    Plugin() = default;
    ~Plugin() {
        if (m_pHandle != nullptr) {
            ::dlclose(m_pHandle);
        }
    }
    Plugin(const Plugin&) = delete;
    Plugin& operator=(const Plugin&) = delete;

    // False with a reason when the library or one of its functions is missing.
    bool Load(const std::string& i_path, std::string& o_error) {
        // Local: the plug-in's own symbols stay out of the host's namespace, as in a real host.
        m_pHandle = ::dlopen(i_path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (m_pHandle == nullptr) {
            const char* pWhy = ::dlerror();
            o_error = pWhy != nullptr ? pWhy : ("cannot load " + i_path);
            return false;
        }
        bool bAll = true;
        auto resolve = [&](auto& o_pFunction, const char* i_pName) {
            o_pFunction = reinterpret_cast<std::remove_reference_t<decltype(o_pFunction)>>(::dlsym(m_pHandle, i_pName));
            if (o_pFunction == nullptr) {
                o_error = std::string(i_pName) + " is not exported by " + i_path;
                bAll = false;
            }
        };
        resolve(SSOInitPackage, "SSOInitPackage");
        resolve(SSOTermPackage, "SSOTermPackage");
        resolve(SSOInitProvider, "SSOInitProvider");
        resolve(SSOAcceptLogin, "SSOAcceptLogin");
        resolve(SSOFreeBuffer, "SSOFreeBuffer");
        resolve(SSOFreeString, "SSOFreeString");
        resolve(SSOFreeParameters, "SSOFreeParameters");
        resolve(SSOGetError, "SSOGetError");
        resolve(SSOFreeError, "SSOFreeError");
        resolve(SSOGetMessageContent, "SSOGetMessageContent");
        resolve(SSOStartLogin, "SSOStartLogin");
        resolve(SSOContinueLogin, "SSOContinueLogin");
        resolve(SSOLookupSecurityContext, "SSOLookupSecurityContext");
        resolve(SSOReleaseSecurityContext, "SSOReleaseSecurityContext");
        return bAll;
    }

    decltype(&::SSOInitPackage) SSOInitPackage = nullptr;
    decltype(&::SSOTermPackage) SSOTermPackage = nullptr;
    decltype(&::SSOInitProvider) SSOInitProvider = nullptr;
    decltype(&::SSOAcceptLogin) SSOAcceptLogin = nullptr;
    decltype(&::SSOFreeBuffer) SSOFreeBuffer = nullptr;
    decltype(&::SSOFreeString) SSOFreeString = nullptr;
    decltype(&::SSOFreeParameters) SSOFreeParameters = nullptr;
    decltype(&::SSOGetError) SSOGetError = nullptr;
    decltype(&::SSOFreeError) SSOFreeError = nullptr;
    decltype(&::SSOGetMessageContent) SSOGetMessageContent = nullptr;
    decltype(&::SSOStartLogin) SSOStartLogin = nullptr;
    decltype(&::SSOContinueLogin) SSOContinueLogin = nullptr;
    decltype(&::SSOLookupSecurityContext) SSOLookupSecurityContext = nullptr;
    decltype(&::SSOReleaseSecurityContext) SSOReleaseSecurityContext = nullptr;

private:
    void* m_pHandle = nullptr;
};

// The plug-in's text is UTF-16; hosts usually print UTF-8.
inline std::string ToUtf8(const char16_t* i_pText) {
    std::string out;
    if (i_pText == nullptr) {
        return out;
    }
    for (const char16_t* p = i_pText; *p != 0; ++p) {
        char32_t c = *p;
        if (c >= 0xD800 && c <= 0xDBFF && p[1] >= 0xDC00 && p[1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (p[1] - 0xDC00);
            ++p;
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            c = 0xFFFD;  // a lone surrogate
        }
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

// Service names and provider names are ASCII.
inline std::u16string FromAscii(const std::string& i_text) { return std::u16string(i_text.begin(), i_text.end()); }

inline const char* StatusName(unsigned int i_nStatus) {
    switch (i_nStatus) {
        case SSO_STATUS_OK: return "OK";
        case SSO_STATUS_CONTINUE: return "CONTINUE";
        case SSO_STATUS_SERVER_DONE: return "SERVER_DONE";
        case SSO_STATUS_LOGON_DENIED: return "LOGON_DENIED";
        case SSO_STATUS_FAILURE: return "FAILURE";
        case SSO_STATUS_NOT_SUPPORTED: return "NOT_SUPPORTED";
        case SSO_STATUS_NO_CONTEXT: return "NO_CONTEXT";
        case SSO_STATUS_OUT_OF_MEMORY: return "OUT_OF_MEMORY";
        case SSO_STATUS_NO_CONNECTION: return "NO_CONNECTION";
        case SSO_STATUS_EXTERNAL_SETUP: return "EXTERNAL_SETUP";
        default: return "UNKNOWN";
    }
}

// "1 CONTINUE"
inline std::string StatusText(unsigned int i_nStatus) {
    return std::to_string(i_nStatus) + " " + StatusName(i_nStatus);
}

// The calling thread's error record, in one line; the record goes back to the plug-in.
inline std::string DescribeError(Plugin& i_plugin, unsigned int i_nStatus) {
    Plugin_Exception_Struct* pError = nullptr;
    if (i_plugin.SSOGetError(i_nStatus, &pError) != SSO_STATUS_OK || pError == nullptr) {
        return "no error record";
    }
    std::string text = "error " + std::to_string(pError->errCode) + ", message " + std::to_string(pError->messageId);
    ostrel_char* pMessage = nullptr;
    if (i_plugin.SSOGetMessageContent(pError->messageId, &pMessage) == SSO_STATUS_OK && pMessage != nullptr) {
        std::string message = ToUtf8(pMessage);
        while (!message.empty() && (message.back() == '\n' || message.back() == '\r' || message.back() == ' ')) {
            message.pop_back();
        }
        text += " \"" + message + "\"";
        i_plugin.SSOFreeString(pMessage);
    }
    if (pError->message != nullptr) {
        text += " (" + ToUtf8(pError->message) + ")";
    }
    for (const SubstString* p = pError->pSubstStrings; p != nullptr; p = p->next) {
        text += " [" + ToUtf8(p->data) + "]";
    }
    i_plugin.SSOFreeError(pError);
    return text;
}

// The value of one key in an output parameter list.
inline std::string FindParameter(const ParasSeq* i_pList, const std::u16string& i_key) {
    for (const ParasSeq* p = i_pList; p != nullptr; p = p->next) {
        if (p->key != nullptr && i_key == p->key) {
            return ToUtf8(p->value);
        }
    }
    return {};
}

// A password file of "user password" lines, as the test realm writes it.
inline bool PasswordOf(const std::string& i_file, const std::string& i_user, std::string& o_password) {
    std::ifstream in(i_file);
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string user;
        std::string password;
        if (fields >> user >> password && user == i_user) {
            o_password = password;
            return true;
        }
    }
    return false;
}

// Where this executable lives: the plug-in and the other examples sit next to it.
inline std::string ExecutableDir() {
    std::vector<char> path(PATH_MAX + 1);
    const ssize_t n = ::readlink("/proc/self/exe", path.data(), PATH_MAX);
    if (n <= 0) {
        return ".";
    }
    std::string exe(path.data(), static_cast<size_t>(n));
    const size_t slash = exe.rfind('/');
    return slash == std::string::npos ? "." : exe.substr(0, slash);
}

// Standard base64 with padding, as HTTP's Negotiate scheme carries tokens.
inline std::string Base64Encode(const unsigned char* i_pData, size_t i_nLength) {
    static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((i_nLength + 2) / 3 * 4);
    for (size_t i = 0; i < i_nLength; i += 3) {
        const unsigned int b0 = i_pData[i];
        const unsigned int b1 = i + 1 < i_nLength ? i_pData[i + 1] : 0;
        const unsigned int b2 = i + 2 < i_nLength ? i_pData[i + 2] : 0;
        const unsigned int triple = (b0 << 16) | (b1 << 8) | b2;
        out += kAlphabet[(triple >> 18) & 0x3F];
        out += kAlphabet[(triple >> 12) & 0x3F];
        out += i + 1 < i_nLength ? kAlphabet[(triple >> 6) & 0x3F] : '=';
        out += i + 2 < i_nLength ? kAlphabet[triple & 0x3F] : '=';
    }
    return out;
}

// Strict: false for anything that is not canonical padded base64.
inline bool Base64Decode(const std::string& i_text, std::vector<unsigned char>& o_data) {
    o_data.clear();
    if (i_text.size() % 4 != 0) {
        return false;
    }
    auto value = [](char c) -> int {
        if (c >= 'A' && c <= 'Z') return c - 'A';
        if (c >= 'a' && c <= 'z') return c - 'a' + 26;
        if (c >= '0' && c <= '9') return c - '0' + 52;
        if (c == '+') return 62;
        if (c == '/') return 63;
        return -1;
    };
    o_data.reserve(i_text.size() / 4 * 3);
    for (size_t i = 0; i < i_text.size(); i += 4) {
        const bool bLast = i + 4 == i_text.size();
        const int v0 = value(i_text[i]);
        const int v1 = value(i_text[i + 1]);
        const bool bPad2 = bLast && i_text[i + 2] == '=' && i_text[i + 3] == '=';
        const bool bPad1 = bLast && !bPad2 && i_text[i + 3] == '=';
        const int v2 = bPad2 ? 0 : value(i_text[i + 2]);
        const int v3 = (bPad1 || bPad2) ? 0 : value(i_text[i + 3]);
        if (v0 < 0 || v1 < 0 || v2 < 0 || v3 < 0) {
            return false;
        }
        const unsigned int triple = (static_cast<unsigned int>(v0) << 18) | (static_cast<unsigned int>(v1) << 12) |
                                    (static_cast<unsigned int>(v2) << 6) | static_cast<unsigned int>(v3);
        // Bits that padding hides must be zero, or two texts would decode alike.
        if ((bPad2 && (triple & 0xFFFF) != 0) || (bPad1 && (triple & 0xFF) != 0)) {
            return false;
        }
        o_data.push_back(static_cast<unsigned char>(triple >> 16));
        if (!bPad2) {
            o_data.push_back(static_cast<unsigned char>((triple >> 8) & 0xFF));
        }
        if (!bPad1 && !bPad2) {
            o_data.push_back(static_cast<unsigned char>(triple & 0xFF));
        }
    }
    return true;
}

// ---- One pass of a server login ----

using Bytes = std::vector<unsigned char>;

struct AcceptPass {
    unsigned int status = SSO_STATUS_FAILURE;
    Bytes reply;
    std::u16string key;
    std::string userName;
    std::string sid;        // "SSPI": the user's SID
    std::string groupSids;  // "SSPI": the groups' SIDs, joined by ";"
    std::string error;      // the error record in words, for a failure
};

// One SSOAcceptLogin; everything the plug-in hands out goes back to it here. No
// token is the closing call.
inline AcceptPass Accept(Plugin& io_plugin, const std::u16string& i_key, const Bytes* i_pToken,
                         const char16_t* i_pProvider = SSO_PROVIDER_GSSAPI) {
    AcceptPass pass;
    void* pReply = nullptr;
    size_t nReply = 0;
    ParasSeq* pParameters = nullptr;
    ostrel_char* pKey = nullptr;
    pass.status = io_plugin.SSOAcceptLogin(i_key.c_str(), i_pProvider,
                                           i_pToken != nullptr ? i_pToken->data() : nullptr,
                                           i_pToken != nullptr ? i_pToken->size() : 0, &pReply, &nReply, &pParameters,
                                           &pKey);
    if (pass.status >= SSO_STATUS_FAILURE) {
        pass.error = DescribeError(io_plugin, pass.status);
    }
    if (pReply != nullptr) {
        pass.reply.assign(static_cast<unsigned char*>(pReply), static_cast<unsigned char*>(pReply) + nReply);
        io_plugin.SSOFreeBuffer(pReply);
    }
    if (pKey != nullptr) {
        pass.key = pKey;
        io_plugin.SSOFreeString(pKey);
    }
    pass.userName = FindParameter(pParameters, SSO_KEY_GSSAPI_USER_NAME);
    pass.sid = FindParameter(pParameters, SSO_KEY_SSPI_USER_SID);
    pass.groupSids = FindParameter(pParameters, SSO_KEY_SSPI_USER_GROUP_SIDS);
    io_plugin.SSOFreeParameters(pParameters);
    return pass;
}

// Ends a login the host will not finish: the closing call, whatever it answers.
inline void EndLogin(Plugin& io_plugin, const std::u16string& i_key) {
    void* pReply = nullptr;
    size_t nReply = 0;
    ostrel_char* pKey = nullptr;
    io_plugin.SSOAcceptLogin(i_key.c_str(), SSO_PROVIDER_GSSAPI, nullptr, 0, &pReply, &nReply, nullptr, &pKey);
    io_plugin.SSOFreeBuffer(pReply);
    io_plugin.SSOFreeString(pKey);
}

}  // namespace ostrel_example
