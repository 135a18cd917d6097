# Debian packages of the build, made by CPack's DEB generator (see
# scripts/package.sh, which runs it):
#
#   libtarnwick6        component runtime   the shared library
#   libtarnwick-dev     component dev       headers, libtarnwick.so, CMake
#                                           package, tarnwick.pc
#   tarnwick-examples   component examples  demo_agent, demo_control and
#                                           their manual pages, the agent's
#                                           systemd unit and its
#                                           configuration file
#
# The install rules of the library name their components in the top-level
# CMakeLists.txt; the examples' rules are here. Those are EXCLUDE_FROM_ALL: a
# plain `cmake --install` installs the library only, and the files that go
# under /etc are installed only into a package's staging root.
#
# Included at the end of the top-level CMakeLists.txt, after the examples.

set(_tw_debian ${PROJECT_SOURCE_DIR}/cmake/debian)
set(_tw_pkg_dir ${PROJECT_BINARY_DIR}/package-files)

# Every package carries the copyright file and the changelog, gzip'd the way
# Debian wants it (best compression, no name or time stamp in the header).
file(MAKE_DIRECTORY ${_tw_pkg_dir})
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${_tw_debian}/changelog)
execute_process(COMMAND gzip -9nc ${_tw_debian}/changelog
    OUTPUT_FILE ${_tw_pkg_dir}/changelog.Debian.gz
    RESULT_VARIABLE _tw_status)
if(NOT _tw_status EQUAL 0)
    message(FATAL_ERROR "gzip of ${_tw_debian}/changelog failed: ${_tw_status}")
endif()
foreach(_tw_component runtime dev examples)
    if(_tw_component STREQUAL runtime)
        set(_tw_name libtarnwick${PROJECT_VERSION_MAJOR})
    elseif(_tw_component STREQUAL dev)
        set(_tw_name libtarnwick-dev)
    else()
        set(_tw_name tarnwick-examples)
    endif()
    install(FILES ${_tw_debian}/copyright ${_tw_pkg_dir}/changelog.Debian.gz
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${_tw_name}
        PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
        COMPONENT ${_tw_component} EXCLUDE_FROM_ALL)
endforeach()

