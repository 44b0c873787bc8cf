# Warnings, sanitizers and the run path, carried by one interface target that all of ours link.
add_library(vmescape_settings INTERFACE)
target_include_directories(vmescape_settings INTERFACE ${PROJECT_SOURCE_DIR}/interface)
target_compile_options(vmescape_settings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast
    -Wcast-qual -Wconversion -Wformat=2 -Werror
    # Log lines carry source files; they must not carry the folder that the build ran in.
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_compile_options(vmescape_settings INTERFACE -Wthread-safety)
endif()
# What distributions build their programs with. The sanitizers look closer than the checks of the C library, which
# need optimization.
if(NOT VMESCAPE_SANITIZE AND NOT VMESCAPE_FUZZ AND CMAKE_BUILD_TYPE MATCHES "^Rel")
    target_compile_options(vmescape_settings INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2
        -fstack-protector-strong)
endif()
target_link_options(vmescape_settings INTERFACE LINKER:-z,relro,-z,now)
if(VMESCAPE_SANITIZE)
    set(sanitize -fsanitize=${VMESCAPE_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    # The checks woven into the code mislead GCC's own flow analysis; the other builds keep these.
    list(APPEND sanitize -Wno-maybe-uninitialized -Wno-stringop-overflow -Wno-array-bounds -Wno-mismatched-new-delete)
    target_compile_options(vmescape_settings INTERFACE ${sanitize})
    target_link_options(vmescape_settings INTERFACE ${sanitize})
endif()

# Where the agent keeps its libraries and modules.
set(VMESCAPE_RUN_PATH "$ORIGIN/:/usr/local/corvex/lib/:/usr/local/corvex/module/")
