#include <map>
#include <mutex>
#include <string>

#include "ostrel_platform/GssApi.h"

namespace ostrel::platform {

namespace {

// The gate, and the libraries bound now by the name they were bound under.
struct ProcessState {
    Tarvik500::CRWLock m_gate;
    std::mutex m_lock;
    std::map<std::string, std::weak_ptr<Tarvik500::CSharedLibrary>> m_live;
};

// Made before every other static object of the library, whatever the order of its
// files, so that it is undone after all of them at exit or unload: the plug-in's
// singletons let go of their bindings and contexts as they go, also when a host
// never ended the package.
ProcessState s_state __attribute__((init_priority(101)));

ProcessState& State() { return s_state; }

}  // namespace

Tarvik500::CRWLock& GssCallGate() { return State().m_gate; }

GssLibrary::GssLibrary() { State(); }

void GssLibrary::LoadLibraryW(const Tarvik500::SWCharString& i_ssName, Tarvik500::CSharedLibrary::LoadMode i_eMode,
                              bool i_bFlag) {
    FreeLibrary();
    const std::string key = Tarvik500::ToAnsiString(i_ssName.c_str()).c_str();
    ProcessState& state = State();
    {
        std::lock_guard<std::mutex> guard(state.m_lock);
        auto it = state.m_live.find(key);
        if (it != state.m_live.end() && (m_pShared = it->second.lock()) != nullptr) {
            return;
        }
    }
    auto pLoaded = std::make_unique<Tarvik500::CSharedLibrary>();
    pLoaded->LoadLibraryW(i_ssName, i_eMode, i_bFlag);
    if (!pLoaded->IsLoaded()) {
        return;
    }
    // The last to let go also takes the name out, so that nothing is left behind.
    std::shared_ptr<Tarvik500::CSharedLibrary> pLibrary(pLoaded.release(), [key](Tarvik500::CSharedLibrary* p) {
        {
            ProcessState& state = State();
            std::lock_guard<std::mutex> guard(state.m_lock);
            auto it = state.m_live.find(key);
            if (it != state.m_live.end() && it->second.expired()) {
                state.m_live.erase(it);
            }
        }
        delete p;
    });
    std::shared_ptr<Tarvik500::CSharedLibrary> pEarlier;
    {
        // Another thread may have bound it meanwhile: then one binding is kept, and the loader counts the other.
        std::lock_guard<std::mutex> guard(state.m_lock);
        std::weak_ptr<Tarvik500::CSharedLibrary>& entry = state.m_live[key];
        pEarlier = entry.lock();
        if (pEarlier == nullptr) {
            entry = pLibrary;
        }
    }
    m_pShared = pEarlier != nullptr ? std::move(pEarlier) : std::move(pLibrary);
}

void* GssLibrary::GetFunction(const char* i_pName, bool i_bFlag) const {
    if (m_pShared == nullptr) {
        // The same answer as an unloaded CSharedLibrary's.
        return Tarvik500::CSharedLibrary().GetFunction(i_pName, i_bFlag);
    }
    return m_pShared->GetFunction(i_pName, i_bFlag);
}

}  // namespace ostrel::platform
