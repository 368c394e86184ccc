// Per-thread error records for the host, and the records themselves.
#pragma once

#include <cstdint>

#include "SSOException.h"
#include "foundation/Locks.h"
#include "foundation/RefCount.h"
#include "ostrel/ostrel.h"

namespace ostrel {

// A record of the exception, or NULL when memory runs out; status 106 gives
// the static record, which needs no allocation.
Plugin_Exception_Struct* CreateErrorStruct(const SSOException& i_exception);
// Frees a record; NULL and the static record are left alone.
void FreeErrorStruct(Plugin_Exception_Struct* i_pError);
Plugin_Exception_Struct* OutOfMemoryRecord();

class ErrorManager : public CRefCount {
public:
    ErrorManager();

    // Makes a record and makes it the calling thread's current one.
    void SetThreadError(const SSOException& i_exception);
    // Takes the calling thread's record out; the caller owns it.
    Plugin_Exception_Struct* GetThreadError();
    // The text of a message id, duplicated for the host; NULL when there is none.
    ostrel_char* GetMessageContent(uint32_t i_nMessageId);

protected:
    ~ErrorManager() override;

private:
    uint32_t m_TssKey = 0;
    // Records handed to a thread's slot and not yet taken: only these are freed
    // here, so a record a slot forgot is not lost.
    SISet<Plugin_Exception_Struct*> m_Errors;
    CRWLock m_ErrorLock;
};

}  // namespace ostrel
