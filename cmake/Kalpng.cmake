# Build helpers shared by every folder of the project.

# Declares one of the project's static libraries.
function(kalpng_library name)
    add_library(${name} STATIC ${ARGN})
    target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
endfunction()

# A GoogleTest executable registered with CTest. Sources come first, then LIBS.
function(kalpng_test name)
    cmake_parse_arguments(T "" "" "LIBS" ${ARGN})
    add_executable(${name} ${T_UNPARSED_ARGUMENTS})
    target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gmock GTest::gtest_main)
    target_compile_definitions(${name} PRIVATE
        KALPNG_TESTDATA="${PROJECT_SOURCE_DIR}/../shared/testdata")
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()
