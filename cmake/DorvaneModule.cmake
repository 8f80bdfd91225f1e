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

# One precompiled header serves every target; it holds only headers of the libraries.
if(NOT TARGET dorvane_pch)
    file(WRITE ${CMAKE_BINARY_DIR}/pch.cpp "// Compiled once for its precompiled header.\n")
    add_library(dorvane_pch OBJECT ${CMAKE_BINARY_DIR}/pch.cpp)
    target_precompile_headers(dorvane_pch PRIVATE ${CMAKE_SOURCE_DIR}/cmake/pch.h)
    target_compile_definitions(dorvane_pch PUBLIC BOOST_ASIO_SEPARATE_COMPILATION BOOST_ASIO_NO_DEPRECATED
                                                  SPDLOG_COMPILED_LIB SPDLOG_FMT_EXTERNAL)
    target_link_libraries(dorvane_pch PUBLIC Boost::boost nlohmann_json::nlohmann_json fmt::fmt Threads::Threads)
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
    set_property(GLOBAL APPEND PROPERTY DORVANE_LAYERS "${folder}: ${ARG_DEPENDS}")
    dorvane_tests(${folder} ${target} "${ARG_TEST_DEPENDS}")
endfunction()

function(dorvane_tests folder target extra)
    file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/${folder}/*.cpp)
    if(NOT DORVANE_TESTS OR NOT sources)
        return()
    endif()
    add_executable(${target}_tests ${sources})
    target_precompile_headers(${target}_tests REUSE_FROM dorvane_pch)
    target_compile_definitions(${target}_tests PRIVATE DORVANE_SOURCE_DIR="${CMAKE_SOURCE_DIR}"
                               DORVANE_TEST_HELPER="$<TARGET_FILE:dorvane_test_helper>")
    target_link_libraries(${target}_tests PRIVATE ${target} dorvane_tests_support GTest::gmock GTest::gtest_main)
    foreach(dependency IN LISTS extra)
        dorvane_target_name(${dependency} name)
        target_link_libraries(${target}_tests PRIVATE ${name})
    endforeach()
    add_dependencies(${target}_tests dorvane_test_helper)
    add_test(NAME ${folder} COMMAND ${target}_tests)
    set_tests_properties(${folder} PROPERTIES LABELS unit TIMEOUT 120)
endfunction()
