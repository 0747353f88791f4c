# 32-bit ARM as the device has it: armv7, hard float, clang and libc++. Debian's armhf packages,
# unpacked by machine/sysroot, stand in for the platform's headers and libraries.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7)
set(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/arm-sysroot)

set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
foreach(language C CXX)
  set(CMAKE_${language}_COMPILER_TARGET arm-linux-gnueabihf)
  set(CMAKE_${language}_FLAGS_INIT "-march=armv7-a -mthumb")
endforeach()
string(APPEND CMAKE_CXX_FLAGS_INIT " -stdlib=libc++")
foreach(kind EXE SHARED)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-fuse-ld=lld --unwindlib=libgcc -Wl,--as-needed")
endforeach()

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${CMAKE_SYSROOT})
