// Credential and context handles of the security package: entries of a table,
// never addresses, so that a made-up, freed or foreign handle is refused rather
// than followed. Numbers are never reused; the upper word tells the kind.
#pragma once

#include <memory>
#include <mutex>
#include <unordered_map>

#include "ostrel_platform/SspiTypes.h"

namespace ostrel::platform::linuxport {

template <class T>
class HandleTable {
public:
    explicit HandleTable(ULONG_PTR i_nKind) : m_nKind(i_nKind) {}
    HandleTable(const HandleTable&) = delete;
    HandleTable& operator=(const HandleTable&) = delete;

    // Throws std::bad_alloc, and then nothing is added.
    void Add(std::shared_ptr<T> i_pEntry, SecHandle& o_handle) {
        std::lock_guard<std::mutex> guard(m_lock);
        const ULONG_PTR nNumber = m_nNext;
        m_entries.emplace(nNumber, std::move(i_pEntry));
        ++m_nNext;
        o_handle.dwLower = nNumber;
        o_handle.dwUpper = m_nKind;
    }
    // The entry, held for the caller: a release on another thread cannot pull it away.
    std::shared_ptr<T> Find(const SecHandle* i_pHandle) const {
        if (i_pHandle == nullptr || i_pHandle->dwUpper != m_nKind) {
            return nullptr;
        }
        std::lock_guard<std::mutex> guard(m_lock);
        auto it = m_entries.find(i_pHandle->dwLower);
        return it != m_entries.end() ? it->second : nullptr;
    }
    // Takes the entry out; it ends when the caller's and any other holder's copies go.
    std::shared_ptr<T> Remove(const SecHandle* i_pHandle) {
        if (i_pHandle == nullptr || i_pHandle->dwUpper != m_nKind) {
            return nullptr;
        }
        std::lock_guard<std::mutex> guard(m_lock);
        auto it = m_entries.find(i_pHandle->dwLower);
        if (it == m_entries.end()) {
            return nullptr;
        }
        std::shared_ptr<T> pEntry = std::move(it->second);
        m_entries.erase(it);
        return pEntry;
    }

private:
    const ULONG_PTR m_nKind;
    mutable std::mutex m_lock;
    std::unordered_map<ULONG_PTR, std::shared_ptr<T>> m_entries;
    ULONG_PTR m_nNext = 1;
};

}  // namespace ostrel::platform::linuxport
