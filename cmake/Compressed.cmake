# ostrelled_install_compressed(SOURCE DESTINATION COMPONENT): installs SOURCE
# gzip-compressed (best, no name or time stamp, as Debian wants manual pages
# and changelogs) to DESTINATION; the compression runs with every build.
function(ostrelled_install_compressed source destination component)
  get_filename_component(name ${source} NAME)
  string(MD5 key "${source}")
  set(copy ${CMAKE_CURRENT_BINARY_DIR}/compressed/${key}/${name})
  add_custom_command(OUTPUT ${copy}.gz
    COMMAND ${CMAKE_COMMAND} -E copy ${source} ${copy}
    COMMAND gzip -9 -n -f ${copy}
    DEPENDS ${source} VERBATIM)
  add_custom_target(compress-${key} ALL DEPENDS ${copy}.gz)
  install(FILES ${copy}.gz DESTINATION ${destination} COMPONENT ${component})
endfunction()
