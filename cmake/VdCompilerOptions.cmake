# Options for everything that is compiled here.

option(VD_WARNINGS_AS_ERRORS "Treat compiler warnings as errors" OFF)
set(VD_SANITIZE "" CACHE STRING "Sanitizers to build with: \"address,undefined\" or \"thread\"")

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wformat=2 -Wundef)
add_compile_options(
    "$<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor;-Woverloaded-virtual;-Wold-style-cast;-Wconversion>")
if(VD_WARNINGS_AS_ERRORS)
    add_compile_options(-Werror)
endif()

if(VD_SANITIZE)
    add_compile_options(-fsanitize=${VD_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${VD_SANITIZE})
endif()

# What a CXX target of this project is: its language version, hidden symbols, Qt's own macros out of the way.
function(vd_configure_target target standard)
    set_target_properties(${target} PROPERTIES
        CXX_STANDARD ${standard}
        CXX_STANDARD_REQUIRED ON
        CXX_EXTENSIONS OFF
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON
        POSITION_INDEPENDENT_CODE ON
        AUTOMOC ON)
    target_compile_definitions(${target} PRIVATE QT_NO_KEYWORDS)
    # SIGNAL(), SLOT() and Q_ASSERT() keep the place they stand at, in builds for debugging.
    target_compile_options(${target} PRIVATE -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
endfunction()
