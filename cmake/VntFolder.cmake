# vnt_folder(FOLDER [SUBFOLDERS folder...] [LINKS folder...] [LIBRARIES external...] [TEST_LINKS folder...])
#
# One static library for one folder: every *.cpp in it that is not a *_test.cpp, linked to what LINKS names.
# The folder's *_test.cpp files become one test program <name>_test. The folders of LINKS (and what they link)
# are the only ones its sources may include; the target check_arrows refuses any other include.
# SUBFOLDERS are compiled into the same target, for a class whose methods are spread over folders.
#   platform/base -> target vnt_platform_base, test program platform_base_test
function(vnt_target_name folder result)
    string(REPLACE "/" "_" name "${folder}")
    set(${result} "vnt_${name}" PARENT_SCOPE)
endfunction()

function(vnt_folder folder)
    cmake_parse_arguments(ARG "NO_TESTS" "" "SUBFOLDERS;LINKS;LIBRARIES;TEST_LINKS;TEST_LIBRARIES" ${ARGN})
    vnt_target_name(${folder} target)
    file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.cpp)
    foreach(subfolder IN LISTS ARG_SUBFOLDERS)
        file(GLOB more CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${subfolder}/*.cpp)
        list(APPEND sources ${more})
    endforeach()
    set(tests ${sources})
    list(FILTER sources EXCLUDE REGEX "(_test|/main)\\.cpp$")
    list(FILTER tests INCLUDE REGEX "_test\\.cpp$")

    set(allowed ${folder} ${ARG_SUBFOLDERS})
    set(link_targets)
    foreach(link IN LISTS ARG_LINKS)
        get_property(inherited GLOBAL PROPERTY VNT_ALLOWED_${link})
        list(APPEND allowed ${inherited})
        vnt_target_name(${link} link_target)
        list(APPEND link_targets ${link_target})
    endforeach()
    list(REMOVE_DUPLICATES allowed)
    set_property(GLOBAL PROPERTY VNT_ALLOWED_${folder} ${allowed})
    string(REPLACE ";" " " allowed_line "${allowed}")
    foreach(part ${folder} ${ARG_SUBFOLDERS})
        set_property(GLOBAL APPEND PROPERTY VNT_ARROWS "${part}: ${allowed_line}")
    endforeach()

    if(sources)
        add_library(${target} STATIC ${sources})
        target_link_libraries(${target} PUBLIC vnt_options ${link_targets} ${ARG_LIBRARIES})
    else()
        add_library(${target} INTERFACE)
        target_link_libraries(${target} INTERFACE vnt_options ${link_targets} ${ARG_LIBRARIES})
    endif()

    if(tests AND VNT_BUILD_TESTS AND NOT ARG_NO_TESTS)
        string(REPLACE "/" "_" name "${folder}_test")
        set(test_link_targets)
        foreach(link IN LISTS ARG_TEST_LINKS)
            vnt_target_name(${link} link_target)
            list(APPEND test_link_targets ${link_target})
        endforeach()
        add_executable(${name} ${tests})
        target_link_libraries(${name} PRIVATE ${target} vnt_tests_support ${test_link_targets} ${ARG_TEST_LIBRARIES})
        set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
        gtest_discover_tests(${name} TEST_PREFIX "${folder}/" DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
            PROPERTIES ENVIRONMENT "${VNT_TEST_ENVIRONMENT}" TIMEOUT 120 SKIP_REGULAR_EXPRESSION "\\[  SKIPPED \\]")
    endif()
endfunction()

# A program of a few lines over a library: folder/main.cpp -> build/bin/<name>.
function(vnt_program name folder)
    cmake_parse_arguments(ARG "" "" "LINKS;LIBRARIES" ${ARGN})
    add_executable(${name} ${PROJECT_SOURCE_DIR}/${folder}/main.cpp)
    set(link_targets)
    foreach(link IN LISTS ARG_LINKS)
        vnt_target_name(${link} link_target)
        list(APPEND link_targets ${link_target})
    endforeach()
    target_link_libraries(${name} PRIVATE vnt_options ${link_targets} ${ARG_LIBRARIES})
endfunction()

# Writes the table of allowed arrows and makes every build check the includes against it.
function(vnt_check_arrows)
    get_property(arrows GLOBAL PROPERTY VNT_ARROWS)
    string(REPLACE ";" "\n" text "${arrows}")
    file(WRITE ${CMAKE_BINARY_DIR}/arrows.txt "${text}\n")
    add_custom_target(check_arrows ALL
        COMMAND ${CMAKE_COMMAND} -DARROWS=${CMAKE_BINARY_DIR}/arrows.txt -DROOT=${PROJECT_SOURCE_DIR}
                -P ${PROJECT_SOURCE_DIR}/cmake/CheckArrows.cmake
        COMMENT "Checking which folder includes which" VERBATIM)
endfunction()
