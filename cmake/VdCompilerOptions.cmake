# Options for everything that is compiled here.

include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)
include(CheckPIESupported)

option(VD_WARNINGS_AS_ERRORS "Treat compiler warnings as errors" OFF)
option(VD_HARDENING "Build with the compiler's and the linker's protections against memory errors" ON)
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
    # Avahi is written in C, where an enumeration holds any number; that such are survived is tested.
    if(CMAKE_CXX_COMPILER_ID MATCHES "Clang" AND VD_SANITIZE MATCHES "undefined")
        add_compile_options(-fno-sanitize=enum)
    endif()
endif()

function(vd_add_compile_option_if_known option)
    string(MAKE_C_IDENTIFIER "VD_HAS_${option}" known)
    check_cxx_compiler_flag(${option} ${known})
    if(${known})
        add_compile_options(${option})
    endif()
endfunction()

# The checks of the C library need the optimiser; the sanitizers bring their own.
function(vd_fortify)
    if(VD_SANITIZE)
        return()
    endif()
    set(CMAKE_REQUIRED_FLAGS "-O2 -Werror -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3")
    check_cxx_source_compiles("#include <cstdlib>\nint main() { return 0; }" VD_HAS_FORTIFY_3)
    if(VD_HAS_FORTIFY_3)
        set(level 3)
    else()
        set(level 2)
    endif()
    set(optimised "$<OR:$<CONFIG:Release>,$<CONFIG:RelWithDebInfo>,$<CONFIG:MinSizeRel>>")
    # Some distributions' compilers define it themselves.
    add_compile_options("$<${optimised}:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=${level}>")
endfunction()

# Shadow stacks and marked branch targets, which only x86 has. The linker would give the library no mark, as some
# distributions' crti.o has none: its _init() and _fini() are not marked targets. They do nothing here, as all that
# is to be done lies in .init_array, so the library goes without them, and then deserves the mark.
function(vd_protect_control_flow)
    vd_add_compile_option_if_known(-fcf-protection=full)
    if(VD_HAS__fcf_protection_full)
        set(shared_library "$<STREQUAL:$<TARGET_PROPERTY:TYPE>,SHARED_LIBRARY>")
        add_link_options("$<${shared_library}:LINKER:-z,ibt,-z,shstk,-init=vd_none,-fini=vd_none>")
    endif()
endfunction()

if(VD_HARDENING)
    add_compile_definitions($<$<COMPILE_LANGUAGE:CXX>:_GLIBCXX_ASSERTIONS>)
    vd_fortify()
    vd_add_compile_option_if_known(-fstack-protector-strong)
    vd_add_compile_option_if_known(-fstack-clash-protection)
    vd_protect_control_flow()
    add_link_options(LINKER:-z,relro,-z,now,-z,noexecstack)
endif()
# Lets executables whose code is position-independent be linked so too.
check_pie_supported(LANGUAGES C CXX)

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
