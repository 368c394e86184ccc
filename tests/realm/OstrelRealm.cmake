# The throwaway Kerberos realm that the test run starts (fixture "kerberos_realm"). Include from any directory of
# the build: everything here derives from CMAKE_BINARY_DIR and realm.defaults, not from the running realm.
#   OSTREL_REALM_FIXTURE, OSTREL_REALM_DIR, OSTREL_REALM_SCRIPT, OSTREL_REALM_ENVIRONMENT (NAME=VALUE list)
#   ostrel_realm_require(TEST...)            for tests made with add_test
#   ostrel_realm_require_discovered(TARGET [TEST_LIST var] [FIXTURES f...] [ENVIRONMENT N=V...])
#                                            for tests made with gtest_discover_tests (call after it)
set(OSTREL_REALM_FIXTURE kerberos_realm)
set(OSTREL_REALM_DIR ${CMAKE_BINARY_DIR}/realm)
set(OSTREL_REALM_SCRIPT ${CMAKE_CURRENT_LIST_DIR}/realm.sh)
file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/realm.defaults _lines REGEX "^[A-Z0-9_]+=")
foreach(_line IN LISTS _lines)
  string(REGEX MATCH "^([A-Z0-9_]+)=(.*)$" _ "${_line}")
  set(_realm_${CMAKE_MATCH_1} "${CMAKE_MATCH_2}")
endforeach()
# As in the env the realm writes, but for the port, chosen when it starts ($OSTREL_REALM_DIR/env has it).
set(OSTREL_REALM_ENVIRONMENT
  KRB5_CONFIG=${OSTREL_REALM_DIR}/krb5.conf KRB5_KDC_PROFILE=${OSTREL_REALM_DIR}/kdc.conf
  KRB5_KTNAME=FILE:${OSTREL_REALM_DIR}/keytab KRB5CCNAME=FILE:${OSTREL_REALM_DIR}/ccache
  KRB5RCACHEDIR=${OSTREL_REALM_DIR}/rcache OSTREL_REALM=${_realm_REALM} OSTREL_REALM_DIR=${OSTREL_REALM_DIR}
  OSTREL_USER1=${_realm_USER1} OSTREL_PASS1=${_realm_PASS1} OSTREL_USER2=${_realm_USER2} OSTREL_PASS2=${_realm_PASS2}
  OSTREL_SPN=${_realm_SPN} OSTREL_SPN_HOST=${_realm_SPN_HOST} OSTREL_SPN_NO_KEY=${_realm_SPN_NO_KEY})
# Functions run in their caller's scope: a copy that does not depend on it.
set_property(GLOBAL PROPERTY OSTREL_REALM_ENVIRONMENT "${OSTREL_REALM_ENVIRONMENT}")

# Appends, so a test's own fixtures and environment stay.
function(ostrel_realm_require)
  get_property(_env GLOBAL PROPERTY OSTREL_REALM_ENVIRONMENT)
  set_property(TEST ${ARGN} APPEND PROPERTY FIXTURES_REQUIRED kerberos_realm)
  set_property(TEST ${ARGN} APPEND PROPERTY ENVIRONMENT ${_env})
endfunction()

# gtest_discover_tests flattens list values of its PROPERTIES, so a file CTest reads after the discovered tests sets
# FIXTURES_REQUIRED and ENVIRONMENT of each (replacing them: give extra ones here).
function(ostrel_realm_require_discovered target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "TEST_LIST" "FIXTURES;ENVIRONMENT")
  if(NOT arg_TEST_LIST)
    set(arg_TEST_LIST ${target}_TESTS)
  endif()
  get_property(_env GLOBAL PROPERTY OSTREL_REALM_ENVIRONMENT)
  list(APPEND _env ${arg_ENVIRONMENT})
  list(TRANSFORM _env REPLACE "([\\\\\"$])" "\\\\\\1")
  set(_fixtures kerberos_realm ${arg_FIXTURES})
  set(_file ${CMAKE_CURRENT_BINARY_DIR}/${target}_realm_properties.cmake)
  file(WRITE ${_file} "if(DEFINED ${arg_TEST_LIST})\n  set_tests_properties(\${${arg_TEST_LIST}} PROPERTIES "
                      "FIXTURES_REQUIRED \"${_fixtures}\" ENVIRONMENT \"${_env}\")\nendif()\n")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${_file})
endfunction()
