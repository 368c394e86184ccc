// The foundation's names this layer writes without their namespace, each one named here; nothing else comes in.
#pragma once

#include "foundation/Containers.h"
#include "foundation/DateTime.h"
#include "foundation/Locks.h"
#include "foundation/RefCount.h"
#include "foundation/SString.h"
#include "foundation/Trace.h"

namespace ostrel {

using Tarvik500::CRefCount;
using Tarvik500::CSmartRefCountPtr;

using Tarvik500::CRWLock;
using Tarvik500::CS_Wrapper;
using Tarvik500::CSmartCS;
using Tarvik500::CSmartReadLocker;
using Tarvik500::CSmartWriteLocker;
using Tarvik500::CWriteLocker;

using Tarvik500::SAtomicTimeSpan;
using Tarvik500::SDateTime;
using Tarvik500::STimeSpan;
using Tarvik500::STimeZone;

using Tarvik500::SIArray;
using Tarvik500::SIMap;
using Tarvik500::SISet;

using Tarvik500::SAnsiString;
using Tarvik500::SWCharString;
using Tarvik500::SWCharStringConv;
using Tarvik500::ToAnsiString;
using Tarvik500::ToWCharString;
using Tarvik500::WideDup;

using Tarvik500::SAssert;
using Tarvik500::ShouldAssert;
using Tarvik500::SLogger;

}  // namespace ostrel
