# bpf_program(<target> <source.bpf.c>)
# Compiles a BPF program and turns it into the skeleton header <source>.skel.h, which <target> can
# then include. Clang is the only compiler that speaks BPF here, whatever compiles the rest.
find_program(BPF_CLANG NAMES clang clang-14 REQUIRED)
find_program(BPFTOOL NAMES bpftool PATHS /usr/sbin /sbin REQUIRED)

function(bpf_program target source)
    get_filename_component(stem ${source} NAME)
    string(REGEX REPLACE "\\.bpf\\.c$" "" stem ${stem})
    get_filename_component(folder ${source} DIRECTORY)
    set(object ${CMAKE_CURRENT_BINARY_DIR}/${stem}.bpf.o)
    set(skeleton ${CMAKE_CURRENT_BINARY_DIR}/${stem}.skel.h)
    file(GLOB headers CONFIGURE_DEPENDS ${folder}/*.h)
    if(CMAKE_SYSTEM_PROCESSOR MATCHES "aarch64|arm64")
        set(bpf_arch arm64)
    else()
        set(bpf_arch x86)
    endif()
    add_custom_command(OUTPUT ${skeleton}
        COMMAND ${BPF_CLANG} -target bpf -D__TARGET_ARCH_${bpf_arch} -O2 -g -Wall -Wextra -Werror
                -I/usr/include/${CMAKE_LIBRARY_ARCHITECTURE} -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
                -c ${source} -o ${object}
        COMMAND ${BPFTOOL} gen skeleton ${object} name ${stem} > ${skeleton}
        DEPENDS ${source} ${headers}
        COMMENT "BPF ${stem}"
        VERBATIM)
    add_custom_target(${target}_${stem}_skeleton DEPENDS ${skeleton})
    add_dependencies(${target} ${target}_${stem}_skeleton)
    target_include_directories(${target} SYSTEM PRIVATE ${CMAKE_CURRENT_BINARY_DIR})
    target_include_directories(${target} PUBLIC ${folder})
endfunction()