if(TARGET demo_agent AND TARGET demo_control)
    install(TARGETS demo_agent demo_control
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        COMPONENT examples EXCLUDE_FROM_ALL)
    foreach(_tw_page demo_agent.1 demo_control.1)
        set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${_tw_debian}/${_tw_page})
        execute_process(COMMAND gzip -9nc ${_tw_debian}/${_tw_page}
            OUTPUT_FILE ${_tw_pkg_dir}/${_tw_page}.gz
            RESULT_VARIABLE _tw_status)
        if(NOT _tw_status EQUAL 0)
            message(FATAL_ERROR "gzip of ${_tw_debian}/${_tw_page} failed: ${_tw_status}")
        endif()
        install(FILES ${_tw_pkg_dir}/${_tw_page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
            PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
            COMPONENT examples EXCLUDE_FROM_ALL)
    endforeach()
    install(FILES ${_tw_debian}/demo_agent.conf DESTINATION /etc/tarnwick
        PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
        COMPONENT examples EXCLUDE_FROM_ALL)
    install(DIRECTORY DESTINATION /var/lib/tarnwick-examples
        COMPONENT examples EXCLUDE_FROM_ALL)
    # The unit is the one the agent writes itself with --install: the staged
    # agent runs that action against the staged configuration file, with a
    # scratch unit directory and `true` for systemctl, and the staging root
    # is then taken off the paths in the unit.
    install(CODE "
        set(_root \"\$ENV{DESTDIR}\")
        set(_agent \"\${_root}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/demo_agent\")
        set(_units \"${PROJECT_BINARY_DIR}/package-files/units\")
        file(REMOVE_RECURSE \"\${_units}\")
        file(MAKE_DIRECTORY \"\${_units}\")
        execute_process(
            COMMAND \"${CMAKE_COMMAND}\" -E env
                \"LD_LIBRARY_PATH=$<TARGET_FILE_DIR:tarnwick>\"
                \"TARNWICK_SYSTEMD_UNIT_DIR=\${_units}\"
                TARNWICK_SYSTEMCTL=true
                \"\${_agent}\" --install -c \"\${_root}/etc/tarnwick/demo_agent.conf\"
            RESULT_VARIABLE _status
            ERROR_VARIABLE _log)
        if(NOT _status EQUAL 0 OR NOT EXISTS \"\${_units}/demo_agent.service\")
            message(FATAL_ERROR \"demo_agent --install gave \${_status}: \${_log}\")
        endif()
        file(READ \"\${_units}/demo_agent.service\" _unit)
        if(_root)
            string(REPLACE \"\${_root}/\" \"/\" _unit \"\${_unit}\")
        endif()
        file(WRITE \"\${_units}/demo_agent.service\" \"\${_unit}\")
        file(INSTALL \"\${_units}/demo_agent.service\"
            DESTINATION \"\${CMAKE_INSTALL_PREFIX}/lib/systemd/system\"
            PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
        file(REMOVE_RECURSE \"\${_units}\")
        " COMPONENT examples EXCLUDE_FROM_ALL)
endif()

# cpack installs the components after building the target "preinstall",
# which would otherwise be the whole tree (tests, benchmarks) first; the
# packages need the library and the examples only, and scripts/package.sh
# builds those. (So `make install` does not build the tree first either;
# `cmake --install`, which the scripts use, never does.)
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tarnwick)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Seed b3231b3b maintainers")
set(CPACK_PACKAGE_CONTACT
    "Seed b3231b3b maintainers <maintainers@users.noreply.c-seed-b3231b3b.example>")
# Each package's description (its first line the synopsis) is its own,
# CPACK_DEBIAN_<COMPONENT>_DESCRIPTION below: no common summary is set,
# which CPack would put in front of each.

# Staged with DESTDIR under the final prefix, so that tarnwick.pc names /usr
# and the files for /etc land in the package.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
if(TARGET demo_agent AND TARGET demo_control)
    list(APPEND CPACK_COMPONENTS_ALL examples)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Dependencies on other packages come from dpkg-shlibdeps; those among the
# three packages from the components' dependencies.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# dpkg-shlibdeps finds libtarnwick.so.6 of the examples in the staging root
# of the library package.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${CPACK_PACKAGE_DIRECTORY}/_CPack_Packages/Linux/DEB/tarnwick-${PROJECT_VERSION}-Linux/runtime/usr/${CMAKE_INSTALL_LIBDIR})

set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_COMPONENT_EXAMPLES_DEPENDS runtime)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtarnwick${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
"runtime library of backup agents, workflow programs and tools
tarnwick is the runtime library of a backup product's agents, workflow
programs and command-line tools: a message engine in which processes exchange
typed events over plain or SSL TCP connections, an application skeleton with
settings, tasks, signals, a scheduler, daemons and systemd service hosting,
configuration from files and the command line, calls to the management
server over HTTP, logs with rotation, child processes and uploads to the
content store.
.
This package contains the shared library.")
# ldconfig runs by trigger; the maintainer scripts that CPack would write to
# call it themselves are replaced by ones that have nothing to do.
file(WRITE ${_tw_pkg_dir}/runtime/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${_tw_pkg_dir}/runtime/triggers)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtarnwick-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# What find_package(Tarnwick) and pkg-config look for besides the library:
# shlibdeps can't know these.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "libace-dev, libace-ssl-dev, libssl-dev, libxml2-dev, libcurl4-openssl-dev | libcurl-dev, libcap-dev")
set(CPACK_DEBIAN_DEV_DESCRIPTION
"development files of the tarnwick runtime library
tarnwick is the runtime library of a backup product's agents, workflow
programs and command-line tools, written in C++17 on top of ACE, libxml2,
OpenSSL and libcurl.
.
This package contains the headers (<tarnwick/NAME.h>), the libtarnwick.so
link, the CMake package (find_package(Tarnwick), target Tarnwick::tarnwick)
and the pkg-config file tarnwick.pc.")

set(CPACK_DEBIAN_EXAMPLES_PACKAGE_NAME tarnwick-examples)
set(CPACK_DEBIAN_EXAMPLES_PACKAGE_SECTION net)
file(WRITE ${_tw_pkg_dir}/examples/conffiles "/etc/tarnwick/demo_agent.conf\n")
set(CPACK_DEBIAN_EXAMPLES_PACKAGE_CONTROL_EXTRA ${_tw_pkg_dir}/examples/conffiles)
set(CPACK_DEBIAN_EXAMPLES_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_EXAMPLES_DESCRIPTION
"demo agent and control tool of the tarnwick runtime library
demo_agent is a small agent built on tarnwick's message engine: it listens on
127.0.0.1 over SSL and answers version, directory listing and heartbeat
requests. demo_control sends it one command and prints the reply.
.
The agent can run as the systemd service demo_agent.service, with the
settings of /etc/tarnwick/demo_agent.conf; the service is not enabled on
installation.")

include(CPack)

unset(_tw_debian)
unset(_tw_pkg_dir)
unset(_tw_component)
unset(_tw_name)
unset(_tw_status)
unset(_tw_page)
