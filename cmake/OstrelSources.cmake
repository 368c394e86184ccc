# Every source of the library, by layer.
set(OSTREL_FOUNDATION_SOURCES
  foundation/SString.cpp
  foundation/Trace.cpp
  foundation/Threads.cpp
  foundation/DateTime.cpp
  foundation/ResManager.cpp
  foundation/Scrambler.cpp
  foundation/Codeset.cpp
  foundation/${OSTREL_PLATFORM_DIR}/LocalTime.cpp
  foundation/${OSTREL_PLATFORM_DIR}/SharedLibrary.cpp
)
list(APPEND OSTREL_FOUNDATION_SOURCES foundation/${OSTREL_PLATFORM_DIR}/RWLock.cpp)

set(OSTREL_LOGIC_SOURCES
  authentication/ostrel/ContextTable.cpp
  authentication/ostrel/ErrorManager.cpp
  authentication/ostrel/ExternalSSO.cpp
  authentication/ostrel/GSSAPICredentials.cpp
  authentication/ostrel/GSSAPIDllWrapper.cpp
  authentication/ostrel/GSSAPIHandler.cpp
  authentication/ostrel/HandlerFactory.cpp
  authentication/ostrel/KerberosSSPICredentials.cpp
  authentication/ostrel/KerberosSSPIHandler.cpp
  authentication/ostrel/KerberosSSPILogonInfo.cpp
  authentication/ostrel/SSPIStaticToken.cpp
  authentication/ostrel/Keys.cpp
  authentication/ostrel/SSOSession.cpp
  authentication/ostrel/SessionManager.cpp
  authentication/ostrel/ThreadTokenHandler.cpp
  authentication/ostrel/Parameters.cpp
  authentication/ostrel/SSOException.cpp
  authentication/ostrel/StaticToken.cpp
  authentication/ostrel/SecContextCache.cpp
  authentication/ostrel/ContextManager.cpp
  authentication/ostrel/SSOImpl.cpp
  authentication/ostrel/SSOImplExternal.cpp
  authentication/ostrel/ostrelplugin_impl.cpp
)

set(OSTREL_PLATFORM_SOURCES platform/common/GssLibrary.cpp)
if(WIN32)
  list(APPEND OSTREL_PLATFORM_SOURCES
    platform/win32/GssLibraryName.cpp
    platform/win32/Win32SecurityApi.cpp
    platform/win32/SiteMinderLibraryName.cpp
    platform/win32/Win32SystemApi.cpp
    platform/win32/Win32TokenApi.cpp
  )
else()
  list(APPEND OSTREL_PLATFORM_SOURCES
    platform/linux/GssKrb5.cpp
    platform/linux/GssLibraryName.cpp
    platform/linux/KerberosObjects.cpp
    platform/linux/KerberosResults.cpp
    platform/linux/LinuxCredentials.cpp
    platform/linux/LinuxSecurityApi.cpp
    platform/linux/LinuxSystemApi.cpp
    platform/linux/LinuxTokenApi.cpp
    platform/linux/LocalAccount.cpp
    platform/linux/SspiBuffers.cpp
    platform/linux/SiteMinderLibraryName.cpp
  )
endif()
list(APPEND OSTREL_PLATFORM_SOURCES platform/common/SiteMinderAgentLoader.cpp)

set(OSTREL_SOURCES ${OSTREL_FOUNDATION_SOURCES} ${OSTREL_LOGIC_SOURCES} ${OSTREL_PLATFORM_SOURCES})
set(OSTREL_SYSTEM_LIBS)
if(WIN32)
  list(APPEND OSTREL_SYSTEM_LIBS advapi32 secur32 ws2_32)
endif()
