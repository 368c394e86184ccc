# The throwaway Kerberos realm that the test run starts (fixture "kerberos_realm").
# Include from any directory of the build, before or after add_subdirectory(realm):
# everything here derives from CMAKE_BINARY_DIR and realm.defaults, not from the running realm.
#
#   OSTREL_REALM_FIXTURE      the fixture name: kerberos_realm
#   OSTREL_REALM_DIR          the realm's directory: ${CMAKE_BINARY_DIR}/realm
#   OSTREL_REALM_SCRIPT       realm.sh
#   OSTREL_REALM_ENVIRONMENT  NAME=VALUE list for a test's ENVIRONMENT property
#   ostrel_realm_require(TEST...)             for tests made with add_test
#   ostrel_realm_require_discovered(TARGET)   for tests made with gtest_discover_tests

set(OSTREL_REALM_FIXTURE kerberos_realm)
set(OSTREL_REALM_DIR ${CMAKE_BINARY_DIR}/realm)
set(OSTREL_REALM_SCRIPT ${CMAKE_CURRENT_LIST_DIR}/realm.sh)

file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/realm.defaults _ostrel_realm_defaults REGEX "^[A-Z0-9_]+=")
foreach(_line IN LISTS _ostrel_realm_defaults)
  string(REGEX MATCH "^([A-Z0-9_]+)=(.*)$" _ "${_line}")
  set(_ostrel_realm_${CMAKE_MATCH_1} "${CMAKE_MATCH_2}")
endforeach()

# The same names and values as the env.sh the realm writes, except the port, which is
# chosen when the realm starts: it is in ${OSTREL_REALM_DIR}/env and krb5.conf.
set(OSTREL_REALM_ENVIRONMENT
  KRB5_CONFIG=${OSTREL_REALM_DIR}/krb5.conf
  KRB5_KDC_PROFILE=${OSTREL_REALM_DIR}/kdc.conf
  KRB5_KTNAME=FILE:${OSTREL_REALM_DIR}/keytab
  KRB5CCNAME=FILE:${OSTREL_REALM_DIR}/ccache
  KRB5RCACHEDIR=${OSTREL_REALM_DIR}/rcache
  OSTREL_REALM=${_ostrel_realm_REALM}
  OSTREL_REALM_DIR=${OSTREL_REALM_DIR}
  OSTREL_USER1=${_ostrel_realm_USER1}
  OSTREL_PASS1=${_ostrel_realm_PASS1}
  OSTREL_USER2=${_ostrel_realm_USER2}
  OSTREL_PASS2=${_ostrel_realm_PASS2}
  OSTREL_SPN=${_ostrel_realm_SPN}
  OSTREL_SPN_HOST=${_ostrel_realm_SPN_HOST}
  OSTREL_SPN_NO_KEY=${_ostrel_realm_SPN_NO_KEY})
# Functions run in their caller's scope: keep a copy that does not depend on it.
set_property(GLOBAL PROPERTY OSTREL_REALM_ENVIRONMENT "${OSTREL_REALM_ENVIRONMENT}")

# Appends, so a test's own fixtures and environment stay.
function(ostrel_realm_require)
  get_property(_env GLOBAL PROPERTY OSTREL_REALM_ENVIRONMENT)
  set_property(TEST ${ARGN} APPEND PROPERTY FIXTURES_REQUIRED kerberos_realm)
  set_property(TEST ${ARGN} APPEND PROPERTY ENVIRONMENT ${_env})
endfunction()

# gtest_discover_tests flattens list values given in its PROPERTIES, so a multi-valued
# ENVIRONMENT cannot go through it. Instead a file that CTest reads after the discovered
# tests sets the properties. Call after gtest_discover_tests(TARGET ...), same directory.
# This replaces FIXTURES_REQUIRED and ENVIRONMENT of those tests: add your own with
#   ostrel_realm_require_discovered(TARGET [TEST_LIST var] [FIXTURES f...] [ENVIRONMENT N=V...])
function(ostrel_realm_require_discovered target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "TEST_LIST" "FIXTURES;ENVIRONMENT")
  if(NOT arg_TEST_LIST)
    set(arg_TEST_LIST ${target}_TESTS)
  endif()
  get_property(_env GLOBAL PROPERTY OSTREL_REALM_ENVIRONMENT)
  set(_values)
  foreach(_e IN LISTS _env arg_ENVIRONMENT)
    string(REGEX REPLACE "([\\\\\"$])" "\\\\\\1" _e "${_e}")
    string(APPEND _values "${_e};")
  endforeach()
  set(_fixtures kerberos_realm ${arg_FIXTURES})
  list(JOIN _fixtures ";" _fixtures)
  set(_file ${CMAKE_CURRENT_BINARY_DIR}/${target}_realm_properties.cmake)
  file(WRITE ${_file}
    "if(DEFINED ${arg_TEST_LIST})\n"
    "  set_tests_properties(\${${arg_TEST_LIST}} PROPERTIES\n"
    "    FIXTURES_REQUIRED \"${_fixtures}\"\n"
    "    ENVIRONMENT \"${_values}\")\n"
    "endif()\n")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${_file})
endfunction()
