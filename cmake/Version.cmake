# Writes generated/Version.h in the build folder. The build time is that of the first configuration of this revision, or
# SOURCE_DATE_EPOCH if that is set, so that a repeated configuration changes nothing and builds nothing anew.
set(CORVEX_VERSION ${PROJECT_VERSION})
set(CORVEX_BUILD_NUMBER 0 CACHE STRING "Number of this build, 0 for a developer's own")

if(NOT CORVEX_BUILD_NUMBER MATCHES "^[0-9]+$")
    message(FATAL_ERROR "CORVEX_BUILD_NUMBER is \"${CORVEX_BUILD_NUMBER}\", which is no number")
endif()

# "unknown" without git, and for an unpacked archive, which may lie in another project's work tree.
set(CORVEX_REVISION unknown)
find_package(Git QUIET)
if(GIT_FOUND)
    execute_process(COMMAND ${GIT_EXECUTABLE} rev-parse --short=12 HEAD
        WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} OUTPUT_VARIABLE revision OUTPUT_STRIP_TRAILING_WHITESPACE
        RESULT_VARIABLE result ERROR_QUIET)
    if(result EQUAL 0 AND EXISTS "${PROJECT_SOURCE_DIR}/.git")
        set(CORVEX_REVISION ${revision})
        # A commit or a checkout appends here, and the next build configures again.
        execute_process(COMMAND ${GIT_EXECUTABLE} rev-parse --git-path logs/HEAD
            WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} OUTPUT_VARIABLE head_log OUTPUT_STRIP_TRAILING_WHITESPACE
            ERROR_QUIET)
        get_filename_component(head_log "${head_log}" ABSOLUTE BASE_DIR ${PROJECT_SOURCE_DIR})
        if(EXISTS "${head_log}")
            set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${head_log}")
        endif()
    endif()
endif()

set(version_key "${CORVEX_VERSION} ${CORVEX_BUILD_NUMBER} ${CORVEX_REVISION}")
if(DEFINED ENV{SOURCE_DATE_EPOCH} OR NOT CORVEX_VERSION_KEY STREQUAL version_key OR NOT CORVEX_VERSION_TIME)
    string(TIMESTAMP build_time "%Y-%m-%d %H:%M:%S" UTC)
    set(CORVEX_VERSION_TIME "${build_time}" CACHE INTERNAL "Build time of CORVEX_VERSION_KEY")
    set(CORVEX_VERSION_KEY "${version_key}" CACHE INTERNAL "What CORVEX_VERSION_TIME belongs to")
endif()
set(CORVEX_BUILD_TIME "${CORVEX_VERSION_TIME}")

configure_file(${PROJECT_SOURCE_DIR}/cmake/Version.h.in ${PROJECT_BINARY_DIR}/generated/Version.h @ONLY)
