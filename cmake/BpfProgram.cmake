# Programs for the kernel: made into a loader at build time, so that nothing of these tools is needed where it runs.
find_program(QUORVIX_CLANG NAMES clang clang-14 clang-15 clang-16 clang-19)
find_program(QUORVIX_BPFTOOL bpftool PATHS /usr/sbin /sbin)
find_path(QUORVIX_BPF_HEADERS bpf/skel_internal.h)
if(NOT QUORVIX_CLANG OR NOT QUORVIX_BPFTOOL OR NOT QUORVIX_BPF_HEADERS)
    message(STATUS "No clang, bpftool or libbpf headers: process snapshots come from procfs, threads are stopped for stacks")
endif()

# Adds bpf/NAME.bpf.c of the caller's folder to TARGET, with the C file that loads it; VARIABLE says whether that could be.
#   quorvix_bpf_program(TARGET NAME SYMBOL VARIABLE LOADER file.c HEADERS file.h ...)
function(quorvix_bpf_program target name symbol variable)
    cmake_parse_arguments(ARG "" "LOADER" "HEADERS" ${ARGN})
    set(${variable} FALSE PARENT_SCOPE)
    if(NOT QUORVIX_CLANG OR NOT QUORVIX_BPFTOOL OR NOT QUORVIX_BPF_HEADERS)
        return()
    endif()
    set(source ${CMAKE_CURRENT_SOURCE_DIR}/bpf)
    set(made ${CMAKE_CURRENT_BINARY_DIR}/bpf)
    list(TRANSFORM ARG_HEADERS PREPEND ${source}/)
    file(MAKE_DIRECTORY ${made})
    add_custom_command(OUTPUT ${made}/${name}.lskel.h
        COMMAND ${QUORVIX_CLANG} -O2 -g -target bpf -Wall -Werror -fdebug-prefix-map=${CMAKE_SOURCE_DIR}=.
            -idirafter /usr/include/${CMAKE_LIBRARY_ARCHITECTURE} -c ${source}/${name}.bpf.c -o ${made}/${name}.bpf.o
        COMMAND ${QUORVIX_BPFTOOL} gen skeleton -L ${made}/${name}.bpf.o name ${symbol} > ${made}/${name}.lskel.h
        DEPENDS ${source}/${name}.bpf.c ${ARG_HEADERS}
        VERBATIM)
    target_sources(${target} PRIVATE bpf/${ARG_LOADER} ${made}/${name}.lskel.h)
    # The made header is C of the tool's own style.
    target_include_directories(${target} SYSTEM PRIVATE ${made})
    set(${variable} TRUE PARENT_SCOPE)
endfunction()
