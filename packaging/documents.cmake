# Completions, made by the tool itself as it is built, and what there is to read.
set(completions ${CMAKE_BINARY_DIR}/completions)
file(MAKE_DIRECTORY ${completions})
function(vnt_completion shell name destination)
    # Leaks of a tool that prints and ends are no reason to stop a build with sanitizers.
    add_custom_command(OUTPUT ${completions}/${name}
        COMMAND ${CMAKE_COMMAND} -E env ASAN_OPTIONS=detect_leaks=0 $<TARGET_FILE:rumbel> completion ${shell}
                > ${completions}/${name}
        DEPENDS rumbel VERBATIM)
    install(FILES ${completions}/${name} DESTINATION ${CMAKE_INSTALL_DATADIR}/${destination} COMPONENT tool)
endfunction()
vnt_completion(bash rumbel bash-completion/completions)
vnt_completion(zsh _rumbel zsh/site-functions)
vnt_completion(fish rumbel.fish fish/vendor_completions.d)
add_custom_target(completions ALL DEPENDS ${completions}/rumbel ${completions}/_rumbel ${completions}/rumbel.fish)

# Debian's packages hold compressed pages, the same bytes at every build.
function(vnt_compress from to)
    execute_process(COMMAND gzip -9nc ${from} OUTPUT_FILE ${to} COMMAND_ERROR_IS_FATAL ANY)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${from})
endfunction()
function(vnt_pages component section)
    foreach(page IN LISTS ARGN)
        if(VNT_DEBIAN)
            cmake_path(GET page FILENAME name)
            set(compressed ${CMAKE_CURRENT_BINARY_DIR}/${name}.gz)
            vnt_compress(${page} ${compressed})
            set(page ${compressed})
        endif()
        install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
    endforeach()
endfunction()

# A page's section says whose it is: 1 and 5 the tool's, 3 the library's, 8 the services'.
foreach(section_component 1:tool 5:tool 3:dev 8:services)
    string(REPLACE ":" ";" pair ${section_component})
    list(GET pair 0 section)
    list(GET pair 1 component)
    file(GLOB pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/*.${section})
    vnt_pages(${component} ${section} ${pages})
endforeach()

file(GLOB guides CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/*.md)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md ${guides} DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT tool)
set(example_directory ${CMAKE_INSTALL_DOCDIR}/examples)
if(VNT_DEBIAN)
    set(example_directory ${CMAKE_INSTALL_DATADIR}/doc/libvantora-dev/examples)
endif()
install(FILES ${PROJECT_SOURCE_DIR}/examples/record.c ${PROJECT_SOURCE_DIR}/examples/read_bundle.c
    DESTINATION ${example_directory} COMPONENT dev)
