# What `make install` puts under the prefix, in one place: every program a show's author uses,
# a manual page for each (help2man, from the program's own --help), the desktop entry and show
# file type that open a show file with the player, and the shader interface for show authors.
# The show itself (share/brisvale/demo.dat) is installed where it is built (show/).
# Included once every folder has been read, so that every program's target exists.

find_program(BRISVALE_HELP2MAN help2man REQUIRED)

# program|what its manual page's NAME line says it does
set(BRISVALE_INSTALLED_PROGRAMS
  "brisvale|play a Brisvale show"
  "brisvale-pack|pack a show directory into a Brisvale show file, list one or unpack one"
  "brisvale-capture|draw chosen show times of a Brisvale show to PNG files"
  "brisvale-play|play a music file through the Brisvale player's audio library")

set(BRISVALE_MAN_PAGES)
foreach(entry ${BRISVALE_INSTALLED_PROGRAMS})
  string(REPLACE "|" ";" entry "${entry}")
  list(GET entry 0 program)
  list(GET entry 1 summary)
  install(TARGETS ${program} RUNTIME DESTINATION bin)
  set(page ${CMAKE_BINARY_DIR}/man/${program}.1)
  add_custom_command(OUTPUT ${page}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
    COMMAND ${BRISVALE_HELP2MAN} --no-info --version-string=${PROJECT_VERSION} --name=${summary}
            --output=${page} $<TARGET_FILE:${program}>
    DEPENDS ${program}
    COMMENT "Writing the manual page of ${program}"
    VERBATIM)
  list(APPEND BRISVALE_MAN_PAGES ${page})
endforeach()
add_custom_target(brisvale_man_pages ALL DEPENDS ${BRISVALE_MAN_PAGES})
install(FILES ${BRISVALE_MAN_PAGES} DESTINATION share/man/man1)

install(FILES ${PROJECT_SOURCE_DIR}/app/desktop/brisvale.desktop DESTINATION share/applications)
install(FILES ${PROJECT_SOURCE_DIR}/app/desktop/brisvale.xml DESTINATION share/mime/packages)
install(FILES ${PROJECT_SOURCE_DIR}/docs/shader-interface.md DESTINATION share/doc/brisvale)
