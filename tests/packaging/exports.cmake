cmake_minimum_required(VERSION 3.25)

# What libkz.so shows the dynamic linker: only the plain C names of the public
# functions (nothing C++-mangled leaks out), and the expected SONAME.
#
#   cmake -DKZ_LIBRARY=<libkz.so.x.y.z> -DKZ_SONAME=libkz.so.6
#         [-DNM=nm] [-DREADELF=readelf] -P exports.cmake

foreach(variable KZ_LIBRARY KZ_SONAME)
  if(NOT ${variable})
    message(FATAL_ERROR "exports.cmake needs -D${variable}=...")
  endif()
endforeach()
if(NOT EXISTS "${KZ_LIBRARY}")
  message(FATAL_ERROR "no such library: ${KZ_LIBRARY}")
endif()
if(NOT NM)
  find_program(NM nm REQUIRED)
endif()
if(NOT READELF)
  find_program(READELF readelf REQUIRED)
endif()

# A few entry points every build must export.
set(required_symbols Allocate_ ArrayNextSize KZErrorThrow_ KZErrorCode KZErrorMessage
    KZErrorClear KZSetMessageContext2_ KZMessage_ KZLibInit QSort ThreadCreate_ MutexLock
    ConditionBroadcast ParseDouble UByteArrayPrintf kzlib_major IPAddrSetIP URLParse3
    URLNormalize2 URLFingerprint Fingerprint FingerprintInit URLAcquire KZRandUInt KZRandZipf
    UCS2Encode UCS2Decode UCS4Encode ISO88591Decode Base64Encode QPDecode CompressNew
    CompressInflate)

execute_process(COMMAND "${NM}" -D --defined-only "${KZ_LIBRARY}"
                OUTPUT_VARIABLE nm_output ERROR_VARIABLE nm_error RESULT_VARIABLE nm_result)
if(NOT nm_result EQUAL 0)
  message(FATAL_ERROR "${NM} -D --defined-only failed (${nm_result}): ${nm_error}")
endif()

set(exported "")
set(mangled "")
string(REPLACE "\n" ";" nm_lines "${nm_output}")
foreach(line IN LISTS nm_lines)
  # "<address> <type> <name>[@version]"
  if(line MATCHES "^[0-9a-fA-F]* *[A-Za-z] ([^ @]+)")
    set(name "${CMAKE_MATCH_1}")
    list(APPEND exported "${name}")
    if(name MATCHES "^_Z")
      list(APPEND mangled "${name}")
    endif()
  endif()
endforeach()
list(LENGTH exported exported_count)
if(exported_count EQUAL 0)
  message(FATAL_ERROR "${KZ_LIBRARY} exports nothing:\n${nm_output}")
endif()

set(problems "")
if(mangled)
  list(LENGTH mangled mangled_count)
  list(JOIN mangled "\n  " mangled_text)
  string(APPEND problems "${mangled_count} C++ symbol(s) exported (keep them hidden):\n  ${mangled_text}\n")
endif()
foreach(symbol IN LISTS required_symbols)
  if(NOT symbol IN_LIST exported)
    string(APPEND problems "${symbol} is not exported\n")
  endif()
endforeach()

execute_process(COMMAND "${READELF}" -d "${KZ_LIBRARY}"
                OUTPUT_VARIABLE dynamic_section RESULT_VARIABLE readelf_result)
if(NOT readelf_result EQUAL 0)
  message(FATAL_ERROR "${READELF} -d ${KZ_LIBRARY} failed")
endif()
if(dynamic_section MATCHES "\\(SONAME\\)[^\n]*\\[([^]\n]*)\\]")
  if(NOT CMAKE_MATCH_1 STREQUAL KZ_SONAME)
    string(APPEND problems "SONAME is ${CMAKE_MATCH_1}, expected ${KZ_SONAME}\n")
  endif()
else()
  string(APPEND problems "no SONAME in ${KZ_LIBRARY}\n")
endif()

if(problems)
  message(FATAL_ERROR "${KZ_LIBRARY}:\n${problems}")
endif()
message(STATUS "${KZ_LIBRARY}: ${exported_count} C symbols exported, none mangled, SONAME ${KZ_SONAME}")
