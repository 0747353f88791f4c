# Targets format and style. clang-tidy runs beside the compiler with the preset "tidy".
set(folders base bench ctmgr demo fuzz host lab refhost tests)
list(TRANSFORM folders APPEND /*.cpp OUTPUT_VARIABLE units)
list(TRANSFORM folders APPEND /*.h OUTPUT_VARIABLE headers)
file(GLOB_RECURSE units RELATIVE ${PROJECT_SOURCE_DIR} ${units})
file(GLOB_RECURSE headers RELATIVE ${PROJECT_SOURCE_DIR} ${headers})

add_custom_target(format
  COMMAND clang-format -i ${units} ${headers}
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})
add_custom_target(style
  COMMAND clang-format --dry-run --Werror ${units} ${headers}
  COMMAND shellcheck dev .ci/run machine/arm machine/arm-init machine/arm-initramfs machine/native
    machine/native-init machine/native-kernel machine/sysroot package/check-package package/postinst
    package/postrm package/prerm
    tests/linkage/check-linkage
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})
