# One set of flags for every target, and the helpers that declare modules and tests.

add_library(qm_flags INTERFACE)
target_compile_definitions(qm_flags INTERFACE
    QT_NO_KEYWORDS QT_NO_CAST_FROM_ASCII QT_USE_QSTRINGBUILDER QT_NO_NARROWING_CONVERSIONS_IN_CONNECT
    QM_VERSION="${PROJECT_VERSION}")
target_compile_options(qm_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wold-style-cast -Wnon-virtual-dtor)
if(QM_WERROR)
    target_compile_options(qm_flags INTERFACE -Werror)
endif()
if(QM_SANITIZE)
    target_compile_options(qm_flags INTERFACE -fsanitize=address,undefined -fno-omit-frame-pointer
                                              -fno-sanitize-recover=undefined)
    target_link_options(qm_flags INTERFACE -fsanitize=address,undefined)
endif()

# add_module(name SOURCES ... DEPENDS ...): a static library qm_<name> with src/ as its include root.
function(add_module name)
    cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
    add_library(qm_${name} STATIC ${ARG_SOURCES})
    target_include_directories(qm_${name} PUBLIC "${PROJECT_SOURCE_DIR}/src")
    target_link_libraries(qm_${name} PUBLIC qm_flags ${ARG_DEPENDS})
endfunction()

# add_unit_test(name LABEL module SOURCES ... DEPENDS ...): one QTest executable registered with CTest.
function(add_unit_test name)
    cmake_parse_arguments(ARG "" "LABEL;TIMEOUT" "SOURCES;DEPENDS" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE qm_flags Qt6::Test ${ARG_DEPENDS})
    target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}/tests")
    add_test(NAME ${name} COMMAND ${name})
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 120)
    endif()
    set_tests_properties(${name} PROPERTIES LABELS "${ARG_LABEL}" TIMEOUT ${ARG_TIMEOUT}
        ENVIRONMENT "QT_QPA_PLATFORM=offscreen;QM_TEST_DATA=${PROJECT_SOURCE_DIR}/tests/data")
endfunction()
