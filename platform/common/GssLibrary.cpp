#include <map>
#include <mutex>
#include <string>

#include "ostrel_platform/GssApi.h"

namespace ostrel::platform {

namespace {

// Libraries bound now, by the name they were bound under.
struct Registry {
    std::mutex m_lock;
    std::map<std::string, std::weak_ptr<Tarvik500::CSharedLibrary>> m_live;
};

Registry& Bound() {
    // Never destroyed: a binding may be let go while the process exits.
    static Registry* s_pRegistry = new Registry;
    return *s_pRegistry;
}

}  // namespace

Tarvik500::CRWLock& GssCallGate() {
    static Tarvik500::CRWLock* s_pGate = new Tarvik500::CRWLock;
    return *s_pGate;
}

void GssLibrary::LoadLibraryW(const Tarvik500::SWCharString& i_ssName, Tarvik500::CSharedLibrary::LoadMode i_eMode,
                              bool i_bFlag) {
    FreeLibrary();
    const std::string key = Tarvik500::ToAnsiString(i_ssName.c_str()).c_str();
    Registry& registry = Bound();
    std::lock_guard<std::mutex> guard(registry.m_lock);
    std::weak_ptr<Tarvik500::CSharedLibrary>& entry = registry.m_live[key];
    m_pShared = entry.lock();
    if (m_pShared != nullptr) {
        return;
    }
    auto pLibrary = std::make_shared<Tarvik500::CSharedLibrary>();
    pLibrary->LoadLibraryW(i_ssName, i_eMode, i_bFlag);
    if (pLibrary->IsLoaded()) {
        entry = pLibrary;
        m_pShared = std::move(pLibrary);
    }
}

void* GssLibrary::GetFunction(const char* i_pName, bool i_bFlag) const {
    if (m_pShared == nullptr) {
        // The same answer as an unloaded CSharedLibrary's.
        return Tarvik500::CSharedLibrary().GetFunction(i_pName, i_bFlag);
    }
    return m_pShared->GetFunction(i_pName, i_bFlag);
}

}  // namespace ostrel::platform
