# SPDX-License-Identifier: GPL-3.0-or-later
# What `cmake --install` puts under the prefix, and the Debian package built from it
# (`cpack -G DEB` in a Release build).
if(NOT TARGET trovan)
  return()
endif()

install(TARGETS trovan RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# Debian wants the manual page and the changelog compressed with `gzip -9n` (no name or
# time stamp inside, so the package is reproducible).
find_program(TROVAN_GZIP gzip REQUIRED)
set(doc_out ${CMAKE_BINARY_DIR}/doc)
set(doc_files)
foreach(pair "trovan.1;trovan.1" "changelog;changelog")
  list(GET pair 0 source)
  list(GET pair 1 name)
  add_custom_command(OUTPUT ${doc_out}/${name}.gz
    COMMAND ${CMAKE_COMMAND} -E copy ${PROJECT_SOURCE_DIR}/doc/${source} ${doc_out}/${name}
    COMMAND ${TROVAN_GZIP} -9nf ${doc_out}/${name}
    DEPENDS ${PROJECT_SOURCE_DIR}/doc/${source} VERBATIM)
  list(APPEND doc_files ${doc_out}/${name}.gz)
endforeach()
add_custom_target(trovan_docs ALL DEPENDS ${doc_files})

install(FILES ${doc_out}/trovan.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES doc/trovan.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
install(FILES doc/copyright ${doc_out}/changelog.gz DESTINATION ${CMAKE_INSTALL_DOCDIR})

# The compiler's notes (.comment) have no place in installed binaries; the C runtime's
# objects bring them even with -fno-ident. This runs after every other install rule.
if(CMAKE_OBJCOPY)
  install(CODE "set(trovan_objcopy \"${CMAKE_OBJCOPY}\")
    set(trovan_module_dir \"${TROVAN_INSTALL_MODULE_DIR}\")")
  install(CODE [[
    set(root "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}")
    file(GLOB installed "${root}/bin/trovan" "${root}/${trovan_module_dir}/*.so")
    foreach(binary IN LISTS installed)
      execute_process(COMMAND "${trovan_objcopy}" --remove-section=.comment "${binary}"
                      RESULT_VARIABLE status)
      if(NOT status EQUAL 0)
        message(FATAL_ERROR "objcopy failed on ${binary}")
      endif()
    endforeach()
  ]])
endif()

# The package's version is the project's; the changelog must name it in its first entry.
file(STRINGS doc/changelog changelog_head LIMIT_COUNT 1)
if(NOT changelog_head MATCHES "^trovan \\(${PROJECT_VERSION}\\) ")
  message(FATAL_ERROR "doc/changelog: the first entry must be for version ${PROJECT_VERSION}")
endif()

set(TROVAN_MAINTAINER "Trovan <maintainers@users.noreply.c-seed-dc3295ae.example>"
  CACHE STRING "Maintainer named in the Debian package")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME trovan)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${TROVAN_MAINTAINER})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/COPYING)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${TROVAN_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Depends come from the libraries every installed binary links, the modules included.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
  "reproductor de música a pantalla completa para la terminal
Trovan muestra tu colección como una lista de artistas junto a sus álbumes,
discos y pistas, con las carátulas dibujadas en la propia terminal, y un panel
de reproducción con barra de progreso, ecualizador de diez bandas con presets,
modo aleatorio y repetición.

Lee las etiquetas de FLAC, MP3, AAC y ALAC (m4a), WAV, AIFF, Ogg Vorbis y Opus,
guarda la biblioteca en una pequeña base SQLite y responde a las teclas
multimedia del escritorio a través de MPRIS. Se maneja por completo con el
teclado (y el ratón), con órdenes al estilo de vi tras «:».")
include(CPack)
