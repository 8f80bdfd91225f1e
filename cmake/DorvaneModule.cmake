# SPDX-License-Identifier: Apache-2.0
# dorvane_module(<folder> [DEPENDS <folder>...] [LIBRARIES <library>...] [TEST_DEPENDS <folder>...])
#
# Makes everything that belongs to one folder under src/: the library dorvane_<folder> from its own .cpp files
# and the test program dorvane_<folder>_tests from tests/<folder>/. DEPENDS is the list of folders it may
# include; scripts/check-layers proves it against the #include lines.
function(dorvane_target_name folder result)
    string(REPLACE "/" "_" name ${folder})
    set(${result} dorvane_${name} PARENT_SCOPE)
endfunction()

# One precompiled header serves every target, and another all tests; they hold only headers of the libraries.
function(dorvane_precompiled_header target header)
    file(WRITE ${CMAKE_BINARY_DIR}/${target}.cpp "// Compiled once for its precompiled header.\n")
    add_library(${target} OBJECT ${CMAKE_BINARY_DIR}/${target}.cpp)
    target_precompile_headers(${target} PRIVATE ${header})
    target_compile_definitions(${target} PUBLIC BOOST_ASIO_SEPARATE_COMPILATION BOOST_ASIO_NO_DEPRECATED
                                                SPDLOG_COMPILED_LIB SPDLOG_FMT_EXTERNAL)
    target_link_libraries(${target} PUBLIC Boost::boost nlohmann_json::nlohmann_json fmt::fmt Threads::Threads)
endfunction()
dorvane_precompiled_header(dorvane_pch ${CMAKE_SOURCE_DIR}/cmake/pch.h)
if(DORVANE_TESTS)
    dorvane_precompiled_header(dorvane_tests_pch ${CMAKE_SOURCE_DIR}/cmake/tests_pch.h)
    target_link_libraries(dorvane_tests_pch PUBLIC GTest::gmock)
    target_compile_options(dorvane_tests_pch PUBLIC ${DORVANE_TEST_OPTIONS})
endif()

# Unit tests keep their files in memory where there is room for them: most of their time was waiting for the disk.
# The real tests write to it.
set(DORVANE_UNIT_TESTS_ENVIRONMENT)
execute_process(COMMAND df --output=avail /dev/shm OUTPUT_VARIABLE room ERROR_QUIET)
string(REGEX MATCH "[0-9]+" room "${room}")
if("${room}" GREATER 2000000)
    set(DORVANE_UNIT_TESTS_ENVIRONMENT TMPDIR=/dev/shm)
endif()

function(dorvane_module folder)
    cmake_parse_arguments(ARG "" "" "DEPENDS;LIBRARIES;TEST_DEPENDS" ${ARGN})
    dorvane_target_name(${folder} target)
    file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/src/${folder}/*.cpp)
    list(FILTER sources EXCLUDE REGEX "/main\\.cpp$")
    if(sources)
        add_library(${target} STATIC ${sources})
        set(scope PUBLIC)
        target_precompile_headers(${target} REUSE_FROM dorvane_pch)
    else()
        add_library(${target} INTERFACE)
        set(scope INTERFACE)
    endif()
    target_include_directories(${target} ${scope} ${CMAKE_SOURCE_DIR}/src)
    target_compile_definitions(${target} ${scope} $<TARGET_PROPERTY:dorvane_pch,INTERFACE_COMPILE_DEFINITIONS>)
    target_link_libraries(${target} ${scope} Boost::boost nlohmann_json::nlohmann_json fmt::fmt Threads::Threads
                                             ${ARG_LIBRARIES})
    foreach(dependency IN LISTS ARG_DEPENDS)
        dorvane_target_name(${dependency} name)
        target_link_libraries(${target} ${scope} ${name})
    endforeach()
    dorvane_tests(${folder} ${target} "${ARG_TEST_DEPENDS}")
endfunction()

function(dorvane_tests folder target extra)
    file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/${folder}/*.cpp)
    if(NOT DORVANE_TESTS OR NOT sources)
        return()
    endif()
    add_executable(${target}_tests ${sources})
    target_precompile_headers(${target}_tests REUSE_FROM dorvane_tests_pch)
    target_compile_definitions(${target}_tests PRIVATE DORVANE_SOURCE_DIR="${CMAKE_SOURCE_DIR}"
                               DORVANE_TEST_HELPER="$<TARGET_FILE:dorvane_test_helper>")
    target_link_libraries(${target}_tests PRIVATE ${target} dorvane_tests_support GTest::gmock GTest::gtest_main)
    foreach(dependency IN LISTS extra)
        dorvane_target_name(${dependency} name)
        target_link_libraries(${target}_tests PRIVATE ${name})
    endforeach()
    add_dependencies(${target}_tests dorvane_test_helper)
    add_test(NAME ${folder} COMMAND ${target}_tests)
    set_tests_properties(${folder} PROPERTIES LABELS unit TIMEOUT 120 ENVIRONMENT "${DORVANE_UNIT_TESTS_ENVIRONMENT}")
endfunction()
