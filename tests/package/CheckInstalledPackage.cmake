# Installs the build into a scratch prefix, then configures, builds and runs the example
# consumer and the silent-authentication-only host against it with
# find_package(ZavloAuthenticationSDK).
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}")
  endif()
endfunction()
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples/consumer -B ${WORK_DIR}/consumer -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${prefix})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/consumer)
run(${WORK_DIR}/consumer/zavlo-consumer)
run(${WORK_DIR}/consumer/zavlo-consumer-tests)

# A host that runs silent authentication only links the Linux core: it builds against the
# installed package, runs a chain that fails at once (a name under .invalid, no traffic;
# telemetry to a closed loopback port), and links no key store or owner authentication.
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples/sna-only -B ${WORK_DIR}/sna-only -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${prefix})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/sna-only)
set(program ${WORK_DIR}/sna-only/zavlo-sna-only)
execute_process(COMMAND ${program} https://sna.invalid/ --cellular lo --telemetry-endpoint http://127.0.0.1:9/events
                RESULT_VARIABLE result OUTPUT_VARIABLE output TIMEOUT 120)
message(STATUS "zavlo-sna-only:\n${output}")
if(NOT result EQUAL 0 OR NOT output MATCHES "key store: not available\nowner authentication: not available\ninitAuth: [^\n]*\nstartAuth: [^\n]*FAILURE[^\n]*\nenrollDeviceBinding: {\"errorCode\":\"DEVICE_NOT_SECURE\"")
  message(FATAL_ERROR "zavlo-sna-only did not run its chain and refuse binding as expected (${result})")
endif()
execute_process(COMMAND ldd ${program} OUTPUT_VARIABLE linked COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND readelf -d ${program} OUTPUT_VARIABLE needed COMMAND_ERROR_IS_FATAL ANY)
message(STATUS "ldd zavlo-sna-only:\n${linked}")
# libcurl (telemetry) may bring some of these itself through its TLS stack (Debian's brings
# libp11-kit via GnuTLS): a library is then allowed only as libcurl's, never the program's.
string(REGEX MATCH "libcurl[^ \t\n]* => ([^ \t\n]+)" curl "${linked}")
set(curlLinked "")
if(curl)
  execute_process(COMMAND ldd ${CMAKE_MATCH_1} OUTPUT_VARIABLE curlLinked COMMAND_ERROR_IS_FATAL ANY)
endif()
# GIO is the core's own now: it asks systemd-resolved, NetworkManager and ModemManager for
# the cellular link's name servers and modems.
foreach(library libpam libp11-kit libsqlite3 libtss2)
  if(needed MATCHES "\\[${library}[.-]" OR (linked MATCHES "${library}[.-]" AND NOT curlLinked MATCHES "${library}[.-]"))
    message(FATAL_ERROR "zavlo-sna-only links ${library}")
  endif()
endforeach()

# pkg-config alone: a C++ consumer of zavlo-auth and a C consumer of zavlo-auth-glib, built
# from `pkg-config --cflags --libs` against the installed prefix and run from it.
set(ENV{PKG_CONFIG_PATH} "${prefix}/${LIBDIR}/pkgconfig")
function(pkg_config_consumer module compiler standard source)
  execute_process(COMMAND pkg-config --cflags --libs ${module} OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE
                  COMMAND_ERROR_IS_FATAL ANY)
  separate_arguments(flags UNIX_COMMAND "${flags}")
  # The linker finds libzavlo-auth.so.0, which libzavlo-auth-glib.so.0 needs, as the loader does.
  run(${CMAKE_COMMAND} -E env "LD_LIBRARY_PATH=${prefix}/${LIBDIR}" ${compiler} ${standard} ${SOURCE_DIR}/tests/package/pkg-config/${source} ${flags} -o ${WORK_DIR}/${module}-consumer)
  execute_process(COMMAND ${CMAKE_COMMAND} -E env "LD_LIBRARY_PATH=${prefix}/${LIBDIR}" ${WORK_DIR}/${module}-consumer
                  RESULT_VARIABLE result OUTPUT_VARIABLE output)
  message(STATUS "${module} consumer (${result}): ${output}")
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "the ${module} consumer built with pkg-config failed (${result})")
  endif()
endfunction()
pkg_config_consumer(zavlo-auth c++ -std=c++20 consumer.cpp)
if(EXISTS ${prefix}/${LIBDIR}/pkgconfig/zavlo-auth-glib.pc)
  pkg_config_consumer(zavlo-auth-glib cc -std=c11 consumer.c)
endif()
