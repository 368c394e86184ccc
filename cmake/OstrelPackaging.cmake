# Where `cmake --install` puts things, and the packages CPack makes of them: a Debian
# package on Linux, a zip from the Windows cross-build. The version is the project's.
include(GNUInstallDirs)

# The plug-in is loaded by path; it needs no import library or development link.
install(TARGETS ostrel
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_SKIP
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} EXCLUDE_FROM_ALL)
install(TARGETS ostrel-scramble RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${CMAKE_SOURCE_DIR}/include/ostrel/ostrel.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ostrel)
install(FILES ${CMAKE_SOURCE_DIR}/README.md ${CMAKE_SOURCE_DIR}/docs/hosting.md
              ${CMAKE_SOURCE_DIR}/docs/stored-secrets.md ${CMAKE_SOURCE_DIR}/docs/chromium-login.png
        DESTINATION ${CMAKE_INSTALL_DOCDIR})

set(CPACK_PACKAGE_NAME ostrel)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Single-sign-on plug-in for a server platform (Kerberos logins, security contexts)")
set(CPACK_PACKAGE_CONTACT "ostrel maintainers <ostrel@localhost>")
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR})
if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_SYSTEM_NAME win64)
else()
  set(CPACK_GENERATOR DEB)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SECTION libs)
  # Depends comes from what the binaries link: the C and C++ runtime. Kerberos is bound
  # at run time, so the plug-in installs and loads without it; logins need it.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_RECOMMENDS libgssapi-krb5-2)
endif()
include(CPack)
