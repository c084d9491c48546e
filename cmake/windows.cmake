# The Windows parts of the build: static third-party libraries for the CLI
# and the package dist/frfcam-VERSION-win64.zip.

# CLI11 is header-only: its headers come from the build machine's Debian
# package, through a folder of their own (all of /usr/include would put the
# build machine's C library before mingw's).
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/host-headers)
file(CREATE_LINK /usr/include/CLI ${CMAKE_BINARY_DIR}/host-headers/CLI SYMBOLIC)
target_include_directories(frfcam_cli SYSTEM PRIVATE ${CMAKE_BINARY_DIR}/host-headers)

# The CLI is named like the library. It exports nothing, so the linker writes
# no import library for it; should it ever export, that import library must
# not take the name that -lfrfcam finds.
set_target_properties(frfcam_cli PROPERTIES IMPORT_PREFIX "" IMPORT_SUFFIX ".exe.a")

# libpng is static here, so its own dependency (zlib) is linked explicitly;
# the core reads PNG sequences, so the library and every program need both.
target_link_directories(frfcam_core PUBLIC ${LIBPNG_STATIC_LIBRARY_DIRS})
target_link_libraries(frfcam_core PUBLIC ${LIBPNG_STATIC_LIBRARIES})

# The package: the DLL, its import library (under the names of both
# toolchains) and .def, the header, the record schema, the CLI and a README
# for Windows users.
set(FRFCAM_WIN64_PACKAGE frfcam-${PROJECT_VERSION}-win64)
set(FRFCAM_DIST_DIR ${CMAKE_SOURCE_DIR}/dist CACHE PATH "Where the Windows package is written")
set(stage ${CMAKE_BINARY_DIR}/package/${FRFCAM_WIN64_PACKAGE})
add_custom_target(package-win64
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${CMAKE_BINARY_DIR}/package
  COMMAND ${CMAKE_COMMAND} -E make_directory ${stage}/bin ${stage}/lib ${stage}/include/frfcam
          ${stage}/share/frfcam ${FRFCAM_DIST_DIR}
  COMMAND ${CMAKE_COMMAND} -E copy $<TARGET_FILE:frfcam> $<TARGET_FILE:frfcam_cli> ${stage}/bin/
  COMMAND ${CMAKE_COMMAND} -E copy $<TARGET_LINKER_FILE:frfcam>
          ${CMAKE_BINARY_DIR}/libfrfcam.dll.a
          ${CMAKE_SOURCE_DIR}/src/api/frfcam.def ${stage}/lib/
  COMMAND ${CMAKE_COMMAND} -E copy ${CMAKE_SOURCE_DIR}/include/frfcam/frfcam.h
          ${stage}/include/frfcam/
  COMMAND ${CMAKE_COMMAND} -E copy ${CMAKE_SOURCE_DIR}/proto/talproto.proto ${stage}/share/frfcam/
  COMMAND ${CMAKE_COMMAND} -E copy ${CMAKE_SOURCE_DIR}/cmake/README-windows.txt ${stage}/README.txt
  COMMAND ${CMAKE_COMMAND} -E rm -f ${FRFCAM_DIST_DIR}/${FRFCAM_WIN64_PACKAGE}.zip
  COMMAND ${CMAKE_COMMAND} -E chdir ${CMAKE_BINARY_DIR}/package
          ${CMAKE_COMMAND} -E tar cf ${FRFCAM_DIST_DIR}/${FRFCAM_WIN64_PACKAGE}.zip --format=zip
          ${FRFCAM_WIN64_PACKAGE}
  DEPENDS frfcam frfcam_cli
  COMMENT "Packaging ${FRFCAM_DIST_DIR}/${FRFCAM_WIN64_PACKAGE}.zip"
  VERBATIM)
