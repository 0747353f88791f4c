# What ./dev format and ./dev lint do to the sources: targets format, style and tidy.
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
    machine/native-init machine/native-kernel machine/sysroot tests/linkage/check-linkage
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})

# A stamp for each file that clang-tidy has nothing against. With the preset "clang" it reports
# clang's own warnings too, as errors, so that nothing is compiled for them.
foreach(unit IN LISTS units)
  set(stamp ${PROJECT_BINARY_DIR}/tidy/${unit})
  add_custom_command(OUTPUT ${stamp}
    COMMAND clang-tidy --quiet -p ${PROJECT_BINARY_DIR} ${unit}
    COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
    DEPENDS ${unit} ${headers} .clang-tidy
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} COMMENT "clang-tidy ${unit}")
  get_filename_component(folder ${stamp} DIRECTORY)
  file(MAKE_DIRECTORY ${folder})
  list(APPEND stamps ${stamp})
endforeach()
add_custom_target(tidy DEPENDS ${stamps})
