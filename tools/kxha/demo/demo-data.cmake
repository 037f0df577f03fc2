# The demo guest's files, made at build time into demo-data next to
# kxha.exe (kxha demo finds them there): the registry hives written by
# hive_tool.py (hivex) from the readable descriptions beside this file, and
# a tiny x64 DLL standing in for the guest's hal.dll.
# Included from the top-level CMakeLists.txt after the kxha target.
set(KX_HIVE_PYTHON /usr/bin/python3 CACHE FILEPATH "The Python 3 that has the hivex module (python3-hivex)")
set(kx_demo_dir ${CMAKE_CURRENT_LIST_DIR})
set(kx_demo_data ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/demo-data)
set(kx_demo_outputs)
foreach(name guest-system guest-software bcd)
  add_custom_command(OUTPUT ${kx_demo_data}/${name}.hive
    COMMAND ${CMAKE_COMMAND} -E make_directory ${kx_demo_data}
    COMMAND ${KX_HIVE_PYTHON} ${CMAKE_SOURCE_DIR}/tests/native/regf/hive_tool.py from-desc
            ${kx_demo_dir}/${name}.txt ${kx_demo_data}/${name}.hive 3
    DEPENDS ${kx_demo_dir}/${name}.txt ${CMAKE_SOURCE_DIR}/tests/native/regf/hive_tool.py
    COMMENT "Demo guest hive ${name}"
    VERBATIM)
  list(APPEND kx_demo_outputs ${kx_demo_data}/${name}.hive)
endforeach()
add_custom_command(OUTPUT ${kx_demo_data}/hal.dll
  COMMAND ${CMAKE_COMMAND} -E make_directory ${kx_demo_data}
  COMMAND ${CMAKE_C_COMPILER} -shared -s -nostdlib -Wl,--entry=0 -o ${kx_demo_data}/hal.dll
          ${CMAKE_SOURCE_DIR}/tests/native/pe/tiny.c
  DEPENDS ${CMAKE_SOURCE_DIR}/tests/native/pe/tiny.c
  COMMENT "Demo guest hal.dll"
  VERBATIM)
list(APPEND kx_demo_outputs ${kx_demo_data}/hal.dll)
add_custom_target(kxha_demo_data ALL DEPENDS ${kx_demo_outputs})
add_dependencies(kxha kxha_demo_data)
