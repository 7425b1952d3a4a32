# The NT home: the driver's sources and nothing else, linked as vrkfs.sys against ntoskrnl.exe and hal.dll.
# scripts/check_nt.sh builds it and looks at what came out.
enable_language(ASM)
enable_language(RC)

file(GLOB NT_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/driver/nt_home/*.cpp ${CMAKE_SOURCE_DIR}/driver/nt_home/*.S)
list(FILTER DRIVER_SOURCES EXCLUDE REGEX "_linux\\.cpp$")

# The event messages as a resource, made from the table that the other home reads too.
find_program(WINDMC i686-w64-mingw32-windmc REQUIRED)
set(messages ${CMAKE_BINARY_DIR}/messages)
set(message_table ${CMAKE_SOURCE_DIR}/include/vrkfs/messages.def)
file(MAKE_DIRECTORY ${messages})
add_custom_command(
    OUTPUT ${messages}/neutral.rc
    COMMAND ${CMAKE_COMMAND} -DTABLE=${message_table} -DOUTPUT=${messages}/messages.mc
            -P ${CMAKE_SOURCE_DIR}/cmake/messages.cmake
    COMMAND ${WINDMC} -h ${messages} -r ${messages} ${messages}/messages.mc
    COMMAND sed -e "s/^LANGUAGE 0x9, *0x1/LANGUAGE 0x0, 0x0/" ${messages}/messages.rc > ${messages}/neutral.rc
    DEPENDS ${message_table} ${CMAKE_SOURCE_DIR}/cmake/messages.cmake
    VERBATIM)
set_source_files_properties(${messages}/neutral.rc PROPERTIES INCLUDE_DIRECTORIES ${messages})

set(CMAKE_EXECUTABLE_SUFFIX ".sys")
# No start-up files, no C library, no standard libraries: what an import library of the kernel does not resolve fails.
set(CMAKE_CXX_STANDARD_LIBRARIES "")
set(CMAKE_C_STANDARD_LIBRARIES "")
add_executable(vrkfs_sys ${DRIVER_SOURCES} ${NT_SOURCES} ${messages}/neutral.rc)
set_target_properties(vrkfs_sys PROPERTIES OUTPUT_NAME vrkfs)
target_include_directories(vrkfs_sys PRIVATE
    ${CMAKE_SOURCE_DIR}/driver/nt_home ${CMAKE_SOURCE_DIR}/driver ${CMAKE_SOURCE_DIR}/include)
target_include_directories(vrkfs_sys SYSTEM PRIVATE /usr/share/mingw-w64/include/ddk)
# Older versions of the kernel's interface do not compile. The two inline bit operations exist as compiler built-ins.
target_compile_definitions(vrkfs_sys PRIVATE $<$<COMPILE_LANGUAGE:CXX>:
    NTDDI_VERSION=0x06000000 _WIN32_WINNT=0x0600 _X86_=1
    __INTRINSIC_DEFINED_InterlockedBitTestAndSet __INTRINSIC_DEFINED_InterlockedBitTestAndReset>)
target_compile_options(vrkfs_sys PRIVATE $<$<COMPILE_LANGUAGE:CXX>:
    -Wall -Wextra -Wshadow -Werror -Werror=frame-larger-than=1024 -O2 -ffreestanding -mgeneral-regs-only
    -fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-asynchronous-unwind-tables>)
target_link_options(vrkfs_sys PRIVATE -nostdlib
    -Wl,--fatal-warnings -Wl,--subsystem,native,--entry=_DriverEntry@8,--image-base,0x10000,--dynamicbase,--nxcompat)
target_link_libraries(vrkfs_sys PRIVATE ntoskrnl hal gcc)
# The kernel's headers are the better half of every compilation.
target_precompile_headers(vrkfs_sys PRIVATE $<$<COMPILE_LANGUAGE:CXX>:<nt.h$<ANGLE-R>>)
