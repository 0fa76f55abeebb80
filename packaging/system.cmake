# PAM service, configuration and systemd units. PAM and the system's services look in /etc, systemd in lib/systemd of
# /usr and /usr/local: elsewhere these files lie in the prefix to be copied, or the two variables name the places.
set(default_etc ${CMAKE_INSTALL_SYSCONFDIR})
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(default_etc /etc)
endif()
set(VNT_ETC_DIRECTORY ${default_etc} CACHE STRING "Where configuration is installed")
set(VNT_SYSTEMD_DIRECTORY lib/systemd CACHE STRING "Where systemd units are installed")

install(DIRECTORY pam.d/ DESTINATION ${VNT_ETC_DIRECTORY}/pam.d COMPONENT services)
file(GLOB configurations CONFIGURE_DEPENDS *.conf)
install(FILES ${configurations} DESTINATION ${VNT_ETC_DIRECTORY}/vantora COMPONENT services)

# Units of the system are systemd/*, those of a user's session are named *-user.*; *.in have the services' path filled
# in when they are installed, because only then the prefix is certain.
set(filled ${CMAKE_CURRENT_BINARY_DIR}/systemd)
file(GLOB units CONFIGURE_DEPENDS systemd/*)
foreach(unit IN LISTS units)
    get_filename_component(name ${unit} NAME)
    set(kind system)
    if(name MATCHES "-user\\.")
        set(kind user)
    endif()
    if(name MATCHES "\\.in$")
        string(REGEX REPLACE "\\.in$" "" name ${name})
        install(CODE "
            cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX NORMALIZE OUTPUT_VARIABLE prefix)
            cmake_path(APPEND prefix ${CMAKE_INSTALL_LIBEXECDIR} OUTPUT_VARIABLE CMAKE_INSTALL_FULL_LIBEXECDIR)
            configure_file(\"${unit}\" \"${filled}/${name}\" @ONLY)" COMPONENT services)
        set(unit ${filled}/${name})
    endif()
    install(FILES ${unit} DESTINATION ${VNT_SYSTEMD_DIRECTORY}/${kind} COMPONENT services)
endforeach()
