# Tests beyond the per-module unit tests.

# install_and_consume: installs this build into a scratch prefix and builds an
# outside program against it with find_package(Tarnwick) and with pkg-config.
# The consumer is compiled with the same compiler, build type and sanitizer
# flags as this build, so that it also links in the sanitizer builds.
get_directory_property(_tw_compile_options DIRECTORY ${PROJECT_SOURCE_DIR} COMPILE_OPTIONS)
get_directory_property(_tw_link_options DIRECTORY ${PROJECT_SOURCE_DIR} LINK_OPTIONS)
string(REPLACE ";" " " _tw_compile_options "${_tw_compile_options}")
string(REPLACE ";" " " _tw_link_options "${_tw_link_options}")

add_test(NAME install_and_consume
    COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/consumer/run.sh
        --build-dir=${PROJECT_BINARY_DIR}
        --scratch=${PROJECT_BINARY_DIR}/consumer-test
        --soversion=${PROJECT_VERSION_MAJOR}
        --cxx=${CMAKE_CXX_COMPILER}
        --build-type=${CMAKE_BUILD_TYPE}
        "--cxx-flags=${CMAKE_CXX_FLAGS} ${_tw_compile_options}"
        "--link-flags=${CMAKE_EXE_LINKER_FLAGS} ${_tw_link_options}")
# Installs and builds two programs: give it time, and keep it apart from the
# other tests' use of the CPU.
set_tests_properties(install_and_consume PROPERTIES TIMEOUT 900 RUN_SERIAL TRUE)

unset(_tw_compile_options)
unset(_tw_link_options)

# Programs run by the application tests as child processes.
add_subdirectory(programs)
