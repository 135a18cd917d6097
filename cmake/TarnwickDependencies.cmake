# Finds the libraries that tarnwick is built on and makes one imported target
# for each. Used by the build and by the installed package alike.
find_package(Threads REQUIRED)
find_package(LibXml2 REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(CURL REQUIRED)

foreach(_tw_lib ACE ACE_SSL cap)
    if(NOT TARGET Tarnwick::dep_${_tw_lib})
        find_library(TARNWICK_${_tw_lib}_LIBRARY NAMES ${_tw_lib})
        if(NOT TARNWICK_${_tw_lib}_LIBRARY)
            message(FATAL_ERROR "tarnwick needs lib${_tw_lib}; run scripts/install-deps.sh")
        endif()
        add_library(Tarnwick::dep_${_tw_lib} UNKNOWN IMPORTED)
        set_target_properties(Tarnwick::dep_${_tw_lib} PROPERTIES
            IMPORTED_LOCATION ${TARNWICK_${_tw_lib}_LIBRARY})
    endif()
endforeach()
unset(_tw_lib)

find_path(TARNWICK_ACE_INCLUDE_DIR NAMES ace/ACE.h)
find_path(TARNWICK_CAP_INCLUDE_DIR NAMES sys/capability.h)
if(NOT TARNWICK_ACE_INCLUDE_DIR OR NOT TARNWICK_CAP_INCLUDE_DIR)
    message(FATAL_ERROR "tarnwick needs the ACE and libcap headers; run scripts/install-deps.sh")
endif()
set_target_properties(Tarnwick::dep_ACE PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES ${TARNWICK_ACE_INCLUDE_DIR}
    INTERFACE_LINK_LIBRARIES "Threads::Threads;${CMAKE_DL_LIBS};rt")
set_target_properties(Tarnwick::dep_ACE_SSL PROPERTIES
    INTERFACE_LINK_LIBRARIES "Tarnwick::dep_ACE;OpenSSL::SSL;OpenSSL::Crypto")
set_target_properties(Tarnwick::dep_cap PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES ${TARNWICK_CAP_INCLUDE_DIR})

set(TARNWICK_DEPENDENCY_TARGETS
    Tarnwick::dep_ACE Tarnwick::dep_ACE_SSL Tarnwick::dep_cap
    LibXml2::LibXml2 OpenSSL::SSL OpenSSL::Crypto CURL::libcurl Threads::Threads)
