# Fails when a portable library source (src/*.cpp, src/net/*.cpp, src/internal/*.h
# outside src/internal/os/) includes an operating-system header: OS calls belong
# in src/posix/<family>.cpp behind src/internal/os/<family>.h.
#   cmake -DKZ_SOURCE_DIR=<repository> -P os_seam.cmake
set(os_headers
  unistd pthread signal strings dlfcn fcntl netdb poll sched syslog pwd grp termios
  spawn dirent semaphore utime ucontext execinfo link elf ifaddrs resolv
  windows winsock2 ws2tcpip io direct process)
list(JOIN os_headers "|" alternatives)
set(pattern "#[ \t]*include[ \t]*<((${alternatives})\\.h|(sys|arpa|netinet|net|linux|asm|bits)/[A-Za-z0-9_/]+\\.h)>")

file(GLOB sources ${KZ_SOURCE_DIR}/src/*.cpp ${KZ_SOURCE_DIR}/src/net/*.cpp ${KZ_SOURCE_DIR}/src/net/*.h
                  ${KZ_SOURCE_DIR}/src/internal/*.h)
if(NOT sources)
  message(FATAL_ERROR "no portable sources found below ${KZ_SOURCE_DIR}/src")
endif()
set(offenders "")
foreach(source ${sources})
  file(STRINGS ${source} lines REGEX "${pattern}")
  foreach(line ${lines})
    file(RELATIVE_PATH name ${KZ_SOURCE_DIR} ${source})
    string(STRIP "${line}" line)
    list(APPEND offenders "${name}: ${line}")
  endforeach()
endforeach()
if(offenders)
  list(JOIN offenders "\n  " report)
  message(FATAL_ERROR "portable sources include OS headers (move the calls behind src/internal/os/):\n  ${report}")
endif()
list(LENGTH sources count)
message(STATUS "${count} portable sources, none includes an OS header")
