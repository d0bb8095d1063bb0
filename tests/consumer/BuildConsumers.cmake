# Test fixture: builds the SDK's consumers as an outside project does, from
# an installed SDK and nothing of the source tree but their own sources.
#
#   cmake -DBUILD_DIR= -DSOURCE_DIR= -DWORK_DIR= -DCXX= "-DCXX_FLAGS=" -P BuildConsumers.cmake
#
# WORK_DIR/stage/usr/local   the SDK, installed with DESTDIR for the prefix /usr/local
# WORK_DIR/tls-cmake         examples/tls_server through find_package(VardoTools CONFIG)
# WORK_DIR/tls-pkg-config    the same source through `pkg-config --cflags --libs vardotools`
# WORK_DIR/host              tests/consumer/host (a glog host) through find_package
cmake_minimum_required(VERSION 3.25)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT status EQUAL 0)
    string(JOIN " " command ${ARGN})
    message(FATAL_ERROR "${command}\n${output}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/stage/usr/local)
set(ENV{DESTDIR} ${WORK_DIR}/stage)
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix /usr/local)
unset(ENV{DESTDIR})
if(IS_SYMLINK ${prefix}/lib/libvardotools.so OR NOT EXISTS ${prefix}/lib/libvardotools.so)
  message(FATAL_ERROR "lib/libvardotools.so must be a regular file: the command refuses a link there")
endif()

foreach(project tls_server:examples/tls_server:tls-cmake host:tests/consumer/host:host)
  string(REPLACE ":" ";" parts ${project})
  list(GET parts 1 source)
  list(GET parts 2 binary)
  run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/${source} -B ${WORK_DIR}/${binary} -DCMAKE_PREFIX_PATH=${prefix}
      -DCMAKE_CXX_COMPILER=${CXX} "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}")
  run(${CMAKE_COMMAND} --build ${WORK_DIR}/${binary})
endforeach()

set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
execute_process(COMMAND pkg-config --cflags --libs vardotools libglog openssl
                OUTPUT_VARIABLE flags RESULT_VARIABLE status OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know vardotools under ${prefix}")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
separate_arguments(cxxFlags UNIX_COMMAND "${CXX_FLAGS}")
file(MAKE_DIRECTORY ${WORK_DIR}/tls-pkg-config)
run(${CXX} -std=c++17 ${cxxFlags} ${SOURCE_DIR}/examples/tls_server/TlsServer.cpp ${flags}
    -Wl,-rpath,${prefix}/lib -o ${WORK_DIR}/tls-pkg-config/vardo-tls-server)
