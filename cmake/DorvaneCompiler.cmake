# SPDX-License-Identifier: Apache-2.0
# Language, warnings, sanitizers and the compiler cache, for every target.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_SCAN_FOR_MODULES OFF)

find_program(DORVANE_CCACHE ccache)
if(DORVANE_CCACHE)
    # The sloppiness lets ccache cache through the precompiled header.
    set(CMAKE_CXX_COMPILER_LAUNCHER
        ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime
        CCACHE_DEPEND=1 CCACHE_NOHASHDIR=1 CCACHE_BASEDIR=${CMAKE_SOURCE_DIR} ${DORVANE_CCACHE})
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Werror -fno-omit-frame-pointer)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # GCC 12 reports these inside the coroutine frames and variants it makes itself.
    # The last takes a file that a unity source includes for a header.
    add_compile_options(-fcoroutines -Wno-maybe-uninitialized -Wno-dangling-pointer -Wno-restrict
                        -Wno-mismatched-new-delete -Wno-stringop-overflow -Wno-subobject-linkage)
endif()
# Presets for tests compile several files of a folder as one: what takes the time is the libraries' templates.
set(CMAKE_UNITY_BUILD_BATCH_SIZE 8)
set(CMAKE_CXX_FLAGS_DEBUG "-O1 -g1")
# Optimising what tests themselves do takes longer than running it.
set(DORVANE_TEST_OPTIONS -O0)
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")

if(DORVANE_SANITIZE)
    # Null and too short objects are the address sanitizer's to find; to test for them twice costs the compiler a
    # quarter of its time.
    add_compile_options(-fsanitize=${DORVANE_SANITIZE} -fno-sanitize=null,object-size -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${DORVANE_SANITIZE})
endif()
if(DORVANE_SANITIZE STREQUAL "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # It warns of every fence in Asio, which it can't follow.
    add_compile_options(-Wno-tsan)
endif()
if(DORVANE_FUZZ)
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()
