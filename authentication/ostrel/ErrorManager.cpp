#include "ErrorManager.h"

#include <cstdlib>

#include "foundation/ResManager.h"
#include "foundation/Threads.h"
#include "foundation/Trace.h"

namespace ostrel {

namespace {

ostrel_char s_OutOfMemoryText[] = OSTREL_T("ostrel failed to allocate memory.\n");
Plugin_Exception_Struct s_OutOfMemoryRecord = {STATUS_OUT_OF_MEMORY, MSG_OUT_OF_MEMORY_RECORD, nullptr,
                                               s_OutOfMemoryText};

}  // namespace

Plugin_Exception_Struct* OutOfMemoryRecord() { return &s_OutOfMemoryRecord; }

Plugin_Exception_Struct* CreateErrorStruct(const SSOException& i_exception) {
    if (i_exception.GetCode() == STATUS_OUT_OF_MEMORY) {
        return &s_OutOfMemoryRecord;
    }
    auto* pError = static_cast<Plugin_Exception_Struct*>(std::malloc(sizeof(Plugin_Exception_Struct)));
    if (pError == nullptr) {
        return nullptr;
    }
    pError->errCode = i_exception.GetCode();
    pError->messageId = i_exception.GetMessageId();
    pError->message = nullptr;
    pError->pSubstStrings = nullptr;

    const SIArray<SWCharString>& arrSubst = i_exception.GetSubstStrings();
    const auto nSubstStringCount = static_cast<uint8_t>(arrSubst.GetSize());
    SASSERT(nSubstStringCount <= 3, "nSubstStringCount <= 3");
    if (nSubstStringCount == 0) {
        return pError;
    }
    auto* pSubstStrings = static_cast<SubstString*>(std::malloc(nSubstStringCount * sizeof(SubstString)));
    if (pSubstStrings == nullptr) {
        SASSERT(false, "pSubstStrings");
        return pError;
    }
    for (uint8_t i = 0; i < nSubstStringCount; ++i) {
        pSubstStrings[i].next = (i + 1 < nSubstStringCount) ? &pSubstStrings[i + 1] : nullptr;
        if (arrSubst[i].isEmpty()) {
            pSubstStrings[i].data = nullptr;
        } else {
            pSubstStrings[i].data = WideDup(arrSubst[i].c_str());
            SASSERT(pSubstStrings[i].data != nullptr, "pSubstStrings[i].data");
        }
    }
    pError->pSubstStrings = pSubstStrings;
    return pError;
}

void FreeErrorStruct(Plugin_Exception_Struct* i_pError) {
    if (i_pError == nullptr || i_pError == &s_OutOfMemoryRecord) {
        return;
    }
    i_pError->errCode = 0;
    i_pError->messageId = 0;
    for (SubstString* pNode = i_pError->pSubstStrings; pNode != nullptr; pNode = pNode->next) {
        std::free(pNode->data);
    }
    std::free(i_pError->pSubstStrings);
    std::free(i_pError->message);
    std::free(i_pError);
}

ErrorManager::ErrorManager() {
    try {
        m_TssKey = JTCTSS::allocate();
    } catch (JTCSystemCallException& e) {
        SASSERT_FAIL("ssoplugin: ErrorManager::ErrorManager() -- Error allocating thread local storage.");
        STRACE("ssoplugin: ErrorManager::ErrorManager() -- %1", e.getMessage());
        throw SSOException(g_OutOfMemoryException);
    }
}

ErrorManager::~ErrorManager() {
    try {
        JTCTSS::release(m_TssKey);
    } catch (...) {
        SASSERT(false, "0");
    }
    CSmartWriteLocker lock(m_ErrorLock);
    SISet<Plugin_Exception_Struct*>::Iterator itr(m_Errors);
    while (!itr.isAtEnd()) {
        FreeErrorStruct(itr.value());
        ++itr;
    }
    m_Errors.RemoveAll();
}

void ErrorManager::SetThreadError(const SSOException& i_exception) {
    Plugin_Exception_Struct* pError = CreateErrorStruct(i_exception);
    if (pError == nullptr) {
        SASSERT_FAIL("ssoplugin: ErrorManager::SetThreadError() -- NULL error struct!");
        return;
    }
    try {
        JTCTSS::set(m_TssKey, pError);
    } catch (JTCSystemCallException& e) {
        SASSERT_FAIL("ssoplugin: ErrorManager::SetThreadError() -- Could not set error in thread-local storage!");
        STRACE("ssoplugin: ErrorManager::SetThreadError() -- %1", e.getMessage());
    }
    CSmartWriteLocker lock(m_ErrorLock);
    m_Errors.Add(pError);
}

Plugin_Exception_Struct* ErrorManager::GetThreadError() {
    Plugin_Exception_Struct* pError = nullptr;
    try {
        pError = static_cast<Plugin_Exception_Struct*>(JTCTSS::get(m_TssKey));
        JTCTSS::set(m_TssKey, nullptr);
    } catch (JTCSystemCallException& e) {
        SASSERT_FAIL("ssoplugin: ErrorManager::GetThreadError() -- Could not set error in thread-local storage!");
        STRACE("ssoplugin: ErrorManager::GetThreadError() -- %1", e.getMessage());
    }
    if (pError == nullptr) {
        return nullptr;
    }
    CSmartWriteLocker lock(m_ErrorLock);
    m_Errors.Remove(pError);
    return pError;
}

ostrel_char* ErrorManager::GetMessageContent(uint32_t i_nMessageId) {
    const SWCharString ssText = Tarvik500::SResManager::LoadStringW(i_nMessageId, 0);
    if (ssText.isEmpty()) {
        return nullptr;
    }
    ostrel_char* pMessage = WideDup(ssText.c_str());
    if (pMessage == nullptr) {
        SASSERT(false, "pMessage");
        throw SSOException(g_OutOfMemoryException);
    }
    return pMessage;
}

}  // namespace ostrel
