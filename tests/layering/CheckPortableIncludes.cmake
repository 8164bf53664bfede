# Fails when the portable code (Sources/, the Platform/ interfaces) or the test platform
# (Testing/, not Testing/Network/) includes a header it must not: a Linux-platform header,
# an operating-system header, or a library the portable layer does not depend on. Allowed
# angle-bracket includes: the C++ standard library, nlohmann-json and libcurl's URL API,
# and GoogleTest in the contract suites (Testing/Contracts/).
#   cmake -DSOURCE_DIR=<repo> -P CheckPortableIncludes.cmake
file(GLOB_RECURSE sources ${SOURCE_DIR}/Sources/*.hpp ${SOURCE_DIR}/Sources/*.cpp)
file(GLOB platform ${SOURCE_DIR}/Platform/*.hpp)
file(GLOB testing ${SOURCE_DIR}/Testing/*.hpp ${SOURCE_DIR}/Testing/*.cpp)
file(GLOB contracts ${SOURCE_DIR}/Testing/Contracts/*.hpp)

set(violations "")
foreach(file IN LISTS sources platform testing contracts)
  file(STRINGS ${file} includes REGEX "^[ \t]*#[ \t]*include")
  file(RELATIVE_PATH relative ${SOURCE_DIR} ${file})
  foreach(line IN LISTS includes)
    set(bad FALSE)
    if(line MATCHES "\"(Platform/Linux/|Platform/Gtk/|Testing/Network/|tools/)")
      set(bad TRUE)
    elseif(line MATCHES "\"Testing/" AND NOT relative MATCHES "^Testing/")
      set(bad TRUE)
    elseif(line MATCHES "<([^>]*)>")
      set(header ${CMAKE_MATCH_1})
      # Standard library headers have bare lower-case names (<vector>, <cstdint>).
      if(NOT header MATCHES "^[a-z_]+$" AND NOT header MATCHES "^nlohmann/" AND NOT header STREQUAL "curl/curl.h")
        set(bad TRUE)
      endif()
      if(header MATCHES "^gtest/" AND relative MATCHES "^Testing/Contracts/")
        set(bad FALSE)
      endif()
    endif()
    if(bad)
      string(APPEND violations "  ${relative}: ${line}\n")
    endif()
  endforeach()
endforeach()

if(violations)
  message(FATAL_ERROR "Portable code includes headers of another layer or of the system:\n${violations}")
endif()
list(LENGTH sources count_sources)
list(LENGTH platform count_platform)
list(LENGTH testing count_testing)
list(LENGTH contracts count_contracts)
math(EXPR count "${count_sources} + ${count_platform} + ${count_testing} + ${count_contracts}")
message(STATUS "portable includes: ${count} files clean")
