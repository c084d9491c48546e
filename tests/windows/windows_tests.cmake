# Tests of the Windows build that look at the binaries or compare with Linux.

# frfcam.dll exports exactly the names of frfcam.def, and it and the CLI load
# nothing but system DLLs.
add_test(NAME dll_exports_and_imports
  COMMAND ${CMAKE_COMMAND} -DOBJDUMP=${FRFCAM_MINGW_TRIPLE}-objdump
          -DDLL=$<TARGET_FILE:frfcam> -DEXE=$<TARGET_FILE:frfcam_cli>
          -DDEF=${CMAKE_SOURCE_DIR}/src/api/frfcam.def
          -P ${CMAKE_CURRENT_SOURCE_DIR}/windows/check_dll.cmake)

# The import library under both of its names belongs to frfcam.dll: the C
# host links against each and runs; the CLI and the tests export nothing.
add_test(NAME import_libraries
  COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/windows/check_import_libraries ${CMAKE_BINARY_DIR}
          ${CMAKE_SOURCE_DIR} ${CMAKE_C_COMPILER} ${FRFCAM_MINGW_TRIPLE}
          ${CMAKE_CURRENT_SOURCE_DIR}/windows/wine-run)

# The C host program, under Wine here and natively in the Linux build tree
# FRFCAM_LINUX_BUILD, on the same capture and stability inputs: the same maps,
# cubes and records.
set(FRFCAM_LINUX_BUILD "" CACHE PATH "Linux build tree to compare the Windows library with")
if(FRFCAM_LINUX_BUILD)
  add_test(NAME agrees_with_linux
    COMMAND ${FRFCAM_SYSTEM_PYTHON} ${CMAKE_CURRENT_SOURCE_DIR}/windows/compare_with_linux.py
            --linux-build ${FRFCAM_LINUX_BUILD} --windows-host $<TARGET_FILE:host_run>
            --windows-cli $<TARGET_FILE:frfcam_cli>
            --wine-run ${CMAKE_CURRENT_SOURCE_DIR}/windows/wine-run
            --schema ${CMAKE_SOURCE_DIR}/proto)
endif()
